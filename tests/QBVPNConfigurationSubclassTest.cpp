#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "QBVPNConfiguration.h"

namespace {

using Blocks = QBVPNConfiguration::BlockStore;
const std::string header(QBVPNConfiguration::generatedHeader);

// Recognises inline blocks written as "<ca>" ... "</ca>" ("<?>" has no name), and stores command
// names in lower case.
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
        if (line == "<?>") return std::nullopt;
        return std::string(line.substr(1, line.size() - 2));
    }
    std::optional<std::string> multilineCommandStartForName(std::string_view name) const override {
        return "<" + std::string(name) + ">";
    }
    std::optional<std::string> multilineCommandEndForName(std::string_view name) const override {
        return "</" + std::string(name) + ">";
    }
};

}  // namespace

TEST(QBVPNConfigurationSubclassTest, InlineBlocksLoadAsBlocksNotCommands) {
    const auto document = QBVPNConfiguration::configurationWithFile<InlineBlockConfiguration>(
        std::string(QB_SOURCE_DIR) + "/tests/data/office-profile.ovpn");
    EXPECT_EQ(document->getMultilineCommand("tls-auth"), "-----BEGIN Static key V1-----\n"
              "0f1e2d3c4b5a69788796a5b4c3d2e1f0\n-----END Static key V1-----\n");
    EXPECT_FALSE(document->commandExists("<ca>") || document->commandExists("-----BEGIN"));
    EXPECT_EQ(document->getCommand("key-direction"), (QBVPNConfiguration::Parameters{"1"}));
}

TEST(QBVPNConfigurationSubclassTest, EachLoadReplacesTheBlocksAndDropsUnfinishedOrNamelessOnes) {
    InlineBlockConfiguration document;
    document.parseRawData("<ca>\nfirst\n</ca>\n");
    document.parseRawData("<key>\n# not a comment here\n</key>\n<?>\nx\n</>\n<cert>\nremote a\n");
    EXPECT_EQ(document.getMultilineCommands(), (Blocks{{"key", "# not a comment here\n"}}));
    EXPECT_FALSE(document.commandExists("remote"));  // lines of an open block are never tokenized
    document.parseRawData("<ca>\r\nA\r\n</ca>\r\n");  // CR LF leaves an empty line after each
    EXPECT_EQ(document.getMultilineCommand("ca"), "\nA\n\n");
}

TEST(QBVPNConfigurationSubclassTest, BlocksAreWrittenAfterCommandsAndGainALineFeedPerRoundTrip) {
    InlineBlockConfiguration document;
    document.parseRawData("REMOTE a.example\n<ca>\nline one\n</ca>\n");
    const std::string text = document.generateRawConfigurationData();
    EXPECT_EQ(text, header + "remote a.example\n<ca>\nline one\n\n</ca>\n");
    EXPECT_EQ(QBVPNConfiguration::configurationWithData<InlineBlockConfiguration>(text, {})
                  ->getMultilineCommand("ca"), "line one\n\n");
    // A document that recognises no blocks reads their lines as commands and writes no blocks.
    EXPECT_TRUE(QBVPNConfiguration::configurationWithData(text, {})->commandExists("<ca>"));
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
    EXPECT_FALSE(document.metaCommandExists("autoconnect") ||
                 document.metaCommandExists("protocol"));
    EXPECT_EQ(document.generateRawConfigurationData(),
              header + "#lumentide name X\nremote a\ndev tun\n");
}
