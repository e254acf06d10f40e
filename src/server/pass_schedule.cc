#include "server/pass_schedule.h"

#include <algorithm>
#include <cstddef>

namespace vexa {

const std::vector<Connection*>& PassSchedule::collect(std::vector<Connection*>* woken) {
    m_ready.clear();
    m_ready.swap(m_pending);
    m_ready.insert(m_ready.end(), woken->begin(), woken->end());
    woken->clear();
    // The order a pass has always had: the socket list's, oldest first...
    std::sort(m_ready.begin(), m_ready.end(),
              [](const Connection* a, const Connection* b) { return a->serial() < b->serial(); });
    m_ready.erase(std::unique(m_ready.begin(), m_ready.end()), m_ready.end());
    // ...after those the last pass had no time for.
    if (!m_carried.empty()) {
        m_ready.erase(std::remove_if(m_ready.begin(), m_ready.end(),
                                     [this](const Connection* conn) {
                                         return std::find(m_carried.begin(), m_carried.end(),
                                                          conn) != m_carried.end();
                                     }),
                      m_ready.end());
        m_ready.insert(m_ready.begin(), m_carried.begin(), m_carried.end());
        m_carried.clear();
    }
    return m_ready;
}

void PassSchedule::carryFrom(size_t served) {
    if (served < m_ready.size()) {
        m_carried.assign(m_ready.begin() + static_cast<ptrdiff_t>(served), m_ready.end());
    }
}

void PassSchedule::requeue(Connection* conn) {
    const MessageBuffer& input = conn->input();
    if (conn->closing()) {
        return;
    }
    if (input.ready()) {
        m_pending.push_back(conn);
    } else if (input.partial() &&
               std::find(m_stalled.begin(), m_stalled.end(), conn) == m_stalled.end()) {
        m_stalled.push_back(conn);
    }
}

PassSchedule::Expiry PassSchedule::expire(int64_t nowMs, int32_t readBudgetMs, size_t maxBytes) {
    Expiry expiry;
    for (auto conn = m_stalled.begin(); conn != m_stalled.end();) {
        MessageBuffer& input = (*conn)->input();
        if ((*conn)->closing() || !input.partial()) {
            conn = m_stalled.erase(conn);
        } else if (input.expire(nowMs, readBudgetMs)) {
            m_pending.push_back(*conn);  // its failure is reported in this pass
            conn = m_stalled.erase(conn);
        } else {
            expiry.heldBytes += input.incompleteBytes();
            ++conn;
        }
    }
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
    return expiry;
}

void PassSchedule::forget(const Connection* conn) {
    for (std::vector<Connection*>* list : {&m_pending, &m_stalled, &m_carried}) {
        list->erase(std::remove(list->begin(), list->end(), conn), list->end());
    }
}

}  // namespace vexa
