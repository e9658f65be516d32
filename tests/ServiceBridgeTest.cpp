// What only the whole daemon shows: the real wait for a GUI and the real launch as the console
// user (the stop while calls wait for a GUI is in ServiceProcessTest). The daemon runs on its real port and socket path inside
// private namespaces, with the GUI stand-in tool as its GUI application and raw HTTP as the page.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <future>
#include <thread>

#include "QBKelvoXMLRPCServer.h"
#include "QBLumentideIPC.h"
#include "VorbelVPNService.h"
#include "support/DaemonProcess.h"
#include "support/Eventually.h"
#include "support/LoopbackClient.h"
#include "support/PrivateNamespace.h"
#include "support/TempDir.h"

using json = nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr int bridgePort = 986;
constexpr const char* addresses[] = {"127.94.0.1", "127.0.0.1"};

std::string call(std::string_view method) { return xmlRpcPost(methodCall(method, "")); }

bool daemonListens() {
    return eventually([] {
        return LoopbackClient(bridgePort, addresses[0]).connected() &&
               LoopbackClient(bridgePort, addresses[1]).connected();
    }, 10s);
}

// The stand-in's answers file, readable by anyone, in a temporary directory.
struct Answers {
    explicit Answers(const json& answers) {
        std::ofstream(path) << answers.dump();
        ::chmod(directory.path().c_str(), 0755);
        ::chmod(path.c_str(), 0644);
    }
    TempDir directory;
    const std::string path = directory.file("answers.json");
};

std::optional<std::string> ask(const char* address, const std::string& request,
                               std::chrono::milliseconds timeout = 15s) {
    LoopbackClient client(bridgePort, address);
    return client.send(request) ? client.readResponse(timeout) : std::nullopt;
}

std::string reply(const QBKelvoXMLRPCServer::Value& value) { return QBKelvoXMLRPCServer::methodResponseReply({value}); }

}  // namespace

TEST(ServiceBridgeTest, WithoutAGUIWaitsAboutTenSecondsAndTakesOneThatConnectsMeanwhile) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start() && daemonListens());
    // No console user in these namespaces: nothing is launched, the wait runs out.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ask(addresses[0], call("trafficRates")), reply("0,0"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 9s);

    auto waiting = std::async(std::launch::async, [] { return ask(addresses[1], call("state")); });
    std::this_thread::sleep_for(1500ms);
    const Answers answers(json{{"state", {{"content", {{"result", "from the GUI"}}}}}});
    DaemonProcess standIn;
    ASSERT_TRUE(standIn.start({QB_STANDIN_PATH, "--answers", answers.path}));
    EXPECT_EQ(waiting.get(), reply("from the GUI"));
}

// The real launch: the service in this process, a real unprivileged account as the console
// user, a desktop entry whose program is the stand-in, and the real launcher starting it.
TEST(ServiceBridgeTest, LaunchesTheGUIOnceAsTheConsoleUserForConcurrentCalls) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    VorbelVPNService::Settings settings;
    ASSERT_EQ(::access(settings.guiApplication.launcher.front().c_str(), X_OK), 0)
        << "the launcher " << settings.guiApplication.launcher.front() << " is not installed";
    auto nobody = QBConsoleUser::fromPasswordDatabase("nobody");
    ASSERT_TRUE(nobody);
    const Answers answers(json{{"state", {{"content", {{"result", "launched"}}}}}});
    settings.guiApplication.applicationPath = answers.directory.file("app.desktop");
    std::ofstream(settings.guiApplication.applicationPath)
        << "[Desktop Entry]\nType=Application\nName=Stand-in\nExec=" << QB_STANDIN_PATH
        << " --quiet --answers " << answers.path << "\n";
    settings.guiApplication.consoleUser = [] { return QBConsoleUser::fromPasswordDatabase("nobody"); };
    auto service = std::make_shared<VorbelVPNService>(settings);
    std::thread serving([&] { service->startService(); });
    struct StopOnExit {
        std::function<void()> stop;
        ~StopOnExit() { stop(); }
    } stopOnExit{[&] {
        service->stopService();
        serving.join();
    }};

    std::vector<std::future<std::optional<std::string>>> calls;
    if (daemonListens()) {
        for (int i = 0; i < 20; ++i) {
            calls.push_back(std::async(std::launch::async, [i] { return ask(addresses[i % 2], call("state")); }));
        }
    }
    for (auto& answer : calls) EXPECT_EQ(answer.get(), reply("launched"));

    pid_t standInPid = 0;
    if (const auto channel = service->lumentideIPC(); channel && channel->clientCount() > 0) {
        ucred peer{};
        socklen_t length = sizeof peer;
        ::getsockopt(channel->clientSockets().front(), SOL_SOCKET, SO_PEERCRED, &peer, &length);
        standInPid = peer.pid;
        std::this_thread::sleep_for(300ms);  // a second launch would connect by now
        EXPECT_EQ(channel->clientCount(), 1) << "one launch for all the calls";
    }
    ASSERT_GT(standInPid, 0);
    std::ifstream status("/proc/" + std::to_string(standInPid) + "/status");
    std::string line, ids;
    while (std::getline(status, line)) {
        if (line.starts_with("Uid:") || line.starts_with("Gid:")) ids += line + "\n";
    }
    const auto all4 = [](auto id) { const auto n = std::to_string(id); return n + "\t" + n + "\t" + n + "\t" + n + "\n"; };
    EXPECT_EQ(ids, "Uid:\t" + all4(nobody->userId) + "Gid:\t" + all4(nobody->groupId));
    ::kill(standInPid, SIGTERM);
    siginfo_t zombie{};  // no child of the service is left unreaped
    EXPECT_TRUE(::waitid(P_ALL, 0, &zombie, WEXITED | WNOHANG | WNOWAIT) != 0 || zombie.si_pid == 0) << zombie.si_pid;
}
