// The client end: sending on its one connection, the delegate that answers the server's
// commands, and what ending the connection does to waiting senders.

#include <gtest/gtest.h>

#include <thread>

#include "support/ChannelFixture.h"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

class QBLumentideIPCClientTest : public ChannelFixture {};

// A client endpoint connected to a raw listener that the test plays by hand.
class QBLumentideIPCRawServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(listener.isListening());
        ASSERT_TRUE(client->connect());
        server = listener.accept();
        ASSERT_TRUE(server);
    }
    void TearDown() override { EXPECT_TRUE(shutDownAndWait(client)); }

    PendingAnswer request(json data) {
        return PendingAnswer(client, [data](QBLumentideIPC& endpoint) {
            return endpoint.sendMessage("guiCmd", data);
        });
    }

    LogCapture log;
    TempDir directory;
    std::string socketPath = directory.file("raw.socket");
    RawFrameListener listener{socketPath};
    std::shared_ptr<QBLumentideIPC> client = QBLumentideIPC::initWithSocketPath(socketPath, false);
    std::unique_ptr<RawFramePeer> server;
};

}  // namespace

TEST_F(QBLumentideIPCClientTest, UnconnectedClientSendsNothingAndKeepsItsCounter) {
    auto client = QBLumentideIPC::initWithSocketPath(socketPath, false);
    EXPECT_EQ(client->mode(), QBLumentideIPC::clientMode);
    EXPECT_EQ(client->sendMessage("c", json::object()), std::nullopt);
    client->sendMessageAndDontWait("c", json::object());
    EXPECT_EQ(client->sendMessageToFirstClient("c", json::object()), std::nullopt);
    EXPECT_EQ(client->clientCount(), 0);
    EXPECT_EQ(client->lastMessageId(), 0);
    client->shutdown();
}

TEST_F(QBLumentideIPCClientTest, DelegateAnswersDecideTheReplyContent) {
    ASSERT_TRUE(startServer());
    auto delegate = std::make_shared<ScriptedDelegate>();
    delegate->validate = [](const std::string& command, const json&) { return command != "refused"; };
    delegate->process = [](const std::string& command, const json& data) -> std::optional<json> {
        if (command == "echo") return data;
        if (command == "array") return json::array({1});
        return std::nullopt;
    };
    auto client = connectClient(delegate);
    ASSERT_TRUE(client);
    EXPECT_TRUE(waitUntil([&] { return delegate->connectedCalls == 1; }));

    EXPECT_EQ(server->sendMessageToFirstClient("echo", {{"a", 1}, {"b", false}}), (json{{"a", 1}, {"b", false}}));
    EXPECT_EQ(server->sendMessageToFirstClient("quiet", {{"a", 1}}), (json{{"status", "OK"}}));
    EXPECT_EQ(server->sendMessageToFirstClient("array", json::object()), (json{{"status", "OK"}}));
    EXPECT_EQ(log.count("Invalid command"), 0);

    const auto refused = server->sendMessageToFirstClient("refused", {{"x", "y"}});
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ((*refused)["status"], "INVALID");
    EXPECT_EQ((*refused)["message"],
              (json{{"command", "refused"}, {"messageid", "4"}, {"content", {{"x", "y"}}}}));
    EXPECT_TRUE(waitUntil([&] { return log.count("Invalid command", QBLog::Channel::general) == 1; }));

    const auto calls = delegate->processed();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].command, "echo");
    EXPECT_EQ(calls[1].data, (json{{"a", 1}}));
    EXPECT_GE(calls[0].client, 0);
    EXPECT_EQ(delegate->lastSender.load(), client.get());

    ASSERT_TRUE(stop(client));
    EXPECT_EQ(delegate->connectedCalls, 1);
    EXPECT_EQ(delegate->disconnectedCalls, 1);
}

