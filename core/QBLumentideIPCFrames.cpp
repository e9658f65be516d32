// QBLumentideIPC, frames: the one encoder, the one decoder and the frame calls on plain inputs.

#include "QBLumentideIPCFrames.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "QBLumentideIPC.h"

using nlohmann::json;

namespace QBLumentideIPCFrames {

namespace {

std::string compactJSON(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// Names and ids are mostly printable ASCII that needs no escaping, and are then copied as they
// are; anything else goes through the library.
void appendString(std::string& frame, std::string_view text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u >= 0x20 && u < 0x7F && u != '"' && u != '\\';
    });
    if (!plain) {
        frame += compactJSON(json(std::string(text)));
        return;
    }
    frame += '"';
    frame += text;
    frame += '"';
}

}  // namespace

bool encodeFrame(std::string& frame, std::span<const Member> members) {
    frame.assign(headerSize, '\0');
    frame += '{';
    for (const Member& member : members) {
        if (frame.size() > headerSize + 1) frame += ',';
        appendString(frame, member.key);
        frame += ':';
        if (member.text) {
            appendString(frame, *member.text);
        } else {
            frame += compactJSON(*member.value);
        }
    }
    frame += '}';
    const std::size_t length = frame.size() - headerSize;
    if (length > QBLumentideIPC::maximumFrameBodyLength) return false;
    for (std::size_t i = 0; i < 4; ++i) frame[1 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
    return true;
}

namespace {

// A parse that builds nothing: it checks that a body is valid JSON within the nesting and value
// limits before a tree is built from it, so that what a tree costs is bounded by the frame's
// size and maximumValuesPerFrame. Stops at the first value over a limit.
class BodyCheck {
public:
    bool null() { return counted(); }
    bool boolean(bool) { return counted(); }
    bool number_integer(json::number_integer_t) { return counted(); }
    bool number_unsigned(json::number_unsigned_t) { return counted(); }
    bool number_float(json::number_float_t, const json::string_t&) { return counted(); }
    bool string(json::string_t&) { return counted(); }
    bool binary(json::binary_t&) { return counted(); }
    bool key(json::string_t&) { return counted(); }
    bool start_object(std::size_t) { return opened(); }
    bool start_array(std::size_t) { return opened(); }
    bool end_object() { return closed(); }
    bool end_array() { return closed(); }
    bool parse_error(std::size_t, const std::string&, const json::exception&) { return false; }

private:
    bool counted() { return ++values <= QBLumentideIPC::maximumValuesPerFrame; }
    bool opened() { return ++depth <= QBLumentideIPC::maximumNestingDepth && counted(); }
    bool closed() {
        --depth;
        return true;
    }

    std::size_t values = 0;
    int depth = 0;
};

}  // namespace

std::optional<json> decodeEnvelope(std::string_view body) {
    // Every value starts at a byte of its own, and valid JSON spends two bytes per level of
    // nesting, so a body this short is within both limits: most messages skip the check.
    constexpr std::size_t shortBody = std::min(QBLumentideIPC::maximumValuesPerFrame,
                                               2 * static_cast<std::size_t>(QBLumentideIPC::maximumNestingDepth));
    if (body.size() > shortBody) {
        try {
            BodyCheck check;
            if (!json::sax_parse(body.begin(), body.end(), &check)) return std::nullopt;
        } catch (const std::exception&) {
            return std::nullopt;  // the library reports errors to the handler; this is only a guard
        }
    }
    json envelope = json::parse(body.begin(), body.end(), nullptr, false);
    if (envelope.is_discarded() || !envelope.is_object()) return std::nullopt;
    return envelope;
}

std::span<std::uint8_t> InboundFrames::reserve(std::size_t wanted) {
    if (start == end) {
        start = end = 0;
        if (bytes.size() > retainedBufferSize) std::vector<std::uint8_t>(receiveSize).swap(bytes);
    }
    if (bytes.size() - end < wanted) {
        std::memmove(bytes.data(), bytes.data() + start, available());
        end -= start;
        start = 0;
        if (bytes.size() - end < wanted) bytes.resize(end + wanted);
    }
    return {bytes.data() + end, wanted};
}

std::span<std::uint8_t> InboundFrames::space() {
    std::size_t wanted = receiveSize;
    if (stage == Stage::body && bodyLength > available()) wanted = std::max(wanted, bodyLength - available());
    return reserve(wanted);
}

std::span<std::uint8_t> InboundFrames::exactSpace() {
    switch (stage) {
    case Stage::marker:
        return reserve(available() < 1 ? 1 : 0);
    case Stage::length:
        return reserve(available() < 4 ? 4 - available() : 0);
    case Stage::body:
        break;
    }
    const std::size_t missing = bodyLength > available() ? bodyLength - available() : 0;
    return reserve(std::min(missing, QBLumentideIPC::transferChunkSize));
}

InboundFrames::Step InboundFrames::next(std::string_view& body, bool toppedUp) {
    if (stage == Stage::marker) {
        if (available() == 0) return Step::needInput;
        ++start;  // its value carries no meaning
        stage = Stage::length;
    }
    if (stage == Stage::length) {
        const std::size_t have = available();
        if (have == 0) return Step::needInput;
        if (have < 4) return toppedUp ? Step::broken : Step::needTopUp;
        std::uint32_t length = 0;
        for (int i = 3; i >= 0; --i) length = (length << 8) | bytes[start + static_cast<std::size_t>(i)];
        start += 4;
        if (length == 0 || length > QBLumentideIPC::maximumFrameBodyLength) return Step::broken;
        bodyLength = length;
        stage = Stage::body;
    }
    if (available() < bodyLength) return Step::needInput;
    body = {reinterpret_cast<const char*>(bytes.data() + start), bodyLength};
    start += bodyLength;
    stage = Stage::marker;
    return Step::frame;
}

}  // namespace QBLumentideIPCFrames

