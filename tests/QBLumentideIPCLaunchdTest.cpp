// Taking the listening socket from socket activation. The service manager's hand-over is played
// in-process: LISTEN_PID, LISTEN_FDS and LISTEN_FDNAMES are set and the descriptors are placed
// at 3, 4, ...; everything is put back afterwards.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "support/ChannelFixture.h"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr int firstPassedDescriptor = 3;
constexpr int parkingFloor = 200;  // where descriptors wait while the slots are rearranged

// Hands descriptors over the way the service manager does, and undoes it on destruction.
class ActivationEnvironment {
public:
    // Takes over the descriptors; names[i] belongs to descriptors[i].
    ActivationEnvironment(const std::vector<int>& descriptors, const std::vector<std::string>& names) {
        std::vector<int> parked;
        for (const int descriptor : descriptors) {
            parked.push_back(::fcntl(descriptor, F_DUPFD_CLOEXEC, parkingFloor));
            ::close(descriptor);
        }
        for (std::size_t i = 0; i < parked.size(); ++i) {
            const int slot = firstPassedDescriptor + static_cast<int>(i);
            saved.push_back(::fcntl(slot, F_DUPFD_CLOEXEC, parkingFloor));  // -1 when unused
            ::dup2(parked[i], slot);
            ::close(parked[i]);
        }
        std::string joined;
        for (const auto& name : names) joined += (joined.empty() ? "" : ":") + name;
        set(std::to_string(::getpid()), std::to_string(descriptors.size()), joined);
    }
    ~ActivationEnvironment() {
        unset();
        for (std::size_t i = 0; i < saved.size(); ++i) {
            const int slot = firstPassedDescriptor + static_cast<int>(i);
            if (saved[i] >= 0) {
                ::dup2(saved[i], slot);
                ::close(saved[i]);
            } else {
                ::close(slot);
            }
        }
    }
    static void set(const std::string& pid, const std::string& count, const std::string& names) {
        ::setenv("LISTEN_PID", pid.c_str(), 1);
        ::setenv("LISTEN_FDS", count.c_str(), 1);
        ::setenv("LISTEN_FDNAMES", names.c_str(), 1);
    }
    static void unset() {
        ::unsetenv("LISTEN_PID");
        ::unsetenv("LISTEN_FDS");
        ::unsetenv("LISTEN_FDNAMES");
    }

private:
    std::vector<int> saved;
};

int listeningSocketAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::listen(descriptor, 5);
    return descriptor;
}

int unconnectedSocket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }

int pipeEnd() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
    ::close(ends[1]);
    return ends[0];
}

class QBLumentideIPCLaunchdTest : public ChannelFixture {};

}  // namespace

TEST_F(QBLumentideIPCLaunchdTest, ServerUsesThePassedSocketAndLeavesItToTheServiceManager) {
    ActivationEnvironment environment({listeningSocketAt(socketPath)}, {"MasterSocket"});
    server = QBLumentideIPC::initWithSocketPath(socketPath, true);
    server->startServerOnThread();
    ASSERT_TRUE(waitUntil([&] { return log.contains("LumentideHelper started"); }));
    EXPECT_EQ(::getenv("LISTEN_FDS"), nullptr) << "the hand-over is not passed on to children";

    auto client = connectClient();
    ASSERT_TRUE(client);
    EXPECT_EQ(client->sendMessage("hello", json::object()).value_or(json())["status"], "INVALID");

    ASSERT_TRUE(stop(server));
    EXPECT_TRUE(client->waitForThreads(5s)) << "the client's connection is closed at teardown";
    EXPECT_GE(::fcntl(firstPassedDescriptor, F_GETFD), 0) << "the passed socket stays open";
    EXPECT_EQ(::access(socketPath.c_str(), F_OK), 0) << "its file stays in place";
    EXPECT_FALSE(log.contains("Some sockets in dictionary will be ignored"));
    EXPECT_FALSE(log.contains("Some sockets in array will be ignored"));
}

