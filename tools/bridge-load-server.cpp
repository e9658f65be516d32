// bridge-load-server: runs the bridge's HTTP front end on 127.0.0.1 and a port of your choice,
// with fixed answers instead of the GUI application, so that load tools (bench/http_load.sh)
// can drive it. It runs until SIGINT or SIGTERM.
//
//   bridge-load-server [port [loops]]   (default port 18986; loops: event-loop threads, 0 or
//                                       absent: one per processor)
//
// The string commands answer "connected", the number commands 1. Log lines are discarded: one
// "Client connected" per connection would only measure the terminal.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "QBIPAddress.h"
#include "QBKelvoXMLRPCServer.h"
#include "platform/QBLog.h"

namespace {

constexpr int defaultPort = 18986;

class FixedAnswers : public QBKelvoBridgeCommands {
public:
    // Nothing here waits, so every call is answered on the thread that read it.
    bool answersAtOnce(std::string_view) const override { return true; }
    std::string clientOS() override { return answer; }
    std::string clientVersion() override { return answer; }
    std::int64_t authorizeServer(const std::string&, std::int64_t, std::int64_t) override {
        return 1;
    }
    std::string connect(const std::string&, std::int64_t, std::int64_t) override { return answer; }
    std::string connect(const std::string&, std::int64_t, std::int64_t,
                        const std::string&) override {
        return answer;
    }
    std::string disconnectWithSecToken(const std::string&) override { return answer; }
    std::string suspendWithSecToken(const std::string&) override { return answer; }
    std::string resume() override { return answer; }
    std::string state() override { return answer; }
    std::int64_t connectionTime() override { return 1; }
    std::string connectionTimeDisplayable() override { return answer; }
    std::string trafficRates() override { return answer; }
    std::string trafficTotals() override { return answer; }

private:
    const std::string answer = "connected";
};

}  // namespace

int main(int argc, char** argv) {
    const int port = argc > 1 ? std::atoi(argv[1]) : defaultPort;
    const int loops = argc > 2 ? std::atoi(argv[2]) : 0;
    if (port <= 0 || port > 65535 || loops < 0) {
        std::fprintf(stderr, "usage: %s [port [loops]]\n", argv[0]);
        return 2;
    }
    // The serving threads inherit the blocked signals; only sigwait below receives them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    QBLog::setSink([](QBLog::Channel, std::string_view) {});

    QBKelvoXMLRPCServer::Settings settings;
    settings.serving.loopThreads = static_cast<std::size_t>(loops);
    auto server = QBKelvoXMLRPCServer::serverWithAddress(
        QBIPAddress::ipAddressWithAddress("127.0.0.1"), port, nullptr,
        std::make_shared<FixedAnswers>(), settings);
    std::thread loop([server] { server->serve(); });
    for (int waited = 0; server->serverSocket()->localPort() == 0; ++waited) {
        if (waited == 200) {  // 2 s: serve has given up (the port is taken, most likely)
            std::fprintf(stderr, "%s: cannot listen on 127.0.0.1:%d\n", argv[0], port);
            server->shutdown();
            loop.join();
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::printf("listening on 127.0.0.1:%d\n", port);
    std::fflush(stdout);
    int received = 0;
    sigwait(&stopSignals, &received);
    server->shutdown();
    loop.join();
    return 0;
}
