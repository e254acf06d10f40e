#include "client/ipcclient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "comm/thread_util.h"
#include "core/launch_token.h"
#include "core/server_address.h"

namespace vexa {
namespace {

// The processing loop's wait for a message; it also bounds how late the stop
// flag is seen.
constexpr int kReceiveWaitMs = 5;
constexpr int64_t kExitAckWaitMs = 2000;
constexpr uint32_t kExitAckPollMs = 10;

std::string log_file_name(const char* dev) {
    // The device string goes into the name unchanged, whatever it contains.
    return std::string("ipc_client_") + (dev != nullptr ? dev : "") + ".log";
}

}  // namespace

IPCClient::IPCClient(const char* servPath, ClientCallback callback, void* user, const char* dev,
                     int32_t testItem, int32_t connectTimeoutMs)
    : IPCBase(callback, user, log_file_name(dev)),
      m_connectTimeoutMs(connectTimeoutMs),
      m_dev(dev != nullptr ? dev : ""),
      m_testItem(testItem) {
    const std::string path = servPath != nullptr ? servPath : "";
    ServerAddress address;
    const bool valid = parse_server_address(path, &address);
    m_host = address.host;
    m_port = address.port;
    if (!valid) {
        m_logger->writeFormat("serv_path invalid %s", path.c_str());
        comm::throw_failure();
    }
    m_launchToken = client_launch_token(path);
}

IPCClient::~IPCClient() {
    if (hasSocket()) {
        closeSocket();
    }
}

int IPCClient::setupSocket() {
    // Close-on-exec, so that the programs a test launches do not inherit it.
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        m_logger->writeFormat("socket error=%s", m_sockUtil.mysock_strerror());
        comm::throw_failure();
    }
    m_conn = std::make_shared<Connection>(fd, 0, bufferPool(), &m_sockUtil);

    m_sockUtil.mysock_prepare(fd);

    const bool noBlock = m_connectTimeoutMs > 0;
    m_logger->writeFormat("connect timeout=%d noblock=%d", m_connectTimeoutMs, noBlock ? 1 : 0);
    // Never switched back: a time-limited client stays non-blocking. Reads
    // and writes never block in the kernel in either mode.
    SocketUtil::mysock_set_nonblock(fd, noBlock ? 1 : 0);
    const int64_t startMs = comm::monotonic_ms();

    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    // Only the low 16 bits of the port count: 70000 reaches port 4464.
    addr.sin_port = htons(static_cast<uint16_t>(m_port));
    addr.sin_addr.s_addr = inet_addr(m_host.c_str());
    m_logger->writeFormat("connect %s:%d", m_host.c_str(), m_port);
    const int connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));

    const StopFlag abort{0};
    const int rc = m_sockUtil.mysock_wait_connect(fd, connected, m_connectTimeoutMs, &abort);
    if (rc < 0) {
        m_logger->writeFormat("wait_on_connect failed rc=%d take=%d", rc,
                              static_cast<int>(comm::monotonic_ms() - startMs));
        // The socket stays open; the destructor closes it.
        comm::throw_failure();
    }

    // The body is the pid in this machine's byte order, unlike the head, and
    // the launch token when this test was given one.
    const int32_t pid = static_cast<int32_t>(getpid());
    char body[sizeof(pid) + kLaunchTokenLength];
    std::memcpy(body, &pid, sizeof(pid));
    std::memcpy(body + sizeof(pid), m_launchToken.data(), m_launchToken.size());
    const auto length = static_cast<int32_t>(sizeof(pid) + m_launchToken.size());
    return send(CLIENT_IPC_CONFIG, body, length) ? 1 : 0;
}

bool IPCClient::send(int32_t eventId, const void* data, int32_t dataLen) {
    if (dataLen < 0 || !hasSocket()) {
        return false;
    }
    return IPCBase::send(*m_conn, m_dev.c_str(), m_testItem, eventId, data, dataLen);
}

