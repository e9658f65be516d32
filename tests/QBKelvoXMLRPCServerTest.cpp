// The bridge server over real loopback connections: what it answers, byte for byte, that
// everything outside its dialect ends the connection without a reply, commands that wait, its
// time-outs, and its bounds against a hostile page.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <numeric>

#include "support/BridgeServerFixture.h"
#include "support/LogCapture.h"
#include "support/LoopbackClient.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using S = QBKelvoXMLRPCServer;

const std::string preflight = "OPTIONS /vpn HTTP/1.1\r\n\r\n";
const std::string statePost = xmlRpcPost(methodCall("state"));

// The response with its header lines sorted: their order on the wire is not defined.
std::string sortedHeaders(const std::string& response) {
    const auto first = response.find("\r\n") + 2, end = response.find("\r\n\r\n") + 2;
    std::vector<std::string> lines;
    for (auto at = first; at < end; at = response.find("\r\n", at) + 2) {
        lines.push_back(response.substr(at, response.find("\r\n", at) + 2 - at));
    }
    std::sort(lines.begin(), lines.end());
    return response.substr(0, first) + std::accumulate(lines.begin(), lines.end(), std::string()) +
           response.substr(end);
}

std::string expectedReply(const std::string& body, const std::string& corsHeaders = "") {
    return "HTTP/1.1 200 OK\r\n" + corsHeaders +
           "Access-Control-Allow-Origin: *\r\nCache-Control: no-cache\r\nContent-Length: " +
           std::to_string(body.size()) +
           "\r\nContent-Type: text/xml\r\nPragma: no-cache\r\nServer: MacTunnelwright/1.1\r\n\r\n" +
           body;
}

const std::string preflightReply =
    expectedReply("",
                  "Access-Control-Allow-Headers: Origin, X-Requested-With, Content-Type, Accept\r\n"
                  "Access-Control-Allow-Methods: POST, OPTIONS\r\n");
const std::string stringReply = expectedReply(S::methodResponseDocument({std::string("abc")}));
const std::string intReply = expectedReply(S::methodResponseDocument({std::int64_t{1}}));

std::string replaced(std::string text, std::string_view from, std::string_view to) {
    return text.replace(text.find(from), from.size(), to);
}

// A state call whose header block is padded to blockLength bytes.
std::string statePostWithHeaderBlock(std::size_t blockLength) {
    const auto headEnd = statePost.find("\r\n\r\n");
    const std::string pad = "\r\nX-Pad: ";
    return statePost.substr(0, headEnd) + pad +
           std::string(blockLength - headEnd - pad.size() - 4, 'p') + statePost.substr(headEnd);
}

// A state call padded with blanks to size bytes.
std::string paddedCall(std::size_t size) {
    auto call = methodCall("state");
    call.resize(size, ' ');
    return call;
}

bool answered(LoopbackClient& client, const std::string& expected = stringReply) {
    return sortedHeaders(client.readResponse().value_or("\r\n\r\n")) == expected;
}

bool answers(int port, const std::string& request, std::chrono::milliseconds within = 5s) {
    LoopbackClient client(port);
    return client.send(request) && client.readResponse(within).has_value();
}

class BridgeServerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(running.port(), 0); }
    void TearDown() override { commands->holdState = false; }

    LogCapture log;
    std::shared_ptr<FakeBridgeCommands> commands = std::make_shared<FakeBridgeCommands>();
    RunningBridgeServer running{commands};
};

TEST_F(BridgeServerTest, RequestsWrittenBackToBackAreAnsweredInOrderByteForByte) {
    // Then far more preflights than the socket buffers hold answers for: replies go out in parts.
    std::string requests =
        preflight + statePost + preflight + xmlRpcPost(methodCall("connectionTime"));
    for (int i = 0; i < 20000; ++i) requests += preflight;
    for (const bool atOnce : {false, true}) {  // commands on a pool thread, or on the loop thread
        commands->atOnce = atOnce;
        LoopbackClient client(running.port());
        std::thread sender([&] { client.send(requests); });
        std::this_thread::sleep_for(100ms);
        for (const auto* expected : {&preflightReply, &stringReply, &preflightReply, &intReply}) {
            EXPECT_TRUE(answered(client, *expected)) << atOnce << *expected;
        }
        int preflights = 0;
        while (preflights < 20000 && answered(client, preflightReply)) ++preflights;
        EXPECT_EQ(preflights, 20000);
        sender.join();
    }
    EXPECT_EQ(log.count("Client connected"), 2);
}

