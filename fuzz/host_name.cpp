// Fuzz target: Punycode decoding and encoding of one label, and IDNA of whole host names.
//
// Checked: Punycode round trips both ways (a decoded label encodes to text that decodes to the
// same label; a UTF-8 label's encoding decodes to the label); an IDNA-encoded name is ASCII and,
// unless it holds NUL (a label with U+0000 is encoded, and Punycode copies it as a basic code
// point), encodes to itself again; decoding any name completes.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "QBHost.h"
#include "platform/QBText.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void checkPunycode(std::string_view input) {
    if (const auto label = QBHost::punycodeDecodedString(input)) {
        if (const auto encoded = QBHost::punycodeEncodedString(*label)) {
            require(QBHost::punycodeDecodedString(*encoded) == label);
        }
    }
    if (!input.empty() && QBText::isValidUTF8(input)) {
        if (const auto encoded = QBHost::punycodeEncodedString(input)) {
            require(QBHost::punycodeDecodedString(*encoded) == input);
        }
    }
}

void checkIDNA(std::string_view name) {
    const std::string encoded = QBHost::IDNAEncodedString(name);
    require(std::all_of(encoded.begin(), encoded.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= 0x7F;
    }));
    if (encoded.find('\0') == std::string::npos) require(QBHost::IDNAEncodedString(encoded) == encoded);
    QBHost::IDNADecodedString(name);
    QBHost::IDNADecodedString(encoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    checkPunycode(input);
    checkIDNA(input);
    return 0;
}
