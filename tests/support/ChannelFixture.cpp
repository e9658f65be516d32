#include "support/ChannelFixture.h"

#include <stdexcept>

bool shutDownAndWait(const std::shared_ptr<QBLumentideIPC>& endpoint) {
    endpoint->shutdown();
    return endpoint->waitForThreads(std::chrono::seconds(10));
}

std::optional<nlohmann::json> PendingAnswer::get() {
    if (isReadyBy(std::chrono::steady_clock::now() + std::chrono::seconds(5) * sanitizerSlowdown)) return answer.get();
    ADD_FAILURE() << "the send did not return in time";
    return std::nullopt;
}

// Runs connect and waits until the server counts one more connection; throws when it does not.
static void expectCounted(const QBLumentideIPC& server, const std::function<bool()>& connect) {
    const int before = server.clientCount();
    if (!connect() || !waitUntil([&] { return server.clientCount() > before; })) {
        throw std::runtime_error("the server did not count the new connection");
    }
}

bool ChannelFixture::startServer(bool activated) {
    const int startsBefore = log.count("LumentideHelper started");
    server = QBLumentideIPC::initWithSocketPath(socketPath, activated);
    server->startServerOnThread();
    return waitUntil([&] { return log.count("LumentideHelper started") > startsBefore; });
}

std::shared_ptr<QBLumentideIPC> ChannelFixture::connectClient(const std::shared_ptr<QBLumentideIPCDelegate>& delegate) {
    auto client = clients.emplace_back(QBLumentideIPC::initWithSocketPath(socketPath, false));
    client->setDelegate(delegate);
    expectCounted(*server, [&] { return client->connect(); });
    return client;
}

std::unique_ptr<RawFramePeer> ChannelFixture::connectRawPeer() {
    std::unique_ptr<RawFramePeer> peer;
    expectCounted(*server, [&] { return (peer = std::make_unique<RawFramePeer>(socketPath))->isConnected(); });
    return peer;
}

void ChannelFixture::TearDown() {
    for (const auto& client : clients) EXPECT_TRUE(shutDownAndWait(client)) << "client threads still running";
    EXPECT_TRUE(!server || shutDownAndWait(server)) << "server threads still running";
}
