#include "client/ipcclient.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/callback_log.h"
#include "support/framed_peer.h"
#include "support/test_support.h"

namespace {

using vexa::IPCClient;
using vexa_test::Event;
using vexa_test::in_order;
using vexa_test::log_has;
using vexa_test::log_texts;
using vexa_test::monotonic_ms;
using vexa_test::WireMsg;

std::string client_log(const std::string& dev) {
    return vexa_test::endpoint_dir() + "ipc_client_" + dev + ".log";
}

// A loopback listener standing in for the host's server, which speaks the
// framing by hand, and a client made, connected and started as
// ipc_init_client2 does.
class ClientTest : public testing::Test {
  protected:
    void TearDown() override {
        if (client && peer.fd() >= 0)
            grantExit();
        if (client)
            release();
    }
    // Starts the client of `dev` and accepts its connection; its registration is in `reg`.
    void start(const char* dev, int32_t item, int32_t timeoutMs = 0) {
        log = client_log(dev != nullptr ? dev : "");
        std::remove(log.c_str());  // a repeated run reads only its own lines
        client.reset(new IPCClient(address().c_str(), &vexa_test::CallbackLog::callback, &events,
                                   dev, item, timeoutMs));
        client->init();
        client->start();
        peer.adopt(listener.accept());
        ASSERT_TRUE(peer.readRaw(&reg, 104));
    }
    std::string address() const { return "tcp://:" + std::to_string(listener.port()); }
    // Answers the client's CLIENT_IPC_EXIT with CLIENT_IPC_EXIT_ACK from a
    // thread of its own, so that a release does not wait 2000 ms.
    void grantExit() {
        granter = std::thread([this] {
            WireMsg m;
            while (peer.readMsg(&m)) {
                if (m.event == CLIENT_IPC_EXIT) {
                    peer.sendMsg(m.dev, m.item, CLIENT_IPC_EXIT_ACK, "");
                    return;
                }
            }
        });
    }
    // Stops and deletes the client as ipc_uninit_client does; the time it took.
    long long release() {
        const long long start = monotonic_ms();
        client->stop();
        client.reset();
        const long long took = monotonic_ms() - start;
        if (granter.joinable())
            granter.join();
        return took;
    }

    vexa_test::Listener listener;
    vexa_test::FramedConn peer;
    vexa_test::CallbackLog events;
    std::unique_ptr<IPCClient> client;
    std::thread granter;
    std::string log;
    std::string reg;
};

int32_t now_sec() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<int32_t>(now.tv_sec);
}

// The descriptor of this process at the other end of `peer`'s connection (the
// client's), or -1.
int client_socket(const vexa_test::FramedConn& peer) {
    sockaddr_in local{};
    socklen_t length = sizeof(local);
    if (getpeername(peer.fd(), reinterpret_cast<sockaddr*>(&local), &length) != 0)
        return -1;
    for (int fd = 0; fd < 4096; ++fd) {
        sockaddr_in addr{};
        socklen_t len = sizeof(addr);
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 &&
            addr.sin_family == AF_INET && addr.sin_port == local.sin_port &&
            addr.sin_addr.s_addr == local.sin_addr.s_addr) {
            return fd;
        }
    }
    return -1;
}

TEST_F(ClientTest, RegistersWithItsIdentityAndPid) {
    const int32_t before = now_sec();
    start("reg_dev", 7);
    // dev NUL-padded, item 7, event 9001 big-endian, then the length 4.
    EXPECT_EQ(reg.substr(0, 88),
              "reg_dev" + std::string(73, '\0') + std::string("\0\0\0\x07\0\0\x23\x29", 8));
    EXPECT_EQ(reg.substr(96, 4), std::string("\0\0\0\x04", 4));
    EXPECT_GE(vexa_test::get_be32(reg, 88), before);
    EXPECT_LE(vexa_test::get_be32(reg, 88), now_sec());
    EXPECT_EQ(vexa_test::native32(reg.substr(100)), static_cast<int32_t>(getpid()));

    // The client's socket is not inherited by programs the test launches.
    const int fd = client_socket(peer);
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
}

// Pieces after the port are ignored; the port keeps only its low 16 bits; a
// null device string registers as "". Invalid forms fail at construction,
// before anything connects anywhere.
TEST(IPCClientAddress, AcceptedAndInvalidForms) {
    vexa_test::Listener listener;
    for (const std::string& port :
         {std::to_string(listener.port()) + ":x", std::to_string(listener.port() + 65536)}) {
        IPCClient client(("tcp://127.0.0.1:" + port).c_str(), nullptr, nullptr, nullptr, 3, 0);
        client.init();
        vexa_test::FramedConn peer(listener.accept());
        WireMsg reg;
        ASSERT_TRUE(peer.readMsg(&reg));
        EXPECT_TRUE(reg.dev.empty() && reg.item == 3 && reg.event == CLIENT_IPC_CONFIG) << port;
    }
    for (const char* address : {"tcp://:abc", "tcp://:0", "tcp://10.0.0.2", "udp://:5000",
                                "tcp://10.0.0.2:", "tcp://:"}) {
        EXPECT_THROW(IPCClient(address, nullptr, nullptr, "addr_dev", 1, 0), comm::MyException)
            << address;
        EXPECT_TRUE(log_has(client_log("addr_dev"), std::string("serv_path invalid ") + address));
    }
}

