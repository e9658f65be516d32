#pragma once
// LoopbackClient: a plain TCP client for tests of servers on 127.0.0.1. It sends raw bytes and
// reads HTTP responses (header block plus Content-Length body) or the end of the connection,
// each with a deadline, so that a test never hangs on a server that misbehaves.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

class LoopbackClient {
public:
    // Connects (blocking) to 127.0.0.1:port; connected() tells whether that worked.
    explicit LoopbackClient(int port);
    // Connects (blocking) to ipv4Address:port.
    LoopbackClient(const std::string& ipv4Address, int port);
    ~LoopbackClient();
    LoopbackClient(const LoopbackClient&) = delete;
    LoopbackClient& operator=(const LoopbackClient&) = delete;

    bool connected() const { return descriptor >= 0; }
    int fileDescriptor() const { return descriptor; }
    // Sends all bytes; false when the connection failed (no SIGPIPE).
    bool send(std::string_view bytes);
    // The next complete HTTP response; nullopt when the connection ends or timeout passes first.
    std::optional<std::string> readResponse(
        std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // True when the server ends the connection within timeout without sending a single byte.
    bool closedWithoutReply(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // True when the server ends the connection within timeout (whatever it sent before).
    bool closedWithin(std::chrono::milliseconds timeout);
    // Bytes received and not yet returned by readResponse().
    const std::string& unread() const { return received; }
    void discardUnread() { received.clear(); }
    void close();

private:
    enum class Receive { data, ended, timedOut };
    Receive receiveSome(std::chrono::steady_clock::time_point deadline);

    int descriptor = -1;
    std::string received;
};

// A request of the bridge's dialect: "POST /vpn HTTP/1.1", a Host and a Content-Length header.
std::string xmlRpcPost(std::string_view body);
// A method call document with the given name and <param> elements (raw XML, joined as given).
std::string methodCall(std::string_view name, std::string_view params = "");
