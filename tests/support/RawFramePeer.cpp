#include "support/RawFramePeer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

bool makeAddress(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

int millisecondsUntil(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

bool waitReadable(int fd, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        pollfd watched{fd, POLLIN, 0};
        const int ready = ::poll(&watched, 1, millisecondsUntil(deadline));
        if (ready < 0 && errno == EINTR) continue;
        return ready > 0;
    }
}

}  // namespace

RawFramePeer::RawFramePeer(const std::string& path) {
    sockaddr_un address;
    if (!makeAddress(path, address)) return;
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) close();
}

RawFramePeer::~RawFramePeer() { close(); }

void RawFramePeer::close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

std::vector<std::uint8_t> RawFramePeer::frame(const std::string& body, std::uint8_t marker) {
    const auto length = static_cast<std::uint32_t>(body.size());
    std::vector<std::uint8_t> bytes(5 + body.size());
    bytes[0] = marker;
    for (int i = 0; i < 4; ++i) bytes[1 + i] = static_cast<std::uint8_t>(length >> (8 * i));
    std::copy(body.begin(), body.end(), bytes.begin() + 5);
    return bytes;
}

bool RawFramePeer::sendBytes(const std::vector<std::uint8_t>& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

bool RawFramePeer::sendCommand(const std::string& command, const std::string& messageId,
                               const nlohmann::json& content) {
    return sendEnvelope({{"command", command}, {"messageid", messageId}, {"content", content}});
}

bool RawFramePeer::sendReply(const std::string& replyId, const nlohmann::json& content,
                             const std::string& messageId) {
    return sendEnvelope(
        {{"command", "reply"}, {"messageid", messageId}, {"replyid", replyId}, {"content", content}});
}

bool RawFramePeer::readExactly(std::uint8_t* bytes, std::size_t length,
                               std::chrono::steady_clock::time_point deadline) {
    std::size_t got = 0;
    while (got < length) {
        if (!waitReadable(fd, deadline)) return false;
        const ssize_t n = ::recv(fd, bytes + got, length - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

std::optional<std::vector<std::uint8_t>> RawFramePeer::readFrameBytes(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::vector<std::uint8_t> bytes(5);
    if (!readExactly(bytes.data(), 5, deadline)) return std::nullopt;
    const std::uint32_t length = bytes[1] | (bytes[2] << 8) | (bytes[3] << 16) |
                                 (static_cast<std::uint32_t>(bytes[4]) << 24);
    bytes.resize(5 + static_cast<std::size_t>(length));
    if (!readExactly(bytes.data() + 5, length, deadline)) return std::nullopt;
    return bytes;
}

std::optional<nlohmann::json> RawFramePeer::readEnvelope(std::chrono::milliseconds timeout) {
    const auto bytes = readFrameBytes(timeout);
    if (!bytes) return std::nullopt;
    auto envelope = nlohmann::json::parse(bytes->begin() + 5, bytes->end(), nullptr, false);
    if (envelope.is_discarded()) return std::nullopt;
    return envelope;
}

bool RawFramePeer::waitForClose(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::uint8_t sink[4096];
    for (;;) {
        if (!waitReadable(fd, deadline)) return false;
        const ssize_t n = ::recv(fd, sink, sizeof sink, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
        if (n < 0) return false;
    }
}

bool RawFramePeer::staysSilent(std::chrono::milliseconds window) {
    return !waitReadable(fd, std::chrono::steady_clock::now() + window);
}

RawFrameListener::RawFrameListener(const std::string& path) {
    sockaddr_un address;
    if (!makeAddress(path, address)) return;
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 16) != 0) {
        ::close(fd);
        fd = -1;
    }
}

RawFrameListener::~RawFrameListener() {
    if (fd >= 0) ::close(fd);
}

std::unique_ptr<RawFramePeer> RawFrameListener::accept(std::chrono::milliseconds timeout) {
    if (!waitReadable(fd, std::chrono::steady_clock::now() + timeout)) return nullptr;
    const int connection = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) return nullptr;
    return std::make_unique<RawFramePeer>(connection);
}
