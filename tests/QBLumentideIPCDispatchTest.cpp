// Messages over real connections: what a server endpoint sends and answers, how replies find
// their waiting senders, and which frames a connection survives.

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

    // Sends a request to the first client on another thread.
    PendingAnswer requestFromFirstClient(json data) {
        return PendingAnswer(server, [data](QBLumentideIPC& endpoint) {
            return endpoint.sendMessageToFirstClient("serviceCmd", data);
        });
    }
};

json invalidAnswerTo(const json& envelope) { return {{"status", "INVALID"}, {"message", envelope}}; }

}  // namespace

TEST_F(QBLumentideIPCDispatchTest, RequestFrameCarriesTheEnvelopeAndTheAnswerComesBack) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    auto answer = requestFromFirstClient({{"command", "state"}});

    const auto frame = peer->readFrameBytes();
    ASSERT_TRUE(frame.has_value());
    ASSERT_EQ(frame->size(), 75u);
    EXPECT_EQ(std::vector<std::uint8_t>(frame->begin(), frame->begin() + 5),
              (std::vector<std::uint8_t>{0x00, 0x46, 0x00, 0x00, 0x00}));
    EXPECT_EQ(json::parse(frame->begin() + 5, frame->end()),
              (json{{"command", "serviceCmd"}, {"messageid", "1"}, {"content", {{"command", "state"}}}}));

    ASSERT_TRUE(peer->sendReply("1", {{"result", "connected"}, {"up", true}}));
    ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(answer.get(), (json{{"result", "connected"}, {"up", true}}));
}

TEST_F(QBLumentideIPCDispatchTest, CommandWithoutDelegateIsAnsweredInvalidWithTheEchoedEnvelope) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    const json command = {{"command", "hello"}, {"messageid", "7"}, {"content", {{"n", 1}}}, {"extra", false}};
    ASSERT_TRUE(peer->sendEnvelope(command));
    const auto reply = peer->readEnvelope();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ((*reply)["command"], "reply");
    EXPECT_EQ((*reply)["replyid"], "7");
    EXPECT_EQ((*reply)["messageid"], "1");
    EXPECT_EQ((*reply)["content"], invalidAnswerTo(command));
    EXPECT_EQ(reply->size(), 4u);
    // The line is logged after the answer has gone out.
    EXPECT_TRUE(waitUntil([&] { return log.count("Invalid command", QBLog::Channel::general) == 1; }));

    // The connection stays open for the next command.
    ASSERT_TRUE(peer->sendCommand("again", "8"));
    const auto second = peer->readEnvelope();
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ((*second)["replyid"], "8");
    EXPECT_TRUE(waitUntil([&] { return log.count("Invalid command") == 2; }));
}

TEST_F(QBLumentideIPCDispatchTest, RepliesTakeTheReplyingEndpointsNextIds) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    for (const char* id : {"1", "2"}) {
        auto answer = requestFromFirstClient({{"n", id}});
        const auto request = peer->readEnvelope();
        ASSERT_TRUE(request.has_value());
        EXPECT_EQ((*request)["messageid"], id);
        ASSERT_TRUE(peer->sendReply(id, json::object()));
        ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
        EXPECT_EQ(answer.get(), json::object());
    }
    ASSERT_TRUE(peer->sendCommand("c", "1"));  // the peer numbers its messages on its own
    const auto reply = peer->readEnvelope();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ((*reply)["messageid"], "3");
    EXPECT_EQ((*reply)["replyid"], "1");
}

TEST_F(QBLumentideIPCDispatchTest, IdsWrapFromTheLargestValueToZero) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    server->setLastMessageId(INT32_MAX - 1);
    for (const char* expected : {"2147483647", "0", "1"}) {
        ASSERT_TRUE(peer->sendCommand("c", "5"));
        const auto reply = peer->readEnvelope();
        ASSERT_TRUE(reply.has_value());
        EXPECT_EQ((*reply)["messageid"], expected);
    }
    EXPECT_EQ(server->lastMessageId(), 1);
}

