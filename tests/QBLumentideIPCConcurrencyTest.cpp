// Many senders at once on one server endpoint, with answers and commands crossing in both
// directions. Built to be run under ThreadSanitizer as well.

#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "support/ChannelFixture.h"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr int senderThreads = 32;
constexpr int requestsPerThread = 200;
constexpr int clientSenderThreads = 2;      // per client, towards the server
constexpr int clientRequestsPerThread = 100;
constexpr auto watchdogDeadline = 240s;     // far beyond any healthy run, even under TSan

// Answers every command with its own content plus the name of the answering client, after a
// random pause of up to 200 microseconds.
std::shared_ptr<ScriptedDelegate> echoingDelegate(const std::string& name) {
    auto delegate = std::make_shared<ScriptedDelegate>();
    delegate->process = [name](const std::string&, const json& data) -> std::optional<json> {
        thread_local std::minstd_rand random(std::random_device{}());
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 200));
        json answer = data;
        answer["by"] = name;
        return answer;
    };
    return delegate;
}

class QBLumentideIPCConcurrencyTest : public ChannelFixture {};

}  // namespace

TEST_F(QBLumentideIPCConcurrencyTest, EveryCallerGetsItsOwnAnswer) {
    ASSERT_TRUE(startServer());
    auto firstDelegate = echoingDelegate("first");
    auto secondDelegate = echoingDelegate("second");
    auto first = connectClient(firstDelegate);
    auto second = connectClient(secondDelegate);
    ASSERT_TRUE(first && second);
    const int secondSocket = server->clientSockets().at(1);

    std::atomic<int> wrongAnswers{0};
    std::atomic<int> missingAnswers{0};
    std::atomic<bool> finished{false};
    std::thread watchdog([&] {
        // Turns a deadlock into failed sends instead of a hung test.
        if (!waitUntil([&] { return finished.load(); }, watchdogDeadline)) {
            ADD_FAILURE() << "deadlock: the watchdog shut the endpoints down";
            server->shutdown();
            first->shutdown();
            second->shutdown();
        }
    });

    std::vector<std::thread> senders;
    for (int t = 0; t < senderThreads; ++t) {
        senders.emplace_back([&, t] {
            const bool toSecond = t % 2 == 1;
            for (int i = 0; i < requestsPerThread; ++i) {
                const json data = {{"thread", t}, {"seq", i}};
                const auto answer = toSecond
                    ? server->sendMessage("serviceCmd", data, std::nullopt, true, secondSocket)
                    : server->sendMessageToFirstClient("serviceCmd", data);
                if (!answer) {
                    ++missingAnswers;
                } else if ((*answer)["thread"] != t || (*answer)["seq"] != i ||
                           (*answer)["by"] != (toSecond ? "second" : "first")) {
                    ++wrongAnswers;
                }
            }
        });
    }
    for (const auto& client : {first, second}) {
        for (int t = 0; t < clientSenderThreads; ++t) {
            senders.emplace_back([&, client, t] {
                for (int i = 0; i < clientRequestsPerThread; ++i) {
                    const json data = {{"thread", t}, {"seq", i}};
                    const auto answer = client->sendMessage("guiCmd", data);
                    if (!answer) {
                        ++missingAnswers;
                    } else if ((*answer)["status"] != "INVALID" || (*answer)["message"]["content"] != data) {
                        ++wrongAnswers;
                    }
                }
            });
        }
    }
    for (auto& sender : senders) sender.join();
    finished = true;
    watchdog.join();

    EXPECT_EQ(missingAnswers, 0);
    EXPECT_EQ(wrongAnswers, 0);
    EXPECT_EQ(firstDelegate->processed().size() + secondDelegate->processed().size(),
              static_cast<std::size_t>(senderThreads * requestsPerThread));
    EXPECT_EQ(secondDelegate->processed().size(), static_cast<std::size_t>(senderThreads / 2 * requestsPerThread));
    EXPECT_EQ(log.count("Invalid command"), 2 * clientSenderThreads * clientRequestsPerThread);
}

// Connections come and go while requests are under way: every send ends, with an answer or
// with nothing, and nothing is left waiting.
TEST_F(QBLumentideIPCConcurrencyTest, SendersSurviveClientsComingAndGoing) {
    ASSERT_TRUE(startServer());
    auto delegate = echoingDelegate("steady");
    auto steady = connectClient(delegate);
    ASSERT_TRUE(steady);
    std::atomic<bool> stopChurn{false};
    std::thread churn([&] {
        while (!stopChurn) {
            auto visitor = QBLumentideIPC::initWithSocketPath(socketPath, false);
            visitor->setDelegate(delegate);
            if (visitor->connect()) std::this_thread::sleep_for(std::chrono::microseconds(300));
            EXPECT_TRUE(shutDownAndWait(visitor));
        }
    });
    std::vector<std::thread> senders;
    std::atomic<int> answered{0};
    for (int t = 0; t < 8; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) {
                const auto answer = server->sendMessageToFirstClient("serviceCmd", {{"thread", t}, {"seq", i}});
                if (answer) {
                    EXPECT_EQ((*answer)["thread"], t);
                    EXPECT_EQ((*answer)["seq"], i);
                    ++answered;
                }
            }
        });
    }
    for (auto& sender : senders) sender.join();
    stopChurn = true;
    churn.join();
    EXPECT_EQ(answered, 800) << "the steady client is always the first, so all are answered";
}
