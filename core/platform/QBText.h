#pragma once
// QBText: the text facilities that the core library takes from ICU (UTF-8 validation,
// UTF-8/UTF-16 conversion, the white-space and line-break classes) and the leading-integer
// scan that several parsers share.
//
// Lengths and character classes that are defined on UTF-16 code units are computed on
// std::u16string; everything else stays UTF-8. All functions are pure and thread-safe.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

class QBText {
public:
    // True when bytes are well-formed UTF-8 (no overlong forms, no surrogates, max U+10FFFF).
    static bool isValidUTF8(std::string_view bytes);

    // UTF-16 form of UTF-8 text; nullopt when the bytes are not valid UTF-8.
    static std::optional<std::u16string> toUTF16(std::string_view utf8);
    // Number of UTF-16 code units of well-formed UTF-8 text: one per character, two for one
    // beyond U+FFFF. Counted from the lead bytes alone, without decoding.
    static std::size_t utf16Length(std::string_view utf8);
    // UTF-8 form of UTF-16 text; an unpaired surrogate becomes U+FFFD.
    static std::string toUTF8(std::u16string_view utf16);

    // White space and line breaks: general categories Zs, Zl, Zp, U+0009..U+000D and U+0085.
    static bool isWhitespaceOrNewline(char32_t c);
    // Line breaks: U+000A..U+000D, U+0085, U+2028, U+2029.
    static bool isNewline(char32_t c);

    // Decimal value at the start of text: leading white space and line breaks skipped, an
    // optional sign, then digits up to the first non-digit. 0 when no digit follows; values
    // beyond the 64-bit range give the nearest limit.
    static std::int64_t scanLeadingInteger(std::string_view text);

    QBText() = delete;
};
