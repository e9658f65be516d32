// Runs the real daemon binary inside private namespaces, on its real port and socket path.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "QBLumentideIPC.h"
#include "support/DaemonProcess.h"
#include "support/LoopbackClient.h"
#include "support/PrivateNamespace.h"

using namespace std::chrono_literals;

namespace {

constexpr int bridgePort = 986;
constexpr const char* aliasAddress = "127.94.0.1";
constexpr const char* loopbackAddress = "127.0.0.1";
constexpr const char* channelPath = "/var/run/com.kelvo.TunnelwrightService.socket";
constexpr auto startDeadline = 10s;

const std::string preflight = "OPTIONS /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\n\r\n";

// Occupies address:986 so that the daemon cannot listen there.
class PortBlocker {
public:
    explicit PortBlocker(const char* address) {
        descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in target{};
        target.sin_family = AF_INET;
        target.sin_port = htons(bridgePort);
        ::inet_pton(AF_INET, address, &target.sin_addr);
        listening = ::bind(descriptor, reinterpret_cast<sockaddr*>(&target), sizeof target) == 0 &&
                    ::listen(descriptor, 1) == 0;
    }
    ~PortBlocker() { ::close(descriptor); }
    bool listening = false;

private:
    int descriptor = -1;
};

void expectPreflightAnswered(const char* address) {
    LoopbackClient client(address, bridgePort);
    ASSERT_TRUE(client.connected()) << address;
    ASSERT_TRUE(client.send(preflight));
    const auto reply = client.readResponse();
    ASSERT_TRUE(reply.has_value()) << address;
    EXPECT_EQ(reply->rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << *reply;
    EXPECT_NE(reply->find("Access-Control-Allow-Methods: POST, OPTIONS\r\n"), std::string::npos);
    EXPECT_NE(reply->find("Content-Length: 0\r\n"), std::string::npos);
}

class RunningDaemon {
public:
    explicit RunningDaemon(bool waitForBothAddresses = true) {
        started = daemon.start() && waitUntilUnixListening(channelPath, startDeadline) &&
                  (!waitForBothAddresses ||
                   (waitUntilTCPListening(aliasAddress, bridgePort, startDeadline) &&
                    waitUntilTCPListening(loopbackAddress, bridgePort, startDeadline)));
    }
    DaemonProcess daemon;
    bool started = false;
};

}  // namespace

class ServiceStopSignalTest : public ::testing::TestWithParam<int> {};

TEST_P(ServiceStopSignalTest, StopsWithStatusZeroAndReleasesItsPortsAndSocket) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    RunningDaemon running;
    ASSERT_TRUE(running.started) << running.daemon.standardError();

    ASSERT_TRUE(running.daemon.signal(GetParam()));
    const auto status = running.daemon.waitForExit(startDeadline);
    ASSERT_TRUE(status.has_value()) << "signal " << running.daemon.terminatedBySignal();
    EXPECT_EQ(*status, 0);
    EXPECT_FALSE(waitUntilTCPListening(aliasAddress, bridgePort, 0ms));
    EXPECT_FALSE(waitUntilTCPListening(loopbackAddress, bridgePort, 0ms));
    EXPECT_NE(::access(channelPath, F_OK), 0) << "socket file left behind";
}

INSTANTIATE_TEST_SUITE_P(TermAndInt, ServiceStopSignalTest, ::testing::Values(SIGTERM, SIGINT),
                         [](const auto& info) { return info.param == SIGTERM ? "SIGTERM" : "SIGINT"; });

TEST(ServiceProcessTest, AnswersPreflightOnBothAddressesAndClosesRefusedRequests) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    RunningDaemon running;
    ASSERT_TRUE(running.started) << running.daemon.standardError();

    expectPreflightAnswered(aliasAddress);
    expectPreflightAnswered(loopbackAddress);
    for (const char* refused : {"GET /vpn HTTP/1.1\r\n\r\n", "post /vpn HTTP/1.1\r\n\r\n",
                                "OPTIONS /vpn/ HTTP/1.1\r\n\r\n"}) {
        LoopbackClient client(loopbackAddress, bridgePort);
        ASSERT_TRUE(client.send(refused));
        EXPECT_TRUE(client.closedWithoutReply()) << refused;
    }
    // Until the bridge commands exist every method is unknown: the connection closes unanswered.
    LoopbackClient client(aliasAddress, bridgePort);
    ASSERT_TRUE(client.send(xmlRpcPost(methodCall("state"))));
    EXPECT_TRUE(client.closedWithoutReply());
    EXPECT_NE(running.daemon.standardError().find("Client connected"), std::string::npos);
}

TEST(ServiceProcessTest, ServesOnTheAliasAloneWhenTheLoopbackPortIsTaken) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    PortBlocker blocker(loopbackAddress);
    ASSERT_TRUE(blocker.listening);
    RunningDaemon running(false);
    ASSERT_TRUE(running.started);
    ASSERT_TRUE(waitUntilTCPListening(aliasAddress, bridgePort, startDeadline));
    expectPreflightAnswered(aliasAddress);

    ASSERT_TRUE(running.daemon.signal(SIGTERM));
    EXPECT_EQ(running.daemon.waitForExit(startDeadline), 0);
}

TEST(ServiceProcessTest, EndsWithStatusZeroWhenNeitherAddressCanListen) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    PortBlocker aliasBlocker(aliasAddress);
    PortBlocker loopbackBlocker(loopbackAddress);
    ASSERT_TRUE(aliasBlocker.listening && loopbackBlocker.listening);
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(daemon.waitForExit(startDeadline), 0) << daemon.standardError();
}

TEST(ServiceProcessTest, ChannelSocketAnswersCommandsInvalidAndIsRemovedAtStop) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    RunningDaemon running;
    ASSERT_TRUE(running.started) << running.daemon.standardError();

    struct stat info {};
    ASSERT_EQ(::stat(channelPath, &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0776u);

    auto gui = QBLumentideIPC::initWithSocketPath(channelPath, false);
    ASSERT_TRUE(gui->connect());
    const nlohmann::json content = {{"answer", 42}};
    const auto reply = gui->sendMessage("hello", content);
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ((*reply)["status"], "INVALID");
    EXPECT_EQ((*reply)["message"]["command"], "hello");
    EXPECT_EQ((*reply)["message"]["messageid"], "1");
    EXPECT_EQ((*reply)["message"]["content"], content);
    gui->shutdown();
    gui->waitForThreads(startDeadline);

    ASSERT_TRUE(running.daemon.signal(SIGTERM));
    EXPECT_EQ(running.daemon.waitForExit(startDeadline), 0);
    EXPECT_NE(::access(channelPath, F_OK), 0);
}
