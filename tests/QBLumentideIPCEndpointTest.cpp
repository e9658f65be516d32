// Endpoints: the listening socket and its file, the server loop's start and end, client
// connections, the client list, and the descriptors that all of them leave behind.

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "support/ChannelFixture.h"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

class QBLumentideIPCEndpointTest : public ChannelFixture {};

int openDescriptorCount() {
    int count = 0;
    if (DIR* directory = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(directory)) count += entry->d_name[0] != '.';
        ::closedir(directory);
    }
    return count;
}

bool isOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) >= 0; }

// A path of exactly length bytes inside directory.
std::string pathOfLength(const TempDir& directory, std::size_t length) {
    const std::string prefix = directory.path() + "/";
    return prefix + std::string(length - prefix.size(), 's');
}

}  // namespace

TEST_F(QBLumentideIPCEndpointTest, ServerReplacesAnExistingFileWithASocketOfMode0776) {
    std::ofstream(socketPath) << "left over by an earlier run";
    ::umask(022);
    ASSERT_TRUE(startServer());
    struct stat status {};
    ASSERT_EQ(::stat(socketPath.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0776u);
    EXPECT_EQ(server->mode(), QBLumentideIPC::serverMode);
    EXPECT_EQ(log.count("LumentideHelper started", QBLog::Channel::notice), 1);

    ASSERT_TRUE(stop(server));
    EXPECT_NE(::access(socketPath.c_str(), F_OK), 0) << "the socket file is removed at the end";
    EXPECT_EQ(log.count("LumentideHelper finished", QBLog::Channel::notice), 1);
}

TEST_F(QBLumentideIPCEndpointTest, ConcurrentShutdownsEndTheServerOnce) {
    ASSERT_TRUE(startServer());
    auto client = connectClient();
    ASSERT_TRUE(client);
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 8; ++i) stoppers.emplace_back([&] { server->shutdown(); });
    for (auto& stopper : stoppers) stopper.join();
    EXPECT_TRUE(server->waitForThreads(5s));
    EXPECT_TRUE(client->waitForThreads(5s)) << "the client sees its connection end";
    EXPECT_EQ(client->socketState(), 0);
    EXPECT_TRUE(client->isShutdown());
    EXPECT_EQ(log.count("LumentideHelper finished"), 1);
    EXPECT_EQ(server->clientCount(), 0);
}

TEST_F(QBLumentideIPCEndpointTest, ShutdownBeforeTheLoopRunsStillEndsIt) {
    server = QBLumentideIPC::initWithSocketPath(socketPath, false);
    server->startServerOnThread();
    server->shutdown();
    EXPECT_TRUE(server->waitForThreads(5s));
    EXPECT_NE(::access(socketPath.c_str(), F_OK), 0);
}

TEST_F(QBLumentideIPCEndpointTest, SocketPathLengthLimitIsInclusive) {
    const std::string longest = pathOfLength(directory, QBLumentideIPC::maximumSocketPathLength);
    auto accepted = QBLumentideIPC::initWithSocketPath(longest, false);
    EXPECT_TRUE(accepted->listen());
    EXPECT_EQ(::access(longest.c_str(), F_OK), 0);
    auto client = QBLumentideIPC::initWithSocketPath(longest, false);
    EXPECT_TRUE(client->connectOnNewThread(true));
    EXPECT_TRUE(stop(client));
    accepted->shutdown();

    const std::string tooLong = pathOfLength(directory, QBLumentideIPC::maximumSocketPathLength + 1);
    auto refused = QBLumentideIPC::initWithSocketPath(tooLong, false);
    EXPECT_FALSE(refused->listen());
    EXPECT_FALSE(refused->connect());
    EXPECT_EQ(log.count("Failed to connect to Unix socket", QBLog::Channel::general), 1);
    refused->startServerAndBlock();
    EXPECT_EQ(log.count("Failed to listen on Unix socket", QBLog::Channel::general), 1);
    EXPECT_EQ(::access(tooLong.c_str(), F_OK), -1);
    EXPECT_EQ(refused->clientCount(), 0);
    EXPECT_EQ(refused->sendMessageToFirstClient("serviceCmd", {{"command", "state"}}), std::nullopt);
    EXPECT_FALSE(log.contains("LumentideHelper started"));
    refused->shutdown();
}

TEST_F(QBLumentideIPCEndpointTest, ConnectWithoutServerFailsAndLogs) {
    auto client = QBLumentideIPC::initWithSocketPath(socketPath, false);
    const int before = openDescriptorCount();
    EXPECT_FALSE(client->connect());
    EXPECT_EQ(log.count("Failed to connect to Unix socket", QBLog::Channel::general), 1);
    EXPECT_EQ(client->socketState(), 0);
    EXPECT_EQ(openDescriptorCount(), before) << "the failed socket is closed";
    client->shutdown();
}

