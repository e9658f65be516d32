#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "QBVPNConfiguration.h"

namespace {

using Tokens = std::optional<std::vector<std::string>>;

std::string repeated(std::string_view unit, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += unit;
    return text;
}

struct LineCase {
    const char* what;
    std::string line;
    Tokens tokens;
};

void expectTokens(const std::vector<LineCase>& cases) {
    const QBVPNConfiguration tokenizer;
    for (const auto& c : cases) EXPECT_EQ(tokenizer.parseLine(c.line), c.tokens) << c.what;
}

}  // namespace

TEST(QBVPNConfigurationTokenizerTest, LinesWithoutWordsGiveNothing) {
    expectTokens({
        {"empty", "", std::nullopt},
        {"blanks and tabs", "  \t \t ", std::nullopt},
        {"number sign after blanks", "   # remote a", std::nullopt},
        {"semicolon", ";remote a", std::nullopt},
        {"meta-command line read alone", "#lumentide name Office", std::nullopt},
        {"lone pair of quotes", "\"\"", std::nullopt},
        {"lone backslash", "\\", std::nullopt},
        {"invalid UTF-8", "remote \xff\xfe", std::nullopt},
    });
}

TEST(QBVPNConfigurationTokenizerTest, CommentsEndTheLine) {
    expectTokens({
        {"trailing comment",
         "remote vpn.example 1194 # primary",
         {{"remote", "vpn.example", "1194"}}},
        {"semicolon right after a word", "cipher;AES rest", {{"cipher"}}},
        {"number sign right after a word", "verb#3", {{"verb"}}},
        {"escaped comment characters", "a\\#b \\;c", {{"a#b", ";c"}}},
    });
}

TEST(QBVPNConfigurationTokenizerTest, QuotesOnlySwitchSplittingOff) {
    expectTokens({
        {"quoted words", "remote \"two words\" 443", {{"remote", "two words", "443"}}},
        {"empty quotes after a word", "verb \"\"", {{"verb"}}},
        {"quoted part joins its neighbours", "a\"b c\"d", {{"ab cd"}}},
        {"comment characters inside quotes", "x \"#; kept\" y", {{"x", "#; kept", "y"}}},
        {"quote never closed",
         "open \"rest  # not; a comment",
         {{"open", "rest  # not; a comment"}}},
    });
}

TEST(QBVPNConfigurationTokenizerTest, BackslashTakesTheNextUnitLiterally) {
    expectTokens({
        {"escaped blank", "a\\ b c", {{"a b", "c"}}},
        {"escaped backslash", "a\\\\b", {{"a\\b"}}},
        {"escaped quote does not open quotes", "say \\\"hi there", {{"say", "\"hi", "there"}}},
        {"escaped quote inside quotes", "\"in \\\" quotes\"", {{"in \" quotes"}}},
        {"trailing backslash dropped", "end\\", {{"end"}}},
        {"escaped character outside the BMP", "\\\xF0\x9F\x98\x80", {{"\xF0\x9F\x98\x80"}}},
    });
}

TEST(QBVPNConfigurationTokenizerTest, SplitsOnEveryWhiteSpaceAndLineBreak) {
    expectTokens({
        {"line breaks inside the string",
         "one\ntwo\r\nthree\xE2\x80\xA8"
         "four",
         {{"one", "two", "three", "four"}}},
        {"no-break and ideographic spaces",
         "\xC2\xA0word\xE3\x80\x80other\xC2\xA0",
         {{"word", "other"}}},
        {"zero-width space is text", "x\xE2\x80\x8By", {{"x\xE2\x80\x8By"}}},
        {"surrogate pairs are text",
         "\xF0\x9F\x98\x80 a\xF0\x9F\x98\x80",
         {{"\xF0\x9F\x98\x80", "a\xF0\x9F\x98\x80"}}},
        {"interface listing",
         "    inet 127.0.0.1/8 scope host lo",
         {{"inet", "127.0.0.1/8", "scope", "host", "lo"}}},
        {"tool output with tabs",
         "lo0: flags=8049<UP,LOOPBACK>\tmtu 16384",
         {{"lo0:", "flags=8049<UP,LOOPBACK>", "mtu", "16384"}}},
    });
}

TEST(QBVPNConfigurationTokenizerTest, LengthLimitCountsUTF16UnitsBeforeTrimming) {
    const auto limit = static_cast<std::size_t>(QBVPNConfiguration::defaultMaxLineLength);
    const std::string euro = "\xE2\x82\xAC";       // one code unit, three bytes
    const std::string emoji = "\xF0\x9F\x98\x80";  // two code units, four bytes
    expectTokens({
        {"at the limit", repeated("a", limit), {{repeated("a", limit)}}},
        {"one past the limit", repeated("a", limit + 1), std::nullopt},
        {"blanks count before trimming", repeated(" ", limit - 4) + "abcde", std::nullopt},
        {"trailing blanks within the limit", "abcd" + repeated(" ", limit - 4), {{"abcd"}}},
        {"three-byte units at the limit", repeated(euro, limit), {{repeated(euro, limit)}}},
        {"three-byte units past the limit", repeated(euro, limit + 1), std::nullopt},
        {"surrogate pairs at the limit",
         repeated(emoji, limit / 2),
         {{repeated(emoji, limit / 2)}}},
        {"surrogate pairs past the limit", repeated(emoji, limit / 2) + "a", std::nullopt},
    });
}
