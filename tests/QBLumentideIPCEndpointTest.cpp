// Endpoints: the socket file, the server loop's start and end, client connections, the client
// list, socket activation, and the descriptors that all of them leave behind.

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "support/ChannelFixture.h"  // with gtest, and through RawFramePeer the socket headers

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

class QBLumentideIPCEndpointTest : public ChannelFixture {};

long openDescriptorCount() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }
bool isOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) >= 0; }

// Hands descriptors over at 3, 4, ... the way the service manager does (count, if given, in place
// of their number); undone on destruction.
struct Activation {
    Activation(const std::vector<int>& descriptors, const std::string& names, const char* count = nullptr) {
        for (int i = 0; i < static_cast<int>(descriptors.size()); ++i) {
            const int parked = ::fcntl(descriptors[i], F_DUPFD_CLOEXEC, 200);
            ::close(descriptors[i]);
            saved.push_back(::fcntl(3 + i, F_DUPFD_CLOEXEC, 200));
            ::dup2(parked, 3 + i), ::close(parked);
        }
        ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
        ::setenv("LISTEN_FDS", count ? count : std::to_string(descriptors.size()).c_str(), 1);
        ::setenv("LISTEN_FDNAMES", names.c_str(), 1);
    }
    ~Activation() {
        for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) ::unsetenv(name);
        for (int i = 0; i < static_cast<int>(saved.size()); ++i) saved[i] >= 0 ? (::dup2(saved[i], 3 + i), ::close(saved[i])) : ::close(3 + i);
    }
    std::vector<int> saved;  // what 3, 4, ... were before (-1: nothing)
};

int unixSocket(const std::string& listenPath = "") {  // listening on listenPath, if one is given
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, listenPath.c_str(), sizeof address.sun_path - 1);
    if (!listenPath.empty()) ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), ::listen(descriptor, 5);
    return descriptor;
}

}  // namespace

// At the longest path a file left over is replaced; many stops at once remove it and end once.
TEST_F(QBLumentideIPCEndpointTest, SocketFileUpToTheAddressLimitIsReplacedAndRemovedOnceAndLongerPathsAreRefused) {
    const std::string prefix = directory.path() + "/";
    socketPath = prefix + std::string(QBLumentideIPC::maximumSocketPathLength - prefix.size(), 's');
    std::ofstream(socketPath) << "left over by an earlier run";
    ASSERT_TRUE(startServer());
    auto client = connectClient();  // on the file the server made in place of the old one

    std::vector<std::thread> stoppers;
    for (int i = 0; i < 8; ++i) stoppers.emplace_back([&] { server->shutdown(); });
    for (auto& stopper : stoppers) stopper.join();
    EXPECT_TRUE(server->waitForThreads(5s * sanitizerSlowdown));
    EXPECT_TRUE(client->waitForThreads(5s * sanitizerSlowdown)) << "the client sees its connection end";
    EXPECT_TRUE(client->isShutdown());
    EXPECT_NE(::access(socketPath.c_str(), F_OK), 0);
    EXPECT_EQ(log.count("LumentideHelper finished", QBLog::Channel::notice), 1);

    auto refused = QBLumentideIPC::initWithSocketPath(socketPath + "s", false);
    EXPECT_FALSE(refused->connect());
    refused->startServerAndBlock();
    EXPECT_EQ(log.count("Failed to connect to Unix socket", QBLog::Channel::general), 1);
    EXPECT_EQ(log.count("Failed to listen on Unix socket", QBLog::Channel::general), 1);
    EXPECT_EQ(refused->clientCount(), 0);
    EXPECT_EQ(refused->selfReference(), nullptr) << "the ended loop lets go of the endpoint";
    refused->shutdown();

    auto early = QBLumentideIPC::initWithSocketPath(directory.file("early"), false);
    early->startServerOnThread();
    early->shutdown();  // before the loop has made its wake pipe
    EXPECT_TRUE(early->waitForThreads(5s * sanitizerSlowdown));
}

TEST_F(QBLumentideIPCEndpointTest, ClientListDecidesShutdownIfNoClientsAndDisconnectClient) {
    ASSERT_TRUE(startServer());
    auto first = clients.emplace_back(QBLumentideIPC::initWithSocketPath(socketPath, false));
    std::thread reader([&] { EXPECT_TRUE(first->connectOnNewThread(false)); });  // returns when closed
    ASSERT_TRUE(eventually([&] { return server->clientCount() == 1; }));
    auto second = connectClient();
    EXPECT_FALSE(server->shutdownIfNoClients());

    server->disconnectClient(12345);  // not a client: nothing happens
    server->disconnectClient(server->clientSockets().at(0));
    reader.join();
    EXPECT_EQ(first->socketState(), 0);
    EXPECT_FALSE(first->connect()) << "a client endpoint connects once";
    ASSERT_TRUE(eventually([&] { return server->clientCount() == 1; }));
    EXPECT_EQ(second->sendMessage("ping", json::object()).value_or(json())["status"], "INVALID");

    ASSERT_TRUE(shutDownAndWait(second));
    ASSERT_TRUE(eventually([&] { return server->clientCount() == 0; }));
    EXPECT_TRUE(server->shutdownIfNoClients());
    EXPECT_TRUE(server->waitForThreads(5s * sanitizerSlowdown));
}

