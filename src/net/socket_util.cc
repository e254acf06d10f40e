#include "net/socket_util.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "comm/logger.h"
#include "comm/thread_util.h"

namespace vexa {
namespace {

constexpr int kSliceMs = 1000;

// strerror_r comes in an XSI form (int result) and a GNU form (char* result);
// these two overloads take whichever the C library declares.
[[maybe_unused]] const char* pick_error_text(int rc, const char* buffer) {
    return rc == 0 ? buffer : "Unknown error";
}
[[maybe_unused]] const char* pick_error_text(const char* text, const char*) {
    return text;
}

int slice_count(int32_t timeoutMs) {
    int32_t slices = timeoutMs / kSliceMs;
    return slices < 1 ? 1 : slices;
}

// One poll() on one descriptor, reported as select() would report it: a
// descriptor that is not open fails with EBADF instead of counting as ready.
int poll_one(int fd, short events, int timeoutMs, short* revents) {
    pollfd p{};
    p.fd = fd;
    p.events = events;
    int rc = poll(&p, 1, timeoutMs);
    if (rc > 0 && (p.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    *revents = p.revents;
    return rc;
}

// What select() counts as writable.
constexpr short kWritableEvents = POLLOUT | POLLWRNORM | POLLWRBAND | POLLERR;

}  // namespace

int SocketUtil::mysock_init_with_logger(comm::Logger* logger) {
    m_logger = logger;
    log().writeLine("SocketUtil:mysock_init_with_logger");
    return 1;
}

int SocketUtil::mysock_errno() {
    return errno;
}

int SocketUtil::mysock_is_retryable(int err) {
    return (err == EINTR || err == EAGAIN) ? 0 : -1;
}

const char* SocketUtil::mysock_strerror() {
    // Per thread, so that threads failing at once do not spoil each other's text.
    static thread_local char errbuf[kErrorTextSize];
    int err = errno;
    char text[128];
    const char* message = pick_error_text(strerror_r(err, text, sizeof(text)), text);
    std::snprintf(errbuf, sizeof(errbuf), "%s(%d)", message, err);
    errno = err;
    return errbuf;
}

int SocketUtil::mysock_select(int nfds, int forRead, int32_t timeoutMs, const StopFlag* stop) {
    const int fd = nfds - 1;
    const int slices = slice_count(timeoutMs);
    for (int slice = 0; slice < slices; ++slice) {
        short revents = 0;
        int rc = poll_one(fd, forRead != 0 ? POLLIN : POLLOUT, kSliceMs, &revents);
        if (rc != 0) {
            return rc < 0 ? MYSOCK_ERR_WAIT : rc;
        }
        if (stop != nullptr && stop->load() != 0) {
            return MYSOCK_ERR_STOPPED;
        }
    }
    return MYSOCK_ERR_TIMEOUT;
}

int SocketUtil::mysock_writen(int fd, const void* buffer, int32_t len, const StopFlag* stop) {
    if (len < 1) {
        return len;
    }
    iovec whole{const_cast<void*>(buffer), static_cast<size_t>(len)};
    return mysock_writev(fd, &whole, 1, stop);
}

int SocketUtil::mysock_writev(int fd, const iovec* iov, int count, const StopFlag* stop,
                              WriteWait* wait) {
    if (count < 0 || count > kMaxWritePieces) {
        return MYSOCK_ERR_IO;
    }
    // A copy of the non-empty pieces, advanced past what has been sent.
    iovec pieces[kMaxWritePieces];
    int left = 0;
    size_t total = 0;
    for (int i = 0; i < count; ++i) {
        if (iov[i].iov_len > 0) {
            pieces[left++] = iov[i];
            total += iov[i].iov_len;
        }
    }
    if (total > static_cast<size_t>(INT32_MAX)) {
        return MYSOCK_ERR_IO;
    }
    iovec* next = pieces;
    size_t remaining = total;
    while (remaining > 0) {
        msghdr message{};
        message.msg_iov = next;
        message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(left);
        // MSG_DONTWAIT: the kernel call itself never blocks, whatever the
        // socket's mode, so the budget bounds the whole write. MSG_NOSIGNAL: a
        // closed peer is an error result, even in a host that handles SIGPIPE.
        ssize_t written = ::sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (written > 0) {
            auto sent = static_cast<size_t>(written);
            remaining -= sent;
            if (wait != nullptr) {
                wait->sent += sent;
            }
            while (left > 0 && sent >= next->iov_len) {
                sent -= next->iov_len;
                ++next;
                --left;
            }
            if (left > 0) {
                next->iov_base = static_cast<char*>(next->iov_base) + sent;
                next->iov_len -= sent;
            }
            continue;
        }
        if (written == 0) {
            return 0;
        }
        int err = errno;
        if (err == EAGAIN || err == EWOULDBLOCK) {
            // No room: this is where a blocking write would have waited.
            int rc = waitWritable(fd, stop, wait);
            if (rc < 0) {
                mysock_log_write_wait_failure(rc);
                return rc;
            }
            continue;
        }
        mysock_log_write_call_failure(static_cast<int>(written));
        if (mysock_is_retryable(err) != 0) {
            return MYSOCK_ERR_IO;
        }
    }
    return static_cast<int>(total);
}

int SocketUtil::waitWritable(int fd, const StopFlag* stop, WriteWait* wait) {
    InputWhileWaiting* input = wait != nullptr ? wait->input : nullptr;
    const int64_t deadline = wait != nullptr ? wait->deadlineMs : 0;
    // The budget in whole one-second slices, as mysock_select counts it.
    const int64_t budgetEnd =
        comm::monotonic_ms() + int64_t{slice_count(m_writeTimeoutMs)} * kSliceMs;
    for (;;) {
        const int64_t now = comm::monotonic_ms();
        int64_t sliceMs = kSliceMs;
        if (deadline != 0) {
            if (now >= deadline) {
                return MYSOCK_ERR_TIMEOUT;
            }
            sliceMs = std::min<int64_t>(sliceMs, deadline - now);
        }
        const bool reading = input != nullptr && input->wantsInput();
        const int wakeFd = wait != nullptr ? wait->wakeFd : -1;
        pollfd fds[2] = {{fd, static_cast<short>(POLLOUT | (reading ? POLLIN : 0)), 0},
                         {wakeFd, POLLIN, 0}};
        const pollfd& p = fds[0];
        int rc = poll(fds, wakeFd >= 0 ? 2 : 1, static_cast<int>(sliceMs));
        if (rc < 0) {
            return MYSOCK_ERR_WAIT;
        }
        if (fds[1].revents != 0 && stop != nullptr && stop->load() != 0) {
            return MYSOCK_ERR_STOPPED;
        }
        if (rc > 0 && (p.revents & POLLNVAL) != 0) {
            errno = EBADF;
            return MYSOCK_ERR_WAIT;
        }
        if (rc > 0 && (p.revents & (kWritableEvents | POLLHUP)) != 0) {
            return rc;  // room, or a failure that the next send reports
        }
        if (rc > 0 && reading) {
            input->takeIn(fd);
            continue;
        }
        if (stop != nullptr && stop->load() != 0) {
            return MYSOCK_ERR_STOPPED;
        }
        if (comm::monotonic_ms() >= budgetEnd) {
            return MYSOCK_ERR_TIMEOUT;
        }
    }
}

int SocketUtil::mysock_readn(int fd, void* buffer, int32_t len, const StopFlag* stop) {
    char* position = static_cast<char*>(buffer);
    int32_t remaining = len;
    while (remaining > 0) {
        int rc = mysock_select(fd + 1, 1, m_readTimeoutMs, stop);
        if (rc < 0) {
            mysock_log_read_wait_failure(rc);
            return rc;
        }
        ssize_t got = ::read(fd, position, static_cast<size_t>(remaining));
        if (got == 0) {
            // The peer closed; whatever arrived of this block is dropped.
            return 0;
        }
        if (got > 0) {
            position += got;
            remaining -= static_cast<int32_t>(got);
            continue;
        }
        int err = errno;
        mysock_log_read_call_failure(static_cast<int>(got));
        if (mysock_is_retryable(err) != 0) {
            return MYSOCK_ERR_IO;
        }
    }
    int count = len < 1 ? 0 : len - remaining;
    mysock_log_read_count(count);
    return count;
}

void SocketUtil::mysock_log_write_wait_failure(int rc) {
    log().writeFormat("mysock_writen mysock_select rc=%d", rc);
}

void SocketUtil::mysock_log_write_call_failure(int nwritten) {
    log().writeFormat("mysock_writen send nwritten=%d error=%s", nwritten, mysock_strerror());
}

void SocketUtil::mysock_log_read_count(int count) {
    log().writeFormat("SocketUtil:mysock_readn want_datalen - nright=%d", count);
}

void SocketUtil::mysock_log_read_wait_failure(int rc) {
    log().writeFormat("mysock_readn select rc=%d", rc);
}

void SocketUtil::mysock_log_read_call_failure(int nread) {
    log().writeFormat("mysock_readn recv nread=%d error=%s", nread, mysock_strerror());
}

int SocketUtil::mysock_get_so_error(int fd) {
    int32_t value = 0;
    socklen_t length = sizeof(value);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &value, &length) != 0) {
        return errno;
    }
    return value;
}

int SocketUtil::mysock_wait_connect(int fd, int connectResult, int32_t timeoutMs,
                                    const StopFlag* stop, int* soError) {
    if (connectResult == 0) {
        return 0;
    }
    if (connectResult == -1 && errno != EAGAIN && errno != EINPROGRESS) {
        int err = errno;
        if (soError != nullptr)
            *soError = err;
        log().writeFormat("mysock_wait_connect pre failed. so_err=%d", err);
        return MYSOCK_ERR_IO;
    }
    const int slices = slice_count(timeoutMs);
    for (int slice = 0; slice < slices; ++slice) {
        short revents = 0;
        int rc = poll_one(fd, POLLOUT, kSliceMs, &revents);
        if (rc < 0) {
            return MYSOCK_ERR_WAIT;
        }
        if (rc > 0) {
            if ((revents & kWritableEvents) == 0) {
                return MYSOCK_ERR_NOT_WRITABLE;
            }
            int err = mysock_get_so_error(fd);
            if (err == 0 || err == EISCONN) {
                return 0;
            }
            if (soError != nullptr)
                *soError = err;
            log().writeFormat("mysock_wait_connect failed. so_err=%d", err);
            return MYSOCK_ERR_IO;
        }
        if (stop != nullptr && stop->load() != 0) {
            return MYSOCK_ERR_STOPPED;
        }
    }
    int err = mysock_get_so_error(fd);
    if (soError != nullptr)
        *soError = err;
    log().writeFormat("mysock_wait_connect timeout. so_err=%d", err);
    return MYSOCK_ERR_TIMEOUT;
}

int SocketUtil::mysock_wait_connect(int fd, int connectResult, int32_t timeoutMs,
                                    const StopFlag* stop) {
    int scratch = 0;
    return mysock_wait_connect(fd, connectResult, timeoutMs, stop, &scratch);
}

void SocketUtil::mysock_close(int fd) {
    if (fd >= 0) {
        ::close(fd);
    }
}

int SocketUtil::mysock_wait_readable(int fd, int timeoutMs, int wakeFd) {
    pollfd p[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
    const int rc = poll(p, wakeFd >= 0 ? 2 : 1, timeoutMs);
    if (rc <= 0) {
        return rc;
    }
    if ((p[0].revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return p[0].revents != 0 ? 1 : 0;
}

void SocketUtil::mysock_prepare(int fd) {
    mysock_option_windowsize(fd, kSendBufferSize, kRecvBufferSize);
    log().writeLine("mysock_option_nodelay");
    mysock_option_nodelay(fd);
    log().writeLine("disable_sigpipe");
    mysock_option_disable_sigpipe(fd);
}

int SocketUtil::mysock_option_nodelay(int fd) {
    int32_t on = 1;
    return setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

int SocketUtil::mysock_option_reuse_addr(int fd) {
    int32_t on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
}

int SocketUtil::mysock_option_send_windowsize(int fd, int32_t size) {
    return setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
}

int SocketUtil::mysock_option_recv_windowsize(int fd, int32_t size) {
    return setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
}

void SocketUtil::mysock_option_windowsize(int fd, int32_t sendSize, int32_t recvSize) {
    mysock_print_buffer_sizes(fd);
    if (sendSize < 1 && recvSize < 1) {
        return;
    }
    if (sendSize >= 1 && mysock_option_send_windowsize(fd, sendSize) == -1) {
        log().writeLine("mysock_option_send_windowsize failed");
    }
    if (recvSize >= 1 && mysock_option_recv_windowsize(fd, recvSize) == -1) {
        log().writeLine("mysock_option_recv_windowsize failed");
    }
    log().writeLine("after buff setting");
    mysock_print_buffer_sizes(fd);
}

void SocketUtil::mysock_print_buffer_sizes(int fd) {
    int32_t sendSize = 0;
    int32_t recvSize = 0;
    socklen_t length = sizeof(sendSize);
    getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendSize, &length);
    length = sizeof(recvSize);
    getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &recvSize, &length);
    log().writeFormat("snd_buf:%d rcv_buf:%d", sendSize, recvSize);
}

int SocketUtil::mysock_set_nonblock(int fd, int flag) {
    int flags = fcntl(fd, F_GETFL);
    if (flag != 0) {
        flags |= O_NONBLOCK;
    } else {
        flags &= ~O_NONBLOCK;
    }
    fcntl(fd, F_SETFL, flags);
    return 0;
}

SocketUtil::SignalHandler SocketUtil::mysock_option_disable_sigpipe(int /*fd*/) {
    return signal(SIGPIPE, SIG_IGN);
}

comm::Logger& SocketUtil::log() {
    // Before mysock_init_with_logger the module writes nowhere.
    static comm::Logger silent("", false, false, false, 0);
    return m_logger != nullptr ? *m_logger : silent;
}

}  // namespace vexa
