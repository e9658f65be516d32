#pragma once
// QBMutex: a mutex that Clang's thread-safety analysis knows, and the macros that tell it which
// fields a mutex guards, which functions need it held, and where it stands in the lock order.
// With -Wthread-safety the compiler then checks every access and every acquisition; other
// compilers see plain std::mutex and empty macros.
//
// A mutex's declaration carries its place in the order; the fields it guards say so:
//
//   QBMutex clientsLock QB_ACQUIRED_AFTER(queueLock);
//   std::vector<Client> clients QB_GUARDED_BY(clientsLock);
//   void dropClient(int socket) QB_REQUIRES(clientsLock);
//   ...
//   QBMutexLock guard(clientsLock);
//   condition.wait(guard.native(), [&] { return ...; });
//
// Threads: a mutex; any thread may lock it.

#include <mutex>

#if defined(__clang__)
#define QB_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QB_THREAD_ANNOTATION(x)
#endif

#define QB_CAPABILITY(name) QB_THREAD_ANNOTATION(capability(name))
#define QB_SCOPED_CAPABILITY QB_THREAD_ANNOTATION(scoped_lockable)
#define QB_GUARDED_BY(mutex) QB_THREAD_ANNOTATION(guarded_by(mutex))
#define QB_PT_GUARDED_BY(mutex) QB_THREAD_ANNOTATION(pt_guarded_by(mutex))
#define QB_ACQUIRED_AFTER(...) QB_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define QB_ACQUIRED_BEFORE(...) QB_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define QB_REQUIRES(...) QB_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QB_EXCLUDES(...) QB_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QB_ACQUIRE(...) QB_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QB_RELEASE(...) QB_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QB_TRY_ACQUIRE(...) QB_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define QB_RETURN_CAPABILITY(x) QB_THREAD_ANNOTATION(lock_returned(x))
#define QB_NO_THREAD_SAFETY_ANALYSIS QB_THREAD_ANNOTATION(no_thread_safety_analysis)

class QB_CAPABILITY("mutex") QBMutex {
public:
    void lock() QB_ACQUIRE() { mutex.lock(); }
    void unlock() QB_RELEASE() { mutex.unlock(); }
    bool try_lock() QB_TRY_ACQUIRE(true) { return mutex.try_lock(); }
    std::mutex& native() { return mutex; }

private:
    std::mutex mutex;
};

// Holds a QBMutex for its scope; native() gives the std::unique_lock that condition variables
// wait with (a wait releases and retakes the mutex, which the analysis does not need to see).
class QB_SCOPED_CAPABILITY QBMutexLock {
public:
    explicit QBMutexLock(QBMutex& mutex) QB_ACQUIRE(mutex) : lock(mutex.native()) {}
    ~QBMutexLock() QB_RELEASE() {}
    QBMutexLock(const QBMutexLock&) = delete;
    QBMutexLock& operator=(const QBMutexLock&) = delete;

    // Releases early, and takes again; for a scope that must not hold the mutex while it blocks.
    void unlock() QB_RELEASE() { lock.unlock(); }
    void relock() QB_ACQUIRE() { lock.lock(); }
    std::unique_lock<std::mutex>& native() { return lock; }

private:
    std::unique_lock<std::mutex> lock;
};
