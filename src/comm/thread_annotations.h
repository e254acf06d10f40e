// Lock rules the compiler checks: clang's thread-safety analysis
// (-Wthread-safety) reads these; other compilers ignore them.
//
//   GUARDED_BY(lock)      the member is read and written only with `lock` held
//   REQUIRES(lock)        the caller must hold `lock`
//   EXCLUDES(lock)        the caller must not hold `lock` (the function takes it)
//   ACQUIRE / RELEASE     the function takes / lets go of the lock
//   TRY_ACQUIRE(ok, lock) the function takes the lock when it returns `ok`
//   ASSERT_HELD(lock)     from here on the lock is known to be held
#ifndef VEXA_COMM_THREAD_ANNOTATIONS_H
#define VEXA_COMM_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define VEXA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VEXA_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) VEXA_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY VEXA_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) VEXA_THREAD_ANNOTATION(guarded_by(lock))
#define REQUIRES(...) VEXA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VEXA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VEXA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VEXA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VEXA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ASSERT_HELD(...) VEXA_THREAD_ANNOTATION(assert_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS VEXA_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // VEXA_COMM_THREAD_ANNOTATIONS_H
