// Joinable threads, the Mutex whose failures name the caller's source and line,
// the millisecond clocks and a sleep that survives signals. Failures are written
// to the common log (comm_log).
#ifndef VEXA_COMM_THREAD_UTIL_H
#define VEXA_COMM_THREAD_UTIL_H

#include <pthread.h>

#include <cstdint>
#include <mutex>

#include "comm/thread_annotations.h"

namespace comm {

using ThreadFunction = void (*)(void* argument);

// Owned by whoever created the thread; thread_join releases it.
struct ThreadHandle {
    pthread_t id;
    ThreadFunction function;
    void* argument;
};

// Starts a joinable thread running function(argument); null on failure.
ThreadHandle* thread_create(ThreadFunction function, void* argument);
// Waits for the thread and releases the handle; null does nothing. Once per handle.
void thread_join(ThreadHandle* handle);
pthread_t thread_current_id();

// A default (non-recursive) POSIX mutex on the heap; null stands for none.
struct CAPABILITY("mutex") Mutex {
    pthread_mutex_t native;
};

Mutex* mutex_create();  // null on failure
// Null does nothing. A locked mutex is reported and freed all the same.
void mutex_destroy(Mutex* mutex);
// 0, or -1 (null mutex: silently; failed call: logged with source and line).
// Callers go on after a failure, so the analysis counts the mutex as held.
int mutex_lock(Mutex* mutex, const char* source, int line) ACQUIRE(mutex);
int mutex_unlock(Mutex* mutex, const char* source, int line) RELEASE(mutex);
// Takes the mutex only if it is free at once; never fails spuriously.
bool mutex_trylock(Mutex* mutex) TRY_ACQUIRE(true, mutex);

// Holds a Mutex for one scope. A failed lock is only reported: the scope runs anyway.
class SCOPED_CAPABILITY MutexGuard {
  public:
    MutexGuard(Mutex* mutex, const char* source, int lockLine, int unlockLine) ACQUIRE(mutex)
        : m_mutex(mutex), m_source(source), m_unlockLine(unlockLine) {
        mutex_lock(m_mutex, m_source, lockLine);
    }
    ~MutexGuard() RELEASE() { mutex_unlock(m_mutex, m_source, m_unlockLine); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

  private:
    Mutex* m_mutex;
    const char* m_source;
    int m_unlockLine;
};

// A small lock for state that is never held across a wait or a call out; the
// same as std::mutex, with the annotations the analysis reads.
class CAPABILITY("mutex") Lock {
  public:
    void lock() ACQUIRE() { m_native.lock(); }
    void unlock() RELEASE() { m_native.unlock(); }

  private:
    std::mutex m_native;
};

class SCOPED_CAPABILITY LockGuard {
  public:
    explicit LockGuard(Lock& lock) ACQUIRE(lock) : m_lock(lock) { m_lock.lock(); }
    ~LockGuard() RELEASE() { m_lock.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    Lock& m_lock;
};

// CLOCK_MONOTONIC in milliseconds.
int64_t monotonic_ms();
// Milliseconds since the first call (which returns 0), wrapping after ~49.7 days;
// callers subtract two readings.
uint32_t tick_ms();
// Sleeps `ms` milliseconds; a signal does not cut it short, the rest is slept.
void sleep_ms(uint32_t ms);

}  // namespace comm

#endif  // VEXA_COMM_THREAD_UTIL_H
