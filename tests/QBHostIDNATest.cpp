#include <gtest/gtest.h>
#include <unicode/unistr.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

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

struct Sample {
    std::string name;
    std::u32string codePoints;
    std::string encoded;
};

// tests/data/punycode_samples.txt: name, code points in hex, encoding; tab-separated.
std::vector<Sample> loadSamples() {
    std::ifstream in(std::string(QB_SOURCE_DIR) + "/tests/data/punycode_samples.txt");
    std::vector<Sample> samples;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        Sample sample;
        std::string hex;
        std::getline(fields, sample.name, '\t');
        std::getline(fields, hex, '\t');
        std::getline(fields, sample.encoded);
        std::istringstream codes(hex);
        for (std::string code; codes >> code;)
            sample.codePoints.push_back(std::stoul(code, nullptr, 16));
        samples.push_back(sample);
    }
    return samples;
}

}  // namespace

TEST(QBHostPunycodeTest, RFC3492SamplesEncodeAndDecodeAlsoAsIDNALabels) {
    const auto samples = loadSamples();
    ASSERT_EQ(samples.size(), 21u);
    for (const auto& sample : samples) {
        const std::string text = utf8(sample.codePoints);
        EXPECT_EQ(QBHost::punycodeEncodedString(text), sample.encoded) << sample.name;
        EXPECT_EQ(QBHost::punycodeDecodedString(sample.encoded), text) << sample.name;
        if (sample.name == "dollar-arrows") continue;  // ASCII with a "." inside: no IDNA label
        EXPECT_EQ(QBHost::IDNAEncodedString(text), "xn--" + sample.encoded) << sample.name;
        EXPECT_EQ(QBHost::IDNADecodedString("xn--" + sample.encoded), text) << sample.name;
    }
    // The RFC prints the Russian sample with a case annotation ("D"): digit case means nothing.
    EXPECT_EQ(QBHost::punycodeDecodedString("b1abfaaepdrnnbgefbaDotcwatmq2g4l"),
              QBHost::punycodeDecodedString("b1abfaaepdrnnbgefbadotcwatmq2g4l"));
}

TEST(QBHostPunycodeTest, EdgeInputs) {
    EXPECT_EQ(QBHost::punycodeEncodedString(""), "");
    EXPECT_EQ(QBHost::punycodeDecodedString(""), "");
    EXPECT_EQ(QBHost::punycodeEncodedString("\xff"), "");  // not UTF-8: no code points
    EXPECT_EQ(QBHost::longCharactersWithCount("a\u00fc\U0001F600"),
              (std::u32string{U'a', 0xFC, 0x1F600}));
    EXPECT_EQ(QBHost::longCharactersWithCount("a\xed\xa0\x80"), std::nullopt);  // encoded surrogate
    // The last code point decodes and encodes; one past it, and surrogates, do not decode.
    EXPECT_EQ(QBHost::punycodeDecodedString("dn32g"), "\U0010FFFF");
    EXPECT_EQ(QBHost::punycodeEncodedString("\U0010FFFF"), "dn32g");
    EXPECT_EQ(QBHost::punycodeDecodedString("hb9b"), "\uD7FF");
    EXPECT_EQ(QBHost::punycodeDecodedString("0y0c"), "\uE000");
    for (const char* input : {
             "en32g", "ib9b", "zy0c",  // U+110000, U+D800, U+DFFF
             "-a",                     // a leading "-" is no basic part, and no digit
             "bcher-kv",               // ends in the middle of a number
             "b\u00fccher-kva", "bcher-k\u00fca", "bcher-k!a",  // non-ASCII or not a digit
             "99999999999",  // i + digit * w overflows
             "k0902716a",    // i is 2^32 - 1, so n + i / (out + 1) overflows
             "bb000a"})      // far above U+10FFFF without overflow
        EXPECT_EQ(QBHost::punycodeDecodedString(input), std::nullopt) << input;
}

TEST(QBHostPunycodeTest, EncodingOverflowGivesNothingAndTheIDNALabelIsLeftOut) {
    // 5000 basic code points then U+10FFFF: the first delta is about 5.6e9, beyond 32 bits.
    const std::string label = std::string(5000, 'a') + "\U0010FFFF";
    EXPECT_EQ(QBHost::punycodeEncodedString(label), std::nullopt);
    EXPECT_EQ(QBHost::IDNAEncodedString("x." + label + ".y"), "x..y");
}

