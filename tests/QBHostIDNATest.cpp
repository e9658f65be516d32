#include <gtest/gtest.h>
#include <unicode/unistr.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "QBHost.h"
#include "platform/QBText.h"

namespace {

std::string utf8(const std::u32string& codePoints) {
    std::string out;
    icu::UnicodeString::fromUTF32(reinterpret_cast<const UChar32*>(codePoints.data()),
                                  static_cast<int32_t>(codePoints.size()))
        .toUTF8String(out);
    return out;
}

}  // namespace

// tests/data/punycode_samples.txt: name, code points in hexadecimal, encoding; tab-separated.
TEST(QBHostPunycodeTest, RFC3492SamplesEncodeAndDecodeAlsoAsIDNALabels) {
    std::ifstream in(std::string(QB_SOURCE_DIR) + "/tests/data/punycode_samples.txt");
    int samples = 0;
    for (std::string line, name, hex, encoded; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::getline(std::getline(std::getline(fields, name, '\t'), hex, '\t'), encoded);
        std::u32string codePoints;
        std::istringstream codes(hex);
        for (std::string code; codes >> code;) codePoints.push_back(std::stoul(code, nullptr, 16));
        const std::string text = utf8(codePoints);
        ++samples;
        EXPECT_EQ(QBHost::punycodeEncodedString(text), encoded) << name;
        EXPECT_EQ(QBHost::punycodeDecodedString(encoded), text) << name;
        if (name == "dollar-arrows") continue;  // ASCII with a "." inside: no IDNA label
        EXPECT_EQ(QBHost::IDNAEncodedString(text), "xn--" + encoded) << name;
        EXPECT_EQ(QBHost::IDNADecodedString("xn--" + encoded), text) << name;
    }
    EXPECT_EQ(samples, 21);
    // The RFC prints the Russian sample with a case annotation ("D"): digit case means nothing.
    EXPECT_EQ(QBHost::punycodeDecodedString("b1abfaaepdrnnbgefbaDotcwatmq2g4l"),
              QBHost::punycodeDecodedString("b1abfaaepdrnnbgefbadotcwatmq2g4l"));
}

TEST(QBHostPunycodeTest, EdgeInputs) {
    EXPECT_EQ(QBHost::punycodeEncodedString("\xff"), "");  // not UTF-8: no code points
    EXPECT_EQ(QBHost::longCharactersWithCount("a\xed\xa0\x80"), std::nullopt);  // a surrogate
    EXPECT_EQ(QBHost::punycodeEncodedString("\U0010FFFF"), "dn32g");
    EXPECT_EQ(QBHost::punycodeDecodedString("dn32g"), "\U0010FFFF");
    EXPECT_EQ(QBHost::punycodeDecodedString("0y0c"), "\uE000");
    for (const char* input : {
             "en32g", "ib9b", "zy0c",  // U+110000, U+D800, U+DFFF
             "-a",                     // a leading "-" is no basic part, and no digit
             "bcher-kv",               // ends in the middle of a number
             "b\u00fccher-kva", "bcher-k!a",  // non-ASCII basic part, not a digit
             "99999999999",  // i + digit * w overflows
             "k0902716a"})   // i is 2^32 - 1, so n + i / (out + 1) overflows
        EXPECT_EQ(QBHost::punycodeDecodedString(input), std::nullopt) << input;
    // 5000 basic code points then U+10FFFF: the first delta is about 5.6e9, beyond 32 bits.
    const std::string label = std::string(5000, 'a') + "\U0010FFFF";
    EXPECT_EQ(QBHost::punycodeEncodedString(label), std::nullopt);
    EXPECT_EQ(QBHost::IDNAEncodedString("x." + label + ".y"), "x..y");  // the label is left out
}

