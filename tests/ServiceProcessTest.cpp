// Runs the real daemon binary inside private namespaces, on its real port and socket path.

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

#include "QBInterfaceData.h"
#include "QBLumentideIPC.h"
#include "QBTCPSocket.h"
#include "VorbelVPNService.h"
#include "platform/QBChildProcess.h"
#include "support/DaemonProcess.h"
#include "support/Eventually.h"
#include "support/LoopbackClient.h"
#include "support/PrivateNamespace.h"
#include "support/RawFramePeer.h"

using namespace std::chrono_literals;

namespace {

constexpr int bridgePort = 986;
constexpr const char* aliasAddress = "127.94.0.1";
constexpr const char* loopbackAddress = "127.0.0.1";
constexpr const char* channelPath = "/var/run/com.kelvo.TunnelwrightService.socket";
constexpr auto deadline = 10s;

bool listening(const char* address, std::chrono::milliseconds within = deadline) {
    return eventually([&] { return LoopbackClient(bridgePort, address).connected(); }, within);
}

bool answersPreflight(const char* address) {
    LoopbackClient client(bridgePort, address);
    const auto reply = client.send("OPTIONS /vpn HTTP/1.1\r\n\r\n") ? client.readResponse() : std::nullopt;
    return reply && reply->starts_with("HTTP/1.1 200 OK\r\n") &&
           reply->find("Access-Control-Allow-Methods: POST, OPTIONS\r\n") != std::string::npos;
}

// A hello on the channel, answered INVALID (with its envelope echoed) as the daemon has no GUI.
bool answersHello(RawFramePeer& gui) {
    const nlohmann::json hello{{"command", "hello"}, {"messageid", "1"}, {"content", {{"answer", 42}}}};
    const auto reply = gui.sendEnvelope(hello) ? gui.readEnvelope().value_or(nullptr) : nullptr;
    return reply.is_object() &&
           reply.value("content", nlohmann::json()) == nlohmann::json{{"status", "INVALID"}, {"message", hello}};
}

bool aliasListed() {
    const auto listing = QBChildProcess::run("/sbin/ip", {"-o", "address", "show", "dev", "lo"}).output;
    return QBInterfaceData::parse(listing).listsIPv4Address(aliasAddress);
}

}  // namespace

// Stopped by SIGTERM while calls wait for a GUI that takes them and never answers, then by SIGINT
// with the alias already there before the start (it stays) while calls wait for a GUI that
// never connects.
TEST(ServiceStopTest, ServesBothAddressesAndTheChannelThenEndsWithinASecondLeavingNothingBehind) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    // Orphans of the daemon become ours, so that any child it leaves is seen below.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const std::tuple<const char*, int, bool, bool> cases[] = {{"TermGUISilent", SIGTERM, false, true},
                                                              {"IntAliasBeforeGUIAbsent", SIGINT, true, false}};
    for (const auto& [name, stopSignal, aliasBefore, guiSilent] : cases) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(!aliasBefore ||
                    QBChildProcess::run("/sbin/ip", {"address", "add", "127.94.0.1/32", "dev", "lo"}).status == 0);
        DaemonProcess daemon;
        ASSERT_TRUE(daemon.start() && listening(aliasAddress) && listening(loopbackAddress));
        EXPECT_TRUE(aliasListed());
        // The channel listens on a thread of its own: it may come a moment after the servers.
        std::unique_ptr<RawFramePeer> gui;
        ASSERT_TRUE(eventually([&] { return (gui = std::make_unique<RawFramePeer>(channelPath))->isConnected(); }));
        struct stat info {};
        ASSERT_EQ(::stat(channelPath, &info), 0);
        EXPECT_EQ(info.st_mode & (S_IFMT | 07777), S_IFSOCK | 0776u);
        EXPECT_TRUE(answersPreflight(aliasAddress) && answersPreflight(loopbackAddress) && answersHello(*gui));
        if (!guiSilent) gui.reset();

        constexpr int connections = 64, waitingCalls = 32;
        std::vector<std::unique_ptr<LoopbackClient>> clients;
        for (int i = 0; i < connections; ++i) {
            auto& client = clients.emplace_back(std::make_unique<LoopbackClient>(
                bridgePort, i % 2 == 0 ? aliasAddress : loopbackAddress));
            // Half the connections call the GUI; the other half sit in the middle of a request.
            ASSERT_TRUE(client->send(i < waitingCalls ? xmlRpcPost(methodCall("state"))
                                                      : std::string("POST /vpn HTTP/1.1\r\nHo")));
        }
        for (int i = 0; gui && i < waitingCalls; ++i) ASSERT_TRUE(gui->readEnvelope()) << "call " << i;
        if (!gui) std::this_thread::sleep_for(500ms);  // all in the wait for a GUI by now

        const auto stopAt = std::chrono::steady_clock::now();
        ASSERT_TRUE(daemon.signal(stopSignal));
        EXPECT_EQ(daemon.waitForExit(deadline), 0) << daemon.output();
        EXPECT_LT(std::chrono::steady_clock::now() - stopAt, 1s * sanitizerSlowdown);
        EXPECT_FALSE(listening(aliasAddress, 0ms) || listening(loopbackAddress, 0ms));
        EXPECT_NE(::access(channelPath, F_OK), 0) << "socket file left behind";
        EXPECT_EQ(aliasListed(), aliasBefore);
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child of the daemon is still there";
    }
}

