// The server endpoint against clients written out by hand: listening,
// registration, delivery, exits, broken connections, routing and teardown.
#include "server/ipcserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "server_test_util.h"
#include "support/framed_peer.h"
#include "support/test_support.h"

namespace {

using srvtest::Running;
using vexa_test::CallbackLog;
using vexa_test::Event;
using vexa_test::FramedConn;
using vexa_test::log_has;
using vexa_test::wait_until;
using vexa_test::WireMsg;

long now_sec() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now.tv_sec;
}

// Whether constructing and initialising a server throws comm::MyException.
bool fails(const std::string& address, ServerCallback callback, const std::string& tag) {
    try {
        std::unique_ptr<vexa::IPCServer> server(
            new vexa::IPCServer(address, callback, nullptr, tag));
        server->init();
    } catch (const comm::MyException&) {
        return true;
    }
    return false;
}

TEST(ServerAddress, BadAddressesAndANullCallbackGiveNoServer) {
    Running first;
    ASSERT_NE(first.server, nullptr);
    const std::string localhost = "tcp://localhost:" + std::to_string(first.port + 1);
    const ServerCallback cb = CallbackLog::callback;
    const struct {
        std::string address;
        ServerCallback callback;
        std::string line;
        const char* absent;  // when not null, no line may start with this
    } cases[] = {
        {"tcp://:0", cb, "serv_path invalid tcp://:0", "bind"},
        {"tcp://:abc", cb, "serv_path invalid tcp://:abc", "bind"},
        {"tcp://127.0.0.1", cb, "serv_path invalid tcp://127.0.0.1", "bind"},
        {"tcp://127.0.0.1:", cb, "serv_path invalid tcp://127.0.0.1:", "bind"},
        {"udp://:5000", cb, "serv_path invalid udp://:5000", "bind"},
        // Checked before the address is looked at.
        {"udp://nowhere", nullptr, "callback cannot be null", "serv_path"},
        // Host names are not resolved.
        {localhost, cb, "bind error=" + vexa_test::error_text(EADDRNOTAVAIL), nullptr},
        {first.address(), cb, "bind error=" + vexa_test::error_text(EADDRINUSE), nullptr},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.address);
        const std::string tag = first.tag + std::to_string(n++);
        EXPECT_TRUE(fails(c.address, c.callback, tag));
        const std::string log = srvtest::server_log(tag);
        EXPECT_TRUE(log_has(log, c.line));
        if (c.absent != nullptr) {
            EXPECT_EQ(vexa_test::line_starting(vexa_test::log_texts(log), c.absent), "");
        }
    }
}

TEST(ServerAddress, PortAbove65535BindsItsLow16Bits) {
    Running r("tcp://:70000");
    if (r.server == nullptr && log_has(r.log, "bind error=" + vexa_test::error_text(EADDRINUSE)))
        GTEST_SKIP() << "port 4464 (70000 mod 65536) is in use on this machine";
    ASSERT_NE(r.server, nullptr);
    EXPECT_TRUE(log_has(r.log, "bind 127.0.0.1:70000"));
    FramedConn peer;
    ASSERT_TRUE(peer.connectTo(4464));
    EXPECT_GE(srvtest::accepted_socket(r.log, 0), 0);
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
    const std::vector<Event> seen = r.events.matching(CLIENT_IPC_CONFIG, "phone", 12);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].len, 4);
    EXPECT_EQ(srvtest::native32(seen[0].data), 4242);
    EXPECT_EQ(seen[0].sec, 1000);
    EXPECT_EQ(seen[0].usec, 2000);
    EXPECT_TRUE(vexa_test::wait_log(r.log,
                                    "CLIENT_IPC_CONFIG pid=4242 dev=phone test_item=12 "
                                    "socket=" +
                                        std::to_string(srvtest::accepted_socket(r.log, 0))));
    EXPECT_EQ(r.server->clientCount(), 1u);

    ASSERT_TRUE(peer.sendMsg("phone", 12, 777, "hello", 1234567, 654321));
    ASSERT_TRUE(r.events.waitFor(777, "phone", 12));
    const Event got = r.events.matching(777)[0];
    EXPECT_EQ(got.sec, 1234567);
    EXPECT_EQ(got.usec, 654321);
    EXPECT_EQ(got.data, "hello");
    EXPECT_EQ(got.len, 5);
    EXPECT_FALSE(got.dataNull);

    ASSERT_TRUE(peer.sendMsg("phone", 12, 600, "ping"));
    WireMsg answer;
    ASSERT_TRUE(peer.readMsg(&answer));
    EXPECT_EQ(answer.event, 601);
    EXPECT_EQ(answer.dev, "phone");
    EXPECT_EQ(answer.item, 12);
    EXPECT_EQ(answer.data, "ping");

    // A device string filling all 80 bytes, without a NUL, is bounded.
    FramedConn wide;
    const std::string dev(vexa::IPC_DEV_SIZE, 'd');
    ASSERT_TRUE(r.join(wide, dev, 3, 77));
    EXPECT_TRUE(vexa_test::wait_log(
        r.log, "CLIENT_IPC_CONFIG pid=77 dev=" + dev +
                   " test_item=3 socket=" + std::to_string(srvtest::accepted_socket(r.log, 1))));
}

