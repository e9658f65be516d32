// Many senders at once, answers and commands crossing in both directions; who reads a connection
// (senders that wait read it themselves and pass on what is not theirs); frames whatever their
// sizes; a client that stops reading. Meant to be run under ThreadSanitizer as well.

#include <random>

#include "support/ChannelFixture.h"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

// A client's delegate: answers each command with its data, its name and the answer to a question
// (double data["seq"]) it first asks the server through its client endpoint (lastSender), on its
// reader thread, after a random pause of up to 200 us.
std::shared_ptr<ScriptedDelegate> echoing(const std::string& name) {
    auto delegate = std::make_shared<ScriptedDelegate>();
    delegate->process = [name, &client = delegate->lastSender](const std::string&, const json& data) -> std::optional<json> {
        std::this_thread::sleep_for(std::chrono::microseconds(std::random_device{}() % 200));
        const auto asked = client.load()->sendMessage("double", {{"n", data.value("seq", 0)}}).value_or(json());
        return json{{"echo", data}, {"by", name}, {"asked", asked}};
    };
    return delegate;
}

std::vector<std::uint8_t> burstOf(const std::vector<std::string>& bodies) {  // their frames, for one write
    std::vector<std::uint8_t> bytes;
    for (const auto& body : bodies) std::ranges::copy(RawFramePeer::frame(body), std::back_inserter(bytes));
    return bytes;
}

}  // namespace

class QBLumentideIPCConcurrencyTest : public ChannelFixture {
protected:
    void SetUp() override { ASSERT_TRUE(startServer()); }
};

// The server's senders read the clients' questions while they wait, and its delegate answers
// them; meanwhile the clients' own senders wait on their connections too.
TEST_F(QBLumentideIPCConcurrencyTest, EveryCallerGetsItsOwnAnswer) {
    auto doubling = std::make_shared<ScriptedDelegate>();  // refuses "refused"
    doubling->process = [](const std::string&, const json& data) { return json{{"n", 2 * data.value("n", 0)}}; };
    server->setDelegate(doubling);
    auto firstDelegate = echoing("first"), secondDelegate = echoing("second");
    auto first = connectClient(firstDelegate), second = connectClient(secondDelegate);
    const int secondSocket = server->clientSockets().at(1);

    std::atomic<int> wrong{0};  // answers missing or not the caller's own
    std::vector<std::thread> senders;
    for (int t = 0; t < 32; ++t) {  // 32 x 200 requests, half to each client
        senders.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                const json data = {{"thread", t}, {"seq", i}};
                const auto answer = t % 2 ? server->sendMessage("serviceCmd", data, std::nullopt, true, secondSocket)
                                          : server->sendMessageToFirstClient("serviceCmd", data);
                if (answer != json{{"echo", data}, {"by", t % 2 ? "second" : "first"}, {"asked", {{"n", 2 * i}}}}) ++wrong;
            }
        });
    }
    for (const auto& client : {first, second}) {  // meanwhile the clients send to the server
        senders.emplace_back([&, client] {
            for (int i = 0; i < 100; ++i) {
                wrong += client->sendMessage("refused", {{"seq", i}}).value_or(json())["message"]["content"] != json{{"seq", i}};
            }
        });
    }
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(firstDelegate->processed + secondDelegate->processed, 32 * 200);
    EXPECT_EQ(doubling->processed, 32 * 200);
    EXPECT_EQ(log.count("Invalid command"), 200);
}

