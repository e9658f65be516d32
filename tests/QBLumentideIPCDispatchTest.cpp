// Messages over real connections: what endpoints send and answer, how replies find their
// waiting senders, which frames a connection survives, and when a waiting sender gives up.

#include <gtest/gtest.h>

#include <climits>
#include <thread>

#include "support/ChannelFixture.h"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

class QBLumentideIPCDispatchTest : public ChannelFixture {
protected:
    void SetUp() override { ASSERT_TRUE(startServer()); }
};

}  // namespace

TEST_F(QBLumentideIPCDispatchTest, RequestGoesOutAsTheDocumentedFrameAndItsReplyIsReturned) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    auto answer = requestFromFirstClient({{"command", "state"}});
    const auto frame = peer->readFrameBytes();
    ASSERT_TRUE(frame);
    EXPECT_EQ(std::vector<std::uint8_t>(frame->begin(), frame->begin() + 5), (std::vector<std::uint8_t>{0, 0x46, 0, 0, 0}));
    EXPECT_EQ(json::parse(frame->begin() + 5, frame->end()),
              (json{{"command", "serviceCmd"}, {"messageid", "1"}, {"content", {{"command", "state"}}}}));
    ASSERT_TRUE(peer->sendReply("1", {{"result", "connected"}, {"up", true}}));
    EXPECT_EQ(answer.get(), (json{{"result", "connected"}, {"up", true}}));
}

TEST_F(QBLumentideIPCDispatchTest, CommandsWithoutDelegateAreAnsweredInvalidWithReplyIdsFromTheSameCounter) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    auto answer = requestFromFirstClient(json::object());  // takes id 1
    ASSERT_TRUE(peer->readEnvelope());
    ASSERT_TRUE(peer->sendReply("1", json::object()));
    EXPECT_EQ(answer.get(), json::object());

    const json command = {{"command", "hello"}, {"messageid", "7"}, {"content", {{"n", 1}}}, {"extra", false}};
    ASSERT_TRUE(peer->sendEnvelope(command));
    EXPECT_EQ(peer->readEnvelope(), (json{{"command", "reply"}, {"messageid", "2"}, {"replyid", "7"},
                                          {"content", {{"status", "INVALID"}, {"message", command}}}}));
    EXPECT_TRUE(waitUntil([&] { return log.count("Invalid command", QBLog::Channel::general) == 1; }));

    server->setLastMessageId(INT32_MAX - 1);
    for (const char* expected : {"2147483647", "0", "1"}) {
        ASSERT_TRUE(peer->sendEnvelope(command));
        EXPECT_EQ(peer->readEnvelope().value_or(json())["messageid"], expected);
    }
}

TEST_F(QBLumentideIPCDispatchTest, MalformedEnvelopesAndStrayRepliesAreDroppedSilently) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    for (const char* text : {R"({"command":"c","messageid":7,"content":{}})", R"({"messageid":"1","content":{}})",
                             R"({"command":["c"],"messageid":"1","content":{}})", R"({"command":"c","messageid":"1"})",
                             R"({"command":"c","messageid":"1","content":null})", R"({"command":"reply","messageid":"1","content":{}})",
                             R"({"command":"reply","messageid":"1","replyid":"999","content":{}})",
                             R"({"command":"reply","messageid":"1","replyid":1,"content":{}})"}) {
        ASSERT_TRUE(peer->sendBytes(RawFramePeer::frame(text)));
    }
    ASSERT_TRUE(peer->sendBytes(RawFramePeer::frame(R"({"command":"good","messageid":"42","content":{}})", 0x7F)));
    EXPECT_EQ(peer->readEnvelope().value_or(json())["replyid"], "42");
    EXPECT_TRUE(peer->staysSilent(50ms));
    EXPECT_TRUE(waitUntil([&] { return log.count("Invalid command") == 1; }));
}

