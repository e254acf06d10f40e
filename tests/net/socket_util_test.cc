#include "net/socket_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "comm/logger.h"
#include "support/test_support.h"

namespace {

using vexa::SocketUtil;
using vexa::StopFlag;
using vexa_test::log_texts;
using vexa_test::monotonic_ms;
using vexa_test::TempDir;

// A connected stream pair, closed at the end of the scope.
struct SocketPair {
    int a = -1;
    int b = -1;
    SocketPair() {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0) {
            a = fds[0];
            b = fds[1];
        }
    }
    ~SocketPair() {
        closeA();
        closeB();
    }
    void closeA() {
        if (a >= 0)
            close(a);
        a = -1;
    }
    void closeB() {
        if (b >= 0)
            close(b);
        b = -1;
    }
};

// A SocketUtil that logs to a file of its own.
class SocketUtilTest : public testing::Test {
  protected:
    SocketUtilTest() : m_logPath(m_tmp.file("sock.log")), m_logger(m_logPath, true, true, true, 0) {
        m_util.mysock_init_with_logger(&m_logger);
    }
    // The lines written since the init line.
    std::vector<std::string> lines() const {
        std::vector<std::string> texts = log_texts(m_logPath);
        if (!texts.empty() && texts[0] == "SocketUtil:mysock_init_with_logger")
            texts.erase(texts.begin());
        return texts;
    }
    static std::string errorText(int err) {
        return std::string(std::strerror(err)) + "(" + std::to_string(err) + ")";
    }
    static bool readable(int fd) { return SocketUtil::mysock_wait_readable(fd, 50) > 0; }

    TempDir m_tmp;
    std::string m_logPath;
    comm::Logger m_logger;
    SocketUtil m_util;
    StopFlag m_noStop{0};
};

std::vector<char> pattern(size_t size, int seed) {
    std::vector<char> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + static_cast<size_t>(seed)) & 0xFF);
    return bytes;
}

TEST_F(SocketUtilTest, CountedReadAndWriteMoveWholeBlocksInManyChunks) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    // Far more than a socket buffer holds, so both loops go round many times.
    const int size = 700000;
    std::vector<char> sent = pattern(size, 3);
    int written = 0;
    std::thread writer(
        [&] { written = m_util.mysock_writen(pair.a, sent.data(), size, &m_noStop); });
    std::vector<char> got(size);
    int read = m_util.mysock_readn(pair.b, got.data(), size, &m_noStop);
    writer.join();
    EXPECT_EQ(written, size);
    EXPECT_EQ(read, size);
    EXPECT_TRUE(got == sent);
    EXPECT_EQ(lines(),
              std::vector<std::string>{"SocketUtil:mysock_readn want_datalen - nright=700000"});
}

// The vectored write sends what is left of its pieces after every partial
// send. A non-blocking writer with a small send buffer and a reader taking odd
// small amounts make the sends end at many places inside and between pieces.
TEST_F(SocketUtilTest, VectoredWriteResumesPartialSendsInsideAndBetweenPieces) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    int small = 4096;
    ASSERT_EQ(setsockopt(pair.a, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);
    SocketUtil::mysock_set_nonblock(pair.a, 1);
    const std::vector<char> head = pattern(100, 1);
    const std::vector<char> body = pattern(300001, 2);
    const std::vector<char> tail = pattern(3, 4);
    iovec pieces[4] = {{const_cast<char*>(head.data()), head.size()},
                       {nullptr, 0},
                       {const_cast<char*>(body.data()), body.size()},
                       {const_cast<char*>(tail.data()), tail.size()}};
    const int total = static_cast<int>(head.size() + body.size() + tail.size());
    std::vector<char> got;
    std::thread reader([&] {
        std::vector<char> chunk(977);
        size_t want = 1;
        while (got.size() < static_cast<size_t>(total)) {
            want = want % chunk.size() + 333;
            ssize_t n = read(pair.b, chunk.data(), std::min(want, chunk.size()));
            if (n <= 0)
                break;
            got.insert(got.end(), chunk.begin(), chunk.begin() + n);
        }
    });
    const int written = m_util.mysock_writev(pair.a, pieces, 4, &m_noStop);
    reader.join();
    EXPECT_EQ(written, total);
    std::vector<char> expected(head);
    expected.insert(expected.end(), body.begin(), body.end());
    expected.insert(expected.end(), tail.begin(), tail.end());
    EXPECT_TRUE(got == expected);
    // The caller's pieces are left as they were.
    EXPECT_EQ(pieces[2].iov_base, body.data());
    EXPECT_EQ(pieces[2].iov_len, body.size());
    // A send that found the buffer full again is retried, and told, like
    // mysock_writen's; nothing else is logged.
    for (const std::string& line : lines())
        EXPECT_EQ(line, "mysock_writen send nwritten=-1 error=" + errorText(EAGAIN));
}