TEST_F(BridgeServerTest, RefusedRequestsCloseWithoutAnyReply) {
    const auto call = methodCall("state");
    const std::string cases[] = {
        replaced(statePost, "POST", "GET"),
        replaced(statePost, "POST", "post"),
        "POST\r\n\r\n",                          // a request line of one part
        replaced(statePost, " /vpn", "  /vpn"),  // two blanks: the path is empty
        "\r\n" + statePost,                      // the first line is the request line
        replaced(statePost, "/vpn", "/vpn?x=1"),
        replaced(statePost, "/vpn", "/vpn/"),
        replaced(statePost, "Content-Length", "content-length"),
        replaced(statePost, "Content-Length", "X-Nul: \0\r\nContent-Length"s),  // text ends at NUL
        replaced(statePost, "Host: ", "Host: \xff"),  // header block not UTF-8
        "POST /vpn HTTP/1.1\r\nContent-Length: 0\r\n\r\n" + call,
        xmlRpcPost(paddedCall(S::maxBodyLength + 1)),
        xmlRpcPost("\xEF\xBB\xBF" + call),  // byte-order mark
        xmlRpcPost(replaced(call, "\"1.0\"", "'1.0'")),
        xmlRpcPost(call + "\xff"),  // body not UTF-8
        xmlRpcPost(methodCall("nosuchMethod")),
        xmlRpcPost(methodCall("State")),
        xmlRpcPost(methodCall(" state")),
        xmlRpcPost(replaced(call, "methodName", "name")),
        xmlRpcPost(replaced(call, "methodCall", "call")),
        statePostWithHeaderBlock(S::maxHeaderBlockLength + 1),
        "POST /vpn HTTP/1.1\r\nX-Huge: " + std::string(1024 * 1024, 'h'),  // and no end
    };
    for (const auto& request : cases) {
        LoopbackClient client(running.port());
        ASSERT_TRUE(client.connected());
        const auto split = std::min<std::size_t>(request.size(), 60000);  // large: in two parts
        client.send(request.substr(0, split));
        if (split < request.size()) std::this_thread::sleep_for(100ms);
        client.send(request.substr(split));  // may fail part-way when the server stops reading
        EXPECT_TRUE(client.closedWithoutReply()) << request.substr(0, 100);
    }
    EXPECT_TRUE(commands->calls().empty());
    EXPECT_TRUE(answers(running.port(), statePost));
}

TEST_F(BridgeServerTest, HeaderBlockTextEndsAtItsFirstNulByteYetTheWholeBlockIsConsumed) {
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send("OPTIONS /vpn\0x HTTP/1.1\r\nHost: a\r\n\r\n"s + statePost));
    EXPECT_TRUE(answered(client, preflightReply));  // the request line is "OPTIONS /vpn"
    EXPECT_TRUE(answered(client));
}

TEST_F(BridgeServerTest, ACommandThatThrowsClosesOnlyItsOwnConnection) {
    commands->failing = true;
    for (const bool atOnce : {true, false}) {  // on the loop thread, or on a pool thread
        commands->atOnce = atOnce;
        LoopbackClient client(running.port());
        ASSERT_TRUE(client.send(xmlRpcPost(methodCall("clientOS"))));
        EXPECT_TRUE(client.closedWithoutReply()) << atOnce;
    }
    EXPECT_TRUE(answers(running.port(), statePost));
}

TEST_F(BridgeServerTest, LimitsLateBodyAndOtherHeadersAreAccepted) {
    const auto headEnd = statePost.find("\r\n\r\n") + 4;
    const auto body = methodCall("state");
    const std::vector<std::string> cases[] = {
        {xmlRpcPost(paddedCall(S::maxBodyLength))},
        {statePostWithHeaderBlock(S::maxHeaderBlockLength)},
        {statePost.substr(0, headEnd), statePost.substr(headEnd, 10),
         statePost.substr(headEnd + 10)},
        {"POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nno colon line\r\nContent-Length: 1\r\n"
         "\tContent-Length\t:  " +
         std::to_string(body.size()) + "\r\nOrigin: http://a:b\r\n\r\n" + body},
    };
    for (const auto& pieces : cases) {
        LoopbackClient client(running.port());
        for (const auto& piece : pieces) {
            if (&piece != &pieces.front()) std::this_thread::sleep_for(200ms);
            ASSERT_TRUE(client.send(piece));
        }
        EXPECT_TRUE(answered(client));
    }
}

// Raises the soft descriptor limit to the hard one; false when that leaves fewer than needed.
bool allowDescriptors(rlim_t needed) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= needed;
}

