#include "support/LoopbackClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

LoopbackClient::LoopbackClient(int port) : LoopbackClient("127.0.0.1", port) {}

LoopbackClient::LoopbackClient(const std::string& ipv4Address, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (::inet_pton(AF_INET, ipv4Address.c_str(), &address.sin_addr) != 1) return;
    descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return;
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close();
    }
}

LoopbackClient::~LoopbackClient() {
    close();
}

void LoopbackClient::close() {
    if (descriptor >= 0) ::close(descriptor);
    descriptor = -1;
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

LoopbackClient::Receive LoopbackClient::receiveSome(
    std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd entry{descriptor, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(std::max<long long>(0, left.count()))) <= 0) {
        return Receive::timedOut;
    }
    char chunk[16384];
    const auto count = ::recv(descriptor, chunk, sizeof chunk, 0);
    if (count <= 0) return Receive::ended;  // end of stream or reset
    received.append(chunk, static_cast<size_t>(count));
    return Receive::data;
}

std::optional<std::string> LoopbackClient::readResponse(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto headEnd = received.find("\r\n\r\n");
        if (headEnd != std::string::npos) {
            const auto lengthAt = received.find("Content-Length: ");
            size_t bodyLength = 0;
            if (lengthAt != std::string::npos && lengthAt < headEnd) {
                bodyLength = std::strtoul(received.c_str() + lengthAt + 16, nullptr, 10);
            }
            const auto total = headEnd + 4 + bodyLength;
            if (received.size() >= total) {
                std::string response = received.substr(0, total);
                received.erase(0, total);
                return response;
            }
        }
        if (receiveSome(deadline) != Receive::data) return std::nullopt;
    }
}

bool LoopbackClient::closedWithin(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        switch (receiveSome(deadline)) {
            case Receive::ended:
                return true;
            case Receive::timedOut:
                return false;
            case Receive::data:
                break;
        }
    }
}

bool LoopbackClient::closedWithoutReply(std::chrono::milliseconds timeout) {
    return closedWithin(timeout) && received.empty();
}

std::string xmlRpcPost(std::string_view body) {
    return "POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nContent-Type: "
           "text/xml\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

std::string methodCall(std::string_view name, std::string_view params) {
    return "<?xml version=\"1.0\"?>\r\n<methodCall>\r\n<methodName>" + std::string(name) +
           "</methodName>\r\n" + std::string(params) + "</methodCall>\r\n";
}
