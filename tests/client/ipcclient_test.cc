#include "client/ipcclient.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/ipc_message.h"
#include "support/test_support.h"

namespace {

using vexa::IPC_HEAD_SIZE;
using vexa::IPCClient;

constexpr int kWaitMs = 10000;

sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    return addr;
}

// False when the peer closed, failed or stayed silent for timeoutMs.
bool read_exact(int fd, void* buffer, size_t len, int timeoutMs = kWaitMs) {
    char* at = static_cast<char*>(buffer);
    while (len > 0) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0)
            return false;
        ssize_t got = ::recv(fd, at, len, 0);
        if (got <= 0)
            return false;
        at += got;
        len -= static_cast<size_t>(got);
    }
    return true;
}

// True once the other end has closed (end of stream or reset).
bool peer_closed(int fd) {
    char scratch[4096];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, kWaitMs) <= 0)
            return false;
        if (::recv(fd, scratch, sizeof(scratch), 0) <= 0)
            return true;
    }
}

struct Frame {
    uint8_t head[IPC_HEAD_SIZE];
    std::string dev;
    int32_t item = 0;
    int32_t event = 0;
    int32_t sec = 0;
    int32_t len = 0;
    std::string body;
};

bool read_frame(int fd, Frame* f) {
    if (!read_exact(fd, f->head, IPC_HEAD_SIZE))
        return false;
    const char* dev = reinterpret_cast<const char*>(f->head);
    f->dev.assign(dev, strnlen(dev, vexa::IPC_DEV_SIZE));
    f->item = vexa::getBigEndian32(f->head + vexa::kOffsetTestItem);
    f->event = vexa::getBigEndian32(f->head + vexa::kOffsetEventId);
    f->sec = vexa::getBigEndian32(f->head + vexa::kOffsetTimeSec);
    f->len = vexa::getBigEndian32(f->head + vexa::kOffsetDataLen);
    if (f->len < 0 || f->len > vexa::kMaxBodyLength)
        return false;
    f->body.assign(static_cast<size_t>(f->len), '\0');
    return f->len == 0 || read_exact(fd, &f->body[0], f->body.size());
}

bool send_frame(int fd, const char* dev, int32_t item, int32_t event, const std::string& body) {
    std::string block(IPC_HEAD_SIZE, '\0');
    vexa::encodeHead(reinterpret_cast<uint8_t*>(&block[0]), dev, item, event, 1234, 5678,
                     static_cast<int32_t>(body.size()));
    block += body;
    return ::send(fd, block.data(), block.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(block.size());
}

// Stands in for the host's server: a loopback listener that accepts one
// connection and speaks the framing by hand.
class Peer {
  public:
    explicit Peer(int backlog = 8) {
        for (int attempt = 0; attempt < 20 && m_listen < 0; ++attempt) {
            int port = vexa_test::free_loopback_port();
            int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in addr = loopback(port);
            if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
                listen(fd, backlog) == 0) {
                m_listen = fd;
                m_port = port;
            } else {
                close(fd);
            }
        }
        EXPECT_GE(m_listen, 0) << "no loopback listener";
    }
    ~Peer() {
        hangUp();
        if (m_listen >= 0)
            close(m_listen);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    int port() const { return m_port; }
    std::string address() const { return "tcp://:" + std::to_string(m_port); }

    // Accepts the client and reads its registration.
    bool acceptClient(Frame* registration) {
        pollfd p{m_listen, POLLIN, 0};
        if (poll(&p, 1, kWaitMs) <= 0)
            return false;
        m_conn = accept(m_listen, nullptr, nullptr);
        return m_conn >= 0 && read_frame(m_conn, registration);
    }
    int conn() const { return m_conn; }
    // Answers the client's CLIENT_IPC_EXIT with CLIENT_IPC_EXIT_ACK from a
    // thread of its own, so that releasing the client does not wait 2000 ms.
    void grantExit() {
        m_granter = std::thread([this] {
            Frame f;
            while (read_frame(m_conn, &f)) {
                if (f.event == CLIENT_IPC_EXIT) {
                    send_frame(m_conn, f.dev.c_str(), f.item, CLIENT_IPC_EXIT_ACK, "");
                    return;
                }
            }
        });
    }
    void hangUp() {
        if (m_granter.joinable())
            m_granter.join();
        if (m_conn >= 0)
            close(m_conn);
        m_conn = -1;
    }

  private:
    int m_listen = -1;
    int m_port = 0;
    int m_conn = -1;
    std::thread m_granter;
};

struct Received {
    int32_t item;
    int32_t event;
    std::string dev;
    int32_t sec;
    int32_t usec;
    std::string body;
    bool terminated;  // a NUL follows the body
};

// Collects what the client's callback is given; optionally answers every
// message from inside the callback with event + 1 and the same body.
class Inbox {
  public:
    static int callback(void* user, int32_t item, int32_t event, const char* dev, int32_t sec,
                        int32_t usec, const char* data, int32_t len) {
        auto* self = static_cast<Inbox*>(user);
        Received r{item,
                   event,
                   dev,
                   sec,
                   usec,
                   std::string(data, static_cast<size_t>(len)),
                   data[len] == '\0'};
        if (IPCClient* client = self->echoVia.load())
            client->send(event + 1, data, len);
        std::lock_guard<std::mutex> guard(self->m_lock);
        self->m_received.push_back(r);
        return 0;
    }
    bool waitFor(size_t count) {
        return vexa_test::wait_until([&] { return size() >= count; }, kWaitMs);
    }
    size_t size() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_received.size();
    }
    Received at(size_t i) {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_received.at(i);
    }

    std::atomic<IPCClient*> echoVia{nullptr};

  private:
    std::mutex m_lock;
    std::vector<Received> m_received;
};