TEST_F(QBLumentideIPCLaunchdTest, ExtraSocketsAreIgnoredWithANote) {
    {
        ActivationEnvironment environment({unconnectedSocket(), listeningSocketAt(socketPath)},
                                          {"Other", "MasterSocket"});
        auto endpoint = QBLumentideIPC::initWithSocketPath(socketPath, true);
        EXPECT_EQ(endpoint->getSocketFromLaunchd(), firstPassedDescriptor + 1);
        EXPECT_EQ(log.count("Some sockets in dictionary will be ignored", QBLog::Channel::general), 1);
        EXPECT_FALSE(log.contains("Some sockets in array will be ignored"));
        endpoint->shutdown();
    }
    ::unlink(socketPath.c_str());
    log.clear();
    {
        ActivationEnvironment environment({listeningSocketAt(socketPath), unconnectedSocket()},
                                          {"MasterSocket", "MasterSocket"});
        auto endpoint = QBLumentideIPC::initWithSocketPath(socketPath, true);
        EXPECT_EQ(endpoint->getSocketFromLaunchd(), firstPassedDescriptor);
        EXPECT_EQ(log.count("Some sockets in array will be ignored", QBLog::Channel::general), 1);
        EXPECT_FALSE(log.contains("Some sockets in dictionary will be ignored"));
        endpoint->shutdown();
    }
}

TEST_F(QBLumentideIPCLaunchdTest, FailedCheckInIsLoggedAndEndsTheServerThread) {
    struct Case {
        const char* name;
        std::function<std::unique_ptr<ActivationEnvironment>()> prepare;
        const char* expected;
    };
    const std::string path = socketPath;
    const std::vector<Case> cases = {
        {"nothing passed", [] { return nullptr; }, "Could not get socket dictionary from checkin response"},
        {"malformed count",
         [] {
             ActivationEnvironment::set(std::to_string(::getpid()), "many", "MasterSocket");
             return nullptr;
         },
         "Checkin failed"},
        {"no socket of that name",
         [&] { return std::make_unique<ActivationEnvironment>(std::vector<int>{listeningSocketAt(path)},
                                                              std::vector<std::string>{"Other"}); },
         "Could not get file descriptor array"},
        {"a pipe instead of a socket",
         [] { return std::make_unique<ActivationEnvironment>(std::vector<int>{pipeEnd()},
                                                             std::vector<std::string>{"MasterSocket"}); },
         "Could not get file descriptor array entry: Type mismatch"},
        {"a socket that does not listen",
         [] { return std::make_unique<ActivationEnvironment>(std::vector<int>{unconnectedSocket()},
                                                             std::vector<std::string>{"MasterSocket"}); },
         "Could not get file descriptor array entry: Type mismatch"},
    };
    for (const Case& c : cases) {
        log.clear();
        ::unlink(path.c_str());
        auto environment = c.prepare();
        auto endpoint = QBLumentideIPC::initWithSocketPath(path, true);
        endpoint->startServerAndBlock();
        ActivationEnvironment::unset();
        EXPECT_EQ(log.count(c.expected, QBLog::Channel::general), 1) << c.name;
        EXPECT_EQ(log.count("Failed to get socket from launchd", QBLog::Channel::notice), 1) << c.name;
        EXPECT_FALSE(log.contains("LumentideHelper started")) << c.name;
        EXPECT_EQ(log.lines().size(), 2u) << c.name;
        EXPECT_EQ(endpoint->clientCount(), 0) << c.name;
        EXPECT_EQ(endpoint->selfReference(), nullptr) << c.name << ": the ended loop lets go";
    }
}

TEST_F(QBLumentideIPCLaunchdTest, DefaultEndpointChecksInOnTheDefaultPath) {
    auto endpoint = QBLumentideIPC::init();
    EXPECT_EQ(endpoint->socketPath(), "/var/run/com.quarrybay.LumentideHelper.socket");
    endpoint->startServerAndBlock();  // not activated: ends without touching the path
    EXPECT_EQ(log.count("Failed to get socket from launchd", QBLog::Channel::notice), 1);
    EXPECT_FALSE(log.contains("Failed to listen on Unix socket"));
}
