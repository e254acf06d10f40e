#include "core/ipcbase.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "comm/thread_util.h"
#include "support/test_support.h"

namespace {

using vexa_test::endpoint_dir;
using vexa_test::log_texts;

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
        int n = ++passes;
        comm::sleep_ms(1);
        return m_passLimit < 0 || n < m_passLimit;
    }

  private:
    const int m_passLimit;
};

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
        if (a >= 0)
            close(a);
        if (b >= 0)
            close(b);
    }
};

// A marker file in the endpoint directory for as long as it lives.
struct Marker {
    std::string path;
    explicit Marker(const std::string& name) : path(endpoint_dir() + name) {
        vexa_test::write_file(path, "");
    }
    ~Marker() { std::remove(path.c_str()); }
};

std::string log_path(const std::string& name) {
    return endpoint_dir() + name;
}

bool readable(int fd) {
    return vexa::SocketUtil::mysock_wait_readable(fd, 50) > 0;
}

std::string read_exactly(int fd, size_t size) {
    std::string bytes(size, '\0');
    ssize_t got = recv(fd, &bytes[0], size, MSG_WAITALL);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

uint32_t get32(const std::string& bytes, size_t at) {
    return (static_cast<uint32_t>(static_cast<uint8_t>(bytes[at])) << 24) |
           (static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 1])) << 16) |
           (static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 2])) << 8) |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 3]));
}

