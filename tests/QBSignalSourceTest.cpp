#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/QBSignalSource.h"

namespace {

void ignore(int signalNumber) {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    sigaction(signalNumber, &action, nullptr);
}

}  // namespace

// The daemon ignores the signals and blocks them at once; they must still reach the handler,
// on a thread other than the one that waits for the start sequence.
TEST(QBSignalSourceTest, IgnoredAndBlockedSignalRunsHandlerOnWorkerThread) {
    std::atomic<int> calls{0};
    std::atomic<bool> onOtherThread{false};
    const auto mainThread = std::this_thread::get_id();
    {
        QBSignalSource source({SIGUSR1, SIGUSR2}, [&](int signalNumber) {
            onOtherThread = std::this_thread::get_id() != mainThread;
            if (signalNumber == SIGUSR1 || signalNumber == SIGUSR2) ++calls;
        });
        ASSERT_TRUE(source.isActive());
        ignore(SIGUSR1);
        ignore(SIGUSR2);
        ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (calls < 1 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ASSERT_EQ(::kill(::getpid(), SIGUSR2), 0);
        while (calls < 2 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        source.waitForHandlers();
    }
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(onOtherThread);
}

TEST(QBSignalSourceTest, WaitForHandlersWaitsForARunningHandler) {
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    QBSignalSource source({SIGUSR1}, [&](int) {
        started = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        finished = true;
    });
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
    while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    source.waitForHandlers();
    EXPECT_TRUE(finished);
}
