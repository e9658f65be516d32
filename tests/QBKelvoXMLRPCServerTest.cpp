// The bridge server over real loopback connections: what it answers, byte for byte, that
// everything outside its dialect ends the connection without a reply, commands that wait, its
// time-outs, and its bounds against a hostile page.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <numeric>
#include <set>

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
    std::multiset<std::string> lines;
    for (auto at = first; at < end; at = response.find("\r\n", at) + 2) {
        lines.insert(response.substr(at, response.find("\r\n", at) + 2 - at));
    }
    return response.substr(0, first) + std::accumulate(lines.begin(), lines.end(), std::string()) +
           response.substr(end);
}

std::string expectedReply(const std::string& body, const std::string& corsHeaders = "") {
    return "HTTP/1.1 200 OK\r\n" + corsHeaders + "Access-Control-Allow-Origin: *\r\nCache-Control: no-cache\r\n"
           "Content-Length: " + std::to_string(body.size()) +
           "\r\nContent-Type: text/xml\r\nPragma: no-cache\r\nServer: MacTunnelwright/1.1\r\n\r\n" + body;
}

const std::string preflightReply = expectedReply(
    "", "Access-Control-Allow-Headers: Origin, X-Requested-With, Content-Type, Accept\r\n"
        "Access-Control-Allow-Methods: POST, OPTIONS\r\n");
const std::string stringReply = expectedReply(S::methodResponseDocument({std::string("abc")}));
const std::string intReply = expectedReply(S::methodResponseDocument({std::int64_t{1}}));

std::string replaced(std::string text, std::string_view from, std::string_view to) {
    return text.replace(text.find(from), from.size(), to);
}

// A state call whose header block is padded to blockLength bytes, or whose body is to size bytes.
std::string statePostWithHeaderBlock(std::size_t blockLength) {
    const auto headEnd = statePost.find("\r\n\r\n");
    return replaced(statePost, "\r\n\r\n", "\r\nX-Pad: " + std::string(blockLength - headEnd - 13, 'p') + "\r\n\r\n");
}
std::string paddedCall(std::size_t size) { return methodCall("state").append(size - methodCall("state").size(), ' '); }

bool answered(LoopbackClient& client, const std::string& expected = stringReply) {
    return sortedHeaders(client.readResponse().value_or("\r\n\r\n")) == expected;
}

bool answers(int port, const std::string& request, std::chrono::milliseconds within = 5s) {
    LoopbackClient client(port);
    return client.send(request) && client.readResponse(within).has_value();
}

class BridgeServerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(running.port, 0); }
    void TearDown() override { commands->holdState = false; }

    LogCapture log;
    std::shared_ptr<FakeBridgeCommands> commands = std::make_shared<FakeBridgeCommands>();
    RunningBridgeServer running{commands};
};

