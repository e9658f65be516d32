#pragma once
// QBKelvoBridgeCommands: the thirteen commands that the bridge server's XML-RPC methods call.
//
// The bridge server decodes a method call and calls exactly one of these; the result becomes
// the method response (a string as a string element, a number as an int element). Each
// command returns a value in every case; failures are expressed as the command's default
// result, never as an exception. The implementation that relays the commands to the GUI
// application is supplied by the service; tests supply fakes.
//
// Threads: the bridge server calls the commands on the thread of the HTTP connection that
// carries the request, so several calls may run at once; implementations must allow that.

#include <cstdint>
#include <string>

class QBKelvoBridgeCommands {
public:
    virtual ~QBKelvoBridgeCommands() = default;

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
