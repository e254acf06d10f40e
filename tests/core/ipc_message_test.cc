#include "core/ipc_message.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "comm/logger.h"
#include "net/socket_util.h"
#include "support/test_support.h"

namespace {

using vexa::IPCMessage;
using vexa::SocketUtil;
using vexa::StopFlag;
using vexa_test::log_texts;
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
        if (b >= 0)
            close(b);
    }
    void closeA() {
        if (a >= 0)
            close(a);
        a = -1;
    }
};

void put32(std::string& bytes, size_t at, uint32_t value) {
    bytes[at] = static_cast<char>(value >> 24);
    bytes[at + 1] = static_cast<char>(value >> 16);
    bytes[at + 2] = static_cast<char>(value >> 8);
    bytes[at + 3] = static_cast<char>(value);
}

// A head as a foreign peer would send it; dev is copied as given (up to 80 bytes).
std::string head(const std::string& dev, int32_t item, int32_t event, int32_t sec, int32_t usec,
                 int32_t len) {
    std::string bytes(100, '\0');
    bytes.replace(0, dev.size(), dev);
    put32(bytes, 80, static_cast<uint32_t>(item));
    put32(bytes, 84, static_cast<uint32_t>(event));
    put32(bytes, 88, static_cast<uint32_t>(sec));
    put32(bytes, 92, static_cast<uint32_t>(usec));
    put32(bytes, 96, static_cast<uint32_t>(len));
    return bytes;
}

std::string body(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>('a' + (i * 7) % 26);
    return bytes;
}

