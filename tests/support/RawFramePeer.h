#pragma once
// RawFramePeer: a channel connection played by the test itself. It frames and unframes on its own
// (marker, little-endian length, JSON body), so endpoints are checked against the wire format
// rather than against their own code. Every connect, send and receive gives up after 5 s
// (stretched under sanitizers).

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

#include <nlohmann/json.hpp>

#include "support/Eventually.h"

class RawFramePeer {
public:
    explicit RawFramePeer(const std::string& path) : fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval timeout{5 * sanitizerSlowdown, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);  // connect too
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) close();
    }
    // count peers connected with uid as their effective user id (needs root), so that the
    // server sees uid in their peer credentials; empty when any of them fails.
    static std::vector<std::unique_ptr<RawFramePeer>> connectAsUser(const std::string& path, uid_t uid, int count) {
        // The kernel records a connection's credentials from the thread that calls connect(). The
        // raw system call, unlike glibc's setresuid, changes the calling thread alone, so one
        // short-lived thread connects as uid while the rest of the process keeps its ids.
        std::vector<std::unique_ptr<RawFramePeer>> peers;
        std::thread([&] {
            const uid_t original = ::geteuid();
            if (::syscall(SYS_setresuid, -1, uid, -1) != 0) return;
            while (static_cast<int>(peers.size()) < count) {
                auto peer = std::make_unique<RawFramePeer>(path);
                if (!peer->isConnected()) break;
                peers.push_back(std::move(peer));
            }
            ::syscall(SYS_setresuid, -1, original, -1);
        }).join();
        if (static_cast<int>(peers.size()) != count) peers.clear();
        return peers;
    }
    ~RawFramePeer() { close(); }
    RawFramePeer(const RawFramePeer&) = delete;
    RawFramePeer& operator=(const RawFramePeer&) = delete;

    bool isConnected() const { return fd >= 0; }
    int descriptor() const { return fd; }
    static std::vector<std::uint8_t> frame(const std::string& body, std::uint8_t marker = 0) {
        std::vector<std::uint8_t> bytes{marker};
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(body.size() >> (8 * i)));
        bytes.insert(bytes.end(), body.begin(), body.end());
        return bytes;
    }
    // A compact command envelope with messageid id whose JSON text is exactly size bytes long.
    static std::string envelopeOfSize(std::size_t size, const std::string& id = "1") {
        const std::string head = R"({"command":"c","content":{"pad":")", tail = R"("},"messageid":")" + id + R"("})";
        return head + std::string(size - head.size() - tail.size(), 'p') + tail;
    }
    bool sendBytes(const std::vector<std::uint8_t>& bytes) {  // all of them (a blocking send), or false
        return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool sendEnvelope(const nlohmann::json& envelope) { return sendBytes(frame(envelope.dump())); }
    bool sendReply(const std::string& replyId, const nlohmann::json& content) {
        return sendEnvelope({{"command", "reply"}, {"messageid", "900"}, {"replyid", replyId}, {"content", content}});
    }
    std::optional<nlohmann::json> readEnvelope() {  // nothing on time-out or close; any marker goes
        std::uint8_t header[5];
        if (::recv(fd, header, 5, MSG_WAITALL) != 5) return std::nullopt;
        const std::uint32_t length = header[1] | header[2] << 8 | header[3] << 16 | std::uint32_t(header[4]) << 24;
        std::string body(length, '\0');
        if (::recv(fd, body.data(), length, MSG_WAITALL) != static_cast<ssize_t>(length)) return std::nullopt;
        return nlohmann::json::parse(body, nullptr, false);
    }
    bool waitForClose() {  // true when the other end closes in time; frames still arriving are dropped
        std::uint8_t sink[4096];
        ssize_t n = 0;
        while ((n = ::recv(fd, sink, sizeof sink, 0)) > 0) continue;
        // A close with bytes of ours still unread arrives as a reset.
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }
    bool staysSilent(std::chrono::milliseconds window) {
        pollfd watched{fd, POLLIN, 0};
        return ::poll(&watched, 1, static_cast<int>(window.count())) == 0;
    }
    void close() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }

private:
    int fd = -1;
};
