#include "server/acceptor.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "comm/logger.h"

namespace vexa {
namespace {

constexpr int kAcceptWaitMs = 5;  // between looks at the stop flag without a wake descriptor
// Between attempts while accept() finds no descriptor or memory free.
constexpr int kRetryMs = 50;

// accept() failed for want of something that comes back (descriptors,
// memory), not because the listening socket is unusable.
bool may_recover(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// The peer went before it was accepted, or a signal came: try again at once.
bool interrupted(int error) {
    return error == EINTR || error == ECONNABORTED || error == EAGAIN || error == EWOULDBLOCK ||
           error == EPROTO || error == EPERM;
}

}  // namespace

Acceptor::~Acceptor() {
    if (m_wake >= 0) {
        ::close(m_wake);
    }
}

void Acceptor::start(int listenSocket, OnAccept onAccept) {
    m_listenSocket = listenSocket;
    m_onAccept = std::move(onAccept);
    m_stop = false;
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_thread = comm::thread_create(&Acceptor::threadMain, this);
}

void Acceptor::stop() {
    m_stop = true;
    if (m_wake >= 0) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(m_wake, &one, sizeof(one));
    }
    comm::thread_join(m_thread);
    m_thread = nullptr;
}

void Acceptor::threadMain(void* self) {
    static_cast<Acceptor*>(self)->loop();
}

void Acceptor::loop() {
    m_logger->writeLine("accept_thread...");
    int failures = 0;  // in a row, for want of descriptors or memory
    while (!m_stop) {
        // Without a time limit when stop() can wake it.
        if (SocketUtil::mysock_wait_readable(m_listenSocket, m_wake >= 0 ? -1 : kAcceptWaitMs,
                                             m_wake) <= 0) {
            continue;
        }
        const int fd = accept4(m_listenSocket, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (survived(errno, &failures)) {
                continue;
            }
            break;  // connected clients keep working
        }
        if (failures != 0) {
            m_logger->writeFormat("accept resumed after %d failed attempts", failures);
            failures = 0;
        }
        m_logger->writeFormat("accept ok client_socket=%d", fd);
        m_onAccept(fd);
    }
    m_logger->writeLine("accept_thread finish");
}

bool Acceptor::survived(int error, int* failures) {
    if (interrupted(error)) {
        return true;
    }
    errno = error;
    if (!may_recover(error)) {
        m_logger->writeFormat("accept failed error=%s", m_util->mysock_strerror());
        return false;
    }
    // Once per episode: the connection waits in the backlog until a
    // descriptor is free.
    if ((*failures)++ == 0) {
        m_logger->writeFormat("accept failed error=%s, retrying every %d ms",
                              m_util->mysock_strerror(), kRetryMs);
    }
    pause(kRetryMs);
    return true;
}

void Acceptor::pause(int ms) {
    if (m_wake >= 0) {
        SocketUtil::mysock_wait_readable(m_wake, ms);
    } else {
        comm::sleep_ms(static_cast<uint32_t>(ms));
    }
}

}  // namespace vexa
