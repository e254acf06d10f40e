// Load end to end through the exported functions: one host and many clients
// exchanging checked messages of mixed sizes, and a host whose descriptors are
// numbered above 1100.
//
// By default a short load runs (16 clients x 50 round trips). VEXA_LOAD_FULL=1
// runs 256 clients x 1000 round trips (scripts/load.sh); VEXA_LOAD_CLIENTS and
// VEXA_LOAD_ROUNDS override either. Every run prints its figures.
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/callback_log.h"
#include "support/framed_peer.h"
#include "support/test_support.h"
#include "vexatool.h"

namespace {

constexpr int32_t kSeqBase = 100000;  // event id = base + sequence number
constexpr int kWindow = 4;            // messages a client may have in flight
constexpr int kWaitMs = 120000;

int env_int(const char* name, int fallback) {
    const char* text = std::getenv(name);
    return text != nullptr && std::atoi(text) > 0 ? std::atoi(text) : fallback;
}

uint32_t mix(uint32_t a, uint32_t b) {
    uint32_t h = a * 2654435761u ^ (b + 0x9e3779b9u + (a << 6) + (a >> 2));
    h ^= h >> 15;
    return h * 2246822519u ^ (h >> 13);
}

// The first message of every client is the largest allowed, then mostly small
// ones, some empty, some medium and a few large.
std::string body(int client, int seq) {
    const uint32_t h = mix(static_cast<uint32_t>(client), static_cast<uint32_t>(seq));
    const uint32_t r = mix(h, 7);
    size_t size = r % 512;
    if (seq == 0)
        size = IPC_MAX_DATA_LEN - 1;
    else if (h % 40 == 0)
        size = 100000 + r % (IPC_MAX_DATA_LEN - 100000);
    else if (h % 8 == 0)
        size = 1000 + r % 64536;
    else if (h % 16 == 1)
        size = 0;
    return vexa_test::pattern(size, static_cast<int>(h % 251));
}

// "" when the message is the one due, else what is wrong with it.
std::string check(int client, int due, int32_t event, const char* data, int32_t len) {
    if (event != kSeqBase + due)
        return "event " + std::to_string(event) + " where sequence " + std::to_string(due) +
               " was due";
    if (std::string(data, static_cast<size_t>(len)) != body(client, due) || data[len] != '\0')
        return "body of sequence " + std::to_string(due) + " differs";
    return "";
}

// The client index in a device string "w<wave>-<index>".
int index_of(const char* dev) {
    const char* dash = std::strchr(dev, '-');
    return dash != nullptr ? std::atoi(dash + 1) : -1;
}

// Checks, counts and echoes what every client sends.
struct LoadHost {
    std::atomic<void*> server{nullptr};
    std::atomic<int> closed{0};
    std::atomic<int> probes{0};
    std::mutex lock;
    long messages = 0;                // guarded by lock
    std::vector<int> next;            // guarded by lock: per client, reset for each wave
    std::vector<std::string> errors;  // guarded by lock

    static int callback(void* user, int32_t item, int32_t event, const char* dev, int32_t, int32_t,
                        const char* data, int32_t len) {
        auto* self = static_cast<LoadHost*>(user);
        if (std::strcmp(dev, "probe") == 0) {
            self->probes += event == CLIENT_IPC_CLOSED ? 1 : 0;
            return 0;
        }
        const int client = index_of(dev);
        std::lock_guard<std::mutex> guard(self->lock);
        std::string wrong;
        if (event == CLIENT_IPC_CLOSED) {
            ++self->closed;
        } else if (event == CLIENT_IPC_OFFLINE || client < 0 ||
                   static_cast<size_t>(client) >= self->next.size()) {
            wrong = std::string("offline or stranger: ") + dev;
        } else if (event != CLIENT_IPC_CONFIG) {
            wrong = check(client, self->next[client]++, event, data, len);
            ++self->messages;
            ipc_send_command(self->server, dev, item, event, data, len);
        }
        if (!wrong.empty() && self->errors.size() < 20)
            self->errors.push_back(std::string(dev) + ": " + wrong);
        return 0;
    }
};

// One client: sends its sequence with a window and checks every echo.
struct LoadClient {
    int index = 0;
    std::mutex lock;
    std::condition_variable changed;
    int received = 0;   // guarded by lock
    std::string error;  // guarded by lock

