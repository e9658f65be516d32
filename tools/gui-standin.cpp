// gui-standin: stands in for the VPN client's GUI application on the service's message channel,
// for tests, benchmarks and people trying the daemon by hand.
//
//   gui-standin [--socket PATH] [--answers FILE] [--version TEXT] [--quiet]
//
// It connects to the channel socket as the GUI application does (the client end of the framed
// JSON channel), answers every "serviceCmd" from a small VPN state, and reconnects every 250 ms
// while the daemon is not there, so it survives the daemon's restarts. It prints every frame it
// receives as one compact JSON line on standard output (unless --quiet) and its status on
// standard error. SIGINT or SIGTERM ends it with status 0.
//
// The VPN state: "disconnected" at first; connect or connectWithToken makes it "connecting",
// and "connected" a second later; disconnect "disconnected", suspend "suspended", resume
// "connected" again. While connected, the connection time counts and the traffic figures move.
//
// --answers FILE: a JSON object that overrides the answers of some commands, for example
//   {"state": {"content": {"result": 3}}, "connect": {"delayMs": 500}, "trafficRates": {"noReply": true}}
// "content" is sent as the reply's content as it is; "delayMs" holds the reply back (other
// commands are answered meanwhile); "noReply" sends none at all.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <queue>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "QBLumentideIPC.h"
#include "QBLumentideIPCFrames.h"
#include "QBMutex.h"
#include "platform/QBSignalSource.h"

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

constexpr const char* defaultSocketPath = "/var/run/com.kelvo.TunnelwrightService.socket";
constexpr auto reconnectInterval = 250ms;
constexpr auto connectingTime = 1s;

std::atomic<bool> stopping{false};

struct Options {
    std::string socketPath = defaultSocketPath;
    std::string answersFile;
    std::string version = "1.0.0,1";
    bool quiet = false;
};

// What --answers says about one command.
struct FixedAnswer {
    std::optional<json> content;
    std::chrono::milliseconds delay{0};
    bool noReply = false;
};

// The VPN state the stand-in reports. Any thread; one leaf lock guards everything.
class VpnState {
public:
    explicit VpnState(std::string version) : version(std::move(version)) {}

    json answer(const std::string& command) {
        QBMutexLock guard(lock);
        const auto now = Clock::now();
        advance(now);
        if (command == "connect" || command == "connectWithToken") {
            if (state == "disconnected") state = "connecting", connectingSince = now;
            return result(state);
        }
        if (command == "disconnect") state = "disconnected";
        if (command == "suspend" && state == "connected") state = "suspended";
        if (command == "resume" && state == "suspended") state = "connected";
        if (command == "disconnect" || command == "suspend" || command == "resume") {
            return result("OK");
        }
        if (command == "authorize") return result(1);
        if (command == "state") return result(state);
        if (command == "connectionTime") return result(secondsConnected(now));
        if (command == "connectionTimeDisplayable") return result(displayableTime(now));
        if (command == "trafficRates") return result(pair(rxRate(now), txRate(now)));
        if (command == "trafficTotals") return result(pair(rxTotal, txTotal));
        if (command == "clientVersion") return json{{"version", version}};
        return json{{"status", "UNKNOWN"}};
    }

private:
    static json result(json value) { return json{{"result", std::move(value)}}; }
    static std::string pair(double first, double second) {
        return std::to_string(std::llround(first)) + "," + std::to_string(std::llround(second));
    }
    bool isOnline() const QB_REQUIRES(lock) { return state == "connected" || state == "suspended"; }
    double seconds(Clock::time_point now) const QB_REQUIRES(lock) {
        return std::chrono::duration<double>(now - connectedSince).count();
    }
    std::int64_t secondsConnected(Clock::time_point now) const QB_REQUIRES(lock) {
        return isOnline() ? static_cast<std::int64_t>(seconds(now)) : 0;
    }
    std::string displayableTime(Clock::time_point now) const QB_REQUIRES(lock) {
        if (!isOnline()) return "";
        const auto total = secondsConnected(now);
        char text[32];
        std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld",
                      static_cast<long long>(total / 3600), static_cast<long long>(total / 60 % 60),
                      static_cast<long long>(total % 60));
        return text;
    }
    // Bytes per second that wander around a typical figure while traffic flows.
    double rxRate(Clock::time_point now) const QB_REQUIRES(lock) {
        return state == "connected" ? 180000 + 60000 * std::sin(seconds(now) / 3) : 0;
    }
    double txRate(Clock::time_point now) const QB_REQUIRES(lock) {
        return state == "connected" ? 40000 + 15000 * std::cos(seconds(now) / 5) : 0;
    }
    // Moves time forward: a finished "connecting" becomes "connected", the totals grow.
    void advance(Clock::time_point now) QB_REQUIRES(lock) {
        if (state == "connecting" && now - connectingSince >= connectingTime) {
            state = "connected";
            connectedSince = lastUpdate = connectingSince + connectingTime;
            rxTotal = txTotal = 0;
        }
        if (state == "connected") {
            const double elapsed = std::chrono::duration<double>(now - lastUpdate).count();
            rxTotal += rxRate(now) * elapsed;
            txTotal += txRate(now) * elapsed;
        }
        lastUpdate = now;
    }

    const std::string version;
    mutable QBMutex lock;
    std::string state QB_GUARDED_BY(lock) = "disconnected";
    Clock::time_point connectingSince QB_GUARDED_BY(lock){};
    Clock::time_point connectedSince QB_GUARDED_BY(lock){};
    Clock::time_point lastUpdate QB_GUARDED_BY(lock){};
    double rxTotal QB_GUARDED_BY(lock) = 0;
    double txTotal QB_GUARDED_BY(lock) = 0;
};

