// Load end to end through the exported functions: one host and many clients
// exchanging checked messages of mixed sizes, and a host whose descriptors are
// numbered above 1100.
//
// By default a short load runs (16 clients x 50 round trips). VEXA_LOAD_FULL=1
// runs 256 clients x 1000 round trips (scripts/load.sh); VEXA_LOAD_CLIENTS and
// VEXA_LOAD_ROUNDS override either. Every run prints its figures.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "stress_util.h"
#include "vexatool.h"

namespace {

using vexa_stress::now_ms;

constexpr int32_t kSeqEventBase = 100000;  // event id = base + sequence number
constexpr int32_t kItem = 9;
constexpr int kWindow = 4;  // messages a client may have in flight
constexpr int kWaitMs = 120000;

// Programs the tests start go through the emulator in a cross build.
const char* const kEmulator = VEXA_TEST_EMULATOR;

int env_int(const char* name, int fallback) {
    const char* text = std::getenv(name);
    return text != nullptr && std::atoi(text) > 0 ? std::atoi(text) : fallback;
}

bool full_load() {
    const char* text = std::getenv("VEXA_LOAD_FULL");
    return text != nullptr && std::strcmp(text, "1") == 0;
}

uint32_t mix(uint32_t a, uint32_t b) {
    uint32_t h = a * 2654435761u ^ (b + 0x9e3779b9u + (a << 6) + (a >> 2));
    h ^= h >> 15;
    h *= 2246822519u;
    h ^= h >> 13;
    return h;
}

// Body size of one message: the first of every client is the largest allowed,
// then mostly small ones, some empty, some medium and a few large.
int32_t body_size(int client, int seq) {
    if (seq == 0)
        return IPC_MAX_DATA_LEN - 1;
    const uint32_t h = mix(static_cast<uint32_t>(client), static_cast<uint32_t>(seq));
    const uint32_t r = mix(h, 7);
    if (h % 40 == 0)
        return 100000 + static_cast<int32_t>(r % (IPC_MAX_DATA_LEN - 100000));
    if (h % 8 == 0)
        return 1000 + static_cast<int32_t>(r % 64536);
    if (h % 16 == 1)
        return 0;
    return static_cast<int32_t>(r % 512);
}

void fill_body(int client, int seq, char* out, int32_t size) {
    const uint32_t salt = mix(static_cast<uint32_t>(client), static_cast<uint32_t>(seq));
    for (int32_t i = 0; i < size; ++i)
        out[i] = static_cast<char>((salt >> (i % 24)) + static_cast<uint32_t>(i) * 7u);
}

// "" when the message is the one expected, else what is wrong with it.
std::string check_message(int client, int expectedSeq, int32_t event, const char* data,
                          int32_t length, std::vector<char>* scratch) {
    const int seq = event - kSeqEventBase;
    if (seq != expectedSeq)
        return "sequence " + std::to_string(seq) + " where " + std::to_string(expectedSeq) +
               " was due";
    if (length != body_size(client, seq))
        return "length " + std::to_string(length) + " for sequence " + std::to_string(seq);
    scratch->resize(static_cast<size_t>(length) + 1);
    fill_body(client, seq, scratch->data(), length);
    if (length > 0 && std::memcmp(scratch->data(), data, static_cast<size_t>(length)) != 0)
        return "body differs for sequence " + std::to_string(seq);
    if (data[length] != '\0')
        return "no NUL after the body of sequence " + std::to_string(seq);
    return "";
}

// The host: checks what every client sends, in order, and echoes it.
class LoadHost {
  public:
    static int callback(void* user, int32_t item, int32_t event, const char* dev, int32_t, int32_t,
                        const char* data, int32_t length) {
        static_cast<LoadHost*>(user)->onEvent(item, event, dev, data, length);
        return 0;
    }

    // The clients of the next wave: device string -> client index.
    void expect(const std::map<std::string, int>& clients) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_clients = clients;
        for (const auto& entry : clients)
            m_nextSeq[entry.first] = 0;
    }

    std::atomic<void*> server{nullptr};
    std::atomic<int> configs{0};
    std::atomic<int> closed{0};
    std::atomic<int> offline{0};
    std::atomic<long> messages{0};

