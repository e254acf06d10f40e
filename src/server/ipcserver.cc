#include "server/ipcserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "core/launch_token.h"
#include "core/server_address.h"
#include "server/so_loader.h"

namespace vexa {
namespace {

constexpr int kLoopWaitMs = 5;
// The kernel caps it at the system's maximum (net.core.somaxconn): a burst
// of connecting tests never waits for a SYN retry.
constexpr int kListenBacklog = INT_MAX;
constexpr int64_t kDropLogIntervalMs = 1000;
const char kSource[] = "ipcserver";

}  // namespace

IPCServer::IPCServer(const std::string& servPath, ServerCallback callback, void* user,
                     const std::string& logTag)
    : IPCBase(callback, user, "ipc_server_" + logTag + ".log"),
      m_launcher(servPath, m_logger.get()),
      m_acceptor(m_logger.get(), &m_sockUtil) {
    if (callback == nullptr) {
        m_logger->writeLine("callback cannot be null");
        comm::throw_failure();
    }
    m_servPath = servPath;
    ServerAddress address;
    const bool valid = parse_server_address(servPath, &address);
    m_ip = address.host;
    m_port = address.port;
    if (!valid) {
        m_logger->writeFormat("serv_path invalid %s", servPath.c_str());
        comm::throw_failure();
    }
    m_clientLock.reset(comm::mutex_create());
    std::string unknown;
    m_policy = registration_policy_from_environment(&unknown);
    m_launcher.allowWithoutToken(m_policy == RegistrationPolicy::kOpen);
    if (!unknown.empty()) {
        m_logger->writeFormat("%s=%s unknown, using protect", kRegistrationVariable,
                              unknown.c_str());
    }
    m_limits = ResourceLimits::fromEnvironment();
    m_logger->writeFormat(
        "registration=%s max_incomplete_bytes=%zu max_pairs_per_connection=%zu "
        "pass_budget_ms=%lld",
        registration_policy_name(m_policy), m_limits.maxIncompleteBytes,
        m_limits.maxPairsPerConnection, static_cast<long long>(m_limits.passBudgetMs));
}

IPCServer::~IPCServer() {
    m_logger->writeLine("ipcserver free start");
    // No thread runs any more: stop() joined both, or start() never ran.
    for (const auto& entry : m_sockets) {
        entry.second->requestClose(true);
    }
    for (const Lingering& entry : m_lingering) {
        entry.conn->requestClose(true);
    }
    if (m_listenSocket != -1) {
        SocketUtil::mysock_close(m_listenSocket);
        m_listenSocket = -1;
    }
    if (m_kickFd != -1) {
        ::close(m_kickFd);
    }
    if (SoLoader::m_hDllLib != nullptr) {
        m_logger->writeLine("waiting release_so_client...");
        SoLoader::release_test_so_client(m_logger.get());
        m_logger->writeLine("release_so_client stopped");
        m_logger->writeLine("m_hDllLib free start");
        SoLoader::close();
    }
    forget_in_process_token(m_servPath);
    // Every connection has left the set by now: a close request unwatches.
    if (m_epoll != -1) {
        ::close(m_epoll);
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
    m_sockUtil.mysock_prepare(m_listenSocket);
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
    // The set of client sockets the loop waits on: a pass costs the same
    // however many idle clients there are.
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    if (m_epoll == -1) {
        m_logger->writeFormat("epoll_create error=%s", m_sockUtil.mysock_strerror());
        comm::throw_failure();
    }
    if (wakeFd() >= 0) {
        epoll_event wake{};
        wake.events = EPOLLIN;
        wake.data.ptr = nullptr;  // no connection: stop() was called
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, wakeFd(), &wake);
    }
    m_kickFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_kickFd >= 0) {
        epoll_event kick{};
        kick.events = EPOLLIN;
        kick.data.ptr = this;  // no connection: a host thread wants a look
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_kickFd, &kick);
    }
    m_events.resize(2);  // grown with the connections
    return rc;
}

void IPCServer::onStart() {
    m_acceptor.start(m_listenSocket, [this](int fd) { accepted(fd); });
}

