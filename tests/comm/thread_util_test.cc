#include "comm/thread_util.h"

#include <signal.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "comm/env_path.h"
#include "support/test_support.h"

namespace {

TEST(Mutex, GuardSerialisesThreadsAndANullMutexFailsSilently) {
    EXPECT_EQ(comm::mutex_lock(nullptr, "test", 1), -1);
    EXPECT_EQ(comm::mutex_unlock(nullptr, "test", 2), -1);
    comm::mutex_destroy(nullptr);
    comm::Mutex* mutex = comm::mutex_create();
    ASSERT_NE(mutex, nullptr);
    // Threads that find another one inside the guarded section count it.
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                comm::MutexGuard guard(mutex, "test", 10, 11);
                overlaps += inside++ != 0 ? 1 : 0;
                std::this_thread::yield();
                --inside;
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(overlaps.load(), 0);
    comm::mutex_destroy(mutex);
}

#if defined(__SANITIZE_THREAD__)
#define VEXA_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VEXA_UNDER_TSAN 1
#endif
#endif

// ThreadSanitizer reports the destruction of a locked mutex itself, which is
// exactly what this test does on purpose.
#ifndef VEXA_UNDER_TSAN
TEST(Mutex, DestroyingALockedMutexIsReportedAndFreed) {
    comm::Mutex* mutex = comm::mutex_create();
    ASSERT_EQ(comm::mutex_lock(mutex, "test", 20), 0);
    comm::mutex_destroy(mutex);
    std::string log = comm::get_log_path() + "qzcomm.log";
    EXPECT_EQ(vexa_test::count_log_text(log, "Attempt to destroy locked mutex!"), 1);
}
#endif

void on_signal(int) {}

TEST(Sleep, ASignalDoesNotShortenOrLengthenIt) {
    struct sigaction action {};
    action.sa_handler = on_signal;  // no SA_RESTART: select fails with EINTR
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);

    std::atomic<bool> sleeping{false};
    int64_t took = 0;
    std::thread sleeper([&] {
        sleeping = true;
        int64_t start = comm::monotonic_ms();
        comm::sleep_ms(600);
        took = comm::monotonic_ms() - start;
    });
    ASSERT_TRUE(vexa_test::wait_until([&] { return sleeping.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    pthread_kill(sleeper.native_handle(), SIGUSR1);
    sleeper.join();
    sigaction(SIGUSR1, &old, nullptr);
    // About 600 in all: cut short it would be ~300, restarted from scratch ~900.
    EXPECT_GE(took, 590);
    EXPECT_LT(took, 850);
}

}  // namespace
