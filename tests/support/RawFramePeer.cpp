#include "support/RawFramePeer.h"

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

namespace {

// A connected socket with the peer's time-outs, or -1. Async-signal-safe, for a forked child.
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
    // The kernel records a connection's credentials when connect() is called, so descriptors
    // passed to this process keep the child's user id.
    const sockaddr_un address = addressOf(path);
    int channel[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0) return {};
    const pid_t child = ::fork();
    if (child == 0) {  // only async-signal-safe calls: the test process may have threads
        ::close(channel[0]);
        if (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0) ::_exit(1);
        for (int i = 0; i < count; ++i) {
            const int connection = connectWithPatience(address);
            if (connection < 0) ::_exit(1);
            char control[CMSG_SPACE(sizeof(int))] = {};
            char byte = 0;
            iovec payload{&byte, 1};
            msghdr message{};
            message.msg_iov = &payload;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            cmsghdr* header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(sizeof(int));
            std::memcpy(CMSG_DATA(header), &connection, sizeof(int));
            if (::sendmsg(channel[1], &message, MSG_NOSIGNAL) != 1) ::_exit(1);
            ::close(connection);
        }
        ::_exit(0);
    }
    ::close(channel[1]);
    std::vector<std::unique_ptr<RawFramePeer>> peers;
    while (child > 0 && static_cast<int>(peers.size()) < count) {
        char control[CMSG_SPACE(sizeof(int))] = {};
        char byte;
        iovec payload{&byte, 1};
        msghdr message{};
        message.msg_iov = &payload;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        if (::recvmsg(channel[0], &message, MSG_CMSG_CLOEXEC) != 1) break;
        const cmsghdr* header = CMSG_FIRSTHDR(&message);
        if (header == nullptr || header->cmsg_type != SCM_RIGHTS) break;
        int descriptor;
        std::memcpy(&descriptor, CMSG_DATA(header), sizeof(int));
        peers.push_back(std::unique_ptr<RawFramePeer>(new RawFramePeer(Adopted{}, descriptor)));
    }
    ::close(channel[0]);
    int status = 0;
    if (child > 0) ::waitpid(child, &status, 0);
    if (child <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) peers.clear();
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
