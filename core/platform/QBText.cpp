#include "platform/QBText.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>
#include <unicode/ustring.h>

#include <cstring>
#include <limits>

bool QBText::isValidUTF8(std::string_view bytes) {
    const auto* s = reinterpret_cast<const uint8_t*>(bytes.data());
    const auto length = static_cast<int32_t>(bytes.size());
    if (bytes.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return false;
    int32_t i = 0;
    while (i < length) {
        // ASCII fast path, eight bytes at a time: HTTP bodies and JSON are mostly ASCII.
        if (length - i >= 8) {
            std::uint64_t word;
            std::memcpy(&word, s + i, sizeof word);
            if ((word & 0x8080808080808080ULL) == 0) {
                i += 8;
                continue;
            }
        }
        if (s[i] < 0x80) {
            ++i;
            continue;
        }
        UChar32 c;
        U8_NEXT(s, i, length, c);
        if (c < 0) return false;
    }
    return true;
}

std::optional<std::u16string> QBText::toUTF16(std::string_view utf8) {
    if (!isValidUTF8(utf8)) return std::nullopt;
    std::u16string out(utf8.size(), u'\0');  // never more code units than bytes
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(out.data(), static_cast<int32_t>(out.size()), &written, utf8.data(),
                  static_cast<int32_t>(utf8.size()), &status);
    if (U_FAILURE(status) && status != U_STRING_NOT_TERMINATED_WARNING) return std::nullopt;
    out.resize(static_cast<size_t>(written));
    return out;
}

std::string QBText::toUTF8(std::u16string_view utf16) {
    std::string out(utf16.size() * 3, '\0');  // at most 3 bytes per code unit
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &written, utf16.data(),
                       static_cast<int32_t>(utf16.size()), 0xFFFD, nullptr, &status);
    if (U_FAILURE(status) && status != U_STRING_NOT_TERMINATED_WARNING) return {};
    out.resize(static_cast<size_t>(written));
    return out;
}

bool QBText::isWhitespaceOrNewline(char32_t c) {
    if (c <= 0x20) return c == 0x20 || (c >= 0x09 && c <= 0x0D);
    if (c == 0x85) return true;
    const auto category = u_charType(static_cast<UChar32>(c));
    return category == U_SPACE_SEPARATOR || category == U_LINE_SEPARATOR ||
           category == U_PARAGRAPH_SEPARATOR;
}

bool QBText::isNewline(char32_t c) {
    return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

std::int64_t QBText::scanLeadingInteger(std::string_view text) {
    const auto* s = reinterpret_cast<const uint8_t*>(text.data());
    const auto length = static_cast<int32_t>(std::min<size_t>(text.size(), INT32_MAX));
    int32_t i = 0;
    while (i < length) {
        int32_t next = i;
        UChar32 c;
        U8_NEXT(s, next, length, c);
        if (c < 0 || !isWhitespaceOrNewline(static_cast<char32_t>(c))) break;
        i = next;
    }
    bool negative = false;
    if (i < length && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    // Accumulate negatively so that INT64_MIN is reachable without overflow.
    std::int64_t value = 0;
    constexpr std::int64_t min = std::numeric_limits<std::int64_t>::min();
    for (; i < length && s[i] >= '0' && s[i] <= '9'; ++i) {
        const int digit = s[i] - '0';
        if (value < (min + digit) / 10) {
            value = min;
            // keep consuming digits; the value stays saturated
            continue;
        }
        value = value * 10 - digit;
    }
    if (negative) return value;
    return value == min ? std::numeric_limits<std::int64_t>::max() : -value;
}

std::size_t QBText::utf16Length(std::string_view utf8) {
    std::size_t units = 0;
    for (const char byte : utf8) {
        const auto value = static_cast<std::uint8_t>(byte);
        if ((value & 0xC0) != 0x80) ++units;  // every byte but a continuation starts a character
        if (value >= 0xF0) ++units;           // four-byte forms need a surrogate pair
    }
    return units;
}
