// The server endpoint against clients written out by hand: listening,
// registration, delivery, exits, broken connections, routing and teardown.
#include "server/ipcserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/ipc_message.h"
#include "server_test_util.h"
#include "support/test_support.h"

namespace {

using srvtest::Event;
using srvtest::EventLog;
using srvtest::RawPeer;
using srvtest::ServerPtr;
using srvtest::WireMsg;
using vexa_test::log_texts;

std::string tcp(int port) {
    return "tcp://:" + std::to_string(port);
}

// The code of the exception the constructor throws, -1 when it does not throw.
int construction_failure(const std::string& servPath, ServerCallback callback,
                         const std::string& tag) {
    try {
        vexa::IPCServer server(servPath, callback, nullptr, tag);
    } catch (const comm::MyException& e) {
        EXPECT_EQ(e.subCode(), 0);
        EXPECT_STREQ(e.what(), "");
        return e.code();
    }
    return -1;
}

std::string error_text(int err) {
    return std::string(std::strerror(err)) + "(" + std::to_string(err) + ")";
}

int32_t pid_of(const Event& e) {
    int32_t pid = 0;
    if (e.data.size() == sizeof(pid)) {
        std::memcpy(&pid, e.data.data(), sizeof(pid));
    }
    return pid;
}

long now_sec() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now.tv_sec;
}

// A started server on a free port with a recording callback.
struct Running {
    Running() : port(vexa_test::free_loopback_port()), tag(srvtest::test_tag()) {
        server = srvtest::start_server(tcp(port), &events, tag);
        log = srvtest::server_log(tag);
    }
    // Connects `peer` and registers it, then waits until the host saw it.
    bool join(RawPeer& peer, const std::string& dev, int32_t item, int32_t pid = 4242) {
        return peer.connectTo(port) && peer.registerAs(dev, item, pid) &&
               events.waitFor(CLIENT_IPC_CONFIG, dev.c_str(), item);
    }

    EventLog events;
    int port;
    std::string tag;
    std::string log;
    ServerPtr server;
};

TEST(ServerAddress, MalformedAddressesAreRefused) {
    const char* const addresses[] = {"tcp://:0", "tcp://:abc", "tcp://127.0.0.1",
                                     "tcp://127.0.0.1:", "udp://:5000"};
    int n = 0;
    for (const char* address : addresses) {
        SCOPED_TRACE(address);
        const std::string tag = srvtest::test_tag() + std::to_string(n++);
        EXPECT_EQ(construction_failure(address, &EventLog::callback, tag), 10001);
        const std::string log = srvtest::server_log(tag);
        EXPECT_TRUE(srvtest::log_has(log, std::string("serv_path invalid ") + address));
        EXPECT_EQ(srvtest::log_line_starting(log, "bind"), "");
    }
}

TEST(ServerAddress, NullCallbackFailsBeforeTheAddressIsLookedAt) {
    const std::string tag = srvtest::test_tag();
    std::remove(srvtest::server_log(tag).c_str());  // lines are counted below
    EXPECT_EQ(construction_failure("udp://nowhere", nullptr, tag), 10001);
    EXPECT_EQ(construction_failure(tcp(vexa_test::free_loopback_port()), nullptr, tag), 10001);
    const std::string log = srvtest::server_log(tag);
    EXPECT_EQ(vexa_test::count_log_text(log, "callback cannot be null"), 2);
    EXPECT_EQ(srvtest::log_line_starting(log, "serv_path"), "");
    EXPECT_EQ(srvtest::log_line_starting(log, "bind"), "");
}

TEST(ServerAddress, PortAbove65535BindsItsLow16Bits) {
    {
        int probe = socket(AF_INET, SOCK_STREAM, 0);
        int on = 1;
        setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(4464);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool available = bind(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
        close(probe);
        if (!available) {
            GTEST_SKIP() << "port 4464 (70000 mod 65536) is in use on this machine";
        }
    }
    EventLog events;
    const std::string tag = srvtest::test_tag();
    ServerPtr server = srvtest::start_server("tcp://:70000", &events, tag);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->port(), 70000);
    EXPECT_TRUE(srvtest::log_has(srvtest::server_log(tag), "bind 127.0.0.1:70000"));
    RawPeer peer;
    ASSERT_TRUE(peer.connectTo(4464));
    EXPECT_GE(srvtest::accepted_socket(srvtest::server_log(tag), 0), 0);
}