std::vector<std::unique_ptr<LoopbackClient>> openIdleConnections(int port, int count) {
    std::vector<std::unique_ptr<LoopbackClient>> idle;
    for (int i = 0; i < count; ++i) {
        idle.push_back(std::make_unique<LoopbackClient>(port));
        if (!idle.back()->connected()) break;
    }
    return idle;
}

long closedByServer(const std::vector<std::unique_ptr<LoopbackClient>>& clients) {
    return std::count_if(clients.begin(), clients.end(), [](const auto& c) { return c->peerClosed(); });
}

// What 2,000 stalled connections may add to the resident memory; sanitizers keep shadow state
// per thread and per allocation, so their figures say nothing about the server.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr long residentGrowthBoundKiB = -1;
#else
constexpr long residentGrowthBoundKiB = 64 * 1024;
#endif

long residentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
    }
    return 0;
}

TEST_F(BridgeServerTest, ThousandsOfStalledConnectionsDoNotStarveARequest) {
    constexpr int stalledConnections = 2000;
    // Both ends of every connection live in this process.
    if (!allowDescriptors(2 * stalledConnections + 512)) GTEST_SKIP() << "descriptor limit too low";
    ASSERT_TRUE(answers(running.port(), statePost));
    const long residentBefore = residentKiB();
    std::vector<std::unique_ptr<LoopbackClient>> stalled;
    for (int i = 0; i < stalledConnections; ++i) {
        stalled.push_back(std::make_unique<LoopbackClient>(running.port()));
        ASSERT_TRUE(stalled.back()->connected()) << i;
        if (i % 2 == 1)
            stalled.back()->send("POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nContent-Le");
    }
    const auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(answers(running.port(), statePost, 30s));  // generous for sanitizer builds
    const auto waited = std::chrono::steady_clock::now() - started;
    const long growth = residentKiB() - residentBefore;
    std::printf(
        "answered in %lld ms; resident memory grew by %ld KiB with %d stalled connections\n",
        static_cast<long long>(waited / 1ms), growth, stalledConnections);
    EXPECT_TRUE(residentGrowthBoundKiB < 0 || growth < residentGrowthBoundKiB) << growth;
}

TEST(BridgeServerConnectionLimitTest, NewConnectionReplacesTheLongestWaitingOne) {
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(),
                                {.serving = {.loopThreads = 1, .maxConnections = 4}});
    std::vector<std::unique_ptr<LoopbackClient>> stalled;
    for (int i = 0; i < 4; ++i) {
        stalled.push_back(std::make_unique<LoopbackClient>(running.port()));
        ASSERT_TRUE(stalled.back()->send("OPTIONS /vpn HTTP/1.1\r\n"));
        // A distinct last activity for each: the loop has taken this one in, and its clock moves
        // on well before the next one arrives, however slowly the loop thread is scheduled.
        ASSERT_TRUE(eventually([&] { return running.server->connectionCount() == stalled.size(); }));
        std::this_thread::sleep_for(20ms * sanitizerSlowdown);
    }
    EXPECT_TRUE(answers(running.port(), statePost));
    EXPECT_TRUE(stalled[0]->closedWithoutReply(1s));
    for (int i = 1; i < 4; ++i) EXPECT_FALSE(stalled[i]->closedWithoutReply(50ms)) << i;
    EXPECT_TRUE(eventually([&] { return running.server->connectionCount() == 3; }));
}

TEST(BridgeServerConnectionLimitTest, TheBoundHoldsForAllLoopsTogether) {
    constexpr std::size_t bound = QBTCPEventServer::Limits{}.maxConnections;
    if (!allowDescriptors(2 * bound + 512)) GTEST_SKIP() << "descriptor limit too low";
    LogCapture log;
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(), {.serving = {.loopThreads = 4}});
    auto idle = openIdleConnections(running.port(), 4000);
    ASSERT_EQ(idle.size(), 4000u);
    EXPECT_TRUE(eventually([&] { return running.server->connectionCount() == 4000; }));
    EXPECT_EQ(closedByServer(idle), 0);
    auto more = openIdleConnections(running.port(), static_cast<int>(bound) - 4000);
    std::move(more.begin(), more.end(), std::back_inserter(idle));
    ASSERT_TRUE(eventually([&] { return running.server->connectionCount() == bound; }));
    EXPECT_EQ(closedByServer(idle), 0);
    // One more is served, in place of a connection that waited longest in the loop it came to.
    EXPECT_TRUE(answers(running.port(), statePost));
    EXPECT_TRUE(eventually([&] { return closedByServer(idle) == 1; }));
    EXPECT_EQ(log.count("Client connected"), static_cast<int>(bound) + 1);
}

