#include "support/RawFramePeer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace {

bool waitReadable(int fd, std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd watched{fd, POLLIN, 0};
    return ::poll(&watched, 1, static_cast<int>(std::max<long long>(left.count(), 0))) > 0;
}

}  // namespace

RawFramePeer::RawFramePeer(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) close();
}

void RawFramePeer::close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

std::vector<std::uint8_t> RawFramePeer::frame(const std::string& body, std::uint8_t marker) {
    std::vector<std::uint8_t> bytes(5 + body.size());
    bytes[0] = marker;
    for (int i = 0; i < 4; ++i) bytes[1 + i] = static_cast<std::uint8_t>(body.size() >> (8 * i));
    std::copy(body.begin(), body.end(), bytes.begin() + 5);
    return bytes;
}

bool RawFramePeer::sendBytes(const std::vector<std::uint8_t>& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

bool RawFramePeer::readExactly(std::uint8_t* bytes, std::size_t length, std::chrono::steady_clock::time_point deadline) {
    for (std::size_t got = 0; got < length;) {
        if (!waitReadable(fd, deadline)) return false;
        const ssize_t n = ::recv(fd, bytes + got, length - got, 0);
        if (n <= 0) return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

std::optional<std::vector<std::uint8_t>> RawFramePeer::readFrameBytes(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::vector<std::uint8_t> bytes(5);
    if (!readExactly(bytes.data(), 5, deadline)) return std::nullopt;
    std::uint32_t length = 0;
    for (int i = 4; i >= 1; --i) length = (length << 8) | bytes[static_cast<std::size_t>(i)];
    bytes.resize(5 + length);
    if (!readExactly(bytes.data() + 5, length, deadline)) return std::nullopt;
    return bytes;
}

std::optional<nlohmann::json> RawFramePeer::readEnvelope(std::chrono::milliseconds timeout) {
    const auto bytes = readFrameBytes(timeout);
    if (!bytes) return std::nullopt;
    return nlohmann::json::parse(bytes->begin() + 5, bytes->end(), nullptr, false);
}

bool RawFramePeer::waitForClose(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::uint8_t sink[4096];
    while (waitReadable(fd, deadline)) {
        const ssize_t n = ::recv(fd, sink, sizeof sink, 0);
        if (n <= 0) return true;
    }
    return false;
}

bool RawFramePeer::staysSilent(std::chrono::milliseconds window) {
    return !waitReadable(fd, std::chrono::steady_clock::now() + window);
}