TEST(ServerAddress, HostNamesAreNotResolved) {
    EventLog events;
    const std::string tag = srvtest::test_tag();
    const int port = vexa_test::free_loopback_port();
    EXPECT_EQ(srvtest::start_server("tcp://localhost:" + std::to_string(port), &events, tag),
              nullptr);
    const std::string log = srvtest::server_log(tag);
    EXPECT_TRUE(srvtest::log_has(log, "bind localhost:" + std::to_string(port)));
    EXPECT_TRUE(srvtest::log_has(log, "bind error=" + error_text(EADDRNOTAVAIL)));
}

TEST(ServerAddress, SecondServerOnTheSamePortFailsToBind) {
    Running first;
    ASSERT_NE(first.server, nullptr);
    EventLog events;
    const std::string tag = srvtest::test_tag() + ".second";
    EXPECT_EQ(srvtest::start_server(tcp(first.port), &events, tag), nullptr);
    const std::string log = srvtest::server_log(tag);
    EXPECT_TRUE(srvtest::log_has(log, "bind error=" + error_text(EADDRINUSE)));
    // The half-made server was destroyed without its threads ever running.
    EXPECT_TRUE(srvtest::log_has(log, "ipcserver free end"));
}

TEST(ServerLoop, RegistrationReachesTheHostWithThePid) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer peer;
    ASSERT_TRUE(r.join(peer, "phone", 12, 4242));
    const int fd = srvtest::accepted_socket(r.log, 0);

    std::vector<Event> seen = r.events.matching(CLIENT_IPC_CONFIG, "phone", 12);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].len, 4);
    EXPECT_EQ(pid_of(seen[0]), 4242);
    EXPECT_EQ(seen[0].sec, 1000);
    EXPECT_EQ(seen[0].usec, 2000);
    EXPECT_TRUE(srvtest::wait_log(
        r.log, "CLIENT_IPC_CONFIG pid=4242 dev=phone test_item=12 socket=" + std::to_string(fd)));
    EXPECT_EQ(r.server->clientCount(), 1u);
}

TEST(ServerLoop, DeliversMessagesWithTheirOwnFieldsAndLetsTheCallbackAnswer) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    r.events.echo(r.server.get(), 600, 601);
    RawPeer peer;
    ASSERT_TRUE(r.join(peer, "phone", 1));

    ASSERT_TRUE(peer.sendMsg("phone", 1, 777, "hello", 1234567, 654321));
    ASSERT_TRUE(r.events.waitFor(777, "phone", 1));
    Event got = r.events.matching(777)[0];
    EXPECT_EQ(got.sec, 1234567);
    EXPECT_EQ(got.usec, 654321);
    EXPECT_EQ(got.data, "hello");
    EXPECT_EQ(got.len, 5);
    EXPECT_FALSE(got.dataNull);

    // A callback that sends from inside the call must not block the loop.
    ASSERT_TRUE(peer.sendMsg("phone", 1, 600, "ping"));
    WireMsg answer;
    ASSERT_TRUE(peer.readMsg(&answer));
    EXPECT_EQ(answer.event, 601);
    EXPECT_EQ(answer.dev, "phone");
    EXPECT_EQ(answer.item, 1);
    EXPECT_EQ(answer.data, "ping");
    ASSERT_TRUE(peer.sendMsg("phone", 1, 778, ""));
    EXPECT_TRUE(r.events.waitFor(778, "phone", 1));
}

TEST(ServerLoop, DeviceStringFillingAllEightyBytesIsBounded) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer peer;
    ASSERT_TRUE(peer.connectTo(r.port));
    uint8_t head[vexa::IPC_HEAD_SIZE + 4];
    vexa::encodeHead(head, "", 3, CLIENT_IPC_CONFIG, 1, 2, 4);
    std::memset(head, 'd', vexa::IPC_DEV_SIZE);  // no NUL before test_item
    const int32_t pid = 77;
    std::memcpy(head + vexa::IPC_HEAD_SIZE, &pid, sizeof(pid));
    ASSERT_TRUE(peer.sendRaw(head, sizeof(head)));

    const std::string dev(vexa::IPC_DEV_SIZE, 'd');
    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CONFIG, dev.c_str(), 3));
    EXPECT_TRUE(srvtest::wait_log(
        r.log, "CLIENT_IPC_CONFIG pid=77 dev=" + dev +
                   " test_item=3 socket=" + std::to_string(srvtest::accepted_socket(r.log, 0))));
}

