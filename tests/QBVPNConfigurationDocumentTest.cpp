#include <gtest/gtest.h>

#include <string>

#include "QBVPNConfiguration.h"

namespace {

using Parameters = QBVPNConfiguration::Parameters;
using Occurrences = QBVPNConfiguration::Occurrences;

std::shared_ptr<QBVPNConfiguration> load(std::string_view text) {
    return QBVPNConfiguration::configurationWithData(text, std::nullopt);
}

}  // namespace

// Every line break ends a line: LF, CR LF, NEL and the paragraph separator below.
TEST(QBVPNConfigurationDocumentTest, CommandsKeepEveryOccurrenceAndMetaLinesNeedThePrefixFirst) {
    const auto document = load(
        "remote a.example 1194\r\nremote b.example\xC2\x85nobind\xE2\x80\xA9"
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
}

TEST(QBVPNConfigurationDocumentTest, MetaLineLimitExcludesThePrefix) {
    const std::string word(QBVPNConfiguration::defaultMaxLineLength - 6, 'x');  // " name " + word
    const auto document = load("#lumentide name " + word + "\n#lumentide name x" + word + "\n");
    EXPECT_EQ(document->getMetaCommands("name"), (Occurrences{{word}}));  // the longer is skipped
}

TEST(QBVPNConfigurationDocumentTest, InvalidUTF8TextOrUnreadableFileLoadsNothing) {
    EXPECT_FALSE(load("remote a\n\xff\n")->commandExists("remote"));
    for (const char* path : {"/tests/data", "/tests/data/missing.ovpn"})
        EXPECT_FALSE(QBVPNConfiguration::configurationWithFile(QB_SOURCE_DIR + std::string(path))
                         ->getUnknownCommands());
}

TEST(QBVPNConfigurationDocumentTest, BlockStoreIsAbsentUntilSetAndAfterRemoveAll) {
    QBVPNConfiguration document;
    document.removeMultilineCommand("ca");  // no store: nothing happens
    document.setMultilineCommand("ca", "one\n");
    EXPECT_TRUE(document.multilineCommandExists("ca"));
    document.removeAllMultilineCommands();
    EXPECT_EQ(document.getMultilineCommands(), std::nullopt);
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
