#include "QBWorkerPool.h"

#include <pthread.h>

QBWorkerPool::QBWorkerPool(const Limits& limits) : limits(limits) {}

QBWorkerPool::~QBWorkerPool() {
    std::unique_lock guard(lock);
    stopping = true;
    jobQueued.notify_all();
    threadEnded.wait(guard, [this] { return threads == 0; });
}

bool QBWorkerPool::submit(std::function<void()> job) {
    std::lock_guard guard(lock);
    jobs.push_back(std::move(job));
    if (idleThreads > jobs.size() - 1) {
        jobQueued.notify_one();
        return true;
    }
    if (threads < limits.maxThreads && startThread()) return true;
    if (threads > 0) return true;  // a running thread takes it when it is done
    jobs.pop_back();
    return false;
}

std::size_t QBWorkerPool::runningThreads() const {
    std::lock_guard guard(lock);
    return threads;
}

// Called with lock held. The thread is detached: the destructor waits on the thread count, and
// a thread touches nothing of the pool after its last unlock.
bool QBWorkerPool::startThread() {
    pthread_attr_t attributes;
    if (::pthread_attr_init(&attributes) != 0) return false;
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    ::pthread_attr_setstacksize(&attributes, limits.stackSize);
    pthread_t thread;
    const bool started = ::pthread_create(&thread, &attributes, &threadMain, this) == 0;
    ::pthread_attr_destroy(&attributes);
    if (started) ++threads;
    return started;
}

void* QBWorkerPool::threadMain(void* pool) {
    static_cast<QBWorkerPool*>(pool)->work();
    return nullptr;
}

void QBWorkerPool::work() {
    std::unique_lock guard(lock);
    for (;;) {
        if (jobs.empty()) {
            if (stopping) break;
            ++idleThreads;
            const bool woken = jobQueued.wait_for(guard, limits.idleExit,
                                                  [this] { return !jobs.empty() || stopping; });
            --idleThreads;
            if (!woken) break;
            continue;
        }
        auto job = std::move(jobs.front());
        jobs.pop_front();
        guard.unlock();
        try {
            job();
        } catch (...) {
            // A job that throws loses its own work, not the thread.
        }
        job = nullptr;  // release what the job holds before taking the lock again
        guard.lock();
    }
    --threads;
    threadEnded.notify_all();
}
