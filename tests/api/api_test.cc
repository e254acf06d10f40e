// The library end to end through the ten exported functions only.
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/callback_log.h"
#include "support/framed_peer.h"
#include "support/test_support.h"
#include "vexatool.h"

namespace {

using vexa_test::CallbackLog;
using vexa_test::Event;
using vexa_test::monotonic_ms;

const std::string kPort = std::to_string(vexa_test::free_loopback_port());
// Programs the tests start go through the emulator in a cross build.
const char* const kEmulator = VEXA_TEST_EMULATOR;

std::string log_dir() {
    const char* dir = std::getenv("VEXA_LOG_DIR");
    return dir != nullptr ? dir : "";
}

std::string fresh_address() {
    return "tcp://:" + std::to_string(vexa_test::free_loopback_port());
}

TEST(Api, NullHandlesAndArgumentsAreRefused) {
    ipc_uninit_server(nullptr);
    ipc_uninit_client(nullptr);
    ipc_kill_client(nullptr);
    ipc_set_su_file_path(nullptr, "", "");
    ipc_send_command(nullptr, "d", 1, 2, "x", 1);
    EXPECT_FALSE(ipc_run_test(nullptr, "prog", nullptr, nullptr));
    EXPECT_FALSE(ipc_send_message(nullptr, 1, "x", 1));

    CallbackLog host;
    const std::string address = fresh_address();
    void* server = ipc_init_server(address.c_str(), &CallbackLog::callback, &host);
    ASSERT_NE(server, nullptr);
    EXPECT_FALSE(ipc_run_test(server, nullptr, nullptr, nullptr));
    ipc_set_su_file_path(server, nullptr, "");  // ignored
    // A null dev counts as "" both ways.
    CallbackLog test;
    void* client = ipc_init_client(address.c_str(), &CallbackLog::callback, &test, nullptr, 3);
    ASSERT_NE(client, nullptr);
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, "", 3));
    ipc_send_command(server, nullptr, 3, 6, "y", 1);
    EXPECT_TRUE(test.waitFor(6, "", 3));
    EXPECT_FALSE(ipc_send_message(client, 5, "x", -1));
    EXPECT_FALSE(ipc_send_message(client, 5, "x", IPC_MAX_DATA_LEN));
    EXPECT_TRUE(ipc_send_message(client, 5, "x", 1));
    EXPECT_TRUE(host.waitFor(5));
    ipc_uninit_client(client);
    EXPECT_TRUE(host.waitFor(CLIENT_IPC_CLOSED));
    ipc_uninit_server(server);
}

TEST(Api, FailedCreationsReturnNull) {
    CallbackLog log;
    EXPECT_EQ(ipc_init_server(nullptr, &CallbackLog::callback, &log), nullptr);
    EXPECT_EQ(ipc_init_client(nullptr, &CallbackLog::callback, &log, "d", 1), nullptr);
    for (const char* bad : {"tcp://:0", "tcp://:abc", "tcp://127.0.0.1", "udp://:5000"}) {
        EXPECT_EQ(ipc_init_server(bad, &CallbackLog::callback, &log), nullptr) << bad;
        EXPECT_EQ(ipc_init_client(bad, &CallbackLog::callback, &log, "d", 1), nullptr) << bad;
    }
    const std::string address = fresh_address();
    EXPECT_EQ(ipc_init_server(address.c_str(), nullptr, nullptr), nullptr);
    // Nothing listens there: blocking and time-limited connects both fail.
    EXPECT_EQ(ipc_init_client(address.c_str(), &CallbackLog::callback, &log, "d", 1), nullptr);
    const long long start = monotonic_ms();
    EXPECT_EQ(ipc_init_client2(address.c_str(), &CallbackLog::callback, &log, "d", 1, 1000),
              nullptr);
    EXPECT_LT(monotonic_ms() - start, 5000);
    void* server = ipc_init_server(address.c_str(), &CallbackLog::callback, &log);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(ipc_init_server(address.c_str(), &CallbackLog::callback, &log), nullptr);
    ipc_uninit_server(server);
}

