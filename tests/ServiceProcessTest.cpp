// Runs the real daemon binary inside private namespaces, on its real port and socket path.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "QBLumentideIPC.h"
#include "QBTCPSocket.h"
#include "support/DaemonProcess.h"
#include "support/LoopbackClient.h"
#include "support/PrivateNamespace.h"

using namespace std::chrono_literals;

namespace {

constexpr int bridgePort = 986;
constexpr const char* aliasAddress = "127.94.0.1";
constexpr const char* loopbackAddress = "127.0.0.1";
constexpr const char* channelPath = "/var/run/com.kelvo.TunnelwrightService.socket";
constexpr auto deadline = 10s;

bool startAndWait(DaemonProcess& daemon, std::initializer_list<const char*> addresses) {
    if (!daemon.start() || !waitUntilUnixListening(channelPath, deadline)) return false;
    for (const char* address : addresses) {
        if (!waitUntilTCPListening(address, bridgePort, deadline)) return false;
    }
    return true;
}

void expectPreflightAnswered(const char* address) {
    LoopbackClient client(bridgePort, address);
    ASSERT_TRUE(client.send("OPTIONS /vpn HTTP/1.1\r\n\r\n"));
    const auto reply = client.readResponse().value_or("");
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 200 OK\r\n")) << address << ": " << reply;
    EXPECT_NE(reply.find("Access-Control-Allow-Methods: POST, OPTIONS\r\n"), std::string::npos);
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
    ASSERT_TRUE(startAndWait(daemon, {aliasAddress, loopbackAddress})) << daemon.standardError();
    struct stat info {};
    ASSERT_EQ(::stat(channelPath, &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0776u);

    expectPreflightAnswered(aliasAddress);
    expectPreflightAnswered(loopbackAddress);
    // Until the bridge commands exist every method is unknown: the call closes unanswered too.
    for (const std::string& request : {std::string("GET /vpn HTTP/1.1\r\n\r\n"),
                                      std::string("OPTIONS /vpn/ HTTP/1.1\r\n\r\n"),
                                      xmlRpcPost(methodCall("state"))}) {
        LoopbackClient client(bridgePort, aliasAddress);
        ASSERT_TRUE(client.send(request));
        EXPECT_TRUE(client.closedWithoutReply()) << request;
    }
    EXPECT_NE(daemon.standardError().find("Client connected"), std::string::npos);

    auto gui = QBLumentideIPC::initWithSocketPath(channelPath, false);
    ASSERT_TRUE(gui->connect());
    const nlohmann::json content = {{"answer", 42}};
    auto reply = gui->sendMessage("hello", content).value_or(nullptr);
    EXPECT_EQ(reply["status"], "INVALID");
    EXPECT_EQ(reply["message"], (nlohmann::json{{"command", "hello"}, {"messageid", "1"}, {"content", content}}));
    gui->shutdown();
    gui->waitForThreads(deadline);

    ASSERT_TRUE(daemon.signal(GetParam()));
    EXPECT_EQ(daemon.waitForExit(deadline), 0);
    EXPECT_FALSE(waitUntilTCPListening(aliasAddress, bridgePort, 0ms));
    EXPECT_FALSE(waitUntilTCPListening(loopbackAddress, bridgePort, 0ms));
    EXPECT_NE(::access(channelPath, F_OK), 0) << "socket file left behind";
}

INSTANTIATE_TEST_SUITE_P(TermAndInt, ServiceStopSignalTest, ::testing::Values(SIGTERM, SIGINT),
                         [](const auto& info) { return info.param == SIGTERM ? "SIGTERM" : "SIGINT"; });

TEST(ServiceProcessTest, ServesOnTheAliasAloneWhenTheLoopbackPortIsTaken) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    QBTCPSocket blocker;
    ASSERT_TRUE(blockPort(blocker, loopbackAddress));
    DaemonProcess daemon;
    ASSERT_TRUE(startAndWait(daemon, {aliasAddress}));
    expectPreflightAnswered(aliasAddress);
    ASSERT_TRUE(daemon.signal(SIGTERM));
    EXPECT_EQ(daemon.waitForExit(deadline), 0);
}

TEST(ServiceProcessTest, EndsWithStatusZeroWhenNeitherAddressCanListen) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    QBTCPSocket aliasBlocker, loopbackBlocker;
    ASSERT_TRUE(blockPort(aliasBlocker, aliasAddress) && blockPort(loopbackBlocker, loopbackAddress));
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(daemon.waitForExit(deadline), 0) << daemon.standardError();
}
