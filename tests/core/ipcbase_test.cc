#include "core/ipcbase.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "comm/thread_util.h"
#include "support/frame_reader.h"
#include "support/framed_peer.h"
#include "support/test_support.h"

namespace {

using vexa_test::get_be32;
using vexa_test::log_texts;
using vexa_test::readable;
using vexa_test::SocketPair;
using Lines = std::vector<std::string>;

int ignore_message(void*, int32_t, int32_t, const char*, int32_t, int32_t, const char*, int32_t) {
    return 0;
}

// An endpoint without a socket of its own: the tests hand send() a descriptor.
// Its loop body counts passes and, with a limit, ends the loop by itself.
class TestEndpoint : public vexa::IPCBase {
  public:
    TestEndpoint(vexa::IPCCallback callback, const std::string& logName, int passLimit = -1)
        : IPCBase(callback, nullptr, logName), m_passLimit(passLimit) {}

    std::atomic<int> passes{0};
    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
    std::atomic<bool> runningDuringOnStop{false};

  protected:
    int setupSocket() override { return 0; }
    void onStart() override { ++starts; }
    void onStop() override {
        runningDuringOnStop = isRunning();
        ++stops;
    }
    bool processOnce() override {
        const int n = ++passes;
        comm::sleep_ms(1);
        return m_passLimit < 0 || n < m_passLimit;
    }

