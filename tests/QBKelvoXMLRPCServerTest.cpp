// The bridge server over real loopback connections: what it answers, byte for byte, and that
// everything outside its dialect ends the connection without a reply.

#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "support/BridgeServerFixture.h"
#include "support/LogCapture.h"
#include "support/LoopbackClient.h"

namespace {

using namespace std::chrono_literals;
using S = QBKelvoXMLRPCServer;

const std::string preflight = "OPTIONS /vpn HTTP/1.1\r\n\r\n";

// The response with its header lines sorted: their order on the wire is not defined.
std::string sortedHeaders(const std::string& response) {
    const auto statusEnd = response.find("\r\n") + 2;
    const auto headEnd = response.find("\r\n\r\n") + 2;
    std::vector<std::string> lines;
    for (auto at = statusEnd; at < headEnd; at = response.find("\r\n", at) + 2) {
        lines.push_back(response.substr(at, response.find("\r\n", at) + 2 - at));
    }
    std::sort(lines.begin(), lines.end());
    std::string sorted = response.substr(0, statusEnd);
    for (const auto& line : lines) sorted += line;
    return sorted + response.substr(headEnd);
}

std::string expectedReply(const std::string& body, const std::string& moreHeaders = "") {
    return sortedHeaders("HTTP/1.1 200 OK\r\n" + moreHeaders +
                         "Access-Control-Allow-Origin: *\r\nCache-Control: no-cache\r\n"
                         "Content-Length: " + std::to_string(body.size()) +
                         "\r\nContent-Type: text/xml\r\nPragma: no-cache\r\n"
                         "Server: MacTunnelwright/1.1\r\n\r\n" + body);
}

const std::string preflightReply = expectedReply(
    "", "Access-Control-Allow-Headers: Origin, X-Requested-With, Content-Type, Accept\r\n"
        "Access-Control-Allow-Methods: POST, OPTIONS\r\n");
const std::string stringReply = expectedReply(S::methodResponseDocument({std::string("abc")}));
const std::string intReply = expectedReply(S::methodResponseDocument({std::int64_t{1}}));

class BridgeServerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(running.port(), 0); }

    void expectAnswered(LoopbackClient& client, const std::string& expected) {
        const auto response = client.readResponse();
        ASSERT_TRUE(response.has_value());
        EXPECT_EQ(sortedHeaders(*response), expected);
    }

    LogCapture log;
    std::shared_ptr<FakeBridgeCommands> commands = std::make_shared<FakeBridgeCommands>();
    RunningBridgeServer running{commands};
};

TEST_F(BridgeServerTest, RequestsWrittenBackToBackAreAnsweredInOrderByteForByte) {
    for (const bool atOnce : {false, true}) {  // commands on a pool thread, or on the loop thread
        SCOPED_TRACE(atOnce);
        commands->atOnce = atOnce;
        LoopbackClient client(running.port());
        ASSERT_TRUE(client.send(preflight + xmlRpcPost(methodCall("state")) + preflight +
                                xmlRpcPost(methodCall("connectionTime"))));
        for (const auto* expected : {&preflightReply, &stringReply, &preflightReply, &intReply}) {
            expectAnswered(client, *expected);
        }
    }
    EXPECT_EQ(commands->calls(), (std::vector<std::string>{"state()", "connectionTime()", "state()",
                                                           "connectionTime()"}));
    EXPECT_EQ(log.count("Client connected"), 2);
}

TEST_F(BridgeServerTest, RefusedRequestsCloseWithoutAnyReply) {
    const auto post = [](std::string_view path, std::string_view lengthName, std::string_view body) {
        return "POST " + std::string(path) + " HTTP/1.1\r\n" + std::string(lengthName) + ": " +
               std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
    };
    const auto call = methodCall("state");
    const std::string cases[] = {
        "GET /vpn HTTP/1.1\r\n\r\n",
        "post /vpn HTTP/1.1\r\nContent-Length: 10\r\n\r\n",
        "POST\r\n\r\n",                    // request line of one part
        "POST  /vpn HTTP/1.1\r\n\r\n",     // two blanks: the path is empty
        "\r\nPOST /vpn HTTP/1.1\r\n\r\n",  // the first line is the request line
        post("/vpn?x=1", "Content-Length", call),
        post("/vpn/", "Content-Length", call),
        post("/vpn", "content-length", call),
        "POST /vpn HTTP/1.1\r\nContent-Length: 0\r\n\r\n",
        "POST /vpn HTTP/1.1\r\nContent-Length: 65537\r\n\r\n",
        "POST /vpn HTTP/1.1\r\nContent-Length: -5\r\n\r\n",
        "POST /vpn HTTP/1.1\r\nX: \xff\r\nContent-Length: 5\r\n\r\n<?xml",  // header not UTF-8
        xmlRpcPost("\xEF\xBB\xBF" + call),                                  // byte-order mark
        xmlRpcPost("<?xml version='1.0'?><methodCall><methodName>state</methodName></methodCall>"),
        xmlRpcPost(" " + call),
        xmlRpcPost("<?xml version=\"1.0\"?><methodCall><methodName>state</methodName>\xff</methodCall>"),
        xmlRpcPost(methodCall("nosuchMethod")),
        xmlRpcPost(methodCall("State")),
        xmlRpcPost(methodCall(" state")),
        xmlRpcPost("<?xml version=\"1.0\"?><methodCall><params></params></methodCall>"),
        xmlRpcPost("<?xml version=\"1.0\"?><methodName>state</methodName>"),  // no methodCall
        "POST /vpn HTTP/1.1\r\nContent-Length: 200\r\n\r\n" + call,           // body short for ever
    };
    for (const auto& request : cases) {
        LoopbackClient client(running.port());
        ASSERT_TRUE(client.send(request));
        EXPECT_TRUE(client.closedWithoutReply()) << request;
    }
    EXPECT_TRUE(commands->calls().empty());
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send(xmlRpcPost(methodCall("state"))));
    expectAnswered(client, stringReply);
}

