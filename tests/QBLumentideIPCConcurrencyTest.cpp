// Many senders at once on one server endpoint, with answers and commands crossing in both
// directions, and a client that stops reading; meant to be run under ThreadSanitizer as well.

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cstdio>
#include <future>
#include <random>
#include <thread>

#include "support/ChannelFixture.h"

using nlohmann::json;

class QBLumentideIPCConcurrencyTest : public ChannelFixture {};

TEST_F(QBLumentideIPCConcurrencyTest, EveryCallerGetsItsOwnAnswer) {
    ASSERT_TRUE(startServer());
    // Each client echoes the request's data with its name, after a random pause of up to 200 us.
    auto echoing = [](const std::string& name) {
        auto delegate = std::make_shared<ScriptedDelegate>();
        delegate->process = [name](const std::string&, const json& data) -> std::optional<json> {
            thread_local std::minstd_rand random(std::random_device{}());
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 200));
            return json{{"echo", data}, {"by", name}};
        };
        return delegate;
    };
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
                if (answer != json{{"echo", data}, {"by", t % 2 ? "second" : "first"}}) ++wrong;
            }
        });
    }
    for (const auto& client : {first, second}) {  // meanwhile the clients send to the server
        senders.emplace_back([&, client] {
            for (int i = 0; i < 100; ++i) {
                const auto answer = client->sendMessage("guiCmd", {{"seq", i}});
                if (answer.value_or(json())["message"]["content"] != json{{"seq", i}}) ++wrong;
            }
        });
    }
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(firstDelegate->processed + secondDelegate->processed, 32 * 200);
    EXPECT_EQ(log.count("Invalid command"), 200);
}

// Sends frame again and again without waiting, until the endpoint has taken nothing for a while:
// its reader is then stuck writing an answer that nobody reads.
static void floodUntilStalled(int socket, const std::vector<std::uint8_t>& frame) {
    std::size_t offset = 0;
    for (int idleRounds = 0; idleRounds < 20;) {
        const ssize_t sent = ::send(socket, frame.data() + offset, frame.size() - offset, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            offset = (offset + static_cast<std::size_t>(sent)) % frame.size();
            idleRounds = 0;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            ++idleRounds;
        }
    }
}

TEST_F(QBLumentideIPCConcurrencyTest, AClientThatDoesNotReadHoldsUpNoOtherClient) {
    ASSERT_TRUE(startServer());
    auto echo = std::make_shared<ScriptedDelegate>();
    echo->process = [](const std::string&, const json& data) -> std::optional<json> { return json{{"echo", data}}; };
    auto gui = connectClient(echo);
    // A second local client sends large commands, whose INVALID answers echo them, and never reads.
    auto flooder = connectRawPeer();
    const json command = {{"command", "flood"}, {"messageid", "1"}, {"content", {{"pad", std::string(64 * 1024, 'x')}}}};
    floodUntilStalled(flooder->descriptor(), RawFramePeer::frame(command.dump()));
    ASSERT_EQ(server->clientCount(), 2);

    const auto started = std::chrono::steady_clock::now();
    auto calls = std::async(std::launch::async, [&] {
        int answered = 0;
        for (int i = 0; i < 1000; ++i) {
            if (server->sendMessageToFirstClient("serviceCmd", {{"i", i}}) == json{{"echo", {{"i", i}}}}) ++answered;
        }
        return std::pair(answered, server->clientCount());
    });
    if (calls.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        server->shutdown();  // releases the calls, so that the test can end
        FAIL() << "the calls to the GUI client wait for the client that does not read";
    }
    const auto [answered, clientsAfterwards] = calls.get();
    std::printf("1,000 calls answered in %lld ms beside a client that does not read\n",
                static_cast<long long>((std::chrono::steady_clock::now() - started) / std::chrono::milliseconds(1)));
    EXPECT_EQ(answered, 1000);
    EXPECT_EQ(clientsAfterwards, 2) << "answered only once the stalled client was gone";
    // The client that does not read loses its connection once a frame has waited too long.
    EXPECT_TRUE(waitUntil([&] { return server->clientCount() == 1; }, QBLumentideIPC::frameWriteTimeout + std::chrono::seconds(5) * sanitizerSlowdown));
    EXPECT_TRUE(flooder->waitForClose());
}