// The rest of the vectored write's contract: the results and lines of
// mysock_writen for the same block.
TEST_F(SocketUtilTest, VectoredWriteResultsAreThoseOfTheCountedWrite) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    char bytes[4] = {'a', 'b', 'c', 'd'};
    iovec empty[2] = {{bytes, 0}, {nullptr, 0}};
    EXPECT_EQ(m_util.mysock_writev(pair.a, empty, 2, &m_noStop), 0);
    EXPECT_EQ(m_util.mysock_writev(pair.a, empty, 0, &m_noStop), 0);
    EXPECT_FALSE(readable(pair.b));
    iovec many[vexa::kMaxWritePieces + 1] = {};
    EXPECT_EQ(m_util.mysock_writev(pair.a, many, vexa::kMaxWritePieces + 1, &m_noStop),
              vexa::MYSOCK_ERR_IO);
    EXPECT_TRUE(lines().empty());

    iovec two[2] = {{bytes, 1}, {bytes + 1, 3}};
    EXPECT_EQ(m_util.mysock_writev(pair.a, two, 2, &m_noStop), 4);
    char got[4] = {};
    ASSERT_EQ(read(pair.b, got, 4), 4);
    EXPECT_EQ(std::string(got, 4), "abcd");

    pair.closeB();
    EXPECT_EQ(m_util.mysock_writev(pair.a, two, 2, &m_noStop), vexa::MYSOCK_ERR_IO);
    EXPECT_EQ(lines(),
              std::vector<std::string>{"mysock_writen send nwritten=-1 error=" + errorText(EPIPE)});
}

TEST_F(SocketUtilTest, LengthsBelowOneMakeNoTransfer) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    char buffer[8] = {'u', 'n', 't', 'o', 'u', 'c', 'h', 'd'};
    EXPECT_EQ(m_util.mysock_writen(pair.a, buffer, 0, &m_noStop), 0);
    EXPECT_EQ(m_util.mysock_writen(pair.a, buffer, -5, &m_noStop), -5);
    EXPECT_FALSE(readable(pair.b));
    // Nothing is waiting on pair.b: a read that waited would take a second.
    long long start = monotonic_ms();
    EXPECT_EQ(m_util.mysock_readn(pair.b, buffer, 0, &m_noStop), 0);
    EXPECT_EQ(m_util.mysock_readn(pair.b, buffer, -5, &m_noStop), 0);
    EXPECT_LT(monotonic_ms() - start, 900);
    EXPECT_EQ(std::string(buffer, 8), "untouchd");
    // Only the read logs its count; the write of 0 says nothing.
    EXPECT_EQ(lines(),
              (std::vector<std::string>{"SocketUtil:mysock_readn want_datalen - nright=0",
                                        "SocketUtil:mysock_readn want_datalen - nright=0"}));
}

TEST_F(SocketUtilTest, PeerClosingInsideABlockGivesZeroWithoutALine) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    std::vector<char> half = pattern(50, 1);
    ASSERT_EQ(write(pair.a, half.data(), half.size()), 50);
    pair.closeA();
    char buffer[100];
    EXPECT_EQ(m_util.mysock_readn(pair.b, buffer, 100, &m_noStop), 0);
    EXPECT_TRUE(lines().empty());
}

TEST_F(SocketUtilTest, ReadBudgetIsCountedInWholeSeconds) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    char buffer[10];
    // Budgets are cut to whole seconds: 1999 ms is one wait of a second, 2999 ms
    // two. The upper bounds only have to tell that from rounding up.
    m_util.mysock_set_read_timeout(1999);
    long long start = monotonic_ms();
    EXPECT_EQ(m_util.mysock_readn(pair.b, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_TIMEOUT);
    long long oneWait = monotonic_ms() - start;
    EXPECT_GE(oneWait, 900);
    EXPECT_LT(oneWait, 1700);

    m_util.mysock_set_read_timeout(2999);
    start = monotonic_ms();
    EXPECT_EQ(m_util.mysock_readn(pair.b, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_TIMEOUT);
    long long twoWaits = monotonic_ms() - start;
    EXPECT_GE(twoWaits, 1900);
    EXPECT_LT(twoWaits, 2700);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{"mysock_readn select rc=-4", "mysock_readn select rc=-4"}));
}

