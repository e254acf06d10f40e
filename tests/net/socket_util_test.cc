#include "net/socket_util.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/frame_reader.h"
#include "support/framed_peer.h"
#include "support/test_support.h"

namespace {

using vexa::SocketUtil;
using vexa_test::error_text;
using vexa_test::monotonic_ms;
using vexa_test::pattern;
using vexa_test::readable;
using Lines = std::vector<std::string>;

// A SocketUtil that logs to a file of its own, and a connected pair.
class SocketUtilTest : public testing::Test {
  protected:
    // The lines written since the init line.
    Lines lines() const { return m_log.lines(); }

    vexa_test::TempDir m_tmp;
    vexa_test::FrameReader m_log{m_tmp.file("sock.log")};
    SocketUtil& m_util = m_log.util;
    vexa::StopFlag m_noStop{0};
    vexa_test::SocketPair m_pair;
};

TEST_F(SocketUtilTest, CountedReadAndWriteMoveWholeBlocksInManyChunks) {
    // Far more than a socket buffer holds, so both loops go round many times.
    const int size = 700000;
    const std::string sent = pattern(size, 3);
    int written = 0;
    std::thread writer(
        [&] { written = m_util.mysock_writen(m_pair.a, sent.data(), size, &m_noStop); });
    std::string got(size, '\0');
    const int read = m_util.mysock_readn(m_pair.b, &got[0], size, &m_noStop);
    writer.join();
    EXPECT_EQ(written, size);
    EXPECT_EQ(read, size);
    EXPECT_TRUE(got == sent);
}

// The vectored write sends what is left of its pieces after every partial
// send. A non-blocking writer with a small send buffer and a reader taking odd
// small amounts make the sends end at many places inside and between pieces.
TEST_F(SocketUtilTest, VectoredWriteResumesPartialSendsInsideAndBetweenPieces) {
    int small = 4096;
    ASSERT_EQ(setsockopt(m_pair.a, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);
    SocketUtil::mysock_set_nonblock(m_pair.a, 1);
    const std::string head = pattern(100, 1);
    const std::string body = pattern(300001, 2);
    const std::string tail = pattern(3, 4);
    iovec pieces[4] = {{const_cast<char*>(head.data()), head.size()},
                       {nullptr, 0},
                       {const_cast<char*>(body.data()), body.size()},
                       {const_cast<char*>(tail.data()), tail.size()}};
    const std::string expected = head + body + tail;
    std::string got;
    std::thread reader([&] {
        char chunk[977];
        size_t want = 1;
        while (got.size() < expected.size()) {
            want = want % sizeof(chunk) + 333;
            const ssize_t n = read(m_pair.b, chunk, std::min(want, sizeof(chunk)));
            if (n <= 0)
                break;
            got.append(chunk, static_cast<size_t>(n));
        }
    });
    const int written = m_util.mysock_writev(m_pair.a, pieces, 4, &m_noStop);
    reader.join();
    EXPECT_EQ(written, static_cast<int>(expected.size()));
    EXPECT_TRUE(got == expected);
    // The caller's pieces are left as they were.
    EXPECT_TRUE(pieces[2].iov_base == body.data() && pieces[2].iov_len == body.size());
}

TEST_F(SocketUtilTest, EmptyNegativeAndTooManyPiecesMakeNoTransfer) {
    char buffer[8] = {'u', 'n', 't', 'o', 'u', 'c', 'h', 'd'};
    EXPECT_EQ(m_util.mysock_writen(m_pair.a, buffer, 0, &m_noStop), 0);
    EXPECT_EQ(m_util.mysock_writen(m_pair.a, buffer, -5, &m_noStop), -5);
    iovec empty[2] = {{buffer, 0}, {nullptr, 0}};
    EXPECT_EQ(m_util.mysock_writev(m_pair.a, empty, 2, &m_noStop), 0);
    EXPECT_EQ(m_util.mysock_writev(m_pair.a, empty, 0, &m_noStop), 0);
    iovec many[vexa::kMaxWritePieces + 1] = {};
    EXPECT_EQ(m_util.mysock_writev(m_pair.a, many, vexa::kMaxWritePieces + 1, &m_noStop),
              vexa::MYSOCK_ERR_IO);
    EXPECT_FALSE(readable(m_pair.b));
    // Nothing is waiting on pair.b: a read that waited would take a second.
    const long long start = monotonic_ms();
    EXPECT_EQ(m_util.mysock_readn(m_pair.b, buffer, 0, &m_noStop), 0);
    EXPECT_EQ(m_util.mysock_readn(m_pair.b, buffer, -5, &m_noStop), 0);
    EXPECT_LT(monotonic_ms() - start, 900);
    EXPECT_EQ(std::string(buffer, 8), "untouchd");

    iovec two[2] = {{buffer, 1}, {buffer + 1, 3}};
    EXPECT_EQ(m_util.mysock_writev(m_pair.a, two, 2, &m_noStop), 4);
    ASSERT_EQ(read(m_pair.b, buffer + 4, 4), 4);
    EXPECT_EQ(std::string(buffer, 8), "untounto");
}

TEST_F(SocketUtilTest, BudgetsAreCountedInWholeSeconds) {
    char buffer[10];
    // 1999 ms is one wait of a second, 2999 ms two. The upper bounds only have
    // to tell that from rounding up.
    for (int budget : {1999, 2999}) {
        m_util.mysock_set_read_timeout(budget);
        const long long start = monotonic_ms();
        EXPECT_EQ(m_util.mysock_readn(m_pair.b, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_TIMEOUT);
        const long long took = monotonic_ms() - start;
        EXPECT_GE(took, budget / 1000 * 1000 - 100) << budget;
        EXPECT_LT(took, budget / 1000 * 1000 + 700) << budget;
    }
    // A write to a full peer with a zero budget still waits once.
    SocketUtil::mysock_set_nonblock(m_pair.a, 1);
    const std::string chunk(65536, 'f');
    while (write(m_pair.a, chunk.data(), chunk.size()) > 0) {
    }
    ASSERT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK) << std::strerror(errno);
    m_util.mysock_set_write_timeout(0);
    const long long start = monotonic_ms();
    EXPECT_EQ(m_util.mysock_writen(m_pair.a, chunk.data(), 1000, &m_noStop),
              vexa::MYSOCK_ERR_TIMEOUT);
    EXPECT_GE(monotonic_ms() - start, 900);
}

TEST_F(SocketUtilTest, StopFlagSetDuringAWaitEndsItWithinAboutASecond) {
    vexa::StopFlag stop{0};
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        stop = 1;
    });
    char buffer[10];
    // Both budgets are 30 seconds unless changed: without the stop this read
    // would wait that long.
    EXPECT_EQ(m_util.mysock_read_timeout(), 30000);
    EXPECT_EQ(m_util.mysock_write_timeout(), 30000);
    const long long start = monotonic_ms();
    const int rc = m_util.mysock_readn(m_pair.b, buffer, 10, &stop);
    const long long elapsed = monotonic_ms() - start;
    stopper.join();
    EXPECT_EQ(rc, vexa::MYSOCK_ERR_STOPPED);
    EXPECT_GE(elapsed, 900);
    EXPECT_LT(elapsed, 10000);
}