TEST(BridgeServerLogTest, AStalledLogOutputHoldsUpNoRequest) {
    constexpr int connections = 3000;  // their log lines are several times what a pipe holds
    if (!allowDescriptors(2 * connections + 512)) GTEST_SKIP() << "descriptor limit too low";
    int logPipe[2];
    ASSERT_EQ(::pipe2(logPipe, O_CLOEXEC), 0);
    const int savedError = ::dup(STDERR_FILENO);
    ::dup2(logPipe[1], STDERR_FILENO);
    ::close(logPipe[1]);
    auto running = std::make_unique<RunningBridgeServer>(std::make_shared<FakeBridgeCommands>(),
                                                         QBKelvoXMLRPCServer::Settings{.serving = {.loopThreads = 2}});
    auto idle = openIdleConnections(running->port(), connections);
    EXPECT_EQ(idle.size(), static_cast<std::size_t>(connections));
    EXPECT_TRUE(answers(running->port(), preflight, 10s));
    // Now let the log drain, so that everything can stop.
    std::thread drain([&] {
        char chunk[65536];
        while (::read(logPipe[0], chunk, sizeof chunk) > 0) {
        }
    });
    running.reset();
    EXPECT_TRUE(QBLog::flush(10s));
    ::dup2(savedError, STDERR_FILENO);  // the last write end of the pipe: the drain ends
    ::close(savedError);
    drain.join();
    ::close(logPipe[0]);
}

// The event loop's epoll set, found among this process's descriptors; -1 when there is not
// exactly one.
int onlyEpollDescriptor() {
    int found = -1, count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry.path(), error).string() == "anon_inode:[eventpoll]") {
            found = std::stoi(entry.path().filename().string());
            ++count;
        }
    }
    return count == 1 ? found : -1;
}

TEST(BridgeServerFaultTest, AFailingEventLoopIsLoggedAndStopsItsServer) {
    LogCapture log;
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(), {.serving = {.loopThreads = 1}});
    ASSERT_TRUE(answers(running.port(), preflight));
    const int epollSet = onlyEpollDescriptor();
    ASSERT_GE(epollSet, 0);
    // Put a descriptor that is no epoll set in its place: the loop's next wait fails.
    const int notAnEpollSet = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(notAnEpollSet, epollSet);
    ::close(notAnEpollSet);
    EXPECT_TRUE(eventually([&] { return log.count("Event loop failed, server stopped: Invalid argument") == 1; }));
    EXPECT_TRUE(eventually([&] { return !LoopbackClient(running.port()).connected(); }));
}

TEST_F(BridgeServerTest, WaitingCommandsHoldUpNoOtherConnectionAndShutdownWaitsForThem) {
    auto stopping = std::make_unique<RunningBridgeServer>(commands);
    commands->holdState = true;
    std::vector<std::unique_ptr<LoopbackClient>> waiting;
    for (int i = 0; i < 8; ++i) {
        waiting.push_back(
            std::make_unique<LoopbackClient>(i < 4 ? running.port() : stopping->port()));
        ASSERT_TRUE(waiting.back()->send(statePost));
    }
    ASSERT_TRUE(eventually([&] { return commands->waiting == 8; }));
    LoopbackClient other(running.port());
    ASSERT_TRUE(other.send(preflight + xmlRpcPost(methodCall("clientOS"))));
    EXPECT_TRUE(other.readResponse(2s) && other.readResponse(2s));
    auto stopped = std::async(std::launch::async, [&] { stopping.reset(); });
    EXPECT_EQ(stopped.wait_for(200ms), std::future_status::timeout);
    commands->holdState = false;
    stopped.get();
    // Answers come when the commands finish, except on the server shut down meanwhile.
    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(i < 4 ? answered(*waiting[i]) : waiting[i]->closedWithoutReply()) << i;
    }
}

