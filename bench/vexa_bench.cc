// vexa_bench: round-trip latency, one-way throughput and idle CPU of
// libvexatool64, measured through its ten exported functions only, beside the
// same exchanges over a raw loopback TCP connection (the baseline) and, when
// built with libzmq, over ZeroMQ.
//
// Who runs where:
// - The host is a server endpoint in this process; its callback runs on the
//   server's processing thread.
// - The test is a client endpoint in this process as well. Its callback runs on
//   the client's own processing thread; its one-way traffic is sent from the
//   benchmark's main thread.
// - Round trip: the host sends a message with ipc_send_command, the test's
//   callback echoes it with ipc_send_message, and the host's callback takes the
//   time and sends the next one. The baseline does the same with one thread per
//   side on a blocking socket pair.
// - Throughput: the test sends as fast as ipc_send_message returns for a fixed
//   time, then an end message; the host's callback counts. The time runs from
//   the first send to the arrival of the end message.
// - Idle CPU: a server with ten connected clients in child processes (this
//   program again, with --idle-client) that send nothing; the server process's
//   own CPU time over a few seconds.
//
// The endpoint logs go to a temporary directory (VEXA_TEST_ENDPOINT_LOG_DIR,
// read by the test copy of the library when it is loaded, so the program sets
// it and starts itself again). "Logs off" puts the marker file
// ipc_notprint.txt there before the endpoints are made; "logs on" removes it.
// All traffic stays on 127.0.0.1 and every case is bounded in time.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "vexatool.h"

#ifdef VEXA_BENCH_HAVE_ZMQ
#include <zmq.h>
#endif

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr int kHeadSize = 100;
constexpr int32_t kPing = 2000;  // round trip, echoed by the test
constexpr int32_t kData = 2001;  // one-way traffic
constexpr int32_t kEnd = 2002;   // end of the one-way traffic; body = count sent
constexpr int32_t kBiggestBody = IPC_MAX_DATA_LEN - 1;
constexpr int kIdleClients = 10;
const char kTestDev[] = "bench";
constexpr int32_t kTestItem = 1;

// The body sizes measured; --size narrows them down.
std::vector<int32_t> g_sizes = {0, 1024, 65536, kBiggestBody};

// ---- settings ----

struct Settings {
    int rounds = 5;
    int caseMs = 400;          // measured time of one case
    int warmupMs = 100;        // unmeasured time before it
    double idleSeconds = 5.0;  // length of each idle measurement
    bool idle = true;
    std::string only;  // run only the transports whose name contains this
};

// ---- time and statistics ----

int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// User and system CPU time of this process, all threads.
double cpu_seconds_self() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double percentile(std::vector<double> values, double fraction) {
    if (values.empty())
        return 0.0;
    size_t index = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), values.begin() + static_cast<long>(index), values.end());
    return values[index];
}

double median(const std::vector<double>& values) {
    return percentile(values, 0.5);
}

std::string size_name(int32_t size) {
    if (size == 0)
        return "0 B";
    if (size % 1024 == 0)
        return std::to_string(size / 1024) + " KiB";
    return std::to_string(size) + " B";
}

// ---- results ----

struct RttResult {
    bool ok = false;
    double medianUs = 0;
    double p99Us = 0;
    size_t samples = 0;
    double cpuUs = 0;  // CPU time of the whole process per round trip
};

struct TputResult {
    bool ok = false;
    double msgsPerSec = 0;
    double mbPerSec = 0;  // head and body bytes, 10^6 per MB
    uint64_t messages = 0;
    double cpuUs = 0;  // CPU time of the whole process per message
};

// All rounds of one transport at one size.
struct CaseResults {
    std::vector<RttResult> rtt;
    std::vector<TputResult> tput;
};

// A common 0..511999-byte body, filled with a pattern.
const char* body_bytes() {
    static const std::vector<char> body = [] {
        std::vector<char> bytes(static_cast<size_t>(kBiggestBody) + 1);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>('a' + i % 26);
        return bytes;
    }();
    return body.data();
}

void progress(const std::string& transport, const std::string& what, int32_t size,
              const std::string& figure) {
    std::fprintf(stderr, "  %-22s %-10s %-9s %s\n", transport.c_str(), what.c_str(),
                 size_name(size).c_str(), figure.c_str());
}

// ---- the 100-byte head, as the library frames it ----

void put32(uint8_t* at, int32_t value) {
    auto bits = static_cast<uint32_t>(value);
    at[0] = static_cast<uint8_t>(bits >> 24);
    at[1] = static_cast<uint8_t>(bits >> 16);
    at[2] = static_cast<uint8_t>(bits >> 8);
    at[3] = static_cast<uint8_t>(bits);
}

int32_t get32(const uint8_t* at) {
    return static_cast<int32_t>((static_cast<uint32_t>(at[0]) << 24) |
                                (static_cast<uint32_t>(at[1]) << 16) |
                                (static_cast<uint32_t>(at[2]) << 8) | static_cast<uint32_t>(at[3]));
}

void encode_head(uint8_t* head, int32_t eventId, int32_t len) {
    std::memset(head, 0, kHeadSize);
    std::memcpy(head, kTestDev, sizeof(kTestDev) - 1);
    timeval tv{};
    gettimeofday(&tv, nullptr);
    put32(head + 80, kTestItem);
    put32(head + 84, eventId);
    put32(head + 88, static_cast<int32_t>(tv.tv_sec));
    put32(head + 92, static_cast<int32_t>(tv.tv_usec));
    put32(head + 96, len);
}

