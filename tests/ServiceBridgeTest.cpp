// What only the whole service shows: the real wait for a GUI, and the real launch as the console
// user. The service runs in this process on its real port and socket path inside private
// namespaces, with the GUI stand-in tool as its GUI application and raw HTTP as the page. (The
// stop while calls wait for a GUI is in ServiceProcessTest.)

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
#include "support/Eventually.h"
#include "support/LoopbackClient.h"
#include "support/PrivateNamespace.h"
#include "support/TempDir.h"

using namespace std::chrono_literals;

namespace {

constexpr const char* addresses[] = {"127.94.0.1", "127.0.0.1"};

std::optional<std::string> ask(const char* address, std::string_view method) {
    LoopbackClient client(986, address);
    return client.send(xmlRpcPost(methodCall(method))) ? client.readResponse(15s * sanitizerSlowdown) : std::nullopt;
}

std::string reply(const QBKelvoXMLRPCServer::Value& value) { return QBKelvoXMLRPCServer::methodResponseReply({value}); }

}  // namespace

// A real unprivileged account as the console user, once there is one; a desktop entry whose
// program is the stand-in, and the real launcher starting it.
TEST(ServiceBridgeTest, WaitsAboutTenSecondsForAGUIThenLaunchesItOnceAsTheConsoleUser) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    VorbelVPNService::Settings settings;
    ASSERT_EQ(::access(settings.guiApplication.launcher.front().c_str(), X_OK), 0)
        << "the launcher " << settings.guiApplication.launcher.front() << " is not installed";
    const auto nobody = QBConsoleUser::fromPasswordDatabase("nobody");
    ASSERT_TRUE(nobody);
    TempDir directory;  // readable by the console user
    const auto answers = directory.file("answers.json");
    std::ofstream(answers) << R"({"state": {"content": {"result": "launched"}}})";
    ASSERT_EQ(::chmod(directory.path().c_str(), 0755) | ::chmod(answers.c_str(), 0644), 0);
    settings.guiApplication.applicationPath = directory.file("app.desktop");
    std::ofstream(settings.guiApplication.applicationPath)
        << "[Desktop Entry]\nType=Application\nName=Stand-in\nExec=" << QB_STANDIN_PATH
        << " --quiet --answers " << answers << "\n";
    std::atomic<bool> loggedIn{false};
    settings.guiApplication.consoleUser = [&] { return loggedIn ? nobody : std::nullopt; };
    auto service = std::make_shared<VorbelVPNService>(settings);
    std::thread serving([&] { service->startService(); });
    const std::shared_ptr<void> stopOnExit(nullptr, [&](void*) { service->stopService(), serving.join(); });
    ASSERT_TRUE(eventually([] {
        return LoopbackClient(986, addresses[0]).connected() && LoopbackClient(986, addresses[1]).connected();
    }, 10s));

    // Nobody at the console: nothing is launched, the wait runs out.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ask(addresses[0], "trafficRates"), reply("0,0"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 9s);

    loggedIn = true;
    std::vector<std::future<std::optional<std::string>>> calls;
    for (int i = 0; i < 20; ++i) {
        calls.push_back(std::async(std::launch::async, [i] { return ask(addresses[i % 2], "state"); }));
    }
    for (auto& answer : calls) EXPECT_EQ(answer.get(), reply("launched"));

    pid_t standInPid = 0;
    if (const auto channel = service->lumentideIPC(); channel && channel->clientCount() > 0) {
        ucred peer{};
        socklen_t length = sizeof peer;
        ::getsockopt(channel->clientSockets().front(), SOL_SOCKET, SO_PEERCRED, &peer, &length);
        standInPid = peer.pid;
        std::this_thread::sleep_for(300ms * sanitizerSlowdown);  // a second launch would connect by now
        EXPECT_EQ(channel->clientCount(), 1) << "one launch for all the calls";
    }
    ASSERT_GT(standInPid, 0);
    ::kill(standInPid, SIGTERM);
    siginfo_t zombie{};  // no child of the service is left unreaped
    EXPECT_TRUE(::waitid(P_ALL, 0, &zombie, WEXITED | WNOHANG | WNOWAIT) != 0 || zombie.si_pid == 0) << zombie.si_pid;
}