TEST_F(QBLumentideIPCDispatchTest, MalformedEnvelopesAreDroppedAndTheConnectionGoesOn) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    const std::vector<std::string> dropped = {
        R"({"command":"c","messageid":7,"content":{}})",
        R"({"messageid":"1","content":{}})",
        R"({"command":["c"],"messageid":"1","content":{}})",
        R"({"command":"c","messageid":"1"})",
        R"({"command":"c","messageid":"1","content":null})",
        R"({"command":"c","messageid":"1","content":"text"})",
        R"({"command":"reply","messageid":"1","content":{}})",
        R"({"command":"reply","messageid":"1","replyid":"999","content":{}})",
        R"({"command":"reply","messageid":"1","replyid":1,"content":{}})",
    };
    for (const auto& text : dropped) ASSERT_TRUE(peer->sendBytes(RawFramePeer::frame(text)));
    // A marker byte other than 0 does not matter.
    ASSERT_TRUE(peer->sendBytes(RawFramePeer::frame(R"({"command":"good","messageid":"42","content":{}})", 0x7F)));
    const auto reply = peer->readEnvelope();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ((*reply)["replyid"], "42") << "only the good command is answered";
    EXPECT_TRUE(peer->staysSilent(50ms));
    EXPECT_TRUE(waitUntil([&] { return log.count("Invalid command") == 1; }));
    EXPECT_EQ(server->clientCount(), 1);
}

TEST_F(QBLumentideIPCDispatchTest, UnreadableFramesEndTheConnection) {
    auto withLength = [](std::uint32_t n) {
        return std::vector<std::uint8_t>{0, static_cast<std::uint8_t>(n), static_cast<std::uint8_t>(n >> 8),
                                         static_cast<std::uint8_t>(n >> 16), static_cast<std::uint8_t>(n >> 24)};
    };
    const std::pair<const char*, std::vector<std::uint8_t>> cases[] = {
        {"zero length", withLength(0)},
        {"top-level array", RawFramePeer::frame("[{\"command\":\"c\"}]")},
        {"invalid JSON", RawFramePeer::frame("{\"command\"")},
        {"length above the limit", withLength(QBLumentideIPC::maximumFrameBodyLength + 1)},
        {"nesting too deep", RawFramePeer::frame(std::string(200, '[') + std::string(200, ']'))},
    };
    for (const auto& [name, bytes] : cases) {
        auto peer = connectRawPeer();
        ASSERT_TRUE(peer) << name;
        ASSERT_TRUE(peer->sendBytes(bytes)) << name;
        EXPECT_TRUE(peer->waitForClose()) << name;
        EXPECT_TRUE(waitUntil([&] { return server->clientCount() == 0; })) << name;
    }
    EXPECT_FALSE(log.contains("Invalid command"));
}

TEST_F(QBLumentideIPCDispatchTest, UnknownReplyIsDroppedWithoutAnswer) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    ASSERT_TRUE(peer->sendReply("12345", {{"x", 1}}));
    EXPECT_TRUE(peer->staysSilent(100ms));
    EXPECT_EQ(server->clientCount(), 1);
}

TEST_F(QBLumentideIPCDispatchTest, ReplyOnAnotherConnectionCompletesTheRequest) {
    auto first = connectRawPeer();
    auto second = connectRawPeer();
    ASSERT_TRUE(first && second);
    auto answer = requestFromFirstClient({{"n", 1}});
    const auto request = first->readEnvelope();
    ASSERT_TRUE(request.has_value());
    ASSERT_TRUE(second->sendReply((*request)["messageid"], {{"from", "second"}}));
    ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(answer.get(), (json{{"from", "second"}}));
}

