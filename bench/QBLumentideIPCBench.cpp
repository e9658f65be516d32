// Request/reply round trips through the channel, beside the floor that the kernel sets: the
// same frame sizes bounced over a plain Unix-domain connection by a bare echo thread.
//
//   ChannelRoundTrip/threads:N   sendMessageToFirstClient on a server endpoint, answered at once
//                                by a client endpoint's delegate (N calling threads, one client)
//   RawRoundTrip/threads:N       N connections, each with an echo thread that reads a frame of
//                                the request's size and writes one of the reply's size
//   RawRelayRoundTrip            the channel's thread structure with nothing else: the caller
//                                writes, an echo thread answers, a reader thread reads the
//                                answer and wakes the caller through a condition variable. The
//                                channel pays three thread wake-ups per round trip where the raw
//                                round trip pays two; this run shows what that third costs alone.
//
// items_per_second is round trips per second, summed over the calling threads.

#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "QBLumentideIPC.h"
#include "platform/QBLog.h"

using nlohmann::json;

namespace {

constexpr int maximumThreads = 8;
const json requestContent = {{"command", "state"}};
const json replyContent = {{"result", "connected"}};

// Answers every command at once with the same short state answer.
class StateDelegate : public QBLumentideIPCDelegate {
public:
    bool validateCommand(const std::string&, const json&, QBLumentideIPC&) override { return true; }
    std::optional<json> processCommand(const std::string&, const json&, int, QBLumentideIPC&) override {
        return replyContent;
    }
};

// Frame sizes of a typical exchange (ids of five digits, as in the middle of a run).
std::size_t requestFrameSize() {
    return QBLumentideIPC::frameWithEnvelope(
               {{"command", "serviceCmd"}, {"messageid", "12345"}, {"content", requestContent}})
        .size();
}
std::size_t replyFrameSize() {
    return QBLumentideIPC::frameWithEnvelope(
               {{"command", "reply"}, {"messageid", "12345"}, {"replyid", "12345"}, {"content", replyContent}})
        .size();
}

bool moveAll(int fd, std::uint8_t* bytes, std::size_t length, bool sending) {
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n = sending ? ::send(fd, bytes + done, length - done, MSG_NOSIGNAL)
                                  : ::recv(fd, bytes + done, length - done, 0);
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// The reader side of the relay: hands each answer to the waiting caller.
struct Relay {
    int caller = -1;
    std::thread echo;
    std::thread reader;
    std::mutex lock;  // guards answered
    std::condition_variable answeredCondition;
    std::uint64_t answered = 0;
};

struct Setup {
    std::string directory;
    std::shared_ptr<QBLumentideIPC> server;
    std::shared_ptr<QBLumentideIPC> client;
    std::shared_ptr<StateDelegate> delegate = std::make_shared<StateDelegate>();

    int rawListener = -1;
    std::vector<int> rawCallers;       // one per calling thread
    std::vector<std::thread> echoes;   // one per connection; end when the caller side closes
    std::vector<std::uint8_t> request = std::vector<std::uint8_t>(requestFrameSize(), 'r');
    std::vector<std::uint8_t> reply = std::vector<std::uint8_t>(replyFrameSize(), 'a');
    Relay relay;
};

Setup* setup = nullptr;

void BM_ChannelRoundTrip(benchmark::State& state) {
    for (auto _ : state) {
        auto answer = setup->server->sendMessageToFirstClient("serviceCmd", requestContent);
        if (!answer) {
            state.SkipWithError("no answer");
            break;
        }
        benchmark::DoNotOptimize(answer);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ChannelRoundTrip)->Threads(1)->Threads(maximumThreads)->UseRealTime();

void BM_RawRoundTrip(benchmark::State& state) {
    const int fd = setup->rawCallers.at(static_cast<std::size_t>(state.thread_index()));
    std::vector<std::uint8_t> request = setup->request;
    std::vector<std::uint8_t> reply(setup->reply.size());
    for (auto _ : state) {
        if (!moveAll(fd, request.data(), request.size(), true) ||
            !moveAll(fd, reply.data(), reply.size(), false)) {
            state.SkipWithError("raw connection failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawRoundTrip)->Threads(1)->Threads(maximumThreads)->UseRealTime();

void BM_RawRelayRoundTrip(benchmark::State& state) {
    Relay& relay = setup->relay;
    std::vector<std::uint8_t> request = setup->request;
    std::uint64_t expected = 0;
    {
        std::lock_guard guard(relay.lock);
        expected = relay.answered;
    }
    for (auto _ : state) {
        if (!moveAll(relay.caller, request.data(), request.size(), true)) {
            state.SkipWithError("relay failed");
            break;
        }
        ++expected;
        std::unique_lock guard(relay.lock);
        relay.answeredCondition.wait(guard, [&] { return relay.answered >= expected; });
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawRelayRoundTrip)->Threads(1)->UseRealTime();

bool startChannel(Setup& s, const std::string& path) {
    // The server says when it listens; the set-up waits for that line.
    std::atomic<bool> listening{false};
    QBLog::setSink([&](QBLog::Channel, std::string_view text) {
        if (text == "LumentideHelper started") listening = true;
    });
    s.server = QBLumentideIPC::initWithSocketPath(path, false);
    s.server->startServerOnThread();
    for (int attempt = 0; attempt < 500 && !listening; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    QBLog::setSink({});
    s.client = QBLumentideIPC::initWithSocketPath(path, false);
    s.client->setDelegate(s.delegate);
    if (!listening || !s.client->connect()) return false;
    for (int attempt = 0; attempt < 500 && s.server->clientCount() == 0; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return s.server->clientCount() == 1;
}

bool startRaw(Setup& s, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    s.rawListener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(s.rawListener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(s.rawListener, maximumThreads) != 0) {
        return false;
    }
    for (int i = 0; i < maximumThreads; ++i) {
        const int caller = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(caller, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return false;
        const int echo = ::accept4(s.rawListener, nullptr, nullptr, SOCK_CLOEXEC);
        if (echo < 0) return false;
        s.rawCallers.push_back(caller);
        s.echoes.emplace_back([echo, requestSize = s.request.size(), reply = s.reply]() mutable {
            std::vector<std::uint8_t> request(requestSize);
            while (moveAll(echo, request.data(), request.size(), false) &&
                   moveAll(echo, reply.data(), reply.size(), true)) {
            }
            ::close(echo);
        });
    }
    return true;
}

bool startRelay(Setup& s) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
    s.relay.caller = ends[0];
    const int echo = ends[1];
    s.relay.echo = std::thread([echo, requestSize = s.request.size(), reply = s.reply]() mutable {
        std::vector<std::uint8_t> request(requestSize);
        while (moveAll(echo, request.data(), request.size(), false) &&
               moveAll(echo, reply.data(), reply.size(), true)) {
        }
        ::close(echo);
    });
    s.relay.reader = std::thread([&relay = s.relay, replySize = s.reply.size()] {
        std::vector<std::uint8_t> reply(replySize);
        while (moveAll(relay.caller, reply.data(), reply.size(), false)) {
            {
                std::lock_guard guard(relay.lock);
                ++relay.answered;
            }
            relay.answeredCondition.notify_all();
        }
    });
    return true;
}

void stopAll(Setup& s) {
    if (s.relay.caller >= 0) ::shutdown(s.relay.caller, SHUT_RDWR);
    if (s.relay.echo.joinable()) s.relay.echo.join();
    if (s.relay.reader.joinable()) s.relay.reader.join();
    if (s.relay.caller >= 0) ::close(s.relay.caller);
    if (s.client) {
        s.client->shutdown();
        s.client->waitForThreads(std::chrono::seconds(10));
    }
    if (s.server) {
        s.server->shutdown();
        s.server->waitForThreads(std::chrono::seconds(10));
    }
    for (const int caller : s.rawCallers) ::close(caller);
    for (auto& echo : s.echoes) echo.join();
    if (s.rawListener >= 0) ::close(s.rawListener);
    std::filesystem::remove_all(s.directory);
}

}  // namespace

int main(int argc, char** argv) {
    char pattern[] = "/tmp/qbbench.XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return 1;
    Setup s;
    s.directory = pattern;
    setup = &s;
    if (!startChannel(s, s.directory + "/channel.socket") || !startRaw(s, s.directory + "/raw.socket") ||
        !startRelay(s)) {
        std::fprintf(stderr, "set-up failed\n");
        stopAll(s);
        return 1;
    }
    benchmark::AddCustomContext("request frame bytes", std::to_string(s.request.size()));
    benchmark::AddCustomContext("reply frame bytes", std::to_string(s.reply.size()));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        stopAll(s);
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    stopAll(s);
    return 0;
}