TEST_F(BridgeServerTest, RequestsWrittenBackToBackAreAnsweredInOrderByteForByte) {
    // A header block's text ends at its first NUL byte, yet the whole block is consumed. Then far
    // more preflights than the socket buffers hold answers for: replies go out in parts.
    std::string requests = "OPTIONS /vpn\0x HTTP/1.1\r\nHost: a\r\n\r\n"s + statePost + preflight +
                           xmlRpcPost(methodCall("connectionTime"));
    for (int i = 0; i < 20000; ++i) requests += preflight;
    for (const bool atOnce : {false, true}) {  // commands on a pool thread, or on the loop thread
        commands->atOnce = atOnce;
        LoopbackClient client(running.port);
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

// Every request outside the dialect, or past a limit, or whose command throws (on the loop or a
// pool thread: it ends only its own connection), is closed without any reply; at the limits, and
// with a late body or other headers, requests are answered.
TEST_F(BridgeServerTest, RefusedRequestsAndFailedCommandsCloseWithoutAnyReply) {
    const auto call = methodCall("state");
    const auto headEnd = statePost.find("\r\n\r\n") + 4;
    const auto largest = xmlRpcPost(paddedCall(S::maxBodyLength));
    commands->failing = true;
    const std::vector<std::vector<std::string>> refused{
        {replaced(statePost, "POST", "post")},
        {"POST\r\n\r\n"},                          // a request line of one part
        {replaced(statePost, " /vpn", "  /vpn")},  // two blanks: the path is empty
        {"\r\n" + statePost},                      // the first line is the request line
        {replaced(statePost, "/vpn", "/vpn?x=1")}, {replaced(statePost, "/vpn", "/vpn/")},
        {replaced(statePost, "Content-Length", "content-length")},
        {replaced(statePost, "Content-Length", "X-Nul: \0\r\nContent-Length"s)},  // text ends at NUL
        {replaced(statePost, "Host: ", "Host: \xff")},  // header block not UTF-8
        {"POST /vpn HTTP/1.1\r\nContent-Length: 0\r\n\r\n" + call},
        {xmlRpcPost(paddedCall(S::maxBodyLength + 1))}, {statePostWithHeaderBlock(S::maxHeaderBlockLength + 1)},
        {"POST /vpn HTTP/1.1\r\nX-Huge: " + std::string(1024 * 1024, 'h')},  // and no end
        {xmlRpcPost("\xEF\xBB\xBF" + call)},  // byte-order mark
        {xmlRpcPost(replaced(call, "\"1.0\"", "'1.0'"))},
        {xmlRpcPost(call + "\xff")},  // body not UTF-8
        {xmlRpcPost(methodCall("State"))}, {xmlRpcPost(methodCall(" state"))},
        {xmlRpcPost(replaced(call, "methodName", "name"))}, {xmlRpcPost(replaced(call, "methodCall", "call"))},
        {xmlRpcPost(methodCall("clientOS"))}, {xmlRpcPost(methodCall("clientOS"))},  // throws; on either thread
    }, accepted{
        {largest.substr(0, 60000), largest.substr(60000)},
        {statePostWithHeaderBlock(S::maxHeaderBlockLength)},
        {statePost.substr(0, headEnd), statePost.substr(headEnd, 10), statePost.substr(headEnd + 10)},
        {"POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nno colon line\r\nContent-Length: 1\r\n\tContent-Length\t:  " +
         std::to_string(call.size()) + "\r\nOrigin: http://a:b\r\n\r\n" + call},
    };
    for (const auto* cases : {&refused, &accepted}) {
        for (const auto& pieces : *cases) {
            commands->atOnce = !commands->atOnce;  // alternates
            LoopbackClient client(running.port);
            ASSERT_TRUE(client.connected());
            for (const auto& piece : pieces) {  // with a pause before each further piece
                if (&piece != &pieces.front()) std::this_thread::sleep_for(200ms);
                // A refused send may fail part-way when the server stops reading.
                ASSERT_TRUE(client.send(piece) || cases == &refused);
            }
            EXPECT_TRUE(cases == &refused ? client.closedWithoutReply() : answered(client)) << pieces[0].substr(0, 100);
        }
    }
    EXPECT_EQ(commands->calls(), std::vector<std::string>(accepted.size(), "state()"));
}

TEST(BridgeServerConnectionLimitTest, NewConnectionReplacesTheLongestWaitingOne) {
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(),
                                {.serving = {.loopThreads = 1, .maxConnections = 4}});
    std::deque<LoopbackClient> stalled;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(stalled.emplace_back(running.port).send("OPTIONS /vpn HTTP/1.1\r\n"));
        // A distinct last activity for each: the loop has taken this one in, and its clock moves
        // on well before the next one arrives, however slowly the loop thread is scheduled.
        ASSERT_TRUE(eventually([&] { return running.server->connectionCount() == stalled.size(); }));
        std::this_thread::sleep_for(20ms * sanitizerSlowdown);
    }
    EXPECT_TRUE(answers(running.port, statePost));
    EXPECT_TRUE(stalled[0].closedWithoutReply(1s * sanitizerSlowdown));
    for (int i = 1; i < 4; ++i) EXPECT_FALSE(stalled[i].closedWithoutReply(50ms)) << i;
    EXPECT_TRUE(eventually([&] { return running.server->connectionCount() == 3; }));
}

