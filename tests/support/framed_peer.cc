#include "support/framed_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "support/test_support.h"

namespace vexa_test {
namespace {

sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    return addr;
}

void put_be32(std::string& bytes, size_t at, int32_t value) {
    for (size_t i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<char>(static_cast<uint32_t>(value) >> (24 - 8 * i));
}

// Reads what is there before `deadline`, at most `len` bytes: read's result,
// or -2 when nothing came in time.
ssize_t read_before(int fd, char* at, size_t len, long long deadline) {
    const long long left = deadline - monotonic_ms();
    if (left <= 0 || !readable(fd, static_cast<int>(left)))
        return -2;
    return ::read(fd, at, len);
}

}  // namespace

SocketPair::SocketPair() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
        a = fds[0];
        b = fds[1];
    }
}

SocketPair::~SocketPair() {
    closeA();
    closeB();
}

void SocketPair::closeA() {
    if (a >= 0)
        ::close(a);
    a = -1;
}

void SocketPair::closeB() {
    if (b >= 0)
        ::close(b);
    b = -1;
}

std::string head_bytes(const std::string& dev, int32_t item, int32_t event, int32_t sec,
                       int32_t usec, int32_t len) {
    std::string bytes = dev.substr(0, 80);
    bytes.resize(100, '\0');
    put_be32(bytes, 80, item);
    put_be32(bytes, 84, event);
    put_be32(bytes, 88, sec);
    put_be32(bytes, 92, usec);
    put_be32(bytes, 96, len);
    return bytes;
}

int32_t native32(const std::string& bytes) {
    int32_t value = -1;
    if (bytes.size() >= sizeof(value))
        std::memcpy(&value, bytes.data(), sizeof(value));
    return value;
}

int32_t get_be32(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value = (value << 8) | static_cast<uint8_t>(bytes[at + i]);
    return static_cast<int32_t>(value);
}

std::string pattern(size_t size, int seed) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(1 + (i * 131 + static_cast<size_t>(seed) * 7) % 251);
    return bytes;
}

std::string error_text(int err) {
    return std::string(std::strerror(err)) + "(" + std::to_string(err) + ")";
}

bool readable(int fd, int waitMs) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, waitMs) > 0;
}

bool FramedConn::open() {
    // Close-on-exec, so that programs the server launches never hold it.
    adopt(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return m_fd >= 0;
}

bool FramedConn::connectTo(int port) {
    const sockaddr_in addr = loopback(port);
    return (m_fd >= 0 || open()) &&
           connect(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
}

bool FramedConn::sendRaw(const std::string& bytes) {
    return ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

bool FramedConn::sendMsg(const std::string& dev, int32_t item, int32_t event,
                         const std::string& data, int32_t sec, int32_t usec) {
    return sendRaw(head_bytes(dev, item, event, sec, usec, static_cast<int32_t>(data.size())) +
                   data);
}

bool FramedConn::registerAs(const std::string& dev, int32_t item, int32_t pid) {
    return sendMsg(dev, item, CLIENT_IPC_CONFIG,
                   std::string(reinterpret_cast<const char*>(&pid), sizeof(pid)));
}

bool FramedConn::readRaw(std::string* out, size_t len, int timeoutMs) {
    const long long deadline = monotonic_ms() + timeoutMs;
    out->assign(len, '\0');
    for (size_t done = 0; done < len;) {
        const ssize_t n = read_before(m_fd, &(*out)[done], len - done, deadline);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool FramedConn::readMsg(WireMsg* out, int timeoutMs) {
    std::string head;
    if (!readRaw(&head, 100, timeoutMs))
        return false;
    out->dev.assign(head.data(), strnlen(head.data(), 80));
    out->item = get_be32(head, 80);
    out->event = get_be32(head, 84);
    out->sec = get_be32(head, 88);
    out->usec = get_be32(head, 92);
    out->len = get_be32(head, 96);
    return out->len >= 0 && out->len < IPC_MAX_DATA_LEN &&
           readRaw(&out->data, static_cast<size_t>(out->len), timeoutMs);
}

bool FramedConn::waitEof(int timeoutMs, size_t* skipped) {
    const long long deadline = monotonic_ms() + timeoutMs;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read_before(m_fd, buffer, sizeof(buffer), deadline);
        if (n <= 0)
            return n != -2;
        if (skipped != nullptr)
            *skipped += static_cast<size_t>(n);
    }
}

void FramedConn::shutdownWrite() {
    shutdown(m_fd, SHUT_WR);
}

void FramedConn::adopt(int fd) {
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = fd;
}

Listener::Listener(int backlog) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof(addr);
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        listen(m_fd, backlog) == 0 &&
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
        m_port = ntohs(addr.sin_port);
    }
}

Listener::~Listener() {
    ::close(m_fd);
}

int Listener::accept(int timeoutMs) {
    return readable(m_fd, timeoutMs) ? accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

}  // namespace vexa_test

int vexa_free_loopback_port(void) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = vexa_test::loopback(0);
    socklen_t len = sizeof(addr);
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}
