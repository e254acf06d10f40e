// The server endpoint against clients written out by hand: listening,
// registration, delivery, exits, broken connections and streams, isolation
// and teardown.
#include "server/ipcserver.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "comm/time_util.h"
#include "running_server.h"

namespace {

using srvtest::Running;
using vexa_test::CallbackLog;
using vexa_test::Event;
using vexa_test::FramedConn;
using vexa_test::head_bytes;
using vexa_test::log_has;
using vexa_test::wait_until;
using vexa_test::WireMsg;

TEST(ServerAddress, BadAddressesAndANullCallbackGiveNoServer) {
    Running first;
    ASSERT_NE(first.server, nullptr);
    const std::string localhost = "tcp://localhost:" + std::to_string(first.port + 1);
    const struct {
        std::string address;
        bool callback;
        std::string line;
    } cases[] = {
        {"tcp://:0", true, "serv_path invalid tcp://:0"},
        {"tcp://:abc", true, "serv_path invalid tcp://:abc"},
        {"tcp://127.0.0.1", true, "serv_path invalid tcp://127.0.0.1"},
        {"tcp://127.0.0.1:", true, "serv_path invalid tcp://127.0.0.1:"},
        {"udp://:5000", true, "serv_path invalid udp://:5000"},
        // Checked before the address is looked at.
        {"udp://nowhere", false, "callback cannot be null"},
        // Host names are not resolved.
        {localhost, true, "bind error=" + vexa_test::error_text(EADDRNOTAVAIL)},
        {first.address(), true, "bind error=" + vexa_test::error_text(EADDRINUSE)},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.address);
        const std::string tag = first.tag + "-" + std::to_string(n++);
        EXPECT_THROW(
            {
                vexa::IPCServer server(c.address, c.callback ? &CallbackLog::callback : nullptr,
                                       nullptr, tag);
                server.init();
            },
            comm::MyException);
        const std::string log = srvtest::server_log(tag);
        EXPECT_TRUE(log_has(log, c.line));
        EXPECT_EQ(vexa_test::count_log_prefix(log, "bind ") > 0, c.line.rfind("bind", 0) == 0);
    }
}

TEST(ServerAddress, PortAbove65535BindsItsLow16Bits) {
    const int port = vexa_test::free_loopback_port();
    Running r("tcp://:" + std::to_string(port + 65536));
    ASSERT_NE(r.server, nullptr);
    FramedConn peer;
    EXPECT_TRUE(peer.connectTo(port));
    EXPECT_GE(r.acceptedSocket(0), 0);
}

TEST(ServerLoop, RegistrationAndMessagesReachTheHostWithTheirOwnFields) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    // A callback that sends from inside the call must not block the loop.
    vexa::IPCServer* server = r.server.get();
    r.events.onEvent([server](const Event& e) {
        if (e.event == 600)
            server->send_command(e.dev, e.item, 601, e.data.data(), e.len);
    });
    FramedConn peer;
    ASSERT_TRUE(r.join(peer, "phone", 12, 4242));
    const Event reg = r.events.matching(CLIENT_IPC_CONFIG, "phone", 12)[0];
    EXPECT_TRUE(reg.len == 4 && vexa_test::native32(reg.data) == 4242);
    EXPECT_TRUE(reg.sec == 1000 && reg.usec == 2000);
    EXPECT_EQ(r.server->clientCount(), 1u);

    ASSERT_TRUE(peer.sendMsg("phone", 12, 777, "hello", 1234567, 654321));
    ASSERT_TRUE(r.events.waitFor(777, "phone", 12));
    const Event got = r.events.matching(777)[0];
    EXPECT_TRUE(got.sec == 1234567 && got.usec == 654321);
    EXPECT_TRUE(got.data == "hello" && got.terminated && !got.dataNull);

    ASSERT_TRUE(peer.sendMsg("phone", 12, 600, "ping"));
    WireMsg answer;
    ASSERT_TRUE(peer.readMsg(&answer));
    EXPECT_TRUE(answer.event == 601 && answer.dev == "phone" && answer.item == 12);
    EXPECT_EQ(answer.data, "ping");

    // A device string filling all 80 bytes, without a NUL, is bounded.
    FramedConn wide;
    const std::string dev(vexa::IPC_DEV_SIZE, 'd');
    ASSERT_TRUE(r.join(wide, dev, 3, 77));
    EXPECT_TRUE(vexa_test::wait_log(
        r.log, "CLIENT_IPC_CONFIG pid=77 dev=" + dev +
                   " test_item=3 socket=" + std::to_string(r.acceptedSocket(1))));
}

