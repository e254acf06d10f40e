#include "core/ipc_message.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/frame_reader.h"
#include "support/framed_peer.h"
#include "support/test_support.h"

namespace {

using vexa_test::error_text;
using vexa_test::head_bytes;
using vexa_test::pattern;
using Lines = std::vector<std::string>;

// Reads frames from m_pair.b with a SocketUtil and a log of its own.
class FrameTest : public testing::Test {
  protected:
    void send(const std::string& bytes) {
        ASSERT_EQ(write(m_pair.a, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    bool readOne() { return m_reader.read(m_pair.b); }

    vexa_test::TempDir m_tmp;
    vexa_test::SocketPair m_pair;
    vexa_test::FrameReader m_reader{m_tmp.file("frames.log")};
    const vexa::IPCMessage& m_msg = m_reader.msg;
};

TEST_F(FrameTest, HeadFieldsAreBigEndianAndBodiesEndWithNul) {
    send(head_bytes("phone-1", 0x01020304, -2, 0x5A0B0C0D, 999999, 5) + "hello");
    ASSERT_TRUE(readOne());
    EXPECT_STREQ(m_msg.dev, "phone-1");
    EXPECT_TRUE(m_msg.test_item == 0x01020304 && m_msg.event_id == -2);
    EXPECT_TRUE(m_msg.time_sec == 0x5A0B0C0D && m_msg.time_usec == 999999);
    EXPECT_EQ(m_msg.data_len, 5);
    EXPECT_EQ(std::string(m_msg.data, 6), std::string("hello\0", 6));

    // An empty body: only the head travels and the buffer starts with a NUL.
    send(head_bytes("x", 1, 9002, 0, 0, 0));
    ASSERT_TRUE(readOne());
    EXPECT_TRUE(m_msg.data_len == 0 && m_msg.event_id == 9002 && m_msg.data[0] == '\0');

    // A foreign peer may fill all 80 bytes of dev: it is taken as it came.
    send(head_bytes(std::string(80, 'D'), 1, 1, 0, 0, 1) + "z");
    ASSERT_TRUE(readOne());
    EXPECT_EQ(std::string(m_msg.dev, 80), std::string(80, 'D'));
    EXPECT_EQ(std::string(m_msg.data, 2), std::string("z\0", 2));
}

// Both writer forms, the single block and head and body kept apart (one
// vectored write), send whole frames silently, or log the count and the error.
TEST_F(FrameTest, BothWriterFormsSendWholeFramesOrLogTheFailure) {
    const std::string head = head_bytes("d", 1, 42, 0, 0, 3);
    const std::string block = head + "abc";
    vexa_test::FrameReader writer(m_tmp.file("writer.log"));
    const auto writeBoth = [&] {
        return vexa::writeMsgToSocket(&writer.util, m_pair.a, block.data(), 103, &writer.logger,
                                      &writer.noStop) +
               vexa::writeMsgToSocket(&writer.util, m_pair.a,
                                      reinterpret_cast<const uint8_t*>(head.data()), "abc", 3,
                                      &writer.logger, &writer.noStop);
    };
    EXPECT_EQ(writeBoth(), 2);
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(readOne());
        EXPECT_TRUE(m_msg.event_id == 42 && std::string(m_msg.data) == "abc");
    }
    EXPECT_TRUE(writer.lines().empty());
    m_pair.closeB();
    EXPECT_EQ(writeBoth(), 0);
    const Lines once = {
        "mysock_writen send nwritten=-1 error=" + error_text(EPIPE),
        "writeMsgToSocket write msg failed. write_len=-1,error=" + error_text(EPIPE)};
    EXPECT_EQ(writer.lines(), (Lines{once[0], once[1], once[0], once[1]}));
}

TEST_F(FrameTest, PeerAnnouncing512000OrANegativeLengthIsRefused) {
    send(head_bytes("d", 1, 1, 0, 0, 512000) + "body");
    EXPECT_FALSE(readOne());
    // The body was left on the stream.
    char next[4];
    ASSERT_EQ(read(m_pair.b, next, 4), 4);
    EXPECT_EQ(std::string(next, 4), "body");
    // Negative lengths are refused without a line of their own.
    send(head_bytes("d", 1, 1, 0, 0, -1));
    EXPECT_FALSE(readOne());
    send(head_bytes("d", 1, 1, 0, 0, INT32_MIN));
    EXPECT_FALSE(readOne());
    const std::string head = "SocketUtil:mysock_readn want_datalen - nright=100";
    EXPECT_EQ(m_reader.lines(), (Lines{head, "msg too big, 512000 >= 512000", head, head}));
}

TEST(FrameClose, PeerClosingInsideAFrameGivesOneLineForThePartThatBroke) {
    const struct {
        std::string sent;
        Lines before;  // the lines ahead of the failure line
        std::string failure;
    } cases[] = {
        {head_bytes("d", 1, 1, 0, 0, 0).substr(0, 40),
         {},
         "readMsgFromSocket read head failed. read_len=0, error="},
        {head_bytes("d", 1, 1, 0, 0, 1000) + pattern(500),
         {"SocketUtil:mysock_readn want_datalen - nright=100"},
         "readMsgFromSocket read body failed. read_len=0, error="},
    };
    vexa_test::TempDir tmp;
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failure);
        vexa_test::SocketPair pair;
        vexa_test::FrameReader reader(tmp.file("close" + std::to_string(n++) + ".log"));
        ASSERT_EQ(write(pair.a, c.sent.data(), c.sent.size()), static_cast<ssize_t>(c.sent.size()));
        pair.closeA();
        EXPECT_FALSE(reader.read(pair.b));
        Lines texts = reader.lines();
        ASSERT_EQ(texts.size(), c.before.size() + 1);
        EXPECT_EQ(Lines(texts.begin(), texts.end() - 1), c.before);
        // The error text is whatever errno held: a clean end sets none.
        EXPECT_EQ(texts.back().rfind(c.failure, 0), 0u) << texts.back();
        EXPECT_EQ(texts.back().back(), ')') << texts.back();
    }
}

}  // namespace
