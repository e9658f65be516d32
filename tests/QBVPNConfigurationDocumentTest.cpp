#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "QBVPNConfiguration.h"
#include "support/TempDir.h"

namespace {

using Parameters = QBVPNConfiguration::Parameters;
using Occurrences = QBVPNConfiguration::Occurrences;

const std::string samplePath = std::string(QB_SOURCE_DIR) + "/tests/data/office-profile.ovpn";

}  // namespace

TEST(QBVPNConfigurationDocumentTest, RepeatedCommandsKeepEveryOccurrenceInFileOrder) {
    const auto document = QBVPNConfiguration::configurationWithData(
        "remote a.example 1194\nverb 3\nremote b.example\nremote c.example 443 udp\n",
        std::nullopt);
    EXPECT_EQ(document->getCommands("remote"),
              (Occurrences{{"a.example", "1194"}, {"b.example"}, {"c.example", "443", "udp"}}));
    EXPECT_EQ(document->getCommand("remote"), (Parameters{"c.example", "443", "udp"}));
    EXPECT_EQ(document->getFirstParameterForCommand("remote"), "c.example");
    EXPECT_EQ(document->getCommand("Remote"), std::nullopt);  // names are case-sensitive
}

TEST(QBVPNConfigurationDocumentTest, CommandWithoutParametersExistsWithEmptyOccurrence) {
    const auto document = QBVPNConfiguration::configurationWithData("nobind\n", std::nullopt);
    EXPECT_TRUE(document->commandExists("nobind"));
    EXPECT_EQ(document->getCommands("nobind"), (Occurrences{{}}));
    EXPECT_EQ(document->getFirstParameterForCommand("nobind"), std::nullopt);
    EXPECT_EQ(document->getFirstParameterForCommandAsString("nobind"), "");
    EXPECT_FALSE(document->commandExists("absent"));
    EXPECT_EQ(document->getFirstParameterForCommandAsString("absent"), "");
}

TEST(QBVPNConfigurationDocumentTest, MetaCommandLinesNeedThePrefixAtTheFirstUnit) {
    const auto document = QBVPNConfiguration::configurationWithData(
        "#lumentide name Office VPN # the display name\n"
        "#lumentideprotocol tcp\n"
        " #lumentide indented is-a-comment\n"
        "#lumentide\n"
        "#Lumentide case matters\n",
        std::nullopt);
    EXPECT_EQ(document->getMetaCommand("name"), (Parameters{"Office", "VPN"}));
    EXPECT_EQ(document->getMetaCommand("protocol"), (Parameters{"tcp"}));
    EXPECT_FALSE(document->metaCommandExists("indented"));
    EXPECT_FALSE(document->metaCommandExists("case"));
    EXPECT_EQ(document->displayName(), "Office VPN");
    EXPECT_FALSE(
        document->commandExists("#lumentide"));  // meta lines never reach the command store
}

TEST(QBVPNConfigurationDocumentTest, CRLFAndOtherLineBreaksLoadLikeLF) {
    const std::string lf = "remote a 1\n#lumentide name X\nverb 3\n";
    const std::string crlf = "remote a 1\r\n#lumentide name X\r\nverb 3\r\n";
    const std::string unicodeBreaks = "remote a 1\xC2\x85#lumentide name X\xE2\x80\xA9verb 3";
    const auto reference = QBVPNConfiguration::configurationWithData(lf, std::nullopt);
    for (const auto& text : {crlf, unicodeBreaks}) {
        const auto document = QBVPNConfiguration::configurationWithData(text, std::nullopt);
        EXPECT_EQ(document->generateRawConfigurationData(),
                  reference->generateRawConfigurationData());
    }
}

TEST(QBVPNConfigurationDocumentTest, LoadingAddsToTheStoresAndSetReplaces) {
    QBVPNConfiguration document;
    const std::string text = "remote a\nremote b\n#lumentide name X\n";
    document.parseRawData(text);
    document.parseRawData(text);
    EXPECT_EQ(document.getCommands("remote")->size(), 4u);
    EXPECT_EQ(document.getMetaCommands("name")->size(), 2u);

    document.setCommand("remote", {"c", 1194});
    EXPECT_EQ(document.getCommands("remote"), (Occurrences{{"c", "1194"}}));
    document.addCommand("remote", {"d"});
    EXPECT_EQ(document.getCommands("remote"), (Occurrences{{"c", "1194"}, {"d"}}));
    document.addCommand("port", {-1, 2.5, true});  // absent name: created with one occurrence
    EXPECT_EQ(document.getCommands("port"), (Occurrences{{"-1", "2.5", "1"}}));
    document.setCommand("nobind");
    EXPECT_EQ(document.getCommands("nobind"), (Occurrences{{}}));

    document.addMetaCommand("name", {"Z", "W"});
    EXPECT_EQ(document.displayName(), "Z W");  // the last occurrence, words joined by one blank
    document.setMetaCommand("name");
    EXPECT_EQ(document.displayName(), "");
    document.removeMetaCommand("name");
    EXPECT_EQ(document.displayName(), std::nullopt);
}

