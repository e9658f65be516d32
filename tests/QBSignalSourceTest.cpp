#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "platform/QBSignalSource.h"
#include "support/Eventually.h"

TEST(QBSignalSourceTest, IgnoredAndBlockedSignalsRunTheHandlerOnAnotherThread) {
    const auto mainThread = std::this_thread::get_id();
    std::atomic<bool> started{false}, onMainThread{false}, finished{false};
    QBSignalSource source({SIGUSR1, SIGUSR2}, [&](int) {
        onMainThread = std::this_thread::get_id() == mainThread;
        started = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        finished = true;
    });
    std::signal(SIGUSR2, SIG_IGN);
    ASSERT_EQ(::kill(::getpid(), SIGUSR2), 0);
    ASSERT_TRUE(eventually([&] { return started.load(); }, std::chrono::seconds(5 * sanitizerSlowdown)));
    source.waitForHandlers();
    EXPECT_TRUE(finished);
    EXPECT_FALSE(onMainThread);
}
