// The worker pool: its thread limit, queueing beyond it, a throwing job, idle threads ending,
// and a destructor that lets every accepted job finish.

#include <gtest/gtest.h>

#include <future>

#include "QBWorkerPool.h"
#include "support/Eventually.h"

using namespace std::chrono_literals;

TEST(QBWorkerPoolTest, JobsBeyondTheLimitQueueAndIdleThreadsEnd) {
    std::promise<void> opener;
    const std::shared_future<void> open = opener.get_future().share();
    std::atomic<int> inside{0}, finished{0};
    {
        QBWorkerPool pool({.maxThreads = 3, .idleExit = 100ms});
        ASSERT_TRUE(pool.submit([] { throw std::runtime_error("a failed job"); }));
        for (int i = 0; i < 10; ++i) {
            ASSERT_TRUE(pool.submit([&] {
                ++inside;
                open.wait();
                --inside;
                ++finished;
            }));
        }
        EXPECT_TRUE(eventually([&] { return inside == 3; }));
        EXPECT_EQ(pool.runningThreads(), 3u);
        opener.set_value();
        EXPECT_TRUE(eventually([&] { return finished == 10 && pool.runningThreads() == 0; }));
        ASSERT_TRUE(pool.submit([&] { ++finished; }));  // a new thread for a new job
    }                                                   // the destructor waits for it
    EXPECT_EQ(finished, 11);
}
