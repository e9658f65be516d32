#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "QBVPNConfiguration.h"
#include "support/TempDir.h"

namespace {

using Parameters = QBVPNConfiguration::Parameters;
using Occurrences = QBVPNConfiguration::Occurrences;

std::shared_ptr<QBVPNConfiguration> load(std::string_view text) {
    return QBVPNConfiguration::configurationWithData(text, std::nullopt);
}

}  // namespace

TEST(QBVPNConfigurationDocumentTest, RepeatedCommandsKeepEveryOccurrenceInFileOrder) {
    const auto document =
        load("remote a.example 1194\nverb 3\nremote b.example\nremote c.example 443 udp\nnobind\n");
    EXPECT_EQ(document->getCommands("remote"),
              (Occurrences{{"a.example", "1194"}, {"b.example"}, {"c.example", "443", "udp"}}));
    EXPECT_EQ(document->getCommand("remote"), (Parameters{"c.example", "443", "udp"}));
    EXPECT_EQ(document->getFirstParameterForCommand("remote"), "c.example");
    EXPECT_EQ(document->getCommand("Remote"), std::nullopt);  // names are case-sensitive
    // A command without parameters exists with one empty occurrence.
    EXPECT_TRUE(document->commandExists("nobind"));
    EXPECT_EQ(document->getCommands("nobind"), (Occurrences{{}}));
    EXPECT_EQ(document->getFirstParameterForCommand("nobind"), std::nullopt);
    EXPECT_EQ(document->getFirstParameterForCommandAsString("nobind"), "");
    EXPECT_FALSE(document->commandExists("absent"));
    EXPECT_EQ(document->getFirstParameterForCommandAsString("absent"), "");
}

TEST(QBVPNConfigurationDocumentTest, MetaCommandLinesNeedThePrefixAtTheFirstUnit) {
    const auto document = load(
        "#lumentide name Office VPN # the display name\n#lumentideprotocol tcp\n"
        " #lumentide indented is-a-comment\n#lumentide\n#Lumentide case matters\n");
    EXPECT_EQ(document->getMetaCommand("name"), (Parameters{"Office", "VPN"}));
    EXPECT_EQ(document->getMetaCommand("protocol"), (Parameters{"tcp"}));
    EXPECT_FALSE(document->metaCommandExists("indented"));
    EXPECT_FALSE(document->metaCommandExists("case"));
    EXPECT_EQ(document->displayName(), "Office VPN");
    EXPECT_FALSE(document->commandExists("#lumentide"));  // never in the command store
}

TEST(QBVPNConfigurationDocumentTest, CRLFAndOtherLineBreaksLoadLikeLF) {
    const auto reference = load("remote a 1\n#lumentide name X\nverb 3\n");
    for (const char* text : {"remote a 1\r\n#lumentide name X\r\nverb 3\r\n",
                             "remote a 1\xC2\x85#lumentide name X\xE2\x80\xA9verb 3"})
        EXPECT_EQ(load(text)->generateRawConfigurationData(),
                  reference->generateRawConfigurationData());
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
    const auto document = load("verb " + std::string(limit - 4, 'v') +  // 1,025 units
                               "\nremote next\n#lumentide name " + longWord + "\n");
    EXPECT_FALSE(document->commandExists("verb"));
    EXPECT_EQ(document->getCommand("remote"), (Parameters{"next"}));
    EXPECT_EQ(document->getMetaCommand("name"), (Parameters{longWord}));
}

TEST(QBVPNConfigurationDocumentTest, InvalidUTF8TextOrUnreadableFileLoadsNothing) {
    EXPECT_FALSE(load("remote a\n\xff\n")->commandExists("remote"));
    TempDir directory;
    std::ofstream(directory.file("bad.ovpn")) << "remote a\n\xc3\n";
    for (const auto& path :
         {directory.file("bad.ovpn"), directory.file("missing.ovpn"), directory.path()})
        EXPECT_FALSE(QBVPNConfiguration::configurationWithFile(path)->getUnknownCommands());
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
    using Text = std::optional<std::string>;
    const std::tuple<Text, Text, Text> cases[] = {
        {"/home/u/Connections/office-1/config.ovpn", "/home/u/Connections/office-1", "office-1"},
        {"/config.ovpn", "/", "/"}, {"config.ovpn", "", ""}, {{}, {}, {}}};
    for (const auto& [path, parent, connectionID] : cases) {
        const auto document = QBVPNConfiguration::configurationWithData("", path);
        EXPECT_EQ(document->getFilePath(), path);
        EXPECT_EQ(document->getSavePathParentDirectory(), parent) << path.value_or("(none)");
        EXPECT_EQ(document->getConnectionID(), connectionID) << path.value_or("(none)");
    }
}

TEST(QBVPNConfigurationDocumentTest, SampleProfileLoadsWithoutBlockRecognition) {
    const auto document = QBVPNConfiguration::configurationWithFile(
        std::string(QB_SOURCE_DIR) + "/tests/data/office-profile.ovpn");
    EXPECT_EQ(document->displayName(), "Office Tunnel");
    EXPECT_EQ(document->getMetaCommand("autoconnect"), (Parameters{"yes"}));
    EXPECT_EQ(document->getCommands("remote"),
              (Occurrences{{"vpn1.office.example", "1194"}, {"vpn2.office.example", "1194"},
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
