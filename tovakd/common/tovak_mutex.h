// The daemon's lock, annotated so that clang's -Wthread-safety checks who
// holds what; other compilers see no annotations.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define TOVAK_TSA(x) __attribute__((x))
#else
#define TOVAK_TSA(x)
#endif

#define CAPABILITY(x) TOVAK_TSA(capability(x))
#define SCOPED_CAPABILITY TOVAK_TSA(scoped_lockable)
#define GUARDED_BY(x) TOVAK_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) TOVAK_TSA(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) TOVAK_TSA(acquired_before(__VA_ARGS__))
#define REQUIRES(...) TOVAK_TSA(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TOVAK_TSA(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) TOVAK_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TOVAK_TSA(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) TOVAK_TSA(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS TOVAK_TSA(no_thread_safety_analysis)

// A plain pthread mutex: constant-initialised and never destroyed, so a
// process-wide one stays usable by detached threads while the process exits,
// and a condition variable can wait on it.
class CAPABILITY("mutex") tovak_mutex {
public:
    tovak_mutex() = default;
    tovak_mutex(const tovak_mutex&) = delete;
    tovak_mutex& operator=(const tovak_mutex&) = delete;

    void lock() ACQUIRE() { pthread_mutex_lock(&m_); }
    void unlock() RELEASE() { pthread_mutex_unlock(&m_); }
    // For pthread_cond_timedwait, whose wait hands the lock back held.
    pthread_mutex_t* native() { return &m_; }

private:
    pthread_mutex_t m_ = PTHREAD_MUTEX_INITIALIZER;
};

// Holds m for its scope.
class SCOPED_CAPABILITY tovak_lock {
public:
    explicit tovak_lock(tovak_mutex& m) ACQUIRE(m) : m_(m) { m_.lock(); }
    ~tovak_lock() RELEASE() { m_.unlock(); }
    tovak_lock(const tovak_lock&) = delete;
    tovak_lock& operator=(const tovak_lock&) = delete;

private:
    tovak_mutex& m_;
};
