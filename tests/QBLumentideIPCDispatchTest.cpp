// Messages over real connections: what endpoints send and answer, which frames end a connection,
// and when a waiting sender gives up.

#include "support/ChannelFixture.h"

using nlohmann::json;
using namespace std::chrono_literals;

class QBLumentideIPCDispatchTest : public ChannelFixture {
protected:
    void SetUp() override { ASSERT_TRUE(startServer()); }
};

// Requests and replies take their ids from one counter, which wraps from INT32_MAX to 0. Refused
// sends (no client, not an object, not a connection) neither go out nor take an id. Malformed
// envelopes and stray replies get no answer and no log line.
TEST_F(QBLumentideIPCDispatchTest, RequestsAndInvalidAnswersCarryIdsFromOneCounter) {
    EXPECT_EQ(server->sendMessageToFirstClient("c", json::object()), std::nullopt) << "no client";
    auto peer = connectRawPeer();
    const int client = server->clientSockets().at(0);
    EXPECT_EQ(server->sendMessage("c", json::array(), std::nullopt, false, client), std::nullopt);
    EXPECT_EQ(server->sendMessage("c", json::object(), std::nullopt, false, client + 100), std::nullopt);
    auto answer = requestFromFirstClient({{"command", "state"}});
    EXPECT_EQ(peer->readEnvelope(), (json{{"command", "serviceCmd"}, {"messageid", "1"}, {"content", {{"command", "state"}}}}));
    ASSERT_TRUE(peer->sendReply("1", {{"result", "connected"}, {"up", true}}));
    EXPECT_EQ(answer.get(), (json{{"result", "connected"}, {"up", true}}));
    // A reply never waits, even when asked to; nothing as its data is the content {}.
    EXPECT_EQ(server->sendMessage("reply", std::nullopt, std::string("5"), true, client), std::nullopt);
    EXPECT_EQ(peer->readEnvelope(), (json{{"command", "reply"}, {"messageid", "2"}, {"replyid", "5"}, {"content", json::object()}}));

    for (const char* text : {R"({"command":"c","messageid":7,"content":{}})", R"({"messageid":"1","content":{}})",
                             R"({"command":["c"],"messageid":"1","content":{}})", R"({"command":"c","messageid":"1"})",
                             R"({"command":"c","messageid":"1","content":null})", R"({"command":"reply","messageid":"1","content":{}})",
                             R"({"command":"reply","messageid":"1","replyid":"999","content":{}})",
                             R"({"command":"reply","messageid":"1","replyid":1,"content":{}})"}) {
        ASSERT_TRUE(peer->sendBytes(RawFramePeer::frame(text)));
    }
    // Without a delegate every command is answered INVALID, echoing the whole envelope. The
    // frame's marker may be anything.
    const json command = {{"command", "hello"}, {"messageid", "7"}, {"content", {{"n", 1}}}, {"extra", false}};
    ASSERT_TRUE(peer->sendBytes(RawFramePeer::frame(command.dump(), 0x7F)));
    EXPECT_EQ(peer->readEnvelope(), (json{{"command", "reply"}, {"messageid", "3"}, {"replyid", "7"},
                                          {"content", {{"status", "INVALID"}, {"message", command}}}}));
    EXPECT_TRUE(eventually([&] { return log.count("Invalid command", QBLog::Channel::general) == 1; }));

    server->setLastSentMessageId(INT32_MAX - 1);
    for (const char* expected : {"2147483647", "0", "1"}) {
        ASSERT_TRUE(peer->sendEnvelope(command));
        EXPECT_EQ(peer->readEnvelope().value_or(json())["messageid"], expected);
    }
    auto unconnected = clients.emplace_back(QBLumentideIPC::initWithSocketPath(socketPath, false));
    EXPECT_EQ(unconnected->sendMessage("c", json::object()), std::nullopt);
    unconnected->sendMessageAndDontWait("c", json::object());
    EXPECT_EQ(unconnected->lastSentMessageId(), 0);
}

TEST_F(QBLumentideIPCDispatchTest, UnreadableFramesEndTheConnection) {
    const auto whole = RawFramePeer::frame(R"({"command":"c","messageid":"1","content":{}})");
    const std::vector<std::uint8_t> zeroLength{0, 0, 0, 0, 0}, cutInLength(whole.begin(), whole.begin() + 3);
    for (const auto& bytes : {zeroLength, RawFramePeer::frame("[{}]"), RawFramePeer::frame("{\"a\""), cutInLength}) {
        auto peer = connectRawPeer();
        ASSERT_TRUE(peer->sendBytes(bytes));
        if (bytes == cutInLength) {  // the rest of the length comes in a later write
            std::this_thread::sleep_for(30ms * sanitizerSlowdown);
            peer->sendBytes({whole.begin() + 3, whole.end()});
        }
        EXPECT_TRUE(peer->waitForClose());
        EXPECT_TRUE(eventually([&] { return server->clientCount() == 0; }));
    }
}

