// Raw peers, free of GoogleTest and of the library's internals: loopback
// ports, a socket pair, heads written out byte by byte (never with the
// library's encoder), a framed TCP connection and a loopback listener.
#ifndef VEXA_TESTS_SUPPORT_FRAMED_PEER_H
#define VEXA_TESTS_SUPPORT_FRAMED_PEER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/loopback_port.h"
#include "vexatool.h"

namespace vexa_test {

inline int free_loopback_port() {
    return vexa_free_loopback_port();
}

// A connected AF_UNIX stream pair; open ends close with the scope.
struct SocketPair {
    int a = -1;
    int b = -1;
    SocketPair();
    ~SocketPair();
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    void closeA();
    void closeB();
};

// A 100-byte head as a foreign peer sends it: dev copied as given (at most 80
// bytes), then the integers big-endian.
std::string head_bytes(const std::string& dev, int32_t item, int32_t event, int32_t sec,
                       int32_t usec, int32_t len);
// The int32 in native byte order at the start of `bytes` (a pid, a reason
// code), -1 when there are fewer than 4 bytes.
int32_t native32(const std::string& bytes);
// The big-endian integer at `at`.
int32_t get_be32(const std::string& bytes, size_t at);
// `size` bytes that are never NUL and differ with `seed`.
std::string pattern(size_t size, int seed = 0);
// The library's form of an error: "strerror(err)(err)".
std::string error_text(int err);
// True when data or the end of the stream is readable within waitMs.
bool readable(int fd, int waitMs = 50);

// A message as read off the wire.
struct WireMsg {
    std::string dev;  // up to the first NUL of the 80 bytes
    int32_t item = 0;
    int32_t event = 0;
    int32_t sec = 0;
    int32_t usec = 0;
    int32_t len = 0;
    std::string data;
};

// One end of a framed connection on a raw socket, closed with the object.
class FramedConn {
  public:
    explicit FramedConn(int fd = -1) : m_fd(fd) {}
    ~FramedConn() { close(); }
    FramedConn(const FramedConn&) = delete;
    FramedConn& operator=(const FramedConn&) = delete;

    // Makes a close-on-exec TCP socket without connecting it, so that its
    // number is taken now.
    bool open();
    // Connects the socket made by open(), or a new one, to 127.0.0.1:port.
    bool connectTo(int port);
    bool sendRaw(const std::string& bytes);
    bool sendMsg(const std::string& dev, int32_t item, int32_t event, const std::string& data,
                 int32_t sec = 1000, int32_t usec = 2000);
    // CLIENT_IPC_CONFIG with `pid` as 4 native bytes.
    bool registerAs(const std::string& dev, int32_t item, int32_t pid = 4242);
    // Exactly `len` bytes into *out; false on time-out or end of stream.
    bool readRaw(std::string* out, size_t len, int timeoutMs = 10000);
    // One whole message; false on time-out, end of stream or a bad length.
    bool readMsg(WireMsg* out, int timeoutMs = 10000);
    // True once the stream ends (EOF or reset) within timeoutMs; data still
    // arriving is counted in *skipped when given.
    bool waitEof(int timeoutMs = 10000, size_t* skipped = nullptr);
    bool readable(int waitMs) const { return vexa_test::readable(m_fd, waitMs); }
    // Ends the stream towards the other side but keeps the socket's number.
    void shutdownWrite();
    void close() { adopt(-1); }
    void adopt(int fd);
    int fd() const { return m_fd; }

  private:
    int m_fd = -1;
};

// A listening socket on 127.0.0.1, on a port the system chose.
class Listener {
  public:
    explicit Listener(int backlog = 8);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    int port() const { return m_port; }
    // One accepted connection, -1 when none came within timeoutMs.
    int accept(int timeoutMs = 10000);

  private:
    int m_fd = -1;
    int m_port = 0;
};

}  // namespace vexa_test

#endif  // VEXA_TESTS_SUPPORT_FRAMED_PEER_H