void IPCServer::accepted(int fd) {
    auto conn =
        std::make_shared<Connection>(fd, ++m_nextSerial, bufferPool(), &m_sockUtil, m_epoll);
    {
        // The append's lock failures name the lines they always have.
        comm::MutexGuard guard(m_clientLock.get(), kSource, 210, 212);
        m_sockets.emplace(conn->serial(), conn);
        m_connections = m_sockets.size();
    }
    // Listed first, so that the loop knows every connection it hears of.
    conn->watch();
}

void IPCServer::onStop() {
    size_t clients = clientCount();
    if (clients != 0) {
        m_logger->writeFormat("warning!, has %d clients not exit", static_cast<int>(clients));
    }
    m_logger->writeLine("waiting accept_thread...");
    m_acceptor.stop();
    m_logger->writeLine("accept_thread stopped");
}

size_t IPCServer::clientCount() {
    const comm::MutexGuard guard(m_clientLock.get(), kSource, __LINE__, __LINE__);
    return m_clients.size();
}

bool IPCServer::processOnce() {
    m_passStartMs = 0;  // the budget runs only where there is more than one thing to do
    m_launcher.reap();
    if (!m_lingering.empty() || m_schedule.hasStalled()) {
        const int64_t now = comm::monotonic_ms();
        serviceLingering(now);
        expireStalled(now);
    }
    // A connection with a whole message already here is ready without
    // waiting, and so are removals a pass had no time for. Otherwise the loop
    // sleeps until a socket (or stop) wakes it, and looks again every few
    // milliseconds only while something needs watching that no socket
    // announces: children to reap, answers to finish, messages that are late
    // to complete.
    int waitMs = m_kickFd >= 0 ? idleWaitMs() : kLoopWaitMs;
    if (m_schedule.readyWithoutWaiting() || !m_removeList.empty()) {
        waitMs = 0;
    } else if (m_launcher.hasChildren() || !m_lingering.empty() || m_schedule.hasStalled()) {
        waitMs = kLoopWaitMs;
    }
    // Room for every connection at once, so that a pass serves all that are
    // ready in the order of their acceptance, as it always has.
    if (m_events.size() < m_connections + 2) {
        m_events.resize(m_connections + 2);
    }
    const int events =
        epoll_wait(m_epoll, m_events.data(), static_cast<int>(m_events.size()), waitMs);
    if (events <= 0 && !m_schedule.readyWithoutWaiting()) {
        removeConnections();  // given up by serviceLingering or expireStalled, or left over
        m_removed.clear();
        return true;
    }
    serveReady(events);
    removeConnections();
    mergeSideInput();
    // Last: the side input above may still point at a connection removed in
    // this pass, and what is removed must not wait for the next pass to go.
    m_removed.clear();
    return true;
}

bool IPCServer::passTimeSpent() const {
    return comm::monotonic_ms() - m_passStartMs > m_limits.passBudgetMs;
}

void IPCServer::serveReady(int events) {
    m_woken.clear();
    for (int i = 0; i < events; ++i) {
        void* source = m_events[i].data.ptr;
        if (source == this) {
            uint64_t kicks = 0;
            [[maybe_unused]] const ssize_t got = ::read(m_kickFd, &kicks, sizeof(kicks));
        } else if (source != nullptr) {
            m_woken.push_back(static_cast<Connection*>(source));
        }
    }
    const std::vector<Connection*>& ready = m_schedule.collect(&m_woken);
    if (ready.size() > 1) {
        m_passStartMs = comm::monotonic_ms();
    }
    size_t served = 0;
    while (served < ready.size()) {
        Connection* conn = ready[served++];
        const size_t before = conn->input().incompleteBytes();
        serveOne(conn);
        // The limit on incomplete messages holds within a pass too.
        if (m_schedule.afterTurn(conn, before) > m_limits.maxIncompleteBytes) {
            expireStalled(comm::monotonic_ms());
        }
        if (served < ready.size() && passTimeSpent()) {
            // The loop looks at its sockets again before it goes on.
            m_schedule.carryFrom(served);
            break;
        }
    }
}