TEST_F(QBLumentideIPCDispatchTest, LateDuplicateReplyIsDroppedAfterCollection) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    auto answer = requestFromFirstClient(json::object());
    ASSERT_TRUE(peer->readEnvelope().has_value());
    ASSERT_TRUE(peer->sendReply("1", {{"n", 1}}));
    ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(answer.get(), (json{{"n", 1}}));
    ASSERT_TRUE(peer->sendReply("1", {{"n", 2}}));
    EXPECT_TRUE(peer->staysSilent(50ms));

    // The next request is answered with its own reply, not the leftover.
    auto next = requestFromFirstClient(json::object());
    const auto request = peer->readEnvelope();
    ASSERT_TRUE(request.has_value());
    ASSERT_TRUE(peer->sendReply((*request)["messageid"], {{"n", 3}}));
    ASSERT_EQ(next.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(next.get(), (json{{"n", 3}}));
}

TEST_F(QBLumentideIPCDispatchTest, FirstClientIsTheEarliestStillConnected) {
    auto first = connectRawPeer();
    auto second = connectRawPeer();
    ASSERT_TRUE(first && second);
    auto answer = requestFromFirstClient({{"to", "first"}});
    const auto atFirst = first->readEnvelope();
    ASSERT_TRUE(atFirst.has_value());
    EXPECT_EQ((*atFirst)["content"], (json{{"to", "first"}}));
    EXPECT_TRUE(second->staysSilent(20ms));
    ASSERT_TRUE(first->sendReply((*atFirst)["messageid"], json::object()));
    ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);

    first->close();
    ASSERT_TRUE(waitUntil([&] { return server->clientCount() == 1; }));
    auto next = requestFromFirstClient({{"to", "second"}});
    const auto atSecond = second->readEnvelope();
    ASSERT_TRUE(atSecond.has_value());
    EXPECT_EQ((*atSecond)["content"], (json{{"to", "second"}}));
    ASSERT_TRUE(second->sendReply((*atSecond)["messageid"], {{"ok", true}}));
    ASSERT_EQ(next.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(next.get(), (json{{"ok", true}}));
}

TEST_F(QBLumentideIPCDispatchTest, SendWithReplyIdNeverWaitsAndMissingContentIsEmptyObject) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    const int client = server->clientSockets().at(0);
    EXPECT_EQ(server->sendMessage("reply", std::nullopt, std::string("5"), true, client), std::nullopt);
    const auto reply = peer->readEnvelope();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(*reply, (json{{"command", "reply"}, {"messageid", "1"}, {"replyid", "5"}, {"content", json::object()}}));

    EXPECT_EQ(server->sendMessage("oneWay", json(nullptr), std::nullopt, false, client), std::nullopt);
    const auto oneWay = peer->readEnvelope();
    ASSERT_TRUE(oneWay.has_value());
    EXPECT_EQ((*oneWay)["content"], json::object());
    EXPECT_EQ(oneWay->size(), 3u);
}

TEST_F(QBLumentideIPCDispatchTest, RefusedSendsWriteNothingAndKeepTheCounter) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    const int client = server->clientSockets().at(0);
    EXPECT_EQ(server->sendMessage("c", json::array({1}), std::nullopt, false, client), std::nullopt);
    EXPECT_EQ(server->sendMessage("c", json::object(), std::nullopt, false, client + 100), std::nullopt);
    EXPECT_EQ(server->lastMessageId(), 0);
    EXPECT_TRUE(peer->staysSilent(20ms));

    const json tooLong = {{"pad", std::string(QBLumentideIPC::maximumFrameBodyLength, 'a')}};
    EXPECT_EQ(server->sendMessageToFirstClient("c", tooLong), std::nullopt);
    EXPECT_TRUE(peer->staysSilent(20ms));
}

TEST_F(QBLumentideIPCDispatchTest, NoClientMeansNothingAtOnce) {
    EXPECT_EQ(server->sendMessageToFirstClient("serviceCmd", {{"command", "state"}}), std::nullopt);
    EXPECT_EQ(server->lastMessageId(), 0);
}