bool IPCClient::processOnce() {
    MessageBuffer& input = m_conn->input();
    const int fd = m_conn->fd();
    if (!input.ready()) {
        // No time limit unless part of a message waits for the rest: the
        // socket, or stop(), wakes the loop.
        int waitMs = idleWaitMs();
        if (input.partial()) {
            waitMs = kReceiveWaitMs;
        }
        const int ready = SocketUtil::mysock_wait_readable(fd, waitMs, wakeFd());
        if (ready < 0) {
            // Nothing is closed; a lasting error makes the loop spin.
            m_logger->writeFormat("warning, select error=%s", m_sockUtil.mysock_strerror());
            return true;
        }
        if (ready > 0) {
            input.takeIn(fd);
        } else if (input.partial()) {
            input.expire(comm::monotonic_ms(), m_sockUtil.mysock_read_timeout());
        }
    }

    IPCMessage msg{};
    switch (input.next(&msg, m_logger.get(), m_sockUtil)) {
        case MessageBuffer::Next::kNeedMore:
            return true;
        case MessageBuffer::Next::kFailed:
            reportServerGone();
            return false;
        case MessageBuffer::Next::kMessage:
            break;
    }
    const bool goOn = deliver(msg);
    input.done();
    input.mergeSide();
    sideFilled().clear();
    if (!goOn) {
        closeSocket();
    }
    return goOn;
}

bool IPCClient::deliver(const IPCMessage& msg) {
    if (msg.event_id == CLIENT_IPC_EXIT_ACK) {
        // Logged whatever the trace setting; the callback does not see it.
        m_logger->writeFormat("recv test_item=%d test_id=%d data_len=%d", msg.test_item,
                              msg.event_id, msg.data_len);
        m_canClose = true;
        return false;
    }
    if (tracing()) {
        m_logger->writeFormat("recv test_item=%d test_id=%d data_len=%d", msg.test_item,
                              msg.event_id, msg.data_len);
    }
    // A peer may fill all 80 bytes of dev; the callback gets a terminated copy.
    char dev[IPC_DEV_SIZE + 1];
    std::memcpy(dev, msg.dev, IPC_DEV_SIZE);
    dev[IPC_DEV_SIZE] = '\0';
    if (hasCallback()) {
        callBack(msg.test_item, msg.event_id, dev, msg.time_sec, msg.time_usec, msg.data,
                 msg.data_len);
    }
    if (tracing()) {
        m_logger->writeLine("call finish");
    }
    return !m_canClose;
}

void IPCClient::reportServerGone() {
    m_logger->writeLine("readMsgFromSocket failed. server socket closed");
    timeval now{};
    gettimeofday(&now, nullptr);
    // The int32 -900, followed by a NUL like every body a callback gets.
    alignas(int32_t) char reason[sizeof(int32_t) + 1] = {};
    const int32_t code = IPC_ERR_SERVER_CLOSED;
    std::memcpy(reason, &code, sizeof(code));
    // Closed before the callback hears of it, so that a send made from the
    // callback or right after it fails instead of reaching a dead peer.
    m_canClose = true;
    closeSocket();
    if (hasCallback()) {
        callBack(m_testItem, CLIENT_IPC_DISCONNECTED, m_dev.c_str(),
                 static_cast<int32_t>(now.tv_sec), static_cast<int32_t>(now.tv_usec), reason,
                 static_cast<int32_t>(sizeof(code)));
    }
}

void IPCClient::onStop() {
    if (!hasSocket()) {
        return;
    }
    m_canClose = false;
    // One limit for all of it, the request included: a server that does not
    // read cannot make the release wait longer.
    const int64_t startMs = comm::monotonic_ms();
    IPCBase::send(*m_conn, m_dev.c_str(), m_testItem, CLIENT_IPC_EXIT, nullptr, 0,
                  startMs + kExitAckWaitMs);
    m_logger->writeLine("wait m_canClose 2000ms");
    // The loop sets m_canClose right before it closes the socket, so a closed
    // socket ends the wait too: it covers a close that came between the check
    // above and the clearing of the flag.
    const auto closed = [this] { return m_canClose.load() || !m_conn->isOpen(); };
    while (!closed() && comm::monotonic_ms() - startMs <= kExitAckWaitMs - 1) {
        comm::sleep_ms(kExitAckPollMs);
    }
    m_logger->writeLine("wait finish");
}

void IPCClient::closeSocket() {
    // A test thread still writing is woken to fail; the descriptor is closed
    // when it lets go.
    m_conn->requestClose(true);
    m_logger->writeLine("socket close");
}

}  // namespace vexa