// Creates, connects and starts a client as ipc_init_client2 does; release()
// stops and deletes it as ipc_uninit_client does.
class Client {
  public:
    Client(const std::string& address, Inbox* inbox, const char* dev, int32_t item,
           int32_t timeoutMs = 0)
        : m_client(new IPCClient(address.c_str(), inbox != nullptr ? &Inbox::callback : nullptr,
                                 inbox, dev, item, timeoutMs)) {
        m_client->init();
        m_client->start();
    }
    ~Client() { release(); }
    IPCClient* operator->() const { return m_client.get(); }
    IPCClient* get() const { return m_client.get(); }
    void release() {
        if (m_client) {
            m_client->stop();
            m_client.reset();
        }
    }

  private:
    std::unique_ptr<IPCClient> m_client;
};

std::string client_log(const std::string& dev) {
    return vexa_test::endpoint_dir() + "ipc_client_" + dev + ".log";
}

bool has_line(const std::vector<std::string>& lines, const std::string& text) {
    for (const std::string& line : lines) {
        if (line == text)
            return true;
    }
    return false;
}

// The first line that starts with `prefix`, or "".
std::string line_starting(const std::vector<std::string>& lines, const std::string& prefix) {
    for (const std::string& line : lines) {
        if (line.compare(0, prefix.size(), prefix) == 0)
            return line;
    }
    return "";
}

// The expected lines appear in this order, other lines possibly between them.
bool in_order(const std::vector<std::string>& lines, const std::vector<std::string>& expected) {
    size_t next = 0;
    for (const std::string& line : lines) {
        if (next < expected.size() && line == expected[next])
            ++next;
    }
    return next == expected.size();
}

int32_t now_sec() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<int32_t>(now.tv_sec);
}

// The descriptor of this process bound to the local end `local`, or -1.
int find_socket(const sockaddr_in& local) {
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

// Every test starts without client logs, so that a repeated run reads only
// its own lines.
class FreshLogs : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string dir = vexa_test::endpoint_dir();
        if (DIR* entries = opendir(dir.c_str())) {
            while (dirent* entry = readdir(entries)) {
                if (std::strncmp(entry->d_name, "ipc_client_", 11) == 0)
                    std::remove((dir + entry->d_name).c_str());
            }
            closedir(entries);
        }
    }
};
using IPCClientConnect = FreshLogs;
using IPCClientTraffic = FreshLogs;
using IPCClientClose = FreshLogs;
using IPCClientThreads = FreshLogs;