TEST_F(SocketUtilTest, WriteToAFullPeerTimesOutAfterOneWaitForAZeroBudget) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    // Fill the pair until the writer would block; nobody reads pair.b.
    SocketUtil::mysock_set_nonblock(pair.a, 1);
    std::vector<char> chunk(65536, 'f');
    while (write(pair.a, chunk.data(), chunk.size()) > 0) {
    }
    ASSERT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK) << std::strerror(errno);
    m_util.mysock_set_write_timeout(0);
    long long start = monotonic_ms();
    EXPECT_EQ(m_util.mysock_writen(pair.a, chunk.data(), 1000, &m_noStop),
              vexa::MYSOCK_ERR_TIMEOUT);
    EXPECT_GE(monotonic_ms() - start, 900);
    EXPECT_EQ(lines(), std::vector<std::string>{"mysock_writen mysock_select rc=-4"});
}

TEST_F(SocketUtilTest, StopFlagSetDuringAWaitEndsItWithinAboutASecond) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    StopFlag stop{0};
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        stop = 1;
    });
    char buffer[10];
    long long start = monotonic_ms();
    // The default budget would be 30 seconds.
    int rc = m_util.mysock_readn(pair.b, buffer, 10, &stop);
    long long elapsed = monotonic_ms() - start;
    stopper.join();
    EXPECT_EQ(rc, vexa::MYSOCK_ERR_STOPPED);
    EXPECT_GE(elapsed, 900);
    EXPECT_LT(elapsed, 10000);
    EXPECT_EQ(lines(), std::vector<std::string>{"mysock_readn select rc=-2"});
}

TEST_F(SocketUtilTest, FailuresOfTheWaitAndOfTheReadAreTold) {
    // A descriptor that is not open: the wait itself fails.
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    int closed = dup(pair.a);
    ASSERT_GE(closed, 0);
    close(closed);
    char buffer[10];
    EXPECT_EQ(m_util.mysock_readn(closed, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_WAIT);
    EXPECT_EQ(m_util.mysock_writen(closed, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_WAIT);

    // A directory is always "readable", but reading it fails for good.
    int dir = open(m_tmp.path().c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dir, 0);
    EXPECT_EQ(m_util.mysock_readn(dir, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_IO);
    close(dir);

    // Writing to a peer that has gone.
    pair.closeB();
    EXPECT_EQ(m_util.mysock_writen(pair.a, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_IO);

    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "mysock_readn select rc=-3", "mysock_writen mysock_select rc=-3",
                           "mysock_readn recv nread=-1 error=" + errorText(EISDIR),
                           "mysock_writen send nwritten=-1 error=" + errorText(EPIPE)}));
}

// A TCP socket bound to 127.0.0.1 on a port chosen by the system. A socket
// that does not listen keeps its port refusing connections.
struct BoundSocket {
    int fd = -1;
    sockaddr_in addr{};
    explicit BoundSocket(bool listening) {
        fd = socket(AF_INET, SOCK_STREAM, 0);
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            (listening && listen(fd, 4) != 0) ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            close(fd);
            fd = -1;
        }
    }
    ~BoundSocket() {
        if (fd >= 0)
            close(fd);
    }
};

int connect_to(int fd, const BoundSocket& target) {
    return connect(fd, reinterpret_cast<const sockaddr*>(&target.addr), sizeof(target.addr));
}