std::string hex(const std::string& bytes, size_t at, size_t count) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = at; i < at + count; ++i) {
        auto byte = static_cast<uint8_t>(bytes[i]);
        if (!out.empty())
            out += ' ';
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

size_t index_of(const std::vector<std::string>& texts, const std::string& text) {
    return static_cast<size_t>(std::find(texts.begin(), texts.end(), text) - texts.begin());
}

TEST(IPCBaseLog, WithoutCallbackNoThreadRunsAndTheLogTellsTheLifecycle) {
    const std::string name = "ipc_test_lifecycle.log";
    for (int round = 0; round < 2; ++round) {
        TestEndpoint endpoint(nullptr, name);
        endpoint.init();
        endpoint.start();
        comm::sleep_ms(20);
        EXPECT_FALSE(endpoint.isRunning());
        endpoint.stop();
        EXPECT_EQ(endpoint.passes.load(), 0);
        EXPECT_EQ(endpoint.starts.load(), 1);
        EXPECT_EQ(endpoint.stops.load(), 1);
    }
    const std::vector<std::string> once = {"++++++++++++START++++++++++++",
                                           "vexa_init_with_logger version=2016-06-19 log_flush=1",
                                           "socket_init",
                                           "SocketUtil:mysock_init_with_logger",
                                           "start",
                                           "stop",
                                           "waiting processThread...",
                                           "processThread stopped",
                                           "~IPCBase"};
    // The second endpoint appended to the first one's file.
    std::vector<std::string> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(log_texts(log_path(name)), twice);
}

TEST(IPCBaseThread, WithCallbackTheLoopRunsUntilStop) {
    const std::string name = "ipc_test_thread.log";
    {
        TestEndpoint endpoint(ignore_message, name);
        endpoint.init();
        endpoint.start();
        EXPECT_TRUE(vexa_test::wait_until([&] { return endpoint.passes >= 3; }));
        EXPECT_TRUE(endpoint.isRunning());
        endpoint.stop();
        // onStop runs while the loop still goes (a client waits there for its answer).
        EXPECT_TRUE(endpoint.runningDuringOnStop.load());
        EXPECT_FALSE(endpoint.isRunning());
        int passes = endpoint.passes;
        comm::sleep_ms(20);
        EXPECT_EQ(endpoint.passes.load(), passes);
    }
    std::vector<std::string> texts = log_texts(log_path(name));
    size_t start = index_of(texts, "start");
    size_t loop = index_of(texts, "process_thread...");
    size_t stop = index_of(texts, "stop");
    size_t finished = index_of(texts, "process_thread finished");
    size_t stopped = index_of(texts, "processThread stopped");
    ASSERT_LT(stopped, texts.size()) << testing::PrintToString(texts);
    EXPECT_LT(start, loop);
    EXPECT_LT(loop, stop);
    EXPECT_LT(stop, finished);
    EXPECT_LT(finished, stopped);
}

TEST(IPCBaseThread, LoopThatEndsByItselfLeavesStopNothingToWaitFor) {
    TestEndpoint endpoint(ignore_message, "ipc_test_selfend.log", 5);
    endpoint.start();
    EXPECT_TRUE(
        vexa_test::wait_until([&] { return endpoint.passes == 5 && !endpoint.isRunning(); }));
    long long before = vexa_test::monotonic_ms();
    endpoint.stop();
    EXPECT_LT(vexa_test::monotonic_ms() - before, 2000);
    EXPECT_EQ(endpoint.passes.load(), 5);
    EXPECT_FALSE(endpoint.runningDuringOnStop.load());
}

TEST(IPCBaseMarkers, NotPrintMarkerSilencesTheWholeLog) {
    const std::string name = "ipc_test_silent.log";
    {
        Marker marker("ipc_notprint.txt");
        TestEndpoint endpoint(ignore_message, name);
        endpoint.start();
        SocketPair pair;
        ASSERT_GE(pair.a, 0);
        EXPECT_TRUE(endpoint.send(pair.a, "d", 1, 2, "abc", 3));
        EXPECT_FALSE(endpoint.send(pair.a, "d", 1, 2, "abc", IPC_MAX_DATA_LEN));
        endpoint.stop();
    }
    EXPECT_EQ(vexa_test::read_file(log_path(name)), "");
}

TEST(IPCBaseMarkers, SendRecvMarkerLogsEverySendAndIsReadAtConstruction) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    // Made before the marker: it never traces, even while the marker exists.
    TestEndpoint before(nullptr, "ipc_test_notrace.log");
    std::string traced = "ipc_test_trace.log";
    {
        Marker marker("ipc_sendrecv.txt");
        TestEndpoint endpoint(nullptr, traced);
        EXPECT_TRUE(before.send(pair.a, "dev", 1, 2, "x", 1));
        // Removing the marker changes nothing for an endpoint that saw it.
        std::remove(marker.path.c_str());
        EXPECT_TRUE(endpoint.send(pair.a, "dev-A", 3, 1000, "hello", 5));
        EXPECT_TRUE(endpoint.send(pair.a, "dev-B", -1, 9002, nullptr, 0));
        EXPECT_FALSE(endpoint.send(pair.a, "dev-C", 4, 5, "x", IPC_MAX_DATA_LEN));
        EXPECT_TRUE(endpoint.send(pair.a, "", 0, 7, "abcdefgh", 8));
        std::vector<std::string> sends;
        for (const std::string& text : log_texts(log_path(traced))) {
            if (text.compare(0, 5, "send ") == 0)
                sends.push_back(text);
        }
        EXPECT_EQ(sends,
                  (std::vector<std::string>{"send dev=dev-A test_item=3 event_id=1000 data_len=5",
                                            "send dev=dev-B test_item=-1 event_id=9002 data_len=0",
                                            "send dev= test_item=0 event_id=7 data_len=8"}));
    }
    for (const std::string& text : log_texts(log_path("ipc_test_notrace.log")))
        EXPECT_NE(text.compare(0, 5, "send "), 0) << text;
}