// "phone" + 12 and "phone1" + 2 make the same key: the later connection
// replaces the first. Registering again on one connection drops it.
TEST(ServerRegistry, ARegistrationReplacesTheSameKeyAndASecondOneDropsTheConnection) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn first;
    FramedConn second;
    ASSERT_TRUE(r.join(first, "phone", 12));
    const int firstFd = srvtest::accepted_socket(r.log, 0);
    ASSERT_TRUE(r.join(second, "phone1", 2));

    EXPECT_TRUE(first.waitEof());
    EXPECT_TRUE(log_has(r.log, "warning! CLIENT_IPC_CONFIG again! test_item=2"));
    EXPECT_TRUE(log_has(r.log, "overwrite. remove socket=" + std::to_string(firstFd)));
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 1; }));
    EXPECT_EQ(r.server->clientCount(), 1u);

    // Both pairs name the one remaining entry; an empty command is one head.
    EXPECT_TRUE(r.server->send_command("phone1", 2, 50, "x", 1));
    EXPECT_TRUE(r.server->send_command("phone", 12, 51, nullptr, 0));
    WireMsg msg;
    ASSERT_TRUE(second.readMsg(&msg));
    EXPECT_EQ(msg.event, 50);
    ASSERT_TRUE(second.readMsg(&msg));
    EXPECT_EQ(msg.event, 51);
    EXPECT_EQ(msg.dev, "phone");
    EXPECT_EQ(msg.item, 12);
    EXPECT_EQ(msg.len, 0);
    EXPECT_NEAR(msg.sec, now_sec(), 60);
    EXPECT_FALSE(second.readable(200));

    ASSERT_TRUE(second.registerAs("phone1", 2));
    EXPECT_TRUE(second.waitEof());
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 2; }));
    EXPECT_EQ(r.server->clientCount(), 0u);
    EXPECT_FALSE(r.server->send_command("phone1", 2, 52, nullptr, 0));
    EXPECT_TRUE(
        log_has(r.log, "error! send_command event=52 dev=phone1 test_item=2 client not exist"));
    EXPECT_TRUE(r.events.matching(CLIENT_IPC_OFFLINE).empty());
}

// Messages of pairs nobody registered are dropped; routing goes by the head,
// not by the connection. A registered client whose connection breaks is
// reported to the host once, one that never registered only to the log.
TEST(ServerRegistry, UnregisteredPairsAreDroppedAndOnlyRegisteredLossesReported) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn stranger;
    ASSERT_TRUE(stranger.connectTo(r.port));
    ASSERT_TRUE(stranger.sendMsg("phone", 9, 300, "s"));
    const int strangerFd = srvtest::accepted_socket(r.log, 0);
    FramedConn peer;
    ASSERT_TRUE(r.join(peer, "phone", 1, 4242));
    const int fd = srvtest::accepted_socket(r.log, 1);

    ASSERT_TRUE(peer.sendMsg("phone", 2, 500, "unknown pair"));
    ASSERT_TRUE(peer.sendMsg("phone", 3, CLIENT_IPC_EXIT, ""));
    ASSERT_TRUE(peer.sendMsg("phone", 1, 501, "known"));
    ASSERT_TRUE(r.events.waitFor(501, "phone", 1));
    EXPECT_FALSE(peer.readable(200));  // no answer to the stray exit
    ASSERT_TRUE(stranger.sendMsg("phone", 1, 502, ""));
    EXPECT_TRUE(r.events.waitFor(502, "phone", 1));
    EXPECT_EQ(r.server->clientCount(), 1u);

    stranger.close();
    EXPECT_TRUE(vexa_test::wait_log(
        r.log, "not found ItemClient of sockfd=" + std::to_string(strangerFd) + "."));
    peer.close();
    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "phone", 1));
    const Event offline = r.events.matching(CLIENT_IPC_OFFLINE)[0];
    EXPECT_TRUE(offline.dataNull);
    EXPECT_EQ(offline.len, 0);
    EXPECT_NEAR(offline.sec, now_sec(), 60);
    EXPECT_TRUE(log_has(r.log, "client offline pid=4242 dev=phone test_item=1 socket=" +
                                   std::to_string(fd) + " result=-1"));
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 2; }));
    EXPECT_EQ(r.server->clientCount(), 0u);
    std::vector<int32_t> seen;
    for (const Event& e : r.events.events())
        seen.push_back(e.event);
    EXPECT_EQ(seen, (std::vector<int32_t>{CLIENT_IPC_CONFIG, 501, 502, CLIENT_IPC_OFFLINE}));
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
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 2; }));
    EXPECT_EQ(r.events.matching(CLIENT_IPC_OFFLINE).size(), 3u);
    EXPECT_EQ(r.server->clientCount(), 0u);
}

