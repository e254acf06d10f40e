// A recorder for the callbacks of both endpoints, which share one signature.
#ifndef VEXA_TESTS_SUPPORT_CALLBACK_LOG_H
#define VEXA_TESTS_SUPPORT_CALLBACK_LOG_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace vexa_test {

// One call of a callback.
struct Event {
    int32_t item = 0;
    int32_t event = 0;
    std::string dev;
    int32_t sec = 0;
    int32_t usec = 0;
    bool dataNull = false;
    std::string data;  // data_len bytes, when not null
    int32_t len = 0;
    bool terminated = false;  // a NUL follows the body
};

// Records every call under a mutex, after running the hook set by onEvent on
// the endpoint's thread, inside the call, as an application may.
class CallbackLog {
  public:
    // The callback; `user` is the CallbackLog.
    static int callback(void* user, int32_t item, int32_t event, const char* dev, int32_t sec,
                        int32_t usec, const char* data, int32_t len);

    std::vector<Event> events();
    // The calls with this event id (and, when dev is non-null, this pair).
    std::vector<Event> matching(int32_t eventId, const char* dev = nullptr, int32_t item = 0);
    // Waits until at least `count` calls match; false after timeoutMs.
    bool waitFor(int32_t eventId, const char* dev = nullptr, int32_t item = 0, size_t count = 1,
                 int timeoutMs = 20000);
    void onEvent(std::function<void(const Event&)> hook);

  private:
    std::function<void(const Event&)> m_hook;  // guarded by m_lock
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<Event> m_events;  // guarded by m_lock
};

}  // namespace vexa_test

#endif  // VEXA_TESTS_SUPPORT_CALLBACK_LOG_H