using QBLumentideIPCFrames::InboundFrames;

std::vector<std::uint8_t> QBLumentideIPC::frameWithEnvelope(const json& envelope) {
    if (!envelope.is_object()) return {};
    std::vector<QBLumentideIPCFrames::Member> members;
    members.reserve(envelope.size());
    for (const auto& [key, value] : envelope.items()) members.push_back({key, nullptr, &value});
    std::string frame;
    if (!QBLumentideIPCFrames::encodeFrame(frame, members)) return {};
    return {frame.begin(), frame.end()};
}

bool QBLumentideIPC::writeFrame(const std::vector<std::uint8_t>& frame, const SendCall& send) {
    return QBLumentideIPCFrames::writeInPieces(frame.data(), frame.size(), transferChunkSize, send);
}

namespace {

// What a single frame's reader allocates first: a typical command or reply fits, a longer body
// grows the buffer as it arrives.
constexpr std::size_t singleFrameSize = 256;

}  // namespace

std::optional<json> QBLumentideIPC::readFrame(const ReceiveCall& receive) {
    // Each call is asked for exactly what the frame still lacks, so nothing beyond it is taken:
    // one marker byte, the four length bytes (a call that brings fewer breaks the frame), then
    // the body in transfer chunks.
    InboundFrames frames(singleFrameSize);
    for (;;) {
        std::string_view body;
        switch (frames.next(body, true)) {
        case InboundFrames::Step::frame:
            return QBLumentideIPCFrames::decodeEnvelope(body);
        case InboundFrames::Step::needInput:
            break;
        case InboundFrames::Step::needTopUp:
        case InboundFrames::Step::broken:
            return std::nullopt;
        }
        const std::span<std::uint8_t> space = frames.exactSpace();
        const std::ptrdiff_t got = receive(space.data(), space.size());
        if (got <= 0) return std::nullopt;
        frames.received(std::min(static_cast<std::size_t>(got), space.size()));
    }
}

std::optional<json> QBLumentideIPC::getMessage(int socket) {
    return readFrame([socket](std::uint8_t* bytes, std::size_t length) -> std::ptrdiff_t {
        for (;;) {
            const ssize_t received = ::recv(socket, bytes, length, 0);
            if (received < 0 && errno == EINTR) continue;
            return received;
        }
    });
}

bool QBLumentideIPC::isValidEnvelope(const json& envelope) {
    const auto command = envelope.find("command");
    if (command == envelope.end() || !command->is_string()) return false;
    const auto messageId = envelope.find("messageid");
    if (messageId == envelope.end() || !messageId->is_string()) return false;
    const auto content = envelope.find("content");
    return content != envelope.end() && content->is_object();
}

std::int32_t QBLumentideIPC::nextMessageId(std::int32_t last) {
    return last == INT32_MAX ? 0 : last + 1;
}
