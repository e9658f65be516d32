// Signals that the process ignores and blocks still reach the handler, on a thread other than
// the one that waits for the start sequence; waitForHandlers waits for a running handler.

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "platform/QBSignalSource.h"
#include "support/Eventually.h"

TEST(QBSignalSourceTest, IgnoredAndBlockedSignalsRunTheHandlerOnAnotherThread) {
    const auto mainThread = std::this_thread::get_id();
    std::atomic<int> calls{0};
    std::atomic<bool> onMainThread{false}, finished{false};
    QBSignalSource source({SIGUSR1, SIGUSR2}, [&](int signalNumber) {
        onMainThread = onMainThread || std::this_thread::get_id() == mainThread;
        ++calls;
        if (signalNumber != SIGUSR2) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        finished = true;
    });
    for (int signalNumber : {SIGUSR1, SIGUSR2}) std::signal(signalNumber, SIG_IGN);
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
    ASSERT_TRUE(eventually([&] { return calls == 1; }, std::chrono::seconds(5 * sanitizerSlowdown)));
    ASSERT_EQ(::kill(::getpid(), SIGUSR2), 0);
    ASSERT_TRUE(eventually([&] { return calls == 2; }, std::chrono::seconds(5 * sanitizerSlowdown)));
    source.waitForHandlers();
    EXPECT_TRUE(finished);
    EXPECT_FALSE(onMainThread);
}