TEST(IPCClientConnect, RefusedConnectFailsAtOnce) {
    const std::string log = client_log("refused_dev");
    const std::string address = "tcp://:" + std::to_string(vexa_test::free_loopback_port());
    for (int timeoutMs : {1500, 0}) {
        IPCClient client(address.c_str(), nullptr, nullptr, "refused_dev", 1, timeoutMs);
        const long long start = monotonic_ms();
        EXPECT_THROW(client.init(), comm::MyException);
        EXPECT_LT(monotonic_ms() - start, 900) << "time limit " << timeoutMs;
    }
    EXPECT_EQ(vexa_test::count_log_prefix(log, "wait_on_connect failed rc=-1 take="), 2);
}

TEST(IPCClientConnect, TimeLimitEndsAConnectThatHangs) {
    vexa_test::Listener listener(0);
    // Fill the listener's queue without accepting: the next SYN is dropped,
    // so a connect stays pending.
    std::vector<std::unique_ptr<vexa_test::FramedConn>> fillers;
    bool full = false;
    for (int i = 0; i < 32 && !full; ++i) {
        fillers.emplace_back(new vexa_test::FramedConn(
            socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)));
        fillers.back()->connectTo(listener.port());
        pollfd p{fillers.back()->fd(), POLLOUT, 0};
        full = poll(&p, 1, 300) == 0;
    }
    if (!full)
        GTEST_SKIP() << "the listen queue never filled up";
    const std::string address = "tcp://:" + std::to_string(listener.port());
    IPCClient client(address.c_str(), nullptr, nullptr, "hang_dev", 1, 1500);
    const long long start = monotonic_ms();
    EXPECT_THROW(client.init(), comm::MyException);
    const long long took = monotonic_ms() - start;
    EXPECT_GE(took, 900);
    EXPECT_LT(took, 8000);
    EXPECT_EQ(vexa_test::count_log_prefix(client_log("hang_dev"), "wait_on_connect failed rc=-4"),
              1);
}

// With a time limit the socket stays non-blocking; whole messages still
// travel both ways, also from inside the callback, and refused lengths put
// nothing on the wire. The marker file, read at construction, traces them.
TEST_F(ClientTest, MessagesReachTheCallbackAndThePeer) {
    const std::string marker = vexa_test::endpoint_dir() + "ipc_sendrecv.txt";
    vexa_test::write_file(marker, "");
    events.onEvent([this](const Event& e) {
        if (e.event == 500)
            client->send(501, e.data.data(), e.len);
    });
    start("traffic_dev", 11, 1500);
    std::remove(marker.c_str());
    ASSERT_TRUE(peer.sendMsg("server_side", 12, 4242, "hello", 1234, 5678));
    ASSERT_TRUE(peer.sendMsg("server_side", 13, 4243, ""));
    ASSERT_TRUE(events.waitFor(4243));
    const std::vector<Event> got = events.events();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_TRUE(got[0].item == 12 && got[0].event == 4242 && got[0].dev == "server_side");
    EXPECT_TRUE(got[0].sec == 1234 && got[0].usec == 5678);
    EXPECT_TRUE(got[0].data == "hello" && got[0].terminated);
    EXPECT_TRUE(got[1].data.empty() && got[1].terminated);

    EXPECT_TRUE(client->send(77, "abc", 3));
    EXPECT_FALSE(client->send(79, "x", -1));
    const std::string tooBig(IPC_MAX_DATA_LEN, 'b');
    EXPECT_FALSE(client->send(79, tooBig.data(), IPC_MAX_DATA_LEN));
    ASSERT_TRUE(peer.sendMsg("traffic_dev", 11, 500, "round"));
    WireMsg m;
    ASSERT_TRUE(peer.readMsg(&m));
    EXPECT_TRUE(m.dev == "traffic_dev" && m.item == 11 && m.event == 77 && m.data == "abc");
    ASSERT_TRUE(peer.readMsg(&m));
    EXPECT_TRUE(m.event == 501 && m.data == "round");
    grantExit();
    release();
    EXPECT_TRUE(in_order(log_texts(log), {"recv test_item=11 test_id=500 data_len=5",
                                          "send dev=traffic_dev test_item=11 event_id=501 "
                                          "data_len=5",
                                          "call finish"}));
}

