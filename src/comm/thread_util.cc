#include "comm/thread_util.h"

#include <sys/select.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "comm/logger.h"

namespace comm {
namespace {

void* thread_trampoline(void* raw) {
    auto* handle = static_cast<ThreadHandle*>(raw);
    handle->function(handle->argument);
    return nullptr;
}

// Origin of tick_ms; 0 until the first call.
std::atomic<uint64_t> g_tickOrigin{0};

}  // namespace

ThreadHandle* thread_create(ThreadFunction function, void* argument) {
    auto* handle = new ThreadHandle{};
    handle->function = function;
    handle->argument = argument;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        comm_log("Couldn't initialize pthread attributes\n");
        delete handle;
        return nullptr;
    }
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    int rc = pthread_create(&handle->id, &attr, thread_trampoline, handle);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        comm_log("Not enough resources to create thread\n");
        delete handle;
        return nullptr;
    }
    return handle;
}

void thread_join(ThreadHandle* handle) {
    if (handle == nullptr) {
        return;
    }
    pthread_join(handle->id, nullptr);
    delete handle;
}

pthread_t thread_current_id() {
    return pthread_self();
}

Mutex* mutex_create() {
    auto* mutex = new Mutex;
    if (pthread_mutex_init(&mutex->native, nullptr) != 0) {
        comm_log("pthread_mutex_init error\n");
        delete mutex;
        return nullptr;
    }
    return mutex;
}

void mutex_destroy(Mutex* mutex) {
    if (mutex == nullptr) {
        return;
    }
    if (pthread_mutex_destroy(&mutex->native) != 0) {
        comm_log("Attempt to destroy locked mutex!");
    }
    delete mutex;
}

// The lock failure text starts with "%M" and is handed to the formatter as it
// stands, so the format cannot be checked at compile time.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
int mutex_lock(Mutex* mutex, const char* source, int line) NO_THREAD_SAFETY_ANALYSIS {
    if (mutex == nullptr) {
        return -1;
    }
    if (pthread_mutex_lock(&mutex->native) != 0) {
        comm_log("%Mutex failed ! (Called from %s:%d)", source, line);
        return -1;
    }
    return 0;
}
#pragma GCC diagnostic pop

bool mutex_trylock(Mutex* mutex) NO_THREAD_SAFETY_ANALYSIS {
    // Like a failed lock, a null mutex lets the caller go on.
    return mutex == nullptr || pthread_mutex_trylock(&mutex->native) == 0;
}

int mutex_unlock(Mutex* mutex, const char* source, int line) NO_THREAD_SAFETY_ANALYSIS {
    if (mutex == nullptr) {
        return -1;
    }
    if (pthread_mutex_unlock(&mutex->native) != 0) {
        comm_log("Mutex unlock failed! ( Called from %s:%d)", source, line);
        return -1;
    }
    return 0;
}

int64_t monotonic_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

uint32_t tick_ms() {
    auto now = static_cast<uint64_t>(monotonic_ms());
    uint64_t origin = g_tickOrigin.load();
    if (origin == 0) {
        // The first caller sets the origin; a racing first caller adopts it.
        if (g_tickOrigin.compare_exchange_strong(origin, now)) {
            return 0;
        }
    }
    return static_cast<uint32_t>(now - origin);
}

void sleep_ms(uint32_t ms) {
    uint32_t start = tick_ms();
    uint32_t remaining = ms;
    for (;;) {
        errno = 0;
        uint32_t now = tick_ms();
        uint32_t spent = now - start;
        if (remaining <= spent) {
            return;
        }
        remaining -= spent;
        timeval timeout{};
        timeout.tv_sec = remaining / 1000;
        timeout.tv_usec = static_cast<suseconds_t>((remaining % 1000) * 1000);
        int rc = select(0, nullptr, nullptr, nullptr, &timeout);
        if (rc == 0) {
            return;
        }
        if (rc < 0 && errno == EINTR) {
            // Count from the reading before this select, so that the next
            // round takes off what the interrupted wait already slept.
            start = now;
            continue;
        }
        return;
    }
}

}  // namespace comm