TEST(QBHostIDNATest, NonASCIILabelsAreEncodedOthersKeptAsTheyAre) {
    const std::pair<const char*, const char*> cases[] = {
        {"b\u00fccher.Example.COM", "xn--bcher-kva.Example.COM"},
        {"B\u00fccher.de", "xn--Bcher-kva.de"},
        {"j\u00fcrgen@b\u00fccher.de", "xn--jrgen-kva@xn--bcher-kva.de"},
        {"a..b@.c", "a..b@.c"},                                 // separator runs unchanged
        {"bu\u0308cher.de", "xn--bcher-kva.de"},                // NFKC composes u + diaeresis
        {"b\u00fccher\uFF0Eexample", "xn--bcher-kva.example"},  // fullwidth full stop
        {"\uFF45\uFF58\uFF41\uFF4D\uFF50\uFF4C\uFF45.de", "example.de"},
        {" b\u00fccher. example", "xn--bcher-kva.example"},  // blanks where labels begin
        {"\n\t a b .c", "a b .c"},                           // blanks inside a label kept
        {"a. .b", "a..b"},                                   // blank inside a separator run
    };
    for (const auto& [name, encoded] : cases)
        EXPECT_EQ(QBHost::IDNAEncodeName(name), encoded) << name;
}

TEST(QBHostIDNATest, PrefixedLabelsAreDecodedBadOnesLeftOut) {
    const std::pair<const char*, const char*> cases[] = {
        {"XN--bcher-kva.de", "b\u00fccher.de"},
        {"Xn--BCHER-KVA", "B\u00fcCHER"},
        {"xn--jrgen-kva@xn--bcher-kva.de", "j\u00fcrgen@b\u00fccher.de"},
        {"abc.xn--bcher-kv.de", "abc..de"},  // the label that does not decode vanishes
        {"xn--b\u00fc-kva.de", ".de"},       // non-ASCII inside a prefixed label
        {" xn--bcher-kva. example", "b\u00fccher.example"},
        {"\uFF58n--tda", "\uFF58n--tda"},  // no normalisation when decoding
    };
    for (const auto& [name, decoded] : cases)
        EXPECT_EQ(QBHost::IDNADecodeName(name), decoded) << name;
}

// Random pieces, a valid encoding with a "-" at every position, and very long digit runs.
TEST(QBHostPunycodeTest, DecodingArbitraryInputEndsWithTextOrNothing) {
    std::mt19937 random(20240611);  // fixed seed: the same inputs on every run
    const char* const pieces[] = {"a", "k", "z", "A", "Z", "0", "9", "-", "-", "!", "\xc3\xa9",
                                  "\xe4\xb8\xad", "\xf0\x9f\x98\x80", "\xff"};
    const auto check = [](const std::string& input) {
        const auto decoded = QBHost::punycodeDecodedString(input);
        EXPECT_TRUE(!decoded || QBText::isValidUTF8(*decoded)) << input;
        QBHost::IDNADecodedString("xn--" + input);
    };
    for (int round = 0; round < 5000; ++round) {
        std::string input;
        for (int i = std::uniform_int_distribution(0, 40)(random); i > 0; --i)
            input += pieces[random() % std::size(pieces)];
        check(input);
    }
    const std::string valid = "ihqwcrb4cv8a8dqg056pqjye";
    for (std::size_t at = 0; at <= valid.size(); ++at)
        check(valid.substr(0, at) + "-" + valid.substr(at));
    std::string digits;
    for (int i = 0; i < 100000; ++i)
        digits += "abcdefghijklmnopqrstuvwxyz0123456789"[random() % 36];
    for (const auto& input :
         {std::string(100000, 'a'), std::string(100000, '9'), digits, "abc-" + digits})
        check(input);
}

TEST(QBHostPunycodeTest, EveryEncodedLabelDecodesBackToItself) {
    std::mt19937 random(7);
    // ASCII, Latin, CJK, private use and beyond the BMP; no surrogates. The first label is long
    // but stays in the BMP, where its deltas cannot reach 32 bits.
    const std::pair<char32_t, char32_t> ranges[] = {
        {0x21, 0x7E}, {0xA0, 0x24F}, {0x4E00, 0x9FFF}, {0xE000, 0xFFFD}, {0x10000, 0x10FFFF}};
    for (int round = 0; round < 1000; ++round) {
        std::u32string codePoints;
        const bool longLabel = round == 0;
        const int length = longLabel ? 2000 : std::uniform_int_distribution(1, 30)(random);
        for (int i = 0; i < length; ++i) {
            const auto& [low, high] = ranges[random() % (longLabel ? 4 : 5)];
            codePoints.push_back(static_cast<char32_t>(
                std::uniform_int_distribution<std::uint32_t>(low, high)(random)));
        }
        const std::string text = utf8(codePoints);
        const auto encoded = QBHost::punycodeEncodedString(text);
        ASSERT_TRUE(encoded.has_value()) << round;
        EXPECT_EQ(QBHost::punycodeDecodedString(*encoded), text) << *encoded;
    }
}