// "phone" + 12 and "phone1" + 2 make the same key: the later connection
// replaces the first. Registering again on one connection drops it.
TEST(ServerRegistry, ARegistrationReplacesTheSameKeyAndASecondOneDropsTheConnection) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn first;
    FramedConn second;
    ASSERT_TRUE(r.join(first, "phone", 12));
    ASSERT_TRUE(r.join(second, "phone1", 2));
    EXPECT_TRUE(first.waitEof());
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 1; }));
    EXPECT_EQ(r.server->clientCount(), 1u);

    // Both pairs name the one remaining entry; an empty command is one head.
    EXPECT_TRUE(r.server->send_command("phone1", 2, 50, "x", 1));
    EXPECT_TRUE(r.server->send_command("phone", 12, 51, nullptr, 0));
    WireMsg msg;
    ASSERT_TRUE(second.readMsg(&msg));
    EXPECT_EQ(msg.event, 50);
    ASSERT_TRUE(second.readMsg(&msg));
    EXPECT_TRUE(msg.event == 51 && msg.dev == "phone" && msg.item == 12 && msg.len == 0);
    EXPECT_NEAR(msg.sec, comm::now_seconds(), 60);
    EXPECT_FALSE(second.readable(200));

    ASSERT_TRUE(second.registerAs("phone1", 2));
    EXPECT_TRUE(second.waitEof());
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 2; }));
    EXPECT_EQ(r.server->clientCount(), 0u);
    EXPECT_FALSE(r.server->send_command("phone1", 2, 52, nullptr, 0));
    EXPECT_TRUE(r.events.matching(CLIENT_IPC_OFFLINE).empty());
}

// A message acts only on pairs registered on its own connection: one for any
// other pair, a 9002 included, is dropped (logged at most once a second per
// connection), so a stranger can neither speak for a test nor close it. A
// registered client whose connection breaks is reported to the host once, one
// that never registered only to the log.
TEST(ServerRegistry, OnlyPairsOfTheirOwnConnectionAreActedOn) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn stranger;
    ASSERT_TRUE(stranger.connectTo(r.port));
    ASSERT_TRUE(stranger.sendMsg("phone", 9, 300, "s"));
    FramedConn peer;
    ASSERT_TRUE(r.join(peer, "phone", 1, 4242));
    ASSERT_TRUE(peer.sendMsg("phone", 2, 500, "unknown pair"));
    ASSERT_TRUE(peer.sendMsg("phone", 3, CLIENT_IPC_EXIT, ""));
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(stranger.sendMsg("phone", 1, 502, "forged"));
    }
    ASSERT_TRUE(stranger.sendMsg("phone", 1, CLIENT_IPC_EXIT, ""));
    ASSERT_TRUE(peer.sendMsg("phone", 1, 501, "known"));
    ASSERT_TRUE(r.events.waitFor(501, "phone", 1));
    EXPECT_FALSE(peer.readable(200));  // no answer to either stray exit
    EXPECT_TRUE(wait_until([&] { return vexa_test::count_log_prefix(r.log, "dropped: ") >= 2; }));
    EXPECT_LE(vexa_test::count_log_prefix(r.log, "dropped: "), 3);  // one a second, per connection

    stranger.close();
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 1; }));
    peer.close();
    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "phone", 1));
    const Event offline = r.events.matching(CLIENT_IPC_OFFLINE)[0];
    EXPECT_TRUE(offline.dataNull && offline.len == 0);
    EXPECT_NEAR(offline.sec, comm::now_seconds(), 60);
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 2; }));
    EXPECT_EQ(r.server->clientCount(), 0u);
    std::vector<int32_t> seen;
    for (const Event& e : r.events.events())
        seen.push_back(e.event);
    EXPECT_EQ(seen, (std::vector<int32_t>{CLIENT_IPC_CONFIG, 501, CLIENT_IPC_OFFLINE}));
}

