#pragma once
// RawFramePeer: a channel connection played by the test itself, byte by byte. It frames and
// unframes on its own (marker, little-endian length, JSON body), so that tests check endpoints
// against the wire format rather than against the endpoint's own code. Reads take a deadline.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

class RawFramePeer {
public:
    static constexpr std::chrono::milliseconds patience{5000};

    explicit RawFramePeer(const std::string& path);  // connects; isConnected() tells
    ~RawFramePeer() { close(); }
    RawFramePeer(const RawFramePeer&) = delete;
    RawFramePeer& operator=(const RawFramePeer&) = delete;

    bool isConnected() const { return fd >= 0; }
    static std::vector<std::uint8_t> frame(const std::string& body, std::uint8_t marker = 0);
    bool sendBytes(const std::vector<std::uint8_t>& bytes);
    bool sendEnvelope(const nlohmann::json& envelope) { return sendBytes(frame(envelope.dump())); }
    bool sendReply(const std::string& replyId, const nlohmann::json& content) {
        return sendEnvelope({{"command", "reply"}, {"messageid", "900"}, {"replyid", replyId}, {"content", content}});
    }
    // One whole frame, header included; nothing on time-out or end of connection.
    std::optional<std::vector<std::uint8_t>> readFrameBytes(std::chrono::milliseconds timeout = patience);
    std::optional<nlohmann::json> readEnvelope(std::chrono::milliseconds timeout = patience);
    // True when the other end closes within timeout (frames still arriving are dropped).
    bool waitForClose(std::chrono::milliseconds timeout = patience);
    bool staysSilent(std::chrono::milliseconds window);
    void close();

private:
    bool readExactly(std::uint8_t* bytes, std::size_t length, std::chrono::steady_clock::time_point deadline);
    int fd = -1;
};