TEST_F(IPCClientConnect, RegistersWithItsIdentityAndPid) {
    Peer peer;
    Inbox inbox;
    const int32_t before = now_sec();
    Client client(peer.address(), &inbox, "reg_dev", 7);

    Frame reg;
    ASSERT_TRUE(peer.acceptClient(&reg));
    const uint8_t expectedDev[8] = {'r', 'e', 'g', '_', 'd', 'e', 'v', 0};
    EXPECT_EQ(std::memcmp(reg.head, expectedDev, sizeof(expectedDev)), 0);
    for (int i = 8; i < vexa::IPC_DEV_SIZE; ++i)
        ASSERT_EQ(reg.head[i], 0) << "dev byte " << i;
    const uint8_t expectedInts[] = {0, 0, 0, 7, 0, 0, 0x23, 0x29};  // item 7, event 9001
    EXPECT_EQ(std::memcmp(reg.head + 80, expectedInts, sizeof(expectedInts)), 0);
    const uint8_t expectedLen[] = {0, 0, 0, 4};
    EXPECT_EQ(std::memcmp(reg.head + 96, expectedLen, sizeof(expectedLen)), 0);
    EXPECT_GE(reg.sec, before);
    EXPECT_LE(reg.sec, now_sec());
    int32_t pid = 0;
    ASSERT_EQ(reg.body.size(), sizeof(pid));
    std::memcpy(&pid, reg.body.data(), sizeof(pid));  // native byte order
    EXPECT_EQ(pid, static_cast<int32_t>(getpid()));

    // The client's socket is not inherited by programs the test launches.
    sockaddr_in clientEnd{};
    socklen_t len = sizeof(clientEnd);
    ASSERT_EQ(getpeername(peer.conn(), reinterpret_cast<sockaddr*>(&clientEnd), &len), 0);
    const int fd = find_socket(clientEnd);
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);

    peer.grantExit();
    client.release();
    EXPECT_TRUE(in_order(vexa_test::log_texts(client_log("reg_dev")),
                         {"++++++++++++START++++++++++++", "socket_init", "after buff setting",
                          "mysock_option_nodelay", "disable_sigpipe", "connect timeout=0 noblock=0",
                          "connect 127.0.0.1:" + std::to_string(peer.port()), "start"}));
}

TEST_F(IPCClientConnect, NullDevTimeLimitAndExtraAddressPieces) {
    Peer peer;
    Inbox inbox;
    const std::string address = "tcp://127.0.0.1:" + std::to_string(peer.port()) + ":x";
    Client client(address, &inbox, nullptr, 3, 1500);

    Frame reg;
    ASSERT_TRUE(peer.acceptClient(&reg));
    EXPECT_EQ(reg.dev, "");
    EXPECT_EQ(reg.item, 3);
    EXPECT_EQ(reg.event, CLIENT_IPC_CONFIG);
    // The non-blocking socket kept after a time-limited connect still carries
    // whole messages both ways.
    ASSERT_TRUE(send_frame(peer.conn(), "", 3, 600, "ping"));
    ASSERT_TRUE(inbox.waitFor(1));
    EXPECT_EQ(inbox.at(0).body, "ping");
    EXPECT_TRUE(client->send(601, "pong", 4));
    Frame answer;
    ASSERT_TRUE(read_frame(peer.conn(), &answer));
    EXPECT_EQ(answer.body, "pong");

    peer.grantExit();
    client.release();
    const auto texts = vexa_test::log_texts(client_log(""));
    EXPECT_TRUE(has_line(texts, "connect timeout=1500 noblock=1"));
    EXPECT_TRUE(has_line(texts, "connect 127.0.0.1:" + std::to_string(peer.port())));
}

TEST_F(IPCClientConnect, PortKeepsOnlyItsLow16Bits) {
    Peer peer;
    const int wrapped = peer.port() + 65536;
    {
        IPCClient client(("tcp://127.0.0.1:" + std::to_string(wrapped)).c_str(), nullptr, nullptr,
                         "wrap_dev", 1, 0);
        client.init();
        Frame reg;
        EXPECT_TRUE(peer.acceptClient(&reg));
    }
    EXPECT_TRUE(has_line(vexa_test::log_texts(client_log("wrap_dev")),
                         "connect 127.0.0.1:" + std::to_string(wrapped)));
}

TEST_F(IPCClientConnect, InvalidAddressesFailAtConstruction) {
    // Construction only: nothing here connects anywhere.
    const char* invalid[] = {"tcp://:abc",  "tcp://:0",        "tcp://10.0.0.2",
                             "udp://:5000", "tcp://10.0.0.2:", "tcp://:"};
    for (const char* address : invalid) {
        try {
            IPCClient client(address, nullptr, nullptr, "addr_dev", 1, 0);
            ADD_FAILURE() << address << " was accepted";
        } catch (const comm::MyException& e) {
            EXPECT_EQ(e.code(), comm::kFailureCode);
        }
    }
    const auto texts = vexa_test::log_texts(client_log("addr_dev"));
    for (const char* address : invalid)
        EXPECT_TRUE(has_line(texts, std::string("serv_path invalid ") + address)) << address;
}