TEST(ServerRegistry, PairsSharingAKeyKeepOnlyTheLaterConnection) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer first;
    RawPeer second;
    ASSERT_TRUE(r.join(first, "phone", 12));
    const int firstFd = srvtest::accepted_socket(r.log, 0);
    ASSERT_TRUE(r.join(second, "phone1", 2));

    EXPECT_TRUE(first.waitEof());
    EXPECT_TRUE(srvtest::log_has(r.log, "warning! CLIENT_IPC_CONFIG again! test_item=2"));
    EXPECT_TRUE(srvtest::log_has(r.log, "overwrite. remove socket=" + std::to_string(firstFd)));
    EXPECT_TRUE(vexa_test::wait_until([&] { return r.server->exitedCount() == 1; }));
    EXPECT_EQ(r.server->clientCount(), 1u);

    // Both pairs name the one remaining entry.
    EXPECT_TRUE(r.server->send_command("phone1", 2, 50, "x", 1));
    EXPECT_TRUE(r.server->send_command("phone", 12, 51, "y", 1));
    WireMsg msg;
    ASSERT_TRUE(second.readMsg(&msg));
    EXPECT_EQ(msg.event, 50);
    ASSERT_TRUE(second.readMsg(&msg));
    EXPECT_EQ(msg.event, 51);
    EXPECT_EQ(msg.dev, "phone");
    EXPECT_EQ(msg.item, 12);
    EXPECT_TRUE(r.events.matching(CLIENT_IPC_OFFLINE).empty());
}

TEST(ServerRegistry, RegisteringTwiceOnOneConnectionDropsIt) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer peer;
    ASSERT_TRUE(r.join(peer, "phone", 3));
    ASSERT_TRUE(peer.registerAs("phone", 3, 4242));

    EXPECT_TRUE(peer.waitEof());
    EXPECT_TRUE(vexa_test::wait_until([&] { return r.server->exitedCount() == 1; }));
    EXPECT_EQ(r.server->clientCount(), 0u);
    EXPECT_FALSE(r.server->send_command("phone", 3, 50, nullptr, 0));
    EXPECT_TRUE(srvtest::log_has(
        r.log, "error! send_command event=50 dev=phone test_item=3 client not exist"));
    EXPECT_TRUE(r.events.matching(CLIENT_IPC_OFFLINE).empty());
}

TEST(ServerRegistry, MessagesOfUnregisteredPairsAreDropped) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer stranger;
    ASSERT_TRUE(stranger.connectTo(r.port));
    ASSERT_TRUE(stranger.sendMsg("phone", 9, 300, "s"));
    RawPeer peer;
    ASSERT_TRUE(r.join(peer, "phone", 1));

    ASSERT_TRUE(peer.sendMsg("phone", 2, 500, "unknown pair"));
    ASSERT_TRUE(peer.sendMsg("phone", 3, CLIENT_IPC_EXIT, ""));
    ASSERT_TRUE(peer.sendMsg("phone", 1, 501, "known"));
    ASSERT_TRUE(r.events.waitFor(501, "phone", 1));
    // No answer to the stray exit, and the connection is still served.
    EXPECT_FALSE(peer.readable(200));
    ASSERT_TRUE(peer.sendMsg("phone", 1, 502, ""));
    EXPECT_TRUE(r.events.waitFor(502, "phone", 1));

    // Routing goes by the head, not by the connection it came on.
    ASSERT_TRUE(stranger.sendMsg("phone", 1, 503, ""));
    EXPECT_TRUE(r.events.waitFor(503, "phone", 1));

    for (const Event& e : r.events.events()) {
        EXPECT_TRUE(e.event == CLIENT_IPC_CONFIG || e.event == 501 || e.event == 502 ||
                    e.event == 503)
            << "unexpected event " << e.event;
    }
    EXPECT_EQ(r.server->clientCount(), 1u);
    EXPECT_EQ(r.server->exitedCount(), 0);
}

TEST(ServerExit, ExitIsAnsweredOnceAndReportedAsClosed) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer peer;
    ASSERT_TRUE(r.join(peer, "phone", 1));
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
    Event closed = r.events.matching(CLIENT_IPC_CLOSED)[0];
    EXPECT_EQ(closed.sec, 111);
    EXPECT_EQ(closed.usec, 222);
    EXPECT_EQ(closed.data, "bye");
    EXPECT_EQ(closed.len, 3);
    EXPECT_TRUE(vexa_test::wait_until([&] { return r.server->exitedCount() == 1; }));
    EXPECT_EQ(r.server->clientCount(), 0u);
    EXPECT_TRUE(srvtest::log_has(r.log, "client close dev=phone test_item=1"));
    EXPECT_TRUE(r.events.matching(CLIENT_IPC_EXIT).empty());
    EXPECT_TRUE(r.events.matching(CLIENT_IPC_OFFLINE).empty());
}