TEST(ServiceProcessTest, ServesTheAddressLeftFreeAndEndsAtOnceWhenNoneIs) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    // Occupies address:986 so that the daemon cannot listen there.
    QBTCPSocket loopbackBlocker, aliasBlocker;
    ASSERT_TRUE(loopbackBlocker.listenOnAddress(QBIPAddress::ipAddressWithAddress(loopbackAddress), bridgePort));
    DaemonProcess aliasOnly;
    ASSERT_TRUE(aliasOnly.start() && listening(aliasAddress));
    EXPECT_TRUE(answersPreflight(aliasAddress));
    ASSERT_TRUE(aliasOnly.signal(SIGTERM));
    EXPECT_EQ(aliasOnly.waitForExit(deadline), 0);

    ASSERT_TRUE(aliasBlocker.listenOnAddress(QBIPAddress::ipAddressWithAddress(aliasAddress), bridgePort));
    DaemonProcess neither;
    ASSERT_TRUE(neither.start());
    EXPECT_EQ(neither.waitForExit(deadline), 0) << neither.output();
}

TEST(ServiceProcessTest, AStopSignalAlreadyPendingAtStartStopsTheService) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    // Several at once: how early the signal thread takes the signal varies from run to run.
    DaemonProcess daemons[4];
    for (auto& daemon : daemons) ASSERT_TRUE(daemon.start({.stopPending = true}));
    for (auto& daemon : daemons) EXPECT_EQ(daemon.waitForExit(deadline), 0) << daemon.output();
    // Whatever the start had set up when the stop came is gone.
    EXPECT_FALSE(aliasListed());
    EXPECT_NE(::access(channelPath, F_OK), 0) << "socket file left behind";
}

TEST(ServiceProcessTest, WithoutThreadsTheProcessStillEndsWithStatusZero) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    // The leak checker of ASan builds needs a thread of its own at exit; there is none to be had.
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start({.withoutThreads = true}));
    EXPECT_EQ(daemon.waitForExit(deadline), 0) << daemon.output();
    EXPECT_NE(daemon.output().find("Failed to start the signal thread"), std::string::npos);
}

// A frame of the largest size packed with empty objects is the dearest one to parse. Every
// client slot, taken by four users, sends one at once: the daemon's peak resident size stays
// bounded, and it still answers afterwards.
TEST(ServiceProcessTest, LargestFramesOfTinyValuesOnEverySlotKeepTheDaemonSmall) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start() && listening(aliasAddress));
    constexpr uid_t users[] = {60001, 60002, 60003, 60004};
    static_assert(std::size(users) * QBLumentideIPC::maximumClientsPerUser == QBLumentideIPC::maximumClients);
    std::vector<std::unique_ptr<RawFramePeer>> peers;
    for (const uid_t user : users) {
        std::vector<std::unique_ptr<RawFramePeer>> some;
        // The channel listens on a thread of its own: it may come a moment after the servers.
        ASSERT_TRUE(eventually([&] {
            some = RawFramePeer::connectAsUser(channelPath, user, QBLumentideIPC::maximumClientsPerUser);
            return some.size() == QBLumentideIPC::maximumClientsPerUser;
        }));
        std::move(some.begin(), some.end(), std::back_inserter(peers));
    }

    std::string body = R"({"command":"c","messageid":"1","content":{"a":[{})";
    while (body.size() + 3 + 3 <= QBLumentideIPC::maximumFrameBodyLength) body += ",{}";
    body.resize(QBLumentideIPC::maximumFrameBodyLength - 3, ' ');
    const auto frame = RawFramePeer::frame(body + "]}}");
    std::vector<std::thread> senders;  // the daemon ends such a connection; each waits for that
    for (auto& peer : peers) senders.emplace_back([&] { peer->sendBytes(frame) && peer->waitForClose(); });
    for (auto& sender : senders) sender.join();

    std::ifstream status("/proc/" + std::to_string(daemon.processId()) + "/status");
    std::string line;
    while (std::getline(status, line) && !line.starts_with("VmHWM:")) {}
    const long peakKiB = line.starts_with("VmHWM:") ? std::stol(line.substr(6)) : -1;
    std::printf("%zu frames of %u bytes: daemon peak resident size %ld KiB\n", peers.size(),
                QBLumentideIPC::maximumFrameBodyLength, peakKiB);
    ASSERT_GT(peakKiB, 0);
    // Sanitizers keep freed memory in quarantine and add shadow memory: plain builds only.
    EXPECT_TRUE(sanitizerSlowdown > 1 || peakKiB < 200 * 1024) << peakKiB;

    peers.clear();
    // The slots are free again once the readers have ended.
    EXPECT_TRUE(eventually([] { RawFramePeer gui(channelPath); return answersHello(gui); }));
    ASSERT_TRUE(daemon.signal(SIGTERM));
    EXPECT_EQ(daemon.waitForExit(deadline), 0) << daemon.output();
}

// The service in this process, with no interface tool at the configured path: it serves all the
// same, and stops (twice) without one.
TEST(ServiceProcessTest, WithoutTheInterfaceToolTheServiceServesAllTheSame) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    VorbelVPNService service({.interfaceTool = "/nonexistent/ip"});
    std::thread serving([&] { service.startService(); });
    EXPECT_TRUE(listening(aliasAddress) && listening(loopbackAddress) && answersPreflight(loopbackAddress));
    service.stopService();
    serving.join();
    service.stopService();  // a second stop repeats only the removal
    // Set once the add command was issued, even when it could not run.
    EXPECT_TRUE(service.ipAliasAdded());
}
