#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cctype>
#include <filesystem>
#include <fstream>

#include "QBVPNConfiguration.h"
#include "platform/QBFile.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using Parameters = QBVPNConfiguration::Parameters;
using Occurrences = QBVPNConfiguration::Occurrences;
const std::string header(QBVPNConfiguration::generatedHeader);

static std::shared_ptr<QBVPNConfiguration> load(std::string_view text) {
    return QBVPNConfiguration::configurationWithData(text, std::nullopt);
}

static void expectTokens(
    const std::vector<std::pair<std::string, std::optional<Parameters>>>& cases) {
    const QBVPNConfiguration tokenizer;
    for (const auto& [line, tokens] : cases) EXPECT_EQ(tokenizer.parseLine(line), tokens) << line;
}

// Inline blocks "<ca>" ... "</ca>" ("<?>" has no name); command names stored in lower case.
struct InlineBlockConfiguration : QBVPNConfiguration {
    InlineBlockConfiguration() { parseMultilineCommands = true; }
    std::string parseCommand(std::string_view command) const override {
        std::string name(command);
        for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return name;
    }
    bool isMultilineCommandStart(std::string_view line) const override {
        return line.size() > 2 && line.front() == '<' && line.back() == '>' && line[1] != '/';
    }
    bool isMultilineCommandEnd(std::string_view line, std::string_view name) const override {
        return line == *multilineCommandEndForName(name);
    }
    std::optional<std::string> multilineCommandNameForLine(std::string_view line) const override {
        return line == "<?>" ? std::nullopt : std::optional(std::string(line.substr(1, line.size() - 2)));
    }
    std::optional<std::string> multilineCommandStartForName(std::string_view name) const override {
        return "<" + std::string(name) + ">";
    }
    std::optional<std::string> multilineCommandEndForName(std::string_view name) const override {
        return "</" + std::string(name) + ">";
    }
};

