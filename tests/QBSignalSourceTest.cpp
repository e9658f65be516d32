// Signals that the process ignores and blocks still reach the handler, on a thread other than
// the one that waits for the start sequence; waitForHandlers waits for a running handler.

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "platform/QBSignalSource.h"
#include "support/Eventually.h"

using namespace std::chrono_literals;

TEST(QBSignalSourceTest, IgnoredAndBlockedSignalsRunTheHandlerOnAWorkerThread) {
    std::atomic<int> calls{0};
    std::atomic<bool> onOtherThread{true};
    const auto mainThread = std::this_thread::get_id();
    QBSignalSource source({SIGUSR1, SIGUSR2}, [&](int signalNumber) {
        if (std::this_thread::get_id() == mainThread) onOtherThread = false;
        if (signalNumber == SIGUSR1 || signalNumber == SIGUSR2) ++calls;
    });
    ASSERT_TRUE(source.isActive());
    std::signal(SIGUSR1, SIG_IGN);
    std::signal(SIGUSR2, SIG_IGN);
    for (int sent = 1; sent <= 2; ++sent) {
        ASSERT_EQ(::kill(::getpid(), sent == 1 ? SIGUSR1 : SIGUSR2), 0);
        EXPECT_TRUE(eventually([&] { return calls == sent; }));
    }
    source.waitForHandlers();
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(onOtherThread);
}

TEST(QBSignalSourceTest, WaitForHandlersWaitsForARunningHandler) {
    std::atomic<bool> started{false}, finished{false};
    QBSignalSource source({SIGUSR1}, [&](int) {
        started = true;
        std::this_thread::sleep_for(200ms);
        finished = true;
    });
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
    ASSERT_TRUE(eventually([&] { return started.load(); }));
    source.waitForHandlers();
    EXPECT_TRUE(finished);
}
