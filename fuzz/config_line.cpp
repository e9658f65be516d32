// Fuzz target: the configuration line tokenizer and the parameter writer.
//
// Checked, with x a list of non-empty UTF-8 tokens (the input cut at 0xFF bytes, which UTF-8
// never holds): parseLine(generateString(x)) == x whenever the written line is within the
// tokenizer's length bound. And the input read as one line: whatever tokens it gives are
// non-empty and come back unchanged through the same round trip.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "QBVPNConfiguration.h"
#include "platform/QBText.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void checkRoundTrip(const QBVPNConfiguration& tokenizer,
                    const QBVPNConfiguration::Parameters& tokens) {
    const auto line = tokenizer.generateString(tokens);
    require(line.has_value());
    const auto units = QBText::toUTF16(*line);
    require(units.has_value());
    if (units->size() > static_cast<std::size_t>(QBVPNConfiguration::defaultMaxLineLength)) return;
    const auto again = tokenizer.parseLine(*line);
    require(again && *again == tokens);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const QBVPNConfiguration tokenizer;
    const std::string_view input(reinterpret_cast<const char*>(data), size);

    if (const auto tokens = tokenizer.parseLine(input)) {
        for (const auto& token : *tokens) require(!token.empty());
        checkRoundTrip(tokenizer, *tokens);
    }

    QBVPNConfiguration::Parameters tokens;
    for (std::size_t start = 0; start <= input.size();) {
        const auto cut = std::min(input.find('\xFF', start), input.size());
        if (cut > start) tokens.emplace_back(input.substr(start, cut - start));
        start = cut + 1;
    }
    for (const auto& token : tokens) {
        if (!QBText::isValidUTF8(token)) return 0;
    }
    if (!tokens.empty()) checkRoundTrip(tokenizer, tokens);
    return 0;
}
