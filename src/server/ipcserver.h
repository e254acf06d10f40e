// The server endpoint of a host application.
//
// Threads: the host's threads (run_test, send_command, kill_client,
// set_su_file_path), the processing thread (processOnce: registration,
// delivery to the host callback, exits and broken connections, reaping) and
// the accept thread. No peer can hold up, speak for or starve another: each
// connection has its own send lock and receive buffer, neither the accept
// thread nor the processing loop ever waits for a peer's write (the loop's own
// answers are queued on the connection), a message acts only on pairs
// registered on its own connection, and what one peer can make the server
// hold is bounded (resource_limits.h). The client lock guards the socket list
// and the client table, and is never held across a wait or a call out.
#ifndef VEXA_SERVER_IPCSERVER_H
#define VEXA_SERVER_IPCSERVER_H

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "comm/thread_annotations.h"
#include "core/ipcbase.h"
#include "server/acceptor.h"
#include "server/client_registry.h"
#include "server/launcher.h"
#include "server/pass_schedule.h"
#include "server/registration_policy.h"
#include "server/resource_limits.h"

namespace vexa {

class IPCServer : public IPCBase {
  public:
    // serv_path: "tcp://:PORT" (127.0.0.1) or "tcp://IP:PORT"; the log file is
    // "ipc_server_" + logTag + ".log". The registration policy
    // (VEXA_REGISTRATION) and the resource limits are read here. Throws
    // comm::MyException for a null callback or an invalid address.
    IPCServer(const std::string& servPath, ServerCallback callback, void* user,
              const std::string& logTag);
    ~IPCServer() override;

    // Starts a test: a ".so" path is loaded into this process, anything else
    // is started as a program. Always 1.
    int run_test(const char* testPath, const char* dValue, const char* extraArgs);
    // Sends one message to the client registered under dev and testItem; true
    // when it was written whole. Waits only for that client's socket.
    bool send_command(const std::string& dev, int32_t testItem, int32_t eventId, const void* data,
                      int32_t dataLen);
    // Waits out the rest of 500 ms after the last program launch.
    void kill_client();
    void set_su_file_path(const char* suFilePath, const char* suPreCmd);

    // Observers for tests and tools.
    int port() const { return m_port; }
    const std::string& ip() const { return m_ip; }
    // Connections removed so far.
    int exitedCount() const { return m_exitedCount; }
    bool testSoLoaded() const { return m_launcher.testSoLoaded(); }
    size_t clientCount() EXCLUDES(m_clientLock);

  protected:
    int setupSocket() override;
    void onStart() override;
    void onStop() override;
    bool processOnce() override;

  private:
    using ConnectionPtr = std::shared_ptr<Connection>;
    // A connection that ended in this pass: taken out of the list and the
    // table at the end of it.
    struct Removal {
        ConnectionPtr conn;
        bool reportRest;        // pairs still registered on it are reported then,
        std::string silentKey;  // except this one
    };
    // A closed connection that still has an answer to send.
    struct Lingering {
        ConnectionPtr conn;
        int64_t giveUpMs;
    };
    // Messages dropped on one connection since its last drop line.
    struct Drops {
        int64_t loggedAtMs = 0;
        int unlogged = 0;
    };

    // A new connection from the accept thread: listed, then watched.
    void accepted(int fd);
    // Serves the connections of this pass (see PassSchedule) until the pass
    // budget is spent; `events` are epoll's.
    void serveReady(int events);
    void serveOne(Connection* conn);
    void handleMessage(Connection* conn, const IPCMessage& msg);
    // dev: the message's device as text (it may fill all 80 bytes without a NUL).
    // False when the registration was refused (its connection then ends).
    bool registerClient(Connection* conn, const IPCMessage& msg, const char* dev,
                        const std::string& key, bool tokenValid);
    void handleExit(Connection* conn, const IPCMessage& msg, const char* dev,
                    const std::string& key);
    void handleBrokenConnection(Connection* conn);
    // A message for a pair its connection did not register: dropped, and
    // logged at most once a second per connection.
    void dropForeign(Connection* conn, const IPCMessage& msg, const char* dev);
    // Closes conn (after its queued answer) and takes it out of this pass.
    void endConnection(const ConnectionPtr& conn, bool abortWriter, bool reportRest,
                       const std::string& silentKey = std::string());
    void linger(const ConnectionPtr& conn);
    void serviceLingering(int64_t nowMs);
    // Bytes that callbacks' sends took in while waiting, back into their buffers.
    void mergeSideInput();
    // Fails incomplete messages that waited too long, and ends the connections
    // holding the oldest ones while all of them hold more than the limit.
    void expireStalled(int64_t nowMs);
    // Takes the ended connections out of the list and the table, as many as
    // the pass has time for.
    void removeConnections();
    void removeConnection(const Removal& removal);
    // The pass has run longer than its budget, counted from when it first had
    // more than one connection to serve or to remove (m_passStartMs).
    bool passTimeSpent() const;
    // Logs the pair's end and tells the host, as its closing flag says.
    void reportEnd(const ItemClient& item);

    std::string m_servPath;
    int32_t m_port = 0;
    std::string m_ip;
    std::atomic<int> m_exitedCount{0};
    int m_listenSocket = -1;
    int m_epoll = -1;           // the client sockets; their connections join and leave it
    int m_kickFd = -1;          // a launch asks the waiting loop to look again
    uint64_t m_nextSerial = 0;  // accept thread only
    RegistrationPolicy m_policy = RegistrationPolicy::kProtect;
    ResourceLimits m_limits;
    TestLauncher m_launcher;
    Acceptor m_acceptor;

    std::unique_ptr<comm::Mutex, MutexDeleter> m_clientLock;
    // By serial: in order of acceptance.
    std::map<uint64_t, ConnectionPtr> m_sockets GUARDED_BY(m_clientLock);
    std::atomic<size_t> m_connections{0};  // m_sockets.size()
    ClientRegistry m_clients GUARDED_BY(m_clientLock);

    // Processing thread only, kept to avoid allocating on every pass.
    std::vector<epoll_event> m_events;
    std::string m_key;  // the key of the message at hand
    std::vector<Connection*> m_woken;
    PassSchedule m_schedule;
    std::unordered_map<const Connection*, Drops> m_drops;
    std::vector<Removal> m_removeList;  // ended, to be removed
    std::vector<Removal> m_removed;     // removed in this pass, kept alive to its end
    int64_t m_passStartMs = 0;
    std::vector<Lingering> m_lingering;
};

}  // namespace vexa

#endif  // VEXA_SERVER_IPCSERVER_H
