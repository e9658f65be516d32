// The bridge commands against a real channel: what the GUI receives, how its answers are read,
// which arguments are refused before anything is sent or launched.

#include "QBKelvoBridge.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <limits>
#include <tuple>
#include <vector>

#include "QBKelvoGUIApplication.h"
#include "QBKelvoXMLRPCServer.h"
#include "QBPlatform.h"
#include "support/ChannelFixture.h"

using json = nlohmann::json;
using Value = QBKelvoXMLRPCServer::Value;
using namespace std::chrono_literals;
using namespace std::string_literals;

namespace {

// 128 times one character of two UTF-16 code units: a token of 256 units, the most allowed.
const std::string token256 = [] { std::string t; while (t.size() < 512) t += "\xF0\x9F\x98\x80"; return t; }();

// Runs the method's typed operation, the way the front end reaches it.
Value run(QBKelvoBridge& bridge, std::string_view method, const QBKelvoBridge::Arguments& a = {}) {
    return QBKelvoBridgeCommands::methodNamed(method)->call(bridge, a);
}

}  // namespace

class QBKelvoBridgeTest : public ChannelFixture {
protected:
    void SetUp() override { ASSERT_TRUE(startServer()); }
    std::shared_ptr<QBKelvoBridge> makeBridge() {  // a call that finds no GUI gives up after ten checks: 200 ms
        const auto settings = countingSettings(20ms * sanitizerSlowdown);
        return std::make_shared<QBKelvoBridge>(server, std::make_shared<QBKelvoGUIApplication>(server, settings));
    }
};

TEST_F(QBKelvoBridgeTest, RelaysEachCommandWithItsContentAndTakesTheTypedAnswer) {
    const json relay{{"server", "vpn.example"}, {"port", 65535}, {"webPort", 1}};
    json relayToken = relay;
    relayToken["securityToken"] = token256;
    const auto with = [](json content, const std::string& command) { content["command"] = command; return content; };
    // The method, its arguments, what the GUI receives besides "command", its answer, the result.
    using Row = std::tuple<std::string, QBKelvoBridge::Arguments, json, json, Value>;
    const auto time = [](const char* answer, std::int64_t seconds) {
        return Row{"connectionTime", {}, {}, {{"result", json::parse(answer)}}, seconds};
    };
    constexpr auto max = std::numeric_limits<std::int64_t>::max(), min = std::numeric_limits<std::int64_t>::min();
    const std::vector<Row> rows{
        {"authorize", {"vpn.example", 65535, 1, {}}, relay, {{"result", true}}, std::int64_t{1}},
        {"authorize", {"vpn.example", 65535, 1, {}}, relay, {{"result", 7}}, std::int64_t{7}},
        {"connect", {"vpn.example", 65535, 1, {}}, relay, {{"result", "connecting"}}, "connecting"},
        {"connectWithToken", {"vpn.example", 65535, 1, token256}, relayToken, {{"result", "ok"}}, "ok"},
        {"disconnect", {{}, 0, 0, std::string(257, 't')}, {{"securityToken", ""}}, {{"result", "x"}}, ""},
        {"disconnect", {{}, 0, 0, token256}, {{"securityToken", token256}}, {{"result", "x"}}, ""},
        {"suspend", {{}, 0, 0, "tok"}, {{"securityToken", "tok"}}, {{"result", "x"}}, ""},
        {"resume", {}, {}, {{"result", "x"}}, ""},
        {"state", {}, {}, {{"result", "x"}}, "x"},
        {"state", {}, {}, {{"result", 3}}, "disconnected"},
        time("42", 42), time("false", 0), time("\"5\"", 0), time("-2.9", -2), time("18446744073709551615", max),
        time("1e300", max), time("99999999999999999999", max), time("-1e300", min), time("-99999999999999999999", min),
        {"connectionTimeDisplayable", {}, {}, {{"status", "OK"}}, ""},
        {"trafficRates", {}, {}, {{"result", nullptr}}, "0,0"},
        {"trafficTotals", {}, {}, {{"result", "10,20"}}, "10,20"},
        {"clientVersion", {}, {}, {{"version", "2.0,7"}, {"result", "no"}}, "2.0,7"},
        {"clientVersion", {}, {}, {{"version", 2}}, "0.0.0,0"},
    };
    auto gui = std::make_shared<ScriptedDelegate>();  // answers each command with its row's answer
    gui->process = [&rows, gui = gui.get()](const std::string&, const json&) {
        return std::get<3>(rows.at(gui->processed - 1));
    };
    connectClient(gui);
    auto bridge = makeBridge();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto& [method, arguments, sent, answer, expected] = rows[i];
        SCOPED_TRACE("row " + std::to_string(i));
        EXPECT_EQ(run(*bridge, method, arguments), expected);
        const auto seen = gui->received.all();
        ASSERT_EQ(seen.size(), i + 1);
        EXPECT_EQ(seen.back(), std::pair("serviceCmd"s, with(sent, method)));
    }
    EXPECT_EQ(launchAttempts, 0);
}

