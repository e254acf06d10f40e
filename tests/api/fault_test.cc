// Faults end to end through the exported functions: peers that die or lie in
// the middle of a message, a server process that is killed under its clients,
// and a server that closes while a client waits for leave to close. Each case
// ends with exactly the events the library promises, and nothing hangs.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "stress_util.h"
#include "vexatool.h"

namespace {

using vexa_stress::Child;
using vexa_stress::Event;
using vexa_stress::now_ms;
using vexa_stress::Recorder;

constexpr int32_t kEcho = 700;
constexpr int32_t kPartialEvent = 4242;  // what fault_peer announces its cut body with
constexpr int kQuickReleaseMs = 1500;    // well below the 2000 ms wait for leave to close

// Programs the tests start go through the emulator in a cross build.
const char* const kEmulator = VEXA_TEST_EMULATOR;

bool is_library_event(int32_t id) {
    return id == CLIENT_IPC_CONFIG || id == CLIENT_IPC_CLOSED || id == CLIENT_IPC_OFFLINE;
}

// An in-process host that echoes every application message to its sender,
// and one well-behaved client beside whatever the test breaks.
class HostWithBystander : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(vexa_stress::endpoint_log_dir(), "") << "run through CTest or a script";
        m_port = vexa_stress::free_port();
        m_address = "tcp://:" + std::to_string(m_port);
        m_host.onEvent = [this](const Event& e) {
            if (!is_library_event(e.id))
                ipc_send_command(m_server.load(), e.dev.c_str(), e.item, e.id, e.data.data(),
                                 e.length);
        };
        m_server = ipc_init_server(m_address.c_str(), &Recorder::callback, &m_host);
        ASSERT_NE(m_server.load(), nullptr);
        m_bystander =
            ipc_init_client2(m_address.c_str(), &Recorder::callback, &m_seen, "stand", 1, 5000);
        ASSERT_NE(m_bystander, nullptr);
        ASSERT_TRUE(m_host.waitFor(CLIENT_IPC_CONFIG, "stand"));
        bystanderRoundTrip();
    }

    void TearDown() override { shutDown(); }

    // Releases the bystander (which leaves in order) and the server; the
    // server's log is complete afterwards.
    void shutDown() {
        if (m_bystander != nullptr) {
            ipc_uninit_client(m_bystander);
            m_bystander = nullptr;
            EXPECT_TRUE(m_host.waitFor(CLIENT_IPC_CLOSED, "stand"));
        }
        if (m_server.load() != nullptr) {
            EXPECT_EQ(m_host.count(CLIENT_IPC_OFFLINE, "stand"), 0);
            ipc_uninit_server(m_server.load());
            m_server = nullptr;
        }
    }

    // One echo for the bystander; checks its body.
    void bystanderRoundTrip() {
        const std::string body = "round " + std::to_string(++m_rounds);
        ASSERT_TRUE(
            ipc_send_message(m_bystander, kEcho, body.data(), static_cast<int32_t>(body.size())));
        ASSERT_TRUE(m_seen.waitFor(kEcho, "stand", m_rounds));
        EXPECT_EQ(m_seen.events().back().data, body);
    }

    std::string serverLog() const {
        return vexa_stress::endpoint_log_dir() + "ipc_server_" + std::to_string(m_port) + ".log";
    }

    int m_port = 0;
    std::string m_address;
    Recorder m_host;
    Recorder m_seen;  // the bystander's callback
    std::atomic<void*> m_server{nullptr};
    void* m_bystander = nullptr;
    int m_rounds = 0;
};

using ClientFaults = HostWithBystander;