  private:
    const int m_passLimit;
};

std::string log_path(const std::string& name) {
    return vexa_test::endpoint_dir() + name;
}

std::string read_exactly(int fd, size_t size) {
    std::string bytes(size, '\0');
    const ssize_t got = recv(fd, &bytes[0], size, MSG_WAITALL);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

// Without a callback there is nobody to deliver to, so no loop runs. With one
// the loop runs until stop, and onStop still sees it running (a client waits
// there for its answer); a loop that ended by itself leaves stop nothing to
// wait for. Endpoints of one name append to one log.
TEST(IPCBaseThread, TheLoopRunsOnlyWithACallbackAndUntilStop) {
    for (const vexa::IPCCallback callback : {vexa::IPCCallback(nullptr), &ignore_message}) {
        TestEndpoint endpoint(callback, "ipc_test_thread.log");
        endpoint.init();
        endpoint.start();
        EXPECT_EQ(vexa_test::wait_until([&] { return endpoint.passes >= 3; }, 200), !!callback);
        EXPECT_EQ(endpoint.isRunning(), !!callback);
        endpoint.stop();
        EXPECT_EQ(endpoint.runningDuringOnStop.load(), !!callback);
        EXPECT_FALSE(endpoint.isRunning());
        const int passes = endpoint.passes;
        comm::sleep_ms(20);
        EXPECT_EQ(endpoint.passes.load(), passes);
        EXPECT_TRUE(endpoint.starts == 1 && endpoint.stops == 1);
    }
    EXPECT_EQ(vexa_test::count_log_text(log_path("ipc_test_thread.log"), "~IPCBase"), 2);

    TestEndpoint selfEnding(ignore_message, "ipc_test_selfend.log", 5);
    selfEnding.start();
    EXPECT_TRUE(
        vexa_test::wait_until([&] { return selfEnding.passes == 5 && !selfEnding.isRunning(); }));
    const long long before = vexa_test::monotonic_ms();
    selfEnding.stop();
    EXPECT_LT(vexa_test::monotonic_ms() - before, 2000);
    EXPECT_EQ(selfEnding.passes.load(), 5);
}

// Marker files in the endpoint directory are looked at once, at construction:
// "ipc_sendrecv.txt" traces every message sent, "ipc_notprint.txt" silences
// the whole log.
TEST(IPCBaseMarkers, MarkersSeenAtConstructionTraceOrSilence) {
    const Lines traced = {"send dev=dev-A test_item=3 event_id=1000 data_len=5",
                          "send dev=dev-B test_item=-1 event_id=9002 data_len=0",
                          "send dev= test_item=0 event_id=7 data_len=8"};
    const struct {
        const char* marker;
        const char* log;
        Lines sends;
    } cases[] = {{nullptr, "ipc_test_plain.log", {}},
                 {"ipc_sendrecv.txt", "ipc_test_trace.log", traced},
                 {"ipc_notprint.txt", "ipc_test_silent.log", {}}};
    SocketPair pair;
    vexa::Connection conn(dup(pair.a), 1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log);
        const std::string marker = log_path(c.marker != nullptr ? c.marker : "no-marker");
        if (c.marker != nullptr)
            vexa_test::write_file(marker, "");
        TestEndpoint endpoint(ignore_message, c.log);
        std::remove(marker.c_str());  // changes nothing for an endpoint that saw it
        endpoint.start();
        EXPECT_TRUE(endpoint.send(conn, "dev-A", 3, 1000, "hello", 5));
        EXPECT_TRUE(endpoint.send(conn, "dev-B", -1, 9002, nullptr, 0));
        EXPECT_FALSE(endpoint.send(conn, "dev-C", 4, 5, "x", IPC_MAX_DATA_LEN));
        EXPECT_TRUE(endpoint.send(conn, "", 0, 7, "abcdefgh", 8));
        endpoint.stop();
        Lines sends;
        for (const std::string& text : log_texts(log_path(c.log))) {
            if (text.compare(0, 5, "send ") == 0)
                sends.push_back(text);
        }
        EXPECT_EQ(sends, c.sends);
        const bool silent = std::string(c.log) == "ipc_test_silent.log";
        EXPECT_EQ(vexa_test::read_file(log_path(c.log)).empty(), silent);
    }
}

TEST(IPCBaseSend, HeadIsBigEndianAtItsOffsets) {
    SocketPair pair;
    vexa::Connection conn(dup(pair.a), 1);
    TestEndpoint endpoint(nullptr, "ipc_test_head.log");
    const time_t now = time(nullptr);
    ASSERT_TRUE(endpoint.send(conn, "dev-A", 1, 0x01020304, "xyz", 3));
    std::string bytes = read_exactly(pair.b, 103);
    ASSERT_EQ(bytes.size(), 103u);
    EXPECT_EQ(bytes.substr(0, 80), "dev-A" + std::string(75, '\0'));
    EXPECT_EQ(bytes.substr(80, 8), std::string("\0\0\0\x01\x01\x02\x03\x04", 8));
    EXPECT_LE(std::abs(static_cast<long long>(get_be32(bytes, 88)) - now), 60);
    EXPECT_GE(get_be32(bytes, 92), 0);
    EXPECT_LT(get_be32(bytes, 92), 1000000);
    EXPECT_EQ(bytes.substr(96), std::string("\0\0\0\x03xyz", 7));

    // A long device string is cut to 79 bytes; negative numbers in two's complement.
    ASSERT_TRUE(endpoint.send(conn, std::string(120, 'L').c_str(), -2, -1, nullptr, 0));
    bytes = read_exactly(pair.b, 100);
    ASSERT_EQ(bytes.size(), 100u);
    EXPECT_EQ(bytes.substr(0, 80), std::string(79, 'L') + '\0');
    EXPECT_EQ(bytes.substr(80, 8), "\xff\xff\xff\xfe\xff\xff\xff\xff");
    EXPECT_EQ(bytes.substr(96), std::string(4, '\0'));
    // An empty body is the head alone.
    EXPECT_FALSE(readable(pair.b));
}

TEST(IPCBaseSend, RefusedLengthsWriteNothingAndAFailedWriteKeepsTheSocket) {
    SocketPair pair;
    vexa::Connection conn(dup(pair.a), 1);
    const std::string name = "ipc_test_refused.log";
    {
        TestEndpoint endpoint(nullptr, name);
        const std::string body(IPC_MAX_DATA_LEN, 'b');
        EXPECT_FALSE(endpoint.send(conn, "dev", 1, 1, body.data(), IPC_MAX_DATA_LEN));
        EXPECT_FALSE(endpoint.send(conn, "dev", 1, 1, body.data(), -1));
        EXPECT_FALSE(readable(pair.b));
        // The stream is still at a message boundary.
        ASSERT_TRUE(endpoint.send(conn, "dev", 1, 77, nullptr, 0));
        const std::string bytes = read_exactly(pair.b, 100);
        ASSERT_EQ(bytes.size(), 100u);
        EXPECT_EQ(get_be32(bytes, 84), 77);

        pair.closeB();
        EXPECT_FALSE(endpoint.send(conn, "dev", 1, 1, "abc", 3));
        EXPECT_TRUE(conn.isOpen());  // nothing went out: the stream is whole
    }
    const std::string log = log_path(name);
    EXPECT_EQ(vexa_test::count_log_text(log, "error! data_len=512000 range[0-512000)"), 1);
    EXPECT_EQ(vexa_test::count_log_text(log, "error! data_len=-1 range[0-512000)"), 1);
}

// A small send buffer cuts every message into many partial writes, so that
// senders not held apart by the send lock interleave every time.
TEST(IPCBaseSend, ConcurrentSendersNeverInterleave) {
    vexa_test::TempDir tmp;
    SocketPair pair;
    const int small = 4096;
    ASSERT_EQ(setsockopt(pair.a, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);
    vexa::Connection conn(dup(pair.a), 1);
    const int senders = 4;
    const int perSender = 24;
    TestEndpoint endpoint(nullptr, "ipc_test_concurrent.log");
    // Body sizes and contents that a reader can recompute from the head alone.
    const auto body = [](int32_t sender, int32_t seq) {
        return vexa_test::pattern((seq * 68993 + sender * 50021) % 200001, sender * 100 + seq);
    };
    std::atomic<int> failedSends{0};
    std::vector<std::thread> threads;
    for (int s = 0; s < senders; ++s) {
        threads.emplace_back([&, s] {
            for (int seq = 0; seq < perSender; ++seq) {
                const std::string b = body(s, seq);
                failedSends += !endpoint.send(conn, "dev-concurrent", s, seq, b.data(),
                                              static_cast<int32_t>(b.size()));
            }
        });
    }
    vexa_test::FrameReader reader(tmp.file("reader.log"));
    const vexa::IPCMessage& m = reader.msg;
    std::vector<int> nextSeq(senders, 0);
    int whole = 0;
    for (; whole < senders * perSender; ++whole) {
        if (!reader.read(pair.b) || std::string(m.dev) != "dev-concurrent" || m.test_item < 0 ||
            m.test_item >= senders || m.event_id != nextSeq[m.test_item] ||
            std::string(m.data, m.data_len) != body(m.test_item, m.event_id) ||
            m.data[m.data_len] != '\0') {
            ADD_FAILURE() << "message " << whole << " broken or out of order";
            break;  // the senders must still be joined
        }
        ++nextSeq[m.test_item];
    }
    if (whole == senders * perSender) {
        EXPECT_FALSE(readable(pair.b));  // nothing beyond the last whole message
    }
    // Unblock senders that still wait on a reader that gave up.
    shutdown(pair.b, SHUT_RDWR);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failedSends.load(), 0);
}

}  // namespace