// What the stand-in reads of an envelope, taken from the frame's body by the library's event
// parser without building a tree: the message's command and id, whether its content is an
// object, and the content's own "command" (the service command). A key given twice counts with
// its last value, as in a parsed object.
class EnvelopeFields {
public:
    // Nothing when the body is not a JSON object at all.
    static std::optional<EnvelopeFields> of(std::string_view body) {
        EnvelopeFields fields;
        if (!json::sax_parse(body.begin(), body.end(), &fields) || !fields.isObject) return std::nullopt;
        return fields;
    }
    // A string command and id, and an object as content.
    bool isEnvelope() const { return command && messageId && contentIsObject; }

    std::optional<std::string> command;
    std::optional<std::string> messageId;
    std::string serviceCommand;  // empty when the content has no string "command"
    bool contentIsObject = false;

    // The event parser's interface.
    bool null() { return value(); }
    bool boolean(bool) { return value(); }
    bool number_integer(json::number_integer_t) { return value(); }
    bool number_unsigned(json::number_unsigned_t) { return value(); }
    bool number_float(json::number_float_t, const json::string_t&) { return value(); }
    bool binary(json::binary_t&) { return value(); }
    bool string(json::string_t& text) { return value(&text); }
    bool key(json::string_t& name) {
        if (depth == 1) topKey = name;
        if (depth == 2 && inContent) contentKey = name;
        return true;
    }
    bool start_object(std::size_t) {
        if (depth == 0) isObject = true;
        value(nullptr, true);
        if (depth == 1 && topKey == "content") inContent = true;
        ++depth;
        return true;
    }
    bool start_array(std::size_t) {
        value();
        ++depth;
        return true;
    }
    bool end_object() { return closed(); }
    bool end_array() { return closed(); }
    bool parse_error(std::size_t, const std::string&, const json::exception&) { return false; }

private:
    // A value at the current depth: a top-level member or a member of the content.
    bool value(json::string_t* text = nullptr, bool isObject = false) {
        if (depth == 1) {
            if (topKey == "command") command = text ? std::optional(*text) : std::nullopt;
            if (topKey == "messageid") messageId = text ? std::optional(*text) : std::nullopt;
            if (topKey == "content") contentIsObject = isObject, serviceCommand.clear();
        } else if (depth == 2 && inContent && contentKey == "command") {
            serviceCommand = text ? *text : std::string();
        }
        return true;
    }
    bool closed() {
        if (--depth == 1) inContent = false;
        return true;
    }

    int depth = 0;
    bool isObject = false;   // the top level is an object
    bool inContent = false;  // inside the top level's "content" object
    std::string topKey;
    std::string contentKey;
};

// One connection to the daemon's channel: frames read in batches on the reading thread, whole
// frames written under a lock from any thread.
class ChannelConnection {
public:
    explicit ChannelConnection(int socket) : socket(socket) {}
    ~ChannelConnection() { ::close(socket); }

