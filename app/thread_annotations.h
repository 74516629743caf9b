// Clang thread-safety annotations, and a mutex they can check. The macros
// expand to nothing elsewhere; clang builds compile with -Wthread-safety,
// which turns a guarded field touched without its mutex into an error.
//
// std::mutex carries no annotations in libstdc++, so a lock the analysis
// must see is a Mutex, held through a MutexLock (as LevelDB's port::Mutex
// and MutexLock do it). Waiting on a Mutex goes through CondVar.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define VS_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VS_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) VS_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY VS_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) VS_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) VS_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VS_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VS_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VS_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

class CondVar;

class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { mutex.lock(); }
    void unlock() RELEASE() { mutex.unlock(); }

private:
    friend class CondVar;
    std::mutex mutex;
};

// Holds a Mutex for its scope.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex* mutex) ACQUIRE(mutex) : mutex(mutex) { mutex->lock(); }
    ~MutexLock() RELEASE() { mutex->unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex* const mutex;
};

// A condition variable for waiting on a Mutex; every wait passes the same
// one, held, and holds it again on return.
class CondVar {
public:
    CondVar() = default;
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    // False when `deadline` passed; a true result may be spurious, so callers
    // test their condition again.
    bool waitUntil(Mutex& held, std::chrono::steady_clock::time_point deadline) REQUIRES(held) {
        std::unique_lock<std::mutex> lock(held.mutex, std::adopt_lock);
        const bool woken = cv.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();  // still held: the caller's MutexLock releases it
        return woken;
    }
    void signal() { cv.notify_one(); }

private:
    std::condition_variable cv;
};
