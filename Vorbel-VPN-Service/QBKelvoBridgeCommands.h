#pragma once
// QBKelvoBridgeCommands: the thirteen commands that the bridge server's XML-RPC methods call.
//
// The bridge server decodes a method call and calls exactly one of these; the result becomes
// the method response (a string as a string element, a number as an int element). Each
// command returns a value in every case; failures are expressed as the command's default
// result, never as an exception. The implementation that relays the commands to the GUI
// application is supplied by the service; tests supply fakes.
//
// A command that may wait (for the GUI application) is called on a pool thread of the bridge
// server; one that answers at once (answersAtOnce) on the event-loop thread that read the request,
// where waiting would hold up other connections. Before a command is run on a pool thread, the
// server offers it to startCommand, which may instead start it without holding any thread (a
// request to a GUI application that is connected now) and deliver its result later.
//
// Threads: several calls may run at once, on different threads; implementations must allow that.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>

class QBKelvoBridgeCommands {
public:
    // A command's result: a string, or a number.
    using Result = std::variant<std::string, std::int64_t>;
    using Finish = std::function<void(Result result)>;
    // The arguments of every command, in one record; a command reads the ones it takes.
    struct Arguments {
        std::string server;
        std::int64_t port = 0;
        std::int64_t webPort = 0;
        std::string token;
    };

    virtual ~QBKelvoBridgeCommands() = default;

    // Starts the command of the XML-RPC method name without waiting, when that is possible now:
    // returns true, and finish gets its result exactly once, later (from any thread) or before
    // this returns. False: nothing was started; the command's blocking operation must run
    // instead. Called on an event-loop thread: must not block.
    virtual bool startCommand(std::string_view /*method*/, const Arguments& /*arguments*/,
                              const Finish& /*finish*/) {
        return false;
    }

    // True when the command of this XML-RPC method name returns without waiting for anything
    // (no channel, no launch); it is then run on the thread that read the request.
    virtual bool answersAtOnce(std::string_view /*method*/) const { return false; }

    virtual std::string clientOS() = 0;
    virtual std::string clientVersion() = 0;
    // A boolean answer: 0 (false) or 1 (true), or another number exactly as the GUI sent it.
    virtual std::int64_t authorizeServer(const std::string& server, std::int64_t port,
                                         std::int64_t webPort) = 0;
    virtual std::string connect(const std::string& server, std::int64_t port,
                                std::int64_t webPort) = 0;
    virtual std::string connect(const std::string& server, std::int64_t port, std::int64_t webPort,
                                const std::string& secToken) = 0;
    virtual std::string disconnectWithSecToken(const std::string& secToken) = 0;
    virtual std::string suspendWithSecToken(const std::string& secToken) = 0;
    virtual std::string resume() = 0;
    virtual std::string state() = 0;
    virtual std::int64_t connectionTime() = 0;
    virtual std::string connectionTimeDisplayable() = 0;
    virtual std::string trafficRates() = 0;
    virtual std::string trafficTotals() = 0;
};