TEST(IPCBaseSend, HeadIsBigEndianAtItsOffsets) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    TestEndpoint endpoint(nullptr, "ipc_test_head.log");
    time_t now = time(nullptr);
    ASSERT_TRUE(endpoint.send(pair.a, "dev-A", 1, 0x01020304, "xyz", 3));
    std::string bytes = read_exactly(pair.b, 103);
    ASSERT_EQ(bytes.size(), 103u);
    EXPECT_EQ(std::string(bytes.data()), "dev-A");
    EXPECT_EQ(bytes.substr(5, 75), std::string(75, '\0'));
    EXPECT_EQ(hex(bytes, 80, 4), "00 00 00 01");
    EXPECT_EQ(hex(bytes, 84, 4), "01 02 03 04");
    EXPECT_EQ(hex(bytes, 96, 4), "00 00 00 03");
    auto sec = static_cast<int32_t>(get32(bytes, 88));
    EXPECT_LE(std::abs(static_cast<long long>(sec) - static_cast<int32_t>(now)), 60);
    EXPECT_LT(get32(bytes, 92), 1000000u);
    EXPECT_EQ(bytes.substr(100), "xyz");

    // A long device string is cut to 79 bytes; negative numbers in two's complement.
    std::string longDev(120, 'L');
    ASSERT_TRUE(endpoint.send(pair.a, longDev.c_str(), -2, -1, nullptr, 0));
    bytes = read_exactly(pair.b, 100);
    ASSERT_EQ(bytes.size(), 100u);
    EXPECT_EQ(bytes.substr(0, 80), std::string(79, 'L') + '\0');
    EXPECT_EQ(hex(bytes, 80, 4), "ff ff ff fe");
    EXPECT_EQ(hex(bytes, 84, 4), "ff ff ff ff");
    EXPECT_EQ(hex(bytes, 96, 4), "00 00 00 00");
    // An empty body is the head alone.
    EXPECT_FALSE(readable(pair.b));
}

// Reads one frame from `fd` into a buffer prefilled with 0x7f.
class Reader {
  public:
    explicit Reader(const std::string& logPath)
        : m_logger(logPath, true, true, true, 0), m_buffer(IPC_MAX_DATA_LEN, '\x7f') {
        m_util.mysock_init_with_logger(&m_logger);
        std::memset(&msg, 0, sizeof(msg));
        msg.data = m_buffer.data();
    }
    bool read(int fd) { return vexa::readMsgFromSocket(&m_util, fd, &msg, &m_logger, &m_stop); }

    vexa::IPCMessage msg;

  private:
    comm::Logger m_logger;
    vexa::SocketUtil m_util;
    vexa::StopFlag m_stop{0};
    std::vector<char> m_buffer;
};

TEST(IPCBaseSend, EmptyAndLargestBodiesArriveWithTheirNul) {
    vexa_test::TempDir tmp;
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    TestEndpoint endpoint(nullptr, "ipc_test_bodies.log");
    Reader reader(tmp.file("reader.log"));

    ASSERT_TRUE(endpoint.send(pair.a, "dev", 2, 3, nullptr, 0));
    ASSERT_TRUE(reader.read(pair.b));
    EXPECT_EQ(reader.msg.data_len, 0);
    EXPECT_EQ(reader.msg.data[0], '\0');

    const int32_t largest = IPC_MAX_DATA_LEN - 1;
    std::vector<char> body(largest);
    for (int32_t i = 0; i < largest; ++i)
        body[i] = static_cast<char>(1 + i % 251);  // never 0
    bool sent = false;
    // The body is larger than the pair's buffers: the send waits for the reader.
    std::thread sender([&] { sent = endpoint.send(pair.a, "dev", 2, 4, body.data(), largest); });
    bool got = reader.read(pair.b);
    sender.join();
    EXPECT_TRUE(sent);
    ASSERT_TRUE(got);
    EXPECT_EQ(reader.msg.data_len, largest);
    EXPECT_EQ(reader.msg.event_id, 4);
    EXPECT_TRUE(std::memcmp(reader.msg.data, body.data(), largest) == 0);
    EXPECT_EQ(reader.msg.data[largest], '\0');
    EXPECT_EQ(strlen(reader.msg.data), static_cast<size_t>(largest));
}

TEST(IPCBaseSend, LengthsOutsideTheRangeAreRefusedAndNothingIsWritten) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    const std::string name = "ipc_test_range.log";
    {
        TestEndpoint endpoint(nullptr, name);
        std::vector<char> body(IPC_MAX_DATA_LEN + 1, 'b');
        EXPECT_FALSE(endpoint.send(pair.a, "dev", 1, 1, body.data(), IPC_MAX_DATA_LEN));
        EXPECT_FALSE(endpoint.send(pair.a, "dev", 1, 1, body.data(), -1));
        EXPECT_FALSE(readable(pair.b));
        // The stream is still at a message boundary.
        ASSERT_TRUE(endpoint.send(pair.a, "dev", 1, 77, nullptr, 0));
        std::string bytes = read_exactly(pair.b, 100);
        ASSERT_EQ(bytes.size(), 100u);
        EXPECT_EQ(get32(bytes, 84), 77u);
    }
    EXPECT_EQ(vexa_test::count_log_text(log_path(name), "error! data_len=512000 range[0-512000)"),
              1);
    EXPECT_EQ(vexa_test::count_log_text(log_path(name), "error! data_len=-1 range[0-512000)"), 1);
}

