// The whole bridge for real: the daemon on its real port and socket path inside private
// namespaces, the GUI stand-in tool as its GUI application, raw HTTP as the page.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "QBKelvoXMLRPCServer.h"
#include "QBLumentideIPC.h"
#include "QBPlatform.h"
#include "VorbelVPNService.h"
#include "support/DaemonProcess.h"
#include "support/Eventually.h"
#include "support/LoopbackClient.h"
#include "support/PrivateNamespace.h"
#include "support/TempDir.h"

using json = nlohmann::json;
using Value = QBKelvoXMLRPCServer::Value;
using namespace std::chrono_literals;

namespace {

constexpr int bridgePort = 986;
constexpr const char* addresses[] = {"127.94.0.1", "127.0.0.1"};
constexpr const char* channelPath = "/var/run/com.kelvo.TunnelwrightService.socket";

std::string stringParam(std::string_view text) {
    return "<param><value><string>" + std::string(text) + "</string></value></param>";
}
std::string intParam(std::int64_t number) {
    return "<param><value><int>" + std::to_string(number) + "</int></value></param>";
}
std::string call(std::string_view method, std::string_view params = "") {
    return xmlRpcPost(methodCall(method, params.empty() ? "" : "<params>" + std::string(params) + "</params>"));
}

bool daemonListens() {
    return eventually([] {
        return LoopbackClient(bridgePort, addresses[0]).connected() &&
               LoopbackClient(bridgePort, addresses[1]).connected();
    }, 10s);
}

// The stand-in's answers file in a temporary directory.
struct Answers {
    explicit Answers(const json& answers) { std::ofstream(path) << answers.dump(); }
    TempDir directory;
    const std::string path = directory.file("answers.json");
};

bool startStandIn(DaemonProcess& standIn, const Answers& answers) {
    return standIn.start({QB_STANDIN_PATH, "--answers", answers.path});
}

// The contents of the "serviceCmd" frames that the stand-in printed, in order.
std::vector<json> contentsSeen(const DaemonProcess& standIn) {
    std::vector<json> contents;
    std::istringstream lines(standIn.standardOutput());
    for (std::string line; std::getline(lines, line);) contents.push_back(json::parse(line)["content"]);
    return contents;
}

std::optional<std::string> ask(const char* address, const std::string& request,
                               std::chrono::milliseconds timeout = 15s) {
    LoopbackClient client(bridgePort, address);
    return client.send(request) ? client.readResponse(timeout) : std::nullopt;
}

std::string reply(const Value& value) { return QBKelvoXMLRPCServer::methodResponseReply({value}); }

}  // namespace

TEST(ServiceBridgeTest, AnswersEveryMethodOnBothAddressesWithTheGUIsAnswers) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    const Answers answers(json{
        {"authorize", {{"content", {{"result", true}}}}},
        {"connect", {{"content", {{"result", "connecting"}}}}},
        {"connectWithToken", {{"content", {{"result", "ok"}}}}},
        {"state", {{"content", {{"result", "connected"}}}}},
        {"connectionTime", {{"content", {{"result", 61}}}}},
        {"connectionTimeDisplayable", {{"content", {{"result", "00:01:01"}}}}},
        {"trafficRates", {{"content", {{"result", "1,2"}}}}},
        {"trafficTotals", {{"content", {{"result", "3,4"}}}}},
        {"clientVersion", {{"content", {{"version", "2.0,7"}}}}},
    });
    DaemonProcess daemon, standIn;
    ASSERT_TRUE(daemon.start() && daemonListens() && startStandIn(standIn, answers));
    ASSERT_TRUE(eventually([] { return ask(addresses[1], call("state")) == reply("connected"); }));
    const auto seenBefore = contentsSeen(standIn).size();

    const std::string server = stringParam("vpn.example.com");
    struct Row {
        std::string request;
        Value answer;
        std::optional<json> sent;  // nothing: the GUI must not hear of it
    };
    const std::vector<Row> rows{
        {call("clientOS"), "Mac OS " + QBPlatform::operatingSystemVersion(), std::nullopt},
        {call("clientVersion"), "2.0,7", json{{"command", "clientVersion"}}},
        {call("authorize", server + intParam(443) + intParam(8443)), std::int64_t{1},
         json{{"command", "authorize"}, {"server", "vpn.example.com"}, {"port", 443}, {"webPort", 8443}}},
        {call("authorize", server + intParam(0) + intParam(8443)), std::int64_t{0}, std::nullopt},
        {call("connect", intParam(12345) + stringParam("65535") + intParam(1)), "connecting",
         json{{"command", "connect"}, {"server", "12345"}, {"port", 65535}, {"webPort", 1}}},
        {call("connectWithToken", server + intParam(443) + intParam(8443) + stringParam("t0k")), "ok",
         json{{"command", "connectWithToken"}, {"server", "vpn.example.com"}, {"port", 443},
              {"webPort", 8443}, {"securityToken", "t0k"}}},
        {call("connectWithToken", server + intParam(443) + intParam(8443) + stringParam(std::string(257, 't'))),
         "", std::nullopt},
        {call("disconnect", stringParam("t0k")), "", json{{"command", "disconnect"}, {"securityToken", "t0k"}}},
        {call("suspend"), "", json{{"command", "suspend"}, {"securityToken", ""}}},
        {call("resume"), "", json{{"command", "resume"}}},
        {call("state"), "connected", json{{"command", "state"}}},
        {call("connectionTime"), std::int64_t{61}, json{{"command", "connectionTime"}}},
        {call("connectionTimeDisplayable"), "00:01:01", json{{"command", "connectionTimeDisplayable"}}},
        {call("trafficRates"), "1,2", json{{"command", "trafficRates"}}},
        {call("trafficTotals"), "3,4", json{{"command", "trafficTotals"}}},
    };
    std::vector<json> expectedSent;
    for (const char* address : addresses) {
        LoopbackClient page(bridgePort, address);  // one persistent connection, as a browser keeps
        for (const auto& row : rows) {
            ASSERT_TRUE(page.send(row.request));
            EXPECT_EQ(page.readResponse(), reply(row.answer)) << address << " " << row.request;
            if (row.sent) expectedSent.push_back(*row.sent);
        }
    }
    const auto seen = contentsSeen(standIn);
    EXPECT_EQ(std::vector<json>(seen.begin() + static_cast<std::ptrdiff_t>(seenBefore), seen.end()),
              expectedSent);
    // The bytes a page reads, once in full.
    EXPECT_EQ(reply(std::int64_t{61}),
              "HTTP/1.1 200 OK\r\nAccess-Control-Allow-Origin: *\r\nCache-Control: no-cache\r\n"
              "Content-Length: 165\r\nContent-Type: text/xml\r\nPragma: no-cache\r\n"
              "Server: MacTunnelwright/1.1\r\n\r\n"
              "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<methodResponse>\r\n  <params>\n"
              "    <param>\r\n      <value><int>61</int></value>\r\n    </param>\r\n  </params>\r\n"
              "</methodResponse>\r\n");
}