    // Calls handle with the body of every frame that arrives, until the connection ends or handle
    // returns false (a frame it cannot read, which ends the connection as it would the daemon's). It
    // waits in poll() for input, as an event loop does, not in the receive: a thread asleep in a
    // stream socket's receive is also woken whenever the daemon takes in a reply sent to it
    // (room to write again), a wasted wake-up per command. One receive takes what has come, so
    // commands that arrive together are answered in one wake-up.
    template <typename Handle>
    void readFrames(const Handle& handle) {
        for (;;) {
            pollfd input{socket, POLLIN, 0};
            if (::poll(&input, 1, -1) < 0 && errno != EINTR) return;
            if (!receiveInto(frames.space())) return;
            for (;;) {
                std::string_view body;
                auto step = frames.next(body, false);
                if (step == InboundFrames::Step::needTopUp) {
                    if (!receiveInto(frames.space(), MSG_DONTWAIT)) return;
                    step = frames.next(body, true);
                }
                if (step == InboundFrames::Step::broken) return;
                if (step != InboundFrames::Step::frame) break;
                if (!handle(body)) return;
            }
        }
    }
    void reply(const std::string& replyId, const json& content) {
        QBMutexLock guard(writeLock);
        const std::string messageId = std::to_string(++lastMessageId);
        // The keys in the library's order, as every frame on the channel has them.
        const QBLumentideIPCFrames::Member members[] = {
            {"command", &replyCommand}, {"content", nullptr, &content},
            {"messageid", &messageId},  {"replyid", &replyId}};
        if (!QBLumentideIPCFrames::encodeFrame(frame, members)) return;
        QBLumentideIPCFrames::writeInPieces(
            reinterpret_cast<const std::uint8_t*>(frame.data()), frame.size(), QBLumentideIPC::transferChunkSize,
            [this](const std::uint8_t* bytes, std::size_t length) {
                return ::send(socket, bytes, length, MSG_NOSIGNAL);
            });
    }
    void interrupt() { ::shutdown(socket, SHUT_RDWR); }

private:
    using InboundFrames = QBLumentideIPCFrames::InboundFrames;
    inline static const std::string replyCommand = "reply";

    // False when the connection has ended; true also when nothing had come yet.
    bool receiveInto(std::span<std::uint8_t> space, int flags = 0) {
        for (;;) {
            const ssize_t got = ::recv(socket, space.data(), space.size(), flags);
            if (got > 0) frames.received(static_cast<std::size_t>(got));
            if (got >= 0) return got > 0;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
            if (errno != EINTR) return false;
        }
    }

    const int socket;
    InboundFrames frames;
    // A leaf lock, held for a whole frame's write so that frames never interleave.
    QBMutex writeLock;
    std::int64_t lastMessageId QB_GUARDED_BY(writeLock) = 0;
    std::string frame QB_GUARDED_BY(writeLock);  // reused for every reply
};

// Replies held back by "delayMs", sent by one thread at their time.
class DelayedReplies {
public:
    DelayedReplies() : thread([this] { run(); }) {}
    ~DelayedReplies() {
        {
            QBMutexLock guard(lock);
            ending = true;
        }
        wake.notify_one();
        thread.join();
    }
    void add(Clock::time_point due, std::function<void()> send) {
        {
            QBMutexLock guard(lock);
            pending.push({due, sequence++, std::move(send)});
        }
        wake.notify_one();
    }

private:
    struct Entry {
        Clock::time_point due;
        std::uint64_t order;
        std::function<void()> send;
        bool operator>(const Entry& other) const {
            return due != other.due ? due > other.due : order > other.order;
        }
    };
    void run() {
        QBMutexLock guard(lock);
        while (!ending) {
            if (pending.empty()) {
                wake.wait(guard.native());
            } else if (pending.top().due > Clock::now()) {
                wake.wait_until(guard.native(), pending.top().due);
            } else {
                auto send = pending.top().send;
                pending.pop();
                guard.unlock();
                send();
                guard.relock();
            }
        }
    }

    // A leaf lock; never held while a reply is sent.
    QBMutex lock;
    std::condition_variable wake;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<>> pending QB_GUARDED_BY(lock);
    std::uint64_t sequence QB_GUARDED_BY(lock) = 0;
    bool ending QB_GUARDED_BY(lock) = false;
    std::thread thread;
};

