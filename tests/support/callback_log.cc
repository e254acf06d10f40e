#include "support/callback_log.h"

#include <algorithm>
#include <chrono>

namespace vexa_test {
namespace {

bool matches(const Event& e, int32_t eventId, const char* dev, int32_t item) {
    return e.event == eventId && (dev == nullptr || (e.dev == dev && e.item == item));
}

}  // namespace

int CallbackLog::callback(void* user, int32_t item, int32_t event, const char* dev, int32_t sec,
                          int32_t usec, const char* data, int32_t len) {
    auto* self = static_cast<CallbackLog*>(user);
    Event e;
    e.item = item;
    e.event = event;
    e.dev = dev != nullptr ? dev : "(null)";
    e.sec = sec;
    e.usec = usec;
    e.dataNull = data == nullptr;
    if (data != nullptr) {
        e.data.assign(data, static_cast<size_t>(std::max(len, 0)));
        e.terminated = data[std::max(len, 0)] == '\0';
    }
    e.len = len;
    std::unique_lock<std::mutex> lock(self->m_lock);
    const std::function<void(const Event&)> hook = self->m_hook;
    lock.unlock();
    if (hook)
        hook(e);
    lock.lock();
    self->m_events.push_back(e);
    self->m_changed.notify_all();
    return 0;
}

std::vector<Event> CallbackLog::events() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_events;
}

std::vector<Event> CallbackLog::matching(int32_t eventId, const char* dev, int32_t item) {
    std::vector<Event> out;
    std::lock_guard<std::mutex> guard(m_lock);
    std::copy_if(m_events.begin(), m_events.end(), std::back_inserter(out),
                 [&](const Event& e) { return matches(e, eventId, dev, item); });
    return out;
}

bool CallbackLog::waitFor(int32_t eventId, const char* dev, int32_t item, size_t count,
                          int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return static_cast<size_t>(std::count_if(
                   m_events.begin(), m_events.end(),
                   [&](const Event& e) { return matches(e, eventId, dev, item); })) >= count;
    });
}

void CallbackLog::onEvent(std::function<void(const Event&)> hook) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_hook = std::move(hook);
}

}  // namespace vexa_test