// Every pair a connection registered ends with it, reported once; a later
// connection that gets the same number has nothing to do with them.
TEST(ServerRegistry, EveryPairOfAConnectionEndsWithIt) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn both;
    ASSERT_TRUE(r.join(both, "a", 1));
    ASSERT_TRUE(both.registerAs("b", 2));
    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CONFIG, "b", 2));
    both.close();
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "a", 1));
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "b", 2));
    FramedConn next;
    ASSERT_TRUE(r.join(next, "c", 3));
    next.close();
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "c", 3));
    // Registering a pair again drops its connection: the pair goes silently,
    // the connection's other pair with a 9006.
    FramedConn again;
    ASSERT_TRUE(r.join(again, "d", 4));
    ASSERT_TRUE(again.registerAs("e", 5));
    ASSERT_TRUE(again.registerAs("d", 4));
    EXPECT_TRUE(again.waitEof());
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "e", 5));
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 3; }));
    EXPECT_EQ(r.events.matching(CLIENT_IPC_OFFLINE).size(), 4u);
    EXPECT_EQ(r.server->clientCount(), 0u);
}

// Frames from a deterministic generator: heads of random fields with a
// length that fits and a random body, then one wholly random head. None of
// them registers.
std::string random_frames(uint32_t seed) {
    uint32_t x = seed * 2654435761u + 1u;
    const auto next = [&x] {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        return static_cast<int32_t>(x);
    };
    std::string out;
    for (int frame = 0, frames = 1 + seed % 5; frame <= frames; ++frame) {
        std::string dev(80, '\0');
        for (char& c : dev)
            c = static_cast<char>(next());
        const int32_t event = next();
        const int32_t len = frame < frames ? next() & 0xff : next();
        out += head_bytes(dev, next(), event == CLIENT_IPC_CONFIG ? 0 : event, next(), next(), len);
        out += vexa_test::pattern(frame < frames ? static_cast<size_t>(len) : 0, frame);
    }
    return out;
}

