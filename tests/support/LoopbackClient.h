#pragma once
// LoopbackClient: a plain TCP client for tests of servers on loopback. It sends raw bytes and
// reads up to a terminator, whole HTTP responses or the end of the connection, each with a
// deadline, so that a test never hangs on a server that misbehaves.

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

class LoopbackClient {
public:
    using Timeout = std::chrono::milliseconds;

    // Connects (blocking) to address:port; connected() tells whether that worked.
    explicit LoopbackClient(int port, const std::string& address = "127.0.0.1");
    ~LoopbackClient() { close(); }
    LoopbackClient(const LoopbackClient&) = delete;
    LoopbackClient& operator=(const LoopbackClient&) = delete;

    bool connected() const { return descriptor >= 0; }
    // Sends all bytes; false when the connection failed (no SIGPIPE).
    bool send(std::string_view bytes);
    // Everything up to and including terminator; nullopt when the connection ends or timeout
    // passes first.
    std::optional<std::string> readUntil(std::string_view terminator, Timeout timeout = std::chrono::seconds(5));
    // The next HTTP response (header block and Content-Length body); nullopt as above.
    std::optional<std::string> readResponse(Timeout timeout = std::chrono::seconds(5));
    // True when the peer ends the connection within timeout (whatever it sent before).
    bool closedWithin(Timeout timeout);
    // True when the peer ends the connection within timeout without sending a single byte.
    bool closedWithoutReply(Timeout timeout = std::chrono::seconds(5)) {
        return closedWithin(timeout) && received.empty();
    }
    void close();

private:
    // Takes the first length(received) bytes once that is not npos.
    std::optional<std::string> take(const std::function<std::size_t(const std::string&)>& length,
                                     Timeout timeout);
    // Receives once: true for bytes; false at the end of the stream (ended set) or the deadline.
    bool receiveSome(std::chrono::steady_clock::time_point deadline, bool& ended);

    int descriptor = -1;
    std::string received;
};

// A request of the bridge's dialect: "POST /vpn HTTP/1.1", a Host and a Content-Length header.
std::string xmlRpcPost(std::string_view body);
// A method call document with the given name and raw <params> block.
std::string methodCall(std::string_view name, std::string_view params = "");
