// Frames on plain inputs: the bytes an envelope becomes, how they are handed to send calls, and
// which byte sequences a reader accepts.

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "QBLumentideIPC.h"
#include "support/RawFramePeer.h"

using nlohmann::json;

namespace {

// Serves bytes to readFrame and records the length asked for by every receive call. A script
// entry limits what one call may return (the rest of the bytes stay for later calls).
class ScriptedInput {
public:
    explicit ScriptedInput(std::vector<std::uint8_t> bytes, std::deque<std::size_t> limits = {})
        : bytes(std::move(bytes)), limits(std::move(limits)) {}

    QBLumentideIPC::ReceiveCall call() {
        return [this](std::uint8_t* out, std::size_t length) -> std::ptrdiff_t {
            requested.push_back(length);
            std::size_t n = std::min(length, bytes.size() - position);
            if (!limits.empty()) {
                n = std::min(n, limits.front());
                limits.pop_front();
            }
            if (n > 0) std::memcpy(out, bytes.data() + position, n);
            position += n;
            return static_cast<std::ptrdiff_t>(n);
        };
    }

    std::vector<std::size_t> requested;

private:
    std::vector<std::uint8_t> bytes;
    std::deque<std::size_t> limits;
    std::size_t position = 0;
};

std::vector<std::uint8_t> frameOf(const std::string& body, std::uint8_t marker = 0) {
    return RawFramePeer::frame(body, marker);
}

// A compact envelope whose JSON text is exactly size bytes long (size >= 60).
std::string envelopeTextOfSize(std::size_t size) {
    const std::string head = R"({"command":"x","content":{"pad":")";
    const std::string tail = R"("},"messageid":"1"})";
    return head + std::string(size - head.size() - tail.size(), 'a') + tail;
}

}  // namespace

TEST(QBLumentideIPCFrameTest, StateRequestFrameIsSeventyBytesWithLittleEndianHeader) {
    const json envelope = {{"command", "serviceCmd"}, {"messageid", "1"}, {"content", {{"command", "state"}}}};
    const auto frame = QBLumentideIPC::frameWithEnvelope(envelope);
    ASSERT_EQ(frame.size(), 75u);
    EXPECT_EQ(std::vector<std::uint8_t>(frame.begin(), frame.begin() + 5),
              (std::vector<std::uint8_t>{0x00, 0x46, 0x00, 0x00, 0x00}));
    const std::string body(frame.begin() + 5, frame.end());
    EXPECT_EQ(body.find_first_of(" \n"), std::string::npos) << "JSON must be compact: " << body;
    EXPECT_EQ(json::parse(body), envelope);
}

TEST(QBLumentideIPCFrameTest, BooleansAndNumbersKeepTheirTypes) {
    const json envelope = {{"command", "c"}, {"messageid", "1"}, {"content", {{"on", true}, {"n", 1}}}};
    const auto frame = QBLumentideIPC::frameWithEnvelope(envelope);
    EXPECT_NE(std::string(frame.begin() + 5, frame.end()).find(R"("on":true)"), std::string::npos);
}

TEST(QBLumentideIPCFrameTest, FramesLeaveInPiecesOfAtMost1024Bytes) {
    struct Case {
        std::size_t bodySize;
        std::vector<std::size_t> expectedCalls;
    };
    // 5 header bytes plus 1019 body bytes fill exactly one call.
    for (const Case& c : {Case{1019, {1024}}, Case{1020, {1024, 1}}, Case{3000, {1024, 1024, 957}}}) {
        const auto frame = QBLumentideIPC::frameWithEnvelope(json::parse(envelopeTextOfSize(c.bodySize)));
        ASSERT_EQ(frame.size(), c.bodySize + 5);
        std::vector<std::size_t> calls;
        std::vector<std::uint8_t> received;
        ASSERT_TRUE(QBLumentideIPC::writeFrame(frame, [&](const std::uint8_t* bytes, std::size_t n) {
            calls.push_back(n);
            received.insert(received.end(), bytes, bytes + n);
            return static_cast<std::ptrdiff_t>(n);
        }));
        EXPECT_EQ(calls, c.expectedCalls) << "body of " << c.bodySize << " bytes";
        EXPECT_EQ(received, frame);
    }
}

TEST(QBLumentideIPCFrameTest, PartiallyAcceptedSendsContinueWhereTheyStopped) {
    const auto frame = QBLumentideIPC::frameWithEnvelope(json::parse(envelopeTextOfSize(1500)));
    std::vector<std::size_t> calls;
    std::vector<std::uint8_t> received;
    ASSERT_TRUE(QBLumentideIPC::writeFrame(frame, [&](const std::uint8_t* bytes, std::size_t n) {
        calls.push_back(n);
        const std::size_t taken = std::min<std::size_t>(n, 700);
        received.insert(received.end(), bytes, bytes + taken);
        return static_cast<std::ptrdiff_t>(taken);
    }));
    EXPECT_EQ(calls, (std::vector<std::size_t>{1024, 805, 105}));
    EXPECT_EQ(received, frame);
}

TEST(QBLumentideIPCFrameTest, FailingSendEndsTheFrameAtOnce) {
    const auto frame = QBLumentideIPC::frameWithEnvelope(json::parse(envelopeTextOfSize(3000)));
    int calls = 0;
    EXPECT_FALSE(QBLumentideIPC::writeFrame(frame, [&](const std::uint8_t*, std::size_t n) {
        return ++calls == 2 ? std::ptrdiff_t{-1} : static_cast<std::ptrdiff_t>(n);
    }));
    EXPECT_EQ(calls, 2);
}