TEST(ServiceBridgeTest, AGUIThatGoesAwayMidRequestGivesTheDefaultAtOnce) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    const Answers answers(json{{"state", {{"noReply", true}}}});
    DaemonProcess daemon, standIn;
    ASSERT_TRUE(daemon.start() && daemonListens() && startStandIn(standIn, answers));
    ASSERT_TRUE(eventually([] { return ::access(channelPath, F_OK) == 0; }));
    LoopbackClient page(bridgePort, addresses[0]);
    ASSERT_TRUE(eventually([&] { return standIn.standardError().find("connected") != std::string::npos; }));
    ASSERT_TRUE(page.send(call("state")));
    ASSERT_TRUE(eventually([&] { return contentsSeen(standIn).size() == 1; }));
    ASSERT_TRUE(standIn.signal(SIGKILL));
    const auto killed = std::chrono::steady_clock::now();
    EXPECT_EQ(page.readResponse(2s), reply("disconnected"));
    const auto elapsed = std::chrono::steady_clock::now() - killed;
    std::cout << "default after the GUI went away: "
              << std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count() << " us\n";
    EXPECT_LT(elapsed, 1s * sanitizerSlowdown);
}

TEST(ServiceBridgeTest, WithoutAGUIWaitsAboutTenSecondsAndTakesOneThatConnectsMeanwhile) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start() && daemonListens());
    // No console user in these namespaces: nothing is launched, the wait runs out.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ask(addresses[0], call("trafficRates")), reply("0,0"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 9s);
    // clientVersion never waits: no GUI, no installed application.
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(ask(addresses[0], call("clientVersion")), reply("0.0.0,0"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s * sanitizerSlowdown);

    auto waiting = std::async(std::launch::async, [] { return ask(addresses[1], call("state")); });
    std::this_thread::sleep_for(1500ms);
    const Answers answers(json{{"state", {{"content", {{"result", "from the GUI"}}}}}});
    DaemonProcess standIn;
    ASSERT_TRUE(startStandIn(standIn, answers));
    EXPECT_EQ(waiting.get(), reply("from the GUI"));
}

TEST(ServiceBridgeTest, SIGTERMEndsTheDaemonWithinASecondWhileCallsWaitForTheGUI) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start() && daemonListens());
    std::vector<std::unique_ptr<LoopbackClient>> pages;
    for (int i = 0; i < 100; ++i) {
        pages.push_back(std::make_unique<LoopbackClient>(bridgePort, addresses[i % 2]));
        ASSERT_TRUE(pages.back()->send(call("state")));
    }
    std::this_thread::sleep_for(500ms);  // all in the GUI wait by now
    ASSERT_TRUE(daemon.signal(SIGTERM));
    const auto signalled = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon.waitForExit(1s * sanitizerSlowdown), 0) << daemon.standardError();
    std::cout << "stopped after "
              << std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - signalled).count()
              << " ms\n";
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
    TempDir directory;
    ::chmod(directory.path().c_str(), 0755);
    const Answers answers(json{{"state", {{"content", {{"result", "launched"}}}}}});
    ::chmod(answers.directory.path().c_str(), 0755);
    ::chmod(answers.path.c_str(), 0644);
    settings.guiApplication.applicationPath = directory.file("app.desktop");
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
    const std::string ids = std::to_string(nobody->userId), group = std::to_string(nobody->groupId);
    std::string line, uidLine, gidLine;
    while (std::getline(status, line)) {
        if (line.starts_with("Uid:")) uidLine = line;
        if (line.starts_with("Gid:")) gidLine = line;
    }
    EXPECT_EQ(uidLine, "Uid:\t" + ids + "\t" + ids + "\t" + ids + "\t" + ids);
    EXPECT_EQ(gidLine, "Gid:\t" + group + "\t" + group + "\t" + group + "\t" + group);
    ::kill(standInPid, SIGTERM);

    // No child of the service is left unreaped.
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const auto name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::ifstream stat(entry.path() / "stat");
        std::string text((std::istreambuf_iterator<char>(stat)), {});
        const auto afterName = text.rfind(')');
        if (afterName == std::string::npos) continue;
        std::istringstream fields(text.substr(afterName + 2));
        char state = 0;
        pid_t parent = 0;
        fields >> state >> parent;
        EXPECT_FALSE(parent == ::getpid() && state == 'Z') << "zombie " << entry.path();
    }
}
