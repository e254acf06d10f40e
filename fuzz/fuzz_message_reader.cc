// The message readers on arbitrary bytes. The input is written into one end of
// a connected socket pair, whose write side is then shut down, and messages are
// read from the other end with readMsgFromSocket until it refuses. Every
// accepted message is compared with the bytes that were sent, and every
// refusal must have a reason in those bytes (a short head or body, a negative
// or too large length). Then the same bytes go to the buffered reader of the
// endpoints (MessageBuffer) in chunks of sizes drawn from the input, and it
// must give the same messages, the same refusal and the same log lines.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include <string>
#include <vector>

#include "comm/logger.h"
#include "core/ipc_message.h"
#include "core/message_buffer.h"
#include "fuzz_support.h"

namespace {

// One second: the write side is shut down before the reader could wait that
// long, so a short input ends at end-of-file, not at a time-out.
constexpr int32_t kIoTimeoutMs = 1000;
// Two messages with the largest body fit; anything longer is not tried.
constexpr size_t kMaxInput = 2 * (100 + 512000);

struct Reader {
    Reader()
        : logger(vexa_fuzz::sandbox_file("reader.log"), true, false, false, 0),
          bufferedLogger(vexa_fuzz::sandbox_file("buffered.log"), true, false, false, 0) {
        util.mysock_init_with_logger(&logger);
        util.mysock_set_read_timeout(kIoTimeoutMs);
        util.mysock_set_write_timeout(kIoTimeoutMs);
        bufferedUtil.mysock_init_with_logger(&bufferedLogger);
        // Exactly the size the endpoints give their receive buffer, so that a
        // write past it is caught.
        body.reset(new char[IPC_MAX_DATA_LEN]);
    }
    // Both logs start afresh, so that each run's lines can be compared.
    void restartLogs() {
        logger.close();
        logger.open(vexa_fuzz::sandbox_file("reader.log"), true, false, true, 0);
        bufferedLogger.close();
        bufferedLogger.open(vexa_fuzz::sandbox_file("buffered.log"), true, false, true, 0);
    }

    comm::Logger logger;
    vexa::SocketUtil util;
    comm::Logger bufferedLogger;
    vexa::SocketUtil bufferedUtil;
    std::unique_ptr<char[]> body;
};

// A message as a reader gave it: head fields, then the body.
std::string flatten(const vexa::IPCMessage& msg) {
    std::string bytes(msg.dev, sizeof(msg.dev));
    for (int32_t field : {msg.test_item, msg.event_id, msg.time_sec, msg.time_usec, msg.data_len})
        bytes.append(reinterpret_cast<const char*>(&field), sizeof(field));
    return bytes.append(msg.data, static_cast<size_t>(msg.data_len));
}

// A log's texts without their time stamps and without the error text, which
// is whatever errno held when a stream ended.
std::vector<std::string> log_texts(const std::string& path) {
    std::vector<std::string> texts;
    FILE* in = std::fopen(path.c_str(), "r");
    if (in == nullptr)
        return texts;
    char line[8192];
    while (std::fgets(line, sizeof(line), in) != nullptr) {
        std::string text = line;
        const size_t blank = text.find(' ', text.find(' ') + 1);  // after date and time
        text = blank == std::string::npos ? text : text.substr(blank + 1);
        const size_t error = text.find("error=");
        texts.push_back(error == std::string::npos ? text : text.substr(0, error));
    }
    std::fclose(in);
    return texts;
}

// Chunk sizes from 1 to 4096 bytes, drawn from the input itself.
class Chunks {
  public:
    Chunks(const uint8_t* data, size_t size) {
        for (size_t i = 0; i < size; ++i)
            m_state = (m_state ^ data[i]) * 1099511628211ull;
    }
    size_t next() {
        m_state = m_state * 6364136223846793005ull + 1442695040888963407ull;
        return 1 + (m_state >> 33) % 4096;
    }

  private:
    uint64_t m_state = 1469598103934665603ull;
};

// What the buffered reader makes of `data` when it arrives in chunks: its
// messages, in order. Ends at its refusal, which must come.
std::vector<std::string> read_buffered(const uint8_t* data, size_t size, Reader& r) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        std::perror("socketpair");
        std::abort();
    }
    vexa::MessageBuffer buffer;
    std::vector<std::string> messages;
    Chunks chunks(data, size);
    size_t sent = 0;
    bool ended = false;
    for (bool refused = false; !refused;) {
        if (sent < size) {
            const ssize_t n = send(fds[1], data + sent, std::min(chunks.next(), size - sent),
                                   MSG_NOSIGNAL | MSG_DONTWAIT);
            sent += n > 0 ? static_cast<size_t>(n) : 0;
        } else if (!ended) {
            shutdown(fds[1], SHUT_WR);
            ended = true;
        }
        buffer.takeIn(fds[0]);
        for (;;) {
            vexa::IPCMessage msg{};
            const vexa::MessageBuffer::Next next =
                buffer.next(&msg, &r.bufferedLogger, r.bufferedUtil);
            if (next == vexa::MessageBuffer::Next::kMessage) {
                FUZZ_CHECK(msg.data[msg.data_len] == '\0');
                messages.push_back(flatten(msg));
                buffer.done();
                continue;
            }
            refused = next == vexa::MessageBuffer::Next::kFailed;
            FUZZ_CHECK(!refused || ended || !buffer.partial());
            break;
        }
    }
    close(fds[0]);
    close(fds[1]);
    return messages;
}