TEST(ServerExit, LostRegisteredClientIsReportedOffline) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer peer;
    ASSERT_TRUE(r.join(peer, "phone", 1, 4242));
    const int fd = srvtest::accepted_socket(r.log, 0);
    peer.close();

    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "phone", 1));
    Event offline = r.events.matching(CLIENT_IPC_OFFLINE)[0];
    EXPECT_TRUE(offline.dataNull);
    EXPECT_EQ(offline.len, 0);
    EXPECT_NEAR(offline.sec, now_sec(), 60);
    EXPECT_TRUE(srvtest::log_has(r.log, "client offline pid=4242 dev=phone test_item=1 socket=" +
                                            std::to_string(fd) + " result=-1"));
    EXPECT_TRUE(vexa_test::wait_until([&] { return r.server->exitedCount() == 1; }));
    EXPECT_EQ(r.server->clientCount(), 0u);
    EXPECT_EQ(r.events.matching(CLIENT_IPC_OFFLINE).size(), 1u);
}

TEST(ServerExit, LostUnregisteredClientIsReportedToNobody) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer peer;
    ASSERT_TRUE(peer.connectTo(r.port));
    const int fd = srvtest::accepted_socket(r.log, 0);
    ASSERT_TRUE(peer.sendMsg("phone", 1, 5, "x"));
    peer.close();
    EXPECT_TRUE(
        srvtest::wait_log(r.log, "not found ItemClient of sockfd=" + std::to_string(fd) + "."));
    EXPECT_TRUE(r.events.events().empty());
}

// An old instance of a test dies while a new instance registers the same
// pair, both seen in one pass; meanwhile the socket number of the dead
// connection is reused by a third connection. Only the dead one may be closed.
TEST(ServerExit, ReplacingADeadConnectionLeavesItsReusedNumberAlone) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer old;
    RawPeer fresh;
    RawPeer pacer;
    RawPeer later;
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
    if (laterFd != oldFd) {
        GTEST_SKIP() << "socket number " << oldFd << " was not reused (got " << laterFd << ")";
    }

    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CONFIG, "phone", 1, 2));
    EXPECT_TRUE(srvtest::log_has(r.log, "overwrite. remove socket=" + std::to_string(oldFd)));
    EXPECT_FALSE(later.readable(300)) << "the connection that reused the number was closed";
    ASSERT_TRUE(later.registerAs("later", 5, 6666));
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_CONFIG, "later", 5));
    EXPECT_TRUE(r.server->send_command("phone", 1, 42, "", 0));
    WireMsg msg;
    ASSERT_TRUE(fresh.readMsg(&msg));
    EXPECT_EQ(msg.event, 42);
    EXPECT_EQ(r.server->exitedCount(), 1);
}

TEST(ServerCommand, UnknownPairIsRefused) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    EXPECT_FALSE(r.server->send_command("nobody", 5, 77, "x", 1));
    EXPECT_TRUE(srvtest::log_has(
        r.log, "error! send_command event=77 dev=nobody test_item=5 client not exist"));
}

TEST(ServerCommand, EmptyCommandIsExactlyOneHead) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer peer;
    ASSERT_TRUE(r.join(peer, "phone", 1));
    EXPECT_TRUE(r.server->send_command("phone", 1, 88, nullptr, 0));
    WireMsg msg;
    ASSERT_TRUE(peer.readMsg(&msg));
    EXPECT_EQ(msg.event, 88);
    EXPECT_EQ(msg.dev, "phone");
    EXPECT_EQ(msg.item, 1);
    EXPECT_EQ(msg.len, 0);
    EXPECT_NEAR(msg.sec, now_sec(), 60);
    EXPECT_FALSE(peer.readable(200));
}

TEST(ServerTeardown, WithoutALibraryTheFreeLinesFollowEachOther) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    r.server.reset();
    const std::vector<std::string> texts = log_texts(r.log);
    auto start = std::find(texts.begin(), texts.end(), "ipcserver free start");
    ASSERT_NE(start, texts.end());
    ASSERT_NE(start + 1, texts.end());
    EXPECT_EQ(*(start + 1), "ipcserver free end");
}

