#pragma once
// ChannelFixture: a server endpoint on a temporary socket path with the log captured, plus
// helpers to attach client endpoints and raw peers. TearDown shuts every endpoint down and
// checks that all of their threads have ended, so no test leaves a thread or a descriptor
// behind.
//
// ScriptedDelegate: a delegate whose answers the test chooses; it records what it was given.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QBLumentideIPC.h"
#include "support/LogCapture.h"
#include "support/RawFramePeer.h"
#include "support/TempDir.h"

// Polls predicate every millisecond until it holds or timeout passes; returns its last value.
bool waitUntil(const std::function<bool()>& predicate,
               std::chrono::milliseconds timeout = std::chrono::seconds(5));

// A send that runs on a thread of its own; its answer is collected later. A test that fails
// before the answer comes shuts the endpoint down on the way out, so that the sending thread
// never outlives the test.
class PendingAnswer {
public:
    using Send = std::function<std::optional<nlohmann::json>(QBLumentideIPC& endpoint)>;
    PendingAnswer(std::shared_ptr<QBLumentideIPC> endpoint, Send send);
    PendingAnswer(PendingAnswer&&) = default;
    PendingAnswer& operator=(PendingAnswer&&) = default;
    ~PendingAnswer();

    bool isReady() const;
    std::future_status wait_for(std::chrono::milliseconds timeout) const { return answer.wait_for(timeout); }
    std::future_status wait_until(std::chrono::steady_clock::time_point deadline) const {
        return answer.wait_until(deadline);
    }
    std::optional<nlohmann::json> get() { return answer.get(); }

private:
    std::shared_ptr<QBLumentideIPC> endpoint;
    std::future<std::optional<nlohmann::json>> answer;
};

// Shuts endpoint down and waits for its threads; false when they do not end in time.
bool shutDownAndWait(const std::shared_ptr<QBLumentideIPC>& endpoint);

class ScriptedDelegate : public QBLumentideIPCDelegate {
public:
    struct Call {
        std::string command;
        nlohmann::json data;
        int client;
    };

    std::function<bool(const std::string&, const nlohmann::json&)> validate =
        [](const std::string&, const nlohmann::json&) { return true; };
    std::function<std::optional<nlohmann::json>(const std::string&, const nlohmann::json&)> process =
        [](const std::string&, const nlohmann::json&) { return std::nullopt; };

    void clientConnected(QBLumentideIPC& sender) override;
    bool validateCommand(const std::string& command, const nlohmann::json& data,
                         QBLumentideIPC& sender) override;
    std::optional<nlohmann::json> processCommand(const std::string& command,
                                                 const nlohmann::json& data, int client,
                                                 QBLumentideIPC& sender) override;
    void clientDisconnected(QBLumentideIPC& sender) override;

    std::vector<Call> processed() const;
    std::atomic<int> connectedCalls{0};
    std::atomic<int> disconnectedCalls{0};
    std::atomic<QBLumentideIPC*> lastSender{nullptr};

private:
    mutable std::mutex lock;  // guards calls
    std::vector<Call> calls;
};

class ChannelFixture : public ::testing::Test {
protected:
    void TearDown() override;

    // Creates the server endpoint on socketPath and starts its loop; true once it listens.
    bool startServer();
    // A client endpoint connected to the server (reader on a new thread), or null.
    std::shared_ptr<QBLumentideIPC> connectClient(
        const std::shared_ptr<QBLumentideIPCDelegate>& delegate = nullptr);
    // A raw peer connected to the server, once the server has counted it among its clients.
    std::unique_ptr<RawFramePeer> connectRawPeer();
    static bool stop(const std::shared_ptr<QBLumentideIPC>& endpoint) { return shutDownAndWait(endpoint); }

    LogCapture log;
    TempDir directory;
    std::string socketPath = directory.file("channel.socket");
    std::shared_ptr<QBLumentideIPC> server;
    std::vector<std::shared_ptr<QBLumentideIPC>> clients;
};