TEST_F(QBLumentideIPCDispatchTest, DelegateAnswersBecomeReplyContents) {
    auto delegate = std::make_shared<ScriptedDelegate>();
    delegate->process = [](const std::string& command, const json& data) -> std::optional<json> {
        if (command == "throws") throw std::runtime_error("handler failed");
        return data;
    };
    auto client = connectClient(delegate);
    EXPECT_EQ(server->sendMessageToFirstClient("echo", {{"a", 1}, {"b", false}}), (json{{"a", 1}, {"b", false}}));
    EXPECT_EQ(server->sendMessageToFirstClient("refused", {{"x", 1}}),
              (json{{"status", "INVALID"}, {"message", {{"command", "refused"}, {"messageid", "2"}, {"content", {{"x", 1}}}}}}));
    // A handler that throws refuses its command; the client's reader serves on.
    EXPECT_EQ(server->sendMessageToFirstClient("throws", json::object()).value_or(json())["status"], "INVALID");
    EXPECT_EQ(server->sendMessageToFirstClient("echo", {{"c", 3}}), (json{{"c", 3}}));
    EXPECT_EQ(delegate->processed, 3);
    EXPECT_GE(delegate->lastClient, 0);
    EXPECT_EQ(delegate->lastSender.load(), client.get());
    ASSERT_TRUE(shutDownAndWait(client));
    EXPECT_EQ(delegate->connected, 1);
    EXPECT_EQ(delegate->disconnected, 1);

    std::weak_ptr<ScriptedDelegate> watch = delegate;  // held weakly: gone once the test lets go
    delegate.reset();
    EXPECT_TRUE(watch.expired());
}

// However the carrying connection ends, every sender that waits returns nothing within 100 ms
// (stretched under sanitizers), and a request whose sender does not wait gets its answer, or
// nothing, exactly once: nothing at once without a client, nothing when its connection ends.
TEST_F(QBLumentideIPCDispatchTest, WaitingSendersAndAnswerHandlersAreReleasedOnceWhenTheirConnectionEnds) {
    auto outcomes = std::make_shared<Recorded<std::optional<json>>>();  // what the answer handlers got
    const auto record = [outcomes](std::optional<json> answer) { outcomes->add(std::move(answer)); };
    server->sendMessageToFirstClient("c", json::object(), record);
    EXPECT_EQ(outcomes->all(), std::vector<std::optional<json>>{std::nullopt}) << "at once without a client";

    std::vector<PendingAnswer> waiting;
    const auto expectReleasedBy = [&](const std::function<void()>& end) {
        const auto ended = std::chrono::steady_clock::now();
        end();
        for (auto& answer : waiting) EXPECT_TRUE(answer.isReadyBy(ended + 100ms * sanitizerSlowdown));
        for (auto& answer : waiting) EXPECT_EQ(answer.get(), std::nullopt);
        waiting.clear();
    };
    // A client whose requests the server never answers, released by the client's own shutdown.
    auto release = std::make_shared<std::atomic<bool>>(false);  // outlives the test if a call is late
    auto silent = std::make_shared<ScriptedDelegate>();
    silent->process = [release](const std::string&, const json&) {
        eventually([&] { return release->load(); });
        return std::nullopt;
    };
    server->setDelegate(silent);
    auto client = connectClient();
    for (int i = 0; i < 50; ++i) waiting.emplace_back(client, [](QBLumentideIPC& e) { return e.sendMessage("c", json::object()); });
    ASSERT_TRUE(eventually([&] { return silent->processed == 1; }));
    expectReleasedBy([&] { client->shutdown(); });
    *release = true;
    // Requests to a raw peer, released when the peer goes away and when the server shuts down.
    for (const bool serverShutsDown : {false, true}) {
        ASSERT_TRUE(eventually([&] { return server->clientCount() == 0; }));
        auto peer = connectRawPeer();
        for (int i = 0; i < 50; ++i) waiting.push_back(requestFromFirstClient({{"i", i}}));
        for (int i = 0; i < 50; ++i) ASSERT_TRUE(peer->readEnvelope());
        std::vector<std::string> ids;
        for (int i = 0; i < 3; ++i) {
            server->sendMessageToFirstClient("c", {{"i", i}}, record);
            ids.push_back(peer->readEnvelope().value_or(json()).value("messageid", "none"));
        }
        const auto before = outcomes->size();
        ASSERT_TRUE(peer->sendReply(ids[1], {{"n", 1}}) && peer->sendReply(ids[1], {{"n", "again"}}));
        ASSERT_TRUE(eventually([&] { return outcomes->size() == before + 1; }));
        EXPECT_EQ(outcomes->all().at(before), (json{{"n", 1}}));
        expectReleasedBy([&] { serverShutsDown ? server->shutdown() : peer->close(); });
        ASSERT_TRUE(eventually([&] { return outcomes->size() == before + 3; }));
        EXPECT_EQ(outcomes->all().at(before + 1), std::nullopt);
        EXPECT_EQ(outcomes->all().at(before + 2), std::nullopt);
        EXPECT_TRUE(!serverShutsDown || peer->waitForClose());
    }
    std::this_thread::sleep_for(50ms * sanitizerSlowdown);
    EXPECT_EQ(outcomes->size(), 7u) << "a handler ran twice";
}