TEST(QBHostIDNATest, NonASCIILabelsAreEncodedOthersKeptAsTheyAre) {
    const std::pair<const char*, const char*> cases[] = {
        {"j\u00fcrgen@B\u00fccher.Example", "xn--jrgen-kva@xn--Bcher-kva.Example"},
        {"a..b@.c", "a..b@.c"},                                 // separator runs unchanged
        {"bu\u0308cher.de", "xn--bcher-kva.de"},                // NFKC composes u + diaeresis
        {"b\u00fccher\uFF0E\uFF45\uFF58", "xn--bcher-kva.ex"},  // fullwidth forms
        {" b\u00fccher. example", "xn--bcher-kva.example"},     // blanks where labels begin
        {"\n\t a b .c", "a b .c"},                              // blanks inside a label kept
        {"a. .b", "a..b"}};                                     // blank inside a separator run
    for (const auto& [name, encoded] : cases)
        EXPECT_EQ(QBHost::IDNAEncodeName(name), encoded) << name;
}

TEST(QBHostIDNATest, PrefixedLabelsAreDecodedBadOnesLeftOut) {
    const std::pair<const char*, const char*> cases[] = {
        {"Xn--BCHER-KVA@xn--jrgen-kva", "B\u00fcCHER@j\u00fcrgen"},
        {"abc.xn--bcher-kv.de", "abc..de"},  // the label that does not decode vanishes
        {"xn--b\u00fc-kva.de", ".de"},       // non-ASCII inside a prefixed label
        {" xn--bcher-kva. example", "b\u00fccher.example"},
        {"\uFF58n--tda", "\uFF58n--tda"}};  // no normalisation when decoding
    for (const auto& [name, decoded] : cases)
        EXPECT_EQ(QBHost::IDNADecodeName(name), decoded) << name;
}

// Random pieces and very long digit runs: every input ends with valid text or nothing.
TEST(QBHostPunycodeTest, DecodingArbitraryInputEndsWithTextOrNothing) {
    std::mt19937 random(20240611);  // fixed seed: the same inputs on every run
    const char* const pieces[] = {"a", "k", "Z", "0", "9", "-", "-", "!", "\xc3\xa9",
                                  "\xf0\x9f\x98\x80", "\xff"};
    std::vector<std::string> inputs{std::string(100000, 'a'), std::string(100000, '9')};
    for (int round = 0; round < 3000; ++round) {
        std::string input;
        for (int i = std::uniform_int_distribution(0, 40)(random); i > 0; --i)
            input += pieces[random() % std::size(pieces)];
        inputs.push_back(input);
    }
    for (const auto& input : inputs) {
        const auto decoded = QBHost::punycodeDecodedString(input);
        EXPECT_TRUE(!decoded || QBText::isValidUTF8(*decoded)) << input;
        QBHost::IDNADecodedString("xn--" + input);
    }
}

TEST(QBHostPunycodeTest, EveryEncodedLabelDecodesBackToItself) {
    std::mt19937 random(7);
    // ASCII, Latin, CJK, private use and beyond the BMP; no surrogates. The first label is long
    // but stays in the BMP, where its deltas cannot reach 32 bits.
    const std::pair<char32_t, char32_t> ranges[] = {
        {0x21, 0x7E}, {0xA0, 0x24F}, {0x4E00, 0x9FFF}, {0xE000, 0xFFFD}, {0x10000, 0x10FFFF}};
    for (int round = 0; round < 1000; ++round) {
        std::u32string codePoints(round == 0 ? 2000 : random() % 30 + 1, U'\0');
        for (auto& c : codePoints) {
            const auto& [low, high] = ranges[random() % (round == 0 ? 4 : 5)];
            c = std::uniform_int_distribution<std::uint32_t>(low, high)(random);
        }
        const std::string text = utf8(codePoints);
        const auto encoded = QBHost::punycodeEncodedString(text);
        ASSERT_TRUE(encoded.has_value()) << round;
        EXPECT_EQ(QBHost::punycodeDecodedString(*encoded), text) << *encoded;
    }
}
