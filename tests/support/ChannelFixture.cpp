#include "support/ChannelFixture.h"

#include <thread>

bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

PendingAnswer::PendingAnswer(std::shared_ptr<QBLumentideIPC> endpoint, Send send)
    : endpoint(endpoint),
      answer(std::async(std::launch::async, [endpoint, send = std::move(send)] { return send(*endpoint); })) {}

PendingAnswer::~PendingAnswer() {
    if (answer.valid() && !isReady()) endpoint->shutdown();
}

bool PendingAnswer::isReady() const {
    return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

void ScriptedDelegate::clientConnected(QBLumentideIPC& sender) {
    lastSender = &sender;
    ++connectedCalls;
}

bool ScriptedDelegate::validateCommand(const std::string& command, const nlohmann::json& data,
                                       QBLumentideIPC& sender) {
    lastSender = &sender;
    return validate(command, data);
}

std::optional<nlohmann::json> ScriptedDelegate::processCommand(const std::string& command,
                                                               const nlohmann::json& data,
                                                               int client, QBLumentideIPC& sender) {
    lastSender = &sender;
    {
        std::lock_guard guard(lock);
        calls.push_back({command, data, client});
    }
    return process(command, data);
}

void ScriptedDelegate::clientDisconnected(QBLumentideIPC& sender) {
    lastSender = &sender;
    ++disconnectedCalls;
}

std::vector<ScriptedDelegate::Call> ScriptedDelegate::processed() const {
    std::lock_guard guard(lock);
    return calls;
}

bool ChannelFixture::startServer() {
    server = QBLumentideIPC::initWithSocketPath(socketPath, false);
    const int startsBefore = log.count("LumentideHelper started");
    server->startServerOnThread();
    return waitUntil([&] { return log.count("LumentideHelper started") > startsBefore; });
}

std::shared_ptr<QBLumentideIPC> ChannelFixture::connectClient(
    const std::shared_ptr<QBLumentideIPCDelegate>& delegate) {
    auto client = QBLumentideIPC::initWithSocketPath(socketPath, false);
    client->setDelegate(delegate);
    const int countBefore = server ? server->clientCount() : 0;
    if (!client->connect()) {
        stop(client);
        return nullptr;
    }
    clients.push_back(client);
    if (server && !waitUntil([&] { return server->clientCount() > countBefore; })) return nullptr;
    return client;
}

std::unique_ptr<RawFramePeer> ChannelFixture::connectRawPeer() {
    const int countBefore = server->clientCount();
    auto peer = std::make_unique<RawFramePeer>(socketPath);
    if (!peer->isConnected()) return nullptr;
    if (!waitUntil([&] { return server->clientCount() > countBefore; })) return nullptr;
    return peer;
}

bool shutDownAndWait(const std::shared_ptr<QBLumentideIPC>& endpoint) {
    endpoint->shutdown();
    return endpoint->waitForThreads(std::chrono::seconds(10));
}

void ChannelFixture::TearDown() {
    for (const auto& client : clients) {
        EXPECT_TRUE(stop(client)) << "client threads still running";
    }
    if (server) {
        EXPECT_TRUE(stop(server)) << "server threads still running";
    }
}
