// The bridge server over real loopback connections: what it answers, byte for byte, and that
// everything outside its dialect ends the connection without a reply.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "support/BridgeServerFixture.h"
#include "support/LogCapture.h"
#include "support/LoopbackClient.h"

namespace {

using namespace std::chrono_literals;

struct Reply {
    std::string statusLine;
    std::vector<std::string> headerLines;  // sorted: their order on the wire is not defined
    std::string body;
};

Reply splitReply(const std::string& response) {
    Reply reply;
    const auto headEnd = response.find("\r\n\r\n");
    reply.body = response.substr(headEnd + 4);
    size_t lineStart = 0;
    for (size_t lineEnd; (lineEnd = response.find("\r\n", lineStart)) <= headEnd;
         lineStart = lineEnd + 2) {
        const auto line = response.substr(lineStart, lineEnd - lineStart);
        if (lineStart == 0) {
            reply.statusLine = line;
        } else {
            reply.headerLines.push_back(line);
        }
    }
    std::sort(reply.headerLines.begin(), reply.headerLines.end());
    return reply;
}

std::vector<std::string> fixedHeaderLines(size_t contentLength) {
    std::vector<std::string> lines{"Access-Control-Allow-Origin: *",
                                   "Cache-Control: no-cache",
                                   "Content-Length: " + std::to_string(contentLength),
                                   "Content-Type: text/xml",
                                   "Pragma: no-cache",
                                   "Server: MacTunnelwright/1.1"};
    std::sort(lines.begin(), lines.end());
    return lines;
}

const std::string stringResponse =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<methodResponse>\r\n  <params>\n    <param>\r\n"
    "      <value><string>abc</string></value>\r\n    </param>\r\n  "
    "</params>\r\n</methodResponse>\r\n";

class BridgeServerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(running.port(), 0); }

    // A good request on a new connection is still answered.
    void expectStillAnswering() {
        LoopbackClient client(running.port());
        ASSERT_TRUE(client.send(xmlRpcPost(methodCall("state"))));
        EXPECT_TRUE(client.readResponse().has_value());
    }

    LogCapture log;
    std::shared_ptr<FakeBridgeCommands> commands = std::make_shared<FakeBridgeCommands>();
    RunningBridgeServer running{commands};
};

TEST_F(BridgeServerTest, PreflightHasEightHeadersNoBodyAndKeepsTheConnection) {
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send("OPTIONS /vpn HTTP/1.1\r\nOrigin: http://example.com\r\n\r\n"));
    const auto response = client.readResponse();
    ASSERT_TRUE(response.has_value());
    const auto reply = splitReply(*response);
    EXPECT_EQ(reply.statusLine, "HTTP/1.1 200 OK");
    std::vector<std::string> expected{
        "Access-Control-Allow-Headers: Origin, X-Requested-With, Content-Type, Accept",
        "Access-Control-Allow-Methods: POST, OPTIONS",
        "Access-Control-Allow-Origin: *",
        "Cache-Control: no-cache",
        "Content-Length: 0",
        "Content-Type: text/xml",
        "Pragma: no-cache",
        "Server: MacTunnelwright/1.1"};
    EXPECT_EQ(reply.headerLines, expected);
    EXPECT_EQ(reply.body, "");

    ASSERT_TRUE(client.send(xmlRpcPost(methodCall("state"))));
    EXPECT_TRUE(client.readResponse().has_value());
    EXPECT_EQ(log.count("Client connected"), 1);
}

TEST_F(BridgeServerTest, MethodResponseCarriesOnlyTheSixFixedHeaders) {
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send(xmlRpcPost(methodCall("state"))));
    const auto response = client.readResponse();
    ASSERT_TRUE(response.has_value());
    const auto reply = splitReply(*response);
    EXPECT_EQ(reply.statusLine, "HTTP/1.1 200 OK");
    EXPECT_EQ(reply.headerLines, fixedHeaderLines(172));
    EXPECT_EQ(reply.body, stringResponse);
    EXPECT_EQ(commands->lastCall(), "state()");
}

