#include "QBWorkerPool.h"

#include "QBThread.h"

QBWorkerPool::QBWorkerPool(const Limits& limits) : limits(limits) {}

QBWorkerPool::~QBWorkerPool() {
    QBMutexLock guard(lock);
    stopping = true;
    jobQueued.notify_all();
    while (threads != 0) threadEnded.wait(guard.native());
}

bool QBWorkerPool::submit(std::function<void()> job) {
    QBMutexLock guard(lock);
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
    QBMutexLock guard(lock);
    return threads;
}

// The thread is detached: the destructor waits on the thread count, and a thread touches nothing
// of the pool after its last unlock.
bool QBWorkerPool::startThread() {
    const bool started = QBThread::startDetached([this] { work(); }, limits.stackSize, threadRole);
    if (started) ++threads;
    return started;
}

bool QBWorkerPool::waitForJob(QBMutexLock& guard) {
    const auto deadline = std::chrono::steady_clock::now() + limits.idleExit;
    while (jobs.empty() && !stopping) {
        if (jobQueued.wait_until(guard.native(), deadline) == std::cv_status::timeout) break;
    }
    return !jobs.empty() || stopping;
}

void QBWorkerPool::work() {
    QBMutexLock guard(lock);
    for (;;) {
        if (jobs.empty()) {
            if (stopping) break;
            ++idleThreads;
            const bool woken = waitForJob(guard);
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
        guard.relock();
    }
    --threads;
    threadEnded.notify_all();
}