// Every connection's descriptor is closed exactly once: none is left behind, and none is closed
// again later, which would close whatever the process had opened under the same number meanwhile.
TEST_F(QBLumentideIPCEndpointTest, ConnectionDescriptorsAreClosedExactlyOnce) {
    ASSERT_TRUE(startServer());
    const long before = openDescriptorCount();
    for (int i = 0; i < 1000; ++i) {
        auto client = QBLumentideIPC::initWithSocketPath(socketPath, false);
        ASSERT_TRUE(client->connect()) << i;
        ASSERT_TRUE(i % 2 == 0 || client->sendMessage("ping", json::object())) << i;
        ASSERT_TRUE(shutDownAndWait(client)) << i;
    }
    EXPECT_TRUE(eventually([&] { return server->clientCount() == 0 && openDescriptorCount() == before; }))
        << openDescriptorCount() << " open, " << before << " before";

    std::vector<std::unique_ptr<RawFramePeer>> peers;
    for (int i = 0; i < QBLumentideIPC::maximumClientsPerUser; ++i) peers.push_back(connectRawPeer());
    for (const int client : server->clientSockets()) if (client % 2) server->disconnectClient(client);
    server->shutdown();
    std::vector<int> opened;
    for (int i = 0; i < 200; ++i) opened.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(server->waitForThreads(5s * sanitizerSlowdown));
    for (const int descriptor : opened) EXPECT_TRUE(isOpen(descriptor)) << descriptor;
    for (const int descriptor : opened) ::close(descriptor);
}

TEST_F(QBLumentideIPCEndpointTest, ActivatedServerUsesMasterSocketAndLeavesItToTheServiceManager) {
    {
        Activation activation({unixSocket(), unixSocket(socketPath)}, "Other:MasterSocket");
        ASSERT_TRUE(startServer(true));
        EXPECT_EQ(log.count("Some sockets in dictionary will be ignored", QBLog::Channel::general), 1);
        auto client = connectClient();
        ASSERT_TRUE(shutDownAndWait(server));
        EXPECT_TRUE(client->waitForThreads(5s * sanitizerSlowdown));
        EXPECT_TRUE(isOpen(4)) << "the passed socket stays open";
        EXPECT_EQ(::access(socketPath.c_str(), F_OK), 0) << "and so does its file";
    }
    const std::tuple<std::vector<int>, const char*, const char*, const char*> failures[] = {  // passed, names, count
        {{}, "", "x", "Checkin failed"},
        {{unixSocket(directory.file("a"))}, "Other", nullptr, "Could not get file descriptor array"},
        {{unixSocket(), unixSocket()}, "MasterSocket:MasterSocket", nullptr, "Could not get file descriptor array entry: Type mismatch"}};
    for (const auto& [descriptors, names, count, expected] : failures) {
        log.clear();
        Activation activation(descriptors, names, count);
        auto endpoint = QBLumentideIPC::initWithSocketPath(socketPath, true);
        endpoint->startServerAndBlock();
        EXPECT_EQ(log.count(expected, QBLog::Channel::general), 1) << expected;
        EXPECT_EQ(log.count("Failed to get socket from launchd", QBLog::Channel::notice), 1) << expected;
        EXPECT_FALSE(log.contains("LumentideHelper started")) << expected;
    }
    EXPECT_EQ(log.count("Some sockets in array will be ignored"), 1) << "two named MasterSocket";
}

// No local user can take every slot: those past a user's share are closed at once (and logged
// once per interval) while another user still gets a slot, and a slot that a client gives back
// serves its user again.
TEST_F(QBLumentideIPCEndpointTest, OneUserHoldsAtMostItsShareOfTheClientSlots) {
    constexpr uid_t hog = 60001, other = 60002;
    constexpr int share = QBLumentideIPC::maximumClientsPerUser;
    ::chmod(directory.path().c_str(), 0755);  // the other users reach the socket file
    ASSERT_TRUE(startServer());
    const auto served = [](RawFramePeer& peer) {  // answered (INVALID: no delegate), not closed
        return peer.sendEnvelope({{"command", "ping"}, {"messageid", "1"}, {"content", json::object()}}) &&
               peer.readEnvelope().has_value();
    };
    auto hogs = RawFramePeer::connectAsUser(socketPath, hog, share + 2);
    ASSERT_EQ(hogs.size(), share + 2u);
    for (std::size_t i = share; i < hogs.size(); ++i) EXPECT_TRUE(hogs[i]->waitForClose()) << i;
    hogs.resize(share);
    EXPECT_TRUE(eventually([&] { return server->clientCount() == share; }));
    for (int i = 0; i < share; ++i) EXPECT_TRUE(served(*hogs[static_cast<std::size_t>(i)])) << i;
    auto others = RawFramePeer::connectAsUser(socketPath, other, 1);
    ASSERT_EQ(others.size(), 1u);
    EXPECT_TRUE(served(*others[0]));
    EXPECT_EQ(log.count("Too many clients; connection refused"), 1);

    hogs.front()->close();
    EXPECT_TRUE(eventually([&] {  // free once the closed client's reader has ended
        auto again = RawFramePeer::connectAsUser(socketPath, hog, 1);
        if (again.size() != 1 || !served(*again[0])) return false;
        hogs.front() = std::move(again[0]);
        return true;
    }));
}
