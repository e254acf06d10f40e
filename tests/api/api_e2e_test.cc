// The library end to end through the ten exported functions only.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "stress_util.h"
#include "vexatool.h"

namespace {

using vexa_stress::free_port;
using vexa_stress::now_ms;

struct Event {
    int32_t item;
    int32_t id;
    std::string dev;
    int32_t timeSec;
    std::string data;  // empty for a null pointer
    int32_t length;
};

// Collects what one endpoint's callback receives.
class Recorder {
  public:
    static int callback(void* user, int32_t item, int32_t id, const char* dev, int32_t sec,
                        int32_t /*usec*/, const char* data, int32_t length) {
        auto* self = static_cast<Recorder*>(user);
        Event event{
            item,
            id,
            dev,
            sec,
            data != nullptr ? std::string(data, static_cast<size_t>(length)) : std::string(),
            length};
        // The library puts a NUL after every body it delivers.
        if (data != nullptr) {
            EXPECT_EQ(data[length], '\0');
        }
        std::lock_guard<std::mutex> guard(self->m_lock);
        self->m_events.push_back(event);
        self->m_changed.notify_all();
        return 0;
    }

    // Waits for the n-th (0-based) event with this id.
    bool waitFor(int32_t id, Event* out = nullptr, int nth = 0, int timeoutMs = 15000) {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            int seen = 0;
            for (const Event& e : m_events) {
                if (e.id == id && seen++ == nth) {
                    if (out != nullptr)
                        *out = e;
                    return true;
                }
            }
            return false;
        });
    }

    int count(int32_t id) {
        std::lock_guard<std::mutex> guard(m_lock);
        int n = 0;
        for (const Event& e : m_events)
            n += e.id == id ? 1 : 0;
        return n;
    }

  private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<Event> m_events;
};

std::string make_address() {
    return "tcp://:" + std::to_string(free_port());
}

std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    return s;
}

TEST(Api, NullHandlesAndArgumentsAreRefused) {
    ipc_uninit_server(nullptr);
    ipc_uninit_client(nullptr);
    ipc_kill_client(nullptr);
    ipc_set_su_file_path(nullptr, "", "");
    ipc_send_command(nullptr, "d", 1, 2, "x", 1);
    EXPECT_FALSE(ipc_run_test(nullptr, "prog", nullptr, nullptr));
    EXPECT_FALSE(ipc_send_message(nullptr, 1, "x", 1));

    Recorder host;
    std::string address = make_address();
    void* server = ipc_init_server(address.c_str(), &Recorder::callback, &host);
    ASSERT_NE(server, nullptr);
    EXPECT_FALSE(ipc_run_test(server, nullptr, nullptr, nullptr));
    ipc_set_su_file_path(server, nullptr, "");  // ignored

    // A client without a callback still registers; a null dev counts as "".
    void* client = ipc_init_client(address.c_str(), nullptr, nullptr, nullptr, 3);
    ASSERT_NE(client, nullptr);
    Event config{};
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, &config));
    EXPECT_EQ(config.dev, "");
    EXPECT_EQ(config.item, 3);
    EXPECT_EQ(config.length, 4);
    EXPECT_FALSE(ipc_send_message(client, 5, "x", -1));
    EXPECT_FALSE(ipc_send_message(client, 5, "x", IPC_MAX_DATA_LEN));
    EXPECT_TRUE(ipc_send_message(client, 5, "x", 1));
    ASSERT_TRUE(host.waitFor(5));
    ipc_uninit_client(client);
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CLOSED));
    ipc_uninit_server(server);
}

TEST(Api, FailedCreationsReturnNull) {
    Recorder host;
    EXPECT_EQ(ipc_init_server(nullptr, &Recorder::callback, &host), nullptr);
    EXPECT_EQ(ipc_init_client(nullptr, &Recorder::callback, &host, "d", 1), nullptr);
    for (const char* bad : {"tcp://:0", "tcp://:abc", "tcp://127.0.0.1", "udp://:5000"}) {
        EXPECT_EQ(ipc_init_server(bad, &Recorder::callback, &host), nullptr) << bad;
        EXPECT_EQ(ipc_init_client(bad, &Recorder::callback, &host, "d", 1), nullptr) << bad;
    }
    std::string address = make_address();
    EXPECT_EQ(ipc_init_server(address.c_str(), nullptr, nullptr), nullptr);
    // Nothing listens there: blocking and time-limited connects both fail.
    EXPECT_EQ(ipc_init_client(address.c_str(), &Recorder::callback, &host, "d", 1), nullptr);
    long long start = now_ms();
    EXPECT_EQ(ipc_init_client2(address.c_str(), &Recorder::callback, &host, "d", 1, 1000), nullptr);
    EXPECT_LT(now_ms() - start, 5000);
    // The port is taken by the first server: a second one fails.
    void* server = ipc_init_server(address.c_str(), &Recorder::callback, &host);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(ipc_init_server(address.c_str(), &Recorder::callback, &host), nullptr);
    ipc_uninit_server(server);
}