// Stalled connections send nothing or (every other one) half a header block. What they may add
// to the resident memory: 4 KiB each, less than a thread's stack and bookkeeping; sanitizers
// keep shadow state per allocation, so their figures say nothing.
TEST(BridgeServerConnectionLimitTest, TheBoundHoldsForAllLoopsTogetherAndStalledConnectionsAreCheap) {
    constexpr std::size_t bound = QBTCPEventServer::Limits{}.maxConnections;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 2 * bound + 512) {
        GTEST_SKIP() << "descriptor limit too low";
    }
    const auto residentKiB = [] {  // the second figure: resident pages
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages >> pages;
        return pages * ::sysconf(_SC_PAGESIZE) / 1024;
    };
    LogCapture log;
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(), {.serving = {.loopThreads = 4}});
    ASSERT_TRUE(answers(running.port, statePost));
    const long residentBefore = residentKiB();
    std::deque<LoopbackClient> idle;
    while (idle.size() < bound && idle.emplace_back(running.port).connected()) {
        if (idle.size() % 2 == 0) idle.back().send("POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nContent-Le");
    }
    ASSERT_EQ(idle.size(), bound);
    ASSERT_TRUE(eventually([&] { return running.server->connectionCount() == bound; }));
    const long growth = residentKiB() - residentBefore;
    std::printf("resident memory grew by %ld KiB with %zu stalled connections\n", growth, bound);
    EXPECT_TRUE(sanitizerSlowdown > 1 || growth < 16 * 1024) << growth;
    const auto closedByServer = [&] { return std::ranges::count_if(idle, &LoopbackClient::peerClosed); };
    EXPECT_EQ(closedByServer(), 0);
    // One more is served, in place of a connection that waited longest in the loop it came to.
    EXPECT_TRUE(answers(running.port, statePost, 30s));  // generous for sanitizer builds
    EXPECT_TRUE(eventually([&] { return closedByServer() == 1; }));
    EXPECT_EQ(log.count("Client connected"), static_cast<int>(bound) + 2);
}

// Fills this process's descriptor table, under a lowered limit, but for one descriptor (for the
// client's end of a connection), for the life of the object.
struct FullDescriptorTable {
    FullDescriptorTable() {
        ::getrlimit(RLIMIT_NOFILE, &saved);
        const rlimit lowered{std::min<rlim_t>(saved.rlim_cur, 1024), saved.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &lowered);
        for (int filler; (filler = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fillers.push_back(filler);
        ::close(fillers.back()), fillers.pop_back();
    }
    ~FullDescriptorTable() { freeAll(); }
    void freeAll() {
        for (const int filler : std::exchange(fillers, {})) ::close(filler);
        ::setrlimit(RLIMIT_NOFILE, &saved);
    }
    rlimit saved{};
    std::vector<int> fillers;
};

TEST(BridgeServerFaultTest, RunningOutOfDescriptorsIsSurvivedAndAFailingEventLoopStopsItsServer) {
    LogCapture log;
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(), {.serving = {.loopThreads = 1}});
    {
        // Answered before the table is full: UBSan checks a dynamic type once, with a pipe.
        LoopbackClient idle(running.port);
        ASSERT_TRUE(idle.send(statePost) && answered(idle));
        ASSERT_TRUE(eventually([&] { return running.server->connectionCount() == 1; }));
        FullDescriptorTable full;  // the server has none left for its end
        LoopbackClient newcomer(running.port);
        EXPECT_TRUE(idle.closedWithoutReply());  // closed to make room
        ASSERT_TRUE(newcomer.send(statePost));
        EXPECT_TRUE(answered(newcomer)) << "the newcomer took the place it was given";
    }
    EXPECT_TRUE(answers(running.port, statePost));
    ASSERT_TRUE(eventually([&] { return running.server->connectionCount() == 0; }));
    {
        FullDescriptorTable full;  // and no connection to give up: accepting pauses
        LoopbackClient waiting(running.port);
        ASSERT_TRUE(waiting.send(statePost));
        EXPECT_FALSE(waiting.readResponse(300ms));
        full.freeAll();
        EXPECT_TRUE(answered(waiting));
    }
    std::vector<int> epollSets;  // exactly one: the event loop's
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;  // the iterator's own descriptor is gone by now
        if (read_symlink(entry.path(), error) == "anon_inode:[eventpoll]") {
            epollSets.push_back(std::stoi(entry.path().filename()));
        }
    }
    ASSERT_EQ(epollSets.size(), 1u);
    // Put a descriptor that is no epoll set in its place: the loop's next wait fails. An idle
    // loop waits without a bound, so a new connection ends the wait in progress.
    const int notAnEpollSet = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(notAnEpollSet, epollSets[0]);
    ::close(notAnEpollSet);
    LoopbackClient poke(running.port);
    EXPECT_TRUE(eventually([&] { return log.count("Event loop failed, server stopped: Invalid argument") == 1; }));
    EXPECT_TRUE(eventually([&] { return !LoopbackClient(running.port).connected(); }));
}

