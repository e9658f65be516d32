// Frames on plain inputs: how a frame is handed to send calls and which bytes a reader accepts.

#include <gtest/gtest.h>

#include <algorithm>

#include "QBLumentideIPC.h"
#include "support/RawFramePeer.h"

using nlohmann::json;

namespace {

constexpr auto envelopeOfSize = [](std::size_t size) { return RawFramePeer::envelopeOfSize(size); };

// Reads a frame from bytes; each receive call returns at most the next limit (if any).
// Zero lengths, non-object bodies, invalid JSON and a split length are checked on a connection.
std::optional<json> readFrom(const std::vector<std::uint8_t>& bytes, std::vector<std::size_t> limits = {},
                             std::vector<std::size_t>* requested = nullptr) {
    std::size_t position = 0;
    return QBLumentideIPC::readFrame([&](std::uint8_t* out, std::size_t length) {
        if (requested) requested->push_back(length);
        std::size_t n = std::min(length, bytes.size() - position);
        if (!limits.empty()) n = std::min(n, limits.front()), limits.erase(limits.begin());
        std::copy_n(bytes.data() + position, n, out);
        position += n;
        return static_cast<std::ptrdiff_t>(n);
    });
}

}  // namespace

TEST(QBLumentideIPCFrameTest, FramesLeaveInPiecesOfAtMost1024BytesAndStopAtAFailure) {
    // Body size, send calls, the call that fails (0: none). Header and 1019 bytes fill one call.
    const std::tuple<std::size_t, std::vector<std::size_t>, std::size_t> cases[] = {
        {1019, {1024}, 0}, {1020, {1024, 1}, 0}, {3000, {1024, 1024, 957}, 0}, {3000, {1024, 1024}, 2}};
    for (const auto& [bodySize, expectedCalls, failing] : cases) {
        const auto frame = QBLumentideIPC::frameWithEnvelope(json::parse(envelopeOfSize(bodySize)));
        std::vector<std::size_t> calls;
        std::vector<std::uint8_t> sent;
        EXPECT_EQ(QBLumentideIPC::writeFrame(frame, [&](const std::uint8_t* bytes, std::size_t n) {
            calls.push_back(n);
            sent.insert(sent.end(), bytes, bytes + n);
            return calls.size() == failing ? -1 : static_cast<std::ptrdiff_t>(n);
        }), failing == 0) << bodySize;
        EXPECT_EQ(calls, expectedCalls) << bodySize;
        if (!failing) { EXPECT_EQ(sent, RawFramePeer::frame(envelopeOfSize(bodySize))) << bodySize; }
    }
}

TEST(QBLumentideIPCFrameTest, ReaderTakesMarkerAndLengthInOneCallEachAndTheBodyInPieces) {
    std::vector<std::size_t> requested;
    const auto envelope = readFrom(RawFramePeer::frame(envelopeOfSize(2100), 0x7F), {1, 4, 1024, 300}, &requested);
    EXPECT_EQ(envelope, json::parse(envelopeOfSize(2100))) << "the marker's value does not matter";
    EXPECT_EQ(requested, (std::vector<std::size_t>{1, 4, 1024, 1024, 776}));
}

TEST(QBLumentideIPCFrameTest, UnreadableFramesGiveNothingAndLimitsAreInclusive) {
    constexpr auto frame = [](const std::string& body) { return RawFramePeer::frame(body); };
    const auto nested = [](int depth) {  // depth counts the envelope itself
        return R"({"command":"c","messageid":"1","content":{"a":)" + std::string(depth - 2, '[') + std::string(depth - 2, ']') + "}}";
    };
    const auto withValues = [](std::size_t values) {  // 9 of them, keys included, besides the zeros
        std::string zeros = "0";
        for (std::size_t i = 11; i <= values; ++i) zeros += ",0";
        return R"({"command":"c","messageid":"1","content":{"a":[)" + zeros + "]}}";
    };
    std::string keys = R"({"k0":0)";  // as many keys as values, half of them
    for (std::size_t i = 1; i < QBLumentideIPC::maximumValuesPerFrame / 2; ++i) keys += ",\"k" + std::to_string(i) + "\":0";
    keys += "}";
    auto truncated = frame(R"({"command":"c","messageid":"1","content":{}})");
    truncated.pop_back();
    const std::string longest = envelopeOfSize(QBLumentideIPC::maximumFrameBodyLength);
    const std::pair<const char*, std::vector<std::uint8_t>> unreadable[] = {
        {"nothing", {}}, {"body cut short", truncated}, {"invalid UTF-8", frame("{\"a\":\"\xC3\x28\"}")},
        {"length past the limit", frame(envelopeOfSize(longest.size() + 1))}, {"largest length", {0, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"nesting past the limit", frame(nested(QBLumentideIPC::maximumNestingDepth + 1))},
        {"nesting past the limit after a string that ends in a backslash",
         frame(R"({"a":"\\","b":)" + std::string(QBLumentideIPC::maximumNestingDepth, '[') +
               std::string(QBLumentideIPC::maximumNestingDepth, ']') + "}")},
        {"values past the budget", frame(withValues(QBLumentideIPC::maximumValuesPerFrame + 1))},
        {"values past the budget, counting keys", frame(keys)}};
    for (const auto& [name, bytes] : unreadable) EXPECT_EQ(readFrom(bytes), std::nullopt) << name;

    EXPECT_TRUE(readFrom(frame(nested(QBLumentideIPC::maximumNestingDepth))));
    EXPECT_TRUE(readFrom(frame(withValues(QBLumentideIPC::maximumValuesPerFrame))));
    EXPECT_TRUE(readFrom(frame(R"({"a":")" + std::string(500, '[') + R"(\"{"})")));
    EXPECT_TRUE(readFrom(frame(longest)));
    EXPECT_EQ(QBLumentideIPC::frameWithEnvelope(json::parse(longest)).size(), longest.size() + 5);
    EXPECT_TRUE(QBLumentideIPC::frameWithEnvelope(json::parse(envelopeOfSize(longest.size() + 1))).empty());
}
