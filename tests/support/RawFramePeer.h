#pragma once
// RawFramePeer: one end of a channel connection played by the test itself, byte by byte. It
// encodes and decodes frames on its own (marker byte, little-endian length, JSON body) so that
// tests check the endpoint against the wire format rather than against the endpoint's own code.
// RawFrameListener: a listening Unix socket whose accepted connections become RawFramePeers,
// for tests of the client end.
//
// Threads: one test thread per object. Every read takes a deadline; nothing blocks for ever.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

class RawFramePeer {
public:
    static constexpr std::chrono::milliseconds defaultTimeout{5000};

    // Connects to the Unix socket at path; isConnected() tells whether that worked.
    explicit RawFramePeer(const std::string& path);
    // Takes over a connected descriptor.
    explicit RawFramePeer(int descriptor) : fd(descriptor) {}
    ~RawFramePeer();
    RawFramePeer(const RawFramePeer&) = delete;
    RawFramePeer& operator=(const RawFramePeer&) = delete;

    bool isConnected() const { return fd >= 0; }
    int descriptor() const { return fd; }

    // The frame bytes of a JSON text, with the given marker byte.
    static std::vector<std::uint8_t> frame(const std::string& body, std::uint8_t marker = 0);
    bool sendBytes(const std::vector<std::uint8_t>& bytes);
    bool sendEnvelope(const nlohmann::json& envelope) { return sendBytes(frame(envelope.dump())); }
    // A command envelope {"command", "messageid", "content"}.
    bool sendCommand(const std::string& command, const std::string& messageId,
                     const nlohmann::json& content = nlohmann::json::object());
    bool sendReply(const std::string& replyId, const nlohmann::json& content,
                   const std::string& messageId = "900");

    // One whole frame (header included), or nothing on time-out or end of connection.
    std::optional<std::vector<std::uint8_t>> readFrameBytes(
        std::chrono::milliseconds timeout = defaultTimeout);
    // The envelope of the next frame, or nothing.
    std::optional<nlohmann::json> readEnvelope(std::chrono::milliseconds timeout = defaultTimeout);
    // True when the other end closes the connection within timeout (bytes still arriving are
    // read and dropped).
    bool waitForClose(std::chrono::milliseconds timeout = defaultTimeout);
    // True when nothing arrives within window.
    bool staysSilent(std::chrono::milliseconds window);
    void close();

private:
    bool readExactly(std::uint8_t* bytes, std::size_t length,
                     std::chrono::steady_clock::time_point deadline);

    int fd = -1;
};

class RawFrameListener {
public:
    explicit RawFrameListener(const std::string& path);
    ~RawFrameListener();
    RawFrameListener(const RawFrameListener&) = delete;
    RawFrameListener& operator=(const RawFrameListener&) = delete;

    bool isListening() const { return fd >= 0; }
    // The next connection, or null when none arrives within timeout.
    std::unique_ptr<RawFramePeer> accept(
        std::chrono::milliseconds timeout = RawFramePeer::defaultTimeout);

private:
    int fd = -1;
};