    // True once the host has seen the registration of `dev`.
    bool waitRegistered(const std::string& dev) {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_changed.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                                  [&] { return m_registered.count(dev) != 0; });
    }

    std::vector<std::string> errors() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_errors;
    }

  private:
    void onEvent(int32_t item, int32_t event, const char* dev, const char* data, int32_t length) {
        if (event == CLIENT_IPC_CONFIG) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_registered.insert(dev);
            ++configs;
            m_changed.notify_all();
            return;
        }
        if (event == CLIENT_IPC_CLOSED) {
            ++closed;
            return;
        }
        if (event == CLIENT_IPC_OFFLINE) {
            ++offline;
            fail(std::string("offline: ") + dev);
            return;
        }
        int client = -1;
        int expected = 0;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            auto known = m_clients.find(dev);
            if (known != m_clients.end()) {
                client = known->second;
                expected = m_nextSeq[dev]++;
            }
        }
        if (client < 0 || item != kItem) {
            fail(std::string("stranger: ") + dev);
            return;
        }
        const std::string wrong = check_message(client, expected, event, data, length, &m_scratch);
        if (!wrong.empty())
            fail(std::string(dev) + ": " + wrong);
        ++messages;
        ipc_send_command(server.load(), dev, item, event, data, length);
    }

    void fail(const std::string& what) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_errors.size() < 20)
            m_errors.push_back(what);
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::set<std::string> m_registered;
    std::map<std::string, int> m_clients;
    std::map<std::string, int> m_nextSeq;
    std::vector<std::string> m_errors;
    std::vector<char> m_scratch;  // the server's processing thread only
};

// At most kConnecting clients are between their connect and the host's sight
// of their registration. The server listens with a backlog of 5: a storm of
// simultaneous connects overflows it, and the kernel then makes a client wait
// for a retry (about a second) or, with SYN cookies, may reset a connection
// that the client already counts as made.
constexpr int kConnecting = 4;

class ConnectGate {
  public:
    void enter() {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [&] { return m_inside < kConnecting; });
        ++m_inside;
    }
    void leave() {
        std::lock_guard<std::mutex> guard(m_lock);
        --m_inside;
        m_changed.notify_one();
    }

  private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_inside = 0;
};

// One client: sends its sequence with a window and checks every echo.
class LoadClient {
  public:
    LoadClient(int index, std::string dev) : m_index(index), m_dev(std::move(dev)) {}

    static int callback(void* user, int32_t item, int32_t event, const char* dev, int32_t, int32_t,
                        const char* data, int32_t length) {
        static_cast<LoadClient*>(user)->onEvent(item, event, dev, data, length);
        return 0;
    }

    // Connects, sends `rounds` messages, waits for all echoes, releases.
    void run(LoadHost* host, const std::string& address, int rounds, ConnectGate* gate) {
        gate->enter();
        const long long start = now_ms();
        void* client = ipc_init_client2(address.c_str(), &LoadClient::callback, this, m_dev.c_str(),
                                        kItem, 30000);
        connectMs = now_ms() - start;
        const bool registered = client != nullptr && host->waitRegistered(m_dev);
        gate->leave();
        if (client == nullptr) {
            fail("could not connect");
            return;
        }
        if (!registered)
            fail("the host never saw the registration");
        std::vector<char> body(IPC_MAX_DATA_LEN);
        for (int seq = 0; seq < rounds; ++seq) {
            if (!waitReceived(seq - kWindow + 1)) {
                fail("no echo within the time limit at sequence " + std::to_string(seq));
                break;
            }
            const int32_t size = body_size(m_index, seq);
            fill_body(m_index, seq, body.data(), size);
            if (!ipc_send_message(client, kSeqEventBase + seq, body.data(), size)) {
                fail("send failed at sequence " + std::to_string(seq));
                break;
            }
        }
        if (!waitReceived(rounds))
            fail("echoes missing: " + std::to_string(received()) + " of " + std::to_string(rounds));
        ipc_uninit_client(client);
    }

    int received() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_received;
    }
    std::string error() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_error;
    }
    long long connectMs = 0;

  private:
    void onEvent(int32_t item, int32_t event, const char* dev, const char* data, int32_t length) {
        std::string wrong;
        if (event == CLIENT_IPC_DISCONNECTED) {
            wrong = "disconnected";
        } else if (item != kItem || m_dev != dev) {
            wrong = "echo for another client";
        } else {
            wrong = check_message(m_index, received(), event, data, length, &m_scratch);
        }
        std::lock_guard<std::mutex> guard(m_lock);
        if (!wrong.empty() && m_error.empty())
            m_error = wrong;
        ++m_received;
        m_changed.notify_all();
    }

    bool waitReceived(int n) {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_changed.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] {
            return m_received >= n || !m_error.empty();
        }) && m_error.empty();
    }

    void fail(const std::string& what) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_error.empty())
            m_error = what;
    }

    const int m_index;
    const std::string m_dev;
    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_received = 0;           // guarded by m_lock
    std::string m_error;          // guarded by m_lock
    std::vector<char> m_scratch;  // the client's processing thread only
};

struct WaveResult {
    long long ms = 0;
    long long maxConnectMs = 0;
    long messages = 0;   // both directions
    double bodyMiB = 0;  // body bytes of one direction
};