TEST(ServerTeardown, RegisteredClientsAreCutOffWithAWarning) {
    Running r;
    ASSERT_NE(r.server, nullptr);
    RawPeer a;
    RawPeer b;
    ASSERT_TRUE(r.join(a, "phone", 1));
    ASSERT_TRUE(r.join(b, "phone", 2));
    r.server.reset();
    EXPECT_TRUE(srvtest::log_has(r.log, "warning!, has 2 clients not exit"));
    EXPECT_TRUE(a.waitEof());
    EXPECT_TRUE(b.waitEof());
    EXPECT_TRUE(r.events.matching(CLIENT_IPC_OFFLINE).empty());
}

// A host thread sends commands all the time while clients come, talk and
// leave. Every message of every client reaches the host in order, and every
// command send_command reported as written reaches its client in order.
TEST(ServerStress, CommandsAndClientsInParallel) {
    constexpr int kClients = 20;
    constexpr int kMessages = 50;
    constexpr int32_t kCommand = 5000;
    constexpr int32_t kTalk = 100;
    Running r;
    ASSERT_NE(r.server, nullptr);

    std::atomic<bool> hostDone{false};
    std::vector<int> written(kClients, 0);  // host thread only until joined
    std::thread host([&] {
        while (!hostDone) {
            for (int i = 0; i < kClients; ++i) {
                const int32_t seq = written[i];
                if (r.server->send_command("stress", i, kCommand, &seq, sizeof(seq))) {
                    ++written[i];
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });

    std::vector<int> received(kClients, -1);  // each slot written by one client thread
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&, i] {
            RawPeer peer;
            if (!peer.connectTo(r.port) || !peer.registerAs("stress", i, 1000 + i)) {
                ADD_FAILURE() << "client " << i << " could not register";
                return;
            }
            int commands = 0;
            bool ordered = true;
            auto take = [&](const WireMsg& msg) {
                if (msg.event != kCommand)
                    return;
                int32_t seq = -1;
                std::memcpy(&seq, msg.data.data(), sizeof(seq));
                ordered = ordered && seq == commands;
                ++commands;
            };
            WireMsg msg;
            // The first command shows that the registration went through.
            if (!peer.readMsg(&msg, 20000)) {
                ADD_FAILURE() << "client " << i << " got no command";
                return;
            }
            take(msg);
            for (int32_t k = 0; k < kMessages; ++k) {
                std::string body(reinterpret_cast<const char*>(&k), sizeof(k));
                body += "payload";
                if (!peer.sendMsg("stress", i, kTalk, body)) {
                    ADD_FAILURE() << "client " << i << " could not send";
                    return;
                }
            }
            peer.sendMsg("stress", i, CLIENT_IPC_EXIT, "");
            int acks = 0;
            while (peer.readMsg(&msg, 20000)) {
                if (msg.event == CLIENT_IPC_EXIT_ACK) {
                    ++acks;
                }
                take(msg);
            }
            EXPECT_EQ(acks, 1) << "client " << i;
            EXPECT_TRUE(ordered) << "client " << i;
            received[i] = commands;
        });
    }
    for (std::thread& t : clients) {
        t.join();
    }
    hostDone = true;
    host.join();

    for (int i = 0; i < kClients; ++i) {
        SCOPED_TRACE("client " + std::to_string(i));
        EXPECT_EQ(received[i], written[i]);
        ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CLOSED, "stress", i));
        std::vector<Event> talk = r.events.matching(kTalk, "stress", i);
        ASSERT_EQ(talk.size(), static_cast<size_t>(kMessages));
        for (int32_t k = 0; k < kMessages; ++k) {
            int32_t seq = -1;
            std::memcpy(&seq, talk[k].data.data(), sizeof(seq));
            EXPECT_EQ(seq, k);
        }
        EXPECT_EQ(r.events.matching(CLIENT_IPC_CONFIG, "stress", i).size(), 1u);
        EXPECT_EQ(r.events.matching(CLIENT_IPC_CLOSED, "stress", i).size(), 1u);
    }
    EXPECT_TRUE(r.events.matching(CLIENT_IPC_OFFLINE).empty());
    // The last removal follows the last 9005 call.
    EXPECT_TRUE(vexa_test::wait_until([&] { return r.server->clientCount() == 0; }));
}

}  // namespace
