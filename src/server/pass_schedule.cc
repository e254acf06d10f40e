#include "server/pass_schedule.h"

#include <algorithm>
#include <cstddef>

namespace vexa {

const std::vector<Connection*>& PassSchedule::collect(std::vector<Connection*>* woken) {
    if (m_stalled.empty()) {
        m_held = 0;
    }
    m_ready.clear();
    m_ready.swap(m_pending);
    m_ready.insert(m_ready.end(), woken->begin(), woken->end());
    woken->clear();
    // The order a pass has always had: the socket list's, oldest first...
    std::sort(m_ready.begin(), m_ready.end(),
              [](const Connection* a, const Connection* b) { return a->serial() < b->serial(); });
    m_ready.erase(std::unique(m_ready.begin(), m_ready.end()), m_ready.end());
    // ...taking turns with those the last pass had no time for: neither a
    // crowd that became ready at once nor a steady stream of new messages
    // makes the other wait for more than a pass.
    if (!m_carried.empty()) {
        m_ready.erase(
            std::remove_if(m_ready.begin(), m_ready.end(),
                           [this](const Connection* conn) { return m_isCarried.count(conn) != 0; }),
            m_ready.end());
        m_taking.clear();
        for (size_t fresh = 0, carried = 0; fresh < m_ready.size() || carried < m_carried.size();) {
            if (fresh < m_ready.size()) {
                m_taking.push_back(m_ready[fresh++]);
            }
            if (carried < m_carried.size()) {
                m_taking.push_back(m_carried[carried++]);
            }
        }
        m_ready.swap(m_taking);
        m_carried.clear();
        m_isCarried.clear();
    }
    return m_ready;
}

void PassSchedule::carryFrom(size_t served) {
    if (served < m_ready.size()) {
        m_carried.assign(m_ready.begin() + static_cast<ptrdiff_t>(served), m_ready.end());
        m_isCarried.insert(m_carried.begin(), m_carried.end());
    }
}

void PassSchedule::requeue(Connection* conn) {
    const MessageBuffer& input = conn->input();
    if (conn->closing()) {
        return;
    }
    if (input.ready()) {
        m_pending.push_back(conn);
    } else if (input.partial() && m_isStalled.insert(conn).second) {
        m_stalled.push_back(conn);
    }
}

size_t PassSchedule::afterTurn(const Connection* conn, size_t incompleteBefore) {
    m_held += conn->input().incompleteBytes();
    m_held -= std::min(incompleteBefore, m_held);
    return m_held;
}

PassSchedule::Expiry PassSchedule::expire(int64_t nowMs, int32_t readBudgetMs, size_t maxBytes) {
    Expiry expiry;
    std::vector<Connection*> still;
    for (Connection* conn : m_stalled) {
        MessageBuffer& input = conn->input();
        if (conn->closing() || !input.partial()) {
            m_isStalled.erase(conn);
        } else if (input.expire(nowMs, readBudgetMs)) {
            m_isStalled.erase(conn);
            m_pending.push_back(conn);  // its failure is reported in this pass
        } else {
            expiry.heldBytes += input.incompleteBytes();
            still.push_back(conn);
        }
    }
    m_stalled.swap(still);
    m_held = expiry.heldBytes;
    if (expiry.heldBytes <= maxBytes) {
        return expiry;
    }
    // The oldest first: a test's message completes at once, a trickle does not.
    std::sort(m_stalled.begin(), m_stalled.end(), [](const Connection* a, const Connection* b) {
        return a->input().incompleteSinceMs() < b->input().incompleteSinceMs();
    });
    size_t held = expiry.heldBytes;
    size_t count = 0;
    for (; count < m_stalled.size() && held > maxBytes; ++count) {
        held -= m_stalled[count]->input().incompleteBytes();
    }
    expiry.giveUp.assign(m_stalled.begin(), m_stalled.begin() + static_cast<ptrdiff_t>(count));
    m_stalled.erase(m_stalled.begin(), m_stalled.begin() + static_cast<ptrdiff_t>(count));
    for (const Connection* conn : expiry.giveUp) {
        m_isStalled.erase(conn);
    }
    m_held = held;
    return expiry;
}

void PassSchedule::forget(const Connection* conn) {
    m_pending.erase(std::remove(m_pending.begin(), m_pending.end(), conn), m_pending.end());
    if (m_isStalled.erase(conn) != 0) {
        m_stalled.erase(std::remove(m_stalled.begin(), m_stalled.end(), conn), m_stalled.end());
    }
    if (m_isCarried.erase(conn) != 0) {
        m_carried.erase(std::remove(m_carried.begin(), m_carried.end(), conn), m_carried.end());
    }
}

}  // namespace vexa