TEST_F(QBLumentideIPCDispatchTest, UnreadableFramesEndTheConnection) {
    const std::vector<std::uint8_t> zeroLength{0, 0, 0, 0, 0};
    const auto whole = RawFramePeer::frame(R"({"command":"c","messageid":"1","content":{}})");
    const std::vector<std::uint8_t> cutInLength(whole.begin(), whole.begin() + 3);
    for (const auto& bytes : {zeroLength, RawFramePeer::frame("[{}]"), RawFramePeer::frame("{\"a\""), cutInLength}) {
        auto peer = connectRawPeer();
        ASSERT_TRUE(peer);
        ASSERT_TRUE(peer->sendBytes(bytes));
        if (bytes == cutInLength) {  // the rest of the length comes in a later write
            std::this_thread::sleep_for(30ms);
            peer->sendBytes({whole.begin() + 3, whole.end()});
        }
        EXPECT_TRUE(peer->waitForClose());
        EXPECT_TRUE(waitUntil([&] { return server->clientCount() == 0; }));
    }
    auto marker = connectRawPeer();  // a marker alone, the rest later, is fine
    ASSERT_TRUE(marker && marker->sendBytes({whole.begin(), whole.begin() + 1}));
    std::this_thread::sleep_for(30ms);
    ASSERT_TRUE(marker->sendBytes({whole.begin() + 1, whole.end()}));
    EXPECT_EQ(marker->readEnvelope().value_or(json())["replyid"], "1");
}

TEST_F(QBLumentideIPCDispatchTest, RepliesMatchByIdOnAnyConnectionAndTheFirstClientIsTheEarliest) {
    auto first = connectRawPeer(), second = connectRawPeer();
    ASSERT_TRUE(first && second);
    auto answer = requestFromFirstClient({{"to", "first"}});
    const auto request = first->readEnvelope();
    ASSERT_TRUE(request);
    ASSERT_TRUE(second->sendReply((*request)["messageid"], {{"from", "second"}}));
    EXPECT_EQ(answer.get(), (json{{"from", "second"}}));
    ASSERT_TRUE(first->sendReply((*request)["messageid"], {{"late", true}}));  // collected already: dropped
    EXPECT_TRUE(first->staysSilent(30ms));

    first->close();
    ASSERT_TRUE(waitUntil([&] { return server->clientCount() == 1; }));
    auto next = requestFromFirstClient({{"to", "second"}});
    const auto atSecond = second->readEnvelope();
    ASSERT_TRUE(atSecond);
    EXPECT_EQ((*atSecond)["content"], (json{{"to", "second"}}));
    ASSERT_TRUE(second->sendReply((*atSecond)["messageid"], {{"ok", true}}));
    EXPECT_EQ(next.get(), (json{{"ok", true}}));
}

TEST_F(QBLumentideIPCDispatchTest, SendsThatDoNotWaitAndSendsThatAreRefused) {
    EXPECT_EQ(server->sendMessageToFirstClient("c", json::object()), std::nullopt) << "no client";
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    const int client = server->clientSockets().at(0);
    EXPECT_EQ(server->sendMessage("c", json::array(), std::nullopt, false, client), std::nullopt);
    EXPECT_EQ(server->sendMessage("c", json::object(), std::nullopt, false, client + 100), std::nullopt);
    EXPECT_EQ(server->lastMessageId(), 0);
    EXPECT_TRUE(peer->staysSilent(20ms));

    EXPECT_EQ(server->sendMessage("reply", std::nullopt, std::string("5"), true, client), std::nullopt);
    EXPECT_EQ(peer->readEnvelope(), (json{{"command", "reply"}, {"messageid", "1"}, {"replyid", "5"}, {"content", json::object()}}));

    auto unconnected = QBLumentideIPC::initWithSocketPath(socketPath, false);
    clients.push_back(unconnected);
    EXPECT_EQ(unconnected->sendMessage("c", json::object()), std::nullopt);
    unconnected->sendMessageAndDontWait("c", json::object());
    EXPECT_EQ(unconnected->lastMessageId(), 0);
}