TEST_F(BridgeServerTest, RefusedRequestsCloseWithoutAnyReply) {
    const auto post = [](std::string_view path, std::string_view lengthName,
                         std::string_view body) {
        return "POST " + std::string(path) + " HTTP/1.1\r\n" + std::string(lengthName) + ": " +
               std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
    };
    const std::string call = methodCall("state");
    const std::string cases[] = {
        "GET /vpn HTTP/1.1\r\n\r\n",
        "HEAD /vpn HTTP/1.1\r\n\r\n",
        "post /vpn HTTP/1.1\r\nContent-Length: 10\r\n\r\n",
        "POST\r\n\r\n",                    // request line of one part
        "POST  /vpn HTTP/1.1\r\n\r\n",     // two blanks: the path is empty
        "\r\nPOST /vpn HTTP/1.1\r\n\r\n",  // the first line is the request line
        post("/vpn?x=1", "Content-Length", call),
        post("/vpn/", "Content-Length", call),
        post("/VPN", "Content-Length", call),
        post("/vpn", "content-length", call),
        "POST /vpn HTTP/1.1\r\nContent-Length: 0\r\n\r\n",
        "POST /vpn HTTP/1.1\r\nContent-Length: 65537\r\n\r\n",
        "POST /vpn HTTP/1.1\r\nContent-Length: -5\r\n\r\n",
        "POST /vpn HTTP/1.1\r\nX: \xff\r\nContent-Length: 5\r\n\r\n<?xml",  // header not UTF-8
        xmlRpcPost("\xEF\xBB\xBF" + call),                                  // byte-order mark
        xmlRpcPost("<?xml version='1.0'?><methodCall><methodName>state</methodName></methodCall>"),
        xmlRpcPost(" " + call),
        xmlRpcPost(
            "<?xml version=\"1.0\"?><methodCall><methodName>state</methodName>\xff</methodCall>"),
        xmlRpcPost(methodCall("nosuchMethod")),
        xmlRpcPost(methodCall("State")),
        xmlRpcPost(methodCall(" state")),
        xmlRpcPost("<?xml version=\"1.0\"?><methodCall><params></params></methodCall>"),
        xmlRpcPost("<?xml version=\"1.0\"?><methodCall><methodName></methodName></methodCall>"),
        xmlRpcPost("<?xml version=\"1.0\"?><methodName>state</methodName>"),  // no methodCall
        "POST /vpn HTTP/1.1\r\nContent-Length: 200\r\n\r\n" + call,           // body short for ever
    };
    for (const auto& request : cases) {
        LoopbackClient client(running.port());
        ASSERT_TRUE(client.send(request));
        EXPECT_TRUE(client.closedWithoutReply()) << request;
    }
    EXPECT_TRUE(commands->calls().empty());
    expectStillAnswering();
}

TEST_F(BridgeServerTest, BodyOfExactlyTheLimitIsRead) {
    std::string body = methodCall("state");
    body.resize(QBKelvoXMLRPCServer::maxBodyLength, ' ');
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send(xmlRpcPost(body)));
    const auto response = client.readResponse();
    ASSERT_TRUE(response.has_value());
    EXPECT_EQ(splitReply(*response).body, stringResponse);
}

TEST_F(BridgeServerTest, RequestsWrittenBackToBackAreAnsweredInOrder) {
    // Commands run on a pool thread, or on the loop thread when they answer at once.
    for (const bool atOnce : {false, true}) {
        SCOPED_TRACE(atOnce ? "answered at once" : "answered on a pool thread");
        commands->setAnswersAtOnce(atOnce);
        const auto callsBefore = commands->calls().size();
        LoopbackClient client(running.port());
        ASSERT_TRUE(client.send(xmlRpcPost(methodCall("state")) + "OPTIONS /vpn HTTP/1.1\r\n\r\n" +
                                xmlRpcPost(methodCall("connectionTime"))));
        const auto first = client.readResponse();
        const auto second = client.readResponse();
        const auto third = client.readResponse();
        ASSERT_TRUE(first && second && third);
        EXPECT_EQ(splitReply(*first).body, stringResponse);
        EXPECT_EQ(splitReply(*second).body, "");
        EXPECT_NE(splitReply(*third).body.find("<value><int>1</int></value>"), std::string::npos);
        const auto calls = commands->calls();
        EXPECT_EQ(std::vector<std::string>(calls.begin() + callsBefore, calls.end()),
                  (std::vector<std::string>{"state()", "connectionTime()"}));
    }
}

TEST_F(BridgeServerTest, BodyArrivingAfterTheHeaderBlockIsAwaited) {
    const std::string request = xmlRpcPost(methodCall("state"));
    const auto headEnd = request.find("\r\n\r\n") + 4;
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send(request.substr(0, headEnd)));
    std::this_thread::sleep_for(200ms);
    ASSERT_TRUE(client.send(request.substr(headEnd, 10)));
    std::this_thread::sleep_for(100ms);
    ASSERT_TRUE(client.send(request.substr(headEnd + 10)));
    const auto response = client.readResponse();
    ASSERT_TRUE(response.has_value());
    EXPECT_EQ(splitReply(*response).body, stringResponse);
}