TEST_F(BridgeServerTest, LimitBodyLateBodyAndOtherHeadersAreAccepted) {
    std::string limitBody = methodCall("state");
    limitBody.resize(S::maxBodyLength, ' ');
    const auto post = xmlRpcPost(methodCall("state"));
    const auto headEnd = post.find("\r\n\r\n") + 4;
    const auto body = methodCall("state");
    const std::vector<std::string> cases[] = {
        {xmlRpcPost(limitBody)},
        {post.substr(0, headEnd), post.substr(headEnd, 10), post.substr(headEnd + 10)},  // 200 ms apart
        {"POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nno colon line\r\nContent-Length: 1\r\n"
         "\tContent-Length\t:  " + std::to_string(body.size()) + "\r\nOrigin: http://a:b\r\n\r\n" + body},
    };
    for (const auto& pieces : cases) {
        LoopbackClient client(running.port());
        for (const auto& piece : pieces) {
            if (&piece != &pieces.front()) std::this_thread::sleep_for(200ms);
            ASSERT_TRUE(client.send(piece));
        }
        expectAnswered(client, stringReply);
    }
}

// ---- Commands that wait --------------------------------------------------------------------

// Its state command waits, like one whose GUI application is slow to answer, until released.
class WaitingStateCommands : public FakeBridgeCommands {
public:
    std::string state() override {
        ++waiting;
        released.wait();
        return "late";
    }
    void release() {
        if (!releasedOnce.exchange(true)) releaser.set_value();
    }
    std::atomic<int> waiting{0};

private:
    std::promise<void> releaser;
    std::shared_future<void> released = releaser.get_future().share();
    std::atomic<bool> releasedOnce{false};
};

class BridgeServerWaitingCommandTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(running->port(), 0); }
    void TearDown() override { commands->release(); }

    LogCapture log;
    std::shared_ptr<WaitingStateCommands> commands = std::make_shared<WaitingStateCommands>();
    std::unique_ptr<RunningBridgeServer> running = std::make_unique<RunningBridgeServer>(commands);
};

TEST_F(BridgeServerWaitingCommandTest, WaitingCommandsDoNotHoldUpOtherConnections) {
    std::vector<std::unique_ptr<LoopbackClient>> waiting;
    for (int i = 0; i < 8; ++i) {
        waiting.push_back(std::make_unique<LoopbackClient>(running->port()));
        ASSERT_TRUE(waiting.back()->send(xmlRpcPost(methodCall("state"))));
    }
    ASSERT_TRUE(eventually([&] { return commands->waiting == 8; }));
    LoopbackClient other(running->port());
    ASSERT_TRUE(other.send(preflight + xmlRpcPost(methodCall("clientOS"))));
    EXPECT_TRUE(other.readResponse(2s) && other.readResponse(2s));

    commands->release();
    for (auto& client : waiting) {
        const auto response = client->readResponse();
        EXPECT_NE(response.value_or("").find("<string>late</string>"), std::string::npos);
    }
}

TEST_F(BridgeServerWaitingCommandTest, ShutdownEndsServingOnlyAfterCommandsInProgress) {
    LoopbackClient client(running->port());
    ASSERT_TRUE(client.send(xmlRpcPost(methodCall("state"))));
    ASSERT_TRUE(eventually([&] { return commands->waiting == 1; }));
    auto stopped = std::async(std::launch::async, [&] { running.reset(); });
    EXPECT_EQ(stopped.wait_for(200ms), std::future_status::timeout);
    commands->release();
    stopped.get();
    // The answer of a command that finishes after the shutdown is not sent.
    EXPECT_TRUE(client.closedWithoutReply());
}

// ---- Time-outs ------------------------------------------------------------------------------

TEST(BridgeServerTimeoutTest, StalledConnectionsAreClosedUnanswered) {
    LogCapture log;
    S::Settings settings;
    settings.idleTimeout = 300ms;
    settings.headerBlockTimeout = 400ms;
    settings.bodyTimeout = 300ms;
    RunningBridgeServer running(std::make_shared<FakeBridgeCommands>(), settings);
    ASSERT_NE(running.port(), 0);
    const auto post = xmlRpcPost(methodCall("state"));
    const std::string stalls[] = {"", "OPTIONS /vpn HTTP/1.1\n\n", post.substr(0, post.size() - 1)};
    std::vector<std::unique_ptr<LoopbackClient>> stalled;
    for (const auto& bytes : stalls) {
        stalled.push_back(std::make_unique<LoopbackClient>(running.port()));
        ASSERT_TRUE(stalled.back()->send(bytes));
    }
    LoopbackClient answered(running.port());
    ASSERT_TRUE(answered.send(preflight) && answered.readResponse());
    LoopbackClient trickling(running.port());
    ASSERT_TRUE(trickling.send("POST /vpn HTTP/1.1\r\n"));
    bool cutOff = false;
    for (int i = 0; i < 30 && !cutOff; ++i) {  // a header line every 100 ms, never the end
        trickling.send("X-Slow: y\r\n");
        cutOff = trickling.closedWithoutReply(100ms);
    }
    EXPECT_TRUE(cutOff);
    for (const auto& client : stalled) EXPECT_TRUE(client->closedWithoutReply(3s));
    EXPECT_TRUE(answered.closedWithin(3s));
}

}  // namespace