// Lengths out of range, a head cut short, a body cut short by a client that
// dies inside it or stops inside it for longer than the read budget, random
// frames: the connection is dropped (nothing resynchronises), a registered
// peer goes offline once, nothing of it reaches the host, and meanwhile a
// bystander's messages still do.
TEST(ServerFaults, BrokenStreamsEndOnlyTheirOwnConnection) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    r.server->socketUtil().mysock_set_read_timeout(1000);
    FramedConn bystander;
    ASSERT_TRUE(r.join(bystander, "stand", 1));
    enum End { kKeepOpen, kShutWrite, kClose };
    const std::string cut = head_bytes("cut", 1, 800, 0, 0, 200000) + vexa_test::pattern(100000);
    struct Case {
        std::string dev;  // registers as dev / 1 first when not empty
        std::string bytes;
        End end;
    };
    std::vector<Case> cases = {
        {"", head_bytes("liar", 1, 800, 0, 0, -1), kKeepOpen},
        {"g-huge", head_bytes("g-huge", 1, 800, 0, 0, IPC_MAX_DATA_LEN), kKeepOpen},
        {"g-max", head_bytes("g-max", 1, 800, 0, 0, INT32_MAX), kKeepOpen},
        {"g-min", head_bytes("g-min", 1, 800, 0, 0, INT32_MIN), kKeepOpen},
        {"", std::string(40, 'Z'), kShutWrite},
        {"cut", cut, kClose},
        {"stall", head_bytes("stall", 1, 800, 0, 0, 1000) + "abc", kKeepOpen},
        {"", cut, kClose},
    };
    for (uint32_t seed = 1; seed <= 4; ++seed)
        cases.push_back({seed % 2 == 0 ? "g-rand" + std::to_string(seed) : "", random_frames(seed),
                         kShutWrite});
    std::set<std::string> registered;
    size_t talk = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE("case " + std::to_string(talk));
        FramedConn peer;
        if (c.dev.empty()) {
            ASSERT_TRUE(peer.connectTo(r.port));
        } else {
            ASSERT_TRUE(r.join(peer, c.dev, 1));
            registered.insert(c.dev);
        }
        ASSERT_TRUE(peer.sendRaw(c.bytes));
        ASSERT_TRUE(bystander.sendMsg("stand", 1, 700, "during"));
        EXPECT_TRUE(r.events.waitFor(700, "stand", 1, ++talk));
        if (c.end == kClose) {
            peer.close();
        } else {
            if (c.end == kShutWrite)
                peer.shutdownWrite();
            EXPECT_TRUE(peer.waitEof());
        }
        if (!c.dev.empty()) {
            EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, c.dev.c_str(), 1));
        }
    }
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == static_cast<int>(talk); }));
    for (const Event& e : r.events.events()) {
        const bool expected =
            e.dev == "stand" || (registered.count(e.dev) == 1 &&
                                 (e.event == CLIENT_IPC_CONFIG || e.event == CLIENT_IPC_OFFLINE));
        EXPECT_TRUE(expected) << "event " << e.event << " dev=" << e.dev;
    }
    EXPECT_EQ(r.events.matching(CLIENT_IPC_OFFLINE).size(), registered.size());
    EXPECT_EQ(vexa_test::count_log_text(r.log, "msg too big, 512000 >= 512000"), 1);
    EXPECT_EQ(vexa_test::count_log_text(r.log, "msg too big, 2147483647 >= 512000"), 1);
}

// A test that stops reading holds up the sends to it and nothing else: while
// a host thread waits to write to it, others register and talk, and a send
// to another test goes out at once. The write gives up after its budget with
// part of a message out, so the connection is shut down: the reader gets
// whole messages, one cut short and the end, the host a 9006, and later
// sends to it fail.
TEST(ServerIsolation, AStalledReaderHoldsUpOnlyTheSendsToIt) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    r.server->socketUtil().mysock_set_write_timeout(5000);
    FramedConn stalled;
    ASSERT_TRUE(r.join(stalled, "stalled", 1));
    const std::string body = vexa_test::pattern(IPC_MAX_DATA_LEN - 1);
    std::atomic<bool> sending{true};
    size_t written = 0;
    std::thread host([&] {
        while (r.server->send_command("stalled", 1, 500, body.data(), IPC_MAX_DATA_LEN - 1))
            ++written;
        sending = false;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the buffers fill up
    FramedConn other;
    ASSERT_TRUE(r.join(other, "other", 2));
    ASSERT_TRUE(other.sendMsg("other", 2, 501, "x"));
    EXPECT_TRUE(r.events.waitFor(501, "other", 2));
    const long long start = vexa_test::monotonic_ms();
    EXPECT_TRUE(r.server->send_command("other", 2, 502, nullptr, 0));
    EXPECT_LT(vexa_test::monotonic_ms() - start, 2000) << "waited for the stalled send";
    WireMsg answer;
    EXPECT_TRUE(other.readMsg(&answer));
    EXPECT_TRUE(sending) << "the host thread was not held up at all";
    host.join();

    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "stalled", 1));
    EXPECT_FALSE(r.server->send_command("stalled", 1, 503, nullptr, 0));
    size_t received = 0;
    EXPECT_TRUE(stalled.waitEof(10000, &received));
    const size_t whole = vexa::IPC_HEAD_SIZE + IPC_MAX_DATA_LEN - 1;
    EXPECT_EQ(received / whole, written);
    EXPECT_NE(received % whole, 0u);
}

