#include <gtest/gtest.h>

#include <limits>

#include "platform/QBText.h"

TEST(QBTextTest, LeadingIntegerFollowsTheScanRules) {
    struct Case {
        const char* text;
        std::int64_t value;
    };
    const Case cases[] = {
        {"443", 443},   {"  \t\n-12abc", -12},  {"+7", 7},   {"", 0},       {"abc", 0},
        {"- 5", 0},     {"12 34", 12},          {"0x10", 0}, {"\u00a0" "9", 9},  // no-break space skipped
        {"99999999999999999999", std::numeric_limits<std::int64_t>::max()},
        {"-99999999999999999999", std::numeric_limits<std::int64_t>::min()},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
        {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
    };
    for (const auto& c : cases) EXPECT_EQ(QBText::scanLeadingInteger(c.text), c.value) << c.text;
}

TEST(QBTextTest, RejectsMalformedUTF8) {
    EXPECT_TRUE(QBText::isValidUTF8("plain ascii"));
    EXPECT_TRUE(QBText::isValidUTF8("b\xc3\xbc" "cher \xf0\x9f\x98\x80"));
    EXPECT_FALSE(QBText::isValidUTF8("\xc3"));              // truncated sequence
    EXPECT_FALSE(QBText::isValidUTF8("\xc0\xaf"));          // overlong slash
    EXPECT_FALSE(QBText::isValidUTF8("\xed\xa0\x80"));      // encoded surrogate
    EXPECT_FALSE(QBText::isValidUTF8("\xf4\x90\x80\x80"));  // above U+10FFFF
    EXPECT_FALSE(QBText::toUTF16("\xff").has_value());
}

TEST(QBTextTest, UTF16RoundTripCountsCodeUnits) {
    const auto utf16 = QBText::toUTF16("a\xf0\x9f\x98\x80" "b");
    ASSERT_TRUE(utf16.has_value());
    EXPECT_EQ(utf16->size(), 4u);  // the emoji is a surrogate pair
    EXPECT_EQ(QBText::toUTF8(*utf16), "a\xf0\x9f\x98\x80" "b");
}

TEST(QBTextTest, CharacterClasses) {
    for (char32_t c : {U' ', U'\t', U'\n', U'\v', U'\f', U'\r', U'\u0085', U'\u00a0', U'\u2028',
                       U'\u2029', U'\u3000'}) {
        EXPECT_TRUE(QBText::isWhitespaceOrNewline(c)) << static_cast<unsigned>(c);
    }
    for (char32_t c : {U'a', U'#', U'\0', U'\u200b', U'\U0001F600'}) {
        EXPECT_FALSE(QBText::isWhitespaceOrNewline(c)) << static_cast<unsigned>(c);
    }
    EXPECT_TRUE(QBText::isNewline(U'\v'));
    EXPECT_TRUE(QBText::isNewline(U'\u2029'));
    EXPECT_FALSE(QBText::isNewline(U' '));
    EXPECT_FALSE(QBText::isNewline(U'\u00a0'));
}
