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

bool shutDownAndWait(const std::shared_ptr<QBLumentideIPC>& endpoint) {
    endpoint->shutdown();
    return endpoint->waitForThreads(std::chrono::seconds(10));
}

PendingAnswer::PendingAnswer(std::shared_ptr<QBLumentideIPC> endpoint, Send send)
    : endpoint(endpoint), answer(std::async(std::launch::async, [endpoint, send] { return send(*endpoint); })) {}

PendingAnswer::~PendingAnswer() {
    if (answer.valid() && !isReadyBy(std::chrono::steady_clock::now())) endpoint->shutdown();
}

bool PendingAnswer::isReadyBy(std::chrono::steady_clock::time_point deadline) const {
    return answer.wait_until(deadline) == std::future_status::ready;
}

std::optional<nlohmann::json> PendingAnswer::get(std::chrono::milliseconds timeout) {
    if (isReadyBy(std::chrono::steady_clock::now() + timeout)) return answer.get();
    ADD_FAILURE() << "the send did not return in time";
    return std::nullopt;
}

bool ChannelFixture::startServer() {
    const int startsBefore = log.count("LumentideHelper started");
    server = QBLumentideIPC::initWithSocketPath(socketPath, false);
    server->startServerOnThread();
    return waitUntil([&] { return log.count("LumentideHelper started") > startsBefore; });
}

std::shared_ptr<QBLumentideIPC> ChannelFixture::connectClient(const std::shared_ptr<QBLumentideIPCDelegate>& delegate) {
    auto client = QBLumentideIPC::initWithSocketPath(socketPath, false);
    clients.push_back(client);
    client->setDelegate(delegate);
    const int before = server->clientCount();
    if (!client->connect() || !waitUntil([&] { return server->clientCount() > before; })) return nullptr;
    return client;
}

std::unique_ptr<RawFramePeer> ChannelFixture::connectRawPeer() {
    const int before = server->clientCount();
    auto peer = std::make_unique<RawFramePeer>(socketPath);
    if (!peer->isConnected() || !waitUntil([&] { return server->clientCount() > before; })) return nullptr;
    return peer;
}

PendingAnswer ChannelFixture::requestFromFirstClient(const nlohmann::json& data) {
    return PendingAnswer(server, [data](QBLumentideIPC& endpoint) {
        return endpoint.sendMessageToFirstClient("serviceCmd", data);
    });
}

void ChannelFixture::TearDown() {
    for (const auto& client : clients) {
        EXPECT_TRUE(shutDownAndWait(client)) << "client threads still running";
    }
    if (server) {
        EXPECT_TRUE(shutDownAndWait(server)) << "server threads still running";
    }
}