Reader& reader() {
    static Reader* instance = new Reader();
    return *instance;
}

// Independent of the codec under test.
int32_t big_endian_at(const uint8_t* at) {
    return static_cast<int32_t>(static_cast<uint32_t>(at[0]) << 24 |
                                static_cast<uint32_t>(at[1]) << 16 |
                                static_cast<uint32_t>(at[2]) << 8 | static_cast<uint32_t>(at[3]));
}

// Sends as much of `data` as the socket takes (with `flags`, all of it when
// they allow waiting); stops early when the reader has closed its end.
size_t send_some(int fd, const uint8_t* data, size_t size, int flags) {
    size_t sent = 0;
    while (sent < size) {
        const ssize_t n = send(fd, data + sent, size - sent, MSG_NOSIGNAL | flags);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        sent += static_cast<size_t>(n);
    }
    return sent;
}

// Writes what is left, waiting for room; then shuts the write side down, so
// the reader sees the end.
void write_rest(int fd, const uint8_t* data, size_t size) {
    send_some(fd, data, size, 0);
    shutdown(fd, SHUT_WR);
}

// Writes as much as fits into the socket buffer at once (all of a short
// input); the rest, if any, goes from a thread while the reader reads.
std::thread write_input(int fd, const uint8_t* data, size_t size) {
    const size_t sent = send_some(fd, data, size, MSG_DONTWAIT);
    if (sent == size) {
        shutdown(fd, SHUT_WR);
        return std::thread();
    }
    return std::thread(write_rest, fd, data + sent, size - sent);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    vexa_fuzz::init_sandbox();
    signal(SIGPIPE, SIG_IGN);
    reader();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) {
        return 0;
    }
    Reader& r = reader();
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        std::perror("socketpair");
        std::abort();
    }
    r.restartLogs();
    std::thread writer = write_input(fds[1], data, size);

    const vexa::StopFlag abort{0};
    std::vector<std::string> messages;
    size_t offset = 0;
    for (;;) {
        vexa::IPCMessage msg{};
        msg.data = r.body.get();
        const bool ok = vexa::readMsgFromSocket(&r.util, fds[0], &msg, &r.logger, &abort);
        const size_t left = size - offset;
        const uint8_t* head = data + offset;
        if (!ok) {
            if (left >= 100) {
                const int64_t announced = big_endian_at(head + 96);
                FUZZ_CHECK(announced < 0 || announced > vexa::kMaxBodyLength ||
                           static_cast<int64_t>(left - 100) < announced);
            }
            break;
        }
        FUZZ_CHECK(left >= 100);
        FUZZ_CHECK(msg.data_len >= 0 && msg.data_len <= vexa::kMaxBodyLength);
        FUZZ_CHECK(static_cast<size_t>(msg.data_len) <= left - 100);
        FUZZ_CHECK(std::memcmp(msg.dev, head, 80) == 0);
        FUZZ_CHECK(msg.test_item == big_endian_at(head + 80));
        FUZZ_CHECK(msg.event_id == big_endian_at(head + 84));
        FUZZ_CHECK(msg.time_sec == big_endian_at(head + 88));
        FUZZ_CHECK(msg.time_usec == big_endian_at(head + 92));
        FUZZ_CHECK(msg.data_len == big_endian_at(head + 96));
        FUZZ_CHECK(std::memcmp(msg.data, head + 100, static_cast<size_t>(msg.data_len)) == 0);
        FUZZ_CHECK(msg.data[msg.data_len] == '\0');
        messages.push_back(flatten(msg));
        offset += 100 + static_cast<size_t>(msg.data_len);
    }

    // Closing the reading end first ends a writer still blocked on a full buffer.
    close(fds[0]);
    if (writer.joinable()) {
        writer.join();
    }
    close(fds[1]);

    FUZZ_CHECK(read_buffered(data, size, r) == messages);
    FUZZ_CHECK(log_texts(vexa_fuzz::sandbox_file("buffered.log")) ==
               log_texts(vexa_fuzz::sandbox_file("reader.log")));
    return 0;
}