TEST(QBLumentideIPCFrameTest, ReaderTakesHeaderInTwoCallsAndBodyInPieces) {
    const std::string body = envelopeTextOfSize(2100);
    ScriptedInput input(frameOf(body, 0x7F));
    const auto envelope = QBLumentideIPC::readFrame(input.call());
    ASSERT_TRUE(envelope.has_value()) << "a marker other than 0 is ignored";
    EXPECT_EQ(*envelope, json::parse(body));
    EXPECT_EQ(input.requested, (std::vector<std::size_t>{1, 4, 1024, 1024, 52}));
}

TEST(QBLumentideIPCFrameTest, ShortBodyReadsAreCompleted) {
    const std::string body = envelopeTextOfSize(100);
    ScriptedInput input(frameOf(body), {1, 4, 10, 30});
    EXPECT_EQ(QBLumentideIPC::readFrame(input.call()), json::parse(body));
    EXPECT_EQ(input.requested, (std::vector<std::size_t>{1, 4, 100, 90, 60}));
}

TEST(QBLumentideIPCFrameTest, UnreadableFramesGiveNothing) {
    const std::string good = R"({"command":"c","messageid":"1","content":{}})";
    auto truncated = frameOf(good);
    truncated.pop_back();
    auto withLength = [](std::uint32_t n) {
        return std::vector<std::uint8_t>{0, static_cast<std::uint8_t>(n), static_cast<std::uint8_t>(n >> 8),
                                         static_cast<std::uint8_t>(n >> 16), static_cast<std::uint8_t>(n >> 24)};
    };
    struct Case {
        const char* name;
        std::vector<std::uint8_t> bytes;
        std::deque<std::size_t> limits;
    };
    const std::vector<Case> cases = {
        {"nothing at all", {}, {}},
        {"header split across calls", frameOf(good), {1, 3}},
        {"zero length", frameOf(""), {}},
        {"body cut short", truncated, {}},
        {"top-level array", frameOf("[1,2]"), {}},
        {"top-level string", frameOf("\"x\""), {}},
        {"invalid JSON", frameOf("{\"command\":"), {}},
        {"invalid UTF-8", frameOf("{\"a\":\"\xC3\x28\"}"), {}},
        {"length above the limit", withLength(QBLumentideIPC::maximumFrameBodyLength + 1), {}},
        {"largest length field", withLength(UINT32_MAX), {}},
    };
    for (const Case& c : cases) {
        ScriptedInput input(c.bytes, c.limits);
        EXPECT_FALSE(QBLumentideIPC::readFrame(input.call()).has_value()) << c.name;
    }
}

TEST(QBLumentideIPCFrameTest, LengthLimitIsInclusive) {
    const std::string atLimit = envelopeTextOfSize(QBLumentideIPC::maximumFrameBodyLength);
    ScriptedInput input(frameOf(atLimit));
    EXPECT_TRUE(QBLumentideIPC::readFrame(input.call()).has_value());

    const json tooLong = json::parse(envelopeTextOfSize(QBLumentideIPC::maximumFrameBodyLength + 1));
    EXPECT_TRUE(QBLumentideIPC::frameWithEnvelope(tooLong).empty());
    EXPECT_EQ(QBLumentideIPC::frameWithEnvelope(json::parse(atLimit)).size(),
              QBLumentideIPC::maximumFrameBodyLength + 5);
}

TEST(QBLumentideIPCFrameTest, NestingLimitIsInclusiveAndIgnoresBracketsInStrings) {
    auto nested = [](int depth) {  // depth counts the envelope object itself
        const int inner = depth - 2;
        return R"({"command":"c","messageid":"1","content":{"a":)" + std::string(inner, '[') +
               std::string(inner, ']') + "}}";
    };
    const int limit = QBLumentideIPC::maximumNestingDepth;
    ScriptedInput atLimit(frameOf(nested(limit)));
    EXPECT_TRUE(QBLumentideIPC::readFrame(atLimit.call()).has_value());
    ScriptedInput pastLimit(frameOf(nested(limit + 1)));
    EXPECT_FALSE(QBLumentideIPC::readFrame(pastLimit.call()).has_value());

    const std::string bracketsInString =
        R"({"command":"c","messageid":"1","content":{"a":")" + std::string(500, '[') + R"(\"{"}})";
    ScriptedInput quoted(frameOf(bracketsInString));
    EXPECT_TRUE(QBLumentideIPC::readFrame(quoted.call()).has_value());
}

TEST(QBLumentideIPCFrameTest, EnvelopeNeedsStringCommandStringIdAndObjectContent) {
    EXPECT_TRUE(QBLumentideIPC::isValidEnvelope(json::parse(R"({"command":"c","messageid":"1","content":{}})")));
    EXPECT_TRUE(QBLumentideIPC::isValidEnvelope(
        json::parse(R"({"command":"reply","messageid":"1","content":{},"replyid":5})")));
    for (const char* text : {R"({"messageid":"1","content":{}})", R"({"command":1,"messageid":"1","content":{}})",
                             R"({"command":"c","content":{}})", R"({"command":"c","messageid":7,"content":{}})",
                             R"({"command":"c","messageid":"1"})", R"({"command":"c","messageid":"1","content":null})",
                             R"({"command":"c","messageid":"1","content":[]})"}) {
        EXPECT_FALSE(QBLumentideIPC::isValidEnvelope(json::parse(text))) << text;
    }
}

TEST(QBLumentideIPCFrameTest, MessageIdsWrapToZeroAfterTheLargestValue) {
    EXPECT_EQ(QBLumentideIPC::nextMessageId(0), 1);
    EXPECT_EQ(QBLumentideIPC::nextMessageId(INT32_MAX - 1), INT32_MAX);
    EXPECT_EQ(QBLumentideIPC::nextMessageId(INT32_MAX), 0);
}