// A test that stops reading holds up the sends to it and nothing else: while
// a host thread waits to write to it, others register and talk. The write
// gives up after its budget with part of a message out, so the connection is
// shut down: the reader gets whole messages, one cut short and the end, the
// host a 9006, and later sends to it fail.
TEST(ServerIsolation, AStalledReaderHoldsUpOnlyTheSendsToIt) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    r.server->socketUtil().mysock_set_write_timeout(3000);
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
    EXPECT_TRUE(r.server->send_command("other", 2, 502, nullptr, 0));
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

// A burst of connecting tests is taken in at once: no connect waits for its
// SYN to be sent again (a second), as with a small listen backlog.
TEST(ServerListen, ABurstOfConnectsIsTakenInAtOnce) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    constexpr int kBurst = 200;
    std::vector<pollfd> pending;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(r.port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const long long start = vexa_test::monotonic_ms();
    for (int i = 0; i < kBurst; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd, 0);
        connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        pending.push_back(pollfd{fd, POLLOUT, 0});
    }
    size_t connected = 0;
    while (connected < pending.size() && vexa_test::monotonic_ms() - start < 5000) {
        poll(pending.data(), pending.size(), 100);
        connected = 0;
        for (pollfd& p : pending)
            connected += (p.revents & POLLOUT) != 0 ? 1 : 0;
    }
    const long long took = vexa_test::monotonic_ms() - start;
    for (const pollfd& p : pending)
        close(p.fd);
    EXPECT_EQ(connected, pending.size());
    EXPECT_LT(took, 900);
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
    EXPECT_EQ(ack.event, CLIENT_IPC_EXIT_ACK);
    EXPECT_EQ(ack.dev, "phone");
    EXPECT_EQ(ack.item, 1);
    EXPECT_EQ(ack.len, 0);
    size_t extra = 0;
    EXPECT_TRUE(peer.waitEof(10000, &extra));
    EXPECT_EQ(extra, 0u);

    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CLOSED, "phone", 1));
    const Event closed = r.events.matching(CLIENT_IPC_CLOSED)[0];
    EXPECT_EQ(closed.sec, 111);
    EXPECT_EQ(closed.usec, 222);
    EXPECT_EQ(closed.data, "bye");
    EXPECT_TRUE(wait_until([&] { return r.server->exitedCount() == 1; }));
    EXPECT_EQ(r.server->clientCount(), 1u);
    EXPECT_TRUE(log_has(r.log, "client close dev=phone test_item=1"));

    r.server.reset();
    EXPECT_TRUE(log_has(r.log, "warning!, has 1 clients not exit"));
    EXPECT_TRUE(stays.waitEof());
    EXPECT_EQ(r.events.events().size(), 3u);  // two registrations and one 9005
}