    static int callback(void* user, int32_t, int32_t event, const char*, int32_t, int32_t,
                        const char* data, int32_t len) {
        auto* self = static_cast<LoadClient*>(user);
        std::lock_guard<std::mutex> guard(self->lock);
        const std::string wrong = event == CLIENT_IPC_DISCONNECTED
                                      ? "disconnected"
                                      : check(self->index, self->received, event, data, len);
        if (self->error.empty())
            self->error = wrong;
        ++self->received;
        self->changed.notify_all();
        return 0;
    }
    bool waitReceived(int n) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, std::chrono::milliseconds(kWaitMs), [&] {
            return received >= n || !error.empty();
        }) && error.empty();
    }
    void run(const std::string& address, const std::string& dev, int rounds) {
        void* client = ipc_init_client2(address.c_str(), &callback, this, dev.c_str(), 9, 30000);
        for (int seq = 0; client != nullptr && seq < rounds && waitReceived(seq - kWindow + 1);
             ++seq) {
            const std::string b = body(index, seq);
            ipc_send_message(client, kSeqBase + seq, b.data(), static_cast<int32_t>(b.size()));
        }
        const bool all = client != nullptr && waitReceived(rounds);
        std::lock_guard<std::mutex> guard(lock);
        if (error.empty() && !all)
            error = client == nullptr ? "could not connect" : "echoes missing";
        ipc_uninit_client(client);
    }
};

// All clients at once, each on its own thread; returns the milliseconds it
// took once every client has left and the host has seen each leave.
long long run_wave(LoadHost* host, const std::string& address, int wave, int clients, int rounds) {
    {
        std::lock_guard<std::mutex> guard(host->lock);
        host->next.assign(static_cast<size_t>(clients), 0);
    }
    const int closedBefore = host->closed;
    const long long start = vexa_test::monotonic_ms();
    std::vector<std::unique_ptr<LoadClient>> loads;
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        loads.emplace_back(new LoadClient);
        LoadClient* load = loads.back().get();
        load->index = i;
        const std::string dev = "w" + std::to_string(wave) + "-" + std::to_string(i);
        threads.emplace_back([load, &address, dev, rounds] { load->run(address, dev, rounds); });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(
        vexa_test::wait_until([&] { return host->closed - closedBefore >= clients; }, kWaitMs))
        << "wave " << wave;
    for (const auto& load : loads)
        EXPECT_EQ(load->error, "") << "client " << load->index << " of wave " << wave;
    const long long took = vexa_test::monotonic_ms() - start;
    // The server lets go of removed connections on its next busy pass: a
    // client that comes and goes makes one, so that memory is compared with
    // the wave's connections gone.
    ipc_uninit_client(ipc_init_client2(address.c_str(), nullptr, nullptr, "probe", 1, 30000));
    EXPECT_TRUE(vexa_test::wait_until([&] { return host->probes > wave; }, kWaitMs));
    return took;
}

// Resident and allocated KiB once the allocator has given back what it can;
// -1 where the C library cannot tell.
struct Memory {
    long rss = -1;
    long heap = -1;
    static Memory read() {
        Memory m;
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
        malloc_trim(0);
        const struct mallinfo2 info = mallinfo2();
        m.heap = static_cast<long>((info.uordblks + info.hblkhd) / 1024);
#endif
        for (const std::string& line : vexa_test::read_lines("/proc/self/status")) {
            if (line.compare(0, 6, "VmRSS:") == 0)
                m.rss = std::atol(line.c_str() + 6);
        }
        return m;
    }
    // The figures are taken once they stop changing.
    static Memory now() {
        Memory last = read();
        for (int i = 0; i < 40; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            const Memory next = read();
            if (next.heap == last.heap)
                return next;
            last = next;
        }
        return last;
    }
};