TEST_F(QBLumentideIPCEndpointTest, ShutdownIfNoClientsOnlyStopsAnIdleServer) {
    ASSERT_TRUE(startServer());
    auto client = connectClient();
    ASSERT_TRUE(client);
    EXPECT_FALSE(server->shutdownIfNoClients());
    EXPECT_FALSE(server->isShutdown());
    // Still serving: the client's command is answered.
    EXPECT_EQ(client->sendMessage("ping", json::object()).value_or(json())["status"], "INVALID");

    ASSERT_TRUE(stop(client));
    ASSERT_TRUE(waitUntil([&] { return server->clientCount() == 0; }));
    EXPECT_TRUE(server->shutdownIfNoClients());
    EXPECT_TRUE(server->waitForThreads(5s));
    EXPECT_EQ(log.count("LumentideHelper finished"), 1);
}

TEST_F(QBLumentideIPCEndpointTest, DisconnectClientEndsOnlyThatConnection) {
    ASSERT_TRUE(startServer());
    auto first = connectClient();
    auto second = connectClient();
    ASSERT_TRUE(first && second);
    const auto sockets = server->clientSockets();
    ASSERT_EQ(sockets.size(), 2u);
    server->disconnectClient(sockets[0]);
    EXPECT_TRUE(first->waitForThreads(5s));
    EXPECT_EQ(first->socketState(), 0);
    ASSERT_TRUE(waitUntil([&] { return server->clientCount() == 1; }));
    EXPECT_EQ(server->clientSockets(), std::vector<int>{sockets[1]});
    EXPECT_EQ(second->socketState(), 1);

    server->disconnectClient(12345);  // not a client: nothing happens
    EXPECT_EQ(server->clientCount(), 1);
}

TEST_F(QBLumentideIPCEndpointTest, ConnectOnCallingThreadReturnsWhenTheServerCloses) {
    ASSERT_TRUE(startServer());
    auto client = QBLumentideIPC::initWithSocketPath(socketPath, false);
    std::atomic<bool> returned{false};
    std::atomic<bool> result{false};
    std::thread reader([&] {
        result = client->connectOnNewThread(false);
        returned = true;
    });
    ASSERT_TRUE(waitUntil([&] { return server->clientCount() == 1; }));
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(returned) << "the reader runs on the calling thread until the connection ends";
    server->disconnectClient(server->clientSockets().at(0));
    reader.join();
    EXPECT_TRUE(result);
    EXPECT_EQ(client->socketState(), 0);
    EXPECT_TRUE(client->isShutdown());
    EXPECT_FALSE(client->connect()) << "a client endpoint connects once";
}

TEST_F(QBLumentideIPCEndpointTest, ThousandConnectionsLeaveNoDescriptorBehind) {
    ASSERT_TRUE(startServer());
    const int before = openDescriptorCount();
    for (int i = 0; i < 1000; ++i) {
        auto client = QBLumentideIPC::initWithSocketPath(socketPath, false);
        ASSERT_TRUE(client->connect()) << "cycle " << i;
        if (i % 2 == 0) {
            ASSERT_TRUE(client->sendMessage("ping", json::object()).has_value()) << "cycle " << i;
        }
        ASSERT_TRUE(stop(client)) << "cycle " << i;
    }
    ASSERT_TRUE(waitUntil([&] { return server->clientCount() == 0; }));
    EXPECT_TRUE(waitUntil([&] { return openDescriptorCount() == before; }))
        << openDescriptorCount() << " descriptors open, " << before << " before";
}

// A descriptor closed twice would close whatever file the process opened under the same number
// in the meantime. Files opened while connections end must stay open.
TEST_F(QBLumentideIPCEndpointTest, DescriptorsReusedWhileConnectionsEndStayOpen) {
    ASSERT_TRUE(startServer());
    std::vector<std::unique_ptr<RawFramePeer>> peers;
    for (int i = 0; i < 20; ++i) {
        peers.push_back(connectRawPeer());
        ASSERT_TRUE(peers.back());
    }
    const auto sockets = server->clientSockets();
    for (std::size_t i = 0; i < sockets.size() / 2; ++i) server->disconnectClient(sockets[i]);
    server->shutdown();
    std::vector<int> opened;
    for (int i = 0; i < 200; ++i) opened.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(server->waitForThreads(5s));
    for (const int descriptor : opened) {
        EXPECT_TRUE(isOpen(descriptor)) << "descriptor " << descriptor << " was closed by the channel";
        ::close(descriptor);
    }
    for (const auto& peer : peers) EXPECT_TRUE(peer->waitForClose());
}
