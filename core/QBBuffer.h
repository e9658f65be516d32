#pragma once
// QBBuffer: a first-in, first-out byte queue of fixed capacity on a circular store.
//
// Bytes are appended at the tail and consumed from the head. The store is allocated once and
// never grows: a write that does not fit is refused whole (logged "Buffer is full") and leaves
// the buffer unchanged. Numbers are stored in host byte order; strings as UTF-8 bytes with no
// terminator or length prefix.
//
// Invariants: 0 <= length <= size; startIndex < size (0 when size is 0). The tail, where the
// next byte goes, is (startIndex + length) % size; it is derived rather than stored so that it
// cannot drift from the other two. Indexes are not rewound when the buffer empties.
//
// Threads: none. A buffer has no lock and belongs to one thread at a time.
//
//   auto buffer = QBBuffer::initWithSize(1024);
//   buffer->writeString("GET");
//   auto text = buffer->readString();   // "GET"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class QBBuffer {
public:
    static constexpr std::int64_t defaultSize = 65536;

    // A buffer of defaultSize bytes; null when the store cannot be allocated.
    static std::unique_ptr<QBBuffer> init();
    // A buffer of size bytes (a negative size means defaultSize, 0 is accepted and refuses every
    // write); null, after logging "Buffer memory allocation failed", when allocation fails.
    static std::unique_ptr<QBBuffer> initWithSize(std::int64_t size);

    QBBuffer(const QBBuffer&) = delete;
    QBBuffer& operator=(const QBBuffer&) = delete;

    // Writes: true when all bytes were stored, false (and "Buffer is full") when none were.
    bool writeRawData(const void* data, std::int64_t size);
    // Positioned write at position bytes after the head; a position outside 0..length is an
    // append. A position inside the unread data overwrites those bytes in place and grows length
    // only by the part that extends past the old end, so the invariants hold and the head is
    // untouched. Refused whole ("Buffer is full") when position + size would pass the capacity.
    bool writeRawData(const void* data, std::int64_t size, std::int64_t position);
    bool writeByte(char value);
    bool writeInt8(std::int8_t value);
    bool writeInt16(std::int16_t value);
    bool writeInt16(std::int16_t value, std::int16_t position);
    bool writeInt32(std::int32_t value);
    bool writeInt64(std::int64_t value);
    bool writeFloat(float value);
    bool writeDouble(double value);
    bool writeString(std::string_view text);
    bool writeData(const std::vector<std::uint8_t>& data);
    // Appends a copy of other's unread bytes; other is unchanged. Empty other: refused.
    bool writeBuffer(const QBBuffer& other);

    // Block reads: exactly count bytes, or nullopt (nothing consumed) when count < 1 or fewer
    // bytes are unread.
    std::optional<std::vector<std::uint8_t>> readRawData(std::int64_t count);
    std::optional<std::vector<std::uint8_t>> peekRawData(std::int64_t count) const;
    // All unread bytes, not consumed; nullopt when empty.
    std::optional<std::vector<std::uint8_t>> rawData() const;
    std::optional<std::vector<std::uint8_t>> readDataWithLength(std::int64_t count);
    std::optional<std::vector<std::uint8_t>> peekDataWithLength(std::int64_t count) const;
    // Discards count bytes; nothing happens when count < 1 or count > length.
    void removeData(std::int64_t count);

    std::int64_t length() const { return _length; }
    std::int64_t size() const { return _size; }

    // Typed reads: 0 (0.0) and nothing consumed when fewer bytes than the width are unread.
    char readByte();
    std::int8_t readInt8();
    std::int16_t readInt16();
    std::int32_t readInt32();
    std::int64_t readInt64();
    float readFloat();
    double readDouble();

    // Consumes count bytes and returns their text up to the first zero byte; nullopt when the
    // bytes are not there (nothing consumed) or are not UTF-8 (consumed all the same).
    std::optional<std::string> readStringWithLength(std::int64_t count);
    // readStringWithLength(length()): nullopt on an empty buffer.
    std::optional<std::string> readString();
    // Consumes count bytes into a new buffer of capacity count; null (nothing consumed) when they
    // are not there or the new buffer cannot be allocated.
    std::unique_ptr<QBBuffer> readBufferWithLength(std::int64_t count);

    // Offset of the first unread byte equal to terminator, or -1. Consumes nothing.
    std::int64_t readDataLengthTerminatedBy(char terminator) const;
    // Text up to and including the terminator (consumed), or nullopt (nothing consumed).
    std::optional<std::string> readStringTerminatedBy(char terminator);
    // True when the unread data ends with the length bytes at bytes (works across the wrap
    // point). Null bytes or length > this->length(): false; length <= 0: true.
    bool terminatedWithBytes(const void* bytes, std::int32_t length) const;

private:
    using Piece = std::span<const std::uint8_t>;

    QBBuffer(std::unique_ptr<std::uint8_t[]> store, std::int64_t size);

    // Store index of the byte offset bytes after the head (offset <= size).
    std::int64_t storeIndex(std::int64_t offset) const;
    // The count bytes from offset bytes after the head as at most two runs of the store: the
    // first up to the store's end, the second (possibly empty) from index 0.
    std::array<Piece, 2> pieces(std::int64_t offset, std::int64_t count) const;
    // Copies bytes into the store from offset bytes after the head; no checks, no index updates.
    void copyIn(std::int64_t offset, Piece bytes);
    // Copies count unread bytes from offset bytes after the head into into.
    void copyOut(std::int64_t offset, std::int64_t count, std::uint8_t* into) const;
    template <typename Number>
    Number readNumber();

    std::unique_ptr<std::uint8_t[]> rawStore;
    std::int64_t _size = 0;
    std::int64_t startIndex = 0;
    std::int64_t _length = 0;
};
