#include "server/ipcserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "comm/string_util.h"
#include "server/test_launcher.h"
#include "server/test_library.h"

namespace vexa {
namespace {

constexpr int kLoopWaitMs = 5;
constexpr uint32_t kIdleSleepMs = 10;
constexpr int kAcceptWaitMs = 5;
constexpr int kListenBacklog = 5;
constexpr uint32_t kKillDelayMs = 500;
const char kSource[] = "ipcserver";

// dev as received may fill all 80 bytes without a NUL.
std::string dev_text(const IPCMessage& msg) {
    return std::string(msg.dev, strnlen(msg.dev, IPC_DEV_SIZE));
}

}  // namespace

IPCServer::IPCServer(const std::string& servPath, ServerCallback callback, void* user,
                     const std::string& logTag)
    : IPCBase(callback, user, "ipc_server_" + logTag + ".log") {
    if (callback == nullptr) {
        m_logger->writeLine("callback cannot be null");
        comm::throw_failure();
    }
    m_servPath = servPath;
    bool valid = false;
    if (comm::starts_with(servPath, "tcp://:")) {
        m_port = std::atoi(servPath.c_str() + std::strlen("tcp://:"));
        m_ip = "127.0.0.1";
        valid = m_port != 0;
    } else if (comm::starts_with(servPath, "tcp://")) {
        std::vector<std::string> pieces;
        comm::split_by_string(servPath.substr(std::strlen("tcp://")), ":", pieces, false);
        if (pieces.size() >= 2) {
            m_ip = pieces[0];
            m_port = std::atoi(pieces[1].c_str());
            valid = m_port != 0;
        }
    }
    if (!valid) {
        m_logger->writeFormat("serv_path invalid %s", servPath.c_str());
        comm::throw_failure();
    }
    m_clientLock.reset(comm::mutex_create());
    m_suFilePath = "su -c";
    m_suPreCmd = "";
}

IPCServer::~IPCServer() {
    m_logger->writeLine("ipcserver free start");
    // No thread runs any more: stop() joined both, or start() never ran.
    for (int fd : m_sockets) {
        SocketUtil::mysock_close(fd);
    }
    if (m_listenSocket != -1) {
        SocketUtil::mysock_close(m_listenSocket);
        m_listenSocket = -1;
    }
    if (TestLibrary::m_hDllLib != nullptr) {
        m_logger->writeLine("waiting release_so_client...");
        TestLibrary::release_test_so_client(m_logger.get());
        m_logger->writeLine("release_so_client stopped");
        m_logger->writeLine("m_hDllLib free start");
        TestLibrary::close();
    }
    m_clientLock.reset();
    m_logger->writeLine("ipcserver free end");
}

int IPCServer::setupSocket() {
    m_logger->writeLine("socket");
    m_listenSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (m_listenSocket == -1) {
        m_logger->writeFormat("socket error=%s", m_sockUtil.mysock_strerror());
        comm::throw_failure();
    }
    m_sockUtil.mysock_option_windowsize(m_listenSocket, kSendBufferSize, kRecvBufferSize);
    m_logger->writeLine("mysock_option_nodelay");
    SocketUtil::mysock_option_nodelay(m_listenSocket);
    m_logger->writeLine("disable_sigpipe");
    SocketUtil::mysock_option_disable_sigpipe(m_listenSocket);
    m_logger->writeLine("reuse_addr");
    SocketUtil::mysock_option_reuse_addr(m_listenSocket);

    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    // Only the low 16 bits of the port count: tcp://:70000 binds 4464.
    addr.sin_port = htons(static_cast<uint16_t>(m_port));
    addr.sin_addr.s_addr = inet_addr(m_ip.c_str());
    m_logger->writeFormat("bind %s:%d", m_ip.c_str(), m_port);
    int bound = -1;
    if (addr.sin_addr.s_addr == INADDR_NONE && m_ip != "255.255.255.255") {
        // inet_addr gives the broadcast address for a text it cannot parse
        // (a host name such as "localhost"), and Linux lets a TCP socket bind
        // it: the server would listen where no client can reach it. Such a
        // text fails here as bind fails for an address that is not local.
        errno = EADDRNOTAVAIL;
    } else {
        bound = bind(m_listenSocket, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    }
    if (bound == -1) {
        m_logger->writeFormat("bind error=%s", m_sockUtil.mysock_strerror());
        comm::throw_failure();
    }
    int rc = listen(m_listenSocket, kListenBacklog);
    if (rc == -1) {
        m_logger->writeFormat("listen  error=%s", m_sockUtil.mysock_strerror());
        comm::throw_failure();
    }
    return rc;
}

void IPCServer::onStart() {
    m_acceptStop = false;
    m_acceptThread = comm::thread_create(&IPCServer::acceptThread, this);
}

void IPCServer::acceptThread(void* self) {
    static_cast<IPCServer*>(self)->acceptLoop();
}

void IPCServer::acceptLoop() {
    m_acceptRunning = true;
    m_logger->writeLine("accept_thread...");
    while (!m_acceptStop) {
        if (SocketUtil::mysock_wait_readable(m_listenSocket, kAcceptWaitMs) <= 0) {
            continue;
        }
        int fd = accept4(m_listenSocket, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            // The thread ends for good; connected clients keep working.
            m_logger->writeFormat("accept failed error=%s", m_sockUtil.mysock_strerror());
            break;
        }
        m_logger->writeFormat("accept ok client_socket=%d", fd);
        withSendLock(kSource, 205, 207, [&] { m_liveSockets[fd] = ++m_nextGeneration; });
        comm::mutex_lock(m_clientLock.get(), kSource, 210);
        m_sockets.push_back(fd);
        comm::mutex_unlock(m_clientLock.get(), kSource, 212);
        if (m_acceptStop) {
            break;
        }
    }
    m_logger->writeLine("accept_thread finish");
    m_acceptRunning = false;
}

void IPCServer::onStop() {
    size_t clients = clientCount();
    if (clients != 0) {
        m_logger->writeFormat("warning!, has %d clients not exit", static_cast<int>(clients));
    }
    m_acceptStop = true;
    m_logger->writeLine("waiting accept_thread...");
    comm::thread_join(m_acceptThread);
    m_logger->writeLine("accept_thread stopped");
}

size_t IPCServer::clientCount() {
    comm::MutexGuard guard(m_clientLock.get(), kSource, 300, 302);
    return m_clients.size();
}

bool IPCServer::processOnce() {
    if (!m_testSoLoaded && m_exitedCount > 0) {
        pid_t pid = waitpid(0, nullptr, WNOHANG);
        if (pid > 0) {
            m_logger->writeFormat("waitpid pid=%d", static_cast<int>(pid));
            --m_exitedCount;
        }
    }

    comm::mutex_lock(m_clientLock.get(), kSource, 330);
    m_passSockets = m_sockets;
    comm::mutex_unlock(m_clientLock.get(), kSource, 332);
    if (m_passSockets.empty()) {
        comm::sleep_ms(kIdleSleepMs);
        return true;
    }

    m_pollFds.clear();
    for (int fd : m_passSockets) {
        m_pollFds.push_back(pollfd{fd, POLLIN, 0});
    }
    int ready = poll(m_pollFds.data(), m_pollFds.size(), kLoopWaitMs);
    if (ready <= 0) {
        return true;
    }

    m_removeList.clear();
    IPCMessage msg{};
    const StopFlag abort{0};
    for (const pollfd& entry : m_pollFds) {
        if ((entry.revents & (POLLIN | POLLHUP | POLLERR)) == 0 || alreadyRemoved(entry.fd)) {
            continue;
        }
        std::memset(&msg, 0, sizeof(msg));
        msg.data = recvBuffer();
        if (!readMsgFromSocket(&m_sockUtil, entry.fd, &msg, m_logger.get(), &abort)) {
            handleBrokenConnection(entry.fd);
            continue;
        }
        handleMessage(entry.fd, msg);
    }
    removeSockets();
    return true;
}

bool IPCServer::alreadyRemoved(int fd) const {
    return std::find(m_removeList.begin(), m_removeList.end(), fd) != m_removeList.end();
}

void IPCServer::handleMessage(int fd, const IPCMessage& msg) {
    const std::string dev = dev_text(msg);
    const std::string key = make_client_key(dev, msg.test_item);
    if (msg.event_id == CLIENT_IPC_CONFIG) {
        registerClient(fd, msg, key);
    }
    bool known = false;
    {
        comm::MutexGuard guard(m_clientLock.get(), kSource, 360, 362);
        known = m_clients.count(key) != 0;
    }
    if (!known) {
        return;  // messages are routed by dev and test_item; strangers are dropped
    }
    if (msg.event_id == CLIENT_IPC_EXIT) {
        handleExit(fd, msg, key);
        return;
    }
    if (tracing()) {
        m_logger->writeFormat("recv dev=%s test_item=%d event_id=%d data_len=%d", dev.c_str(),
                              msg.test_item, msg.event_id, msg.data_len);
    }
    callBack(msg.test_item, msg.event_id, dev.c_str(), msg.time_sec, msg.time_usec, msg.data,
             msg.data_len);
    if (tracing()) {
        m_logger->writeLine("call finish");
    }
}

void IPCServer::registerClient(int fd, const IPCMessage& msg, const std::string& key) {
    ItemClient previous;
    bool replaced = false;
    ItemClient item;
    item.dev = dev_text(msg);
    item.test_item = msg.test_item;
    item.socket = fd;
    item.closing = false;
    // The body is the client's pid in its native byte order.
    std::memcpy(&item.pid, msg.data, sizeof(item.pid));
    withSendLock(kSource, 370, 371, [&] {
        auto live = m_liveSockets.find(fd);
        item.generation = live != m_liveSockets.end() ? live->second : 0;
    });
    {
        comm::MutexGuard guard(m_clientLock.get(), kSource, 375, 380);
        auto found = m_clients.find(key);
        if (found != m_clients.end()) {
            previous = found->second;
            replaced = true;
            m_clients.erase(found);
        }
    }
    if (replaced) {
        // A second registration of the same pair, on this connection or
        // another, drops the connection it was registered on.
        m_logger->writeFormat("warning! CLIENT_IPC_CONFIG again! test_item=%d", msg.test_item);
        // The replaced connection may have ended earlier in this pass, and its
        // number may already belong to a connection accepted since: only the
        // connection that registered is closed, and only once.
        bool stillOpen = false;
        withSendLock(kSource, 384, 388, [&] {
            stillOpen = socketStillOpen(previous.socket, previous.generation);
            if (stillOpen) {
                SocketUtil::mysock_close(previous.socket);
                m_liveSockets.erase(previous.socket);
            }
        });
        m_logger->writeFormat("overwrite. remove socket=%d", previous.socket);
        if (stillOpen) {
            m_removeList.push_back(previous.socket);
        }
    }
    {
        comm::MutexGuard guard(m_clientLock.get(), kSource, 390, 392);
        m_clients[key] = item;
    }
    m_logger->writeFormat("CLIENT_IPC_CONFIG %s", item_client_text(item).c_str());
}

void IPCServer::handleExit(int fd, const IPCMessage& msg, const std::string& key) {
    const std::string dev = dev_text(msg);
    m_logger->writeFormat("recv dev=%s test_item=%d event_id=%d data_len=%d", dev.c_str(),
                          msg.test_item, msg.event_id, msg.data_len);
    {
        comm::MutexGuard guard(m_clientLock.get(), kSource, 400, 402);
        auto found = m_clients.find(key);
        if (found != m_clients.end()) {
            found->second.closing = true;
        }
    }
    send_command(dev, msg.test_item, CLIENT_IPC_EXIT_ACK, nullptr, 0);
    m_logger->writeFormat("client close dev=%s test_item=%d", dev.c_str(), msg.test_item);
    callBack(msg.test_item, CLIENT_IPC_CLOSED, dev.c_str(), msg.time_sec, msg.time_usec, msg.data,
             msg.data_len);
    closeClientSocket(fd);
    m_removeList.push_back(fd);
}

void IPCServer::handleBrokenConnection(int fd) {
    closeClientSocket(fd);
    m_removeList.push_back(fd);
    ItemClient item;
    bool found = false;
    {
        comm::MutexGuard guard(m_clientLock.get(), kSource, 420, 422);
        for (const auto& entry : m_clients) {
            if (entry.second.socket == fd) {
                item = entry.second;  // the last match in key order
                found = true;
            }
        }
    }
    if (!found) {
        m_logger->writeFormat("not found ItemClient of sockfd=%d.", fd);
        return;
    }
    const std::string text = item_client_text(item);
    if (item.closing) {
        m_logger->writeFormat("client close %s result=%d", text.c_str(), -1);
        return;
    }
    m_logger->writeFormat("client offline %s result=%d", text.c_str(), -1);
    timeval now{};
    gettimeofday(&now, nullptr);
    callBack(item.test_item, CLIENT_IPC_OFFLINE, item.dev.c_str(), static_cast<int32_t>(now.tv_sec),
             static_cast<int32_t>(now.tv_usec), nullptr, 0);
}

void IPCServer::removeSockets() {
    for (int fd : m_removeList) {
        comm::mutex_lock(m_clientLock.get(), kSource, 383);
        auto listed = std::find(m_sockets.begin(), m_sockets.end(), fd);
        if (listed != m_sockets.end()) {
            m_sockets.erase(listed);
        }
        for (auto entry = m_clients.begin(); entry != m_clients.end(); ++entry) {
            if (entry->second.socket == fd) {
                m_clients.erase(entry);
                break;
            }
        }
        comm::mutex_unlock(m_clientLock.get(), kSource, 403);
        // Raised for every removed socket, with or without a child behind it.
        ++m_exitedCount;
    }
}

void IPCServer::closeClientSocket(int fd) {
    withSendLock(kSource, 440, 441, [&] {
        SocketUtil::mysock_close(fd);
        m_liveSockets.erase(fd);
    });
}

bool IPCServer::socketStillOpen(int fd, uint64_t generation) const {
    auto live = m_liveSockets.find(fd);
    return live != m_liveSockets.end() && live->second == generation;
}

bool IPCServer::send_command(const std::string& dev, int32_t testItem, int32_t eventId,
                             const void* data, int32_t dataLen) {
    ItemClient item;
    bool found = false;
    {
        comm::MutexGuard guard(m_clientLock.get(), kSource, 460, 462);
        auto entry = m_clients.find(make_client_key(dev, testItem));
        if (entry != m_clients.end()) {
            item = entry->second;
            found = true;
        }
    }
    if (!found) {
        m_logger->writeFormat("error! send_command event=%d dev=%s test_item=%d client not exist",
                              eventId, dev.c_str(), testItem);
        return false;
    }
    return sendChecked(item.socket, item.generation, dev.c_str(), testItem, eventId, data, dataLen);
}

void IPCServer::kill_client() {
    uint32_t since = comm::tick_ms() - m_lastRunTestMs;
    if (since > kKillDelayMs - 1) {
        return;
    }
    m_logger->writeLine("delay 500ms as just ipc_run_test");
    comm::sleep_ms(kKillDelayMs);
}

void IPCServer::set_su_file_path(const char* suFilePath, const char* suPreCmd) {
    if (suFilePath == nullptr) {
        return;
    }
    const char* preCmd = suPreCmd != nullptr ? suPreCmd : "";
    m_logger->writeFormat("set su_file_path:%s su_pre_cmd:%s", suFilePath, preCmd);
    comm::MutexGuard guard(m_clientLock.get(), kSource, 480, 482);
    m_suFilePath = suFilePath;
    m_suPreCmd = preCmd;
}

int IPCServer::run_test(const char* testPath, const char* dValue, const char* extraArgs) {
    const std::string path = testPath != nullptr ? testPath : "";
    std::string suFilePath;
    std::string suPreCmd;
    {
        comm::MutexGuard guard(m_clientLock.get(), kSource, 490, 492);
        suFilePath = m_suFilePath;
        suPreCmd = m_suPreCmd;
    }
    const std::string cmdArgs = build_cmd_args(m_servPath, dValue, extraArgs);
    m_logger->writeFormat("run_test %s %s", path.c_str(), cmdArgs.c_str());

    if (comm::ends_with(path, ".so")) {
        m_testSoLoaded = true;
        TestLibrary::load_test_so(path, dValue, extraArgs, m_servPath, m_logger.get());
        return 1;
    }
    // A failed fork or exec is not reported: the test proves itself by registering.
    spawn_test_process(plan_launch(path, cmdArgs, suFilePath, suPreCmd), m_listenSocket);
    m_logger->writeFormat("run_test ok, ppid=%d pthreadid=%lu", static_cast<int>(getpid()),
                          static_cast<unsigned long>(pthread_self()));
    m_lastRunTestMs = comm::tick_ms();
    return 1;
}

}  // namespace vexa
