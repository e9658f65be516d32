// The bridge commands against a real channel: what the GUI receives, how its answers are read,
// which arguments are refused before anything is sent or launched.

#include "QBKelvoBridge.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <vector>

#include "QBKelvoGUIApplication.h"
#include "QBKelvoXMLRPCServer.h"
#include "QBPlatform.h"
#include "support/ChannelFixture.h"

using json = nlohmann::json;
using Value = QBKelvoXMLRPCServer::Value;
using namespace std::chrono_literals;

namespace {

// A GUI client that answers every command with the next scripted content and records what it got.
struct RecordingGUI : QBLumentideIPCDelegate {
    std::mutex lock;  // guards received, answer
    std::vector<json> received;
    json answer = json::object();

    bool validateCommand(const std::string&, const json&, QBLumentideIPC&) override { return true; }
    std::optional<json> processCommand(const std::string& command, const json& data, int,
                                       QBLumentideIPC&) override {
        std::lock_guard guard(lock);
        EXPECT_EQ(command, "serviceCmd");
        received.push_back(data);
        return answer;
    }
    std::vector<json> seen() {
        std::lock_guard guard(lock);
        return received;
    }
};

std::string repeated(const std::string& piece, int times) {
    std::string text;
    for (int i = 0; i < times; ++i) text += piece;
    return text;
}

const std::string emoji = "\xF0\x9F\x98\x80";  // one character, two UTF-16 code units

}  // namespace

class QBKelvoBridgeTest : public ChannelFixture {
protected:
    void SetUp() override { ASSERT_TRUE(startServer()); }

    // A bridge whose console-user lookups are counted: every launch attempt makes one, and no
    // user is found, so nothing is ever started.
    std::shared_ptr<QBKelvoBridge> makeBridge() {
        QBKelvoGUIApplication::Settings settings;
        settings.applicationPath = directory.file("app.desktop");
        settings.dataDirectories = {directory.path()};
        settings.consoleUser = [this]() -> std::optional<QBConsoleUser> {
            ++launchAttempts;
            return std::nullopt;
        };
        settings.checkInterval = 20ms;
        application = std::make_shared<QBKelvoGUIApplication>(server, settings);
        return std::make_shared<QBKelvoBridge>(server, application);
    }

    std::atomic<int> launchAttempts{0};
    std::shared_ptr<QBKelvoGUIApplication> application;
};

TEST_F(QBKelvoBridgeTest, RelaysEachCommandWithItsContentAndTakesTheTypedAnswer) {
    auto gui = std::make_shared<RecordingGUI>();
    connectClient(gui);
    auto bridge = makeBridge();
    const std::string token256 = repeated(emoji, 128);
    struct Row {
        std::function<Value(QBKelvoBridge&)> call;
        json sent;
        json answer;
        Value expected;
    };
    const std::vector<Row> rows{
        {[](auto& b) { return b.authorizeServer("vpn.example", 65535, 1); },
         {{"command", "authorize"}, {"server", "vpn.example"}, {"port", 65535}, {"webPort", 1}},
         {{"result", true}}, std::int64_t{1}},
        {[](auto& b) { return b.authorizeServer("a", 1, 65535); },
         {{"command", "authorize"}, {"server", "a"}, {"port", 1}, {"webPort", 65535}},
         {{"result", 7}}, std::int64_t{7}},
        {[](auto& b) { return b.connect("vpn.example", 443, 8443); },
         {{"command", "connect"}, {"server", "vpn.example"}, {"port", 443}, {"webPort", 8443}},
         {{"result", "connecting"}}, "connecting"},
        {[&](auto& b) { return b.connect("s", 443, 8443, token256); },
         {{"command", "connectWithToken"}, {"server", "s"}, {"port", 443}, {"webPort", 8443},
          {"securityToken", token256}},
         {{"result", "ok"}}, "ok"},
        {[](auto& b) { return b.disconnectWithSecToken(repeated("t", 300)); },
         {{"command", "disconnect"}, {"securityToken", ""}}, {{"result", "x"}}, ""},
        {[](auto& b) { return b.suspendWithSecToken("tok"); },
         {{"command", "suspend"}, {"securityToken", "tok"}}, {{"result", "x"}}, ""},
        {[](auto& b) { return b.resume(); }, {{"command", "resume"}}, {{"result", "x"}}, ""},
        {[](auto& b) { return b.state(); }, {{"command", "state"}}, {{"result", "x"}}, "x"},
        {[](auto& b) { return b.state(); }, {{"command", "state"}}, {{"result", 3}}, "disconnected"},
        {[](auto& b) { return b.connectionTime(); }, {{"command", "connectionTime"}},
         {{"result", 42}}, std::int64_t{42}},
        {[](auto& b) { return b.connectionTime(); }, {{"command", "connectionTime"}},
         {{"result", false}}, std::int64_t{0}},
        {[](auto& b) { return b.connectionTime(); }, {{"command", "connectionTime"}},
         {{"result", "5"}}, std::int64_t{0}},
        {[](auto& b) { return b.connectionTime(); }, {{"command", "connectionTime"}},
         {{"result", -2.9}}, std::int64_t{-2}},
        {[](auto& b) { return b.connectionTimeDisplayable(); },
         {{"command", "connectionTimeDisplayable"}}, {{"status", "OK"}}, ""},
        {[](auto& b) { return b.trafficRates(); }, {{"command", "trafficRates"}},
         {{"result", nullptr}}, "0,0"},
        {[](auto& b) { return b.trafficTotals(); }, {{"command", "trafficTotals"}},
         {{"result", "10,20"}}, "10,20"},
        {[](auto& b) { return b.clientVersion(); }, {{"command", "clientVersion"}},
         {{"version", "2.0,7"}, {"result", "no"}}, "2.0,7"},
        {[](auto& b) { return b.clientVersion(); }, {{"command", "clientVersion"}},
         {{"version", 2}}, "0.0.0,0"},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        {
            std::lock_guard guard(gui->lock);
            gui->answer = rows[i].answer;
        }
        EXPECT_EQ(rows[i].call(*bridge), rows[i].expected) << "row " << i;
        const auto seen = gui->seen();
        ASSERT_EQ(seen.size(), i + 1) << "row " << i;
        EXPECT_EQ(seen.back(), rows[i].sent) << "row " << i;
    }
    EXPECT_EQ(launchAttempts, 0);
}

