#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>

#include "QBBuffer.h"
#include "support/LogCapture.h"

// The unallocatable capacity below needs the allocator's null, not an AddressSanitizer report.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }
Bytes contents(const QBBuffer& buffer) { return buffer.rawData().value_or(Bytes{}); }

// An empty buffer whose head sits at store index head, so that later writes wrap round.
std::unique_ptr<QBBuffer> bufferWithHeadAt(std::int64_t size, std::int64_t head) {
    auto buffer = QBBuffer::initWithSize(size);
    if (head > 0 && buffer->writeData(Bytes(head, 0))) buffer->removeData(head);
    return buffer;
}

}  // namespace

TEST(QBBufferTest, CapacityIsFixedAtCreation) {
    EXPECT_EQ(QBBuffer::initWithSize(-4096)->size(), QBBuffer::defaultSize);
    EXPECT_EQ(QBBuffer::initWithSize(0)->size(), 0);
    LogCapture log;
    EXPECT_EQ(QBBuffer::initWithSize(std::numeric_limits<std::int64_t>::max()), nullptr);
    EXPECT_EQ(log.count("Buffer memory allocation failed"), 1);
}

TEST(QBBufferTest, RefusedWriteLeavesBufferUnchanged) {
    LogCapture log;
    auto buffer = bufferWithHeadAt(8, 6);
    buffer->writeString("hello");
    EXPECT_FALSE(buffer->writeRawData(nullptr, 1));
    EXPECT_FALSE(buffer->writeRawData("x", INT64_MAX, 1));  // no overflow in the capacity check
    EXPECT_FALSE(buffer->writeInt32(7));                    // one byte too many
    EXPECT_EQ(log.count("Buffer is full"), 3);
    EXPECT_TRUE(buffer->writeString("!!!"));  // exactly fills: the indexes did not move
    EXPECT_EQ(contents(*buffer), bytesOf("hello!!!"));
}

TEST(QBBufferTest, NumbersUseHostByteOrderAcrossTheWrapPoint) {
    auto buffer = bufferWithHeadAt(16, 11);
    buffer->writeInt16(0x0102);
    buffer->writeInt32(0x01020304);
    buffer->writeFloat(1.0f);
    EXPECT_EQ(contents(*buffer), (Bytes{2, 1, 4, 3, 2, 1, 0, 0, 0x80, 0x3f}));
    EXPECT_EQ(buffer->readInt16(), 0x0102);
    EXPECT_EQ(buffer->readInt32(), 0x01020304);
    EXPECT_EQ(buffer->readFloat(), 1.0f);
    buffer->writeDouble(2.5);
    EXPECT_EQ(buffer->readDouble(), 2.5);
    buffer->writeString("abcd");
    EXPECT_EQ(buffer->readInt64(), 0);  // too short: nothing read, nothing consumed
    EXPECT_TRUE(buffer->writeInt16(0x5958, 1));   // "XY" over "bc"
    EXPECT_TRUE(buffer->writeInt16(0x215a, -1));  // "Z!" appended
    EXPECT_EQ(contents(*buffer), bytesOf("aXYdZ!"));
}

TEST(QBBufferTest, StringReadsEndAtZeroByteOrTerminatorAndRejectInvalidUTF8) {
    auto buffer = bufferWithHeadAt(8, 6);
    buffer->writeRawData("ab\0cd", 5);
    EXPECT_EQ(buffer->readString(), "ab");  // the bytes after the zero are consumed too
    EXPECT_EQ(buffer->readString(), std::nullopt);
    buffer->writeString("\xc3" "ab\n");
    EXPECT_EQ(buffer->readStringWithLength(5), std::nullopt);  // not there: nothing consumed
    EXPECT_EQ(buffer->readStringWithLength(2), std::nullopt);  // not UTF-8: consumed all the same
    EXPECT_EQ(buffer->readStringTerminatedBy('x'), std::nullopt);
    EXPECT_EQ(buffer->readStringTerminatedBy('\n'), "b\n");
    EXPECT_EQ(buffer->length(), 0);
    EXPECT_FALSE(buffer->terminatedWithBytes(nullptr, 0));
}