// Released while a host thread waits to send to a test that does not read:
// the test's leave, meanwhile, is handled at once (the loop never waits for
// that send), and the release ends the send at once (false) and waits for it
// to return, so the thread never touches the released server.
TEST(ServerIsolation, AReleaseEndsASendUnderWay) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn stalled;
    ASSERT_TRUE(r.join(stalled, "stalled", 1));
    const std::string body = vexa_test::pattern(IPC_MAX_DATA_LEN - 1);
    vexa::IPCServer* server = r.server.get();
    std::thread host([&] {
        while (server->send_command("stalled", 1, 500, body.data(), IPC_MAX_DATA_LEN - 1)) {
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the buffers fill up
    ASSERT_TRUE(stalled.sendMsg("stalled", 1, CLIENT_IPC_EXIT, ""));
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_CLOSED, "stalled", 1, 1, 10000));
    const long long start = vexa_test::monotonic_ms();
    r.server.reset();
    // Within a second a wait's slice would notice the stop; the wake is at once.
    EXPECT_LT(vexa_test::monotonic_ms() - start, 400);
    host.join();
}

// While a callback waits to write to a test that does not read (here behind
// a host thread's send to it), the test's own messages are taken in, so that
// neither waits for the other for ever; but only so many: then the test's
// writes wait too.
TEST(ServerIsolation, ACallbackWaitingToWriteTakesInOnlySoMuch) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    const std::string body = vexa_test::pattern(IPC_MAX_DATA_LEN - 1);
    vexa::IPCServer* server = r.server.get();
    r.events.onEvent([&](const Event& e) {
        while (e.event == 600 &&
               server->send_command("flood", 1, 601, body.data(), IPC_MAX_DATA_LEN - 1)) {
        }
    });
    FramedConn peer;
    ASSERT_TRUE(r.join(peer, "flood", 1));
    std::thread host([&] {
        while (server->send_command("flood", 1, 500, body.data(), IPC_MAX_DATA_LEN - 1)) {
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the buffers fill up
    ASSERT_TRUE(peer.sendMsg("flood", 1, 600, ""));
    const std::string message = head_bytes("flood", 1, 700, 0, 0, 65436) + body.substr(0, 65436);
    size_t pushed = 0;
    for (pollfd room{peer.fd(), POLLOUT, 0}; pushed < (64u << 20) && poll(&room, 1, 2000) == 1;) {
        const size_t at = pushed % message.size();
        const ssize_t n =
            send(peer.fd(), message.data() + at, message.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN)
            break;
        pushed += n > 0 ? static_cast<size_t>(n) : 0;
    }
    EXPECT_GT(pushed, vexa::MessageBuffer::kMaxUnreadBytes) << "nothing taken in meanwhile";
    EXPECT_LT(pushed, 32u << 20) << "taken in without a limit";
    peer.close();
    host.join();
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "flood", 1));
}

// A burst of connecting tests is taken in at once: no connect waits for its
// SYN to be sent again (a second), as with a small listen backlog.
TEST(ServerListen, ABurstOfConnectsIsTakenInAtOnce) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    std::vector<FramedConn> burst(200);
    std::vector<pollfd> pending;
    const long long start = vexa_test::monotonic_ms();
    for (FramedConn& conn : burst) {
        conn.adopt(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        conn.connectTo(r.port);
        pending.push_back(pollfd{conn.fd(), POLLOUT, 0});
    }
    size_t connected = 0;
    while (connected < pending.size() && vexa_test::monotonic_ms() - start < 5000) {
        poll(pending.data(), pending.size(), 100);
        connected = 0;
        for (pollfd& p : pending)
            connected += (p.revents & POLLOUT) != 0 ? 1 : 0;
    }
    EXPECT_EQ(connected, pending.size());
    EXPECT_LT(vexa_test::monotonic_ms() - start, 900);
}

