#pragma once
// QBWorkerPool: runs jobs that may block for a long time (a bridge command waiting for the GUI
// application) on threads started on demand, so that event-loop threads never wait.
//
// A job goes to an idle thread when there is one; otherwise a new thread is started, up to
// Limits::maxThreads, each with a small stack. Beyond that, jobs queue until a thread is free.
// A thread idle for Limits::idleExit ends. The destructor waits until every queued and running
// job has finished and every thread has ended.
//
// Threads: submit() and runningThreads() may be called from any thread; jobs run on the pool's
// threads. A job must not destroy the pool.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>

#include "QBMutex.h"

class QBWorkerPool {
public:
    struct Limits {
        // Jobs running at once. Each may hold a thread while the GUI application answers; a
        // browser has a handful of requests in flight, so this only bounds a hostile page.
        std::size_t maxThreads = 512;
        // Stack of a pool thread. A command's deepest path (decoding, channel, JSON) needs well
        // under 64 KiB; the rest is room for sanitizer builds. Only touched pages are resident.
        std::size_t stackSize = 256 * 1024;
        // An idle thread ends after this long, so a burst leaves no threads behind.
        std::chrono::milliseconds idleExit{10000};
    };

    QBWorkerPool() : QBWorkerPool(Limits{}) {}
    explicit QBWorkerPool(const Limits& limits);
    ~QBWorkerPool();
    QBWorkerPool(const QBWorkerPool&) = delete;
    QBWorkerPool& operator=(const QBWorkerPool&) = delete;

    // Queues job. False (job dropped) only when no thread runs and none can be started; the
    // caller must then give up on whatever the job was for.
    bool submit(std::function<void()> job);
    // Threads that exist now, busy or idle.
    std::size_t runningThreads() const;

    // Role name of the pool's threads.
    static constexpr const char* threadRole = "pool";

private:
    bool startThread() QB_REQUIRES(lock);
    void work() QB_EXCLUDES(lock);
    // Waits until a job is queued or the pool stops; false when idleExit passed first.
    bool waitForJob(QBMutexLock& guard) QB_REQUIRES(lock);

    const Limits limits;
    // A leaf lock: nothing else is taken while it is held, and no job runs under it. Submitters
    // (an event loop holding no lock) take it only briefly.
    mutable QBMutex lock;
    std::condition_variable jobQueued;
    std::condition_variable threadEnded;
    std::deque<std::function<void()>> jobs QB_GUARDED_BY(lock);
    std::size_t threads QB_GUARDED_BY(lock) = 0;
    std::size_t idleThreads QB_GUARDED_BY(lock) = 0;
    bool stopping QB_GUARDED_BY(lock) = false;
};