TEST_F(SocketUtilTest, FailuresAreToldButAPeerClosingInsideABlockIsNot) {
    // A descriptor that is not open: the read's wait fails; the write, which
    // tries before it waits, fails at once.
    const int closed = dup(m_pair.a);
    ASSERT_GE(closed, 0);
    close(closed);
    char buffer[100];
    EXPECT_EQ(m_util.mysock_readn(closed, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_WAIT);
    EXPECT_EQ(m_util.mysock_writen(closed, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_IO);
    // A directory is always "readable", but reading it fails for good.
    const int dir = open(m_tmp.path().c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dir, 0);
    EXPECT_EQ(m_util.mysock_readn(dir, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_IO);
    close(dir);
    // Half a block, then the end of the stream: 0 and no line.
    ASSERT_EQ(write(m_pair.b, buffer, 50), 50);
    m_pair.closeB();
    EXPECT_EQ(m_util.mysock_readn(m_pair.a, buffer, 100, &m_noStop), 0);
    // Writing to a peer that has gone, in both forms.
    EXPECT_EQ(m_util.mysock_writen(m_pair.a, buffer, 10, &m_noStop), vexa::MYSOCK_ERR_IO);
    iovec two[2] = {{buffer, 1}, {buffer + 1, 3}};
    EXPECT_EQ(m_util.mysock_writev(m_pair.a, two, 2, &m_noStop), vexa::MYSOCK_ERR_IO);
    const std::string epipe = "mysock_writen send nwritten=-1 error=" + error_text(EPIPE);
    EXPECT_EQ(lines(),
              (Lines{"mysock_readn select rc=-3",
                     "mysock_writen send nwritten=-1 error=" + error_text(EBADF),
                     "mysock_readn recv nread=-1 error=" + error_text(EISDIR), epipe, epipe}));
}

TEST_F(SocketUtilTest, WaitConnectReportsARefusalOrFinishesTheConnect) {
    // A refused connect, blocking or not, is reported with its error number;
    // a non-blocking refusal may be known at once or only after the wait.
    const int closedPort = vexa_test::free_loopback_port();
    Lines expected;
    for (int nonblock : {0, 1}) {
        vexa_test::FramedConn conn(socket(AF_INET, SOCK_STREAM, 0));
        SocketUtil::mysock_set_nonblock(conn.fd(), nonblock);
        const int rc = conn.connectTo(closedPort) ? 0 : -1;
        const bool known = rc == -1 && errno != EINPROGRESS;
        int soErr = 0;
        EXPECT_EQ(m_util.mysock_wait_connect(conn.fd(), rc, 5000, &m_noStop, &soErr),
                  vexa::MYSOCK_ERR_IO);
        EXPECT_EQ(soErr, ECONNREFUSED) << nonblock;
        expected.push_back(std::string("mysock_wait_connect ") + (known ? "pre " : "") +
                           "failed. so_err=" + std::to_string(ECONNREFUSED));
    }
    // A non-blocking connect to a listener completes in the wait, silently.
    vexa_test::Listener listener;
    vexa_test::FramedConn client(socket(AF_INET, SOCK_STREAM, 0));
    SocketUtil::mysock_set_nonblock(client.fd(), 1);
    const int rc = client.connectTo(listener.port()) ? 0 : -1;
    ASSERT_TRUE(rc == 0 || errno == EINPROGRESS) << std::strerror(errno);
    EXPECT_EQ(m_util.mysock_wait_connect(client.fd(), rc, 5000, &m_noStop), 0);
    EXPECT_EQ(lines(), expected);
}

TEST_F(SocketUtilTest, WindowSizesAreSetAndLoggedBeforeAndAfter) {
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    m_util.mysock_option_windowsize(sock, vexa::kSendBufferSize, 0);
    int32_t granted = 0;
    socklen_t length = sizeof(granted);
    ASSERT_EQ(getsockopt(sock, SOL_SOCKET, SO_SNDBUF, &granted, &length), 0);
    close(sock);
    EXPECT_GE(granted, vexa::kSendBufferSize);
    const int closed = dup(m_pair.b);
    close(closed);
    m_util.mysock_option_windowsize(closed, vexa::kSendBufferSize, vexa::kRecvBufferSize);
    const Lines texts = lines();
    ASSERT_EQ(texts.size(), 8u);
    EXPECT_EQ(texts[1], "after buff setting");
    EXPECT_EQ(texts[2].rfind("snd_buf:" + std::to_string(granted) + " rcv_buf:", 0), 0u);
    EXPECT_EQ(Lines(texts.begin() + 3, texts.end()),
              (Lines{"snd_buf:0 rcv_buf:0", "mysock_option_send_windowsize failed",
                     "mysock_option_recv_windowsize failed", "after buff setting",
                     "snd_buf:0 rcv_buf:0"}));
}

}  // namespace
