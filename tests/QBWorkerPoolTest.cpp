#include <gtest/gtest.h>

#include "QBWorkerPool.h"
#include "support/Eventually.h"

using namespace std::chrono_literals;

TEST(QBWorkerPoolTest, JobsBeyondTheLimitQueueAndIdleThreadsEnd) {
    std::atomic<bool> open{false};
    std::atomic<int> inside{0}, finished{0};
    {
        QBWorkerPool pool({.maxThreads = 3, .idleExit = 100ms});
        ASSERT_TRUE(pool.submit([] { throw std::runtime_error("a failed job"); }));
        const auto waitForOpen = [&] {
            ++inside;
            while (!open) std::this_thread::sleep_for(1ms);
            --inside, ++finished;
        };
        for (int i = 0; i < 10; ++i) ASSERT_TRUE(pool.submit(waitForOpen));
        EXPECT_TRUE(eventually([&] { return inside == 3; }));
        EXPECT_EQ(pool.runningThreads(), 3u);
        open = true;
        EXPECT_TRUE(eventually([&] { return finished == 10 && pool.runningThreads() == 0; }));
        ASSERT_TRUE(pool.submit([&] { ++finished; }));  // a new thread for a new job
    }                                                   // the destructor waits for it
    EXPECT_EQ(finished, 11);
}
