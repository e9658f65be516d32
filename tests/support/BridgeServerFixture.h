#pragma once
// FakeBridgeCommands records every command call as "name(arg,arg,...)", from any thread, and
// answers "abc" (1 for numbers). RunningBridgeServer serves a QBKelvoXMLRPCServer on 127.0.0.1
// and an OS-chosen port on a thread of its own, and shuts it down and joins on destruction.

#include <atomic>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "QBKelvoXMLRPCServer.h"
#include "support/Eventually.h"

class FakeBridgeCommands : public QBKelvoBridgeCommands {
public:
    using Text = const std::string&;
    using Number = std::int64_t;

    std::atomic<bool> atOnce{false};     // the server may run commands on its loop thread
    std::atomic<bool> deferState{false};  // state calls start without a thread; see awaitDeferred
    std::atomic<bool> holdState{false};   // state() waits, like a GUI slow to answer;
    std::atomic<int> waiting{0};          // counting the calls that waited
    std::atomic<bool> failing{false};     // clientOS() throws, like a command that fails

    std::vector<std::string> calls() const {
        std::lock_guard guard(lock);
        return recorded;
    }
    // The finishes of count deferred state calls, once that many have started (fewer after 5 s).
    std::vector<Finish> awaitDeferred(std::size_t count) {
        eventually([&] { std::lock_guard guard(lock); return deferred.size() >= count; });
        std::lock_guard guard(lock);
        return std::exchange(deferred, {});
    }

    bool answersAtOnce(std::string_view) const override { return atOnce; }
    bool startCommand(std::string_view method, const Arguments&, const Finish& finish) override {
        std::lock_guard guard(lock);
        if (deferState && method == "state") deferred.push_back(finish);
        return deferState && method == "state";
    }
    std::string clientOS() override { return failing ? throw std::runtime_error("failed") : record("clientOS"); }
    std::string state() override {
        for (waiting += holdState; holdState;) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return record("state");
    }
    std::string clientVersion() override { return record("clientVersion"); }
    Number authorizeServer(Text s, Number p, Number w) override { return record("authorize", s, p, w), 1; }
    std::string connect(Text s, Number p, Number w) override { return record("connect", s, p, w); }
    std::string connect(Text s, Number p, Number w, Text t) override { return record("connectWithToken", s, p, w, t); }
    std::string disconnectWithSecToken(Text token) override { return record("disconnect", token); }
    std::string suspendWithSecToken(Text token) override { return record("suspend", token); }
    std::string resume() override { return record("resume"); }
    Number connectionTime() override { return record("connectionTime"), 1; }
    std::string connectionTimeDisplayable() override { return record("connectionTimeDisplayable"); }
    std::string trafficRates() override { return record("trafficRates"); }
    std::string trafficTotals() override { return record("trafficTotals"); }

private:
    template <typename... Args>
    std::string record(const char* name, const Args&... args) {
        std::ostringstream call;
        [[maybe_unused]] const char* separator = "";
        call << name << '(';
        ((call << separator << args, separator = ","), ...);
        std::lock_guard guard(lock);
        recorded.push_back(call.str() + ")");
        return "abc";
    }

    mutable std::mutex lock;  // guards recorded, deferred; leaf lock
    std::vector<std::string> recorded;
    std::vector<Finish> deferred;
};

struct RunningBridgeServer {
    // The default settings have a one-second body time-out, so refused short bodies end quickly.
    explicit RunningBridgeServer(
        std::shared_ptr<QBKelvoBridgeCommands> commands,
        const QBKelvoXMLRPCServer::Settings& settings = {.bodyTimeout = std::chrono::seconds(1)})
        : server(QBKelvoXMLRPCServer::serverWithAddress(
              QBIPAddress::ipAddressWithAddress("127.0.0.1"), 0, nullptr, commands, settings)),
          loop([this] { server->serve(); }) {
        eventually([this] { return (port = server->serverSocket()->localPort()) != 0; });
    }
    ~RunningBridgeServer() { server->shutdown(), loop.join(); }

    const std::shared_ptr<QBKelvoXMLRPCServer> server;
    std::thread loop;
    int port = 0;  // the listening port, or 0 when the server did not listen within 5 s
};
