// Which connections the server's processing loop serves in one pass, and in
// what order: one message per connection per pass, oldest connection first;
// those a pass had no time for take turns with the others in the next one. Also watches the
// incomplete messages: one that waits too long fails, and while all of them
// hold more than a limit, the connections holding the oldest are given up.
//
// Used by the processing thread only. It holds plain pointers: the server
// forgets a connection here before it lets go of it.
#ifndef VEXA_SERVER_PASS_SCHEDULE_H
#define VEXA_SERVER_PASS_SCHEDULE_H

#include <cstddef>
#include <cstdint>
#include <unordered_set>
#include <vector>

#include "core/connection.h"

namespace vexa {

class PassSchedule {
  public:
    // A connection needs a look without waiting for its socket: a whole
    // message (or the end) is here, or a pass ran out of time before it.
    bool readyWithoutWaiting() const { return !m_pending.empty() || !m_carried.empty(); }
    // Part of a message waits for the rest somewhere.
    bool hasStalled() const { return !m_stalled.empty(); }

    // This pass's connections: `woken` (emptied) and those with input already
    // here, oldest first, taking turns with those the last pass had no time
    // for.
    const std::vector<Connection*>& collect(std::vector<Connection*>* woken);
    // The pass served the first `served` of them: the rest go first next time.
    void carryFrom(size_t served);
    // After a connection's turn: what remains of its input decides when it
    // is looked at again.
    void requeue(Connection* conn);
    // After a turn that began with `incompleteBefore` bytes of an incomplete
    // message on conn: the bytes all incomplete messages hold now, as far as
    // this schedule knows (exactly after expire(), since then by each turn).
    size_t afterTurn(const Connection* conn, size_t incompleteBefore);

    struct Expiry {
        size_t heldBytes = 0;             // in incomplete messages, before any is given up
        std::vector<Connection*> giveUp;  // oldest first: to be ended, no longer scheduled
    };
    // Incomplete messages silent for longer than readBudgetMs fail in this
    // pass (as a counted read whose wait ran out would). If the rest hold
    // more than maxBytes, the connections holding the oldest are given up
    // until they hold no more.
    Expiry expire(int64_t nowMs, int32_t readBudgetMs, size_t maxBytes);
    // The connection is gone: no pointer to it stays here.
    void forget(const Connection* conn);

  private:
    std::vector<Connection*> m_ready;
    std::vector<Connection*> m_taking;   // kept to avoid allocating on every pass
    std::vector<Connection*> m_carried;  // ready, left over when a pass ran out of time
    std::vector<Connection*> m_pending;  // whole message or end already received
    std::vector<Connection*> m_stalled;  // part of a message waits for the rest
    // Membership of the last two, so that no step costs as many steps as
    // there are connections for each connection.
    std::unordered_set<const Connection*> m_isCarried;
    std::unordered_set<const Connection*> m_isStalled;
    size_t m_held = 0;  // see afterTurn
};

}  // namespace vexa

#endif  // VEXA_SERVER_PASS_SCHEDULE_H