// What one peer can make the server hold is bounded: one pair more than the
// limit ends its connection (9006 for the others), and while incomplete
// messages hold more than their limit, the connection holding the oldest is
// ended; the others go on.
TEST(ServerLimits, PairsAndIncompleteMessagesAreBounded) {
    vexa_test::ScopedEnv pairs("VEXA_MAX_PAIRS_PER_CONNECTION", "3");
    vexa_test::ScopedEnv incomplete("VEXA_MAX_INCOMPLETE_BYTES", "300000");
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn many;
    ASSERT_TRUE(r.join(many, "p", 1));
    ASSERT_TRUE(many.registerAs("p", 2) && many.registerAs("p", 3) && many.registerAs("p", 4));
    EXPECT_TRUE(many.waitEof());
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, nullptr, 0, 3));
    EXPECT_EQ(r.events.matching(CLIENT_IPC_CONFIG).size(), 3u);
    EXPECT_EQ(vexa_test::count_log_prefix(r.log, "registration refused: dev=p test_item=4"), 1);

    FramedConn oldest, younger, whole;
    ASSERT_TRUE(r.join(oldest, "old", 1) && r.join(younger, "young", 1) &&
                r.join(whole, "whole", 1));
    const std::string half = vexa_test::pattern(160000);
    ASSERT_TRUE(oldest.sendRaw(head_bytes("old", 1, 600, 0, 0, 200000) + half));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(younger.sendRaw(head_bytes("young", 1, 600, 0, 0, 200000) + half));
    EXPECT_TRUE(oldest.waitEof());
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "old", 1));
    ASSERT_TRUE(younger.sendRaw(vexa_test::pattern(40000)));
    ASSERT_TRUE(whole.sendMsg("whole", 1, 601, "x"));
    EXPECT_TRUE(r.events.waitFor(600, "young", 1));
    EXPECT_TRUE(r.events.waitFor(601, "whole", 1));
    EXPECT_EQ(vexa_test::count_log_prefix(r.log, "incomplete messages hold "), 1);
}

// Out of descriptors, accept() fails: the accept thread says so once, waits,
// and takes the waiting connection in as soon as descriptors are free again.
// (While they are out, this process cannot open a file either: the log is
// read only afterwards.)
TEST(ServerListen, RunningOutOfDescriptorsOnlyPausesAccepting) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn waiting;
    ASSERT_TRUE(waiting.open());
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = 4096;
    std::vector<int> fillers;
    if (saved.rlim_cur > low.rlim_cur) {
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    }
    for (int fd; (fd = dup(0)) >= 0;)
        fillers.push_back(fd);
    const bool full = errno == EMFILE;
    const bool sent = waiting.connectTo(r.port) && waiting.registerAs("waited", 1);
    const bool early = r.events.waitFor(CLIENT_IPC_CONFIG, "waited", 1, 1, 300);
    for (int i = 0; i < 2; ++i) {
        close(fillers.back());
        fillers.pop_back();
    }
    const bool accepted = r.events.waitFor(CLIENT_IPC_CONFIG, "waited", 1);
    for (int fd : fillers)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &saved);
    ASSERT_TRUE(full && sent);
    EXPECT_FALSE(early) << "accepted while no descriptor was free";
    EXPECT_TRUE(accepted);
    EXPECT_EQ(
        vexa_test::count_log_text(r.log, "accept failed error=" + vexa_test::error_text(EMFILE) +
                                             ", retrying every 50 ms"),
        1);
    EXPECT_EQ(vexa_test::count_log_prefix(r.log, "accept resumed after "), 1);
    FramedConn after;
    EXPECT_TRUE(r.join(after, "after", 1));
}

