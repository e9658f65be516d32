// The worker pool: its thread limit, queueing beyond it, idle threads ending, and a destructor
// that lets every accepted job finish.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "QBWorkerPool.h"

namespace {

using namespace std::chrono_literals;

// Jobs that hold their thread until opened, counting how many run at once.
class Gate {
public:
    void pass() {
        std::unique_lock guard(lock);
        highest = std::max(highest, ++inside);
        changed.notify_all();
        changed.wait(guard, [this] { return open; });
        --inside;
        ++passed;
    }
    bool waitForInside(int count) {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, 5s, [&] { return inside == count; });
    }
    void openUp() {
        std::lock_guard guard(lock);
        open = true;
        changed.notify_all();
    }
    int highestInside() {
        std::lock_guard guard(lock);
        return highest;
    }
    std::atomic<int> passed{0};

private:
    std::mutex lock;
    std::condition_variable changed;
    int inside = 0;
    int highest = 0;
    bool open = false;
};

TEST(QBWorkerPoolTest, JobsBeyondTheThreadLimitWaitAndAllRun) {
    Gate gate;
    {
        QBWorkerPool pool({.maxThreads = 3, .stackSize = 256 * 1024, .idleExit = 10s});
        for (int i = 0; i < 10; ++i) ASSERT_TRUE(pool.submit([&] { gate.pass(); }));
        ASSERT_TRUE(gate.waitForInside(3));
        EXPECT_EQ(pool.runningThreads(), 3u);
        gate.openUp();
    }  // the destructor waits for the queued jobs
    EXPECT_EQ(gate.passed.load(), 10);
    EXPECT_EQ(gate.highestInside(), 3);
}

TEST(QBWorkerPoolTest, IdleThreadsEndAndNewJobsStartNewOnes) {
    QBWorkerPool pool({.maxThreads = 4, .stackSize = 256 * 1024, .idleExit = 50ms});
    std::atomic<int> ran{0};
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(pool.submit([&] { ++ran; }));
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while ((ran.load() <= round || pool.runningThreads() > 0) &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(5ms);
        }
        EXPECT_EQ(pool.runningThreads(), 0u) << "round " << round;
    }
    EXPECT_EQ(ran.load(), 2);
}

TEST(QBWorkerPoolTest, ThrowingJobKeepsItsThreadServing) {
    std::atomic<int> ran{0};
    {
        QBWorkerPool pool({.maxThreads = 1, .stackSize = 256 * 1024, .idleExit = 10s});
        ASSERT_TRUE(pool.submit([] { throw std::runtime_error("job failed"); }));
        ASSERT_TRUE(pool.submit([&] { ++ran; }));
    }
    EXPECT_EQ(ran.load(), 1);
}

}  // namespace