// Empty and largest bodies both ways, to a server named by host and port,
// whose log file takes its name from both.
TEST(Api, TrafficBothWaysAtTheLimits) {
    CallbackLog host;
    CallbackLog test;
    const std::string port = std::to_string(vexa_test::free_loopback_port());
    void* server =
        ipc_init_server(("tcp://127.0.0.1:" + port).c_str(), &CallbackLog::callback, &host);
    ASSERT_NE(server, nullptr);
    EXPECT_TRUE(vexa_test::file_exists(log_dir() + "ipc_server_127.0.0.1." + port + ".log"));
    void* client = ipc_init_client2(("tcp://127.0.0.1:" + port).c_str(), &CallbackLog::callback,
                                    &test, "dev-e2e", 11, 3000);
    ASSERT_NE(client, nullptr);
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, "dev-e2e", 11));

    const std::string big = vexa_test::pattern(IPC_MAX_DATA_LEN - 1);
    EXPECT_TRUE(ipc_send_message(client, 100, nullptr, 0));
    EXPECT_TRUE(ipc_send_message(client, 101, big.data(), IPC_MAX_DATA_LEN - 1));
    ipc_send_command(server, "dev-e2e", 11, 200, nullptr, 0);
    ipc_send_command(server, "dev-e2e", 11, 201, big.data(), IPC_MAX_DATA_LEN - 1);
    for (CallbackLog* side : {&host, &test}) {
        const int32_t first = side == &host ? 100 : 200;
        ASSERT_TRUE(side->waitFor(first + 1));
        const std::vector<Event> got = side->events();
        const Event& empty = got[got.size() - 2];
        const Event& largest = got.back();
        EXPECT_TRUE(empty.event == first && empty.len == 0 && empty.terminated);
        EXPECT_TRUE(largest.data == big && largest.terminated);
        EXPECT_TRUE(largest.dev == "dev-e2e" && largest.item == 11 && largest.sec > 0);
    }
    ipc_uninit_client(client);
    EXPECT_TRUE(host.waitFor(CLIENT_IPC_CLOSED, "dev-e2e", 11));
    EXPECT_TRUE(host.matching(CLIENT_IPC_OFFLINE).empty());
    ipc_uninit_server(server);
}

// Both ends answer every message from inside their callbacks, with the
// largest bodies and eight of them in flight: neither waits for the other
// for ever. An endpoint released from its own callback refuses, and stays
// usable.
struct Echoes {
    static constexpr int kRounds = 64;
    static constexpr int32_t kEcho = 300;
    static constexpr int32_t kRelease = 301;
    const std::string body = vexa_test::pattern(IPC_MAX_DATA_LEN - 1);
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
    const std::string address = "tcp://:" + kPort;
    echoes.server = ipc_init_server(address.c_str(), &Echoes::host, &echoes);
    ASSERT_NE(echoes.server.load(), nullptr);
    echoes.client = ipc_init_client(address.c_str(), &Echoes::test, &echoes, "echo", 5);
    ASSERT_NE(echoes.client.load(), nullptr);
    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(ipc_send_message(echoes.client, Echoes::kEcho, echoes.body.data(),
                                     static_cast<int32_t>(echoes.body.size())));
    }
    EXPECT_TRUE(vexa_test::wait_until(
        [&] { return echoes.atHost >= Echoes::kRounds && echoes.atTest >= Echoes::kRounds; },
        60000));
    EXPECT_TRUE(ipc_send_message(echoes.client, Echoes::kRelease, nullptr, 0));
    EXPECT_TRUE(vexa_test::wait_until([&] { return echoes.refusals == 2; }));
    const std::string refused = "uninit refused: called from the endpoint's own callback";
    for (const std::string& name : {"ipc_server_" + kPort, std::string("ipc_client_echo")})
        EXPECT_TRUE(vexa_test::log_has(log_dir() + name + ".log", refused)) << name;
    ipc_uninit_client(echoes.client);
    ipc_uninit_server(echoes.server);
}