TEST_F(IPCClientConnect, RefusedConnectFailsAtOnce) {
    const std::string address = "tcp://:" + std::to_string(vexa_test::free_loopback_port());
    for (int timeoutMs : {1500, 0}) {
        IPCClient client(address.c_str(), nullptr, nullptr, "refused_dev", 1, timeoutMs);
        const long long start = vexa_test::monotonic_ms();
        EXPECT_THROW(client.init(), comm::MyException);
        EXPECT_LT(vexa_test::monotonic_ms() - start, 900) << "time limit " << timeoutMs;
    }
    const auto texts = vexa_test::log_texts(client_log("refused_dev"));
    EXPECT_TRUE(has_line(texts, "connect timeout=1500 noblock=1"));
    EXPECT_TRUE(has_line(texts, "connect timeout=0 noblock=0"));
    EXPECT_NE(line_starting(texts, "wait_on_connect failed rc=-1 take="), "");
}

TEST_F(IPCClientConnect, TimeLimitEndsAConnectThatHangs) {
    Peer peer(0);
    // Fill the listener's queue without accepting: the next SYN is dropped,
    // so a connect stays pending.
    std::vector<int> fillers;
    bool full = false;
    const sockaddr_in addr = loopback(peer.port());
    for (int i = 0; i < 32 && !full; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
        fillers.push_back(fd);
        pollfd p{fd, POLLOUT, 0};
        full = poll(&p, 1, 300) == 0;
    }
    if (full) {
        IPCClient client(peer.address().c_str(), nullptr, nullptr, "hang_dev", 1, 1500);
        const long long start = vexa_test::monotonic_ms();
        EXPECT_THROW(client.init(), comm::MyException);
        const long long took = vexa_test::monotonic_ms() - start;
        EXPECT_GE(took, 900);
        EXPECT_LT(took, 8000);
        const std::string line = line_starting(vexa_test::log_texts(client_log("hang_dev")),
                                               "wait_on_connect failed rc=-4 take=");
        ASSERT_NE(line, "");
        EXPECT_GE(std::atoi(line.c_str() + line.rfind('=') + 1), 900);
    }
    for (int fd : fillers)
        close(fd);
    if (!full)
        GTEST_SKIP() << "the listen queue never filled up";
}

TEST_F(IPCClientTraffic, MessagesReachTheCallbackAndThePeer) {
    Peer peer;
    Inbox inbox;
    Client client(peer.address(), &inbox, "traffic_dev", 11);
    Frame reg;
    ASSERT_TRUE(peer.acceptClient(&reg));

    ASSERT_TRUE(send_frame(peer.conn(), "server_side", 12, 4242, "hello"));
    ASSERT_TRUE(send_frame(peer.conn(), "server_side", 13, 4243, ""));
    ASSERT_TRUE(inbox.waitFor(2));
    const Received first = inbox.at(0);
    EXPECT_EQ(first.item, 12);
    EXPECT_EQ(first.event, 4242);
    EXPECT_EQ(first.dev, "server_side");
    EXPECT_EQ(first.sec, 1234);
    EXPECT_EQ(first.usec, 5678);
    EXPECT_EQ(first.body, "hello");
    EXPECT_TRUE(first.terminated);
    const Received empty = inbox.at(1);
    EXPECT_EQ(empty.event, 4243);
    EXPECT_EQ(empty.body, "");
    EXPECT_TRUE(empty.terminated);

    EXPECT_TRUE(client->send(77, "abc", 3));
    EXPECT_TRUE(client->send(78, nullptr, 0));
    // Refused lengths put nothing on the wire.
    EXPECT_FALSE(client->send(79, "x", -1));
    std::vector<char> tooBig(IPC_MAX_DATA_LEN, 'b');
    EXPECT_FALSE(client->send(79, tooBig.data(), IPC_MAX_DATA_LEN));
    EXPECT_TRUE(client->send(80, "z", 1));
    Frame f;
    ASSERT_TRUE(read_frame(peer.conn(), &f));
    EXPECT_EQ(f.dev, "traffic_dev");
    EXPECT_EQ(f.item, 11);
    EXPECT_EQ(f.event, 77);
    EXPECT_EQ(f.body, "abc");
    ASSERT_TRUE(read_frame(peer.conn(), &f));
    EXPECT_EQ(f.event, 78);
    EXPECT_EQ(f.len, 0);
    ASSERT_TRUE(read_frame(peer.conn(), &f));
    EXPECT_EQ(f.event, 80);

    peer.grantExit();
    client.release();
    const auto texts = vexa_test::log_texts(client_log("traffic_dev"));
    EXPECT_TRUE(has_line(texts, "error! data_len=512000 range[0-512000)"));
    // Ordinary messages are not traced without the marker file (the exit
    // ack always is).
    EXPECT_FALSE(has_line(texts, "recv test_item=12 test_id=4242 data_len=5"));
    EXPECT_TRUE(has_line(texts, "recv test_item=11 test_id=9003 data_len=0"));
    EXPECT_FALSE(has_line(texts, "call finish"));
}

