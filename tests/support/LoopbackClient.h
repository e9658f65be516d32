#pragma once
// LoopbackClient: a plain TCP client for tests of servers on loopback. It sends raw bytes and
// reads whole HTTP responses or the end of the connection, every wait bounded by a time-out, so
// that a test never hangs on a server that misbehaves.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

class LoopbackClient {
public:
    using Timeout = std::chrono::milliseconds;

    // Connects (blocking) to address:port; connected() tells whether that worked.
    explicit LoopbackClient(int port, const char* address = "127.0.0.1");
    ~LoopbackClient();
    LoopbackClient(const LoopbackClient&) = delete;
    LoopbackClient& operator=(const LoopbackClient&) = delete;

    bool connected() const { return descriptor >= 0; }
    // Sends all bytes; false when the connection failed (no SIGPIPE).
    bool send(std::string_view bytes);
    // The next HTTP response (header block and Content-Length body); nullopt when the peer
    // closes first or sends nothing for timeout.
    std::optional<std::string> readResponse(Timeout timeout = std::chrono::seconds(5));
    // True when the peer ends the connection within timeout, leaving no byte unread.
    bool closedWithoutReply(Timeout timeout = std::chrono::seconds(5));
    // True when the peer has already ended the connection; never waits, consumes nothing.
    bool peerClosed() const;

private:
    // One receive that waits at most timeout; false when nothing came (ended: the peer closed).
    bool receive(Timeout timeout);

    int descriptor = -1;
    bool ended = false;
    std::string received;
};

// A request of the bridge's dialect: "POST /vpn HTTP/1.1", a Host and a Content-Length header.
std::string xmlRpcPost(std::string_view body);
// A method call document with the given name and raw <params> block.
std::string methodCall(std::string_view name, std::string_view params = "");
