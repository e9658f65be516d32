#pragma once
// What the parts of QBVPNConfiguration share (its tokenizer, its document and its generation):
// the code units that the line syntax gives a meaning to, the path rules and the command
// lookup. Private to those
// files.

#include <string>
#include <string_view>

#include "QBVPNConfiguration.h"
#include "platform/QBText.h"

namespace qbvpnconfiguration {

constexpr char16_t escapeUnit = u'\\';
constexpr char16_t quoteUnit = u'"';

// White space and line breaks: Zs, Zl, Zp, U+0009..U+000D and U+0085. The ASCII range is
// answered here because it is nearly every code unit the tokenizer sees.
inline bool isWhitespaceUnit(char16_t c) {
    if (c < 0x80) return c == u' ' || (c >= 0x09 && c <= 0x0D);
    return QBText::isWhitespaceOrNewline(c);
}

inline bool isCommentUnit(char16_t c) {
    return c == u'#' || c == u';';
}

inline bool isQuoteUnit(char16_t c) {
    return c == quoteUnit;
}

// The folder of a path with the usual text-path rules: trailing slashes are ignored, the root
// stays "/", a bare name has "".
std::string parentDirectory(std::string_view path);

// The occurrences of name in store; nullptr when it has none.
inline const QBVPNConfiguration::Occurrences* occurrencesOf(
    const QBVPNConfiguration::CommandStore& store, std::string_view name) {
    const auto found = store.find(name);
    return found == store.end() ? nullptr : &found->second;
}

}  // namespace qbvpnconfiguration
