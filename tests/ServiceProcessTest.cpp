// Runs the real daemon binary inside private namespaces, on its real port and socket path.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "QBLumentideIPC.h"
#include "QBTCPSocket.h"
#include "support/DaemonProcess.h"
#include "support/Eventually.h"
#include "support/LoopbackClient.h"
#include "support/PrivateNamespace.h"

using namespace std::chrono_literals;

namespace {

constexpr int bridgePort = 986;
constexpr const char* aliasAddress = "127.94.0.1";
constexpr const char* loopbackAddress = "127.0.0.1";
constexpr const char* channelPath = "/var/run/com.kelvo.TunnelwrightService.socket";
constexpr auto deadline = 10s;

bool listening(const char* address, std::chrono::milliseconds within = deadline) {
    return eventually([&] { return LoopbackClient(bridgePort, address).connected(); }, within);
}

bool answersPreflight(const char* address) {
    LoopbackClient client(bridgePort, address);
    const auto reply =
        client.send("OPTIONS /vpn HTTP/1.1\r\n\r\n") ? client.readResponse() : std::nullopt;
    return reply && reply->starts_with("HTTP/1.1 200 OK\r\n") &&
           reply->find("Access-Control-Allow-Methods: POST, OPTIONS\r\n") != std::string::npos;
}

// Occupies address:986 so that the daemon cannot listen there.
bool blockPort(QBTCPSocket& blocker, const char* address) {
    return blocker.listenOnAddress(QBIPAddress::ipAddressWithAddress(address), bridgePort);
}

}  // namespace

class ServiceStopSignalTest : public ::testing::TestWithParam<int> {};

TEST_P(ServiceStopSignalTest, ServesBothAddressesAndTheChannelThenStopsCleanly) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    DaemonProcess daemon;
    // The channel starts listening before the bridge servers are made.
    ASSERT_TRUE(daemon.start() && listening(aliasAddress) && listening(loopbackAddress));
    struct stat info {};
    ASSERT_EQ(::stat(channelPath, &info), 0);
    EXPECT_EQ(info.st_mode & (S_IFMT | 07777), S_IFSOCK | 0776u);

    EXPECT_TRUE(answersPreflight(aliasAddress) && answersPreflight(loopbackAddress));
    // Outside the dialect, and an unknown method: closed unanswered.
    for (const auto& request :
         {std::string("GET /vpn HTTP/1.1\r\n\r\n"), std::string("OPTIONS /vpn/ HTTP/1.1\r\n\r\n"),
          xmlRpcPost(methodCall("stateOfTheArt"))}) {
        LoopbackClient client(bridgePort, aliasAddress);
        ASSERT_TRUE(client.send(request));
        EXPECT_TRUE(client.closedWithoutReply()) << request;
    }

    auto gui = QBLumentideIPC::initWithSocketPath(channelPath, false);
    ASSERT_TRUE(gui->connect());
    const nlohmann::json content = {{"answer", 42}};
    auto reply = gui->sendMessage("hello", content).value_or(nullptr);
    EXPECT_EQ(reply["status"], "INVALID");
    EXPECT_EQ(reply["message"],
              (nlohmann::json{{"command", "hello"}, {"messageid", "1"}, {"content", content}}));
    gui->shutdown();
    gui->waitForThreads(deadline);

    ASSERT_TRUE(daemon.signal(GetParam()));
    EXPECT_EQ(daemon.waitForExit(deadline), 0);
    EXPECT_FALSE(listening(aliasAddress, 0ms) || listening(loopbackAddress, 0ms));
    EXPECT_NE(::access(channelPath, F_OK), 0) << "socket file left behind";
}

INSTANTIATE_TEST_SUITE_P(TermAndInt, ServiceStopSignalTest, ::testing::Values(SIGTERM, SIGINT),
                         ::testing::PrintToStringParamName());

TEST(ServiceProcessTest, ServesTheAddressLeftFreeAndEndsAtOnceWhenNoneIs) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    QBTCPSocket loopbackBlocker, aliasBlocker;
    ASSERT_TRUE(blockPort(loopbackBlocker, loopbackAddress));
    DaemonProcess aliasOnly;
    ASSERT_TRUE(aliasOnly.start() && listening(aliasAddress));
    EXPECT_TRUE(answersPreflight(aliasAddress));
    ASSERT_TRUE(aliasOnly.signal(SIGTERM));
    EXPECT_EQ(aliasOnly.waitForExit(deadline), 0);

    ASSERT_TRUE(blockPort(aliasBlocker, aliasAddress));
    DaemonProcess neither;
    ASSERT_TRUE(neither.start());
    EXPECT_EQ(neither.waitForExit(deadline), 0) << neither.standardError();
}