TEST_F(QBKelvoBridgeTest, RejectedArgumentsAnswerTheDefaultWithoutContactOrLaunch) {
    auto bridge = makeBridge();  // no GUI connected: anything relayed would try a launch
    const std::string ok = "vpn.example";
    const Value none = std::int64_t{0}, empty = std::string();
    const std::tuple<std::string, QBKelvoBridge::Arguments, Value> rows[] = {
        {"authorize", {ok, 0, 443, {}}, none},     {"authorize", {ok, 65536, 443, {}}, none},
        {"authorize", {ok, 443, -1, {}}, none},    {"authorize", {"", 443, 443, {}}, none},
        {"connect", {"", 443, 443, {}}, empty},    {"connect", {ok, 443, 0, {}}, empty},
        {"connectWithToken", {ok, 443, 443, ""}, empty},
        {"connectWithToken", {ok, 443, 443, std::string(257, 't')}, empty},
        {"connectWithToken", {ok, 443, 443, token256 + "t"}, empty},  // 257 units
    };
    for (const auto& [method, arguments, fallback] : rows) EXPECT_EQ(run(*bridge, method, arguments), fallback);
    EXPECT_EQ(launchAttempts, 0);

    auto gui = std::make_shared<ScriptedDelegate>();
    connectClient(gui);
    EXPECT_EQ(bridge->connect(ok, 0, 443, "token"), "");
    EXPECT_EQ(gui->received.size(), 0u);
}

// The event loop starts relayed commands; a GUI that stops reading must not hold it: once its
// socket is full, each further command is answered with its default before startCommand returns.
TEST_F(QBKelvoBridgeTest, AGUIThatStopsReadingGetsDefaultsAtOnceWithoutHoldingTheCaller) {
    auto gui = connectRawPeer();  // connected, never reads
    auto bridge = makeBridge();
    auto defaults = std::make_shared<std::atomic<int>>(0);  // outlives the test for late finishes
    auto calls = std::async(std::launch::async, [&] {
        for (int i = 0; i < 200000 && *defaults < 100; ++i) {
            EXPECT_TRUE(bridge->startCommand("state", {}, [defaults](Value result) {
                if (result == Value("disconnected")) ++*defaults;
            }));
        }
    });
    EXPECT_EQ(calls.wait_for(30s * sanitizerSlowdown), std::future_status::ready)
        << "startCommand waits for a GUI that does not read";
    EXPECT_GE(*defaults, 100);
    EXPECT_TRUE(shutDownAndWait(server));  // answers the commands still waiting, while the bridge lives
}

TEST_F(QBKelvoBridgeTest, ClientOSAndClientVersionWithoutAGUINeverLaunchOrWait) {
    auto bridge = makeBridge();
    EXPECT_TRUE(bridge->answersAtOnce("clientOS"));
    EXPECT_FALSE(bridge->answersAtOnce("clientVersion") || bridge->answersAtOnce("state"));
    EXPECT_EQ(bridge->clientOS(), "Mac OS " + QBPlatform::operatingSystemVersion());

    EXPECT_EQ(bridge->clientVersion(), "0.0.0,0");
    std::ofstream(countingSettings(1ms).applicationPath)
        << "[Desktop Entry]\nName=Tunnelwright\nX-Kelvo-ShortVersion=4.2.1\nX-Kelvo-BuildVersion=1234\n";
    EXPECT_EQ(bridge->clientVersion(), "4.2.1,1234");
    EXPECT_EQ(launchAttempts, 0);
}