void IPCServer::serveOne(Connection* conn) {
    if (conn->closing()) {
        return;  // ended earlier in this pass
    }
    MessageBuffer& input = conn->input();
    if (!input.ready()) {
        input.takeIn(conn->fd());
    }
    IPCMessage msg{};
    switch (input.next(&msg, m_logger.get(), m_sockUtil)) {
        case MessageBuffer::Next::kNeedMore:
            break;
        case MessageBuffer::Next::kFailed:
            handleBrokenConnection(conn);
            mergeSideInput();
            return;
        case MessageBuffer::Next::kMessage:
            handleMessage(conn, msg);
            input.done();
            mergeSideInput();
            break;
    }
    m_schedule.requeue(conn);
}

void IPCServer::handleMessage(Connection* conn, const IPCMessage& msg) {
    // dev as received may fill all 80 bytes without a NUL.
    char dev[IPC_DEV_SIZE + 1];
    const size_t devLength = strnlen(msg.dev, IPC_DEV_SIZE);
    std::memcpy(dev, msg.dev, devLength);
    dev[devLength] = '\0';
    make_client_key(dev, devLength, msg.test_item, &m_key);
    int32_t dataLen = msg.data_len;
    if (msg.event_id == CLIENT_IPC_CONFIG) {
        // The host sees the pid, as from a client without a token.
        const RegistrationBody body = split_registration_body(msg.data, msg.data_len);
        dataLen = body.hostLength;
        if (!registerClient(conn, msg, dev, m_key, m_launcher.tokens().valid(body.token))) {
            return;
        }
    }
    bool mine = false;
    {
        const comm::MutexGuard guard(m_clientLock.get(), kSource, __LINE__, __LINE__);
        mine = m_clients.registeredOn(m_key, conn);
    }
    if (!mine) {
        dropForeign(conn, msg, dev);
        return;
    }
    if (msg.event_id == CLIENT_IPC_EXIT) {
        handleExit(conn, msg, dev, m_key);
        return;
    }
    if (tracing()) {
        m_logger->writeFormat("recv dev=%s test_item=%d event_id=%d data_len=%d", dev,
                              msg.test_item, msg.event_id, dataLen);
    }
    callBack(msg.test_item, msg.event_id, dev, msg.time_sec, msg.time_usec, msg.data, dataLen);
    if (tracing()) {
        m_logger->writeLine("call finish");
    }
}

bool IPCServer::registerClient(Connection* conn, const IPCMessage& msg, const char* dev,
                               const std::string& key, bool tokenValid) {
    ItemClient item;
    item.dev = dev;
    item.test_item = msg.test_item;
    item.socket = conn->fd();
    item.launched = tokenValid;
    // The body is the client's pid in its native byte order; a shorter body
    // leaves the missing bytes 0.
    std::memcpy(&item.pid, msg.data, std::min<size_t>(sizeof(item.pid), msg.data_len));
    item.conn = conn->shared_from_this();
    ItemClient previous;
    bool replaced = false;
    const char* refusal = nullptr;
    {
        const comm::MutexGuard guard(m_clientLock.get(), kSource, __LINE__, __LINE__);
        ItemClient* found = m_clients.find(key);
        refusal = refusal_reason(m_policy, tokenValid, found != nullptr && found->launched);
        if (refusal == nullptr && !m_clients.registeredOn(key, conn) &&
            m_clients.pairsOn(conn) >= m_limits.maxPairsPerConnection) {
            refusal = "more pairs on one connection than VEXA_MAX_PAIRS_PER_CONNECTION allows";
        }
        if (found != nullptr && refusal == nullptr) {
            previous = *found;
            replaced = true;
            m_clients.erase(key);
        }
    }
    if (refusal != nullptr) {
        m_logger->writeFormat("registration refused: dev=%s test_item=%d socket=%d: %s", dev,
                              msg.test_item, conn->fd(), refusal);
        endConnection(conn->shared_from_this(), true, true);
        return false;
    }
    if (replaced) {
        // A second registration of the same pair, on this connection or
        // another, drops the connection it was registered on, once.
        m_logger->writeFormat("warning! CLIENT_IPC_CONFIG again! test_item=%d", msg.test_item);
        if (!previous.conn->closing()) {
            // Pairs registered on that connection end with it; on this very
            // connection the pair just registered goes silently, as it always has.
            endConnection(previous.conn, true, true,
                          previous.conn.get() == conn ? key : std::string());
        }
        m_logger->writeFormat("overwrite. remove socket=%d", previous.socket);
    }
    {
        const comm::MutexGuard guard(m_clientLock.get(), kSource, __LINE__, __LINE__);
        m_clients.put(key, item);
    }
    m_logger->writeFormat("CLIENT_IPC_CONFIG %s%s", item_client_text(item).c_str(),
                          item.launched ? " launched" : "");
    return true;
}