TEST_F(BridgeServerTest, OtherHeadersDoNotDisturbTheRequest) {
    const std::string body = methodCall("state");
    LoopbackClient client(running.port());
    ASSERT_TRUE(
        client.send("POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nno colon line\r\n"
                    "Content-Length: 1\r\n\tContent-Length\t:  " +
                    std::to_string(body.size()) + "\r\nOrigin: http://a:b:c\r\n\r\n" + body));
    EXPECT_TRUE(client.readResponse().has_value());
}

TEST(BridgeServerWithoutCommandsTest, EveryMethodIsUnknown) {
    RunningBridgeServer running(nullptr);
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send(xmlRpcPost(methodCall("clientOS"))));
    EXPECT_TRUE(client.closedWithoutReply());
}

// ---- Commands that wait --------------------------------------------------------------------

// A state command that waits, like one whose GUI application is slow to answer, until released.
class WaitingStateCommands : public FakeBridgeCommands {
public:
    std::string state() override {
        std::unique_lock guard(lock);
        ++waiting;
        changed.notify_all();
        changed.wait(guard, [this] { return released; });
        return "late";
    }
    bool waitUntilWaiting(int count) {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, 5s, [&] { return waiting >= count; });
    }
    void release() {
        std::lock_guard guard(lock);
        released = true;
        changed.notify_all();
    }

private:
    std::mutex lock;
    std::condition_variable changed;
    int waiting = 0;
    bool released = false;
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
    ASSERT_TRUE(commands->waitUntilWaiting(8));
    LoopbackClient other(running->port());
    ASSERT_TRUE(other.send("OPTIONS /vpn HTTP/1.1\r\n\r\n" + xmlRpcPost(methodCall("clientOS"))));
    EXPECT_TRUE(other.readResponse(2s).has_value());
    EXPECT_TRUE(other.readResponse(2s).has_value());

    commands->release();
    for (auto& client : waiting) {
        const auto response = client->readResponse();
        ASSERT_TRUE(response.has_value());
        EXPECT_NE(response->find("<string>late</string>"), std::string::npos);
    }
}

TEST_F(BridgeServerWaitingCommandTest, ShutdownEndsServingOnlyAfterCommandsInProgress) {
    LoopbackClient client(running->port());
    ASSERT_TRUE(client.send(xmlRpcPost(methodCall("state"))));
    ASSERT_TRUE(commands->waitUntilWaiting(1));
    std::atomic<bool> stopped{false};
    std::thread stopping([&] {
        running.reset();  // shuts the server down and waits for serve() to return
        stopped = true;
    });
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(stopped.load());
    commands->release();
    stopping.join();
    // The answer of a command that finishes after the shutdown is not sent.
    EXPECT_TRUE(client.closedWithoutReply());
}

// ---- Time-outs ------------------------------------------------------------------------------

class BridgeServerTimeoutTest : public ::testing::Test {
protected:
    static QBKelvoXMLRPCServer::Settings shortTimeouts() {
        QBKelvoXMLRPCServer::Settings settings;
        settings.idleTimeout = 300ms;
        settings.headerBlockTimeout = 400ms;
        settings.bodyTimeout = 300ms;
        return settings;
    }
    void SetUp() override { ASSERT_NE(running.port(), 0); }

    LogCapture log;
    RunningBridgeServer running{std::make_shared<FakeBridgeCommands>(), shortTimeouts()};
};

TEST_F(BridgeServerTimeoutTest, IdleConnectionsAreClosedBeforeAndBetweenRequests) {
    LoopbackClient silent(running.port());
    LoopbackClient answered(running.port());
    ASSERT_TRUE(answered.send("OPTIONS /vpn HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(answered.readResponse().has_value());
    EXPECT_TRUE(silent.closedWithoutReply(3s));
    EXPECT_TRUE(answered.closedWithin(3s));
}

TEST_F(BridgeServerTimeoutTest, TricklingHeaderBlockIsCutOff) {
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send("POST /vpn HTTP/1.1\r\n"));
    bool closed = false;
    for (int i = 0; i < 30 && !closed; ++i) {  // a header line every 100 ms, never the end
        client.send("X-Slow: y\r\n");
        closed = client.closedWithin(100ms);
    }
    EXPECT_TRUE(closed);
    EXPECT_TRUE(client.unread().empty());
}

TEST_F(BridgeServerTimeoutTest, HeaderBlockEndedByBareLineFeedsNeverCompletes) {
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send("OPTIONS /vpn HTTP/1.1\n\n"));
    EXPECT_TRUE(client.closedWithoutReply(3s));
}

TEST_F(BridgeServerTimeoutTest, BodyStillShortAfterItsTimeoutIsRefused) {
    const std::string request = xmlRpcPost(methodCall("state"));
    LoopbackClient client(running.port());
    ASSERT_TRUE(client.send(request.substr(0, request.size() - 1)));
    EXPECT_TRUE(client.closedWithoutReply(3s));
}

}  // namespace