TEST_F(ClientFaults, ClientKilledInsideABodyIsOfflineOnceAndOthersGoOn) {
    for (const bool registered : {true, false}) {
        SCOPED_TRACE(registered ? "registered" : "unregistered");
        const std::string dev = registered ? "cut-reg" : "cut-anon";
        Child peer;
        ASSERT_TRUE(peer.start({VEXA_FAULT_PEER, "partial", std::to_string(m_port),
                                registered ? "1" : "0", dev, "3", "200000", "100000"},
                               kEmulator));
        std::string line;
        ASSERT_TRUE(peer.readLine(&line, 20000));
        ASSERT_EQ(line, "ready");
        if (registered) {
            ASSERT_TRUE(m_host.waitFor(CLIENT_IPC_CONFIG, dev));
        }
        // Let the server's loop get into the cut body; it waits there for the
        // rest, so the bystander's message waits too.
        usleep(300 * 1000);
        const std::string body = "during the cut";
        ASSERT_TRUE(
            ipc_send_message(m_bystander, kEcho, body.data(), static_cast<int32_t>(body.size())));
        ++m_rounds;
        // The server's loop may reap the child first (it reaps any child of
        // the process group): then there is no status to look at.
        const int status = peer.kill9();
        EXPECT_TRUE(status == -1 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL));

        ASSERT_TRUE(m_seen.waitFor(kEcho, "stand", m_rounds));
        if (registered) {
            ASSERT_TRUE(m_host.waitFor(CLIENT_IPC_OFFLINE, dev));
            const std::vector<Event> all = m_host.events();
            for (const Event& e : all) {
                if (e.id == CLIENT_IPC_OFFLINE) {
                    EXPECT_EQ(e.item, 3);
                    EXPECT_TRUE(e.nullData);
                    EXPECT_EQ(e.length, 0);
                }
            }
        }
        bystanderRoundTrip();
    }
    usleep(200 * 1000);  // room for anything that should not come
    EXPECT_EQ(m_host.count(CLIENT_IPC_OFFLINE, "cut-reg"), 1);
    EXPECT_EQ(m_host.count(CLIENT_IPC_OFFLINE), 1);
    EXPECT_EQ(m_host.count([](const Event& e) { return e.dev == "cut-anon"; }), 0);
    EXPECT_EQ(m_host.count(kPartialEvent), 0);

    shutDown();
    const std::string log = serverLog();
    EXPECT_EQ(vexa_stress::count_lines_with(log, "readMsgFromSocket read body failed."), 2) << log;
    EXPECT_EQ(vexa_stress::count_lines_with(log, "client offline pid="), 1);
    EXPECT_EQ(vexa_stress::count_lines_with(log, "not found ItemClient of sockfd="), 1);
}

// A small deterministic generator, the same on every platform.
class Xorshift {
  public:
    explicit Xorshift(uint32_t seed) : m_state(seed * 2654435761u + 1u) {}
    uint32_t next() {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 17;
        m_state ^= m_state << 5;
        return m_state;
    }
    void fill(uint8_t* at, size_t n) {
        for (size_t i = 0; i < n; ++i)
            at[i] = static_cast<uint8_t>(next() >> 24);
    }

  private:
    uint32_t m_state;
};

// What one garbage peer sends after its optional registration.
struct Garbage {
    std::string dev;  // registers under dev / 1 when not empty
    std::vector<uint8_t> bytes;
    bool shutWrite;  // ends its sending side afterwards; else keeps the socket open
};

std::vector<uint8_t> head_with_length(int32_t length) {
    return vexa_stress::make_head("liar", 1, 800, length);
}

// Random frames whose lengths fit, each with its random body, then one wholly
// random head. None of them names a registered pair or registers one.
std::vector<uint8_t> random_stream(uint32_t seed) {
    Xorshift random(seed);
    std::vector<uint8_t> out;
    const int frames = 1 + static_cast<int>(random.next() % 6);
    for (int f = 0; f < frames; ++f) {
        uint8_t head[vexa_stress::kHeadSize];
        random.fill(head, sizeof(head));
        const auto length = static_cast<int32_t>(random.next() % 300);
        vexa_stress::put_be32(&head[96], length);
        if (vexa_stress::get_be32(&head[84]) == CLIENT_IPC_CONFIG)
            vexa_stress::put_be32(&head[84], 0);
        out.insert(out.end(), head, head + sizeof(head));
        std::vector<uint8_t> body(static_cast<size_t>(length));
        random.fill(body.data(), body.size());
        out.insert(out.end(), body.begin(), body.end());
    }
    uint8_t last[vexa_stress::kHeadSize];
    random.fill(last, sizeof(last));
    if (vexa_stress::get_be32(&last[84]) == CLIENT_IPC_CONFIG)
        vexa_stress::put_be32(&last[84], 0);
    out.insert(out.end(), last, last + sizeof(last));
    return out;
}

using GarbageHeads = HostWithBystander;

