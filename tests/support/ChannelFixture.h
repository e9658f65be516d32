#pragma once
// ChannelFixture: a server endpoint on a temporary socket path, with the log captured. TearDown
// shuts down every endpoint the test made and checks that all their threads have ended.

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <stdexcept>

#include "QBKelvoGUIApplication.h"
#include "QBLumentideIPC.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/RawFramePeer.h"
#include "support/TempDir.h"

inline bool shutDownAndWait(const std::shared_ptr<QBLumentideIPC>& endpoint) {  // false: threads still running
    endpoint->shutdown();
    return endpoint->waitForThreads(std::chrono::seconds(10));
}

// A send on a thread of its own. If the test fails before the answer comes, the endpoint is shut
// down on the way out, so the sending thread never outlives the test.
class PendingAnswer {
public:
    PendingAnswer(std::shared_ptr<QBLumentideIPC> endpoint, std::function<std::optional<nlohmann::json>(QBLumentideIPC&)> send)
        : endpoint(endpoint), answer(std::async(std::launch::async, [endpoint, send] { return send(*endpoint); })) {}
    PendingAnswer(PendingAnswer&&) = default;
    ~PendingAnswer() {
        if (answer.valid() && !isReadyBy(std::chrono::steady_clock::now())) endpoint->shutdown();
    }
    std::optional<nlohmann::json> get() {  // an unfinished send (5 s, stretched) fails the test
        if (isReadyBy(std::chrono::steady_clock::now() + std::chrono::seconds(5) * sanitizerSlowdown)) return answer.get();
        ADD_FAILURE() << "the send did not return in time";
        return std::nullopt;
    }
    bool isReadyBy(std::chrono::steady_clock::time_point deadline) const {
        return answer.wait_until(deadline) == std::future_status::ready;
    }

private:
    std::shared_ptr<QBLumentideIPC> endpoint;
    std::future<std::optional<nlohmann::json>> answer;
};

template <typename T>
class Recorded {  // a list that any thread may add to while the test reads it
public:
    void add(T item) {
        std::lock_guard guard(lock);
        items.push_back(std::move(item));
    }
    std::vector<T> all() const {
        std::lock_guard guard(lock);
        return items;
    }
    std::size_t size() const { return all().size(); }

private:
    mutable std::mutex lock;  // guards items
    std::vector<T> items;
};

struct ScriptedDelegate : QBLumentideIPCDelegate {  // answers as process says; refuses the command "refused"
    std::function<std::optional<nlohmann::json>(const std::string&, const nlohmann::json&)> process =
        [](const std::string&, const nlohmann::json&) { return std::nullopt; };
    std::atomic<int> connected{0}, disconnected{0}, processed{0}, lastClient{-1};
    std::atomic<QBLumentideIPC*> lastSender{nullptr};
    Recorded<std::pair<std::string, nlohmann::json>> received;  // every processed command with its data

    void clientConnected(QBLumentideIPC& sender) override { lastSender = &sender, ++connected; }
    void clientDisconnected(QBLumentideIPC& sender) override { lastSender = &sender, ++disconnected; }
    bool validateCommand(const std::string& command, const nlohmann::json&, QBLumentideIPC&) override {
        return command != "refused";
    }
    std::optional<nlohmann::json> processCommand(const std::string& command, const nlohmann::json& data,
                                                 int client, QBLumentideIPC&) override {
        received.add({command, data});
        lastClient = client, ++processed;
        return process(command, data);
    }
};

class ChannelFixture : public ::testing::Test {
protected:
    void TearDown() override {
        for (const auto& client : clients) EXPECT_TRUE(shutDownAndWait(client)) << "client threads still running";
        EXPECT_TRUE(!server || shutDownAndWait(server)) << "server threads still running";
    }
    bool startServer(bool activated = false) {  // true once the server listens
        const int startsBefore = log.count("LumentideHelper started");
        server = QBLumentideIPC::initWithSocketPath(socketPath, activated);
        server->startServerOnThread();
        return eventually([&] { return log.count("LumentideHelper started") > startsBefore; });
    }
    // A client endpoint, or a raw peer, whose connection the server has counted; throws otherwise.
    std::shared_ptr<QBLumentideIPC> connectClient(const std::shared_ptr<QBLumentideIPCDelegate>& delegate = nullptr) {
        auto client = clients.emplace_back(QBLumentideIPC::initWithSocketPath(socketPath, false));
        client->setDelegate(delegate);
        expectCounted([&] { return client->connect(); });
        return client;
    }
    std::unique_ptr<RawFramePeer> connectRawPeer() {
        std::unique_ptr<RawFramePeer> peer;
        expectCounted([&] { return (peer = std::make_unique<RawFramePeer>(socketPath))->isConnected(); });
        return peer;
    }
    PendingAnswer requestFromFirstClient(const nlohmann::json& data) {
        return {server, [data](QBLumentideIPC& endpoint) { return endpoint.sendMessageToFirstClient("serviceCmd", data); }};
    }

    // For the GUI application: each launch attempt makes one counted console-user lookup that finds nobody.
    QBKelvoGUIApplication::Settings countingSettings(std::chrono::milliseconds checkInterval) {
        QBKelvoGUIApplication::Settings settings;
        settings.applicationPath = directory.file("app.desktop");
        settings.dataDirectories = {directory.file("local"), directory.file("share")};
        settings.consoleUser = [this] { return ++launchAttempts, std::optional<QBConsoleUser>(); };
        settings.checkInterval = checkInterval;
        return settings;
    }

    LogCapture log;
    TempDir directory;
    std::string socketPath = directory.file("channel.socket");
    std::shared_ptr<QBLumentideIPC> server;
    std::vector<std::shared_ptr<QBLumentideIPC>> clients;
    std::atomic<int> launchAttempts{0};

private:
    void expectCounted(const std::function<bool()>& connect) {  // connect counted by the server, or throws
        const int before = server->clientCount();
        if (!connect() || !eventually([&] { return server->clientCount() > before; })) {
            throw std::runtime_error("the server did not count the new connection");
        }
    }
};