TEST_F(SocketUtilTest, WaitConnectFinishesOrReportsTheConnect) {
    // Connected at once: no wait, not even on a descriptor that could never be ready.
    long long start = monotonic_ms();
    EXPECT_EQ(m_util.mysock_wait_connect(-1, 0, 5000, &m_noStop), 0);
    EXPECT_LT(monotonic_ms() - start, 900);

    // A refused connect is reported before any wait, with its error number.
    BoundSocket closedPort(false);
    ASSERT_GE(closedPort.fd, 0);
    int refused = socket(AF_INET, SOCK_STREAM, 0);
    int rc = connect_to(refused, closedPort);
    int connectErrno = errno;
    ASSERT_EQ(rc, -1);
    ASSERT_NE(connectErrno, EINPROGRESS);
    int soErr = 0;
    EXPECT_EQ(m_util.mysock_wait_connect(refused, rc, 5000, &m_noStop, &soErr),
              vexa::MYSOCK_ERR_IO);
    EXPECT_EQ(soErr, connectErrno);
    EXPECT_EQ(soErr, ECONNREFUSED);
    close(refused);
    EXPECT_EQ(lines(), std::vector<std::string>{"mysock_wait_connect pre failed. so_err=" +
                                                std::to_string(connectErrno)});

    // A non-blocking connect to a listener completes in the wait.
    BoundSocket listener(true);
    ASSERT_GE(listener.fd, 0);
    int client = socket(AF_INET, SOCK_STREAM, 0);
    SocketUtil::mysock_set_nonblock(client, 1);
    rc = connect_to(client, listener);
    ASSERT_TRUE(rc == 0 || errno == EINPROGRESS) << std::strerror(errno);
    EXPECT_EQ(m_util.mysock_wait_connect(client, rc, 5000, &m_noStop), 0);
    close(client);
    EXPECT_EQ(lines().size(), 1u);
}

TEST_F(SocketUtilTest, WaitConnectReadsTheSocketErrorOfAFailedNonBlockingConnect) {
    BoundSocket closedPort(false);
    ASSERT_GE(closedPort.fd, 0);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    SocketUtil::mysock_set_nonblock(fd, 1);
    int rc = connect_to(fd, closedPort);
    int connectErrno = errno;
    int soErr = 0;
    EXPECT_EQ(m_util.mysock_wait_connect(fd, rc, 5000, &m_noStop, &soErr), vexa::MYSOCK_ERR_IO);
    close(fd);
    EXPECT_EQ(soErr, ECONNREFUSED);
    // The refusal may be known at once or only after the wait.
    std::string expected = (rc == -1 && connectErrno != EINPROGRESS)
                               ? "mysock_wait_connect pre failed. so_err="
                               : "mysock_wait_connect failed. so_err=";
    EXPECT_EQ(lines(), std::vector<std::string>{expected + std::to_string(ECONNREFUSED)});
}

// The send size of a "snd_buf:%d rcv_buf:%d" line with two positive sizes; -1 otherwise.
int send_size_of(const std::string& text) {
    int send = 0;
    int recv = 0;
    if (std::sscanf(text.c_str(), "snd_buf:%d rcv_buf:%d", &send, &recv) != 2 || send < 1 ||
        recv < 1 ||
        text != "snd_buf:" + std::to_string(send) + " rcv_buf:" + std::to_string(recv)) {
        return -1;
    }
    return send;
}

TEST_F(SocketUtilTest, WindowSizesAreLoggedBeforeAndAfterSetting) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);

    // Nothing to set: one size line and nothing else.
    m_util.mysock_option_windowsize(pair.a, 0, -1);
    std::vector<std::string> texts = lines();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_GT(send_size_of(texts[0]), 0) << texts[0];

    // Only the send size: set, then the sizes again.
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(sock, 0);
    m_util.mysock_option_windowsize(sock, vexa::kSendBufferSize, 0);
    int32_t granted = 0;
    socklen_t length = sizeof(granted);
    ASSERT_EQ(getsockopt(sock, SOL_SOCKET, SO_SNDBUF, &granted, &length), 0);
    close(sock);
    texts = lines();
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_GT(send_size_of(texts[1]), 0) << texts[1];
    EXPECT_EQ(texts[2], "after buff setting");
    EXPECT_EQ(send_size_of(texts[3]), granted) << texts[3];

    // A closed descriptor: both failures, and sizes of 0.
    int closed = dup(pair.b);
    close(closed);
    m_util.mysock_option_windowsize(closed, vexa::kSendBufferSize, vexa::kRecvBufferSize);
    texts = lines();
    texts.erase(texts.begin(), texts.begin() + 4);
    EXPECT_EQ(texts, (std::vector<std::string>{"snd_buf:0 rcv_buf:0",
                                               "mysock_option_send_windowsize failed",
                                               "mysock_option_recv_windowsize failed",
                                               "after buff setting", "snd_buf:0 rcv_buf:0"}));
}

}  // namespace