TEST_F(QBLumentideIPCDispatchTest, DisconnectWhileFiftyRequestsWaitReleasesThemAll) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    std::vector<PendingAnswer> waiting;
    for (int i = 0; i < 50; ++i) waiting.push_back(requestFromFirstClient({{"i", i}}));
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(peer->readEnvelope().has_value());

    const auto disconnected = std::chrono::steady_clock::now();
    peer->close();
    for (auto& answer : waiting) {
        ASSERT_EQ(answer.wait_until(disconnected + 100ms), std::future_status::ready);
        EXPECT_EQ(answer.get(), std::nullopt);
    }
}

TEST_F(QBLumentideIPCDispatchTest, ServerShutdownReleasesWaitingRequests) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    std::vector<PendingAnswer> waiting;
    for (int i = 0; i < 50; ++i) waiting.push_back(requestFromFirstClient({{"i", i}}));
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(peer->readEnvelope().has_value());

    const auto stopped = std::chrono::steady_clock::now();
    server->shutdown();
    for (auto& answer : waiting) {
        ASSERT_EQ(answer.wait_until(stopped + 100ms), std::future_status::ready);
        EXPECT_EQ(answer.get(), std::nullopt);
    }
    EXPECT_TRUE(peer->waitForClose());
}

TEST_F(QBLumentideIPCDispatchTest, ReplyThatArrivedBeforeTheDisconnectIsStillDelivered) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    auto answer = requestFromFirstClient(json::object());
    ASSERT_TRUE(peer->readEnvelope().has_value());
    ASSERT_TRUE(peer->sendReply("1", {{"kept", true}}));
    peer->close();
    ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
    // The reply and the end of the connection race to the sender; the reply is read first, so
    // the sender is answered.
    EXPECT_EQ(answer.get(), (json{{"kept", true}}));
}

// The length bytes must arrive in one piece: a marker alone is fine, a header cut inside its
// length ends the connection.
TEST_F(QBLumentideIPCDispatchTest, LengthBytesMustArriveTogether) {
    const auto frame = RawFramePeer::frame(R"({"command":"c","messageid":"3","content":{}})");
    auto whole = connectRawPeer();
    ASSERT_TRUE(whole);
    ASSERT_TRUE(whole->sendBytes({frame.begin(), frame.begin() + 1}));
    std::this_thread::sleep_for(30ms);
    ASSERT_TRUE(whole->sendBytes({frame.begin() + 1, frame.end()}));
    const auto reply = whole->readEnvelope();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ((*reply)["replyid"], "3");

    auto cut = connectRawPeer();
    ASSERT_TRUE(cut);
    ASSERT_TRUE(cut->sendBytes({frame.begin(), frame.begin() + 3}));
    std::this_thread::sleep_for(30ms);
    cut->sendBytes({frame.begin() + 3, frame.end()});
    EXPECT_TRUE(cut->waitForClose());
}

TEST_F(QBLumentideIPCDispatchTest, LargeAndBackToBackFramesArriveWhole) {
    auto peer = connectRawPeer();
    ASSERT_TRUE(peer);
    const std::string large(300000, 'x');
    std::vector<std::uint8_t> burst;
    for (int i = 0; i < 20; ++i) {
        const json command = {{"command", "c"}, {"messageid", std::to_string(i)}, {"content", {{"pad", i % 5 == 0 ? large : "s"}}}};
        const auto frame = RawFramePeer::frame(command.dump());
        burst.insert(burst.end(), frame.begin(), frame.end());
    }
    std::thread writer([&] { peer->sendBytes(burst); });  // the answers must be read meanwhile
    for (int i = 0; i < 20; ++i) {
        const auto reply = peer->readEnvelope();
        ASSERT_TRUE(reply.has_value()) << i;
        EXPECT_EQ((*reply)["replyid"], std::to_string(i));
        EXPECT_EQ((*reply)["content"]["message"]["content"]["pad"].get<std::string>().size(), i % 5 == 0 ? large.size() : 1u);
    }
    writer.join();
}
