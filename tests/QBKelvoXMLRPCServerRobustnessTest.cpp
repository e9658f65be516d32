// The bridge server against a hostile page: thousands of stalled connections, and header blocks
// at, past and far past their limit. After each abuse a good request must still be answered.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "support/BridgeServerFixture.h"
#include "support/LogCapture.h"
#include "support/LoopbackClient.h"

namespace {

using namespace std::chrono_literals;

constexpr int stalledConnections = 2000;

// What the stalled connections may add to the resident memory. ThreadSanitizer keeps hundreds of
// KiB of shadow state per thread, so its figure says nothing about the server and is not checked.
#if defined(__SANITIZE_THREAD__)
constexpr long residentGrowthBoundKiB = -1;
#elif defined(__SANITIZE_ADDRESS__)
constexpr long residentGrowthBoundKiB = 512 * 1024;
#else
constexpr long residentGrowthBoundKiB = 64 * 1024;
#endif

long residentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
    }
    return 0;
}

// Both ends of every connection live in this process: raise the soft descriptor limit.
bool allowDescriptors(rlim_t needed) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    limit.rlim_cur = limit.rlim_max;
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= needed;
}

class BridgeServerRobustnessTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(running.port(), 0); }

    bool answers(const std::string& request, std::chrono::milliseconds within = 5s) const {
        LoopbackClient client(running.port());
        return client.send(request) && client.readResponse(within).has_value();
    }

    LogCapture log;
    RunningBridgeServer running{std::make_shared<FakeBridgeCommands>()};
};

TEST_F(BridgeServerRobustnessTest, ThousandsOfStalledConnectionsDoNotStarveARequest) {
    if (!allowDescriptors(2 * stalledConnections + 512)) GTEST_SKIP() << "descriptor limit too low";
    ASSERT_TRUE(answers(xmlRpcPost(methodCall("state"))));
    const long residentBefore = residentKiB();

    std::vector<std::unique_ptr<LoopbackClient>> stalled;
    for (int i = 0; i < stalledConnections; ++i) {
        auto client = std::make_unique<LoopbackClient>(running.port());
        ASSERT_TRUE(client->connected()) << i;
        if (i % 2 == 1) client->send("POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nContent-Le");
        stalled.push_back(std::move(client));
    }

    const auto started = std::chrono::steady_clock::now();
    // Generous for sanitizer builds, where starting a thread is slow; typically well under 1 s.
    EXPECT_TRUE(answers(xmlRpcPost(methodCall("state")), 30s));
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - started);
    const long growth = residentKiB() - residentBefore;
    RecordProperty("answer_ms", static_cast<int>(waited.count()));
    RecordProperty("resident_growth_kib", static_cast<int>(growth));
    std::printf(
        "answered in %lld ms; resident memory grew by %ld KiB with %d stalled connections\n",
        static_cast<long long>(waited.count()), growth, stalledConnections);
    if (residentGrowthBoundKiB > 0) {
        EXPECT_LT(growth, residentGrowthBoundKiB);
    }
}

TEST(BridgeServerConnectionLimitTest, NewConnectionReplacesTheLongestWaitingOne) {
    auto settings = RunningBridgeServer::testSettings();
    settings.serving.loopThreads = 1;
    settings.serving.maxConnections = 16;
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(), settings);
    ASSERT_NE(running.port(), 0);
    std::vector<std::unique_ptr<LoopbackClient>> stalled;
    for (int i = 0; i < 40; ++i) {
        stalled.push_back(std::make_unique<LoopbackClient>(running.port()));
        ASSERT_TRUE(stalled.back()->send("OPTIONS /vpn HTTP/1.1\r\n"));
    }
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send(xmlRpcPost(methodCall("state"))));
    EXPECT_TRUE(client.readResponse(5s).has_value());
    EXPECT_LE(running.server().connectionCount(), 16u);
    // Stalled connections were closed to make room (the new one is served, not refused).
    const auto closed = std::count_if(stalled.begin(), stalled.end(), [](const auto& client) {
        return client->closedWithin(50ms);
    });
    EXPECT_GE(closed, 40 - 15);
}

TEST_F(BridgeServerRobustnessTest, HeaderBlockIsLimitedToTheBufferSize) {
    const auto block = [](size_t total) {
        const std::string start = "OPTIONS /vpn HTTP/1.1\r\nX-Pad: ";
        return start + std::string(total - start.size() - 4, 'p') + "\r\n\r\n";
    };
    EXPECT_TRUE(answers(block(QBKelvoXMLRPCServer::maxHeaderBlockLength)));
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send(block(QBKelvoXMLRPCServer::maxHeaderBlockLength + 1)));
    EXPECT_TRUE(client.closedWithoutReply());
}

TEST_F(BridgeServerRobustnessTest, MebibyteHeaderWithoutTerminatorEndsTheConnection) {
    LoopbackClient client(running.port());
    // The server stops reading long before the end, so the send may fail part-way.
    client.send("POST /vpn HTTP/1.1\r\nX-Huge: " + std::string(1024 * 1024, 'h'));
    EXPECT_TRUE(client.closedWithoutReply());
    EXPECT_TRUE(answers(xmlRpcPost(methodCall("state"))));
}

}  // namespace
