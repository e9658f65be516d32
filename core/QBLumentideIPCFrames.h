#pragma once
// Private to QBLumentideIPC: the frame layout on plain inputs, shared by the endpoint's files
// (and by the GUI stand-in in tools/, which speaks the client's end without an endpoint). One
// encoder (encodeFrame) writes every frame the channel sends; one decoder (InboundFrames) takes
// apart every frame it receives, for a connection's reader as for readFrame().

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace QBLumentideIPCFrames {

// marker byte + 4 length bytes
constexpr std::size_t headerSize = 5;
// A long frame makes a connection's buffers grow; between frames a connection keeps at most
// this much of them, not a megabyte per idle connection.
constexpr std::size_t retainedBufferSize = 64 * 1024;

// One member of an envelope: a text (the command and the ids) or any JSON value (the content).
struct Member {
    std::string_view key;
    const std::string* text = nullptr;
    const nlohmann::json* value = nullptr;
};

// Replaces frame with the frame of the envelope made of members: the marker 0x00, the body
// length little-endian, then the compact JSON of the object, members in the order given (the
// library's own order is by key, so callers give them so), invalid UTF-8 in strings replaced
// rather than thrown about. Writing the members straight into frame, a buffer that the caller
// reuses, spares building an envelope object per message. False, with frame unspecified, when
// the body would exceed QBLumentideIPC::maximumFrameBodyLength.
bool encodeFrame(std::string& frame, std::span<const Member> members);

// Writes size bytes in calls of at most transferChunkSize, each given what the last ones left;
// false at the first call that takes nothing or fails. The header and the first body bytes so
// always leave in the first call.
template <typename Send>
bool writeInPieces(const std::uint8_t* bytes, std::size_t size, std::size_t transferChunkSize, const Send& send) {
    std::size_t written = 0;
    while (written < size) {
        const std::size_t piece = std::min(size - written, transferChunkSize);
        const std::ptrdiff_t accepted = send(bytes + written, piece);
        if (accepted <= 0) return false;
        written += static_cast<std::size_t>(accepted);
    }
    return true;
}

// The envelope in a frame's body; nothing for bad JSON, a top level that is not an object, too
// deep a nesting or too many values.
std::optional<nlohmann::json> decodeEnvelope(std::string_view body);

// The frames of one byte stream, put together from what successive receive calls return: the
// marker may be any byte, the four length bytes must arrive together, the body may come in
// pieces. Bytes that arrive beyond a frame stay for the next one. A body is handed out as a view
// into the buffer, so it is parsed where it was received.
class InboundFrames {
public:
    // initialSize: the buffer's first size; a connection's reader starts with room for a few
    // typical frames, a single frame's reader with room for one small frame.
    explicit InboundFrames(std::size_t initialSize = receiveSize) : bytes(initialSize) {}

    enum class Step {
        frame,      // body holds the next frame's body
        needInput,  // nothing more without another receive call
        needTopUp,  // one to three length bytes arrived: take what else has come, then decide
        broken,     // zero or too long a length, or length bytes that never came together
    };

    // Where the next receive call writes, for a reader that takes what has come: up to
    // receiveSize bytes, or the rest of the body in progress when that is more, so that every
    // body ends up in one piece.
    std::span<std::uint8_t> space();
    // Where the next receive call writes, for a reader that must not take a byte beyond the
    // frame: the marker, the missing length bytes, or the next transfer chunk of the body. The
    // buffer grows as the body arrives, so five bytes that announce a megabyte cost no megabyte.
    std::span<std::uint8_t> exactSpace();
    void received(std::size_t count) { end += count; }

    // toppedUp: a top-up receive was made since needTopUp was returned (or none is possible).
    Step next(std::string_view& body, bool toppedUp);

private:
    enum class Stage { marker, length, body };
    // One receive call takes what a few typical frames need; fewer calls mean fewer switches
    // into the kernel, the dearest step of a round trip.
    static constexpr std::size_t receiveSize = 4096;

    std::size_t available() const { return end - start; }
    std::span<std::uint8_t> reserve(std::size_t wanted);

    std::vector<std::uint8_t> bytes;
    std::size_t start = 0;  // first byte not yet taken
    std::size_t end = 0;    // one past the last byte received
    Stage stage = Stage::marker;
    std::size_t bodyLength = 0;
};

}  // namespace QBLumentideIPCFrames
