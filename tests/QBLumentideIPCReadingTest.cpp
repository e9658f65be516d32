// Who reads a connection: senders that wait read it themselves and pass on what is not theirs
// (other senders' answers, commands for the delegate); frames are put together whatever their
// sizes and however the receive calls cut them.

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "support/ChannelFixture.h"

using nlohmann::json;

namespace {

// Answers every command by asking its peer to double data["n"] and waiting for that answer.
struct AskingDelegate : QBLumentideIPCDelegate {
    bool validateCommand(const std::string&, const json&, QBLumentideIPC&) override { return true; }
    std::optional<json> processCommand(const std::string&, const json& data, int, QBLumentideIPC& sender) override {
        return json{{"asked", sender.sendMessage("double", {{"n", data.value("n", 0)}}).value_or(json())}};
    }
};

// A command frame exactly size bytes long, with messageid id.
std::vector<std::uint8_t> commandFrame(const std::string& id, std::size_t size) {
    const std::string head = R"({"command":"c","content":{"pad":")", tail = R"("},"messageid":")" + id + R"("})";
    return RawFramePeer::frame(head + std::string(size - 5 - head.size() - tail.size(), 'p') + tail);
}

void append(std::vector<std::uint8_t>& bytes, const std::vector<std::uint8_t>& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

}  // namespace

class QBLumentideIPCReadingTest : public ChannelFixture {
protected:
    void SetUp() override { ASSERT_TRUE(startServer()); }
};

// Whoever reads the burst completes every waiting sender, and the commands in it still reach the
// delegate in order, with their replies in the same order.
TEST_F(QBLumentideIPCReadingTest, AnswersForOthersAndCommandsReadOnTheWayReachTheirOwners) {
    auto seen = std::make_shared<std::pair<std::mutex, std::vector<std::string>>>();
    auto delegate = std::make_shared<ScriptedDelegate>();
    delegate->process = [seen](const std::string& command, const json&) {
        std::lock_guard guard(seen->first);
        seen->second.push_back(command);
        return std::nullopt;
    };
    server->setDelegate(delegate);
    auto peer = connectRawPeer();
    std::vector<PendingAnswer> answers;
    for (int i = 0; i < 3; ++i) answers.push_back(requestFromFirstClient({{"i", i}}));
    std::string ids[3];
    for (int i = 0; i < 3; ++i) {
        const auto request = peer->readEnvelope().value_or(json());
        ids[request["content"].value("i", 0)] = request.value("messageid", "");
    }
    const auto command = [](const char* name, const char* id) {
        return RawFramePeer::frame(json{{"command", name}, {"messageid", id}, {"content", json::object()}}.dump());
    };
    std::vector<std::uint8_t> burst;
    append(burst, RawFramePeer::frame(json{{"command", "reply"}, {"messageid", "1"}, {"replyid", ids[2]}, {"content", {{"for", 2}}}}.dump()));
    append(burst, command("first", "A"));
    append(burst, RawFramePeer::frame(json{{"command", "reply"}, {"messageid", "2"}, {"replyid", ids[1]}, {"content", {{"for", 1}}}}.dump()));
    append(burst, command("second", "B"));
    append(burst, RawFramePeer::frame(json{{"command", "reply"}, {"messageid", "3"}, {"replyid", ids[0]}, {"content", {{"for", 0}}}}.dump()));
    ASSERT_TRUE(peer->sendBytes(burst));

    for (int i = 0; i < 3; ++i) EXPECT_EQ(answers[static_cast<std::size_t>(i)].get(), (json{{"for", i}}));
    EXPECT_EQ(peer->readEnvelope().value_or(json())["replyid"], "A");
    EXPECT_EQ(peer->readEnvelope().value_or(json())["replyid"], "B");
    std::lock_guard guard(seen->first);
    EXPECT_EQ(seen->second, (std::vector<std::string>{"first", "second"}));
}

// The delegate runs on the connection's reader thread; when it asks the peer something, that
// thread reads the answer itself. Meanwhile the server's own waiting senders read the
// questions, which the server's delegate answers.
TEST_F(QBLumentideIPCReadingTest, ADelegateMayAskItsPeerAndWaitForTheAnswer) {
    auto doubling = std::make_shared<ScriptedDelegate>();
    doubling->process = [](const std::string&, const json& data) { return json{{"n", 2 * data.value("n", 0)}}; };
    server->setDelegate(doubling);
    auto asking = std::make_shared<AskingDelegate>();
    connectClient(asking);

    std::vector<std::thread> senders;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                const int n = 100 * t + i;
                if (server->sendMessageToFirstClient("ask", {{"n", n}}) != json{{"asked", {{"n", 2 * n}}}}) ++wrong;
            }
        });
    }
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(doubling->processed, 40);
}

// Frames of one write whose headers straddle any receive call, bodies larger than what one call
// takes, and a body larger than what a connection keeps buffered between frames.
TEST_F(QBLumentideIPCReadingTest, FramesOfOneBurstAreReadWhateverTheirSizes) {
    auto delegate = std::make_shared<ScriptedDelegate>();  // short answers: the peer reads them only after its write
    server->setDelegate(delegate);
    auto peer = connectRawPeer();
    const std::size_t sizes[] = {4093, 4094, 4095, 4096, 4097, 61, 9000, 70000, 1029, 4099, 62, 12000};
    std::vector<std::uint8_t> burst;
    int count = 0;
    for (int round = 0; round < 5; ++round) {
        for (const std::size_t size : sizes) append(burst, commandFrame(std::to_string(count++), size));
    }
    ASSERT_TRUE(peer->sendBytes(burst));
    for (int i = 0; i < count; ++i) {
        const auto reply = peer->readEnvelope().value_or(json());
        ASSERT_EQ(reply["replyid"], std::to_string(i));
        EXPECT_EQ(reply["content"], (json{{"status", "OK"}}));
    }
    EXPECT_EQ(server->clientCount(), 1);
}