struct Pair {
    Recorder host;
    Recorder test;
    std::atomic<void*> server{nullptr};
};

TEST(Api, TrafficBothWaysAtTheLimits) {
    Pair pair;
    std::string address = make_address();
    pair.server = ipc_init_server(address.c_str(), &Recorder::callback, &pair.host);
    ASSERT_NE(pair.server.load(), nullptr);
    void* client =
        ipc_init_client2(address.c_str(), &Recorder::callback, &pair.test, "dev-e2e", 11, 3000);
    ASSERT_NE(client, nullptr);
    ASSERT_TRUE(pair.host.waitFor(CLIENT_IPC_CONFIG));

    const std::string big = pattern(IPC_MAX_DATA_LEN - 1);
    EXPECT_TRUE(ipc_send_message(client, 100, nullptr, 0));
    EXPECT_TRUE(ipc_send_message(client, 101, big.data(), static_cast<int32_t>(big.size())));
    ipc_send_command(pair.server, "dev-e2e", 11, 200, nullptr, 0);
    ipc_send_command(pair.server, "dev-e2e", 11, 201, big.data(), static_cast<int32_t>(big.size()));

    Event e{};
    ASSERT_TRUE(pair.host.waitFor(100, &e));
    EXPECT_EQ(e.length, 0);
    EXPECT_EQ(e.dev, "dev-e2e");
    EXPECT_EQ(e.item, 11);
    EXPECT_GT(e.timeSec, 0);
    ASSERT_TRUE(pair.host.waitFor(101, &e));
    EXPECT_EQ(e.length, IPC_MAX_DATA_LEN - 1);
    EXPECT_TRUE(e.data == big);
    ASSERT_TRUE(pair.test.waitFor(200, &e));
    EXPECT_EQ(e.length, 0);
    ASSERT_TRUE(pair.test.waitFor(201, &e));
    EXPECT_TRUE(e.data == big);
    EXPECT_EQ(e.dev, "dev-e2e");
    EXPECT_EQ(e.item, 11);

    ipc_uninit_client(client);
    ASSERT_TRUE(pair.host.waitFor(CLIENT_IPC_CLOSED, &e));
    EXPECT_EQ(e.dev, "dev-e2e");
    EXPECT_EQ(pair.host.count(CLIENT_IPC_OFFLINE), 0);
    ipc_uninit_server(pair.server);
}

TEST(Api, ServerGoingAwayReaches1006AndReleaseIsQuick) {
    Pair pair;
    std::string address = make_address();
    void* server = ipc_init_server(address.c_str(), &Recorder::callback, &pair.host);
    ASSERT_NE(server, nullptr);
    void* client = ipc_init_client(address.c_str(), &Recorder::callback, &pair.test, "gone", 4);
    ASSERT_NE(client, nullptr);
    ASSERT_TRUE(pair.host.waitFor(CLIENT_IPC_CONFIG));
    ipc_uninit_server(server);

    Event e{};
    ASSERT_TRUE(pair.test.waitFor(CLIENT_IPC_DISCONNECTED, &e));
    EXPECT_EQ(e.length, 4);
    int32_t reason = 0;
    std::memcpy(&reason, e.data.data(), sizeof(reason));
    EXPECT_EQ(reason, IPC_ERR_SERVER_CLOSED);
    EXPECT_EQ(e.dev, "gone");
    EXPECT_EQ(e.item, 4);
    EXPECT_FALSE(ipc_send_message(client, 1, "x", 1));
    long long start = now_ms();
    ipc_uninit_client(client);
    EXPECT_LT(now_ms() - start, 1500);  // no 2000 ms wait for an answer
}

// Both ends answer every message from inside their callbacks, with the
// largest bodies and eight of them in flight: neither waits for the other
// for ever. An endpoint released from its own callback refuses, and stays
// usable.
struct Echoes {
    static constexpr int kRounds = 64;
    static constexpr int32_t kEcho = 300;
    static constexpr int32_t kRelease = 301;
    const std::string body = pattern(IPC_MAX_DATA_LEN - 1);
    std::atomic<void*> server{nullptr};
    std::atomic<void*> client{nullptr};
    std::atomic<int> atHost{0};
    std::atomic<int> atTest{0};
    std::atomic<int> refusals{0};

