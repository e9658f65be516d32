#pragma once
// Test doubles around the bridge server:
//  - FakeBridgeCommands records every command call as "name(arg,arg,...)" and answers "abc" or
//    1; calls may come from several threads at once.
//  - RunningBridgeServer serves a QBKelvoXMLRPCServer on 127.0.0.1 and an OS-chosen port on a
//    thread of its own, waits until it listens, and shuts it down and joins on destruction.

#include <atomic>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "QBKelvoXMLRPCServer.h"
#include "support/Eventually.h"

class FakeBridgeCommands : public QBKelvoBridgeCommands {
public:
    // Whether the server may run the commands on its loop thread instead of a pool thread.
    std::atomic<bool> atOnce{false};
    bool answersAtOnce(std::string_view) const override { return atOnce; }
    std::vector<std::string> calls() const {
        std::lock_guard guard(lock);
        return recorded;
    }

    std::string clientOS() override { return text("clientOS"); }
    std::string clientVersion() override { return text("clientVersion"); }
    std::int64_t authorizeServer(const std::string& server, std::int64_t port, std::int64_t webPort) override {
        record("authorize", server, port, webPort);
        return 1;
    }
    std::string connect(const std::string& server, std::int64_t port, std::int64_t webPort) override {
        return text("connect", server, port, webPort);
    }
    std::string connect(const std::string& server, std::int64_t port, std::int64_t webPort,
                        const std::string& secToken) override {
        return text("connectWithToken", server, port, webPort, secToken);
    }
    std::string disconnectWithSecToken(const std::string& token) override { return text("disconnect", token); }
    std::string suspendWithSecToken(const std::string& token) override { return text("suspend", token); }
    std::string resume() override { return text("resume"); }
    std::string state() override { return text("state"); }
    std::int64_t connectionTime() override {
        record("connectionTime");
        return 1;
    }
    std::string connectionTimeDisplayable() override { return text("connectionTimeDisplayable"); }
    std::string trafficRates() override { return text("trafficRates"); }
    std::string trafficTotals() override { return text("trafficTotals"); }

private:
    template <typename... Args>
    void record(const char* name, const Args&... args) {
        std::ostringstream call;
        [[maybe_unused]] const char* separator = "";
        call << name << '(';
        ((call << separator << args, separator = ","), ...);
        call << ')';
        std::lock_guard guard(lock);
        recorded.push_back(call.str());
    }
    template <typename... Args>
    std::string text(const char* name, const Args&... args) {
        record(name, args...);
        return "abc";
    }

    mutable std::mutex lock;  // guards recorded; leaf lock
    std::vector<std::string> recorded;
};

class RunningBridgeServer {
public:
    // Default settings but a one-second body time-out, so refused short bodies end quickly.
    static QBKelvoXMLRPCServer::Settings testSettings() {
        QBKelvoXMLRPCServer::Settings settings;
        settings.bodyTimeout = std::chrono::seconds(1);
        return settings;
    }

    explicit RunningBridgeServer(std::shared_ptr<QBKelvoBridgeCommands> commands,
                                 const QBKelvoXMLRPCServer::Settings& settings = testSettings())
        : server_(QBKelvoXMLRPCServer::serverWithAddress(QBIPAddress::ipAddressWithAddress("127.0.0.1"),
                                                         0, nullptr, std::move(commands), settings)),
          loop([server = server_] { server->serve(); }) {
        eventually([this] { return (port_ = server_->serverSocket()->localPort()) != 0; });
    }
    ~RunningBridgeServer() {
        server_->shutdown();
        loop.join();
    }
    RunningBridgeServer(const RunningBridgeServer&) = delete;
    RunningBridgeServer& operator=(const RunningBridgeServer&) = delete;

    // The listening port, or 0 when the server did not listen within 5 s.
    int port() const { return port_; }
    QBKelvoXMLRPCServer& server() { return *server_; }

private:
    std::shared_ptr<QBKelvoXMLRPCServer> server_;
    std::thread loop;
    int port_ = 0;
};