std::map<std::string, FixedAnswer> loadAnswers(const std::string& path) {
    std::map<std::string, FixedAnswer> answers;
    if (path.empty()) return answers;
    std::ifstream file(path);
    const json document = json::parse(file, nullptr, false);
    if (!document.is_object()) {
        std::cerr << "gui-standin: " << path << " is not a JSON object; ignored\n";
        return answers;
    }
    for (const auto& [command, entry] : document.items()) {
        if (!entry.is_object()) continue;
        FixedAnswer answer;
        if (entry.contains("content")) answer.content = entry["content"];
        answer.delay = std::chrono::milliseconds(entry.value("delayMs", 0));
        answer.noReply = entry.value("noReply", false);
        answers[command] = answer;
    }
    return answers;
}

int connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return -1;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket < 0) return -1;
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket);
        return -1;
    }
    return socket;
}

class StandIn {
public:
    explicit StandIn(const Options& options)
        : options(options), answers(loadAnswers(options.answersFile)), state(options.version) {}

    // Serves one connection until it ends or a stop signal arrives.
    void serve(const std::shared_ptr<ChannelConnection>& connection) {
        connection->readFrames([&](std::string_view body) {
            if (!options.quiet) std::cout << body << std::endl;
            const auto envelope = EnvelopeFields::of(body);
            if (!envelope) return false;
            if (envelope->isEnvelope() && *envelope->command != "reply") answer(connection, *envelope);
            return true;
        });
    }

private:
    // A delayed reply holds the connection; if that has ended by then, the write just fails.
    void answer(const std::shared_ptr<ChannelConnection>& connection, const EnvelopeFields& envelope) {
        const std::string& id = *envelope.messageId;
        const std::string& command = envelope.serviceCommand;
        if (*envelope.command != "serviceCmd") {
            connection->reply(id, json{{"status", "OK"}});
            return;
        }
        const auto fixed = answers.find(command);
        if (fixed == answers.end()) {
            connection->reply(id, state.answer(command));
            return;
        }
        if (fixed->second.noReply) return;
        // The state still changes as the command says, whatever the fixed reply claims.
        json own = state.answer(command);
        const json& reply = fixed->second.content ? *fixed->second.content : own;
        if (fixed->second.delay.count() <= 0) {
            connection->reply(id, reply);
            return;
        }
        delayed.add(Clock::now() + fixed->second.delay,
                    [connection, id, reply] { connection->reply(id, reply); });
    }

    const Options options;
    const std::map<std::string, FixedAnswer> answers;
    VpnState state;
    DelayedReplies delayed;  // declared last: its thread ends before the state goes
};

std::optional<Options> parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const bool hasValue = i + 1 < argc;
        if (argument == "--socket" && hasValue) {
            options.socketPath = argv[++i];
        } else if (argument == "--answers" && hasValue) {
            options.answersFile = argv[++i];
        } else if (argument == "--version" && hasValue) {
            options.version = argv[++i];
        } else if (argument == "--quiet") {
            options.quiet = true;
        } else {
            return std::nullopt;
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const auto options = parseOptions(argc, argv);
    if (!options) {
        std::cerr << "usage: gui-standin [--socket PATH] [--answers FILE] [--version TEXT] [--quiet]\n";
        return 2;
    }
    QBMutex connectionLock;  // guards current, so that a stop interrupts a live connection
    std::shared_ptr<ChannelConnection> current;
    std::condition_variable stopWake;
    // Made before any other thread, so that none of them ever receives the stop signals.
    QBSignalSource stopSignals({SIGINT, SIGTERM}, [&](int) {
        QBMutexLock guard(connectionLock);
        stopping = true;
        if (current) current->interrupt();
        stopWake.notify_all();
    });
    StandIn standIn(*options);

    bool wasConnected = true;  // so that the first failure is reported
    while (!stopping) {
        const int socket = connectTo(options->socketPath);
        if (socket < 0) {
            if (wasConnected) std::cerr << "gui-standin: waiting for " << options->socketPath << "\n";
            wasConnected = false;
            QBMutexLock guard(connectionLock);
            stopWake.wait_for(guard.native(), reconnectInterval, [] { return stopping.load(); });
            continue;
        }
        auto connection = std::make_shared<ChannelConnection>(socket);
        {
            QBMutexLock guard(connectionLock);
            if (stopping) break;
            current = connection;
        }
        std::cerr << "gui-standin: connected to " << options->socketPath << "\n";
        wasConnected = true;
        standIn.serve(connection);
        QBMutexLock guard(connectionLock);
        current = nullptr;
        if (!stopping) std::cerr << "gui-standin: disconnected\n";
    }
    stopSignals.waitForHandlers();
    return 0;
}