// Commands that wait, on a pool thread (held) or started without a thread (deferred).
TEST_F(BridgeServerTest, WaitingCommandsHoldUpNoOtherConnectionAndShutdownWaitsForThem) {
    const auto late = expectedReply(S::methodResponseDocument({"late"s}));
    for (const bool deferred : {false, true}) {
        auto stopping = std::make_unique<RunningBridgeServer>(commands);
        commands->holdState = !deferred;
        commands->deferState = deferred;
        std::deque<LoopbackClient> waiting;
        for (int i = 0; i < 8; ++i) {
            ASSERT_TRUE(waiting.emplace_back(i < 4 ? running.port : stopping->port).send(statePost));
        }
        const auto finishes = deferred ? commands->awaitDeferred(8) : std::vector<FakeBridgeCommands::Finish>();
        ASSERT_TRUE(deferred ? finishes.size() == 8 : eventually([&] { return commands->waiting == 8; }));
        LoopbackClient other(running.port);
        ASSERT_TRUE(other.send(preflight + xmlRpcPost(methodCall("clientOS"))));
        EXPECT_TRUE(other.readResponse(2s * sanitizerSlowdown) && other.readResponse(2s * sanitizerSlowdown));
        auto stopped = std::async(std::launch::async, [&] { stopping.reset(); });
        EXPECT_EQ(stopped.wait_for(200ms), std::future_status::timeout) << "a result is still due";
        commands->holdState = false;
        std::thread([&] {  // from another thread; only the first result counts
            for (auto& finish : finishes) finish(std::string("late")), finish(std::string("twice"));
        }).join();
        stopped.get();
        // Answers come when the commands finish, except on the server shut down meanwhile.
        for (int i = 0; i < 8; ++i) {
            EXPECT_TRUE(i < 4 ? answered(waiting[i], deferred ? late : stringReply) : waiting[i].closedWithoutReply())
                << deferred << i;
        }
    }
}

