// The bridge server against a hostile page: thousands of stalled connections, a full connection
// table, and header blocks at, past and far past their limit.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>

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

bool answers(int port, const std::string& request, std::chrono::milliseconds within = 5s) {
    LoopbackClient client(port);
    return client.send(request) && client.readResponse(within).has_value();
}

class BridgeServerRobustnessTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(running.port(), 0); }

    LogCapture log;
    RunningBridgeServer running{std::make_shared<FakeBridgeCommands>()};
    const std::string post = xmlRpcPost(methodCall("state"));
};

TEST_F(BridgeServerRobustnessTest, ThousandsOfStalledConnectionsDoNotStarveARequest) {
    // Both ends of every connection live in this process.
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 2 * stalledConnections + 512) {
        GTEST_SKIP() << "descriptor limit too low";
    }
    ASSERT_TRUE(answers(running.port(), post));
    const long residentBefore = residentKiB();
    std::vector<std::unique_ptr<LoopbackClient>> stalled;
    for (int i = 0; i < stalledConnections; ++i) {
        stalled.push_back(std::make_unique<LoopbackClient>(running.port()));
        ASSERT_TRUE(stalled.back()->connected()) << i;
        if (i % 2 == 1) stalled.back()->send("POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nContent-Le");
    }
    const auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(answers(running.port(), post, 30s));  // generous for sanitizer builds
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - started);
    const long growth = residentKiB() - residentBefore;
    std::printf("answered in %lld ms; resident memory grew by %ld KiB with %d stalled connections\n",
                static_cast<long long>(waited.count()), growth, stalledConnections);
    EXPECT_TRUE(residentGrowthBoundKiB < 0 || growth < residentGrowthBoundKiB) << growth;
}

TEST(BridgeServerConnectionLimitTest, NewConnectionReplacesTheLongestWaitingOne) {
    auto settings = RunningBridgeServer::testSettings();
    settings.serving.loopThreads = 1;
    settings.serving.maxConnections = 4;
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(), settings);
    ASSERT_NE(running.port(), 0);
    std::vector<std::unique_ptr<LoopbackClient>> stalled;
    for (int i = 0; i < 4; ++i) {
        stalled.push_back(std::make_unique<LoopbackClient>(running.port()));
        ASSERT_TRUE(stalled.back()->send("OPTIONS /vpn HTTP/1.1\r\n"));
        std::this_thread::sleep_for(20ms);  // a distinct last activity for each
    }
    EXPECT_TRUE(answers(running.port(), xmlRpcPost(methodCall("state"))));
    EXPECT_TRUE(stalled[0]->closedWithoutReply(1s));
    for (int i = 1; i < 4; ++i) EXPECT_FALSE(stalled[i]->closedWithin(50ms)) << i;
    EXPECT_TRUE(eventually([&] { return running.server().connectionCount() == 3; }));
}

TEST_F(BridgeServerRobustnessTest, HeaderBlockIsLimitedToTheBufferSize) {
    const auto block = [](size_t total) {
        const std::string start = "OPTIONS /vpn HTTP/1.1\r\nX-Pad: ";
        return start + std::string(total - start.size() - 4, 'p') + "\r\n\r\n";
    };
    EXPECT_TRUE(answers(running.port(), block(QBKelvoXMLRPCServer::maxHeaderBlockLength)));
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send(block(QBKelvoXMLRPCServer::maxHeaderBlockLength + 1)));
    EXPECT_TRUE(client.closedWithoutReply());
}

TEST_F(BridgeServerRobustnessTest, MebibyteHeaderWithoutTerminatorEndsTheConnection) {
    LoopbackClient client(running.port());
    // The server stops reading long before the end, so the send may fail part-way.
    client.send("POST /vpn HTTP/1.1\r\nX-Huge: " + std::string(1024 * 1024, 'h'));
    EXPECT_TRUE(client.closedWithoutReply());
    EXPECT_TRUE(answers(running.port(), post));
}

}  // namespace
