// mutex.h - the one lock wrapper, with clang's thread-safety annotations.
//
// A Mutex is exactly a pthread_mutex_t, so it may stand in exported records. Zero bytes are a valid, unlocked one:
// locks are initialised by the loader, once, and never destroyed or initialised again.
#ifndef TARN_BASE_MUTEX_H
#define TARN_BASE_MUTEX_H

#include <pthread.h>

#if defined(__clang__)
#define TARN_TSA(x) __attribute__((x))
#else
#define TARN_TSA(x)
#endif

#define CAPABILITY(name) TARN_TSA(capability(name))
#define SCOPED_CAPABILITY TARN_TSA(scoped_lockable)
#define GUARDED_BY(lock) TARN_TSA(guarded_by(lock))
#define REQUIRES(...) TARN_TSA(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TARN_TSA(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) TARN_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TARN_TSA(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TARN_TSA(try_acquire_capability(__VA_ARGS__))
#define NO_LOCK_ANALYSIS TARN_TSA(no_thread_safety_analysis)

namespace tarn {

struct CAPABILITY("mutex") Mutex {
    pthread_mutex_t raw;

    void               lock() ACQUIRE() { pthread_mutex_lock(&raw); }
    void               unlock() RELEASE() { pthread_mutex_unlock(&raw); }
    [[nodiscard]] bool try_lock() TRY_ACQUIRE(true) { return pthread_mutex_trylock(&raw) == 0; }
};
static_assert(sizeof(Mutex) == sizeof(pthread_mutex_t), "a Mutex replaces a pthread_mutex_t in exported records");

// Holds a mutex for the extent of a block.
class SCOPED_CAPABILITY ScopedLock {
public:
    explicit ScopedLock(Mutex &mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~ScopedLock() RELEASE() { mutex_.unlock(); }
    ScopedLock(const ScopedLock &)            = delete;
    ScopedLock &operator=(const ScopedLock &) = delete;

private:
    Mutex &mutex_;
};

} // namespace tarn

#endif