TEST(QBVPNConfigurationTokenizerTest, CommentsQuotesBackslashesAndWhiteSpace) {
    expectTokens({
        {"  \t ", {}}, {"   # remote a", {}}, {"\"\"", {}}, {"remote \xff", {}},
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

// A meta line's limit excludes the prefix: its longer line is skipped.
TEST(QBVPNConfigurationTokenizerTest, LengthLimitCountsUTF16UnitsBeforeTrimmingAndNotTheMetaPrefix) {
    const auto limit = static_cast<std::size_t>(QBVPNConfiguration::defaultMaxLineLength);
    const std::string euro = "\xE2\x82\xAC";       // one code unit, three bytes
    const std::string emoji = "\xF0\x9F\x98\x80";  // two code units, four bytes
    std::string euros, emojis;                    // limit code units each
    for (std::size_t i = 0; i < limit; ++i) euros += euro, emojis += i % 2 ? emoji : "";
    expectTokens({
        {std::string(limit - 4, ' ') + "abcde", {}},  // blanks count before trimming
        {euros, {{euros}}}, {euros + euro, {}}, {emojis + "a", {}},
    });
    const std::string word(limit - 6, 'x');  // " name " + word
    const auto document = load("#lumentide name " + word + "\n#lumentide name x" + word + "\n");
    EXPECT_EQ(document->getMetaCommands("name"), (Occurrences{{word}}));
}

// Every line break ends a line: LF, CR LF, NEL and the paragraph separator below.
TEST(QBVPNConfigurationDocumentTest, CommandsKeepEveryOccurrenceAndMetaLinesNeedThePrefixFirst) {
    const auto document = load("remote a.example 1194\r\nremote b.example\xC2\x85nobind\xE2\x80\xA9"
        "#lumentide name Office VPN # comment\n#lumentideprotocol tcp\n"
        " #lumentide indented comment\n#Lumentide case matters\n");
    EXPECT_EQ(document->getCommands("remote"), (Occurrences{{"a.example", "1194"}, {"b.example"}}));
    EXPECT_EQ(document->getFirstParameterForCommand("remote"), "b.example");
    EXPECT_EQ(document->getCommands("nobind"), (Occurrences{{}}));
    EXPECT_EQ(document->getFirstParameterForCommand("nobind"), std::nullopt);
    EXPECT_EQ(document->getMetaCommand("name"), (Parameters{"Office", "VPN"}));
    EXPECT_EQ(document->getMetaCommand("protocol"), (Parameters{"tcp"}));
    EXPECT_FALSE(document->metaCommandExists("indented") || document->metaCommandExists("case"));
    EXPECT_FALSE(document->commandExists("#lumentide"));
}

TEST(QBVPNConfigurationDocumentTest, LoadingAddsToTheStoresSetReplacesAddAppends) {
    QBVPNConfiguration document;
    document.parseRawData("remote a\n#lumentide name X\n");
    document.parseRawData("remote b\n");
    EXPECT_EQ(document.getCommands("remote")->size(), 2u);
    document.setCommand("remote", {"c", 1194});
    document.addCommand("remote", {-1, 2.5, true});
    EXPECT_EQ(document.getCommands("remote"), (Occurrences{{"c", "1194"}, {"-1", "2.5", "1"}}));
    document.addMetaCommand("name", {"Z", "W"});
    EXPECT_EQ(document.displayName(), "Z W");  // the last occurrence, words joined by one blank
    document.setMetaCommand("name");
    EXPECT_EQ(document.getMetaCommands("name"), (Occurrences{{}}));
    document.removeMetaCommand("name");
    EXPECT_EQ(document.displayName(), std::nullopt);
    document.removeMultilineCommand("ca");  // no store: nothing happens
    document.setMultilineCommand("ca", "one\n");
    EXPECT_TRUE(document.multilineCommandExists("ca"));
    document.removeAllMultilineCommands();
    EXPECT_EQ(document.getMultilineCommands(), std::nullopt);
}

TEST(QBVPNConfigurationDocumentTest, InvalidUTF8TextOrUnreadableFileLoadsNothing) {
    EXPECT_FALSE(load("remote a\n\xff\n")->commandExists("remote"));
    for (const char* path : {QB_SOURCE_DIR "/tests/data", QB_SOURCE_DIR "/tests/data/missing.ovpn"})
        EXPECT_FALSE(QBVPNConfiguration::configurationWithFile(path)->getUnknownCommands());
}

TEST(QBVPNConfigurationDocumentTest, PathHelpersNameTheFolderThatHoldsTheFile) {
    using Text = std::optional<std::string>;
    const std::tuple<Text, Text, Text> cases[] = {
        {"/home/u/Connections/office-1/config.ovpn", "/home/u/Connections/office-1", "office-1"},
        {"/config.ovpn", "/", "/"}, {"config.ovpn", "", ""}, {{}, {}, {}}};
    for (const auto& [path, parent, connectionID] : cases) {
        const auto document = QBVPNConfiguration::configurationWithData("", path);
        EXPECT_EQ(document->getSavePathParentDirectory(), parent) << path.value_or("(none)");
        EXPECT_EQ(document->getConnectionID(), connectionID) << path.value_or("(none)");
    }
}

TEST(QBVPNConfigurationGenerationTest, WriterQuotesAndEscapesOnlyWhatTheTokenizerNeeds) {
    const std::pair<Parameters, std::string> cases[] = {
        {{"a", "", "b"}, "a  b"}, {{"say \"hi\""}, "\"say \\\"hi\\\"\""},
        {{"back\\slash"}, "back\\\\slash"}, {{"a#b;c"}, "a\\#b\\;c"}, {{"a\t#b;c"}, "\"a\t#b;c\""}};
    for (const auto& [parameters, written] : cases)
        EXPECT_EQ(QBVPNConfiguration().generateString(parameters), written) << written;
}

// Ill-formed UTF-8 is written replaced, so the text still loads (round trips: fuzz/config_*).
TEST(QBVPNConfigurationGenerationTest, GeneratedDocumentReadsBackToTheSameStores) {
    QBVPNConfiguration original;
    original.setCommand("verb\xff", {"a\xc3 b"});
    const auto copy = load(original.generateRawConfigurationData());
    EXPECT_EQ(copy->getCommand("verb\uFFFD"), (Parameters{"a\uFFFD b"}));
}

TEST(QBVPNConfigurationGenerationTest, TextHasHeaderThenMetaKnownAndUnknownCommands) {
    auto document = load("verb 3\nnobind\nremote b.example 1194\n#lumentide name My VPN\nremote a.example\ndev tun\n");
    const std::string known = header + "#lumentide name My VPN\nremote b.example 1194\nremote a.example\n";
    // The blank after a name is always written.
    EXPECT_EQ(document->generateRawConfigurationData(), known + "dev tun\nnobind \nverb 3\n");
    EXPECT_EQ(document->getUnknownCommandsAsString(), "dev tun\nnobind\nverb 3\n");
    document->removeUnknownCommands();
    EXPECT_EQ(document->generateRawConfigurationData(), known);
}

TEST(QBVPNConfigurationGenerationTest, SaveReplacesTheFileWholeOrNotAtAllKeepsItsModeAndSetsTheProtocol) {
    TempDir directory;
    const std::string path = directory.file("config.ovpn");
    std::ofstream(path) << "old content\n";
    fs::permissions(path, fs::perms(0640));
    auto document = QBVPNConfiguration::configurationWithData("remote a.example 1194\n", path);
    document->save();
    const auto saved = QBFile::readRegular(path);
    EXPECT_EQ(saved, document->generateRawConfigurationData());
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0640));
    EXPECT_FALSE(document->metaCommandExists("protocol"));  // none set: none recorded
    // A file-size limit makes the next write fail part-way, even for root.
    rlimit unlimited{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    const auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{8, unlimited.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    document->setCommand("remote", {"b.example"});
    document->save();
    ::setrlimit(RLIMIT_FSIZE, &unlimited);
    ::signal(SIGXFSZ, previousHandler);
    EXPECT_EQ(QBFile::readRegular(path), saved);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), 1);  // no temporary
    QBVPNConfiguration::configurationWithData("remote x\n", directory.file("new.ovpn"))->save();
    EXPECT_EQ(fs::status(directory.file("new.ovpn")).permissions(), fs::perms(0600));  // keys
    QBVPNConfiguration().save();  // no path: writes nothing, reports nothing
    struct ProtocolConfiguration : QBVPNConfiguration {
        ProtocolConfiguration() { _protocol = "tcp"; }
    } withProtocol;
    withProtocol.parseRawData("#lumentide protocol udp\n#lumentide protocol tls\n");
    withProtocol.save();
    EXPECT_EQ(withProtocol.getMetaCommands("protocol"), QBVPNConfiguration::Occurrences{{"tcp"}});
}

// Each load replaces the blocks (the file's among them) and drops unfinished or nameless ones.
TEST(QBVPNConfigurationSubclassTest, InlineBlocksLoadAsBlocksNotCommandsAndEachLoadReplacesThem) {
    const auto document = QBVPNConfiguration::configurationWithFile<InlineBlockConfiguration>(QB_SOURCE_DIR "/tests/data/office-profile.ovpn");
    EXPECT_EQ(document->getMultilineCommand("tls-auth"),
              "-----BEGIN Static key V1-----\n0f1e2d3c4b5a69788796a5b4c3d2e1f0\n-----END Static key V1-----\n");
    EXPECT_FALSE(document->commandExists("<ca>") || document->commandExists("-----BEGIN"));
    EXPECT_EQ(document->getCommand("key-direction"), (Parameters{"1"}));
    document->parseRawData("<key>\n# not a comment here\n</key>\n<?>\nx\n</>\n<cert>\nroute a\n");
    EXPECT_EQ(document->getMultilineCommands(), (QBVPNConfiguration::BlockStore{{"key", "# not a comment here\n"}}));
    EXPECT_FALSE(document->commandExists("route"));  // lines of an open block are never tokenized
    document->parseRawData("<ca>\r\nA\r\n</ca>\r\n");  // CR LF leaves an empty line after each
    EXPECT_EQ(document->getMultilineCommand("ca"), "\nA\n\n");
}

TEST(QBVPNConfigurationSubclassTest, BlocksAreWrittenAfterCommandsAndGainALineFeedPerRoundTrip) {
    InlineBlockConfiguration document;
    document.parseRawData("REMOTE a.example\n<ca>\nline one\n</ca>\n");
    const std::string text = document.generateRawConfigurationData();
    EXPECT_EQ(text, header + "remote a.example\n<ca>\nline one\n\n</ca>\n");
    EXPECT_EQ(QBVPNConfiguration::configurationWithData<InlineBlockConfiguration>(text, {})->getMultilineCommand("ca"), "line one\n\n");
    // A document that recognises no blocks reads their lines as commands and writes no blocks.
    EXPECT_TRUE(load(text)->commandExists("<ca>"));
    QBVPNConfiguration plain;
    plain.setMultilineCommand("ca", "x\n");
    EXPECT_EQ(plain.generateRawConfigurationData(), header);
}

TEST(QBVPNConfigurationSubclassTest, StrictDocumentIgnoresUnknownNamesEverywhere) {
    struct StrictConfiguration : InlineBlockConfiguration {
        StrictConfiguration() {
            allowUnknownCommands = false;
            knownCommands = {"remote", "dev"};
            knownMetaCommands = {"name"};
        }
    } document;
    document.parseRawData("Remote a\nverb 3\n#lumentide name X\n#lumentide autoconnect yes\n");
    document.setCommand("cipher", {"AES-256-GCM"});
    document.setMetaCommand("protocol", {"udp"});
    document.addCommand("dev", {"tun"});
    EXPECT_EQ(document.getUnknownCommands(), std::nullopt);
    EXPECT_FALSE(document.metaCommandExists("autoconnect") || document.metaCommandExists("protocol"));
    EXPECT_EQ(document.generateRawConfigurationData(), header + "#lumentide name X\nremote a\ndev tun\n");
}
