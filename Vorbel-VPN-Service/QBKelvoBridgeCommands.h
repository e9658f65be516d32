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
// where waiting would hold up other connections.
//
// Threads: several calls may run at once, on different threads; implementations must allow that.

#include <cstdint>
#include <string>
#include <string_view>

class QBKelvoBridgeCommands {
public:
    virtual ~QBKelvoBridgeCommands() = default;

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
