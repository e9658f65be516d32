#pragma once
// Test doubles around the bridge server:
//  - FakeBridgeCommands records every command call as "name(arg,arg,...)" and answers with
//    fixed results; calls may come from several threads at once.
//  - RunningBridgeServer serves a QBKelvoXMLRPCServer on 127.0.0.1 and an OS-chosen port on a
//    thread of its own, waits until it listens, and shuts it down and joins on destruction.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QBKelvoBridgeCommands.h"
#include "QBKelvoXMLRPCServer.h"

class FakeBridgeCommands : public QBKelvoBridgeCommands {
public:
    FakeBridgeCommands(std::string stringResult = "abc", std::int64_t numberResult = 1)
        : stringResult(std::move(stringResult)), numberResult(numberResult) {}

    // Whether the server may run the commands on its loop thread (like clientOS) instead of a
    // pool thread (like a command that waits for the GUI application).
    void setAnswersAtOnce(bool atOnce) { answersAtOnce_ = atOnce; }
    bool answersAtOnce(std::string_view) const override { return answersAtOnce_; }

    std::vector<std::string> calls() const;
    std::string lastCall() const;

    std::string clientOS() override { return text("clientOS()"); }
    std::string clientVersion() override { return text("clientVersion()"); }
    std::int64_t authorizeServer(const std::string& server, std::int64_t port,
                                 std::int64_t webPort) override;
    std::string connect(const std::string& server, std::int64_t port,
                        std::int64_t webPort) override;
    std::string connect(const std::string& server, std::int64_t port, std::int64_t webPort,
                        const std::string& secToken) override;
    std::string disconnectWithSecToken(const std::string& secToken) override;
    std::string suspendWithSecToken(const std::string& secToken) override;
    std::string resume() override { return text("resume()"); }
    std::string state() override { return text("state()"); }
    std::int64_t connectionTime() override { return number("connectionTime()"); }
    std::string connectionTimeDisplayable() override { return text("connectionTimeDisplayable()"); }
    std::string trafficRates() override { return text("trafficRates()"); }
    std::string trafficTotals() override { return text("trafficTotals()"); }

private:
    std::string text(std::string call);
    std::int64_t number(std::string call);

    const std::string stringResult;
    const std::int64_t numberResult;
    std::atomic<bool> answersAtOnce_{false};
    mutable std::mutex lock;  // guards recorded; leaf lock
    std::vector<std::string> recorded;
};

class RunningBridgeServer {
public:
    // Default settings but a one-second body time-out, so refused short bodies end quickly.
    static QBKelvoXMLRPCServer::Settings testSettings();

    explicit RunningBridgeServer(std::shared_ptr<QBKelvoBridgeCommands> commands,
                                 const QBKelvoXMLRPCServer::Settings& settings = testSettings());
    ~RunningBridgeServer();
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
