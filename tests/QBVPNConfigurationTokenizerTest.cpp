#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "QBVPNConfiguration.h"

namespace {

using Tokens = std::optional<std::vector<std::string>>;
const Tokens none = std::nullopt;

void expectTokens(const std::vector<std::pair<std::string, Tokens>>& cases) {
    const QBVPNConfiguration tokenizer;
    for (const auto& [line, tokens] : cases) EXPECT_EQ(tokenizer.parseLine(line), tokens) << line;
}

std::string repeated(std::string_view unit, std::size_t count) {
    std::string text;
    while (count-- > 0) text += unit;
    return text;
}

}  // namespace

TEST(QBVPNConfigurationTokenizerTest, CommentsQuotesBackslashesAndWhiteSpace) {
    expectTokens({
        {"  \t ", none}, {"   # remote a", none}, {"\"\"", none}, {"remote \xff", none},
        {"remote vpn.example 1194 # primary", {{"remote", "vpn.example", "1194"}}},
        {"cipher;AES rest", {{"cipher"}}}, {"a\\#b \\;c", {{"a#b", ";c"}}},
        {"a\"b c\"d \"\"", {{"ab cd"}}},  // quotes only switch splitting off and on
        {"x \"#; kept\" y", {{"x", "#; kept", "y"}}},
        {"open \"rest  # never closed", {{"open", "rest  # never closed"}}},
        {"a\\ b \\\\c\\", {{"a b", "\\c"}}},  // a backslash takes the next code unit literally
        {"say \\\"hi there", {{"say", "\"hi", "there"}}},
        {"\\\xF0\x9F\x98\x80", {{"\xF0\x9F\x98\x80"}}},  // escaped surrogate pair stays whole
        {"one\ntwo\r\nthree\xE2\x80\xA8" "four", {{"one", "two", "three", "four"}}},
        {"\xC2\xA0word\xE3\x80\x80x\xE2\x80\x8By", {{"word", "x\xE2\x80\x8By"}}},  // ZWSP: no blank
    });
}

TEST(QBVPNConfigurationTokenizerTest, LengthLimitCountsUTF16UnitsBeforeTrimming) {
    const auto limit = static_cast<std::size_t>(QBVPNConfiguration::defaultMaxLineLength);
    const std::string euro = "\xE2\x82\xAC";       // one code unit, three bytes
    const std::string emoji = "\xF0\x9F\x98\x80";  // two code units, four bytes
    expectTokens({
        {repeated("a", limit + 1), none},
        {repeated(" ", limit - 4) + "abcde", none},  // blanks count before trimming
        {repeated(euro, limit), {{repeated(euro, limit)}}},
        {repeated(euro, limit + 1), none},
        {repeated(emoji, limit / 2) + "a", none},
    });
}