// Reads frames from pair.b with a SocketUtil and a logger of its own; the body
// buffer starts filled with 0x7f so that a missing NUL shows.
class FrameTest : public testing::Test {
  protected:
    FrameTest()
        : m_logPath(m_tmp.file("frames.log")),
          m_logger(m_logPath, true, true, true, 0),
          m_buffer(IPC_MAX_DATA_LEN, '\x7f') {
        m_util.mysock_init_with_logger(&m_logger);
        std::memset(&m_msg, 0, sizeof(m_msg));
        m_msg.data = m_buffer.data();
    }
    void send(const std::string& bytes) {
        ASSERT_EQ(write(m_pair.a, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    bool readOne() {
        return vexa::readMsgFromSocket(&m_util, m_pair.b, &m_msg, &m_logger, &m_stop);
    }
    std::vector<std::string> lines() const {
        std::vector<std::string> texts = log_texts(m_logPath);
        texts.erase(texts.begin());  // the init line
        return texts;
    }

    TempDir m_tmp;
    std::string m_logPath;
    comm::Logger m_logger;
    SocketUtil m_util;
    StopFlag m_stop{0};
    SocketPair m_pair;
    std::vector<char> m_buffer;
    IPCMessage m_msg;
};

TEST_F(FrameTest, HeadFieldsAreBigEndianAndBodiesEndWithNul) {
    ASSERT_GE(m_pair.a, 0);
    send(head("phone-1", 0x01020304, -2, 0x5A0B0C0D, 999999, 5) + "hello");
    ASSERT_TRUE(readOne());
    EXPECT_STREQ(m_msg.dev, "phone-1");
    EXPECT_EQ(m_msg.test_item, 0x01020304);
    EXPECT_EQ(m_msg.event_id, -2);
    EXPECT_EQ(m_msg.time_sec, 0x5A0B0C0D);
    EXPECT_EQ(m_msg.time_usec, 999999);
    EXPECT_EQ(m_msg.data_len, 5);
    EXPECT_EQ(std::string(m_msg.data, 6), std::string("hello\0", 6));

    // An empty body: only the head travels and the buffer starts with a NUL.
    send(head("x", 1, 9002, 0, 0, 0));
    ASSERT_TRUE(readOne());
    EXPECT_EQ(m_msg.data_len, 0);
    EXPECT_EQ(m_msg.event_id, 9002);
    EXPECT_EQ(m_msg.data[0], '\0');

    // A foreign peer may fill all 80 bytes of dev: it is taken as it came.
    send(head(std::string(80, 'D'), 1, 1, 0, 0, 1) + "z");
    ASSERT_TRUE(readOne());
    EXPECT_EQ(std::string(m_msg.dev, 80), std::string(80, 'D'));
    EXPECT_EQ(std::string(m_msg.data, 2), std::string("z\0", 2));
    EXPECT_EQ(lines().size(), 5u);  // one count line per head and per body
}

TEST_F(FrameTest, LargestBodyTravelsWholeThroughTheFrameWriter) {
    ASSERT_GE(m_pair.a, 0);
    const int32_t largest = IPC_MAX_DATA_LEN - 1;
    std::string block = head("big", 7, 42, 1, 2, largest) + body(largest);
    SocketUtil writerUtil;
    comm::Logger writerLog(m_tmp.file("writer.log"), true, true, true, 0);
    writerUtil.mysock_init_with_logger(&writerLog);
    bool written = false;
    std::thread writer([&] {
        written = vexa::writeMsgToSocket(&writerUtil, m_pair.a, block.data(),
                                         static_cast<int32_t>(block.size()), &writerLog, &m_stop);
    });
    bool read = readOne();
    writer.join();
    EXPECT_TRUE(written);
    ASSERT_TRUE(read);
    EXPECT_EQ(m_msg.data_len, largest);
    EXPECT_TRUE(std::memcmp(m_msg.data, block.data() + 100, largest) == 0);
    EXPECT_EQ(m_msg.data[largest], '\0');
    EXPECT_EQ(lines(),
              (std::vector<std::string>{"SocketUtil:mysock_readn want_datalen - nright=100",
                                        "SocketUtil:mysock_readn want_datalen - nright=511999"}));
}

// The sender's form: head and body kept apart, written with one vectored
// write, arrive as the same bytes as the single block.
TEST_F(FrameTest, HeadAndBodyApartTravelAsOneMessage) {
    ASSERT_GE(m_pair.a, 0);
    const int32_t largest = IPC_MAX_DATA_LEN - 1;
    const std::string headBytes = head("apart", 3, 77, 5, 6, largest);
    const std::string bodyBytes = body(largest);
    SocketUtil writerUtil;
    comm::Logger writerLog(m_tmp.file("writer.log"), true, true, true, 0);
    writerUtil.mysock_init_with_logger(&writerLog);
    bool written = false;
    std::thread writer([&] {
        written = vexa::writeMsgToSocket(&writerUtil, m_pair.a,
                                         reinterpret_cast<const uint8_t*>(headBytes.data()),
                                         bodyBytes.data(), largest, &writerLog, &m_stop);
        // And one without a body: only the head travels.
        const std::string empty = head("apart", 3, 78, 5, 6, 0);
        written = written && vexa::writeMsgToSocket(&writerUtil, m_pair.a,
                                                    reinterpret_cast<const uint8_t*>(empty.data()),
                                                    nullptr, 0, &writerLog, &m_stop);
    });
    bool read = readOne();
    ASSERT_TRUE(read);
    EXPECT_EQ(m_msg.event_id, 77);
    EXPECT_EQ(m_msg.data_len, largest);
    EXPECT_TRUE(std::memcmp(m_msg.data, bodyBytes.data(), largest) == 0);
    read = readOne();
    writer.join();
    EXPECT_TRUE(written);
    ASSERT_TRUE(read);
    EXPECT_EQ(m_msg.event_id, 78);
    EXPECT_EQ(m_msg.data_len, 0);
    EXPECT_EQ(log_texts(m_tmp.file("writer.log")),
              std::vector<std::string>{"SocketUtil:mysock_init_with_logger"});
}

TEST_F(FrameTest, FailedWriteOfHeadAndBodyIsLoggedWithTheCountAndTheError) {
    SocketPair gone;
    ASSERT_GE(gone.a, 0);
    close(gone.b);
    gone.b = -1;
    const std::string headBytes = head("d", 1, 1, 0, 0, 3);
    EXPECT_FALSE(vexa::writeMsgToSocket(&m_util, gone.a,
                                        reinterpret_cast<const uint8_t*>(headBytes.data()), "abc",
                                        3, &m_logger, &m_stop));
    const std::string error = std::string(std::strerror(EPIPE)) + "(" + std::to_string(EPIPE) + ")";
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "mysock_writen send nwritten=-1 error=" + error,
                           "writeMsgToSocket write msg failed. write_len=-1,error=" + error}));
}

TEST_F(FrameTest, OversizedLengthIsRefusedWithALineAndNegativeSilently) {
    ASSERT_GE(m_pair.a, 0);
    send(head("d", 1, 1, 0, 0, 512000) + "body that is never read");
    EXPECT_FALSE(readOne());
    EXPECT_EQ(lines(),
              (std::vector<std::string>{"SocketUtil:mysock_readn want_datalen - nright=100",
                                        "msg too big, 512000 >= 512000"}));
    // The body was left on the stream.
    char next[4];
    EXPECT_EQ(read(m_pair.b, next, 4), 4);
    EXPECT_EQ(std::string(next, 4), "body");
}

TEST_F(FrameTest, NegativeLengthIsRefusedWithoutALine) {
    ASSERT_GE(m_pair.a, 0);
    send(head("d", 1, 1, 0, 0, -1));
    EXPECT_FALSE(readOne());
    send(head("d", 1, 1, 0, 0, INT32_MIN));
    EXPECT_FALSE(readOne());
    EXPECT_EQ(lines(),
              (std::vector<std::string>{"SocketUtil:mysock_readn want_datalen - nright=100",
                                        "SocketUtil:mysock_readn want_datalen - nright=100"}));
}

