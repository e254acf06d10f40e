#include "core/connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "comm/logger.h"
#include "core/ipc_message.h"

namespace vexa {
namespace {

// The send lock keeps the names its failure messages have always had.
constexpr char kLockSource[] = "ipcbase";
constexpr int kLockLine = 189;
constexpr int kUnlockLine = 206;

// Writes without waiting; how much went out. `failed` when the socket refused
// for good (not merely full).
size_t send_now(int fd, const char* bytes, size_t len, bool* failed) {
    size_t sent = 0;
    while (sent < len) {
        const ssize_t n = ::send(fd, bytes + sent, len - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            *failed = n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
            break;
        }
    }
    return sent;
}

}  // namespace

Connection::Connection(int fd, uint64_t serial, MessageBuffer::Pool* pool, SocketUtil* util,
                       int pollSet)
    : m_fd(fd),
      m_serial(serial),
      m_pollSet(pollSet),
      m_sendLock(comm::mutex_create()),
      m_util(util),
      m_input(pool) {}

Connection::~Connection() {
    // Nobody else holds a reference, so nobody holds either lock.
    if (!m_closed.load()) {
        closeNow();
    }
    comm::mutex_destroy(m_sendLock);
}

bool Connection::watch() {
    comm::LockGuard lock(m_stateLock);
    if (m_pollSet < 0 || m_closing.load() || m_closed.load()) {
        return false;
    }
    epoll_event interest{};
    interest.events = EPOLLIN;
    interest.data.ptr = this;
    m_watched = epoll_ctl(m_pollSet, EPOLL_CTL_ADD, m_fd, &interest) == 0;
    return m_watched;
}

void Connection::unwatch() {
    // By number, so only while the number is surely still this socket's.
    if (m_watched && !m_closed.load()) {
        epoll_ctl(m_pollSet, EPOLL_CTL_DEL, m_fd, nullptr);
    }
    m_watched = false;
}

void Connection::closeNow() {
    unwatch();
    ::close(m_fd);
    m_closed = true;
}

Connection::SendTurn::SendTurn(Connection& conn, int64_t deadlineMs, InputWhileWaiting* input)
    : m_conn(conn) {
    if (deadlineMs == 0 && input == nullptr) {
        // A failed lock is only reported; the send goes on, as it always has.
        comm::mutex_lock(conn.m_sendLock, kLockSource, kLockLine);
        m_held = true;
        return;
    }
    // Only the close handshake has a deadline, and only the processing thread
    // takes in while it waits: neither is worth more than a lock tried again
    // every millisecond. The processing thread must not stop reading while
    // another thread of its endpoint waits to write to a peer that waits to
    // write to it. A connection asked to close may have its number closed by
    // the writer that holds it: it is neither waited for nor read.
    if (conn.closing()) {
        return;
    }
    while (!(m_held = comm::mutex_trylock(conn.m_sendLock)) &&
           (deadlineMs == 0 || comm::monotonic_ms() < deadlineMs)) {
        if (input != nullptr && input->wantsInput() &&
            SocketUtil::mysock_wait_readable(conn.m_fd, 1) > 0) {
            input->takeIn(conn.m_fd);
        } else {
            comm::sleep_ms(1);
        }
    }
}

Connection::SendTurn::~SendTurn() {
    if (!m_held) {
        return;
    }
    m_conn.heldBySendTurn();
    m_conn.serviceHeld();
    comm::mutex_unlock(m_conn.m_sendLock, kLockSource, kUnlockLine);
    // A request made while the lock was held found it taken and left its work
    // to this holder, who may have looked before the request came: look again.
    m_conn.service();
}

bool Connection::SendTurn::write(SocketUtil& util, comm::Logger* logger, const uint8_t* head,
                                 const void* body, int32_t bodyLen, const StopFlag* stop,
                                 WriteWait* wait) {
    m_conn.heldBySendTurn();
    WriteWait own;
    if (wait == nullptr) {
        wait = &own;
    }
    // What the loop queued (an answer) was meant to go before this message.
    std::string queued;
    bool queueStarted = false;
    if (m_conn.m_serviceWanted.load()) {
        comm::LockGuard lock(m_conn.m_stateLock);
        queued.swap(m_conn.m_queued);
        queueStarted = m_conn.m_queueStarted;
        m_conn.m_queueStarted = false;
    }
    bool ok =
        queued.empty() || writeMsgToSocket(&util, m_conn.m_fd, queued.data(),
                                           static_cast<int32_t>(queued.size()), logger, stop, wait);
    const bool cut = !ok && queueStarted;
    if (ok) {
        wait->sent = 0;
        ok = writeMsgToSocket(&util, m_conn.m_fd, head, body, bodyLen, logger, stop, wait);
    }
    if (!ok && (wait->sent > 0 || cut)) {
        // Part of a message is on the wire: nothing after it could be read
        // right, so the connection ends here for both sides.
        m_conn.m_broken = true;
        m_conn.shutDown();
    }
    return ok;
}

void Connection::post(const uint8_t* bytes, size_t len) {
    {
        comm::LockGuard lock(m_stateLock);
        m_queued.append(reinterpret_cast<const char*>(bytes), len);
        m_serviceWanted = true;
    }
    service();
}

void Connection::requestClose(bool abortWriter) {
    {
        comm::LockGuard lock(m_stateLock);
        m_closing = true;
        m_serviceWanted = true;
        unwatch();
        if (abortWriter && m_queued.empty() && !m_closed.load()) {
            ::shutdown(m_fd, SHUT_RDWR);
        }
    }
    service();
}

void Connection::abandon() {
    bool dropped = false;
    {
        comm::LockGuard lock(m_stateLock);
        dropped = !m_queued.empty();
        m_queued.clear();
        m_queueStarted = false;
    }
    if (dropped && m_util != nullptr) {
        // As a counted write whose wait ran out would have logged it.
        m_util->mysock_log_write_wait_failure(MYSOCK_ERR_TIMEOUT);
        logWriteMsgFailure(m_util, MYSOCK_ERR_TIMEOUT, m_util->mysock_logger());
    }
    requestClose(true);
}

bool Connection::service() {
    if (!m_serviceWanted.load()) {
        return true;
    }
    if (!comm::mutex_trylock(m_sendLock)) {
        return false;  // the writer that holds it does this when it lets go
    }
    serviceHeld();
    comm::mutex_unlock(m_sendLock, kLockSource, kUnlockLine);
    return !m_serviceWanted.load();
}

void Connection::serviceHeld() {
    if (!m_serviceWanted.load()) {
        return;
    }
    std::string queued;
    {
        comm::LockGuard lock(m_stateLock);
        queued.swap(m_queued);
    }
    size_t sent = 0;
    bool failed = m_closed.load() || m_broken.load();
    if (!queued.empty() && !failed) {
        sent = send_now(m_fd, queued.data(), queued.size(), &failed);
        if (failed && m_util != nullptr) {
            // As a counted write that failed would have logged it.
            m_util->mysock_log_write_call_failure(-1);
            logWriteMsgFailure(m_util, MYSOCK_ERR_IO, m_util->mysock_logger());
        }
    }
    comm::LockGuard lock(m_stateLock);
    if (failed && (sent > 0 || m_queueStarted) && !m_closed.load()) {
        // Part of an answer is on the wire and the rest cannot follow.
        m_broken = true;
        ::shutdown(m_fd, SHUT_RDWR);
    }
    if (sent < queued.size() && !failed) {
        m_queued.insert(0, queued, sent, std::string::npos);  // the socket is full: later
        m_queueStarted = m_queueStarted || sent > 0;
    } else {
        m_queueStarted = false;
    }
    if (m_closing.load() && m_queued.empty() && !m_closed.load()) {
        closeNow();
    }
    m_serviceWanted = !m_queued.empty();
}

void Connection::shutDown() {
    comm::LockGuard lock(m_stateLock);
    if (!m_closed.load()) {
        ::shutdown(m_fd, SHUT_RDWR);
    }
}

}  // namespace vexa
