#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "QBVPNConfiguration.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Parameters = QBVPNConfiguration::Parameters;
const std::string header(QBVPNConfiguration::generatedHeader);

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

TEST(QBVPNConfigurationGenerationTest, WriterQuotesAndEscapesOnlyWhatTheTokenizerNeeds) {
    const std::pair<Parameters, std::string> cases[] = {
        {{"a", "", "b"}, "a  b"}, {{"say \"hi\""}, "\"say \\\"hi\\\"\""},
        {{"back\\slash"}, "back\\\\slash"}, {{"a#b;c"}, "a\\#b\\;c"}, {{"a\t#b;c"}, "\"a\t#b;c\""}};
    const QBVPNConfiguration document;
    for (const auto& [parameters, written] : cases)
        EXPECT_EQ(document.generateString(parameters), written) << written;
}

// Every pair of the units that the writer treats specially, and text outside the BMP, reads back
// unchanged; empty parameters, line breaks and ill-formed UTF-8 cannot.
TEST(QBVPNConfigurationGenerationTest, GeneratedDocumentReadsBackToTheSameStores) {
    const char* const units[] = {"a", " ", "\t", "\"", "\\", "#", ";", "\xC2\xA0", "\xE3\x80\x80",
                                 "\xE2\x80\x8B", "\xF0\x9F\x98\x80"};
    QBVPNConfiguration original;
    for (const char* first : units) {
        QBVPNConfiguration::ParameterList parameters;
        for (const char* second : units) parameters.push_back(std::string(first) + second);
        original.addCommand("remote", parameters);
        original.addMetaCommand("name", parameters);
    }
    original.setCommand("route", {"10.0.0.0", "", "255.0.0.0"});
    original.setCommand("setenv", {"first\nsecond tail"});
    original.setCommand("verb\xff", {"a\xc3 b"});
    const std::string text = original.generateRawConfigurationData();
    const auto copy = QBVPNConfiguration::configurationWithData(text, std::nullopt);
    EXPECT_EQ(copy->getCommands("remote"), original.getCommands("remote")) << text;
    EXPECT_EQ(copy->getMetaCommands("name"), original.getMetaCommands("name")) << text;
    EXPECT_EQ(copy->getCommand("route"), (Parameters{"10.0.0.0", "255.0.0.0"}));
    EXPECT_EQ(copy->getCommand("second"), (Parameters{"tail"}));
    EXPECT_EQ(copy->getCommand("verb\uFFFD"), (Parameters{"a\uFFFD b"}));
}

TEST(QBVPNConfigurationGenerationTest, TextHasHeaderThenMetaKnownAndUnknownCommands) {
    auto document = QBVPNConfiguration::configurationWithData(
        "verb 3\nnobind\nremote b.example 1194\n#lumentide name My VPN\nremote a.example\n"
        "dev tun\n", std::nullopt);
    const std::string known = header + "#lumentide name My VPN\nremote b.example 1194\n"
                                       "remote a.example\n";
    EXPECT_EQ(document->generateRawConfigurationData(),
              known + "dev tun\nnobind \nverb 3\n");  // the blank after a name is always written
    EXPECT_EQ(document->getUnknownCommandsAsString(), "dev tun\nnobind\nverb 3\n");
    document->removeUnknownCommands();
    EXPECT_EQ(document->generateRawConfigurationData(), known);
}

TEST(QBVPNConfigurationGenerationTest, SaveReplacesTheFileWholeOrNotAtAllAndKeepsItsMode) {
    TempDir directory;
    const std::string path = directory.file("config.ovpn");
    std::ofstream(path) << "old content\n";
    fs::permissions(path, fs::perms(0640));
    auto document = QBVPNConfiguration::configurationWithData("remote a.example 1194\n", path);
    document->save();
    const std::string saved = readFile(path);
    EXPECT_EQ(saved, document->generateRawConfigurationData());
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0640));
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
    EXPECT_EQ(readFile(path), saved);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), 1);  // no temporary
    QBVPNConfiguration::configurationWithData("remote x\n", directory.file("new.ovpn"))->save();
    EXPECT_EQ(fs::status(directory.file("new.ovpn")).permissions(), fs::perms(0600));  // keys
}

TEST(QBVPNConfigurationGenerationTest, SaveRecordsTheProtocolOnlyWhenSet) {
    QBVPNConfiguration plain;
    plain.save();  // no path: writes nothing, reports nothing
    EXPECT_FALSE(plain.metaCommandExists("protocol"));
    struct ProtocolConfiguration : QBVPNConfiguration {
        ProtocolConfiguration() { _protocol = "tcp"; }
    } withProtocol;
    withProtocol.parseRawData("#lumentide protocol udp\n#lumentide protocol tls\n");
    withProtocol.save();
    EXPECT_EQ(withProtocol.getMetaCommands("protocol"), QBVPNConfiguration::Occurrences{{"tcp"}});
}