    static int host(void* user, int32_t item, int32_t id, const char* dev, int32_t, int32_t,
                    const char*, int32_t) {
        auto* self = static_cast<Echoes*>(user);
        if (id == kEcho && ++self->atHost <= kRounds) {
            ipc_send_command(self->server, dev, item, kEcho, self->body.data(),
                             static_cast<int32_t>(self->body.size()));
        } else if (id == kRelease) {
            ipc_uninit_server(self->server);
            ++self->refusals;
            ipc_send_command(self->server, dev, item, kRelease, nullptr, 0);
        }
        return 0;
    }
    static int test(void* user, int32_t, int32_t id, const char*, int32_t, int32_t, const char*,
                    int32_t) {
        auto* self = static_cast<Echoes*>(user);
        if (id == kEcho && ++self->atTest <= kRounds) {
            ipc_send_message(self->client, kEcho, self->body.data(),
                             static_cast<int32_t>(self->body.size()));
        } else if (id == kRelease) {
            ipc_uninit_client(self->client);
            ++self->refusals;
        }
        return 0;
    }
};

TEST(Api, CallbacksAnsweringEachOtherNeverWaitForEver) {
    Echoes echoes;
    const std::string address = make_address();
    echoes.server = ipc_init_server(address.c_str(), &Echoes::host, &echoes);
    ASSERT_NE(echoes.server.load(), nullptr);
    echoes.client = ipc_init_client(address.c_str(), &Echoes::test, &echoes, "echo", 5);
    ASSERT_NE(echoes.client.load(), nullptr);
    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(ipc_send_message(echoes.client, Echoes::kEcho, echoes.body.data(),
                                     static_cast<int32_t>(echoes.body.size())));
    }
    const long long deadline = now_ms() + 60000;
    while ((echoes.atHost < Echoes::kRounds || echoes.atTest < Echoes::kRounds) &&
           now_ms() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_GE(echoes.atHost.load(), Echoes::kRounds);
    EXPECT_GE(echoes.atTest.load(), Echoes::kRounds);

    EXPECT_TRUE(ipc_send_message(echoes.client, Echoes::kRelease, nullptr, 0));
    while (echoes.refusals < 2 && now_ms() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(echoes.refusals.load(), 2);
    const std::string refused = "uninit refused: called from the endpoint's own callback";
    for (const std::string& name : {"ipc_server_" + address.substr(7), std::string("ipc_client_echo")}) {
        std::ifstream log(std::string(VEXA_API_LOG_DIR) + name + ".log");
        const std::string text((std::istreambuf_iterator<char>(log)), {});
        EXPECT_NE(text.find(refused), std::string::npos) << name;
    }
    ipc_uninit_client(echoes.client);
    ipc_uninit_server(echoes.server);
}

// A launched test program: registers, echoes, then leaves in order or dies.
TEST(Api, LaunchedProgramsCloseOrGoOffline) {
    Recorder host;
    std::string address = make_address();
    void* server = ipc_init_server(address.c_str(), &Recorder::callback, &host);
    ASSERT_NE(server, nullptr);
    // Start the programs directly (through the emulator in a cross build).
    ipc_set_su_file_path(server, VEXA_TEST_EMULATOR, "");
    ASSERT_TRUE(ipc_run_test(server, VEXA_API_PEER, "leaver", nullptr));
    ASSERT_TRUE(ipc_run_test(server, VEXA_API_PEER, "dier", "--unused extra"));
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, nullptr, 0));
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, nullptr, 1));

    ipc_send_command(server, "leaver", 7, 500, "echo me", 7);
    Event e{};
    ASSERT_TRUE(host.waitFor(501, &e));
    EXPECT_EQ(e.data, "echo me");
    EXPECT_EQ(e.dev, "leaver");

    ipc_send_command(server, "leaver", 7, 901, nullptr, 0);
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CLOSED, &e));
    EXPECT_EQ(e.dev, "leaver");
    ipc_send_command(server, "dier", 7, 902, nullptr, 0);
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_OFFLINE, &e));
    EXPECT_EQ(e.dev, "dier");
    EXPECT_EQ(e.length, 0);
    EXPECT_EQ(host.count(CLIENT_IPC_CLOSED), 1);
    EXPECT_EQ(host.count(CLIENT_IPC_OFFLINE), 1);

    ipc_kill_client(server);  // returns; ending tests is the host's business
    ipc_uninit_server(server);
    // The server wrote its log into this test's own directory.
    std::string log = std::string(VEXA_API_LOG_DIR) + "ipc_server_" + address.substr(7) + ".log";
    EXPECT_EQ(access(log.c_str(), F_OK), 0) << log;
}

}  // namespace