// Launched test programs and libraries register with the tokens of their
// launches, so that a server that takes nobody else has them all; then the
// programs echo, and leave in order or die.
TEST(Api, LaunchedProgramsCloseOrGoOffline) {
    CallbackLog host;
    const int port = vexa_test::free_loopback_port();
    void* server = nullptr;
    {
        vexa_test::ScopedEnv launchedOnly("VEXA_REGISTRATION", "launched");
        server = ipc_init_server(("tcp://:" + std::to_string(port)).c_str(), &CallbackLog::callback,
                                 &host);
    }
    ASSERT_NE(server, nullptr);
    ipc_set_su_file_path(server, kEmulator, "");
    ASSERT_TRUE(ipc_run_test(server, VEXA_PEER_PROGRAM, "leaver", "--client 7"));
    ASSERT_TRUE(ipc_run_test(server, VEXA_PEER_PROGRAM, "dier", "--client 7"));
    ASSERT_TRUE(ipc_run_test(server, EXAMPLE_TEST_SO, "in-process", nullptr));
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, "leaver", 7));
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, "dier", 7));
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_CONFIG, "in-process", 2));
    vexa_test::FramedConn stranger;
    ASSERT_TRUE(stranger.connectTo(port) && stranger.registerAs("stranger", 7));
    EXPECT_TRUE(stranger.waitEof());

    ipc_send_command(server, "leaver", 7, 500, "echo me", 7);
    ASSERT_TRUE(host.waitFor(501, "leaver", 7));
    EXPECT_EQ(host.matching(501)[0].data, "echo me");
    ipc_send_command(server, "leaver", 7, 901, nullptr, 0);
    ipc_send_command(server, "dier", 7, 902, nullptr, 0);
    EXPECT_TRUE(host.waitFor(CLIENT_IPC_CLOSED, "leaver", 7));
    ASSERT_TRUE(host.waitFor(CLIENT_IPC_OFFLINE, "dier", 7));
    EXPECT_EQ(host.matching(CLIENT_IPC_CLOSED).size(), 1u);
    EXPECT_EQ(host.matching(CLIENT_IPC_OFFLINE).size(), 1u);
    ipc_kill_client(server);  // returns; ending tests is the host's business
    ipc_uninit_server(server);
}

// A host process killed while its clients talk: each client gets exactly one
// 1006 with -900, later sends fail and each release is quick.
TEST(Api, AKilledServerGivesEachClientOneDisconnect) {
    vexa_test::TempDir dir;
    std::string address;
    std::unique_ptr<vexa_test::Child> host;
    for (int attempt = 0; attempt < 5 && address.empty(); ++attempt) {
        std::vector<std::string> argv = vexa_test::words(kEmulator);
        const std::string tried = fresh_address();
        argv.insert(argv.end(), {VEXA_PEER_PROGRAM, "-t", tried, "--host"});
        host.reset(new vexa_test::Child(argv, dir.path()));
        if (host->waitForOutput("ready\n", 30000))
            address = tried;
    }
    ASSERT_NE(address, "") << "the host process never listened";
    CallbackLog seen[3];
    void* clients[3];
    for (int i = 0; i < 3; ++i) {
        const std::string dev = "talk" + std::to_string(i);
        clients[i] = ipc_init_client2(address.c_str(), &CallbackLog::callback, &seen[i],
                                      dev.c_str(), 2, 10000);
        ASSERT_NE(clients[i], nullptr);
    }
    std::atomic<bool> stop{false};
    std::vector<std::thread> talkers;
    for (int i = 0; i < 3; ++i) {
        talkers.emplace_back([&, i] {
            for (size_t sent = 1; !stop && ipc_send_message(clients[i], 700, "talk", 4); ++sent) {
                vexa_test::wait_until([&] { return stop || seen[i].matching(700).size() >= sent; });
            }
        });
    }
    for (CallbackLog& log : seen)
        EXPECT_TRUE(log.waitFor(700, nullptr, 0, 20));
    EXPECT_TRUE(WIFSIGNALED(host->kill()));
    for (CallbackLog& log : seen)
        EXPECT_TRUE(log.waitFor(CLIENT_IPC_DISCONNECTED));
    stop = true;
    for (std::thread& t : talkers)
        t.join();
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(ipc_send_message(clients[i], 700, "late", 4));
        const long long start = monotonic_ms();
        ipc_uninit_client(clients[i]);
        EXPECT_LT(monotonic_ms() - start, 1500);  // no 2000 ms wait for leave
        const std::vector<Event> gone = seen[i].matching(CLIENT_IPC_DISCONNECTED);
        ASSERT_EQ(gone.size(), 1u);
        EXPECT_EQ(gone[0].item, 2);
        EXPECT_EQ(vexa_test::native32(gone[0].data), IPC_ERR_SERVER_CLOSED);
        EXPECT_EQ(gone[0].dev, "talk" + std::to_string(i));
    }
}

}  // namespace