TEST(IPCBaseSend, FailedWriteIsFalseAndLeavesTheSocketOpen) {
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    close(pair.b);
    pair.b = -1;
    const std::string name = "ipc_test_brokenpeer.log";
    {
        TestEndpoint endpoint(nullptr, name);
        EXPECT_FALSE(endpoint.send(pair.a, "dev", 1, 1, "abc", 3));
        EXPECT_NE(fcntl(pair.a, F_GETFD), -1);
    }
    const std::string error = std::string(std::strerror(EPIPE)) + "(" + std::to_string(EPIPE) + ")";
    EXPECT_EQ(vexa_test::count_log_text(
                  log_path(name), "writeMsgToSocket write msg failed. write_len=-1,error=" + error),
              1);
}

// Body sizes and contents that a reader can recompute from the head alone.
int32_t body_size(int32_t sender, int32_t seq) {
    return (seq * 68993 + sender * 50021) % 200001;
}
char body_byte(int32_t sender, int32_t seq, int32_t at) {
    return static_cast<char>((sender * 31 + seq * 7 + at) & 0xFF);
}

TEST(IPCBaseSend, ConcurrentSendersNeverInterleave) {
    vexa_test::TempDir tmp;
    SocketPair pair;
    ASSERT_GE(pair.a, 0);
    const std::string name = "ipc_test_concurrent.log";
    const int senders = 4;
    const int perSender = 24;
    TestEndpoint endpoint(nullptr, name);
    std::atomic<int> failedSends{0};
    std::vector<std::thread> threads;
    for (int s = 0; s < senders; ++s) {
        threads.emplace_back([&, s] {
            std::vector<char> body(200001);
            for (int seq = 0; seq < perSender; ++seq) {
                int32_t size = body_size(s, seq);
                for (int32_t i = 0; i < size; ++i)
                    body[i] = body_byte(s, seq, i);
                if (!endpoint.send(pair.a, "dev-concurrent", s, seq, body.data(), size))
                    ++failedSends;
            }
        });
    }

    Reader reader(tmp.file("reader.log"));
    std::vector<int> nextSeq(senders, 0);
    int whole = 0;
    std::string problem;
    for (int n = 0; n < senders * perSender && problem.empty(); ++n) {
        if (!reader.read(pair.b)) {
            problem = "read failed after " + std::to_string(n) + " messages";
            break;
        }
        const vexa::IPCMessage& msg = reader.msg;
        int32_t s = msg.test_item;
        if (std::string(msg.dev) != "dev-concurrent" || s < 0 || s >= senders ||
            msg.event_id != nextSeq[s] || msg.data_len != body_size(s, msg.event_id)) {
            problem = "bad head: item " + std::to_string(s) + " event " +
                      std::to_string(msg.event_id) + " len " + std::to_string(msg.data_len);
            break;
        }
        for (int32_t i = 0; i < msg.data_len; ++i) {
            if (msg.data[i] != body_byte(s, msg.event_id, i)) {
                problem = "bad body byte " + std::to_string(i) + " of message " +
                          std::to_string(msg.event_id) + " from sender " + std::to_string(s);
                break;
            }
        }
        if (msg.data[msg.data_len] != '\0')
            problem = "no NUL after the body";
        ++nextSeq[s];
        ++whole;
    }
    if (problem.empty()) {
        EXPECT_FALSE(readable(pair.b));  // nothing beyond the last whole message
    }
    // Unblock senders that still wait on a reader that gave up.
    shutdown(pair.b, SHUT_RDWR);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(problem, "");
    EXPECT_EQ(whole, senders * perSender);
    EXPECT_EQ(failedSends.load(), 0);
}

}  // namespace
