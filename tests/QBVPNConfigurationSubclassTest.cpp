#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "QBVPNConfiguration.h"

namespace {

using Parameters = QBVPNConfiguration::Parameters;

// Recognises inline blocks written as "<ca>" ... "</ca>" on lines of their own ("<?>" has no
// name), and stores command names in lower case.
class InlineBlockConfiguration : public QBVPNConfiguration {
  public:
    InlineBlockConfiguration() { parseMultilineCommands = true; }

    std::string parseCommand(std::string_view command) const override {
        std::string name(command);
        for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return name;
    }
    bool isMultilineCommandStart(std::string_view line) const override {
        return line.size() > 2 && line.front() == '<' && line.back() == '>' && line[1] != '/';
    }
    bool isMultilineCommandEnd(std::string_view line, std::string_view command) const override {
        return line == "</" + std::string(command) + ">";
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

// Accepts only the names it knows.
class StrictConfiguration : public InlineBlockConfiguration {
  public:
    StrictConfiguration() {
        allowUnknownCommands = false;
        knownCommands = {"remote", "dev"};
        knownMetaCommands = {"name"};
    }
};

}  // namespace

TEST(QBVPNConfigurationSubclassTest, InlineBlocksLoadAsBlocksNotCommands) {
    const auto document = QBVPNConfiguration::configurationWithFile<InlineBlockConfiguration>(
        std::string(QB_SOURCE_DIR) + "/tests/data/office-profile.ovpn");
    EXPECT_EQ(document->getMultilineCommand("ca"),
              "-----BEGIN CERTIFICATE-----\n"
              "MIIBszCCAVmgAwIBAgIUQmFzZTY0IHRlc3QgY2VydGlmaWNhdGUwCgYIKoZIzj0E\n"
              "AwIwFzEVMBMGA1UEAwwMVGVzdCBSb290IENBMB4XDTI0MDEwMTAwMDAwMFoXDTM0\n"
              "-----END CERTIFICATE-----\n");
    EXPECT_TRUE(document->multilineCommandExists("tls-auth"));
    EXPECT_FALSE(document->commandExists("<ca>"));
    EXPECT_FALSE(document->commandExists("-----BEGIN"));
    EXPECT_EQ(document->getCommand("key-direction"), (Parameters{"1"}));  // after the blocks
    EXPECT_EQ(document->getCommands("remote")->size(), 3u);
}

TEST(QBVPNConfigurationSubclassTest, EachLoadReplacesTheBlocksAndDropsUnfinishedOnes) {
    InlineBlockConfiguration document;
    document.parseRawData("<ca>\nfirst\n</ca>\n");
    document.parseRawData("<key>\n# not a comment here\n</key>\n<cert>\nremote never\n");
    EXPECT_EQ(document.getMultilineCommands(),
              (QBVPNConfiguration::BlockStore{{"key", "# not a comment here\n"}}));
    EXPECT_FALSE(document.commandExists("remote"));  // lines of an open block are never tokenized

    document.parseRawData("<?>\nnameless\n</>\nverb 3\n");  // a block without a name is dropped
    EXPECT_EQ(document.getMultilineCommands(), QBVPNConfiguration::BlockStore{});
    EXPECT_TRUE(document.commandExists("verb"));

    // Every line break ends a line, so CR LF leaves an empty line after each block line.
    document.parseRawData("<ca>\r\nA\r\n</ca>\r\n");
    EXPECT_EQ(document.getMultilineCommand("ca"), "\nA\n\n");
}

TEST(QBVPNConfigurationSubclassTest, BlocksAreWrittenAfterCommandsAndGainALineFeedPerRoundTrip) {
    InlineBlockConfiguration document;
    document.parseRawData("REMOTE a.example\n<ca>\nline one\nline two\n</ca>\n");
    EXPECT_TRUE(document.commandExists("remote"));  // parseCommand lowered the name
    const std::string text = document.generateRawConfigurationData();
    EXPECT_EQ(text, std::string(QBVPNConfiguration::generatedHeader) +
                        "remote a.example\n<ca>\nline one\nline two\n\n</ca>\n");

    InlineBlockConfiguration copy;
    copy.parseRawData(text);
    EXPECT_EQ(copy.getMultilineCommand("ca"), "line one\nline two\n\n");

    QBVPNConfiguration plain;  // blocks are written only when the document recognises them
    plain.setMultilineCommand("ca", "x\n");
    EXPECT_EQ(plain.generateRawConfigurationData(),
              std::string(QBVPNConfiguration::generatedHeader));
}

TEST(QBVPNConfigurationSubclassTest, StrictDocumentIgnoresUnknownNamesEverywhere) {
    StrictConfiguration document;
    document.parseRawData("Remote a\nverb 3\n#lumentide name X\n#lumentide autoconnect yes\n");
    document.setCommand("cipher", {"AES-256-GCM"});
    document.setMetaCommand("protocol", {"udp"});
    document.addCommand("dev", {"tun"});
    EXPECT_EQ(document.getCommand("remote"), (Parameters{"a"}));
    EXPECT_FALSE(document.commandExists("verb") || document.commandExists("cipher"));
    EXPECT_FALSE(document.metaCommandExists("autoconnect"));
    EXPECT_FALSE(document.metaCommandExists("protocol"));
    EXPECT_EQ(document.getUnknownCommands(), std::nullopt);
    EXPECT_EQ(document.generateRawConfigurationData(),
              std::string(QBVPNConfiguration::generatedHeader) +
                  "#lumentide name X\nremote a\ndev tun\n");
}