TEST_F(IPCClientTraffic, CallbackAnswersFromInsideItselfAndIsTraced) {
    const std::string marker = vexa_test::endpoint_dir() + "ipc_sendrecv.txt";
    vexa_test::write_file(marker, "");
    Peer peer;
    Inbox inbox;
    std::unique_ptr<Client> client;
    try {
        client = std::make_unique<Client>(peer.address(), &inbox, "echo_dev", 51);
    } catch (...) {
        std::remove(marker.c_str());
        throw;
    }
    std::remove(marker.c_str());  // read once, at construction
    inbox.echoVia = client->get();
    Frame reg;
    ASSERT_TRUE(peer.acceptClient(&reg));

    for (int i = 0; i < 3; ++i) {
        const std::string body = "round " + std::to_string(i);
        ASSERT_TRUE(send_frame(peer.conn(), "echo_dev", 51, 500 + 10 * i, body));
        Frame answer;
        ASSERT_TRUE(read_frame(peer.conn(), &answer));
        EXPECT_EQ(answer.event, 501 + 10 * i);
        EXPECT_EQ(answer.body, body);
    }
    inbox.echoVia = nullptr;
    peer.grantExit();
    client->release();
    EXPECT_TRUE(
        in_order(vexa_test::log_texts(client_log("echo_dev")),
                 {"recv test_item=51 test_id=500 data_len=7",
                  "send dev=echo_dev test_item=51 event_id=501 data_len=7", "call finish"}));
}

TEST_F(IPCClientClose, ServerGoneGivesDisconnectedAndEndsTheLoop) {
    Peer peer;
    Inbox inbox;
    Client client(peer.address(), &inbox, "gone_dev", 21);
    Frame reg;
    ASSERT_TRUE(peer.acceptClient(&reg));
    const int32_t before = now_sec();
    peer.hangUp();

    ASSERT_TRUE(inbox.waitFor(1));
    const Received notice = inbox.at(0);
    EXPECT_EQ(notice.event, CLIENT_IPC_DISCONNECTED);
    EXPECT_EQ(notice.item, 21);
    EXPECT_EQ(notice.dev, "gone_dev");
    EXPECT_GE(notice.sec, before);
    int32_t reason = 0;
    ASSERT_EQ(notice.body.size(), sizeof(reason));
    std::memcpy(&reason, notice.body.data(), sizeof(reason));
    EXPECT_EQ(reason, IPC_ERR_SERVER_CLOSED);

    ASSERT_TRUE(vexa_test::wait_until([&] { return !client->isRunning(); }));
    EXPECT_FALSE(client->send(1, "x", 1));
    // Nothing left to ask leave of: the release does not wait.
    const long long start = vexa_test::monotonic_ms();
    client.release();
    EXPECT_LT(vexa_test::monotonic_ms() - start, 1500);
    EXPECT_EQ(inbox.size(), 1u);

    const auto texts = vexa_test::log_texts(client_log("gone_dev"));
    EXPECT_TRUE(in_order(texts, {"readMsgFromSocket failed. server socket closed", "socket close",
                                 "stop", "processThread stopped"}));
    EXPECT_FALSE(has_line(texts, "wait m_canClose 2000ms"));
    EXPECT_FALSE(has_line(texts, "wait finish"));
    EXPECT_EQ(vexa_test::count_log_text(client_log("gone_dev"), "socket close"), 1);
}

