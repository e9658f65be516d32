// The worker pool: its thread limit, queueing beyond it, idle threads ending, a throwing job,
// and a destructor that lets every accepted job finish.

#include <gtest/gtest.h>

#include <future>

#include "QBWorkerPool.h"
#include "support/Eventually.h"

namespace {

using namespace std::chrono_literals;

TEST(QBWorkerPoolTest, JobsBeyondTheThreadLimitWaitAndAllRun) {
    std::promise<void> opener;
    const std::shared_future<void> open = opener.get_future().share();
    std::atomic<int> inside{0}, highest{0}, finished{0};
    {
        QBWorkerPool pool({.maxThreads = 3, .idleExit = 10s});
        for (int i = 0; i < 10; ++i) {
            ASSERT_TRUE(pool.submit([&] {
                const int now = ++inside;
                for (int seen = highest; seen < now && !highest.compare_exchange_weak(seen, now);) {
                }
                open.wait();
                --inside;
                ++finished;
            }));
        }
        EXPECT_TRUE(eventually([&] { return inside == 3; }));
        EXPECT_EQ(pool.runningThreads(), 3u);
        opener.set_value();
    }  // the destructor waits for the queued jobs
    EXPECT_EQ(finished, 10);
    EXPECT_EQ(highest, 3);
}

TEST(QBWorkerPoolTest, IdleThreadsEndAndNewJobsStartNewOnes) {
    QBWorkerPool pool({.maxThreads = 4, .idleExit = 50ms});
    std::atomic<int> ran{0};
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(pool.submit([&] { ++ran; }));
        EXPECT_TRUE(eventually([&] { return ran == round && pool.runningThreads() == 0; })) << round;
    }
}

TEST(QBWorkerPoolTest, ThrowingJobKeepsItsThreadServing) {
    std::atomic<int> ran{0};
    {
        QBWorkerPool pool({.maxThreads = 1, .idleExit = 10s});
        ASSERT_TRUE(pool.submit([] { throw std::runtime_error("job failed"); }));
        ASSERT_TRUE(pool.submit([&] { ++ran; }));
    }
    EXPECT_EQ(ran, 1);
}

}  // namespace