// ---- the endpoint log directory ----

std::string log_dir() {
    const char* dir = std::getenv("VEXA_TEST_ENDPOINT_LOG_DIR");
    std::string path = dir != nullptr ? dir : "";
    if (!path.empty() && path.back() != '/')
        path += '/';
    return path;
}

void set_logs(bool on) {
    const std::string marker = log_dir() + "ipc_notprint.txt";
    if (on) {
        std::remove(marker.c_str());
    } else {
        std::ofstream(marker).put('\n');
    }
}

// Removes the endpoints' log files (not the marker), so that the disk use of
// the "logs on" cases stays bounded.
void remove_logs() {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(log_dir(), ec)) {
        if (entry.path().extension() == ".log")
            fs::remove(entry.path(), ec);
    }
}

uint64_t log_bytes() {
    uint64_t total = 0;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(log_dir(), ec)) {
        if (entry.path().extension() == ".log")
            total += entry.file_size(ec);
    }
    return total;
}

// A TCP port of 127.0.0.1 that was free a moment ago.
int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}

// ---- libvexatool64 ----

struct HostSide {
    std::mutex lock;
    std::condition_variable changed;
    void* server = nullptr;
    int registered = 0;
    // round trip
    bool rttActive = false;
    bool rttDone = false;
    int32_t rttLen = 0;
    int64_t sentAt = 0;
    int64_t deadline = 0;
    size_t wanted = 0;
    std::vector<double> samples;
    // one way
    uint64_t received = 0;
    uint64_t receivedBytes = 0;
    bool badMessage = false;
    bool endSeen = false;
    uint64_t endCount = 0;
    int64_t endAt = 0;
};

struct TestSide {
    std::atomic<void*> client{nullptr};
};

int host_callback(void* user, int32_t /*item*/, int32_t eventId, const char* /*dev*/,
                  int32_t /*sec*/, int32_t /*usec*/, const char* data, int32_t len) {
    auto* host = static_cast<HostSide*>(user);
    const int64_t now = now_ns();
    std::unique_lock<std::mutex> guard(host->lock);
    switch (eventId) {
        case CLIENT_IPC_CONFIG:
            ++host->registered;
            host->changed.notify_all();
            break;
        case kPing: {
            if (!host->rttActive)
                break;
            if (len != host->rttLen)
                host->badMessage = true;
            host->samples.push_back(static_cast<double>(now - host->sentAt) / 1000.0);
            if (host->samples.size() >= host->wanted || now >= host->deadline || host->badMessage) {
                host->rttActive = false;
                host->rttDone = true;
                host->changed.notify_all();
                break;
            }
            const int32_t size = host->rttLen;
            void* server = host->server;
            host->sentAt = now_ns();
            guard.unlock();
            ipc_send_command(server, kTestDev, kTestItem, kPing, body_bytes(), size);
            break;
        }
        case kData:
            ++host->received;
            host->receivedBytes += static_cast<uint64_t>(len);
            break;
        case kEnd:
            host->endAt = now;
            host->endSeen = true;
            if (len == static_cast<int32_t>(sizeof(uint64_t)))
                std::memcpy(&host->endCount, data, sizeof(uint64_t));
            host->changed.notify_all();
            break;
        default:
            break;
    }
    return 0;
}

int test_callback(void* user, int32_t /*item*/, int32_t eventId, const char* /*dev*/,
                  int32_t /*sec*/, int32_t /*usec*/, const char* data, int32_t len) {
    auto* test = static_cast<TestSide*>(user);
    if (eventId == kPing)
        ipc_send_message(test->client.load(), kPing, data, len);
    return 0;
}

class LibraryRig {
  public:
    bool open(bool logsOn) {
        set_logs(logsOn);
        {
            std::lock_guard<std::mutex> guard(m_host.lock);
            m_host.registered = 0;
        }
        for (int attempt = 0; attempt < 5 && m_host.server == nullptr; ++attempt) {
            m_port = free_port();
            const std::string addr = "tcp://:" + std::to_string(m_port);
            m_host.server = ipc_init_server(addr.c_str(), host_callback, &m_host);
            if (m_host.server == nullptr)
                continue;
            ipc_set_su_file_path(m_host.server, "", "");
            m_test.client =
                ipc_init_client2(addr.c_str(), test_callback, &m_test, kTestDev, kTestItem, 3000);
        }
        if (m_test.client.load() == nullptr)
            return false;
        std::unique_lock<std::mutex> guard(m_host.lock);
        return m_host.changed.wait_for(guard, std::chrono::seconds(10),
                                       [this] { return m_host.registered > 0; });
    }

    void close() {
        if (m_test.client.load() != nullptr)
            ipc_uninit_client(m_test.client.exchange(nullptr));
        if (m_host.server != nullptr)
            ipc_uninit_server(m_host.server);
        m_host.server = nullptr;
    }

    RttResult roundTrip(int32_t size, int durationMs, size_t maxSamples) {
        {
            std::lock_guard<std::mutex> guard(m_host.lock);
            m_host.samples.clear();
            m_host.samples.reserve(maxSamples);
            m_host.wanted = maxSamples;
            m_host.rttLen = size;
            m_host.rttDone = false;
            m_host.badMessage = false;
            m_host.rttActive = true;
            m_host.deadline = now_ns() + int64_t{durationMs} * 1000000;
            m_host.sentAt = now_ns();
        }
        ipc_send_command(m_host.server, kTestDev, kTestItem, kPing, body_bytes(), size);
        std::unique_lock<std::mutex> guard(m_host.lock);
        RttResult result;
        if (!m_host.changed.wait_for(guard, std::chrono::milliseconds(durationMs + 30000),
                                     [this] { return m_host.rttDone; })) {
            m_host.rttActive = false;
            return result;
        }
        result.ok = !m_host.badMessage && !m_host.samples.empty();
        result.samples = m_host.samples.size();
        result.medianUs = median(m_host.samples);
        result.p99Us = percentile(m_host.samples, 0.99);
        return result;
    }

