#pragma once
// QBKelvoBridgeCommands: the thirteen commands that the bridge server's XML-RPC methods call,
// and the one table that describes them.
//
// The table (methods(), one Method per XML-RPC method) is read by both sides: the front end
// takes from it how many parameters a call needs and how they become arguments, and which
// typed operation the name selects; the bridge takes from it how the arguments are checked and
// sent, where the GUI's answer is and what kind it must be, the default, and whether the
// command waits or launches the GUI application. A method is added or changed there alone.
//
// Each typed operation returns a value in every case; failures are expressed as the command's
// default result, never as an exception. The implementation that relays the commands to the
// GUI application is supplied by the service (QBKelvoBridge); tests supply fakes.
//
// A command that may wait (for the GUI application) is called on a pool thread of the bridge
// server; one that answers at once (answersAtOnce) on the event-loop thread that read the
// request, where waiting would hold up other connections. Before a command is run on a pool
// thread, the server offers it to startCommand, which may instead start it without holding any
// thread (a request to a GUI application that is connected now) and deliver its result later.
//
// Threads: several calls may run at once, on different threads; implementations must allow that.
// The table is constant.

#include <cstdint>
#include <functional>
#include <span>
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

    // The methods, in the order of the table.
    enum class MethodId {
        clientOS,
        clientVersion,
        authorize,
        connect,
        connectWithToken,
        disconnect,
        suspend,
        resume,
        state,
        connectionTime,
        connectionTimeDisplayable,
        trafficRates,
        trafficTotals,
    };

    // Which arguments a method takes, which of them are checked and which content keys carry
    // them to the GUI:
    //  - nothing: none;
    //  - server: the server (not empty) and two ports (1 to 65535) as "server", "port",
    //    "webPort"; any of them out of range refuses the call;
    //  - serverAndToken: as server, and a token of 1 to 256 UTF-16 code units as
    //    "securityToken";
    //  - token: a token as "securityToken", sent as the empty one when it is too long.
    // The XML-RPC call must carry that many parameters (0, 3, 4, 1), else every argument is
    // the empty string or 0.
    enum class Takes { nothing, server, serverAndToken, token };
    static constexpr std::int64_t lowestPort = 1;
    static constexpr std::int64_t highestPort = 65535;
    // Longest security token, in UTF-16 code units.
    static constexpr std::size_t maximumTokenLength = 256;
    // What becomes of the GUI's answer:
    //  - operatingSystem: no GUI; the operating-system version is the result;
    //  - ignored: sent and waited for, but the result is always the default;
    //  - text / number: the value under answerKey when it is a string / a number or boolean;
    //  - version: a string under answerKey, else the installed application's version.
    enum class Answer { operatingSystem, ignored, text, number, version };

    struct Method {
        MethodId id;
        std::string_view name;  // the XML-RPC method name, also the "command" sent
        Takes takes;
        Answer answer;
        std::string_view answerKey;  // empty when no answer is read
        // The result when an argument is refused, no GUI answers or its answer is unusable.
        std::variant<std::string_view, std::int64_t> fallback;
        bool answersAtOnce;  // never waits: run on the thread that read the request
        bool launchesGUI;    // may start the GUI application when none is connected
        // The typed operation this method calls.
        Result (*call)(QBKelvoBridgeCommands& commands, const Arguments& arguments);

        // Parameters the XML-RPC call must carry for its arguments to be used.
        std::size_t needs() const;
        Result fallbackResult() const;
    };

    // Every method, in MethodId order.
    static std::span<const Method> methods();
    static const Method& method(MethodId id);
    // The method of an XML-RPC name (exact, case-sensitive); null for any other name.
    static const Method* methodNamed(std::string_view name);

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
    // (no channel, no launch); it is then run on the thread that read the request. By default
    // what the table says.
    virtual bool answersAtOnce(std::string_view method) const;

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