// N clients on their own threads, all at once, each `rounds` round trips;
// returns once every client has left and the host has seen each leave.
WaveResult run_wave(LoadHost* host, const std::string& address, int wave, int clients, int rounds) {
    std::map<std::string, int> devs;
    std::vector<std::unique_ptr<LoadClient>> loads;
    for (int i = 0; i < clients; ++i) {
        const std::string dev = "load" + std::to_string(wave) + "-" + std::to_string(i) + ".";
        devs[dev] = i;
        loads.push_back(std::make_unique<LoadClient>(i, dev));
    }
    host->expect(devs);
    const int closedBefore = host->closed.load();
    const long messagesBefore = host->messages.load();

    WaveResult result;
    const long long start = now_ms();
    ConnectGate gate;
    std::vector<std::thread> threads;
    for (auto& load : loads) {
        LoadClient* client = load.get();
        threads.emplace_back([=, &address, &gate] { client->run(host, address, rounds, &gate); });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(vexa_stress::wait_until(
        [&] { return host->closed.load() - closedBefore >= clients; }, kWaitMs))
        << "wave " << wave << ": " << host->closed.load() - closedBefore << " of " << clients
        << " clients closed";
    result.ms = now_ms() - start;

    for (auto& load : loads) {
        EXPECT_EQ(load->error(), "") << "client " << &load - &loads[0] << " of wave " << wave;
        EXPECT_EQ(load->received(), rounds);
        result.maxConnectMs = std::max(result.maxConnectMs, load->connectMs);
    }
    EXPECT_EQ(host->messages.load() - messagesBefore, static_cast<long>(clients) * rounds);
    result.messages = 2L * clients * rounds;
    for (int i = 0; i < clients; ++i) {
        for (int seq = 0; seq < rounds; ++seq)
            result.bodyMiB += body_size(i, seq) / (1024.0 * 1024.0);
    }
    return result;
}

struct Memory {
    long rss;   // KiB resident, once the allocator has given back what it can
    long heap;  // KiB handed out by the allocator
    static Memory now() {
        vexa_stress::trim_heap();
        return {vexa_stress::rss_kib(), vexa_stress::heap_in_use_kib()};
    }
};

// Enough descriptors for the clients, their server sockets and some spare.
void raise_descriptor_limit(rlim_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted &&
        limit.rlim_max >= wanted) {
        limit.rlim_cur = wanted;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

TEST(Load, ClientsExchangeCheckedMessagesAndTheHostStaysFlat) {
    const std::string logDir = vexa_stress::endpoint_log_dir();
    ASSERT_NE(logDir, "") << "run through CTest or scripts/load.sh";
    const bool full = full_load();
    const int clients = env_int("VEXA_LOAD_CLIENTS", full ? 256 : 16);
    const int rounds = env_int("VEXA_LOAD_ROUNDS", full ? 1000 : 50);
    const int warmRounds = std::min(rounds, 10);
    raise_descriptor_limit(static_cast<rlim_t>(4 * clients + 256));

    LoadHost host;
    const std::string address = "tcp://:" + std::to_string(vexa_stress::free_port());
    host.server = ipc_init_server(address.c_str(), &LoadHost::callback, &host);
    ASSERT_NE(host.server.load(), nullptr);
    const Memory started = Memory::now();

    // The first wave reaches the peak that any later one has, largest bodies
    // included; memory is compared after it, each time all clients are gone.
    const WaveResult warm = run_wave(&host, address, 0, clients, warmRounds);
    const Memory afterWarm = Memory::now();
    const WaveResult main = run_wave(&host, address, 1, clients, rounds);
    const Memory afterMain = Memory::now();
    const WaveResult again = run_wave(&host, address, 2, clients, warmRounds);
    const Memory afterAgain = Memory::now();

    EXPECT_EQ(host.configs.load(), 3 * clients);
    EXPECT_EQ(host.offline.load(), 0);
    for (const std::string& error : host.errors())
        ADD_FAILURE() << "host: " << error;
    ipc_uninit_server(host.server.load());

    const double seconds = static_cast<double>(main.ms) / 1000.0;
    std::printf(
        "load: %d clients x %d round trips in %.2f s, %.0f msgs/s (both directions), slowest "
        "connect %lld ms, %.0f MiB of bodies each way; warm-up wave %lld ms, third wave %lld ms\n"
        "load: KiB after start, warm-up wave, main wave, third wave: RSS %ld %ld %ld %ld, "
        "heap in use %ld %ld %ld %ld\n",
        clients, rounds, seconds, static_cast<double>(main.messages) / std::max(seconds, 0.001),
        std::max({warm.maxConnectMs, main.maxConnectMs, again.maxConnectMs}), main.bodyMiB, warm.ms,
        again.ms, started.rss, afterWarm.rss, afterMain.rss, afterAgain.rss, started.heap,
        afterWarm.heap, afterMain.heap, afterAgain.heap);
    std::fflush(stdout);

    if (vexa_stress::foreign_allocator() || afterWarm.rss < 0) {
        std::printf("load: memory not compared under this allocator\n");
        return;
    }
    // Flat once the clients are gone: the main wave, with 5 to 100 times the
    // messages of the warm-up, leaves at most a little more behind. Some slack
    // in the resident size for what the allocator cannot give back; what is
    // handed out must not grow beyond the host's own bookkeeping of the test.
    // Under the emulator the resident size is mostly the emulator's own.
    if (std::string(kEmulator).empty()) {
        const long rssSlack = 16 * 1024 + afterWarm.rss / 4;
        EXPECT_LT(afterMain.rss - afterWarm.rss, rssSlack);
        EXPECT_LT(afterAgain.rss - afterWarm.rss, rssSlack);
    }
    if (afterWarm.heap >= 0) {
        const long heapSlack = 256 + clients;
        EXPECT_LT(afterMain.heap - afterWarm.heap, heapSlack);
        EXPECT_LT(afterAgain.heap - afterWarm.heap, heapSlack);
    }
}

// ---- A host with more than 1024 descriptors open ----

TEST(ManyDescriptors, HostAbove1100DescriptorsWorksEndToEnd) {
    ASSERT_NE(vexa_stress::endpoint_log_dir(), "");
    constexpr int kOpen = 1100;
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    if (saved.rlim_max < kOpen + 200)
        GTEST_SKIP() << "hard descriptor limit " << saved.rlim_max;
    rlimit raised = saved;
    raised.rlim_cur = std::max<rlim_t>(saved.rlim_cur, kOpen + 200);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);

    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    std::vector<int> filler;
    while (static_cast<int>(filler.size()) < kOpen) {
        const int fd = fcntl(pipeFds[0], F_DUPFD_CLOEXEC, 0);
        ASSERT_GE(fd, 0);
        filler.push_back(fd);
    }
    const int probe = fcntl(pipeFds[0], F_DUPFD_CLOEXEC, 0);
    ASSERT_GE(probe, 1024) << "descriptors below 1024 are still free";
    close(probe);

    vexa_stress::Recorder host;
    vexa_stress::Recorder test;
    std::atomic<void*> server{nullptr};
    host.onEvent = [&server](const vexa_stress::Event& e) {
        if (e.dev == "high" && e.id == 40)
            ipc_send_command(server.load(), e.dev.c_str(), e.item, 41, e.data.data(), e.length);
    };
    const std::string address = "tcp://:" + std::to_string(vexa_stress::free_port());
    server = ipc_init_server(address.c_str(), &vexa_stress::Recorder::callback, &host);
    ASSERT_NE(server.load(), nullptr);

    // An in-process client...
    void* client =
        ipc_init_client2(address.c_str(), &vexa_stress::Recorder::callback, &test, "high", 3, 5000);
    ASSERT_NE(client, nullptr);
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, "high"));
    std::vector<char> big(IPC_MAX_DATA_LEN - 1);
    fill_body(1, 1, big.data(), static_cast<int32_t>(big.size()));
    const std::string bigText(big.begin(), big.end());
    ASSERT_TRUE(ipc_send_message(client, 40, big.data(), static_cast<int32_t>(big.size())));
    ASSERT_TRUE(ipc_send_message(client, 40, "small", 5));
    ASSERT_TRUE(test.waitFor(41, "high", 2));
    const std::vector<vexa_stress::Event> echoes = test.events();
    ASSERT_EQ(echoes.size(), 2u);
    EXPECT_TRUE(echoes[0].data == bigText);
    EXPECT_EQ(echoes[1].data, "small");

    // ...and a launched test program, which echoes with event + 1.
    ipc_set_su_file_path(server.load(), kEmulator, "");
    ASSERT_TRUE(ipc_run_test(server.load(), VEXA_API_PEER, "peer-high", nullptr));
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, "peer-high", 1, 30000));
    ipc_send_command(server.load(), "peer-high", 7, 500, "over 1024", 9);
    ASSERT_TRUE(host.waitFor(501, "peer-high"));
    ipc_send_command(server.load(), "peer-high", 7, 901, nullptr, 0);  // leave in order
    EXPECT_TRUE(host.waitFor(CLIENT_IPC_CLOSED, "peer-high"));

    ipc_uninit_client(client);
    EXPECT_TRUE(host.waitFor(CLIENT_IPC_CLOSED, "high"));
    EXPECT_EQ(host.count(CLIENT_IPC_OFFLINE), 0);
    EXPECT_EQ(test.count(CLIENT_IPC_DISCONNECTED), 0);
    ipc_uninit_server(server.load());

    for (int fd : filler)
        close(fd);
    close(pipeFds[0]);
    close(pipeFds[1]);
    setrlimit(RLIMIT_NOFILE, &saved);
}

}  // namespace