TEST(QBBufferTest, BufferReadsAndWritesCopyAcrossTheWrapPoint) {
    auto buffer = bufferWithHeadAt(8, 6);
    buffer->writeString("abcdef");
    EXPECT_EQ(buffer->readBufferWithLength(7), nullptr);
    auto part = buffer->readBufferWithLength(4);
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(part->size(), 4);
    EXPECT_EQ(contents(*part), bytesOf("abcd"));
    EXPECT_EQ(contents(*buffer), bytesOf("ef"));
    auto target = bufferWithHeadAt(8, 7);
    target->writeString("x");
    EXPECT_TRUE(target->writeBuffer(*part));
    EXPECT_EQ(contents(*part), bytesOf("abcd"));  // the source keeps its bytes
    EXPECT_EQ(contents(*target), bytesOf("xabcd"));
}

// Random operations checked against a plain byte vector, including positioned writes inside the data,
// self-copies and stale bytes behind the head: catches index and wrap-around faults.
TEST(QBBufferTest, RandomOperationsMatchAVectorModel) {
    std::mt19937 random(20240611);
    auto pick = [&](std::int64_t low, std::int64_t high) {
        return std::uniform_int_distribution<std::int64_t>(low, high)(random);
    };
    const std::uint8_t alphabet[] = {0x00, 0x0a, 0x80, 0xff};  // few values: searches hit often
    for (std::int64_t size : {1, 7, 64}) {
        auto buffer = QBBuffer::initWithSize(size);
        Bytes model;
        for (int step = 0; step < 20000; ++step) {
            const auto length = static_cast<std::int64_t>(model.size());
            const std::int64_t count = pick(-1, size / 2 + 2);
            Bytes bytes(static_cast<std::size_t>(std::max<std::int64_t>(count, 0)));
            for (auto& byte : bytes) byte = alphabet[pick(0, 3)];
            const bool present = count >= 1 && count <= length;
            const auto front = [&] { return Bytes(model.begin(), model.begin() + count); };
            switch (pick(0, 4)) {
            case 0: {  // a position outside 0..length appends
                const std::int64_t position = pick(-2, length + 2);
                const auto at = position < 0 || position > length ? length : position;
                const bool fits = count >= 1 && at + count <= size;
                ASSERT_EQ(buffer->writeRawData(bytes.data(), count, position), fits);
                if (!fits) break;
                const auto inside = std::min(count, length - at);
                std::copy_n(bytes.begin(), inside, model.begin() + at);
                model.insert(model.end(), bytes.begin() + inside, bytes.end());
                break;
            }
            case 1: {
                const auto expected = present ? std::optional(front()) : std::nullopt;
                ASSERT_EQ(buffer->peekRawData(count), expected);
                if (pick(0, 1)) {
                    ASSERT_EQ(buffer->readRawData(count), expected);
                } else {
                    buffer->removeData(count);
                }
                if (present) model.erase(model.begin(), model.begin() + count);
                break;
            }
            case 2: {
                const auto found = std::find(model.begin(), model.end(), alphabet[count & 3]);
                ASSERT_EQ(buffer->readDataLengthTerminatedBy(char(alphabet[count & 3])),
                          found == model.end() ? -1 : found - model.begin());
                break;
            }
            case 3: {  // one byte longer than the data: must not read stale bytes behind the head
                const std::int64_t n = std::min(count, length + 1);
                Bytes tail(model.end() - std::clamp<std::int64_t>(n, 0, length), model.end());
                if (n > length) tail.insert(tail.begin(), 0x00);
                const bool altered = n > 0 && pick(0, 1) == 1;
                if (altered) tail[pick(0, n - 1)] ^= 1;
                ASSERT_EQ(buffer->terminatedWithBytes(tail.empty() ? alphabet : tail.data(),
                                                      static_cast<std::int32_t>(n)),
                          n <= length && !altered);
                break;
            }
            case 4: {
                const bool fits = length >= 1 && 2 * length <= size;
                ASSERT_EQ(buffer->writeBuffer(*buffer), fits);
                const Bytes copy = model;
                if (fits) model.insert(model.end(), copy.begin(), copy.end());
                break;
            }
            }
            ASSERT_EQ(contents(*buffer), model) << step;
        }
    }
}
