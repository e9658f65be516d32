#include <gtest/gtest.h>

#include <limits>

#include "platform/QBText.h"

TEST(QBTextTest, LeadingIntegerSkipsWhiteSpaceTakesASignAndSaturates) {
    constexpr auto max = std::numeric_limits<std::int64_t>::max();
    constexpr auto min = std::numeric_limits<std::int64_t>::min();
    const std::pair<const char*, std::int64_t> cases[] = {
        {"\u00a0\t\n-12abc", -12}, {"+7", 7}, {"", 0}, {"- 5", 0}, {"0x10", 0},
        {"99999999999999999999", max}, {"-99999999999999999999", min},
        {"-9223372036854775808", min}, {"9223372036854775807", max}};
    for (const auto& [text, value] : cases)
        EXPECT_EQ(QBText::scanLeadingInteger(text), value) << text;
}

TEST(QBTextTest, UTF8ValidationAndCharacterClasses) {
    EXPECT_TRUE(QBText::isValidUTF8("plain ascii, b\xc3\xbc" "cher"));
    for (const char* bad : {"12345678\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
        EXPECT_FALSE(QBText::isValidUTF8(bad)) << bad;  // cut short, overlong, surrogate, too big
    for (char32_t c : {U' ', U'\t', U'\r', U'\u0085', U'\u00a0', U'\u2028', U'\u3000'})
        EXPECT_TRUE(QBText::isWhitespaceOrNewline(c)) << static_cast<unsigned>(c);
    for (char32_t c : {U'a', U'\0', U'\u200b'})
        EXPECT_FALSE(QBText::isWhitespaceOrNewline(c)) << static_cast<unsigned>(c);
    EXPECT_TRUE(QBText::isNewline(U'\v') && QBText::isNewline(U'\u2029'));
    EXPECT_FALSE(QBText::isNewline(U' ') || QBText::isNewline(U'\u00a0'));
}
