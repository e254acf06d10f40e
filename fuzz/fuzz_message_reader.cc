// readMsgFromSocket on arbitrary bytes: the input is written into one end of a
// connected socket pair, whose write side is then shut down, and messages are
// read from the other end until the reader refuses. Every accepted message is
// compared with the bytes that were sent, and every refusal must have a reason
// in those bytes (a short head or body, a negative or too large length).
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "comm/logger.h"
#include "core/ipc_message.h"
#include "fuzz_support.h"

namespace {

// One second: the write side is shut down before the reader could wait that
// long, so a short input ends at end-of-file, not at a time-out.
constexpr int32_t kIoTimeoutMs = 1000;
// Two messages with the largest body fit; anything longer is not tried.
constexpr size_t kMaxInput = 2 * (100 + 512000);
// The reader's log is started afresh this often, so it stays small.
constexpr int kRunsPerLog = 1000;

struct Reader {
    Reader() : logger(vexa_fuzz::sandbox_file("reader.log"), true, false, false, 0) {
        util.mysock_init_with_logger(&logger);
        util.mysock_set_read_timeout(kIoTimeoutMs);
        util.mysock_set_write_timeout(kIoTimeoutMs);
        // Exactly the size the endpoints give their receive buffer, so that a
        // write past it is caught.
        body.reset(new char[IPC_MAX_DATA_LEN]);
    }

    comm::Logger logger;
    vexa::SocketUtil util;
    std::unique_ptr<char[]> body;
    int runs = 0;
};

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

// Writes what is left with blocking writes; stops early when the reader has
// closed its end. Then shuts the write side down, so the reader sees the end.
void write_rest(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
}

// Writes as much as fits into the socket buffer at once (all of a short
// input); the rest, if any, goes from a thread while the reader reads.
std::thread write_input(int fd, const uint8_t* data, size_t size) {
    int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    while (size > 0) {
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    fcntl(fd, F_SETFL, flags);
    if (size == 0) {
        shutdown(fd, SHUT_WR);
        return std::thread();
    }
    return std::thread(write_rest, fd, data, size);
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
    std::thread writer = write_input(fds[1], data, size);

    const vexa::StopFlag abort{0};
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
        offset += 100 + static_cast<size_t>(msg.data_len);
    }

    // Closing the reading end first ends a writer still blocked on a full buffer.
    close(fds[0]);
    if (writer.joinable()) {
        writer.join();
    }
    close(fds[1]);

    if (++r.runs % kRunsPerLog == 0) {
        r.logger.close();
        r.logger.open(vexa_fuzz::sandbox_file("reader.log"), true, false, false, 0);
    }
    return 0;
}
