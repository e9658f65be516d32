// Many senders at once on one server endpoint, with answers and commands crossing in both
// directions; meant to be run under ThreadSanitizer as well.

#include <gtest/gtest.h>

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