void IPCServer::handleExit(Connection* conn, const IPCMessage& msg, const char* dev,
                           const std::string& key) {
    m_logger->writeFormat("recv dev=%s test_item=%d event_id=%d data_len=%d", dev, msg.test_item,
                          msg.event_id, msg.data_len);
    {
        const comm::MutexGuard guard(m_clientLock.get(), kSource, __LINE__, __LINE__);
        m_clients.find(key)->closing = true;  // registered on conn: checked by the caller
    }
    // The answer is queued, never waited for: it leaves as soon as the socket
    // takes it, before the close.
    const ConnectionPtr self = conn->shared_from_this();
    if (conn->isOpen()) {
        post(*conn, dev, msg.test_item, CLIENT_IPC_EXIT_ACK);
        linger(self);
    }
    m_logger->writeFormat("client close dev=%s test_item=%d", dev, msg.test_item);
    callBack(msg.test_item, CLIENT_IPC_CLOSED, dev, msg.time_sec, msg.time_usec, msg.data,
             msg.data_len);
    endConnection(self, false, true);
}

void IPCServer::handleBrokenConnection(Connection* conn) {
    const ConnectionPtr ended = conn->shared_from_this();
    endConnection(ended, true, false);
    std::vector<ItemClient> items;
    {
        const comm::MutexGuard guard(m_clientLock.get(), kSource, __LINE__, __LINE__);
        items = m_clients.pairsOf(conn);
    }
    if (items.empty()) {
        m_logger->writeFormat("not found ItemClient of sockfd=%d.", conn->fd());
        return;
    }
    // Every pair registered on the connection ends with it, in key order.
    for (const ItemClient& item : items) {
        reportEnd(item);
    }
}

void IPCServer::dropForeign(Connection* conn, const IPCMessage& msg, const char* dev) {
    Drops& drops = m_drops[conn];
    const int64_t now = comm::monotonic_ms();
    if (drops.loggedAtMs != 0 && now - drops.loggedAtMs < kDropLogIntervalMs) {
        ++drops.unlogged;
        return;
    }
    m_logger->writeFormat(
        "dropped: dev=%s test_item=%d event_id=%d is not registered on socket=%d (%d more "
        "dropped since the last such line)",
        dev, msg.test_item, msg.event_id, conn->fd(), drops.unlogged);
    drops.loggedAtMs = now;
    drops.unlogged = 0;
}

