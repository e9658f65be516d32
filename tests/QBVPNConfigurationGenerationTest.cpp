#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "QBVPNConfiguration.h"
#include "support/TempDir.h"

namespace {

using Parameters = QBVPNConfiguration::Parameters;
using Occurrences = QBVPNConfiguration::Occurrences;

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

long entriesIn(const std::string& directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

unsigned permissionsOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

const char* const commandNames[] = {"remote", "verb", "dev", "proto", "cipher", "nobind", "route"};

// Random parameter text over every class the writer treats specially, plus text outside the
// BMP; no line breaks and never empty, the two cases that cannot survive writing and reading.
struct ParameterSource {
    std::mt19937 random{20240611};  // fixed seed: failures reproduce
    int between(int low, int high) { return std::uniform_int_distribution(low, high)(random); }
    std::string parameter() {
        static const char* const units[] = {
            "a", "Z", "0", "-", ".", " ", "\t", "\"", "\\", "#", ";", "\xC3\xA9", "\xE2\x82\xAC",
            "\xC2\xA0", "\xE3\x80\x80", "\xE2\x80\x8B",  // no-break, ideographic, zero-width space
            "\xF0\x9F\x98\x80"};                         // a surrogate pair in UTF-16
        std::string text;
        for (int i = between(1, 8); i > 0; --i) text += units[between(0, std::size(units) - 1)];
        return text;
    }
};

class ProtocolConfiguration : public QBVPNConfiguration {
  public:
    ProtocolConfiguration() { _protocol = "tcp"; }
};

}  // namespace

TEST(QBVPNConfigurationGenerationTest, WriterQuotesAndEscapesOnlyWhatTheTokenizerNeeds) {
    const std::pair<Parameters, std::string> cases[] = {
        {{}, ""}, {{"a", "b"}, "a b"}, {{"a", "", "b"}, "a  b"}, {{"two words"}, "\"two words\""},
        {{"tab\there"}, "\"tab\there\""}, {{"no\"blank"}, "no\\\"blank"},
        {{"say \"hi\""}, "\"say \\\"hi\\\"\""}, {{"back\\slash"}, "back\\\\slash"},
        {{"a#b;c"}, "a\\#b\\;c"}, {{"a #b;c"}, "\"a #b;c\""}};
    const QBVPNConfiguration document;
    for (const auto& [parameters, written] : cases)
        EXPECT_EQ(document.generateString(parameters), written) << written;
}

TEST(QBVPNConfigurationGenerationTest, GeneratedDocumentReadsBackToTheSameStores) {
    ParameterSource source;
    for (int round = 0; round < 500; ++round) {
        QBVPNConfiguration original;
        for (int line = source.between(0, 12); line > 0; --line) {
            QBVPNConfiguration::ParameterList parameters;
            for (int i = source.between(0, 6); i > 0; --i) parameters.push_back(source.parameter());
            original.addCommand(commandNames[source.between(0, 6)], parameters);
        }
        original.addMetaCommand("name", {source.parameter(), source.parameter()});
        original.addMetaCommand(source.between(0, 1) ? "protocol" : "autoconnect",
                                {source.parameter()});
        const std::string text = original.generateRawConfigurationData();

        const auto copy = QBVPNConfiguration::configurationWithData(text, std::nullopt);
        ASSERT_EQ(copy->generateRawConfigurationData(), text);
        for (const char* name : commandNames)
            ASSERT_EQ(copy->getCommands(name), original.getCommands(name)) << text;
        ASSERT_EQ(copy->getMetaCommands("name"), original.getMetaCommands("name")) << text;
    }
}

TEST(QBVPNConfigurationGenerationTest, EmptyParametersAndLineBreaksDoNotSurviveReadingBack) {
    QBVPNConfiguration original;
    original.setCommand("route", {"10.0.0.0", "", "255.0.0.0"});  // empty parameter: dropped
    original.setCommand("setenv", {"first\nsecond tail"});        // line break: splits the line
    original.setCommand("two words", {"x"});                      // names are written unchanged
    original.setCommand("#hidden", {"y"});
    original.setCommand("verb\xff", {"a\xc3 b"});  // ill-formed UTF-8 becomes U+FFFD
    const std::string text = original.generateRawConfigurationData();
    const auto copy = QBVPNConfiguration::configurationWithData(text, std::nullopt);
    EXPECT_EQ(copy->getCommand("route"), (Parameters{"10.0.0.0", "255.0.0.0"}));
    EXPECT_EQ(copy->getCommand("setenv"), (Parameters{"first"}));
    EXPECT_EQ(copy->getCommand("second"), (Parameters{"tail"}));
    EXPECT_EQ(copy->getCommand("two"), (Parameters{"words", "x"}));
    EXPECT_FALSE(copy->commandExists("#hidden"));
    EXPECT_EQ(copy->getCommand("verb\uFFFD"), (Parameters{"a\uFFFD b"})) << text;
}

TEST(QBVPNConfigurationGenerationTest, TextHasHeaderThenMetaKnownAndUnknownCommands) {
    const auto document = QBVPNConfiguration::configurationWithData(
        "verb 3\nnobind\nremote b.example 1194\n#lumentide name My VPN\nremote a.example\n"
        "dev tun\n",
        std::nullopt);
    EXPECT_EQ(document->generateRawConfigurationData(),
              "#-- Configuration Generated By Lumentide --#\n\n#lumentide name My VPN\n"
              "remote b.example 1194\nremote a.example\ndev tun\n"
              "nobind \nverb 3\n");  // the blank after a name is always written
}

TEST(QBVPNConfigurationGenerationTest, UnknownCommandsAreEverythingButTheKnownList) {
    auto document =
        QBVPNConfiguration::configurationWithData("remote a\n#lumentide name X\n", std::nullopt);
    EXPECT_EQ(document->getUnknownCommands(), std::nullopt);
    EXPECT_EQ(document->getUnknownCommandsAsString(), "");

    document->parseRawData("verb 3\nnobind\nverb 4 \"x y\"\n");
    using Store = QBVPNConfiguration::CommandStore;
    EXPECT_EQ(document->getUnknownCommands(),
              (Store{{"nobind", {{}}}, {"verb", {{"3"}, {"4", "x y"}}}}));
    EXPECT_EQ(document->getUnknownCommandsAsString(), "nobind\nverb 3\nverb 4 \"x y\"\n");

    document->removeUnknownCommands();
    EXPECT_FALSE(document->commandExists("verb"));
    EXPECT_FALSE(document->commandExists("nobind"));
    EXPECT_EQ(document->getCommand("remote"), (Parameters{"a"}));
    EXPECT_EQ(document->getMetaCommand("name"), (Parameters{"X"}));
}

TEST(QBVPNConfigurationGenerationTest, SaveReplacesTheFileAndKeepsItsPermissions) {
    TempDir directory;
    const std::string path = directory.file("config.ovpn");
    std::ofstream(path) << "old content\n";
    ::chmod(path.c_str(), 0640);

    auto document = QBVPNConfiguration::configurationWithFile(std::string(QB_SOURCE_DIR) +
                                                              "/tests/data/office-profile.ovpn");
    const std::string expected = document->generateRawConfigurationData();
    document->setFilePath(path);
    document->save();
    EXPECT_EQ(readFile(path), expected);
    EXPECT_EQ(entriesIn(directory.path()), 1);  // no temporary file left behind
    EXPECT_EQ(permissionsOf(path), 0640u);
    const auto reloaded = QBVPNConfiguration::configurationWithFile(path);
    EXPECT_EQ(reloaded->generateRawConfigurationData(), expected);
    EXPECT_EQ(reloaded->getConnectionID(),
              std::filesystem::path(directory.path()).filename().string());

    const std::string fresh = directory.file("new.ovpn");
    QBVPNConfiguration::configurationWithData("remote x\n", fresh)->save();
    EXPECT_EQ(permissionsOf(fresh), 0600u);  // new files may hold keys
}

TEST(QBVPNConfigurationGenerationTest, FailedWriteLeavesTheOldFileIntact) {
    TempDir directory;
    const std::string path = directory.file("config.ovpn");
    std::ofstream(path) << "old\n";
    auto document = QBVPNConfiguration::configurationWithData("remote new.example 1194\n", path);

    // A file-size limit makes the write of the temporary file fail part-way, even for root.
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
    rlimit small = saved;
    small.rlim_cur = 8;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    document->save();
    ::setrlimit(RLIMIT_FSIZE, &saved);
    ::signal(SIGXFSZ, previousHandler);
    EXPECT_EQ(readFile(path), "old\n");
    EXPECT_EQ(entriesIn(directory.path()), 1);

    // A parent that is a regular file cannot take a temporary file: nothing is created.
    document->setFilePath(path + "/config.ovpn");
    document->save();
    EXPECT_EQ(readFile(path), "old\n");
}

TEST(QBVPNConfigurationGenerationTest, SaveRecordsTheProtocolOnlyWhenSet) {
    QBVPNConfiguration plain;
    plain.save();  // no path: writes nothing, reports nothing
    EXPECT_FALSE(plain.metaCommandExists("protocol"));
    ProtocolConfiguration withProtocol;
    withProtocol.parseRawData("#lumentide protocol udp\n#lumentide protocol tls\n");
    withProtocol.save();
    EXPECT_EQ(withProtocol.getMetaCommands("protocol"), (Occurrences{{"tcp"}}));
}