// An old instance of a test dies while a new instance registers the same
// pair, both seen in one pass; meanwhile the socket number of the dead
// connection is reused by a third connection. Only the dead one may be closed.
TEST(ServerExit, ReplacingADeadConnectionLeavesItsReusedNumberAlone) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    FramedConn old;
    FramedConn fresh;
    FramedConn pacer;
    FramedConn later;
    ASSERT_TRUE(r.join(old, "phone", 1));
    const int oldFd = srvtest::accepted_socket(r.log, 0);
    ASSERT_TRUE(fresh.connectTo(r.port));
    ASSERT_TRUE(r.join(pacer, "pacer", 0));
    ASSERT_TRUE(later.open());  // its own number is taken before oldFd is freed

    // Stall the loop so that the loss and the new registration meet in one pass.
    r.events.hold(700);
    r.events.hold(CLIENT_IPC_OFFLINE);
    ASSERT_TRUE(pacer.sendMsg("pacer", 0, 700, ""));
    ASSERT_TRUE(r.events.waitHeld(1));
    old.shutdownWrite();  // keeps this end's number out of the way
    ASSERT_TRUE(fresh.registerAs("phone", 1, 5555));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    r.events.release();

    // The loss is reported while the pass is under way; a new connection
    // arriving now gets the number just closed.
    ASSERT_TRUE(r.events.waitHeld(2));
    ASSERT_TRUE(later.connectTo(r.port));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const int laterFd = srvtest::accepted_socket(r.log, 3);
    r.events.unhold();
    if (laterFd != oldFd)
        GTEST_SKIP() << "socket number " << oldFd << " was not reused (got " << laterFd << ")";

    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CONFIG, "phone", 1, 2));
    EXPECT_TRUE(log_has(r.log, "overwrite. remove socket=" + std::to_string(oldFd)));
    EXPECT_FALSE(later.readable(300)) << "the connection that reused the number was closed";
    ASSERT_TRUE(later.registerAs("later", 5, 6666));
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_CONFIG, "later", 5));
    EXPECT_TRUE(r.server->send_command("phone", 1, 42, "", 0));
    WireMsg msg;
    ASSERT_TRUE(fresh.readMsg(&msg));
    EXPECT_EQ(msg.event, 42);
    EXPECT_EQ(r.server->exitedCount(), 1);
}

// A host thread sends commands all the time while clients come, talk and
// leave. Every message of every client reaches the host in order, and every
// command send_command reported as written reaches its client in order.
TEST(ServerStress, CommandsAndClientsInParallel) {
    constexpr int kClients = 20;
    constexpr int32_t kMessages = 50;
    constexpr int32_t kCommand = 5000;
    constexpr int32_t kTalk = 100;
    Running r;
    ASSERT_NE(r.server, nullptr);
    std::atomic<bool> hostDone{false};
    std::vector<int32_t> written(kClients, 0);  // host thread only until joined
    std::thread host([&] {
        while (!hostDone) {
            for (int i = 0; i < kClients; ++i) {
                const int32_t seq = written[i];
                written[i] += r.server->send_command("stress", i, kCommand, &seq, sizeof(seq));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    // Each client thread writes only its own slot: the commands in order,
    // then the acks; -1 when a command came out of order.
    std::vector<int32_t> received(kClients, 0);
    std::vector<int> acks(kClients, 0);
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&, i] {
            FramedConn peer;
            WireMsg msg;
            // The first command shows that the registration went through.
            bool ok = peer.connectTo(r.port) && peer.registerAs("stress", i, 1000 + i) &&
                      peer.readMsg(&msg, 20000);
            for (int32_t k = 0; ok && k < kMessages; ++k)
                ok = peer.sendMsg("stress", i, kTalk, std::string(reinterpret_cast<char*>(&k), 4));
            ok = ok && peer.sendMsg("stress", i, CLIENT_IPC_EXIT, "");
            EXPECT_TRUE(ok) << "client " << i;
            for (bool more = ok; more; more = peer.readMsg(&msg, 20000)) {
                acks[i] += msg.event == CLIENT_IPC_EXIT_ACK;
                if (msg.event == kCommand && received[i] >= 0)
                    received[i] = srvtest::native32(msg.data) == received[i] ? received[i] + 1 : -1;
            }
        });
    }
    for (std::thread& t : clients)
        t.join();
    hostDone = true;
    host.join();

    for (int i = 0; i < kClients; ++i) {
        SCOPED_TRACE("client " + std::to_string(i));
        EXPECT_EQ(received[i], written[i]);
        EXPECT_EQ(acks[i], 1);
        ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CLOSED, "stress", i));
        const std::vector<Event> talk = r.events.matching(kTalk, "stress", i);
        ASSERT_EQ(talk.size(), static_cast<size_t>(kMessages));
        for (int32_t k = 0; k < kMessages; ++k)
            EXPECT_EQ(srvtest::native32(talk[k].data), k);
        EXPECT_EQ(r.events.matching(CLIENT_IPC_CONFIG, "stress", i).size(), 1u);
        EXPECT_EQ(r.events.matching(CLIENT_IPC_CLOSED, "stress", i).size(), 1u);
    }
    EXPECT_TRUE(r.events.matching(CLIENT_IPC_OFFLINE).empty());
    // The last removal follows the last 9005 call.
    EXPECT_TRUE(wait_until([&] { return r.server->clientCount() == 0; }));
}

}  // namespace