TEST(QBVPNConfigurationDocumentTest, OverlongLinesAreSkippedAndMetaLimitExcludesThePrefix) {
    const auto limit = static_cast<std::size_t>(QBVPNConfiguration::defaultMaxLineLength);
    const std::string longWord(limit - 6, 'x');  // " name " + word fills the limit exactly
    const std::string overlong = "verb " + std::string(limit - 4, 'v');  // 1,025 units
    const std::string meta = "#lumentide name " + longWord;              // 1,034 units
    const std::string text = overlong + "\nremote next\n" + meta + "\n";
    const auto document = QBVPNConfiguration::configurationWithData(text, std::nullopt);
    EXPECT_FALSE(document->commandExists("verb"));
    EXPECT_EQ(document->getCommand("remote"), (Parameters{"next"}));
    EXPECT_EQ(document->getMetaCommand("name"), (Parameters{longWord}));
}

TEST(QBVPNConfigurationDocumentTest, InvalidUTF8TextOrUnreadableFileLoadsNothing) {
    const auto fromText =
        QBVPNConfiguration::configurationWithData("remote a\n\xff\n", std::nullopt);
    EXPECT_FALSE(fromText->commandExists("remote"));

    TempDir directory;
    std::ofstream(directory.file("bad.ovpn")) << "remote a\n\xc3\n";
    for (const auto& path :
         {directory.file("bad.ovpn"), directory.file("missing.ovpn"), directory.path()}) {
        EXPECT_FALSE(QBVPNConfiguration::configurationWithFile(path)->getUnknownCommands());
    }
}

TEST(QBVPNConfigurationDocumentTest, BlockStoreIsAbsentUntilSetAndAfterRemoveAll) {
    QBVPNConfiguration document;
    document.removeMultilineCommand("ca");  // no store: nothing happens
    EXPECT_EQ(document.getMultilineCommands(), std::nullopt);
    document.setMultilineCommand("ca", "one\n");
    document.removeAllMultilineCommands();
    EXPECT_EQ(document.getMultilineCommands(), std::nullopt);
    EXPECT_FALSE(document.multilineCommandExists("ca"));
    document.setMultilineCommand("cert", "");
    EXPECT_TRUE(document.multilineCommandExists("cert"));
}

TEST(QBVPNConfigurationDocumentTest, PathHelpersNameTheFolderThatHoldsTheFile) {
    struct Case {
        std::optional<std::string> path;
        std::optional<std::string> parent;
        std::optional<std::string> connectionID;
    };
    const Case cases[] = {
        {"/home/u/Connections/office-1/config.ovpn", "/home/u/Connections/office-1", "office-1"},
        {"/config.ovpn", "/", "/"},
        {"config.ovpn", "", ""},
        {std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        const auto document = QBVPNConfiguration::configurationWithData("", c.path);
        EXPECT_EQ(document->getFilePath(), c.path);
        EXPECT_EQ(document->getSavePathParentDirectory(), c.parent) << c.path.value_or("(none)");
        EXPECT_EQ(document->getConnectionID(), c.connectionID) << c.path.value_or("(none)");
    }
}

TEST(QBVPNConfigurationDocumentTest, SampleProfileLoadsWithoutBlockRecognition) {
    const auto document = QBVPNConfiguration::configurationWithFile(samplePath);
    EXPECT_EQ(document->displayName(), "Office Tunnel");
    EXPECT_EQ(document->getMetaCommand("autoconnect"), (Parameters{"yes"}));
    EXPECT_EQ(document->getCommands("remote"),
              (Occurrences{{"vpn1.office.example", "1194"},
                           {"vpn2.office.example", "1194"},
                           {"backup site.office.example", "443"}}));
    EXPECT_EQ(document->getCommand("setenv"),
              (Parameters{"FRIENDLY_NAME", "Office \"main\" tunnel"}));
    EXPECT_TRUE(document->commandExists("persist-tun"));
    EXPECT_FALSE(document->commandExists("comp-lzo"));
    // The default document knows no blocks: their lines load as ordinary commands.
    EXPECT_EQ(document->getMultilineCommands(), std::nullopt);
    EXPECT_TRUE(document->commandExists("<ca>"));
    EXPECT_TRUE(document->commandExists("-----BEGIN"));
}
