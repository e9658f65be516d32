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

TEST(QBVPNConfigurationTokenizerTest, LinesWithoutWordsGiveNothing) {
    expectTokens({{"", none}, {"  \t \t ", none}, {"   # remote a", none}, {";remote a", none},
                  {"#lumentide name Office", none},  // a meta-command line read alone
                  {"\"\"", none}, {"\\", none}, {"remote \xff\xfe", none}});
}

TEST(QBVPNConfigurationTokenizerTest, CommentsQuotesAndBackslashes) {
    expectTokens({
        {"remote vpn.example 1194 # primary", {{"remote", "vpn.example", "1194"}}},
        {"cipher;AES rest", {{"cipher"}}},
        {"verb#3", {{"verb"}}},
        {"a\\#b \\;c", {{"a#b", ";c"}}},
        // Quotes only switch splitting off and on.
        {"remote \"two words\" 443", {{"remote", "two words", "443"}}},
        {"verb \"\"", {{"verb"}}},
        {"a\"b c\"d", {{"ab cd"}}},
        {"x \"#; kept\" y", {{"x", "#; kept", "y"}}},
        {"open \"rest  # not; a comment", {{"open", "rest  # not; a comment"}}},  // never closed
        // A backslash takes the next code unit literally.
        {"a\\ b c", {{"a b", "c"}}},
        {"a\\\\b", {{"a\\b"}}},
        {"say \\\"hi there", {{"say", "\"hi", "there"}}},
        {"\"in \\\" quotes\"", {{"in \" quotes"}}},
        {"end\\", {{"end"}}},
        {"\\\xF0\x9F\x98\x80", {{"\xF0\x9F\x98\x80"}}},  // escaped surrogate pair stays whole
    });
}

TEST(QBVPNConfigurationTokenizerTest, SplitsOnEveryWhiteSpaceAndLineBreak) {
    expectTokens({
        {"one\ntwo\r\nthree\xE2\x80\xA8" "four", {{"one", "two", "three", "four"}}},
        {"\xC2\xA0word\xE3\x80\x80other\xC2\xA0", {{"word", "other"}}},  // NBSP, U+3000
        {"x\xE2\x80\x8By", {{"x\xE2\x80\x8By"}}},                          // zero-width space
        {"\xF0\x9F\x98\x80 a\xF0\x9F\x98\x80", {{"\xF0\x9F\x98\x80", "a\xF0\x9F\x98\x80"}}},
        {"    inet 127.0.0.1/8\tmtu 16384", {{"inet", "127.0.0.1/8", "mtu", "16384"}}},
    });
}

TEST(QBVPNConfigurationTokenizerTest, LengthLimitCountsUTF16UnitsBeforeTrimming) {
    const auto limit = static_cast<std::size_t>(QBVPNConfiguration::defaultMaxLineLength);
    const std::string euro = "\xE2\x82\xAC";       // one code unit, three bytes
    const std::string emoji = "\xF0\x9F\x98\x80";  // two code units, four bytes
    expectTokens({
        {repeated("a", limit), {{repeated("a", limit)}}},
        {repeated("a", limit + 1), none},
        {repeated(" ", limit - 4) + "abcde", none},  // blanks count before trimming
        {"abcd" + repeated(" ", limit - 4), {{"abcd"}}},
        {repeated(euro, limit), {{repeated(euro, limit)}}},
        {repeated(euro, limit + 1), none},
        {repeated(emoji, limit / 2), {{repeated(emoji, limit / 2)}}},
        {repeated(emoji, limit / 2) + "a", none},
    });
}
