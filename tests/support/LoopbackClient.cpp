#include "support/LoopbackClient.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

LoopbackClient::LoopbackClient(int port, const char* address) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(port));
    descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::inet_pton(AF_INET, address, &target.sin_addr) != 1 ||
        ::connect(descriptor, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
        ::close(descriptor);
        descriptor = -1;
    }
}

LoopbackClient::~LoopbackClient() {
    if (descriptor >= 0) ::close(descriptor);
}

bool LoopbackClient::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto sent = ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

bool LoopbackClient::receive(Timeout timeout) {
    const auto milliseconds = std::max<Timeout::rep>(1, timeout.count());  // 0 means no limit
    const timeval limit{milliseconds / 1000, milliseconds % 1000 * 1000};
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char chunk[16384];
    const auto count = ::recv(descriptor, chunk, sizeof chunk, 0);
    ended = count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);  // closed or reset
    if (count > 0) received.append(chunk, static_cast<size_t>(count));
    return count > 0;
}

std::optional<std::string> LoopbackClient::readResponse(Timeout timeout) {
    for (;;) {
        const auto headEnd = received.find("\r\n\r\n");
        const auto lengthAt = received.find("Content-Length: ");
        const auto total =
            headEnd + 4 +
            (lengthAt < headEnd ? std::strtoul(&received[lengthAt + 16], nullptr, 10) : 0);
        if (headEnd != std::string::npos && total <= received.size()) {
            std::string response = received.substr(0, total);
            received.erase(0, total);
            return response;
        }
        if (!receive(timeout)) return std::nullopt;
    }
}

bool LoopbackClient::closedWithoutReply(Timeout timeout) {
    while (receive(timeout)) {
    }
    return ended && received.empty();
}

bool LoopbackClient::peerClosed() const {
    char byte;
    const auto count = ::recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
}

std::string xmlRpcPost(std::string_view body) {
    return "POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

std::string methodCall(std::string_view name, std::string_view params) {
    return "<?xml version=\"1.0\"?>\r\n<methodCall>\r\n<methodName>" + std::string(name) +
           "</methodName>\r\n" + std::string(params) + "</methodCall>\r\n";
}
