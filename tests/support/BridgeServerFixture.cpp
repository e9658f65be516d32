#include "support/BridgeServerFixture.h"

#include <chrono>

#include "QBIPAddress.h"

namespace {

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (size_t i = 0; i < parts.size(); ++i) text += (i == 0 ? "" : ",") + parts[i];
    return text;
}

}  // namespace

std::vector<std::string> FakeBridgeCommands::calls() const {
    std::lock_guard guard(lock);
    return recorded;
}

std::string FakeBridgeCommands::lastCall() const {
    std::lock_guard guard(lock);
    return recorded.empty() ? std::string() : recorded.back();
}

std::string FakeBridgeCommands::text(std::string call) {
    std::lock_guard guard(lock);
    recorded.push_back(std::move(call));
    return stringResult;
}

std::int64_t FakeBridgeCommands::number(std::string call) {
    std::lock_guard guard(lock);
    recorded.push_back(std::move(call));
    return numberResult;
}

std::int64_t FakeBridgeCommands::authorizeServer(const std::string& server, std::int64_t port,
                                                 std::int64_t webPort) {
    return number("authorize(" + joined({server, std::to_string(port), std::to_string(webPort)}) +
                  ")");
}

std::string FakeBridgeCommands::connect(const std::string& server, std::int64_t port,
                                        std::int64_t webPort) {
    return text("connect(" + joined({server, std::to_string(port), std::to_string(webPort)}) + ")");
}

std::string FakeBridgeCommands::connect(const std::string& server, std::int64_t port,
                                        std::int64_t webPort, const std::string& secToken) {
    return text("connectWithToken(" +
                joined({server, std::to_string(port), std::to_string(webPort), secToken}) + ")");
}

std::string FakeBridgeCommands::disconnectWithSecToken(const std::string& secToken) {
    return text("disconnect(" + secToken + ")");
}

std::string FakeBridgeCommands::suspendWithSecToken(const std::string& secToken) {
    return text("suspend(" + secToken + ")");
}

QBKelvoXMLRPCServer::Settings RunningBridgeServer::testSettings() {
    QBKelvoXMLRPCServer::Settings settings;
    settings.idleTimeout = std::chrono::seconds(10);
    settings.headerBlockTimeout = std::chrono::seconds(10);
    settings.bodyTimeout = std::chrono::seconds(1);
    return settings;
}

RunningBridgeServer::RunningBridgeServer(std::shared_ptr<QBKelvoBridgeCommands> commands,
                                         const QBKelvoXMLRPCServer::Settings& settings)
    : server_(QBKelvoXMLRPCServer::serverWithAddress(QBIPAddress::ipAddressWithAddress("127.0.0.1"),
                                                     0, nullptr, std::move(commands), settings)) {
    loop = std::thread([server = server_] { server->serve(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while ((port_ = server_->serverSocket()->localPort()) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

RunningBridgeServer::~RunningBridgeServer() {
    server_->shutdown();
    loop.join();
}