TEST_F(QBLumentideIPCClientTest, ServerDelegateSeesEveryClientConnectAndLeave) {
    auto delegate = std::make_shared<ScriptedDelegate>();
    ASSERT_TRUE(startServer());
    server->setDelegate(delegate);
    auto first = connectClient();
    auto second = connectClient();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->sendMessage("hello", {{"n", 1}}), (json{{"status", "OK"}}));
    ASSERT_EQ(delegate->processed().size(), 1u);
    EXPECT_EQ(delegate->processed()[0].client, server->clientSockets().at(0));
    ASSERT_TRUE(stop(first));
    ASSERT_TRUE(stop(second));
    EXPECT_TRUE(waitUntil([&] { return delegate->disconnectedCalls == 2; }));
    EXPECT_EQ(delegate->connectedCalls, 2);
    EXPECT_EQ(delegate->lastSender.load(), server.get());
}

TEST_F(QBLumentideIPCClientTest, DelegateIsHeldWeakly) {
    ASSERT_TRUE(startServer());
    auto delegate = std::make_shared<ScriptedDelegate>();
    auto client = connectClient(delegate);
    ASSERT_TRUE(client);
    EXPECT_EQ(server->sendMessageToFirstClient("c", json::object()), (json{{"status", "OK"}}));
    std::weak_ptr<ScriptedDelegate> watch = delegate;
    delegate.reset();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(server->sendMessageToFirstClient("c", json::object()).value_or(json())["status"], "INVALID");
}

TEST_F(QBLumentideIPCRawServerTest, ClientRequestsCarryFreshIdsAndGetTheirAnswers) {
    auto answer = request({{"q", 1}});
    const auto frame = server->readEnvelope();
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(*frame, (json{{"command", "guiCmd"}, {"messageid", "1"}, {"content", {{"q", 1}}}}));
    ASSERT_TRUE(server->sendReply("1", {{"a", 2}}));
    ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(answer.get(), (json{{"a", 2}}));

    client->sendMessageAndDontWait("note", json::object());
    const auto note = server->readEnvelope();
    ASSERT_TRUE(note.has_value());
    EXPECT_EQ((*note)["messageid"], "2");
    EXPECT_EQ((*note)["command"], "note");
    EXPECT_EQ(client->lastMessageId(), 2);
}

TEST_F(QBLumentideIPCRawServerTest, ClientShutdownReleasesWaitingSenders) {
    std::vector<PendingAnswer> waiting;
    for (int i = 0; i < 20; ++i) waiting.push_back(request({{"i", i}}));
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(server->readEnvelope().has_value());
    const auto stopped = std::chrono::steady_clock::now();
    client->shutdown();
    for (auto& answer : waiting) {
        ASSERT_EQ(answer.wait_until(stopped + 100ms), std::future_status::ready);
        EXPECT_EQ(answer.get(), std::nullopt);
    }
    EXPECT_TRUE(server->waitForClose());
    EXPECT_EQ(client->sendMessage("after", json::object()), std::nullopt);
}

TEST_F(QBLumentideIPCRawServerTest, ServerClosingTheConnectionShutsTheClientDown) {
    auto answer = request(json::object());
    ASSERT_TRUE(server->readEnvelope().has_value());
    server->close();
    ASSERT_EQ(answer.wait_for(1s), std::future_status::ready);
    EXPECT_EQ(answer.get(), std::nullopt);
    EXPECT_TRUE(client->waitForThreads(5s));
    EXPECT_TRUE(client->isShutdown());
    EXPECT_EQ(client->socketState(), 0);
}

TEST_F(QBLumentideIPCRawServerTest, ClientAnswersCommandsWithoutDelegateAsInvalid) {
    const json command = {{"command", "serviceCmd"}, {"messageid", "7"}, {"content", {{"command", "state"}}}};
    ASSERT_TRUE(server->sendEnvelope(command));
    const auto reply = server->readEnvelope();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(*reply, (json{{"command", "reply"},
                            {"messageid", "1"},
                            {"replyid", "7"},
                            {"content", {{"status", "INVALID"}, {"message", command}}}}));
    EXPECT_TRUE(waitUntil([&] { return log.count("Invalid command") == 1; }));
}