// A deferred reply may leave from the finishing thread without waking the loop; the connection
// must then still serve its next request, keep its time-outs, and not lose bytes that arrived
// while its request was out.
TEST(BridgeServerDeferredTest, ConnectionsGoOnAfterRepliesFinishedElsewhere) {
    auto commands = std::make_shared<FakeBridgeCommands>();
    commands->deferState = true;
    RunningBridgeServer running(commands, {.idleTimeout = 400ms * sanitizerSlowdown, .bodyTimeout = 1s});
    const auto finishAll = [&](const std::string& result, std::size_t count = 1) {
        const auto finishes = commands->awaitDeferred(count);
        std::thread([&] { for (auto& finish : finishes) finish(result); }).join();
        return finishes.size() == count;
    };
    const auto reply = [](const std::string& result) { return expectedReply(S::methodResponseDocument({result})); };
    LoopbackClient quiet(running.port), early(running.port), pipelined(running.port);
    // The same connection served twice; a reply's length counts bytes, not characters.
    for (const std::string result : {"f\xc3\xafrst", "second"}) {
        ASSERT_TRUE(quiet.send(statePost) && finishAll(result));
        EXPECT_TRUE(answered(quiet, reply(result)));
    }
    // The next request arrives before the reply, or together with the first one.
    ASSERT_TRUE(early.send(statePost) && pipelined.send(statePost + preflight));
    std::this_thread::sleep_for(50ms);
    ASSERT_TRUE(early.send(preflight));
    std::this_thread::sleep_for(50ms);
    ASSERT_TRUE(finishAll("third", 2));
    for (auto* client : {&early, &pipelined}) {
        EXPECT_TRUE(answered(*client, reply("third")));
        EXPECT_TRUE(answered(*client, preflightReply));
    }
    // Silent after a reply from elsewhere: the idle time-out still ends the connection.
    EXPECT_TRUE(quiet.closedWithoutReply(2s * sanitizerSlowdown));
    // A request out for longer than the idle time-out keeps its connection for its reply.
    LoopbackClient slow(running.port);
    ASSERT_TRUE(slow.send(statePost));
    std::this_thread::sleep_for(1s * sanitizerSlowdown);
    ASSERT_TRUE(finishAll("late"));
    EXPECT_TRUE(answered(slow, reply("late")));
}

// Alone on its loop, so that nothing else wakes the loop: the connection rests for exactly its
// idle time-out from a reply that left from another thread half a rest after the request.
TEST(BridgeServerDeferredTest, TheRestAfterAReplyFinishedElsewhereCountsFromTheReply) {
    auto commands = std::make_shared<FakeBridgeCommands>();
    commands->deferState = true;
    const std::chrono::milliseconds rest = 1s * sanitizerSlowdown;
    RunningBridgeServer running(commands, {.idleTimeout = rest, .serving = {.loopThreads = 1}});
    LoopbackClient client(running.port);
    ASSERT_TRUE(client.send(statePost));
    const auto finishes = commands->awaitDeferred(1);
    ASSERT_EQ(finishes.size(), 1u);
    std::this_thread::sleep_for(rest / 2);
    std::thread([&] { finishes[0](std::string("abc")); }).join();
    ASSERT_TRUE(answered(client));
    EXPECT_FALSE(client.closedWithoutReply(rest * 3 / 4));
    EXPECT_TRUE(client.closedWithoutReply(rest / 2));
}

TEST(BridgeServerTimeoutTest, StalledConnectionsAreClosedUnanswered) {
    LogCapture log;
    constexpr auto unit = 100ms * sanitizerSlowdown;
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(),
                                {.idleTimeout = 3 * unit, .headerBlockTimeout = 15 * unit, .bodyTimeout = 3 * unit});
    const std::string stalls[] = {"", preflight, statePost.substr(0, statePost.size() - 1),
                                  "OPTIONS /vpn HTTP/1.1\n\n"};
    std::deque<LoopbackClient> stalled;
    for (const auto& bytes : stalls) ASSERT_TRUE(stalled.emplace_back(running.port).send(bytes));
    // Silent before or after a request, or short of a body: closed well before the header limit.
    ASSERT_TRUE(stalled[1].readResponse());
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(stalled[i].closedWithoutReply(10 * unit)) << i;
    EXPECT_TRUE(stalled[3].closedWithoutReply(30 * unit));  // bare line feeds end no header block
    LoopbackClient trickling(running.port);
    ASSERT_TRUE(trickling.send("POST /vpn HTTP/1.1\r\n"));
    int lines = 0;  // a header line every unit, never the end
    while (lines < 30 && trickling.send("X-Slow: y\r\n") && !trickling.closedWithoutReply(unit)) ++lines;
    EXPECT_LT(lines, 30);
}

}  // namespace