TEST_F(QBLumentideIPCDispatchTest, DelegateAnswersBecomeReplyContents) {
    auto delegate = std::make_shared<ScriptedDelegate>();
    delegate->validate = [](const std::string& command) { return command != "refused"; };
    delegate->process = [](const std::string& command, const json& data) -> std::optional<json> {
        return command == "echo" ? std::optional<json>(data) : std::nullopt;
    };
    auto client = connectClient(delegate);
    ASSERT_TRUE(client);
    EXPECT_EQ(server->sendMessageToFirstClient("echo", {{"a", 1}, {"b", false}}), (json{{"a", 1}, {"b", false}}));
    EXPECT_EQ(server->sendMessageToFirstClient("quiet", {{"a", 1}}), (json{{"status", "OK"}}));
    EXPECT_EQ(server->sendMessageToFirstClient("refused", {{"x", 1}}),
              (json{{"status", "INVALID"}, {"message", {{"command", "refused"}, {"messageid", "3"}, {"content", {{"x", 1}}}}}}));
    EXPECT_EQ(delegate->processed, 2);
    EXPECT_GE(delegate->lastClient, 0);
    EXPECT_EQ(delegate->lastSender.load(), client.get());
    ASSERT_TRUE(shutDownAndWait(client));
    EXPECT_EQ(delegate->connected, 1);
    EXPECT_EQ(delegate->disconnected, 1);

    std::weak_ptr<ScriptedDelegate> watch = delegate;  // held weakly: gone once the test lets go
    delegate.reset();
    EXPECT_TRUE(watch.expired());
}

// However the carrying connection ends, every waiting sender returns nothing within 100 ms.
TEST_F(QBLumentideIPCDispatchTest, WaitingSendersAreReleasedWhenTheirConnectionEnds) {
    enum class End { peerDisconnects, serverShutsDown, clientShutsDown };
    std::atomic<bool> release{false};  // lets the server's silent delegate return at the end
    for (const End end : {End::peerDisconnects, End::serverShutsDown, End::clientShutsDown}) {
        if (!server) {
            ASSERT_TRUE(startServer());
        }
        std::unique_ptr<RawFramePeer> peer;
        std::shared_ptr<QBLumentideIPC> client;
        std::vector<PendingAnswer> waiting;
        if (end == End::clientShutsDown) {  // the client waits on a server that never answers
            auto silent = std::make_shared<ScriptedDelegate>();
            silent->process = [&](const std::string&, const json&) {
                waitUntil([&] { return release.load(); });
                return std::nullopt;
            };
            server->setDelegate(silent);
            client = connectClient();
            ASSERT_TRUE(client);
            for (int i = 0; i < 50; ++i) {
                waiting.emplace_back(client, [](QBLumentideIPC& endpoint) { return endpoint.sendMessage("c", json::object()); });
            }
            ASSERT_TRUE(waitUntil([&] { return silent->processed == 1; }));
            const auto ended = std::chrono::steady_clock::now();
            client->shutdown();
            for (auto& answer : waiting) EXPECT_TRUE(answer.isReadyBy(ended + 100ms));
            release = true;
        } else {
            peer = connectRawPeer();
            ASSERT_TRUE(peer);
            for (int i = 0; i < 50; ++i) waiting.push_back(requestFromFirstClient({{"i", i}}));
            for (int i = 0; i < 50; ++i) ASSERT_TRUE(peer->readEnvelope());
            const auto ended = std::chrono::steady_clock::now();
            end == End::peerDisconnects ? peer->close() : server->shutdown();
            for (auto& answer : waiting) EXPECT_TRUE(answer.isReadyBy(ended + 100ms)) << static_cast<int>(end);
        }
        for (auto& answer : waiting) EXPECT_EQ(answer.get(), std::nullopt);
        if (end == End::serverShutsDown) {
            EXPECT_TRUE(peer->waitForClose());
            ASSERT_TRUE(shutDownAndWait(server));
            server = nullptr;
        }
    }
}