// True for an error text of the form "text(number)".
bool is_error_text(const std::string& text) {
    std::string::size_type open = text.rfind('(');
    if (open == std::string::npos || text.back() != ')')
        return false;
    std::string number = text.substr(open + 1, text.size() - open - 2);
    return !number.empty() && number == std::to_string(std::atoi(number.c_str()));
}

TEST_F(FrameTest, PeerClosingInsideTheHeadGivesOneHeadLine) {
    ASSERT_GE(m_pair.a, 0);
    send(head("d", 1, 1, 0, 0, 0).substr(0, 40));
    m_pair.closeA();
    EXPECT_FALSE(readOne());
    std::vector<std::string> texts = lines();
    ASSERT_EQ(texts.size(), 1u);
    const std::string prefix = "readMsgFromSocket read head failed. read_len=0, error=";
    ASSERT_EQ(texts[0].compare(0, prefix.size(), prefix), 0) << texts[0];
    EXPECT_TRUE(is_error_text(texts[0].substr(prefix.size()))) << texts[0];
}

TEST_F(FrameTest, PeerClosingInsideTheBodyGivesOneBodyLine) {
    ASSERT_GE(m_pair.a, 0);
    send(head("d", 1, 1, 0, 0, 1000) + body(500));
    m_pair.closeA();
    EXPECT_FALSE(readOne());
    std::vector<std::string> texts = lines();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0], "SocketUtil:mysock_readn want_datalen - nright=100");
    const std::string prefix = "readMsgFromSocket read body failed. read_len=0, error=";
    ASSERT_EQ(texts[1].compare(0, prefix.size(), prefix), 0) << texts[1];
    EXPECT_TRUE(is_error_text(texts[1].substr(prefix.size()))) << texts[1];
}

TEST_F(FrameTest, FailedWriteIsLoggedWithTheCountAndTheError) {
    ASSERT_GE(m_pair.a, 0);
    SocketPair gone;
    ASSERT_GE(gone.a, 0);
    close(gone.b);
    gone.b = -1;
    std::string block = head("d", 1, 1, 0, 0, 3) + "abc";
    EXPECT_FALSE(vexa::writeMsgToSocket(&m_util, gone.a, block.data(),
                                        static_cast<int32_t>(block.size()), &m_logger, &m_stop));
    const std::string error = std::string(std::strerror(EPIPE)) + "(" + std::to_string(EPIPE) + ")";
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "mysock_writen send nwritten=-1 error=" + error,
                           "writeMsgToSocket write msg failed. write_len=-1,error=" + error}));
}

// Moves `fd` to a number above 1024 (the limit of an fd_set); -1 when the
// process may not have that many descriptors.
int move_above_1024(int fd, std::string* why) {
    const rlim_t wanted = 1600;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < wanted) {
        if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < wanted) {
            *why = "hard descriptor limit " + std::to_string(limit.rlim_max) + " is below 1600";
            return -1;
        }
        limit.rlim_cur = wanted;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            *why = std::string("cannot raise the descriptor limit: ") + std::strerror(errno);
            return -1;
        }
    }
    for (int target = 1500; target < 1600; ++target) {
        if (fcntl(target, F_GETFD) == -1 && errno == EBADF) {
            return dup2(fd, target);
        }
    }
    *why = "no free descriptor between 1500 and 1600";
    return -1;
}

TEST_F(FrameTest, DescriptorsAbove1024ReadAndWrite) {
    ASSERT_GE(m_pair.a, 0);
    std::string why;
    int high = move_above_1024(m_pair.b, &why);
    if (high < 0)
        GTEST_SKIP() << why;
    ASSERT_GT(high, 1024);

    // Raw counted transfer in both directions.
    std::string out = body(3000);
    EXPECT_EQ(m_util.mysock_writen(high, out.data(), 3000, &m_stop), 3000);
    std::vector<char> in(3000);
    EXPECT_EQ(m_util.mysock_readn(m_pair.a, in.data(), 3000, &m_stop), 3000);
    EXPECT_TRUE(std::memcmp(in.data(), out.data(), 3000) == 0);
    send(out);
    EXPECT_EQ(m_util.mysock_readn(high, in.data(), 3000, &m_stop), 3000);
    EXPECT_TRUE(std::memcmp(in.data(), out.data(), 3000) == 0);

    // A whole frame read from the high descriptor.
    send(head("high", 3, 4, 0, 0, 6) + "abcdef");
    EXPECT_TRUE(vexa::readMsgFromSocket(&m_util, high, &m_msg, &m_logger, &m_stop));
    EXPECT_EQ(std::string(m_msg.data), "abcdef");
    EXPECT_EQ(m_msg.event_id, 4);
    close(high);
}

}  // namespace
