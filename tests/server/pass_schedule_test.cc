// The order in which the server's loop serves its connections, and which
// incomplete messages it gives up.
#include "server/pass_schedule.h"

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/framed_peer.h"

namespace {

using vexa::Connection;
using Order = std::vector<Connection*>;

struct Peer {
    explicit Peer(uint64_t serial) : conn(std::make_shared<Connection>(pair.a, serial)) {
        pair.a = -1;  // the connection's now
    }
    // `bytes` arrive and are taken in.
    void arrive(const std::string& bytes) {
        ASSERT_EQ(::send(pair.b, bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
        conn->input().takeIn(conn->fd());
    }
    vexa_test::SocketPair pair;
    std::shared_ptr<Connection> conn;
};

// Oldest connection first, except that those a pass had no time for take
// turns with the others in the next one; a whole message already here makes a
// connection ready without its socket.
TEST(PassSchedule, OldestFirstAndWhatAPassLeftTakesTurns) {
    Peer a(1), b(2), c(3), d(4);
    vexa::PassSchedule schedule;
    Order woken{d.conn.get(), c.conn.get(), a.conn.get(), c.conn.get()};
    EXPECT_EQ(schedule.collect(&woken), (Order{a.conn.get(), c.conn.get(), d.conn.get()}));
    schedule.carryFrom(1);
    EXPECT_TRUE(schedule.readyWithoutWaiting());
    b.arrive(vexa_test::head_bytes("b", 2, 700, 0, 0, 0));
    schedule.requeue(b.conn.get());
    woken = {a.conn.get(), c.conn.get()};
    EXPECT_EQ(schedule.collect(&woken),
              (Order{a.conn.get(), c.conn.get(), b.conn.get(), d.conn.get()}));
    EXPECT_FALSE(schedule.readyWithoutWaiting());
}

// While incomplete messages hold more than the limit, the connections holding
// the oldest are given up; one silent longer than the read budget fails.
TEST(PassSchedule, TheOldestIncompleteMessagesAreGivenUp) {
    Peer oldest(1), middle(2), young(3);
    vexa::PassSchedule schedule;
    for (Peer* peer : {&oldest, &middle, &young}) {
        usleep(20 * 1000);  // each message begins after the one before
        peer->arrive(vexa_test::head_bytes("x", 1, 700, 0, 0, 1000) + std::string(400, 'x'));
        schedule.requeue(peer->conn.get());
    }
    const int64_t now = comm::monotonic_ms();
    auto expiry = schedule.expire(now, 30000, 1100);
    EXPECT_EQ(expiry.heldBytes, 1500u);
    EXPECT_EQ(expiry.giveUp, (Order{oldest.conn.get()}));
    expiry = schedule.expire(now + 31000, 30000, 1100);
    EXPECT_TRUE(expiry.giveUp.empty());
    EXPECT_TRUE(schedule.readyWithoutWaiting());  // both failed, to be reported
    EXPECT_FALSE(schedule.hasStalled());
}

}  // namespace
