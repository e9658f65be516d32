#include "QBBuffer.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/QBLog.h"
#include "platform/QBText.h"

namespace {

bool refuseWrite() {
    QBLog::log("Buffer is full");
    return false;
}

}  // namespace

QBBuffer::QBBuffer(std::unique_ptr<std::uint8_t[]> store, std::int64_t size)
    : rawStore(std::move(store)), _size(size) {}

std::unique_ptr<QBBuffer> QBBuffer::init() { return initWithSize(defaultSize); }

std::unique_ptr<QBBuffer> QBBuffer::initWithSize(std::int64_t size) {
    if (size < 0) size = defaultSize;
    static_assert(sizeof(std::size_t) >= sizeof(std::int64_t), "every capacity is a size_t");
    // Left uninitialised on purpose: only bytes that were written are ever read, and the kernel
    // does not commit pages of a large store until they are touched.
    std::unique_ptr<std::uint8_t[]> store(
        new (std::nothrow) std::uint8_t[static_cast<std::size_t>(size)]);
    std::unique_ptr<QBBuffer> buffer;
    if (store) buffer.reset(new (std::nothrow) QBBuffer(std::move(store), size));
    if (!buffer) QBLog::log("Buffer memory allocation failed");
    return buffer;
}

// --- index arithmetic -------------------------------------------------------------------------

std::int64_t QBBuffer::storeIndex(std::int64_t offset) const {
    // startIndex < size and offset <= size, so one subtraction wraps it.
    const std::int64_t index = startIndex + offset;
    return index >= _size ? index - _size : index;
}

std::array<QBBuffer::Piece, 2> QBBuffer::pieces(std::int64_t offset, std::int64_t count) const {
    const std::int64_t from = storeIndex(offset);
    const std::int64_t first = std::min(count, _size - from);
    return {Piece(rawStore.get() + from, static_cast<std::size_t>(first)),
            Piece(rawStore.get(), static_cast<std::size_t>(count - first))};
}

void QBBuffer::copyIn(std::int64_t offset, Piece bytes) {
    if (bytes.empty()) return;
    const std::int64_t to = storeIndex(offset);
    const std::size_t first = std::min(bytes.size(), static_cast<std::size_t>(_size - to));
    std::memcpy(rawStore.get() + to, bytes.data(), first);
    if (first < bytes.size()) std::memcpy(rawStore.get(), bytes.data() + first, bytes.size() - first);
}

void QBBuffer::copyOut(std::int64_t offset, std::int64_t count, std::uint8_t* into) const {
    for (const Piece piece : pieces(offset, count)) {
        if (piece.empty()) continue;
        std::memcpy(into, piece.data(), piece.size());
        into += piece.size();
    }
}

// --- writes -----------------------------------------------------------------------------------

bool QBBuffer::writeRawData(const void* data, std::int64_t size) {
    return writeRawData(data, size, _length);
}

bool QBBuffer::writeRawData(const void* data, std::int64_t size, std::int64_t position) {
    if (position < 0 || position > _length) position = _length;
    // _size - position >= 0 here; comparing this way cannot overflow.
    if (data == nullptr || size < 1 || size > _size - position) return refuseWrite();
    copyIn(position, Piece(static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(size)));
    _length = std::max(_length, position + size);
    return true;
}

bool QBBuffer::writeByte(char value) { return writeRawData(&value, sizeof value); }
bool QBBuffer::writeInt8(std::int8_t value) { return writeRawData(&value, sizeof value); }
bool QBBuffer::writeInt16(std::int16_t value) { return writeRawData(&value, sizeof value); }
bool QBBuffer::writeInt16(std::int16_t value, std::int16_t position) {
    return writeRawData(&value, sizeof value, position);
}
bool QBBuffer::writeInt32(std::int32_t value) { return writeRawData(&value, sizeof value); }
bool QBBuffer::writeInt64(std::int64_t value) { return writeRawData(&value, sizeof value); }
bool QBBuffer::writeFloat(float value) { return writeRawData(&value, sizeof value); }
bool QBBuffer::writeDouble(double value) { return writeRawData(&value, sizeof value); }

bool QBBuffer::writeString(std::string_view text) {
    return writeRawData(text.data(), static_cast<std::int64_t>(text.size()));
}

bool QBBuffer::writeData(const std::vector<std::uint8_t>& data) {
    return writeRawData(data.data(), static_cast<std::int64_t>(data.size()));
}

bool QBBuffer::writeBuffer(const QBBuffer& other) {
    // Copies store to store without an intermediate block. This is safe even when other is this
    // buffer: the bytes land in free space, which never overlaps the unread bytes being copied.
    const std::int64_t count = other._length;
    if (count < 1 || count > _size - _length) return refuseWrite();
    const auto [first, second] = other.pieces(0, count);
    copyIn(_length, first);
    copyIn(_length + static_cast<std::int64_t>(first.size()), second);
    _length += count;
    return true;
}

