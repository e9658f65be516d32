#include "support/RawFramePeer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace {

// A connected socket with the peer's time-outs, or -1.
int connectWithPatience(const sockaddr_un& address) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval timeout{RawFramePeer::patience.count(), 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);  // connect too
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        fd = -1;
    }
    return fd;
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

}  // namespace

RawFramePeer::RawFramePeer(const std::string& path) : fd(connectWithPatience(addressOf(path))) {}

std::vector<std::unique_ptr<RawFramePeer>> RawFramePeer::connectAsUser(const std::string& path, uid_t uid,
                                                                        int count) {
    // The kernel records a connection's credentials from the thread that calls connect(). The
    // raw system call, unlike glibc's setresuid, changes the calling thread alone, so one
    // short-lived thread connects as uid while the rest of the process keeps its ids.
    std::vector<std::unique_ptr<RawFramePeer>> peers;
    std::thread([&] {
        const uid_t original = ::geteuid();
        if (::syscall(SYS_setresuid, -1, uid, -1) != 0) return;
        while (static_cast<int>(peers.size()) < count) {
            auto peer = std::unique_ptr<RawFramePeer>(new RawFramePeer(path));
            if (!peer->isConnected()) break;
            peers.push_back(std::move(peer));
        }
        ::syscall(SYS_setresuid, -1, original, -1);
    }).join();
    if (static_cast<int>(peers.size()) != count) peers.clear();
    return peers;
}

void RawFramePeer::close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

std::vector<std::uint8_t> RawFramePeer::frame(const std::string& body, std::uint8_t marker) {
    std::vector<std::uint8_t> bytes{marker};
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(body.size() >> (8 * i)));
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

bool RawFramePeer::sendBytes(const std::vector<std::uint8_t>& bytes) {  // a blocking send takes them all
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::optional<std::vector<std::uint8_t>> RawFramePeer::readFrameBytes() {
    std::vector<std::uint8_t> bytes(5);
    if (::recv(fd, bytes.data(), 5, MSG_WAITALL) != 5) return std::nullopt;
    std::uint32_t length = 0;
    for (std::size_t i = 4; i >= 1; --i) length = (length << 8) | bytes[i];
    bytes.resize(5 + length);
    if (::recv(fd, bytes.data() + 5, length, MSG_WAITALL) != static_cast<ssize_t>(length)) return std::nullopt;
    return bytes;
}

bool RawFramePeer::waitForClose() {
    std::uint8_t sink[4096];
    ssize_t n = 0;
    while ((n = ::recv(fd, sink, sizeof sink, 0)) > 0) continue;
    return n == 0;
}

bool RawFramePeer::staysSilent(std::chrono::milliseconds window) {
    pollfd watched{fd, POLLIN, 0};
    return ::poll(&watched, 1, static_cast<int>(window.count())) == 0;
}