TEST_F(BridgeServerTest, CommandsStartedWithoutAThreadAreAnsweredWhenTheirResultComes) {
    auto stopping = std::make_unique<RunningBridgeServer>(commands);
    commands->deferState = true;
    std::vector<std::unique_ptr<LoopbackClient>> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.push_back(std::make_unique<LoopbackClient>(i < 2 ? running.port() : stopping->port()));
        ASSERT_TRUE(waiting.back()->send(statePost));
    }
    std::vector<FakeBridgeCommands::Finish> finishes;
    ASSERT_TRUE(eventually([&] {
        for (auto& finish : commands->takeDeferred()) finishes.push_back(finish);
        return finishes.size() == 4;
    }));
    EXPECT_TRUE(answers(running.port(), preflight, 2s));
    auto stopped = std::async(std::launch::async, [&] { stopping.reset(); });
    EXPECT_EQ(stopped.wait_for(200ms), std::future_status::timeout) << "a result is still due";
    std::thread([&] {
        for (auto& finish : finishes) finish(std::string("late")), finish(std::string("twice"));
    }).join();
    stopped.get();
    const auto late = expectedReply(S::methodResponseDocument({std::string("late")}));
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(i < 2 ? answered(*waiting[i], late) : waiting[i]->closedWithoutReply()) << i;
    }
    EXPECT_TRUE(commands->calls().empty()) << "no command ran on a pool thread";
}

// A deferred reply may leave from the finishing thread without waking the loop; the connection
// must then still serve its next request, keep its time-outs, and not lose bytes that arrived
// while its request was out.
TEST(BridgeServerDeferredTest, ConnectionsGoOnAfterRepliesFinishedElsewhere) {
    auto commands = std::make_shared<FakeBridgeCommands>();
    commands->deferState = true;
    RunningBridgeServer running(commands, {.idleTimeout = 400ms, .bodyTimeout = 1s});
    const auto finishAll = [&](const std::string& result, std::size_t count = 1) {
        std::vector<FakeBridgeCommands::Finish> finishes;
        const bool taken = eventually([&] {
            for (auto& finish : commands->takeDeferred()) finishes.push_back(finish);
            return finishes.size() == count;
        });
        std::thread([&] {
            for (auto& finish : finishes) finish(result);
        }).join();
        return taken;
    };
    const auto reply = [](const std::string& result) {
        return expectedReply(S::methodResponseDocument({result}));
    };
    LoopbackClient quiet(running.port()), early(running.port()), pipelined(running.port());
    ASSERT_TRUE(quiet.send(statePost));
    ASSERT_TRUE(finishAll("first"));
    EXPECT_TRUE(answered(quiet, reply("first")));
    ASSERT_TRUE(quiet.send(statePost));  // the same connection, served again
    ASSERT_TRUE(finishAll("second"));
    EXPECT_TRUE(answered(quiet, reply("second")));
    // The next request arrives before the reply, or together with the first one.
    ASSERT_TRUE(early.send(statePost));
    ASSERT_TRUE(pipelined.send(statePost + preflight));
    std::this_thread::sleep_for(50ms);
    ASSERT_TRUE(early.send(preflight));
    std::this_thread::sleep_for(50ms);
    ASSERT_TRUE(finishAll("third", 2));
    for (auto* client : {&early, &pipelined}) {
        EXPECT_TRUE(answered(*client, reply("third")));
        EXPECT_TRUE(answered(*client, preflightReply));
    }
    // Silent after a reply from elsewhere: the idle time-out still ends the connection.
    EXPECT_TRUE(quiet.closedWithoutReply(2s));
}

TEST(BridgeServerTimeoutTest, StalledConnectionsAreClosedUnanswered) {
    LogCapture log;
    RunningBridgeServer running(
        std::make_shared<FakeBridgeCommands>(),
        {.idleTimeout = 300ms, .headerBlockTimeout = 1500ms, .bodyTimeout = 300ms});
    const std::string stalls[] = {"", preflight, statePost.substr(0, statePost.size() - 1),
                                  "OPTIONS /vpn HTTP/1.1\n\n"};
    std::vector<std::unique_ptr<LoopbackClient>> stalled;
    for (const auto& bytes : stalls) {
        stalled.push_back(std::make_unique<LoopbackClient>(running.port()));
        ASSERT_TRUE(stalled.back()->send(bytes));
    }
    // Silent before or after a request, or short of a body: closed well before the header limit.
    ASSERT_TRUE(stalled[1]->readResponse());
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(stalled[i]->closedWithoutReply(1s)) << i;
    EXPECT_TRUE(stalled[3]->closedWithoutReply(3s));  // bare line feeds end no header block
    LoopbackClient trickling(running.port());
    ASSERT_TRUE(trickling.send("POST /vpn HTTP/1.1\r\n"));
    bool cutOff = false;
    for (int i = 0; i < 30 && !cutOff; ++i) {  // a header line every 100 ms, never the end
        trickling.send("X-Slow: y\r\n");
        cutOff = trickling.closedWithoutReply(100ms);
    }
    EXPECT_TRUE(cutOff);
}

}  // namespace