// A reply completes its waiting sender whoever reads it, on any connection; a late one is dropped.
// Commands read on the way still reach the delegate in order, with their replies in the same
// order. The first client is the earliest one still connected.
TEST_F(QBLumentideIPCConcurrencyTest, AnswersForOthersAndCommandsReadOnTheWayReachTheirOwners) {
    auto delegate = std::make_shared<ScriptedDelegate>();
    server->setDelegate(delegate);
    auto peer = connectRawPeer(), second = connectRawPeer();
    std::vector<PendingAnswer> answers;
    for (int i = 0; i < 3; ++i) answers.push_back(requestFromFirstClient({{"i", i}}));
    std::string ids[3];
    for (int i = 0; i < 3; ++i) {
        const auto request = peer->readEnvelope().value_or(json());
        ids[request["content"].value("i", 0)] = request.value("messageid", "");
    }
    const auto reply = [&](int i) {
        return json{{"command", "reply"}, {"messageid", "1"}, {"replyid", ids[i]}, {"content", {{"for", i}}}}.dump();
    };
    const auto command = [](const char* name) {
        return json{{"command", name}, {"messageid", name}, {"content", json::object()}}.dump();
    };
    ASSERT_TRUE(second->sendReply(ids[0], {{"for", 0}}));
    EXPECT_EQ(answers[0].get(), (json{{"for", 0}}));
    ASSERT_TRUE(peer->sendBytes(burstOf({reply(2), command("first"), reply(1), command("second"), reply(0)})));

    for (int i = 1; i < 3; ++i) EXPECT_EQ(answers[static_cast<std::size_t>(i)].get(), (json{{"for", i}}));
    EXPECT_EQ(peer->readEnvelope().value_or(json())["replyid"], "first");
    EXPECT_EQ(peer->readEnvelope().value_or(json())["replyid"], "second");
    EXPECT_TRUE(peer->staysSilent(30ms * sanitizerSlowdown)) << "nothing for the late reply";
    using Received = decltype(delegate->received.all());
    EXPECT_EQ(delegate->received.all(), (Received{{"first", json::object()}, {"second", json::object()}}));

    peer->close();
    ASSERT_TRUE(eventually([&] { return server->clientCount() == 1; }));
    auto next = requestFromFirstClient({{"to", "second"}});
    const auto atSecond = second->readEnvelope().value_or(json());
    EXPECT_EQ(atSecond["content"], (json{{"to", "second"}}));
    ASSERT_TRUE(second->sendReply(atSecond["messageid"], {{"ok", true}}));
    EXPECT_EQ(next.get(), (json{{"ok", true}}));
}

// Frames of one write whose headers straddle any receive call, bodies larger than what one call
// takes, and a body larger than what a connection keeps buffered between frames.
TEST_F(QBLumentideIPCConcurrencyTest, FramesOfOneBurstAreReadWhateverTheirSizes) {
    auto delegate = std::make_shared<ScriptedDelegate>();  // short answers: the peer reads them only after its write
    server->setDelegate(delegate);
    auto peer = connectRawPeer();
    const std::size_t sizes[] = {4093, 4094, 4095, 4096, 4097, 61, 9000, 70000, 1029, 4099, 62, 12000};
    std::vector<std::string> bodies;
    for (int round = 0; round < 5; ++round) {
        for (const std::size_t size : sizes) bodies.push_back(RawFramePeer::envelopeOfSize(size - 5, std::to_string(bodies.size())));
    }
    ASSERT_TRUE(peer->sendBytes(burstOf(bodies)));
    for (std::size_t i = 0; i < bodies.size(); ++i) {
        const auto reply = peer->readEnvelope().value_or(json());
        ASSERT_EQ(reply["replyid"], std::to_string(i));
        EXPECT_EQ(reply["content"], (json{{"status", "OK"}}));
    }
    EXPECT_EQ(server->clientCount(), 1);
}

// Sends frame again and again without waiting, until the endpoint has taken nothing for a while:
// its reader is then stuck writing an answer that nobody reads.
static void floodUntilStalled(int socket, const std::vector<std::uint8_t>& frame) {
    std::size_t offset = 0;
    for (int idleRounds = 0; idleRounds < 20;) {
        const ssize_t sent = ::send(socket, frame.data() + offset, frame.size() - offset, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) offset = (offset + static_cast<std::size_t>(sent)) % frame.size(), idleRounds = 0;
        else ++idleRounds, std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

TEST_F(QBLumentideIPCConcurrencyTest, AClientThatDoesNotReadHoldsUpNoOtherClient) {
    auto gui = std::make_shared<ScriptedDelegate>();  // answers {"status": "OK"}
    connectClient(gui);
    // A second local client sends large commands, whose INVALID answers echo them, and never reads.
    auto flooder = connectRawPeer();
    floodUntilStalled(flooder->descriptor(), RawFramePeer::frame(RawFramePeer::envelopeOfSize(64 * 1024)));
    ASSERT_EQ(server->clientCount(), 2);

    auto calls = std::async(std::launch::async, [&] {
        int answered = 0;
        for (int i = 0; i < 1000; ++i) answered += server->sendMessageToFirstClient("serviceCmd", {{"i", i}}) == json{{"status", "OK"}};
        return std::pair(answered, server->clientCount());
    });
    if (calls.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        server->shutdown();  // releases the calls, so that the test can end
        FAIL() << "the calls to the GUI client wait for the client that does not read";
    }
    const auto [answered, clientsAfterwards] = calls.get();
    EXPECT_EQ(answered, 1000);
    EXPECT_EQ(clientsAfterwards, 2) << "answered only once the stalled client was gone";
    // The client that does not read loses its connection once a frame has waited too long.
    EXPECT_TRUE(eventually([&] { return server->clientCount() == 1; }, QBLumentideIPC::frameWriteTimeout + std::chrono::seconds(5) * sanitizerSlowdown));
    EXPECT_TRUE(flooder->waitForClose());
}