void IPCServer::reportEnd(const ItemClient& item) {
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

void IPCServer::endConnection(const ConnectionPtr& conn, bool abortWriter, bool reportRest,
                              const std::string& silentKey) {
    // The connection leaves the poll set itself, before its number is closed.
    conn->requestClose(abortWriter);
    linger(conn);
    m_removeList.push_back(Removal{conn, reportRest, silentKey});
}

void IPCServer::linger(const ConnectionPtr& conn) {
    if (conn->service()) {
        return;
    }
    for (const Lingering& entry : m_lingering) {
        if (entry.conn == conn) {
            return;
        }
    }
    // As long as a write may wait for room, and not longer.
    m_lingering.push_back(
        Lingering{conn, comm::monotonic_ms() + m_sockUtil.mysock_write_timeout()});
}

void IPCServer::serviceLingering(int64_t nowMs) {
    std::vector<ConnectionPtr> givenUp;
    for (auto entry = m_lingering.begin(); entry != m_lingering.end();) {
        if (entry->conn->service()) {
            entry = m_lingering.erase(entry);
        } else if (nowMs > entry->giveUpMs) {
            givenUp.push_back(entry->conn);
            entry = m_lingering.erase(entry);
        } else {
            ++entry;
        }
    }
    for (const ConnectionPtr& conn : givenUp) {
        // A connection still listed ends here like any other, its pairs with it.
        const bool listed = !conn->closing();
        conn->abandon();
        if (listed) {
            endConnection(conn, true, true);
        }
    }
}

void IPCServer::mergeSideInput() {
    for (Connection* conn : sideFilled()) {
        conn->input().mergeSide();
        m_schedule.requeue(conn);
    }
    sideFilled().clear();
}

void IPCServer::expireStalled(int64_t nowMs) {
    const PassSchedule::Expiry expiry =
        m_schedule.expire(nowMs, m_sockUtil.mysock_read_timeout(), m_limits.maxIncompleteBytes);
    size_t held = expiry.heldBytes;
    for (Connection* conn : expiry.giveUp) {
        const MessageBuffer& input = conn->input();
        m_logger->writeFormat(
            "incomplete messages hold %zu bytes, more than %zu: ending socket=%d, whose message "
            "has waited %lld ms with %zu bytes",
            held, m_limits.maxIncompleteBytes, conn->fd(),
            static_cast<long long>(nowMs - input.incompleteSinceMs()), input.incompleteBytes());
        held -= input.incompleteBytes();
        endConnection(conn->shared_from_this(), true, true);
    }
}

void IPCServer::removeConnections() {
    // Each removal reports the pairs still registered on its connection: when
    // the pass has run out of time, the rest wait for the next one. Until
    // then their pairs stay listed, closing, so that a pair registered again
    // meanwhile is never reported gone after its new registration.
    if (m_removeList.size() > 1 && m_passStartMs == 0) {
        m_passStartMs = comm::monotonic_ms();
    }
    size_t done = 0;
    for (; done < m_removeList.size(); ++done) {
        if (done > 0 && passTimeSpent()) {
            break;
        }
        removeConnection(m_removeList[done]);
    }
    m_removed.insert(m_removed.end(), std::make_move_iterator(m_removeList.begin()),
                     std::make_move_iterator(m_removeList.begin() + static_cast<ptrdiff_t>(done)));
    m_removeList.erase(m_removeList.begin(), m_removeList.begin() + static_cast<ptrdiff_t>(done));
}

void IPCServer::removeConnection(const Removal& removal) {
    std::vector<ItemClient> rest;
    bool listed = false;
    {
        // The lines of the removal's lock failures stay those they have always named.
        comm::MutexGuard guard(m_clientLock.get(), kSource, 383, 403);
        listed = m_sockets.erase(removal.conn->serial()) != 0;
        m_connections = m_sockets.size();
        rest = m_clients.takeAllOf(removal.conn.get());
    }
    if (!listed) {
        return;  // ended twice in one pass
    }
    // Raised for every removed socket, with or without a child behind it.
    ++m_exitedCount;
    // No pointer to it may outlive the list's.
    Connection* gone = removal.conn.get();
    m_schedule.forget(gone);
    m_drops.erase(gone);
    if (removal.reportRest) {
        for (const ItemClient& item : rest) {
            if (!item.closing && make_client_key(item.dev, item.test_item) != removal.silentKey) {
                reportEnd(item);
            }
        }
    }
}

bool IPCServer::send_command(const std::string& dev, int32_t testItem, int32_t eventId,
                             const void* data, int32_t dataLen) {
    ConnectionPtr conn;
    {
        const comm::MutexGuard guard(m_clientLock.get(), kSource, __LINE__, __LINE__);
        const ItemClient* entry = m_clients.find(make_client_key(dev, testItem));
        if (entry != nullptr) {
            conn = entry->conn;
        }
    }
    if (conn == nullptr) {
        m_logger->writeFormat("error! send_command event=%d dev=%s test_item=%d client not exist",
                              eventId, dev.c_str(), testItem);
        return false;
    }
    return send(*conn, dev.c_str(), testItem, eventId, data, dataLen);
}

void IPCServer::kill_client() {
    m_launcher.settle();
}

void IPCServer::set_su_file_path(const char* suFilePath, const char* suPreCmd) {
    m_launcher.setSuFilePath(suFilePath, suPreCmd);
}

int IPCServer::run_test(const char* testPath, const char* dValue, const char* extraArgs) {
    // A failed start is logged, not reported: the test proves itself by registering.
    if (m_launcher.run(testPath, dValue, extraArgs, m_listenSocket) && m_kickFd >= 0) {
        // The loop may be waiting without a time limit: from now on it looks
        // for the child every few milliseconds.
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(m_kickFd, &one, sizeof(one));
    }
    return 1;
}

}  // namespace vexa