    TputResult oneWay(int32_t size, int durationMs) {
        {
            std::lock_guard<std::mutex> guard(m_host.lock);
            m_host.received = 0;
            m_host.receivedBytes = 0;
            m_host.endSeen = false;
            m_host.endCount = 0;
        }
        void* client = m_test.client.load();
        const int64_t start = now_ns();
        const int64_t deadline = start + int64_t{durationMs} * 1000000;
        uint64_t sent = 0;
        bool failed = false;
        do {
            if (!ipc_send_message(client, kData, body_bytes(), size)) {
                failed = true;
                break;
            }
            ++sent;
        } while (now_ns() < deadline);
        ipc_send_message(client, kEnd, &sent, sizeof(sent));
        std::unique_lock<std::mutex> guard(m_host.lock);
        TputResult result;
        if (failed || !m_host.changed.wait_for(guard, std::chrono::seconds(60),
                                               [this] { return m_host.endSeen; })) {
            return result;
        }
        const double seconds = static_cast<double>(m_host.endAt - start) / 1e9;
        result.ok = m_host.received == sent && m_host.endCount == sent;
        result.messages = m_host.received;
        result.msgsPerSec = static_cast<double>(m_host.received) / seconds;
        result.mbPerSec = static_cast<double>(m_host.received) * (kHeadSize + size) / seconds / 1e6;
        return result;
    }

  private:
    HostSide m_host;
    TestSide m_test;
    int m_port = 0;
};

// ---- raw TCP baseline ----

bool write_all(int fd, iovec* iov, int count) {
    while (count > 0) {
        ssize_t n = writev(fd, iov, count);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        auto left = static_cast<size_t>(n);
        while (count > 0 && left >= iov->iov_len) {
            left -= iov->iov_len;
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + left;
            iov->iov_len -= left;
        }
    }
    return true;
}