TEST_F(GarbageHeads, ConnectionIsDroppedAndOnlyRegisteredPeersGoOffline) {
    std::vector<Garbage> peers = {
        {"", head_with_length(-1), false},
        {"", head_with_length(IPC_MAX_DATA_LEN), false},
        {"g-huge", head_with_length(IPC_MAX_DATA_LEN), false},
        {"g-max", head_with_length(INT32_MAX), false},
        {"g-min", head_with_length(INT32_MIN), false},
        {"g-neg", head_with_length(-1), false},
        {"g-half", std::vector<uint8_t>(40, 0x5a), true},
    };
    for (uint32_t seed = 1; seed <= 6; ++seed) {
        const std::string dev = seed % 2 == 0 ? "g-rand" + std::to_string(seed) : "";
        peers.push_back({dev, random_stream(seed), true});
    }

    std::set<std::string> registered;
    for (size_t i = 0; i < peers.size(); ++i) {
        SCOPED_TRACE("garbage peer " + std::to_string(i));
        const Garbage& g = peers[i];
        int fd = vexa_stress::connect_loopback(m_port);
        ASSERT_GE(fd, 0);
        if (!g.dev.empty()) {
            const std::vector<uint8_t> hello = vexa_stress::make_registration(g.dev, 1);
            ASSERT_TRUE(vexa_stress::write_all(fd, hello.data(), hello.size()));
            ASSERT_TRUE(m_host.waitFor(CLIENT_IPC_CONFIG, g.dev));
            registered.insert(g.dev);
        }
        ASSERT_TRUE(vexa_stress::write_all(fd, g.bytes.data(), g.bytes.size()));
        if (g.shutWrite)
            shutdown(fd, SHUT_WR);
        // The server ends the connection; nothing resynchronises.
        EXPECT_TRUE(vexa_stress::peer_closes(fd, 20000));
        close(fd);
        if (!g.dev.empty()) {
            EXPECT_TRUE(m_host.waitFor(CLIENT_IPC_OFFLINE, g.dev));
        }
        if (i % 4 == 3)
            bystanderRoundTrip();
    }
    bystanderRoundTrip();
    usleep(200 * 1000);

    // Registrations and one offline notice per registered liar; nothing else
    // than the bystander's traffic reached the host.
    for (const std::string& dev : registered) {
        EXPECT_EQ(m_host.count(CLIENT_IPC_CONFIG, dev), 1) << dev;
        EXPECT_EQ(m_host.count(CLIENT_IPC_OFFLINE, dev), 1) << dev;
    }
    for (const Event& e : m_host.events()) {
        if (e.dev == "stand")
            continue;
        EXPECT_TRUE(registered.count(e.dev) == 1 &&
                    (e.id == CLIENT_IPC_CONFIG || e.id == CLIENT_IPC_OFFLINE))
            << "unexpected event " << e.id << " dev=" << e.dev;
    }

    shutDown();
    const std::string log = serverLog();
    EXPECT_EQ(vexa_stress::count_lines_with(log, "msg too big, 512000 >= 512000"), 2) << log;
    EXPECT_EQ(vexa_stress::count_lines_with(log, "msg too big, 2147483647 >= 512000"), 1);
    EXPECT_EQ(vexa_stress::count_lines_with(log, "client offline pid="),
              static_cast<int>(registered.size()));
}

// ---- A server process killed under its clients ----

struct Talker {
    Recorder seen;
    void* client = nullptr;
    std::string dev;
};

// Starts fault_peer as a host on a free port; retries when the port was taken
// in the meantime. Returns the address, "" on failure.
std::string start_server_process(Child* child) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        const std::string address = "tcp://:" + std::to_string(vexa_stress::free_port());
        if (!child->start({VEXA_FAULT_PEER, "server", address}, kEmulator))
            return "";
        std::string line;
        if (child->readLine(&line, 30000) && line == "ready")
            return address;
        child->kill9();
    }
    return "";
}

TEST(ServerFaults, ServerKilledWhileClientsTalkGivesEachOneDisconnect) {
    ASSERT_NE(vexa_stress::endpoint_log_dir(), "");
    Child server;
    const std::string address = start_server_process(&server);
    ASSERT_NE(address, "");

    constexpr int kTalkers = 4;
    constexpr int kWindow = 4;
    std::vector<Talker> talkers(kTalkers);
    for (int i = 0; i < kTalkers; ++i) {
        talkers[i].dev = "talk" + std::to_string(i);
        talkers[i].client = ipc_init_client2(address.c_str(), &Recorder::callback, &talkers[i].seen,
                                             talkers[i].dev.c_str(), 2, 10000);
        ASSERT_NE(talkers[i].client, nullptr) << i;
    }

    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    for (Talker& t : talkers) {
        senders.emplace_back([&t, &stop] {
            for (int sent = 0; !stop.load(); ++sent) {
                // At most kWindow messages in flight; give up on a lost server.
                if (!t.seen.waitCount(
                        [](const Event& e) {
                            return e.id == kEcho || e.id == CLIENT_IPC_DISCONNECTED;
                        },
                        sent - kWindow + 1, 20000))
                    return;
                if (t.seen.count(CLIENT_IPC_DISCONNECTED) > 0)
                    return;
                const std::string body = t.dev + " message " + std::to_string(sent);
                if (!ipc_send_message(t.client, kEcho, body.data(),
                                      static_cast<int32_t>(body.size())))
                    return;
            }
        });
    }
    for (Talker& t : talkers) {
        EXPECT_TRUE(t.seen.waitFor(kEcho, t.dev, 20, 30000)) << t.dev;
    }
    server.kill9();

    for (Talker& t : talkers) {
        EXPECT_TRUE(t.seen.waitFor(CLIENT_IPC_DISCONNECTED, t.dev, 1, 20000)) << t.dev;
    }
    stop = true;
    for (std::thread& s : senders)
        s.join();

    for (Talker& t : talkers) {
        SCOPED_TRACE(t.dev);
        EXPECT_FALSE(ipc_send_message(t.client, kEcho, "late", 4));
        const long long start = now_ms();
        ipc_uninit_client(t.client);
        EXPECT_LT(now_ms() - start, kQuickReleaseMs);
        int disconnects = 0;
        for (const Event& e : t.seen.events()) {
            if (e.id != CLIENT_IPC_DISCONNECTED) {
                EXPECT_EQ(e.id, kEcho);
                continue;
            }
            ++disconnects;
            EXPECT_EQ(e.item, 2);
            ASSERT_EQ(e.length, 4);
            int32_t reason = 0;
            std::memcpy(&reason, e.data.data(), sizeof(reason));
            EXPECT_EQ(reason, IPC_ERR_SERVER_CLOSED);
        }
        EXPECT_EQ(disconnects, 1);
    }
}