TEST_F(IPCClientClose, ExitAckWithoutRequestClosesSilently) {
    Peer peer;
    Inbox inbox;
    Client client(peer.address(), &inbox, "kicked_dev", 31);
    Frame reg;
    ASSERT_TRUE(peer.acceptClient(&reg));
    ASSERT_TRUE(send_frame(peer.conn(), "kicked_dev", 31, CLIENT_IPC_EXIT_ACK, ""));

    ASSERT_TRUE(peer_closed(peer.conn()));
    EXPECT_FALSE(client->send(1, "x", 1));
    EXPECT_TRUE(vexa_test::wait_until([&] { return !client->isRunning(); }));
    client.release();
    EXPECT_EQ(inbox.size(), 0u);
    EXPECT_TRUE(in_order(vexa_test::log_texts(client_log("kicked_dev")),
                         {"recv test_item=31 test_id=9003 data_len=0", "socket close"}));
}

TEST_F(IPCClientClose, ReleaseWaitsForTheExitAck) {
    Peer peer;
    Inbox inbox;
    Client client(peer.address(), &inbox, "polite_dev", 61);
    Frame reg;
    ASSERT_TRUE(peer.acceptClient(&reg));
    Frame request;
    std::thread server([&] {
        if (read_frame(peer.conn(), &request) && request.event == CLIENT_IPC_EXIT)
            send_frame(peer.conn(), "polite_dev", 61, CLIENT_IPC_EXIT_ACK, "");
    });
    const long long start = vexa_test::monotonic_ms();
    client.release();
    const long long took = vexa_test::monotonic_ms() - start;
    server.join();

    EXPECT_EQ(request.event, CLIENT_IPC_EXIT);
    EXPECT_EQ(request.len, 0);
    EXPECT_EQ(request.item, 61);
    EXPECT_LT(took, 1500);
    EXPECT_EQ(inbox.size(), 0u);
    EXPECT_TRUE(
        in_order(vexa_test::log_texts(client_log("polite_dev")),
                 {"stop", "wait m_canClose 2000ms", "wait finish", "processThread stopped"}));
}

TEST_F(IPCClientClose, ReleaseGivesUpAfter2000msWithoutAnswer) {
    Peer peer;
    Inbox inbox;
    Client client(peer.address(), &inbox, "ignored_dev", 71);
    Frame reg;
    ASSERT_TRUE(peer.acceptClient(&reg));

    const long long start = vexa_test::monotonic_ms();
    client.release();
    const long long took = vexa_test::monotonic_ms() - start;
    EXPECT_GE(took, 1990);
    EXPECT_LT(took, 8000);

    Frame request;
    ASSERT_TRUE(read_frame(peer.conn(), &request));
    EXPECT_EQ(request.event, CLIENT_IPC_EXIT);
    EXPECT_TRUE(peer_closed(peer.conn()));  // the destructor closed it
    EXPECT_TRUE(in_order(
        vexa_test::log_texts(client_log("ignored_dev")),
        {"wait m_canClose 2000ms", "wait finish", "processThread stopped", "socket close"}));
}

TEST_F(IPCClientThreads, SendersRacingTheServersCloseEndCleanly) {
    Peer peer;
    Inbox inbox;
    Client client(peer.address(), &inbox, "race_dev", 41);
    Frame reg;
    ASSERT_TRUE(peer.acceptClient(&reg));

    constexpr int kSenders = 4;
    const long long deadline = vexa_test::monotonic_ms() + 60000;
    std::vector<std::thread> senders;
    for (int t = 0; t < kSenders; ++t) {
        senders.emplace_back([&, t] {
            const std::string body(static_cast<size_t>(100 + 50 * t), static_cast<char>('a' + t));
            while (client->send(1000 + t, body.data(), static_cast<int32_t>(body.size())) &&
                   vexa_test::monotonic_ms() < deadline) {
            }
        });
    }
    // Messages from several threads never interleave on the wire.
    for (int i = 0; i < 300; ++i) {
        Frame f;
        if (!read_frame(peer.conn(), &f)) {
            ADD_FAILURE() << "message " << i << " broken";
            break;
        }
        const int t = f.event - 1000;
        if (t < 0 || t >= kSenders || f.body != std::string(100 + 50 * t, 'a' + t)) {
            ADD_FAILURE() << "message " << i << " mixed: event " << f.event;
            break;
        }
    }
    peer.hangUp();
    for (std::thread& sender : senders)
        sender.join();  // each ends once its send fails

    ASSERT_TRUE(inbox.waitFor(1));
    EXPECT_EQ(inbox.at(inbox.size() - 1).event, CLIENT_IPC_DISCONNECTED);
    ASSERT_TRUE(vexa_test::wait_until([&] { return !client->isRunning(); }));
    EXPECT_FALSE(client->send(1, "x", 1));
    client.release();
}

}  // namespace