// --- block reads ------------------------------------------------------------------------------

std::optional<std::vector<std::uint8_t>> QBBuffer::peekRawData(std::int64_t count) const {
    if (count < 1 || count > _length) return std::nullopt;
    std::vector<std::uint8_t> bytes;
    bytes.reserve(static_cast<std::size_t>(count));
    for (const Piece piece : pieces(0, count)) bytes.insert(bytes.end(), piece.begin(), piece.end());
    return bytes;
}

std::optional<std::vector<std::uint8_t>> QBBuffer::readRawData(std::int64_t count) {
    auto bytes = peekRawData(count);
    if (bytes) removeData(count);
    return bytes;
}

std::optional<std::vector<std::uint8_t>> QBBuffer::rawData() const { return peekRawData(_length); }

std::optional<std::vector<std::uint8_t>> QBBuffer::readDataWithLength(std::int64_t count) {
    return readRawData(count);
}

std::optional<std::vector<std::uint8_t>> QBBuffer::peekDataWithLength(std::int64_t count) const {
    return peekRawData(count);
}

void QBBuffer::removeData(std::int64_t count) {
    if (count < 1 || count > _length) return;
    startIndex = storeIndex(count);
    _length -= count;
}

// --- typed reads ------------------------------------------------------------------------------

template <typename Number>
Number QBBuffer::readNumber() {
    constexpr auto width = static_cast<std::int64_t>(sizeof(Number));
    if (_length < width) return Number{};
    Number value{};
    copyOut(0, width, reinterpret_cast<std::uint8_t*>(&value));
    removeData(width);
    return value;
}

char QBBuffer::readByte() { return readNumber<char>(); }
std::int8_t QBBuffer::readInt8() { return readNumber<std::int8_t>(); }
std::int16_t QBBuffer::readInt16() { return readNumber<std::int16_t>(); }
std::int32_t QBBuffer::readInt32() { return readNumber<std::int32_t>(); }
std::int64_t QBBuffer::readInt64() { return readNumber<std::int64_t>(); }
float QBBuffer::readFloat() { return readNumber<float>(); }
double QBBuffer::readDouble() { return readNumber<double>(); }

// --- text and buffer reads --------------------------------------------------------------------

std::optional<std::string> QBBuffer::readStringWithLength(std::int64_t count) {
    if (count < 1 || count > _length) return std::nullopt;
    std::string text;
    text.reserve(static_cast<std::size_t>(count));
    for (const Piece piece : pieces(0, count)) {
        text.append(reinterpret_cast<const char*>(piece.data()), piece.size());
    }
    removeData(count);
    // The text ends at the first zero byte; the bytes after it are consumed all the same.
    text.resize(std::min(text.size(), text.find('\0')));
    if (!QBText::isValidUTF8(text)) return std::nullopt;
    return text;
}

std::optional<std::string> QBBuffer::readString() { return readStringWithLength(_length); }

std::unique_ptr<QBBuffer> QBBuffer::readBufferWithLength(std::int64_t count) {
    if (count < 1 || count > _length) return nullptr;
    auto buffer = initWithSize(count);
    if (!buffer) return nullptr;  // allocation failure logged; nothing consumed
    copyOut(0, count, buffer->rawStore.get());
    buffer->_length = count;
    removeData(count);
    return buffer;
}

std::int64_t QBBuffer::readDataLengthTerminatedBy(char terminator) const {
    if (_length < 1) return -1;
    std::int64_t offset = 0;
    for (const Piece piece : pieces(0, _length)) {
        if (piece.empty()) continue;
        const void* hit = std::memchr(piece.data(), terminator, piece.size());
        if (hit != nullptr) return offset + (static_cast<const std::uint8_t*>(hit) - piece.data());
        offset += static_cast<std::int64_t>(piece.size());
    }
    return -1;
}

std::optional<std::string> QBBuffer::readStringTerminatedBy(char terminator) {
    const std::int64_t offset = readDataLengthTerminatedBy(terminator);
    if (offset < 0) return std::nullopt;
    return readStringWithLength(offset + 1);
}

bool QBBuffer::terminatedWithBytes(const void* bytes, std::int32_t length) const {
    if (bytes == nullptr || length > _length) return false;
    if (length <= 0) return true;
    // Called after every received byte with a short terminator that usually differs at its first
    // byte: a plain loop beats two library compares here.
    const auto* expected = static_cast<const std::uint8_t*>(bytes);
    std::int64_t index = storeIndex(_length - length);
    for (std::int32_t i = 0; i < length; ++i) {
        if (rawStore[index] != expected[i]) return false;
        if (++index == _size) index = 0;
    }
    return true;
}