// ---- A server that closes while its client waits for leave to close ----

// A server written on a raw socket for one client: takes its registration,
// reads its CLIENT_IPC_EXIT, then either closes at once or grants the exit and
// waits for the client to close.
class RawServer {
  public:
    explicit RawServer(bool grant) : m_grant(grant) {
        m_listen = vexa_stress::listen_loopback(&m_port);
        m_thread = std::thread([this] { run(); });
    }
    ~RawServer() {
        m_thread.join();
        if (m_listen >= 0)
            close(m_listen);
    }
    std::string address() const { return "tcp://:" + std::to_string(m_port); }

    std::atomic<int32_t> exitEvent{0};
    std::atomic<int32_t> exitLength{-1};
    std::atomic<bool> clientClosed{false};

  private:
    void run() {
        pollfd p{m_listen, POLLIN, 0};
        if (m_listen < 0 || poll(&p, 1, 20000) <= 0)
            return;
        int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        uint8_t hello[vexa_stress::kHeadSize + 4];
        uint8_t head[vexa_stress::kHeadSize];
        if (vexa_stress::read_all(fd, hello, sizeof(hello)) &&
            vexa_stress::read_all(fd, head, sizeof(head))) {
            exitEvent = vexa_stress::get_be32(&head[84]);
            exitLength = vexa_stress::get_be32(&head[96]);
            if (m_grant) {
                const std::vector<uint8_t> ack =
                    vexa_stress::make_head("waiter", 5, CLIENT_IPC_EXIT_ACK, 0);
                vexa_stress::write_all(fd, ack.data(), ack.size());
                clientClosed = vexa_stress::peer_closes(fd, 20000);
            }
        }
        close(fd);
    }

    bool m_grant;
    int m_port = 0;
    int m_listen = -1;
    std::thread m_thread;
};

TEST(CloseWait, ServerClosingInsteadOfGrantingEndsTheWaitWithOneDisconnect) {
    ASSERT_NE(vexa_stress::endpoint_log_dir(), "");
    Recorder seen;
    {
        RawServer server(false);
        void* client = ipc_init_client2(server.address().c_str(), &Recorder::callback, &seen,
                                        "waiter", 5, 5000);
        ASSERT_NE(client, nullptr);
        const long long start = now_ms();
        ipc_uninit_client(client);
        // The broken connection ends the wait: the loop reports it to the
        // callback (during the release) and closes.
        EXPECT_LT(now_ms() - start, kQuickReleaseMs);
        EXPECT_EQ(server.exitEvent.load(), CLIENT_IPC_EXIT);
        EXPECT_EQ(server.exitLength.load(), 0);
    }
    usleep(100 * 1000);
    const std::vector<Event> events = seen.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, CLIENT_IPC_DISCONNECTED);
    EXPECT_EQ(events[0].dev, "waiter");
    EXPECT_EQ(events[0].item, 5);
    ASSERT_EQ(events[0].length, 4);
    int32_t reason = 0;
    std::memcpy(&reason, events[0].data.data(), sizeof(reason));
    EXPECT_EQ(reason, IPC_ERR_SERVER_CLOSED);
}

TEST(CloseWait, GrantedExitEndsTheWaitWithoutCallback) {
    ASSERT_NE(vexa_stress::endpoint_log_dir(), "");
    Recorder seen;
    RawServer server(true);
    void* client =
        ipc_init_client2(server.address().c_str(), &Recorder::callback, &seen, "waiter", 5, 5000);
    ASSERT_NE(client, nullptr);
    const long long start = now_ms();
    ipc_uninit_client(client);
    EXPECT_LT(now_ms() - start, kQuickReleaseMs);
    EXPECT_TRUE(vexa_stress::wait_until([&] { return server.clientClosed.load(); }, 20000));
    EXPECT_EQ(server.exitEvent.load(), CLIENT_IPC_EXIT);
    EXPECT_TRUE(seen.events().empty());
}

}  // namespace
