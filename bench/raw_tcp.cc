#include "transports.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>
#include <vector>

#include "frames.h"

namespace bench {
namespace {

void set_nodelay(int fd) {
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

void set_library_buffers(int fd) {
    int send = 262144;
    int recv = 524288;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send, sizeof(send));
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &recv, sizeof(recv));
}

// A connected pair of loopback TCP sockets, both with TCP_NODELAY.
bool tcp_pair(bool libraryBuffers, int* host, int* test) {
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (libraryBuffers)
        set_library_buffers(listener);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    bool ok = bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
              listen(listener, 1) == 0 &&
              getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    *test = ok ? socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
    if (*test >= 0 && libraryBuffers)
        set_library_buffers(*test);
    ok = ok && connect(*test, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    *host = ok ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    close(listener);
    if (*host < 0) {
        if (*test >= 0)
            close(*test);
        return false;
    }
    set_nodelay(*host);
    set_nodelay(*test);
    return true;
}

}  // namespace

RttResult raw_round_trip(bool libraryBuffers, int32_t size, int durationMs, size_t maxSamples) {
    int host = -1;
    int test = -1;
    if (!tcp_pair(libraryBuffers, &host, &test))
        return {};
    std::thread echo([test] {
        std::vector<char> body(static_cast<size_t>(kBiggestBody) + 1);
        int32_t eventId = 0;
        int32_t len = 0;
        while (read_frame(test, &eventId, body.data(), &len) && eventId == kPing) {
            if (!write_frame(test, kPing, body.data(), len))
                break;
        }
    });
    std::vector<char> reply(static_cast<size_t>(kBiggestBody) + 1);
    bool ok = true;
    const std::vector<double> samples = time_round_trips(
        durationMs, maxSamples,
        [&] {
            int32_t eventId = 0;
            int32_t len = 0;
            return write_frame(host, kPing, body_bytes(), size) &&
                   read_frame(host, &eventId, reply.data(), &len) && len == size;
        },
        &ok);
    write_frame(host, kEnd, nullptr, 0);
    shutdown(host, SHUT_RDWR);
    echo.join();
    close(host);
    close(test);
    return round_trip_result(ok, samples);
}

TputResult raw_one_way(bool libraryBuffers, int32_t size, int durationMs, uint64_t maxMessages) {
    int host = -1;
    int test = -1;
    if (!tcp_pair(libraryBuffers, &host, &test))
        return {};
    uint64_t received = 0;
    uint64_t endCount = 0;
    int64_t endAt = 0;
    std::thread receiver([&] {
        std::vector<char> body(static_cast<size_t>(kBiggestBody) + 1);
        int32_t eventId = 0;
        int32_t len = 0;
        while (read_frame(host, &eventId, body.data(), &len)) {
            if (eventId == kEnd) {
                endAt = now_ns();
                std::memcpy(&endCount, body.data(), sizeof(endCount));
                break;
            }
            ++received;
        }
    });
    const int64_t start = now_ns();
    bool ok = true;
    uint64_t sent = send_for(
        durationMs, maxMessages, [&] { return write_frame(test, kData, body_bytes(), size); }, &ok);
    write_frame(test, kEnd, &sent, sizeof(sent));
    receiver.join();
    close(host);
    close(test);
    return one_way_result(ok && endAt != 0 && received == sent && endCount == sent, received, size,
                          static_cast<double>(endAt - start) / 1e9);
}

}  // namespace bench
