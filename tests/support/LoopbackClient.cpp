#include "support/LoopbackClient.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

LoopbackClient::LoopbackClient(int port, const std::string& address) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(port));
    if (::inet_pton(AF_INET, address.c_str(), &target.sin_addr) != 1) return;
    descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) close();
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

bool LoopbackClient::receiveSome(std::chrono::steady_clock::time_point deadline, bool& ended) {
    const auto left = std::chrono::ceil<Timeout>(deadline - std::chrono::steady_clock::now());
    pollfd entry{descriptor, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(std::max<long long>(0, left.count()))) <= 0) return false;
    char chunk[16384];
    const auto count = ::recv(descriptor, chunk, sizeof chunk, 0);
    ended = count <= 0;  // end of stream or reset
    if (count > 0) received.append(chunk, static_cast<size_t>(count));
    return count > 0;
}

std::optional<std::string> LoopbackClient::take(
    const std::function<std::size_t(const std::string&)>& length, Timeout timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool ended = false;
    for (;;) {
        if (const auto count = length(received); count != std::string::npos) {
            std::string taken = received.substr(0, count);
            received.erase(0, count);
            return taken;
        }
        if (!receiveSome(deadline, ended)) return std::nullopt;
    }
}

std::optional<std::string> LoopbackClient::readUntil(std::string_view terminator, Timeout timeout) {
    return take([&](const std::string& bytes) {
        const auto at = bytes.find(terminator);
        return at == std::string::npos ? at : at + terminator.size();
    }, timeout);
}

std::optional<std::string> LoopbackClient::readResponse(Timeout timeout) {
    return take([](const std::string& bytes) {
        const auto headEnd = bytes.find("\r\n\r\n");
        if (headEnd == std::string::npos) return headEnd;
        const auto lengthAt = bytes.find("Content-Length: ");
        const auto total = headEnd + 4 +
            (lengthAt < headEnd ? std::strtoul(bytes.c_str() + lengthAt + 16, nullptr, 10) : 0);
        return total <= bytes.size() ? total : std::string::npos;
    }, timeout);
}

bool LoopbackClient::closedWithin(Timeout timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool ended = false;
    while (receiveSome(deadline, ended)) {
    }
    return ended;
}

std::string xmlRpcPost(std::string_view body) {
    return "POST /vpn HTTP/1.1\r\nHost: 127.0.0.1:986\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

std::string methodCall(std::string_view name, std::string_view params) {
    return "<?xml version=\"1.0\"?>\r\n<methodCall>\r\n<methodName>" + std::string(name) +
           "</methodName>\r\n" + std::string(params) + "</methodCall>\r\n";
}
