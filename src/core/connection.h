// One connected socket of an endpoint: its descriptor, the lock that keeps one
// message whole on the wire, and what has been received on it.
//
// Locks: the send lock is held by one writer for one whole message, so writers
// of this connection wait for each other and for nobody else. A small state
// lock, never held across a system call that waits, guards the close and the
// bytes the processing loop queues. The descriptor is closed only by a holder
// of the send lock, so no writer ever writes to a number that was closed and
// reused, and it leaves the endpoint's poll set first, so that the set never
// loses a later connection given the same number. Threads that must never
// wait for a peer (the processing loop) use post(), requestClose() and
// service(), which never block: what they cannot do at once is done by the
// writer that holds the socket, when it lets go.
#ifndef VEXA_CORE_CONNECTION_H
#define VEXA_CORE_CONNECTION_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "comm/thread_util.h"
#include "core/message_buffer.h"
#include "net/socket_util.h"

namespace comm {
class Logger;
}

namespace vexa {

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    // Takes over fd. `serial` orders connections by their acceptance; the
    // receive buffer keeps its storage in `pool` between messages; the failures
    // of queued answers are logged through `util` (both the endpoint's, which
    // outlives its connections' use). `pollSet`: the endpoint's epoll set that
    // watch() adds the descriptor to (-1: none).
    Connection(int fd, uint64_t serial, MessageBuffer::Pool* pool = nullptr,
               SocketUtil* util = nullptr, int pollSet = -1);
    // Closes the descriptor if it is still open (out of the poll set first).
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // The descriptor's number, kept after the close for log lines.
    int fd() const { return m_fd; }
    uint64_t serial() const { return m_serial; }
    // Not closed, not asked to close, not broken by a failed write.
    bool isOpen() const { return !m_closing.load() && !m_broken.load(); }
    // Asked to close (it may still be sending a queued answer).
    bool closing() const { return m_closing.load(); }

    // The received bytes; the processing thread's alone.
    MessageBuffer& input() { return m_input; }
    const MessageBuffer& input() const { return m_input; }

    // Adds the descriptor to the poll set for input, with this connection as
    // the event's data. False when it has no set or is closing: a connection
    // asked to close is no longer watched.
    bool watch();

    // One writer's hold on the socket for one message. Waits only for other
    // writers of this connection (no longer than deadlineMs when it is not 0),
    // taking in meanwhile what the peer sends when `input` is given.
    // The send lock is held from construction to destruction only when the
    // turn was had (m_held): a hold the analysis cannot follow, so these two
    // are left out of it; write() and the destructor assert it instead.
    class SendTurn {
      public:
        explicit SendTurn(Connection& conn, int64_t deadlineMs = 0,
                          InputWhileWaiting* input = nullptr) NO_THREAD_SAFETY_ANALYSIS;
        // Lets go, after carrying out a close or queued bytes left by the loop.
        ~SendTurn() NO_THREAD_SAFETY_ANALYSIS;
        SendTurn(const SendTurn&) = delete;
        SendTurn& operator=(const SendTurn&) = delete;

        // The socket is held and open for writing.
        explicit operator bool() const { return m_held && m_conn.isOpen(); }
        // Writes head and body as one message. Either all of it goes out or,
        // when a failure comes after part of it, the connection is shut down,
        // so that both ends see it end and later sends fail: a message is never
        // cut on the wire. False (logged) when the write failed.
        bool write(SocketUtil& util, comm::Logger* logger, const uint8_t* head, const void* body,
                   int32_t bodyLen, const StopFlag* stop, WriteWait* wait);

      private:
        Connection& m_conn;
        bool m_held = false;
    };

    // Never waits. Queues one whole message to go out after the writer that
    // holds the socket, if any.
    void post(const uint8_t* bytes, size_t len);
    // Never waits. No writer may start any more; the descriptor is closed once
    // the queued bytes are out (at once when there are none and nobody holds
    // the socket). `abortWriter`: a writer stuck on a peer that does not read
    // is woken to fail, unless queued bytes still have to go.
    void requestClose(bool abortWriter);
    // Never waits. Gives up on queued bytes, their write having waited a
    // whole budget: close as soon as possible.
    void abandon();
    // Never waits: writes queued bytes as far as the socket takes them, then
    // closes if asked. True when nothing is left to do. The processing loop
    // calls it again for a connection that still has something to do.
    bool service();

  private:
    // With the send lock held: queued bytes, then the close.
    void serviceHeld() REQUIRES(m_sendLock) EXCLUDES(m_stateLock);
    // Shuts the socket down while its number is surely still this socket's.
    void shutDown() EXCLUDES(m_stateLock);
    // A SendTurn that was had holds the send lock.
    void heldBySendTurn() const ASSERT_HELD(m_sendLock) {}
    // The one way the descriptor is closed: out of the poll set, then closed.
    void closeNow() REQUIRES(m_sendLock, m_stateLock);
    void unwatch() REQUIRES(m_stateLock);

    const int m_fd;
    const uint64_t m_serial;
    const int m_pollSet;
    comm::Mutex* const m_sendLock;
    comm::Lock m_stateLock;
    SocketUtil* m_util;
    std::string m_queued GUARDED_BY(m_stateLock);
    // Part of m_queued's first message went out.
    bool m_queueStarted GUARDED_BY(m_stateLock) = false;
    bool m_watched GUARDED_BY(m_stateLock) = false;
    std::atomic<bool> m_serviceWanted{false};
    std::atomic<bool> m_closing{false};
    std::atomic<bool> m_broken{false};
    std::atomic<bool> m_closed{false};  // written under m_stateLock and the send lock
    MessageBuffer m_input;
};

}  // namespace vexa

#endif  // VEXA_CORE_CONNECTION_H
