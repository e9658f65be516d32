#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "QBBuffer.h"
#include "support/LogCapture.h"

// The unallocatable capacity below needs the allocator's null, not an AddressSanitizer report.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

using Bytes = std::vector<std::uint8_t>;

static Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }
static Bytes contents(const QBBuffer& buffer) { return buffer.rawData().value_or(Bytes{}); }

// An empty buffer whose head sits at store index head, so that later writes wrap round.
static std::unique_ptr<QBBuffer> bufferWithHeadAt(std::int64_t size, std::int64_t head) {
    auto buffer = QBBuffer::initWithSize(size);
    if (buffer->writeData(Bytes(head, 0))) buffer->removeData(head);
    return buffer;
}

TEST(QBBufferTest, CapacityIsFixedAtCreationAndARefusedWriteLeavesTheBufferUnchanged) {
    EXPECT_EQ(QBBuffer::initWithSize(-4096)->size(), QBBuffer::defaultSize);
    EXPECT_EQ(QBBuffer::initWithSize(0)->size(), 0);
    LogCapture log;
    EXPECT_EQ(QBBuffer::initWithSize(INT64_MAX), nullptr);
    EXPECT_EQ(log.count("Buffer memory allocation failed"), 1);
    EXPECT_FALSE(QBBuffer::initWithSize(8)->terminatedWithBytes(nullptr, 0));
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
    buffer->writeDouble(2.5);
    EXPECT_EQ(contents(*buffer), (Bytes{2, 1, 4, 3, 2, 1, 0, 0, 0, 0, 0, 0, 4, 0x40}));
    EXPECT_EQ(buffer->readInt16(), 0x0102);
    EXPECT_EQ(buffer->readInt32(), 0x01020304);
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
}

// Index and wrap-around faults, against a byte vector. Tail matches longer than the unread data
// must never match the stale bytes behind the head.
TEST(QBBufferTest, RandomOperationsMatchAVectorModel) {
    LogCapture quiet;  // refused writes log a line each
    std::mt19937 random(20240611);
    const auto pick = [&](int low, int high) { return std::uniform_int_distribution(low, high)(random); };
    for (int size : {1, 7, 64}) {
        auto buffer = QBBuffer::initWithSize(size);
        Bytes model;
        for (int step = 0; step < 20000; ++step) {
            const int length = static_cast<int>(model.size()), count = pick(-1, size / 2 + 2);
            const bool there = count >= 1 && count <= length;  // a read of count bytes succeeds
            const Bytes front(model.begin(), model.begin() + (there ? count : 0));
            Bytes bytes(static_cast<std::size_t>(std::max(count, 0)));
            for (auto& byte : bytes) byte = "\0\n\x80\xff"[pick(0, 3)];  // searches hit often
            switch (pick(0, 4)) {
            case 0: {  // a position outside 0..length appends
                const int position = pick(-2, length + 2), at = position < 0 || position > length ? length : position;
                const bool fits = count >= 1 && at + count <= size;
                ASSERT_EQ(buffer->writeRawData(bytes.data(), count, position), fits);
                if (!fits) break;
                model.resize(static_cast<std::size_t>(std::max(length, at + count)));
                std::copy(bytes.begin(), bytes.end(), model.begin() + at);
                break;
            }
            case 1:
                if (pick(0, 1)) {
                    ASSERT_EQ(buffer->readRawData(count), there ? std::optional(front) : std::nullopt);
                } else if (const auto part = buffer->readBufferWithLength(count); part || there) {
                    ASSERT_TRUE(there && part && part->size() == count && contents(*part) == front);
                }
                model.erase(model.begin(), model.begin() + static_cast<int>(front.size()));
                break;
            case 2: {
                const std::uint8_t terminator = bytes.empty() ? 0 : bytes[0];
                const auto found = std::find(model.begin(), model.end(), terminator);
                ASSERT_EQ(buffer->readDataLengthTerminatedBy(static_cast<char>(terminator)),
                          found == model.end() ? -1 : found - model.begin());
                break;
            }
            case 3: {  // a copy of itself
                const bool fits = length >= 1 && 2 * length <= size;
                ASSERT_EQ(buffer->writeBuffer(*buffer), fits);
                model.resize(fits ? model.size() * 2 : model.size());
                std::copy_n(model.begin(), fits ? length : 0, model.begin() + length);
                break;
            }
            case 4:  // the unread tail half the time, behind random bytes when longer
                const int kept = std::min(std::max(count, 0), length);
                if (pick(0, 1)) std::copy(model.end() - kept, model.end(), bytes.end() - kept);
                const bool matches = count <= length && std::equal(bytes.begin(), bytes.end(), model.end() - kept);
                ASSERT_EQ(buffer->terminatedWithBytes(bytes.empty() ? static_cast<const void*>("") : bytes.data(), count), matches);
                break;
            }
            ASSERT_EQ(contents(*buffer), model) << step;
        }
    }
}