TEST_F(QBKelvoBridgeTest, RejectedArgumentsAnswerTheDefaultWithoutContactOrLaunch) {
    auto bridge = makeBridge();  // no GUI connected: anything relayed would try a launch
    const std::string ok = "vpn.example";
    EXPECT_EQ(bridge->authorizeServer(ok, 0, 443), 0);
    EXPECT_EQ(bridge->authorizeServer(ok, 65536, 443), 0);
    EXPECT_EQ(bridge->authorizeServer(ok, 443, -1), 0);
    EXPECT_EQ(bridge->authorizeServer("", 443, 443), 0);
    EXPECT_EQ(bridge->connect("", 443, 443), "");
    EXPECT_EQ(bridge->connect(ok, 443, 0), "");
    EXPECT_EQ(bridge->connect(ok, 443, 443, ""), "");
    EXPECT_EQ(bridge->connect(ok, 443, 443, repeated("t", 257)), "");
    EXPECT_EQ(bridge->connect(ok, 443, 443, repeated(emoji, 128) + "t"), "");  // 257 units
    EXPECT_EQ(launchAttempts, 0);

    auto gui = std::make_shared<RecordingGUI>();
    connectClient(gui);
    EXPECT_EQ(bridge->connect(ok, 0, 443, "token"), "");
    EXPECT_TRUE(gui->seen().empty());
}

TEST_F(QBKelvoBridgeTest, WithoutAGUIConcurrentCommandsShareOneLaunchAndGiveDefaults) {
    auto bridge = makeBridge();
    auto state = std::async(std::launch::async, [&] { return bridge->state(); });
    auto authorized = std::async(std::launch::async, [&] { return bridge->authorizeServer("s", 1, 1); });
    auto rates = std::async(std::launch::async, [&] { return bridge->trafficRates(); });
    EXPECT_EQ(state.get(), "disconnected");
    EXPECT_EQ(authorized.get(), 0);
    EXPECT_EQ(rates.get(), "0,0");
    EXPECT_EQ(launchAttempts, 1);
}

TEST_F(QBKelvoBridgeTest, ClientOSAndClientVersionWithoutAGUINeverLaunchOrWait) {
    auto bridge = makeBridge();
    EXPECT_TRUE(bridge->answersAtOnce("clientOS"));
    EXPECT_FALSE(bridge->answersAtOnce("clientVersion") || bridge->answersAtOnce("state"));
    EXPECT_EQ(bridge->clientOS(), "Mac OS " + QBPlatform::operatingSystemVersion());

    EXPECT_EQ(bridge->clientVersion(), "0.0.0,0");
    std::ofstream(application->settings().applicationPath)
        << "[Desktop Entry]\nName=Tunnelwright\nX-Kelvo-ShortVersion=4.2.1\n"
           "X-Kelvo-BuildVersion=1234\n";
    EXPECT_EQ(bridge->clientVersion(), "4.2.1,1234");
    EXPECT_EQ(launchAttempts, 0);
}