void raise_descriptor_limit(rlim_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted &&
        limit.rlim_max >= wanted) {
        limit.rlim_cur = wanted;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

TEST(Load, ClientsExchangeCheckedMessagesAndTheHostStaysFlat) {
    const bool full = env_int("VEXA_LOAD_FULL", 0) == 1;
    const int clients = env_int("VEXA_LOAD_CLIENTS", full ? 256 : 16);
    const int rounds = env_int("VEXA_LOAD_ROUNDS", full ? 1000 : 50);
    const int warmRounds = std::min(rounds, 10);
    raise_descriptor_limit(static_cast<rlim_t>(4 * clients + 256));
    LoadHost host;
    const std::string address = "tcp://:" + std::to_string(vexa_test::free_loopback_port());
    host.server = ipc_init_server(address.c_str(), &LoadHost::callback, &host);
    ASSERT_NE(host.server.load(), nullptr);

    // The first wave reaches the peak of any later one, largest bodies
    // included; memory is compared after it, each time all clients are gone.
    const long long warmMs = run_wave(&host, address, 0, clients, warmRounds);
    const Memory afterWarm = Memory::now();
    const long long mainMs = run_wave(&host, address, 1, clients, rounds);
    const Memory afterMain = Memory::now();
    const long long againMs = run_wave(&host, address, 2, clients, warmRounds);
    const Memory afterAgain = Memory::now();
    ipc_uninit_server(host.server);  // joins the server's thread
    EXPECT_EQ(host.messages, static_cast<long>(clients) * (rounds + 2 * warmRounds));
    for (const std::string& error : host.errors)
        ADD_FAILURE() << "host: " << error;

    std::printf(
        "load: %d clients x %d round trips in %lld ms (%.0f msgs/s both ways); waves "
        "before and after %lld and %lld ms; RSS KiB %ld %ld %ld, heap KiB %ld %ld %ld\n",
        clients, rounds, mainMs, 2000.0 * clients * rounds / std::max(mainMs, 1LL), warmMs, againMs,
        afterWarm.rss, afterMain.rss, afterAgain.rss, afterWarm.heap, afterMain.heap,
        afterAgain.heap);
    // Memory figures mean little under a sanitizer's, valgrind's or an
    // emulator's allocator. Flat: the main wave, with many times the messages
    // of the others, leaves at most a little more behind.
    const char* preload = std::getenv("LD_PRELOAD");
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "memory not compared under a sanitizer";
#endif
    if (*VEXA_TEST_EMULATOR != '\0' || (preload != nullptr && std::strstr(preload, "vgpreload")))
        GTEST_SKIP() << "memory not compared under this allocator";
    const long rssSlack = 16 * 1024 + afterWarm.rss / 4;
    EXPECT_LT(std::max(afterMain.rss, afterAgain.rss) - afterWarm.rss, rssSlack);
    if (afterWarm.heap >= 0) {
        EXPECT_LT(std::max(afterMain.heap, afterAgain.heap) - afterWarm.heap, 256 + clients);
    }
}

TEST(ManyDescriptors, HostAbove1100DescriptorsWorksEndToEnd) {
    constexpr int kOpen = 1100;
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    if (saved.rlim_max < kOpen + 200)
        GTEST_SKIP() << "hard descriptor limit " << saved.rlim_max;
    raise_descriptor_limit(kOpen + 200);
    std::vector<int> filler{open("/dev/null", O_RDONLY | O_CLOEXEC)};
    while (filler.size() < kOpen)
        filler.push_back(fcntl(filler[0], F_DUPFD_CLOEXEC, 0));
    ASSERT_GE(filler.back(), 1024);

    vexa_test::CallbackLog host;
    vexa_test::CallbackLog test;
    std::atomic<void*> server{nullptr};
    host.onEvent([&server](const vexa_test::Event& e) {
        if (e.event == 40)
            ipc_send_command(server, e.dev.c_str(), e.item, 41, e.data.data(), e.len);
    });
    const std::string address = "tcp://:" + std::to_string(vexa_test::free_loopback_port());
    server = ipc_init_server(address.c_str(), &vexa_test::CallbackLog::callback, &host);
    ASSERT_NE(server.load(), nullptr);
    // An in-process client and a launched test program, which echoes with event + 1.
    void* client = ipc_init_client2(address.c_str(), &vexa_test::CallbackLog::callback, &test,
                                    "high", 3, 5000);
    ASSERT_NE(client, nullptr);
    const std::string big = vexa_test::pattern(IPC_MAX_DATA_LEN - 1);
    ASSERT_TRUE(ipc_send_message(client, 40, big.data(), IPC_MAX_DATA_LEN - 1));
    ASSERT_TRUE(ipc_send_message(client, 40, "small", 5));
    ASSERT_TRUE(test.waitFor(41, "high", 3, 2));
    EXPECT_TRUE(test.events()[0].data == big);
    EXPECT_EQ(test.events()[1].data, "small");
    ipc_set_su_file_path(server, VEXA_TEST_EMULATOR, "");
    ASSERT_TRUE(ipc_run_test(server, VEXA_PEER_PROGRAM, "peer-high", "--client 7"));
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, "peer-high", 7, 1, 30000));
    ipc_send_command(server, "peer-high", 7, 500, "over 1024", 9);
    EXPECT_TRUE(host.waitFor(501, "peer-high", 7));
    ipc_send_command(server, "peer-high", 7, 901, nullptr, 0);  // leave in order
    EXPECT_TRUE(host.waitFor(CLIENT_IPC_CLOSED, "peer-high", 7));
    ipc_uninit_client(client);
    EXPECT_TRUE(host.waitFor(CLIENT_IPC_CLOSED, "high", 3));
    EXPECT_TRUE(host.matching(CLIENT_IPC_OFFLINE).empty());
    ipc_uninit_server(server);
    for (int fd : filler)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &saved);
}

}  // namespace
