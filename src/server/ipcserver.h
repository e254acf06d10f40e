// The server endpoint of a host application.
//
// Threads: the host's threads (run_test, send_command, kill_client,
// set_su_file_path), the processing thread (processOnce: registration,
// delivery to the host callback, exits and broken connections, reaping) and
// the accept thread. Locks: the send lock of IPCBase around every write and
// every close of a client socket; the client lock around the socket list, the
// client table and the su settings. The two are never held together.
#ifndef VEXA_SERVER_IPCSERVER_H
#define VEXA_SERVER_IPCSERVER_H

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/ipcbase.h"
#include "server/item_client.h"

namespace vexa {

class IPCServer : public IPCBase {
  public:
    // serv_path: "tcp://:PORT" (127.0.0.1) or "tcp://IP:PORT"; the log file is
    // "ipc_server_" + logTag + ".log". Throws comm::MyException for a null
    // callback or an invalid address.
    IPCServer(const std::string& servPath, ServerCallback callback, void* user,
              const std::string& logTag);
    ~IPCServer() override;

    // Starts a test: a ".so" path is loaded into this process, anything else
    // is started as a program. Always 1.
    int run_test(const char* testPath, const char* dValue, const char* extraArgs);
    // Sends one message to the client registered under dev and testItem; true
    // when it was written whole.
    bool send_command(const std::string& dev, int32_t testItem, int32_t eventId, const void* data,
                      int32_t dataLen);
    // Waits out the rest of 500 ms after the last program launch.
    void kill_client();
    void set_su_file_path(const char* suFilePath, const char* suPreCmd);

    // Observers for tests and tools.
    int port() const { return m_port; }
    const std::string& ip() const { return m_ip; }
    int exitedCount() const { return m_exitedCount; }
    bool testSoLoaded() const { return m_testSoLoaded; }
    size_t clientCount();

  protected:
    int setupSocket() override;
    void onStart() override;
    void onStop() override;
    bool processOnce() override;
    bool socketStillOpen(int fd, uint64_t generation) const override;

  private:
    static void acceptThread(void* self);
    void acceptLoop();
    void handleMessage(int fd, const IPCMessage& msg);
    void registerClient(int fd, const IPCMessage& msg, const std::string& key);
    void handleExit(int fd, const IPCMessage& msg, const std::string& key);
    void handleBrokenConnection(int fd);
    void removeSockets();
    // Closes a client socket with the send lock held, so no sender writes on
    // its number after this, even if the process reuses it.
    void closeClientSocket(int fd);
    bool alreadyRemoved(int fd) const;

    comm::ThreadHandle* m_acceptThread = nullptr;
    std::atomic<bool> m_acceptStop{false};
    std::atomic<bool> m_acceptRunning{false};
    std::string m_servPath;
    int32_t m_port = 0;
    std::string m_ip;
    std::atomic<int> m_exitedCount{0};
    std::atomic<uint32_t> m_lastRunTestMs{0};
    int m_listenSocket = -1;

    std::unique_ptr<comm::Mutex, MutexDeleter> m_clientLock;
    std::vector<int> m_sockets;                   // guarded by m_clientLock
    std::map<std::string, ItemClient> m_clients;  // guarded by m_clientLock
    std::string m_suFilePath;                     // guarded by m_clientLock
    std::string m_suPreCmd;                       // guarded by m_clientLock
    std::atomic<bool> m_testSoLoaded{false};

    // Open client sockets and the connection each number currently stands
    // for; guarded by the send lock.
    std::unordered_map<int, uint64_t> m_liveSockets;
    uint64_t m_nextGeneration = 0;  // guarded by the send lock

    // Processing thread only, kept to avoid allocating on every pass.
    std::vector<int> m_passSockets;
    std::vector<pollfd> m_pollFds;
    std::vector<int> m_removeList;
};

}  // namespace vexa

#endif  // VEXA_SERVER_IPCSERVER_H