// A server that goes away is told to the callback with 1006 and -900; an
// unasked 9003 closes silently. Either way the loop ends, sends fail, and
// with nothing left to ask leave of the release does not wait.
TEST_F(ClientTest, ServerGoneOrAnUnaskedExitAckEndsTheLoop) {
    for (const bool gone : {true, false}) {
        SCOPED_TRACE(gone ? "server gone" : "unasked 9003");
        start("end_dev", 21);
        const size_t eventsBefore = events.events().size();
        const int32_t before = now_sec();
        if (gone) {
            peer.close();
            ASSERT_TRUE(events.waitFor(CLIENT_IPC_DISCONNECTED));
            const Event notice = events.events().back();
            EXPECT_TRUE(notice.item == 21 && notice.dev == "end_dev" && notice.sec >= before);
            EXPECT_EQ(vexa_test::native32(notice.data), IPC_ERR_SERVER_CLOSED);
        } else {
            ASSERT_TRUE(peer.sendMsg("end_dev", 21, CLIENT_IPC_EXIT_ACK, ""));
            ASSERT_TRUE(peer.waitEof());
        }
        ASSERT_TRUE(vexa_test::wait_until([&] { return !client->isRunning(); }));
        EXPECT_FALSE(client->send(1, "x", 1));
        EXPECT_LT(release(), 1500);
        EXPECT_EQ(events.events().size() - eventsBefore, gone ? 1u : 0u);
        EXPECT_EQ(vexa_test::count_log_text(log, "socket close"), 1);
    }
}

// The release asks leave with CLIENT_IPC_EXIT and waits for the answer, but
// for 2000 ms at most, whatever the server does: also when it stops in the
// middle of a message, trickles one in a byte at a time, or reads nothing
// and the request finds no room. A server that closes instead of answering
// ends the wait at once, with one 1006.
TEST_F(ClientTest, ReleaseWaitsForTheExitAckUpTo2000ms) {
    enum Server { kAnswers, kCloses, kReadsNothing, kStallsMidMessage, kTrickles };
    for (Server mode : {kAnswers, kCloses, kReadsNothing, kStallsMidMessage, kTrickles}) {
        SCOPED_TRACE(mode);
        start("polite_dev", 61);
        const size_t eventsBefore = events.events().size();
        const std::string head = vexa_test::head_bytes("polite_dev", 61, 700, 0, 0, 1000);
        if (mode == kStallsMidMessage) {
            ASSERT_TRUE(peer.sendRaw(head.substr(0, 60)));
        }
        if (mode == kReadsNothing) {
            // Fills the client's socket behind its back.
            const int fd = client_socket(peer);
            const std::string filler(65536, 'f');
            while (send(fd, filler.data(), filler.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
            }
        }
        std::atomic<bool> released{false};
        WireMsg request;
        std::thread server([&] {
            if (mode == kTrickles) {
                for (size_t i = 0; !released && i < head.size(); ++i) {
                    peer.sendRaw(head.substr(i, 1));
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                }
            } else if (mode != kReadsNothing && peer.readMsg(&request) && mode == kAnswers) {
                peer.sendMsg("polite_dev", 61, CLIENT_IPC_EXIT_ACK, "");
            } else if (mode == kCloses) {
                peer.close();
            }
        });
        if (mode == kTrickles)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const long long took = release();
        released = true;
        server.join();
        if (mode != kTrickles && mode != kReadsNothing) {
            EXPECT_TRUE(request.event == CLIENT_IPC_EXIT && request.len == 0 && request.item == 61);
        }
        const bool quick = mode == kAnswers || mode == kCloses;
        EXPECT_GE(took, quick ? 0 : 1990);
        EXPECT_LT(took, quick ? 1500 : 3500);
        const std::vector<Event> seen = events.events();
        EXPECT_EQ(seen.size() - eventsBefore, mode == kCloses ? 1u : 0u);
        if (mode == kCloses) {
            EXPECT_EQ(vexa_test::native32(seen.back().data), IPC_ERR_SERVER_CLOSED);
        } else {
            EXPECT_TRUE(peer.waitEof());
        }
        EXPECT_EQ(vexa_test::count_log_text(log, "socket close"), 1);
    }
}

// A server that stops in the middle of a message holds the client only for
// the read budget; then the read fails as a counted read's wait would.
TEST_F(ClientTest, AServerStalledMidMessageIsLeftAfterTheReadBudget) {
    start("stall_dev", 71);
    client->socketUtil().mysock_set_read_timeout(1000);
    ASSERT_TRUE(peer.sendRaw(vexa_test::head_bytes("stall_dev", 71, 700, 0, 0, 1000) + "abc"));
    ASSERT_TRUE(events.waitFor(CLIENT_IPC_DISCONNECTED, nullptr, 0, 1, 10000));
    EXPECT_TRUE(in_order(
        log_texts(log),
        {"SocketUtil:mysock_readn want_datalen - nright=100", "mysock_readn select rc=-4",
         "readMsgFromSocket read body failed. read_len=-4, error=" + vexa_test::error_text(0),
         "readMsgFromSocket failed. server socket closed"}));
}

}  // namespace
