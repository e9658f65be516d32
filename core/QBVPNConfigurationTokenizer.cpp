// QBVPNConfiguration, its line tokenizer: one configuration line into its tokens.

#include <new>

#include "QBVPNConfiguration.h"
#include "QBVPNConfigurationText.h"

using namespace qbvpnconfiguration;

namespace {

// Longest UTF-8 form of one UTF-16 code unit; a line of more bytes than maxLineLength times this
// has more code units than maxLineLength, so it is refused before any conversion.
constexpr std::size_t maxUTF8BytesPerCodeUnit = 3;

std::u16string_view trimmed(std::u16string_view text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && isWhitespaceUnit(text[begin])) ++begin;
    while (end > begin && isWhitespaceUnit(text[end - 1])) --end;
    return text.substr(begin, end - begin);
}

}  // namespace

std::optional<QBVPNConfiguration::Parameters> QBVPNConfiguration::parseLine(
    std::string_view line) const {
    if (maxLineLength < 0) return std::nullopt;
    const auto limit = static_cast<std::size_t>(maxLineLength);
    if (line.size() > limit * maxUTF8BytesPerCodeUnit) return std::nullopt;
    const auto units = QBText::toUTF16(line);
    if (!units || units->size() > limit) return std::nullopt;
    const std::u16string_view rest = trimmed(*units);
    if (rest.empty()) return std::nullopt;
    try {
        Parameters tokens;
        // The one token buffer of this call, written by index: no token outgrows the line.
        std::u16string token(rest.size(), u'\0');
        std::size_t tokenLength = 0;
        bool tokenIsASCII = true;  // ASCII tokens skip the converter and its worst-case buffer
        const auto emitToken = [&] {
            if (tokenLength == 0) return;
            const std::u16string_view text(token.data(), tokenLength);
            if (tokenIsASCII) {
                tokens.emplace_back(text.begin(), text.end());
            } else {
                tokens.push_back(QBText::toUTF8(text));
            }
            tokenLength = 0;
            tokenIsASCII = true;
        };
        bool escaped = false;
        bool inQuotes = false;
        for (const char16_t c : rest) {
            if (!escaped && c == escapeUnit) {
                escaped = true;
            } else if (!escaped && isQuoteUnit(c)) {
                inQuotes = !inQuotes;
            } else if (!escaped && !inQuotes && isWhitespaceUnit(c)) {
                emitToken();
            } else if (!escaped && !inQuotes && isCommentUnit(c)) {
                break;
            } else {
                token[tokenLength++] = c;
                tokenIsASCII = tokenIsASCII && c < 0x80;
                escaped = false;
            }
        }
        emitToken();
        if (tokens.empty()) return std::nullopt;
        return tokens;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

std::string QBVPNConfiguration::parseCommand(std::string_view command) const {
    return std::string(command);
}