// CLIENT_IPC_EXIT is answered by one bare head and reported as closed; a
// client still registered at teardown is cut off with a warning.
TEST(ServerExit, ExitIsAnsweredOnceAndTeardownCutsOffTheRest) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn peer;
    FramedConn stays;
    ASSERT_TRUE(r.join(peer, "phone", 1));
    ASSERT_TRUE(r.join(stays, "phone", 2));
    ASSERT_TRUE(peer.sendMsg("phone", 1, CLIENT_IPC_EXIT, "bye", 111, 222));
    WireMsg ack;
    ASSERT_TRUE(peer.readMsg(&ack));
    EXPECT_TRUE(ack.event == CLIENT_IPC_EXIT_ACK && ack.dev == "phone" && ack.item == 1);
    EXPECT_EQ(ack.len, 0);
    size_t extra = 0;
    EXPECT_TRUE(peer.waitEof(10000, &extra));
    EXPECT_EQ(extra, 0u);

    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CLOSED, "phone", 1));
    const Event closed = r.events.matching(CLIENT_IPC_CLOSED)[0];
    EXPECT_TRUE(closed.sec == 111 && closed.usec == 222 && closed.data == "bye");
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 1; }));
    EXPECT_EQ(r.server->clientCount(), 1u);

    r.server.reset();
    EXPECT_TRUE(log_has(r.log, "warning!, has 1 clients not exit"));
    EXPECT_TRUE(stays.waitEof());
    EXPECT_EQ(r.events.events().size(), 3u);  // two registrations and one 9005
}

// An old instance of a test dies while a new instance registers the same
// pair, both seen in one pass; meanwhile the socket number of the dead
// connection is reused by a third connection. Only the dead one may be closed.
TEST(ServerExit, ReplacingADeadConnectionLeavesItsReusedNumberAlone) {
    // The callback of 700, then of 9006, stalls the loop inside its pass until
    // let go. Made before the server, so that they outlive its last callback.
    std::mutex lock;
    std::condition_variable changed;
    int stalls = 0;
    int letGo = 0;
    Running r;
    ASSERT_NE(r.server, nullptr);
    r.events.onEvent([&](const Event& e) {
        if (e.event != 700 && e.event != CLIENT_IPC_OFFLINE)
            return;
        std::unique_lock<std::mutex> guard(lock);
        const int ticket = ++stalls;
        changed.notify_all();
        changed.wait_for(guard, std::chrono::seconds(20), [&] { return letGo >= ticket; });
    });
    const auto stalled = [&](int n) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(10), [&] { return stalls >= n; });
    };
    const auto release = [&](int n) {
        std::lock_guard<std::mutex> guard(lock);
        letGo = n;
        changed.notify_all();
    };
    FramedConn old;
    FramedConn fresh;
    FramedConn pacer;
    FramedConn later;
    ASSERT_TRUE(r.join(old, "phone", 1));
    const int oldFd = r.acceptedSocket(0);
    ASSERT_TRUE(fresh.connectTo(r.port));
    ASSERT_TRUE(r.join(pacer, "pacer", 0));
    ASSERT_TRUE(later.open());  // its own number is taken before oldFd is freed
    ASSERT_TRUE(pacer.sendMsg("pacer", 0, 700, ""));
    ASSERT_TRUE(stalled(1));
    old.shutdownWrite();  // keeps this end's number out of the way
    ASSERT_TRUE(fresh.registerAs("phone", 1, 5555));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    release(1);
    // The loss is reported while the pass is under way; a new connection
    // arriving now gets the number just closed.
    ASSERT_TRUE(stalled(2));
    ASSERT_TRUE(later.connectTo(r.port));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const int laterFd = r.acceptedSocket(3);
    release(1000);
    if (laterFd != oldFd)
        GTEST_SKIP() << "socket number " << oldFd << " was not reused (got " << laterFd << ")";
    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CONFIG, "phone", 1, 2));
    EXPECT_FALSE(later.readable(300)) << "the connection that reused the number was closed";
    ASSERT_TRUE(later.registerAs("later", 5, 6666));
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_CONFIG, "later", 5));
    EXPECT_TRUE(r.server->send_command("phone", 1, 42, "", 0));
    WireMsg msg;
    ASSERT_TRUE(fresh.readMsg(&msg));
    EXPECT_EQ(msg.event, 42);
}

}  // namespace
