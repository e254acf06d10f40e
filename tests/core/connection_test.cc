// One connection's queued answers and close, which the processing loop uses
// without ever waiting, and its receive buffer's storage.
#include "core/connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/framed_peer.h"
#include "support/test_support.h"

namespace {

// Fills the socket's send buffer (and the peer's receive buffer) until a
// write would block.
void fill(int fd) {
    const std::string chunk(65536, 'f');
    while (::send(fd, chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) {
    }
}

// An answer queued on a peer that reads nothing never holds up the thread that
// queues it, and the close asked for meanwhile waits for the answer: the
// descriptor leaves the poll set at once, while its number is still its own,
// and is closed only once the answer is out.
TEST(Connection, QueuedAnswersAndClosesNeverWait) {
    vexa_test::SocketPair pair;
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    auto conn = std::make_shared<vexa::Connection>(pair.a, 1, nullptr, nullptr, epoll);
    pair.a = -1;  // the connection's now
    ASSERT_TRUE(conn->watch());
    fill(conn->fd());
    const uint8_t answer[vexa::IPC_HEAD_SIZE] = {1, 2, 3};
    std::atomic<bool> returned{false};
    std::thread loop([&] {
        conn->post(answer, sizeof(answer));
        conn->requestClose(false);
        returned = true;
    });
    const bool quick = vexa_test::wait_until([&] { return returned.load(); }, 5000);
    if (!quick)
        pair.closeB();  // lets a blocked write fail, so that the thread ends
    loop.join();
    EXPECT_TRUE(quick) << "queueing an answer waited for the peer to read";
    if (!quick)
        return;
    EXPECT_FALSE(conn->service());
    epoll_event probe{};
    EXPECT_EQ(epoll_ctl(epoll, EPOLL_CTL_MOD, conn->fd(), &probe), -1);
    EXPECT_EQ(errno, ENOENT) << "still watched (or closed) while its answer waits";

    std::string drained;
    char buffer[65536];
    while (!conn->service()) {
        const ssize_t got = ::recv(pair.b, buffer, sizeof(buffer), MSG_DONTWAIT);
        drained.append(buffer, got > 0 ? static_cast<size_t>(got) : 0);
    }
    while (vexa_test::readable(pair.b, 100)) {
        const ssize_t got = ::recv(pair.b, buffer, sizeof(buffer), 0);
        if (got <= 0)
            break;
        drained.append(buffer, static_cast<size_t>(got));
    }
    EXPECT_EQ(drained.substr(drained.size() - sizeof(answer)),
              std::string(reinterpret_cast<const char*>(answer), sizeof(answer)));
    EXPECT_EQ(::recv(pair.b, buffer, 1, 0), 0) << "closed after its answer";
    close(epoll);
}

// A connection let go while still watched leaves the poll set before its
// number is closed: closed first, its entry would stay for as long as another
// descriptor holds the socket, and a removal by number could hit a connection
// given that number meanwhile.
TEST(Connection, LeavesThePollSetBeforeItsNumberIsClosed) {
    vexa_test::SocketPair pair;
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    const int kept = dup(pair.a);
    {
        vexa::Connection conn(pair.a, 1, nullptr, nullptr, epoll);
        pair.a = -1;  // the connection's now
        ASSERT_TRUE(conn.watch());
    }
    ASSERT_EQ(::send(pair.b, "x", 1, 0), 1);
    epoll_event event{};
    EXPECT_EQ(epoll_wait(epoll, &event, 1, 0), 0) << "still in the poll set";
    close(kept);
    close(epoll);
}

// A head announcing the largest body makes the buffer hold about what has
// arrived, not what it announces; the whole message, trickled in, comes out
// intact.
TEST(MessageBuffer, StorageGrowsWithWhatHasArrived) {
    vexa_test::SocketPair pair;
    vexa::MessageBuffer input;
    const std::string body = vexa_test::pattern(IPC_MAX_DATA_LEN - 1);
    const std::string head = vexa_test::head_bytes("big", 1, 700, 0, 0, IPC_MAX_DATA_LEN - 1);
    ASSERT_EQ(::send(pair.b, head.data(), head.size(), 0), static_cast<ssize_t>(head.size()));
    input.takeIn(pair.a);
    EXPECT_LE(input.capacity(), 4096u);
    EXPECT_TRUE(input.partial());
    vexa::SocketUtil util;
    vexa::IPCMessage msg{};
    for (size_t sent = 0; sent < body.size(); sent += 40000) {
        const std::string piece = body.substr(sent, 40000);
        ASSERT_EQ(::send(pair.b, piece.data(), piece.size(), 0),
                  static_cast<ssize_t>(piece.size()));
        while (input.takeIn(pair.a)) {
        }
        EXPECT_LE(input.capacity(), 2 * (head.size() + sent + piece.size()) + 4096);
    }
    ASSERT_EQ(input.next(&msg, nullptr, util), vexa::MessageBuffer::Next::kMessage);
    EXPECT_EQ(std::string(msg.data, static_cast<size_t>(msg.data_len)), body);
    EXPECT_EQ(msg.data[msg.data_len], '\0');
}

}  // namespace
