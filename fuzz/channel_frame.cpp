// Fuzz target: the channel's frame reader and envelope checks, fed a byte stream in arbitrary
// pieces (receive calls that return fewer bytes than asked, as a stream socket may).
//
// Input: one seed byte choosing the split (see Splits.h), then the stream, read frame after
// frame until the reader refuses or the stream ends. Checked for every frame read: it is a JSON
// object; a valid envelope framed again reads back equal; the receive calls never write past
// what the reader asked for (the reader's buffers are checked by AddressSanitizer).

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "QBLumentideIPC.h"
#include "Splits.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

// Receive calls over a byte sequence, each returning at most the next piece (without splits: all
// that was asked for); 0 at its end.
QBLumentideIPC::ReceiveCall receiverOver(std::basic_string_view<std::uint8_t> bytes,
                                         std::size_t& position, Splits* splits) {
    return [bytes, &position, splits](std::uint8_t* into, std::size_t length) -> std::ptrdiff_t {
        require(length > 0);
        if (position == bytes.size()) return 0;
        const std::size_t remaining = bytes.size() - position;
        const std::size_t count = std::min(length, splits ? splits->next(remaining) : remaining);
        std::memcpy(into, bytes.data() + position, count);
        position += count;
        return static_cast<std::ptrdiff_t>(count);
    };
}

// A valid envelope, framed and read again in one piece, is the same envelope.
void checkRoundTrip(const nlohmann::json& envelope) {
    const auto frame = QBLumentideIPC::frameWithEnvelope(envelope);
    if (frame.empty()) return;  // longer than a frame may be
    std::size_t position = 0;
    const auto again =
        QBLumentideIPC::readFrame(receiverOver({frame.data(), frame.size()}, position, nullptr));
    require(again && *again == envelope && position == frame.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    Splits splits(data[0]);
    std::size_t position = 0;
    const auto receive = receiverOver({data + 1, size - 1}, position, &splits);
    while (const auto envelope = QBLumentideIPC::readFrame(receive)) {
        require(envelope->is_object());
        if (QBLumentideIPC::isValidEnvelope(*envelope)) checkRoundTrip(*envelope);
    }
    return 0;
}