bool read_all(int fd, void* buffer, size_t len) {
    auto* at = static_cast<char*>(buffer);
    while (len > 0) {
        ssize_t n = read(fd, at, len);
        if (n <= 0) {
            if (n < 0 && errno == EINTR)
                continue;
            return false;
        }
        at += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool write_frame(int fd, int32_t eventId, const void* body, int32_t len) {
    uint8_t head[kHeadSize];
    encode_head(head, eventId, len);
    iovec iov[2] = {{head, kHeadSize}, {const_cast<void*>(body), static_cast<size_t>(len)}};
    return write_all(fd, iov, len > 0 ? 2 : 1);
}

// Reads one frame into `body` (room for the largest); false on a broken stream.
bool read_frame(int fd, int32_t* eventId, char* body, int32_t* len) {
    uint8_t head[kHeadSize];
    if (!read_all(fd, head, kHeadSize))
        return false;
    *eventId = get32(head + 84);
    *len = get32(head + 96);
    if (*len < 0 || *len > kBiggestBody)
        return false;
    return *len == 0 || read_all(fd, body, static_cast<size_t>(*len));
}

void set_nodelay(int fd) {
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

// Whether the raw pairs ask for the library's socket buffer sizes (262144
// bytes for sending, 524288 for receiving) instead of the kernel's defaults.
bool g_rawLibraryBuffers = false;

void set_buffers(int fd) {
    if (!g_rawLibraryBuffers)
        return;
    int send = 262144;
    int recv = 524288;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send, sizeof(send));
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &recv, sizeof(recv));
}

// A connected pair of loopback TCP sockets, both with TCP_NODELAY.
bool tcp_pair(int* host, int* test) {
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    set_buffers(listener);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    bool ok = bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
              listen(listener, 1) == 0 &&
              getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    *test = ok ? socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
    if (*test >= 0)
        set_buffers(*test);
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

RttResult raw_round_trip(int32_t size, int durationMs, size_t maxSamples) {
    RttResult result;
    int host = -1;
    int test = -1;
    if (!tcp_pair(&host, &test))
        return result;
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
    std::vector<double> samples;
    samples.reserve(maxSamples);
    const int64_t deadline = now_ns() + int64_t{durationMs} * 1000000;
    bool ok = true;
    while (samples.size() < maxSamples) {
        const int64_t start = now_ns();
        int32_t eventId = 0;
        int32_t len = 0;
        if (!write_frame(host, kPing, body_bytes(), size) ||
            !read_frame(host, &eventId, reply.data(), &len) || len != size) {
            ok = false;
            break;
        }
        const int64_t end = now_ns();
        samples.push_back(static_cast<double>(end - start) / 1000.0);
        if (end >= deadline)
            break;
    }
    write_frame(host, kEnd, nullptr, 0);
    shutdown(host, SHUT_RDWR);
    echo.join();
    close(host);
    close(test);
    result.ok = ok && !samples.empty();
    result.samples = samples.size();
    result.medianUs = median(samples);
    result.p99Us = percentile(samples, 0.99);
    return result;
}

TputResult raw_one_way(int32_t size, int durationMs) {
    TputResult result;
    int host = -1;
    int test = -1;
    if (!tcp_pair(&host, &test))
        return result;
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
    const int64_t deadline = start + int64_t{durationMs} * 1000000;
    uint64_t sent = 0;
    bool ok = true;
    do {
        if (!write_frame(test, kData, body_bytes(), size)) {
            ok = false;
            break;
        }
        ++sent;
    } while (now_ns() < deadline);
    write_frame(test, kEnd, &sent, sizeof(sent));
    receiver.join();
    close(host);
    close(test);
    const double seconds = static_cast<double>(endAt - start) / 1e9;
    result.ok = ok && endAt != 0 && received == sent && endCount == sent;
    result.messages = received;
    result.msgsPerSec = static_cast<double>(received) / seconds;
    result.mbPerSec = static_cast<double>(received) * (kHeadSize + size) / seconds / 1e6;
    return result;
}

// ---- ZeroMQ ----

#ifdef VEXA_BENCH_HAVE_ZMQ

// One frame per ZeroMQ message: the same 100-byte head, then the body.
std::vector<char> zmq_frame(int32_t eventId, const void* body, int32_t len) {
    std::vector<char> frame(static_cast<size_t>(kHeadSize + len));
    encode_head(reinterpret_cast<uint8_t*>(frame.data()), eventId, len);
    if (len > 0)
        std::memcpy(frame.data() + kHeadSize, body, static_cast<size_t>(len));
    return frame;
}

int32_t zmq_event(zmq_msg_t* msg) {
    if (zmq_msg_size(msg) < static_cast<size_t>(kHeadSize))
        return -1;
    return get32(static_cast<const uint8_t*>(zmq_msg_data(msg)) + 84);
}

// Two sockets of the given types, the first bound to an ephemeral loopback port.
struct ZmqPair {
    void* context = nullptr;
    void* bound = nullptr;
    void* connected = nullptr;

    bool open(int boundType, int connectedType) {
        context = zmq_ctx_new();
        bound = zmq_socket(context, boundType);
        connected = zmq_socket(context, connectedType);
        int zero = 0;
        int timeoutMs = 30000;  // no wait of a broken case lasts longer
        for (void* socket : {bound, connected}) {
            zmq_setsockopt(socket, ZMQ_LINGER, &zero, sizeof(zero));
            zmq_setsockopt(socket, ZMQ_RCVTIMEO, &timeoutMs, sizeof(timeoutMs));
            zmq_setsockopt(socket, ZMQ_SNDTIMEO, &timeoutMs, sizeof(timeoutMs));
        }
        if (zmq_bind(bound, "tcp://127.0.0.1:*") != 0)
            return false;
        char endpoint[256];
        size_t length = sizeof(endpoint);
        zmq_getsockopt(bound, ZMQ_LAST_ENDPOINT, endpoint, &length);
        return zmq_connect(connected, endpoint) == 0;
    }
    void close() {
        zmq_close(bound);
        zmq_close(connected);
        zmq_ctx_term(context);
    }
};

RttResult zmq_round_trip(int32_t size, int durationMs, size_t maxSamples) {
    RttResult result;
    ZmqPair pair;
    if (!pair.open(ZMQ_REP, ZMQ_REQ)) {
        pair.close();
        return result;
    }
    std::thread echo([&pair] {
        for (;;) {
            zmq_msg_t msg;
            zmq_msg_init(&msg);
            if (zmq_msg_recv(&msg, pair.bound, 0) < 0) {
                zmq_msg_close(&msg);
                break;
            }
            const bool stop = zmq_event(&msg) != kPing;
            // The echo goes back with a fresh head, as the test would send it.
            const auto bodyLen = static_cast<int32_t>(zmq_msg_size(&msg)) - kHeadSize;
            std::vector<char> frame =
                zmq_frame(kPing, static_cast<char*>(zmq_msg_data(&msg)) + kHeadSize, bodyLen);
            zmq_msg_close(&msg);
            zmq_send(pair.bound, frame.data(), frame.size(), 0);
            if (stop)
                break;
        }
    });
    std::vector<double> samples;
    samples.reserve(maxSamples);
    const int64_t deadline = now_ns() + int64_t{durationMs} * 1000000;
    bool ok = true;
    while (samples.size() < maxSamples) {
        const int64_t start = now_ns();
        std::vector<char> frame = zmq_frame(kPing, body_bytes(), size);
        zmq_msg_t reply;
        zmq_msg_init(&reply);
        if (zmq_send(pair.connected, frame.data(), frame.size(), 0) < 0 ||
            zmq_msg_recv(&reply, pair.connected, 0) != static_cast<int>(kHeadSize + size)) {
            zmq_msg_close(&reply);
            ok = false;
            break;
        }
        zmq_msg_close(&reply);
        const int64_t end = now_ns();
        samples.push_back(static_cast<double>(end - start) / 1000.0);
        if (end >= deadline)
            break;
    }
    std::vector<char> stop = zmq_frame(kEnd, nullptr, 0);
    if (ok) {
        zmq_send(pair.connected, stop.data(), stop.size(), 0);
        zmq_msg_t reply;
        zmq_msg_init(&reply);
        zmq_msg_recv(&reply, pair.connected, 0);
        zmq_msg_close(&reply);
    }
    echo.join();
    pair.close();
    result.ok = ok && !samples.empty();
    result.samples = samples.size();
    result.medianUs = median(samples);
    result.p99Us = percentile(samples, 0.99);
    return result;
}

TputResult zmq_one_way(int32_t size, int durationMs) {
    TputResult result;
    ZmqPair pair;
    if (!pair.open(ZMQ_PULL, ZMQ_PUSH)) {
        pair.close();
        return result;
    }
    uint64_t received = 0;
    uint64_t endCount = 0;
    int64_t endAt = 0;
    std::thread receiver([&] {
        zmq_msg_t msg;
        zmq_msg_init(&msg);
        while (zmq_msg_recv(&msg, pair.bound, 0) >= 0) {
            if (zmq_event(&msg) == kEnd) {
                endAt = now_ns();
                std::memcpy(&endCount, static_cast<char*>(zmq_msg_data(&msg)) + kHeadSize,
                            sizeof(endCount));
                break;
            }
            ++received;
        }
        zmq_msg_close(&msg);
    });
    const int64_t start = now_ns();
    const int64_t deadline = start + int64_t{durationMs} * 1000000;
    uint64_t sent = 0;
    bool ok = true;
    do {
        std::vector<char> frame = zmq_frame(kData, body_bytes(), size);
        if (zmq_send(pair.connected, frame.data(), frame.size(), 0) < 0) {
            ok = false;
            break;
        }
        ++sent;
    } while (now_ns() < deadline);
    std::vector<char> end = zmq_frame(kEnd, &sent, sizeof(sent));
    zmq_send(pair.connected, end.data(), end.size(), 0);
    receiver.join();
    pair.close();
    const double seconds = static_cast<double>(endAt - start) / 1e9;
    result.ok = ok && endAt != 0 && received == sent && endCount == sent;
    result.messages = received;
    result.msgsPerSec = static_cast<double>(received) / seconds;
    result.mbPerSec = static_cast<double>(received) * (kHeadSize + size) / seconds / 1e6;
    return result;
}

#endif  // VEXA_BENCH_HAVE_ZMQ

// ---- idle CPU ----

int idle_test_callback(void*, int32_t, int32_t, const char*, int32_t, int32_t, const char*,
                       int32_t) {
    return 0;
}

// The child side of the idle measurement: connect, register, then wait for
// the end of standard input and leave in order.
int run_idle_client(const char* addr, const char* dev) {
    void* client = ipc_init_client2(addr, idle_test_callback, nullptr, dev, kTestItem, 3000);
    if (client == nullptr)
        return 1;
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    ipc_uninit_client(client);
    return 0;
}

// CPU seconds of another process, from /proc (clock-tick resolution).
double cpu_seconds_of(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (close == std::string::npos)
        return 0.0;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    // After the name: state is field 3, utime field 14, stime field 15.
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index == 14)
            utime = std::strtoull(field.c_str(), nullptr, 10);
        if (index == 15)
            stime = std::strtoull(field.c_str(), nullptr, 10);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct IdleResult {
    bool ok = false;
    double serverPercent = 0;     // of one core
    double clientPercentAvg = 0;  // of one core, per client
};

IdleResult measure_idle(const std::string& self, bool logsOn, double seconds) {
    IdleResult result;
    set_logs(logsOn);
    HostSide host;
    std::string addr;
    for (int attempt = 0; attempt < 5 && host.server == nullptr; ++attempt) {
        addr = "tcp://:" + std::to_string(free_port());
        host.server = ipc_init_server(addr.c_str(), host_callback, &host);
    }
    if (host.server == nullptr)
        return result;

    std::vector<pid_t> children;
    std::vector<int> stdinPipes;
    for (int i = 0; i < kIdleClients; ++i) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            break;
        const std::string dev = "idle" + std::to_string(i);
        std::vector<std::string> args = {self, "--idle-client", addr, dev};
        std::vector<char*> argv;
        for (auto& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[0], STDIN_FILENO);
        pid_t pid = 0;
        int rc = posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(fds[0]);
        if (rc != 0) {
            close(fds[1]);
            break;
        }
        children.push_back(pid);
        stdinPipes.push_back(fds[1]);
    }

    bool registered = false;
    {
        std::unique_lock<std::mutex> guard(host.lock);
        registered = host.changed.wait_for(guard, std::chrono::seconds(15),
                                           [&] { return host.registered == kIdleClients; });
    }
    if (registered) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::vector<double> childBefore;
        for (pid_t pid : children)
            childBefore.push_back(cpu_seconds_of(pid));
        const double cpuBefore = cpu_seconds_self();
        const int64_t wallBefore = now_ns();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        const double cpuAfter = cpu_seconds_self();
        const double wall = static_cast<double>(now_ns() - wallBefore) / 1e9;
        double childTotal = 0;
        for (size_t i = 0; i < children.size(); ++i)
            childTotal += cpu_seconds_of(children[i]) - childBefore[i];
        result.ok = true;
        result.serverPercent = (cpuAfter - cpuBefore) / wall * 100.0;
        result.clientPercentAvg = childTotal / static_cast<double>(children.size()) / wall * 100.0;
    }

    for (int fd : stdinPipes)
        close(fd);  // the clients leave in order
    const int64_t giveUp = now_ns() + int64_t{10} * 1000000000;
    for (pid_t pid : children) {
        int status = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (now_ns() > giveUp) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ipc_uninit_server(host.server);
    remove_logs();
    return result;
}

// ---- the report ----

enum class Role { kBaseline, kLibraryOff, kLibraryOn, kOther };

using RttFn = std::function<RttResult(int32_t, int, size_t)>;
using TputFn = std::function<TputResult(int32_t, int)>;

struct Transport {
    std::string name;
    Role role = Role::kOther;
    RttFn rtt;
    TputFn tput;
    std::function<bool()> open;   // before each round (may be empty)
    std::function<void()> close;  // after it (may be empty)
    // One entry per round and size, failed ones included, so that the rounds
    // of two transports line up.
    std::map<int32_t, CaseResults> results;
};

template <typename T, typename Get>
double agg(const std::vector<T>& rounds, Get get) {
    std::vector<double> values;
    for (const T& r : rounds) {
        if (r.ok)
            values.push_back(get(r));
    }
    return values.empty() ? 0.0 : median(values);
}

const CaseResults& results_of(const Transport* t, int32_t size) {
    static const CaseResults none;
    if (t == nullptr)
        return none;
    auto found = t->results.find(size);
    return found != t->results.end() ? found->second : none;
}

double rtt_median(const Transport* t, int32_t size) {
    return agg(results_of(t, size).rtt, [](const RttResult& r) { return r.medianUs; });
}
double rtt_p99(const Transport* t, int32_t size) {
    return agg(results_of(t, size).rtt, [](const RttResult& r) { return r.p99Us; });
}
double tput_msgs(const Transport* t, int32_t size) {
    return agg(results_of(t, size).tput, [](const TputResult& r) { return r.msgsPerSec; });
}
double rtt_cpu(const Transport* t, int32_t size) {
    return agg(results_of(t, size).rtt, [](const RttResult& r) { return r.cpuUs; });
}
double tput_cpu(const Transport* t, int32_t size) {
    return agg(results_of(t, size).tput, [](const TputResult& r) { return r.cpuUs; });
}
double tput_mb(const Transport* t, int32_t size) {
    return agg(results_of(t, size).tput, [](const TputResult& r) { return r.mbPerSec; });
}

std::string fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

// The median over the rounds of value(t) / value(base), each pair measured
// within seconds of each other: on a shared machine the speed drifts, and a
// ratio of two figures taken far apart would mostly show the drift.
template <typename T, typename Get>
double paired(const std::vector<T>& mine, const std::vector<T>& theirs, Get get) {
    std::vector<double> ratios;
    for (size_t i = 0; i < mine.size() && i < theirs.size(); ++i) {
        if (mine[i].ok && theirs[i].ok && get(theirs[i]) > 0)
            ratios.push_back(get(mine[i]) / get(theirs[i]));
    }
    return ratios.empty() ? 0.0 : median(ratios);
}

double rtt_ratio(const Transport* t, const Transport* base, int32_t size) {
    return paired(results_of(t, size).rtt, results_of(base, size).rtt,
                  [](const RttResult& r) { return r.medianUs; });
}
double tput_ratio(const Transport* t, const Transport* base, int32_t size) {
    return paired(results_of(t, size).tput, results_of(base, size).tput,
                  [](const TputResult& r) { return r.msgsPerSec; });
}
double rtt_cpu_ratio(const Transport* t, const Transport* base, int32_t size) {
    return paired(results_of(t, size).rtt, results_of(base, size).rtt,
                  [](const RttResult& r) { return r.cpuUs; });
}
double tput_cpu_ratio(const Transport* t, const Transport* base, int32_t size) {
    return paired(results_of(t, size).tput, results_of(base, size).tput,
                  [](const TputResult& r) { return r.cpuUs; });
}

std::string times(double r) {
    return r > 0 ? fixed(r, 2) + "x" : "n/a";
}

const Transport* find_role(const std::vector<Transport>& transports, Role role) {
    for (const Transport& t : transports) {
        if (t.role == role)
            return &t;
    }
    return nullptr;
}

void print_table_head() {
    std::printf("| transport |");
    for (int32_t size : g_sizes)
        std::printf(" %s |", size_name(size).c_str());
    std::printf("\n|---|");
    for (size_t i = 0; i < g_sizes.size(); ++i)
        std::printf("---|");
    std::printf("\n");
}

void print_report(const std::vector<Transport>& transports, const Settings& settings,
                  const std::vector<IdleResult>& idle) {
    const Transport* raw = find_role(transports, Role::kBaseline);
    std::printf(
        "\nRound trip host -> test -> host, microseconds: median / p99 (median as a ratio "
        "of raw TCP's, paired by round)\n\n");
    print_table_head();
    for (const Transport& t : transports) {
        std::printf("| %s |", t.name.c_str());
        for (int32_t size : g_sizes) {
            std::string cell = fixed(rtt_median(&t, size), 1) + " / " + fixed(rtt_p99(&t, size), 1);
            if (&t != raw)
                cell += " (" + times(rtt_ratio(&t, raw, size)) + ")";
            std::printf(" %s |", cell.c_str());
        }
        std::printf("\n");
    }

    std::printf(
        "\nOne-way throughput test -> host: messages/s, MB/s of head and body "
        "(ratio to raw TCP, paired by round)\n\n");
    print_table_head();
    for (const Transport& t : transports) {
        std::printf("| %s |", t.name.c_str());
        for (int32_t size : g_sizes) {
            std::string cell =
                fixed(tput_msgs(&t, size), 0) + " msg/s, " + fixed(tput_mb(&t, size), 1) + " MB/s";
            if (&t != raw)
                cell += " (" + times(tput_ratio(&t, raw, size)) + ")";
            std::printf(" %s |", cell.c_str());
        }
        std::printf("\n");
    }

    std::printf(
        "\nCPU time per operation, microseconds of user and system time of the whole "
        "process (both sides): round trip / one-way message (ratios to raw TCP, paired by "
        "round)\n\n");
    print_table_head();
    for (const Transport& t : transports) {
        std::printf("| %s |", t.name.c_str());
        for (int32_t size : g_sizes) {
            std::string cell = fixed(rtt_cpu(&t, size), 1) + " / " + fixed(tput_cpu(&t, size), 2);
            if (&t != raw)
                cell += " (" + times(rtt_cpu_ratio(&t, raw, size)) + ", " +
                        times(tput_cpu_ratio(&t, raw, size)) + ")";
            std::printf(" %s |", cell.c_str());
        }
        std::printf("\n");
    }

    // Targets: logs off against raw TCP, logs on against logs off.
    const Transport* off = find_role(transports, Role::kLibraryOff);
    const Transport* on = find_role(transports, Role::kLibraryOn);
    if (raw != nullptr && off != nullptr && on != nullptr) {
        std::printf("\nTargets\n\n");
        int missed = 0;
        auto check = [&](const std::string& what, double value, bool good,
                         const std::string& limit) {
            std::printf("- %s: %s (target %s) %s\n", what.c_str(), fixed(value, 2).c_str(),
                        limit.c_str(), good ? "met" : "MISSED");
            missed += good ? 0 : 1;
        };
        for (int32_t size : {0, 1024}) {
            if (results_of(off, size).rtt.empty())
                continue;
            double r = rtt_ratio(off, raw, size);
            check("round-trip median, logs off / raw TCP, " + size_name(size), r, r <= 1.5,
                  "<= 1.5");
        }
        for (int32_t size : {65536, kBiggestBody}) {
            if (results_of(off, size).rtt.empty())
                continue;
            double r = tput_ratio(off, raw, size);
            check("throughput, logs off / raw TCP, " + size_name(size), r, r >= 0.8, ">= 0.8");
        }
        for (int32_t size : g_sizes) {
            double r = rtt_ratio(on, off, size);
            check("round-trip median, logs on / logs off, " + size_name(size), r, r <= 2.0, "<= 2");
        }
        for (int32_t size : g_sizes) {
            double r = tput_ratio(off, on, size);
            check("throughput, logs off / logs on, " + size_name(size), r, r <= 2.0, "<= 2");
        }
        std::printf("\n%d of the targets missed\n", missed);
    }

    if (!idle.empty()) {
        std::printf(
            "\nIdle CPU, server with %d connected idle clients, over %.1f s (target: "
            "server under 2%% of one core)\n\n",
            kIdleClients, settings.idleSeconds);
        std::printf("| endpoint logs | server, %% of one core | each client, %% of one core |\n");
        std::printf("|---|---|---|\n");
        const char* names[] = {"off", "on"};
        for (size_t i = 0; i < idle.size() && i < 2; ++i) {
            if (!idle[i].ok) {
                std::printf("| %s | failed | failed |\n", names[i]);
                continue;
            }
            std::printf("| %s | %.2f | %.2f |\n", names[i], idle[i].serverPercent,
                        idle[i].clientPercentAvg);
        }
    }
    std::printf(
        "\nSettings: %d round(s) of %d ms per case after %d ms of warm-up; figures are "
        "the median over the rounds, ratios the median of the rounds' ratios.\n",
        settings.rounds, settings.caseMs, settings.warmupMs);
}

// ---- driver ----

constexpr size_t kMaxSamples = 200000;

void run_round_trip(Transport& t, int32_t size, const Settings& s) {
    t.rtt(size, s.warmupMs, kMaxSamples);
    const double cpuBefore = cpu_seconds_self();
    RttResult r = t.rtt(size, s.caseMs, kMaxSamples);
    if (r.samples > 0)
        r.cpuUs = (cpu_seconds_self() - cpuBefore) * 1e6 / static_cast<double>(r.samples);
    t.results[size].rtt.push_back(r);
    progress(t.name, "round trip", size,
             r.ok
                 ? fixed(r.medianUs, 1) + " us median, " + fixed(r.p99Us, 1) + " us p99, " +
                       std::to_string(r.samples) + " samples, " + fixed(r.cpuUs, 1) + " us CPU each"
                 : "FAILED");
}

void run_one_way(Transport& t, int32_t size, const Settings& s) {
    t.tput(size, s.warmupMs);
    const double cpuBefore = cpu_seconds_self();
    TputResult r = t.tput(size, s.caseMs);
    if (r.messages > 0)
        r.cpuUs = (cpu_seconds_self() - cpuBefore) * 1e6 / static_cast<double>(r.messages);
    t.results[size].tput.push_back(r);
    progress(t.name, "one way", size,
             r.ok ? fixed(r.msgsPerSec, 0) + " msg/s, " + fixed(r.mbPerSec, 1) + " MB/s, " +
                        fixed(r.cpuUs, 2) + " us CPU each"
                  : "FAILED");
}

// One round: every transport at every size, the transports one after the
// other for each size, so that the figures compared are taken close together.
bool run_round(std::vector<Transport>& transports, const Settings& s) {
    bool ok = true;
    for (Transport& t : transports) {
        if (t.open && !t.open()) {
            std::fprintf(stderr, "%s: could not start on 127.0.0.1\n", t.name.c_str());
            ok = false;
        }
    }
    for (int32_t size : g_sizes) {
        for (Transport& t : transports) {
            if (ok)
                run_round_trip(t, size, s);
        }
    }
    for (int32_t size : g_sizes) {
        for (Transport& t : transports) {
            if (ok)
                run_one_way(t, size, s);
        }
    }
    std::fprintf(stderr, "  (endpoint logs written this round: %.1f MB)\n",
                 static_cast<double>(log_bytes()) / 1e6);
    for (Transport& t : transports) {
        if (t.close)
            t.close();
    }
    remove_logs();
    return ok;
}

void usage() {
    std::printf(
        "usage: vexa_bench [--rounds N] [--case-ms MS] [--idle-seconds S] [--no-idle] "
        "[--quick] [--only TEXT] [--size BYTES]...\n"
        "Measures libvexatool64 against a raw loopback TCP baseline (and ZeroMQ when built\n"
        "with it) and prints the tables; progress goes to standard error.\n");
}

// Starts the program again with VEXA_TEST_ENDPOINT_LOG_DIR set to a fresh
// temporary directory: the library reads it when it is loaded.
void reexec_with_log_dir(char** argv) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vexa-bench-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    setenv("VEXA_TEST_ENDPOINT_LOG_DIR", (std::string(name.data()) + "/").c_str(), 1);
    setenv("VEXA_BENCH_OWNS_LOG_DIR", "1", 1);
    execv("/proc/self/exe", argv);
    std::perror("execv");
    std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--idle-client") == 0)
        return run_idle_client(argv[2], argv[3]);

    Settings settings;
    bool sizesGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto next = [&]() -> const char* {
            if (i + 1 >= argc) {
                usage();
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--rounds") {
            settings.rounds = std::max(1, std::atoi(next()));
        } else if (arg == "--case-ms") {
            settings.caseMs = std::max(50, std::atoi(next()));
        } else if (arg == "--idle-seconds") {
            settings.idleSeconds = std::max(0.5, std::atof(next()));
        } else if (arg == "--no-idle") {
            settings.idle = false;
        } else if (arg == "--size") {
            if (!sizesGiven)
                g_sizes.clear();
            sizesGiven = true;
            g_sizes.push_back(std::min(std::max(0, std::atoi(next())), kBiggestBody));
        } else if (arg == "--only") {
            settings.only = next();
        } else if (arg == "--quick") {
            settings.rounds = 1;
            settings.caseMs = 200;
            settings.warmupMs = 50;
            settings.idleSeconds = 1.0;
        } else {
            usage();
            return arg == "--help" || arg == "-h" ? 0 : 2;
        }
    }

    if (log_dir().empty())
        reexec_with_log_dir(argv);
    const bool ownsDir = std::getenv("VEXA_BENCH_OWNS_LOG_DIR") != nullptr;
    unsetenv("VEXA_BENCH_OWNS_LOG_DIR");
    signal(SIGPIPE, SIG_IGN);
    body_bytes();

    auto raw = [](bool libraryBuffers) {
        return [libraryBuffers](int32_t size, int ms, size_t max) {
            g_rawLibraryBuffers = libraryBuffers;
            return raw_round_trip(size, ms, max);
        };
    };
    auto rawOneWay = [](bool libraryBuffers) {
        return [libraryBuffers](int32_t size, int ms) {
            g_rawLibraryBuffers = libraryBuffers;
            return raw_one_way(size, ms);
        };
    };
    // Both library rigs are open through a round: the marker file is looked
    // at only when an endpoint is made, so the two keep their log settings.
    LibraryRig rigLogsOff;
    LibraryRig rigLogsOn;
    auto library = [](LibraryRig* rig, bool on, Role role, const char* name) {
        Transport t;
        t.name = name;
        t.role = role;
        t.rtt = [rig](int32_t size, int ms, size_t max) { return rig->roundTrip(size, ms, max); };
        t.tput = [rig](int32_t size, int ms) { return rig->oneWay(size, ms); };
        t.open = [rig, on] { return rig->open(on); };
        t.close = [rig] { rig->close(); };
        return t;
    };
    std::vector<Transport> transports;
    transports.push_back(
        {"raw TCP (baseline)", Role::kBaseline, raw(false), rawOneWay(false), {}, {}, {}});
    transports.push_back(
        {"raw TCP, library's buffer sizes", Role::kOther, raw(true), rawOneWay(true), {}, {}, {}});
    transports.push_back(library(&rigLogsOff, false, Role::kLibraryOff, "vexatool, logs off"));
    transports.push_back(library(&rigLogsOn, true, Role::kLibraryOn, "vexatool, logs on"));
#ifdef VEXA_BENCH_HAVE_ZMQ
    transports.push_back(
        {"ZeroMQ REQ/REP, PUSH/PULL", Role::kOther, zmq_round_trip, zmq_one_way, {}, {}, {}});
#endif
    transports.erase(std::remove_if(transports.begin(), transports.end(),
                                    [&](const Transport& t) {
                                        return t.name.find(settings.only) == std::string::npos;
                                    }),
                     transports.end());

    bool ok = true;
    for (int round = 1; round <= settings.rounds && ok; ++round) {
        std::fprintf(stderr, "round %d of %d\n", round, settings.rounds);
        ok = run_round(transports, settings);
    }

    std::vector<IdleResult> idle;
    if (ok && settings.idle) {
        char self[4096];
        ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
        if (length > 0) {
            self[length] = '\0';
            for (bool logsOn : {false, true}) {
                std::fprintf(stderr, "idle CPU, logs %s, %.1f s\n", logsOn ? "on" : "off",
                             settings.idleSeconds);
                idle.push_back(measure_idle(self, logsOn, settings.idleSeconds));
            }
        }
    }

    if (ok)
        print_report(transports, settings, idle);
    if (ownsDir) {
        std::error_code ec;
        fs::remove_all(log_dir(), ec);
    }
    return ok ? 0 : 1;
}
