#include <gtest/gtest.h>
#include <unicode/unistr.h>

#include <fstream>
#include <sstream>

#include "QBHost.h"

// tests/data/punycode_samples.txt: name, code points in hexadecimal, encoding; tab-separated.
TEST(QBHostPunycodeTest, RFC3492SamplesEncodeAndDecode) {
    std::ifstream in(QB_SOURCE_DIR "/tests/data/punycode_samples.txt");
    int samples = 0;
    for (std::string line, name, hex, encoded; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::getline(std::getline(std::getline(fields, name, '\t'), hex, '\t'), encoded);
        icu::UnicodeString codePoints;
        std::istringstream codes(hex);
        for (UChar32 code; codes >> std::hex >> code;) codePoints.append(code);
        std::string utf8;
        codePoints.toUTF8String(utf8);
        ++samples;
        EXPECT_EQ(QBHost::punycodeEncodedString(utf8), encoded) << name;
        EXPECT_EQ(QBHost::punycodeDecodedString(encoded), utf8) << name;
    }
    EXPECT_EQ(samples, 21);
}

TEST(QBHostPunycodeTest, EdgeInputs) {
    EXPECT_EQ(QBHost::punycodeEncodedString("\xff"), "");  // not UTF-8: no code points
    EXPECT_EQ(QBHost::longCharactersWithCount("a\xed\xa0\x80"), std::nullopt);  // a surrogate
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
    // Long runs of one digit: the decoder's work stays bounded.
    for (char digit : {'a', '9'}) QBHost::IDNADecodedString("xn--" + std::string(100000, digit));
}

TEST(QBHostIDNATest, NonASCIILabelsAreEncodedPrefixedLabelsDecodedBadOnesLeftOut) {
    const std::tuple<bool, const char*, const char*> cases[] = {
        {true, "j\u00fcrgen@B\u00fccher.Example", "xn--jrgen-kva@xn--Bcher-kva.Example"},
        {true, "a..b@.c", "a..b@.c"},                                 // separator runs unchanged
        {true, "bu\u0308cher.de", "xn--bcher-kva.de"},                // NFKC composes u + diaeresis
        {true, "b\u00fccher\uFF0E\uFF45\uFF58", "xn--bcher-kva.ex"},  // fullwidth forms
        {true, " b\u00fccher. example", "xn--bcher-kva.example"},     // blanks where labels begin
        {true, "\n\t a b .c", "a b .c"},                              // blanks inside a label kept
        {true, "a. .b", "a..b"},  // blank inside a separator run
        {false, "Xn--BCHER-KVA@xn--jrgen-kva", "B\u00fcCHER@j\u00fcrgen"},
        {false, "abc.xn--bcher-kv.de", "abc..de"},  // the label that does not decode vanishes
        {false, "xn--b\u00fc-kva.de", ".de"},       // non-ASCII inside a prefixed label
        {false, " xn--bcher-kva. example", "b\u00fccher.example"},
        {false, "\uFF58n--tda", "\uFF58n--tda"}};  // no normalisation when decoding
    for (const auto& [encode, name, expected] : cases) {
        EXPECT_EQ(encode ? QBHost::IDNAEncodeName(name) : QBHost::IDNADecodeName(name), expected)
            << name;
    }
}
