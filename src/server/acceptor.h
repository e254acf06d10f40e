// The server's accept thread: takes connections in from the listening socket
// and hands each to the server. It never waits for a peer, and it survives an
// accept that fails for want of descriptors or memory: it says so once, waits
// a little and goes on, so that tests are accepted again as soon as
// descriptors are free. Only an unusable listening socket ends it.
#ifndef VEXA_SERVER_ACCEPTOR_H
#define VEXA_SERVER_ACCEPTOR_H

#include <atomic>
#include <functional>

#include "comm/thread_util.h"
#include "net/socket_util.h"

namespace comm {
class Logger;
}

namespace vexa {

class Acceptor {
  public:
    // Called on the accept thread with each new (close-on-exec) socket.
    using OnAccept = std::function<void(int fd)>;

    // `util` gives the error texts of the endpoint that owns both.
    Acceptor(comm::Logger* logger, SocketUtil* util) : m_logger(logger), m_util(util) {}
    ~Acceptor();
    Acceptor(const Acceptor&) = delete;
    Acceptor& operator=(const Acceptor&) = delete;

    // Starts the thread on `listenSocket`; without a thread nothing is accepted.
    void start(int listenSocket, OnAccept onAccept);
    // Ends the thread (at once, even while it waits) and joins it. Once.
    void stop();

  private:
    static void threadMain(void* self);
    void loop();
    // After a failed accept: true to go on (having waited when it failed for
    // want of descriptors or memory), false when the listening socket is unusable.
    bool survived(int error, int* failures);
    // Waits ms, or less when stop() is called.
    void pause(int ms);

    comm::Logger* m_logger;
    SocketUtil* m_util;
    int m_listenSocket = -1;
    OnAccept m_onAccept;
    comm::ThreadHandle* m_thread = nullptr;
    std::atomic<bool> m_stop{false};
    int m_wake = -1;  // readable once stop() wants the thread to end
};

}  // namespace vexa

#endif  // VEXA_SERVER_ACCEPTOR_H
