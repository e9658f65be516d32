#pragma once
// A plain TCP client for tests of servers on loopback: it sends raw bytes and reads whole HTTP
// responses or the end of the connection, every wait bounded so that no test hangs.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

class LoopbackClient {
public:
    using Timeout = std::chrono::milliseconds;

    // Connects (blocking) to address:port; connected() tells whether that worked.
    explicit LoopbackClient(int port, const char* address = "127.0.0.1") {
        sockaddr_in target{};
        target.sin_family = AF_INET;
        target.sin_port = htons(static_cast<uint16_t>(port));
        descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::inet_pton(AF_INET, address, &target.sin_addr) != 1 ||
            ::connect(descriptor, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
            ::close(std::exchange(descriptor, -1));
        }
    }
    ~LoopbackClient() { ::close(descriptor); }
    LoopbackClient(const LoopbackClient&) = delete;
    LoopbackClient& operator=(const LoopbackClient&) = delete;

    bool connected() const { return descriptor >= 0; }
    // Sends all bytes; false when the connection failed (no SIGPIPE).
    bool send(std::string_view bytes) {
        for (ssize_t sent; !bytes.empty(); bytes.remove_prefix(static_cast<size_t>(sent))) {
            while ((sent = ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL)) < 0 && errno == EINTR) {}
            if (sent <= 0) return false;
        }
        return true;
    }
    // The next HTTP response (header block and Content-Length body); nullopt when the peer
    // closes first or sends nothing for timeout.
    std::optional<std::string> readResponse(Timeout timeout = std::chrono::seconds(5)) {
        for (;;) {
            const auto headEnd = received.find("\r\n\r\n"), lengthAt = received.find("Content-Length: ");
            const auto total =
                headEnd + 4 + (lengthAt < headEnd ? std::strtoul(&received[lengthAt + 16], nullptr, 10) : 0);
            if (headEnd != std::string::npos && total <= received.size()) {
                std::string response = received.substr(0, total);
                received.erase(0, total);
                return response;
            }
            if (!receive(timeout)) return std::nullopt;
        }
    }
    // True when the peer ends the connection within timeout, leaving no byte unread.
    bool closedWithoutReply(Timeout timeout = std::chrono::seconds(5)) {
        while (receive(timeout)) {}
        return ended && received.empty();
    }
    // True when the peer has already ended the connection; never waits, consumes nothing.
    bool peerClosed() const {
        char byte;
        const auto count = ::recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
    }

private:
    // One receive that waits at most timeout (0 would mean no limit); false when nothing came.
    bool receive(Timeout timeout) {
        const auto milliseconds = std::max<Timeout::rep>(1, timeout.count());
        const timeval limit{milliseconds / 1000, milliseconds % 1000 * 1000};
        ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        char chunk[16384];
        const auto count = ::recv(descriptor, chunk, sizeof chunk, 0);
        ended = count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);  // closed or reset
        if (count > 0) received.append(chunk, static_cast<size_t>(count));
        return count > 0;
    }

    int descriptor = -1;
    bool ended = false;
    std::string received;
};

// A request of the bridge's dialect: "POST /vpn HTTP/1.1", a Host and a Content-Length header.
inline std::string xmlRpcPost(std::string_view body) {
    return "POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           std::string(body);
}
// A method call document with the given name and raw <params> block.
inline std::string methodCall(std::string_view name, std::string_view params = "") {
    return "<?xml version=\"1.0\"?>\r\n<methodCall>\r\n<methodName>" + std::string(name) + "</methodName>\r\n" +
           std::string(params) + "</methodCall>\r\n";
}
