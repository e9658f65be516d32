#pragma once
// RawFramePeer: a channel connection played by the test itself. It frames and unframes on its own
// (marker, little-endian length, JSON body), so endpoints are checked against the wire format
// rather than against their own code. Every connect, send and receive gives up after patience
// (stretched under sanitizers).

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/Eventually.h"

class RawFramePeer {
public:
    static constexpr std::chrono::seconds patience{5 * sanitizerSlowdown};

    explicit RawFramePeer(const std::string& path);  // connects; isConnected() tells
    // count peers connected with uid as their effective user id (needs root), so that the
    // server sees uid in their peer credentials; empty when any of them fails.
    static std::vector<std::unique_ptr<RawFramePeer>> connectAsUser(const std::string& path, uid_t uid, int count);
    ~RawFramePeer() { close(); }
    RawFramePeer(const RawFramePeer&) = delete;
    RawFramePeer& operator=(const RawFramePeer&) = delete;

    bool isConnected() const { return fd >= 0; }
    int descriptor() const { return fd; }
    static std::vector<std::uint8_t> frame(const std::string& body, std::uint8_t marker = 0);
    // A compact command envelope with messageid id whose JSON text is exactly size bytes long.
    static std::string envelopeOfSize(std::size_t size, const std::string& id = "1") {
        const std::string head = R"({"command":"c","content":{"pad":")", tail = R"("},"messageid":")" + id + R"("})";
        return head + std::string(size - head.size() - tail.size(), 'p') + tail;
    }
    bool sendBytes(const std::vector<std::uint8_t>& bytes);  // all of them, or false
    bool sendEnvelope(const nlohmann::json& envelope) { return sendBytes(frame(envelope.dump())); }
    bool sendReply(const std::string& replyId, const nlohmann::json& content) {
        return sendEnvelope({{"command", "reply"}, {"messageid", "900"}, {"replyid", replyId}, {"content", content}});
    }
    std::optional<std::vector<std::uint8_t>> readFrameBytes();  // header included; nothing on time-out or close
    std::optional<nlohmann::json> readEnvelope() {
        const auto bytes = readFrameBytes();
        return bytes ? nlohmann::json::parse(bytes->begin() + 5, bytes->end(), nullptr, false) : std::optional<nlohmann::json>();
    }
    bool waitForClose();  // true when the other end closes in time; frames still arriving are dropped
    bool staysSilent(std::chrono::milliseconds window);
    void close();

private:
    int fd = -1;
};
