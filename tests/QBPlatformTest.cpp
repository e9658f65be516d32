#include <gtest/gtest.h>
#include <plist/plist.h>

#include <fstream>
#include <regex>
#include <thread>
#include <vector>

#include "QBPlatform.h"
#include "support/TempDir.h"

namespace {

std::string xmlPlist(const std::string& version) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n"
           "<key>ProductName</key><string>Mac OS X</string>\n"
           "<key>ProductVersion</key><string>" + version + "</string>\n</dict></plist>\n";
}

std::string binaryPlist(const std::string& version) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "ProductVersion", plist_new_string(version.c_str()));
    char* data = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &data, &length);
    std::string bytes(data, length);
    plist_to_bin_free(data);
    plist_free(dict);
    return bytes;
}

class QBPlatformSourceTest : public ::testing::Test {
  protected:
    std::string read() { return QBPlatform::readOperatingSystemVersion(plist, osRelease); }
    static void write(const std::string& path, const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
    }
    TempDir dir;
    std::string plist = dir.file("SystemVersion.plist");
    std::string osRelease = dir.file("os-release");
};

}  // namespace

TEST_F(QBPlatformSourceTest, PropertyListVersionInEitherEncodingIsPaddedToThreeParts) {
    const std::pair<std::string, std::string> cases[] = {
        {"10.15.7", "10.15.7"}, {"11.2", "11.2.0"}, {"10.x.7", "10.0.7"},
        {"13.1.2.9", "13.1.2"}, {"", "0.0.0"}};
    for (const auto& [productVersion, expected] : cases) {
        write(plist, xmlPlist(productVersion));
        EXPECT_EQ(read(), expected) << "xml " << productVersion;
        write(plist, binaryPlist(productVersion));
        EXPECT_EQ(read(), expected) << "binary " << productVersion;
    }
    // A property list that exists is the source even when it is unusable.
    write(osRelease, "VERSION_ID=\"12\"\n");
    write(plist, "not a property list");
    EXPECT_EQ(read(), "0.0.0");
}

TEST_F(QBPlatformSourceTest, OsReleaseVersionIdIsReadWhenThereIsNoPropertyList) {
    EXPECT_EQ(read(), "0.0.0");  // neither source
    const std::pair<std::string, std::string> cases[] = {
        {"NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n", "12.0.0"},
        {"VERSION_ID=22.04\n", "22.4.0"}, {"VERSION_ID='3.18.4'\n", "3.18.4"},
        {"ID=debian\r\nVERSION_ID=\"11\"\r\n", "11.0.0"},
        {"PRETTY_NAME=\"Debian GNU/Linux trixie/sid\"\nMY_VERSION_ID=9\n", "0.0.0"}};
    for (const auto& [content, expected] : cases) {
        write(osRelease, content);
        EXPECT_EQ(read(), expected) << content;
    }
}

TEST(QBPlatformTest, RunningVersionIsReadOnceAndWellFormed) {
    // Several threads make the first call at once; all must see the one cached value.
    std::vector<std::string> seen(8);
    std::vector<std::thread> threads;
    for (auto& slot : seen)
        threads.emplace_back([&slot] { slot = QBPlatform::operatingSystemVersion(); });
    for (auto& thread : threads) thread.join();
    for (const auto& version : seen) EXPECT_EQ(version, seen.front());
    EXPECT_TRUE(std::regex_match(seen.front(), std::regex(R"(\d+\.\d+\.\d+)"))) << seen.front();
    EXPECT_EQ(seen.front(), QBPlatform::readOperatingSystemVersion(
                                QBPlatform::systemVersionPlistPath, QBPlatform::osReleasePath));
}

TEST(QBPlatformTest, NumericComparisonOrdersDigitRunsByValue) {
    const std::tuple<const char*, const char*, int> cases[] = {
        {"10.9", "10.15", -1}, {"10.15.7", "10.15.7.1", -1}, {"10.15.07", "10.15.7", 0},
        {"1.0a", "1.0b", -1},
        {"99999999999999999999", "100000000000000000000", -1}};  // beyond 64 bits
    const auto sign = [](int v) { return (v > 0) - (v < 0); };
    for (const auto& [a, b, order] : cases) {
        EXPECT_EQ(sign(QBPlatform::compareNumeric(a, b)), order) << a << " vs " << b;
        EXPECT_EQ(sign(QBPlatform::compareNumeric(b, a)), -order) << b << " vs " << a;
    }
}

TEST(QBPlatformTest, ComparisonsWithARunningVersion) {
    const std::tuple<const char*, bool, bool> cases[] = {  // given, at least, equal
        {"10", true, true},       {"10.9", true, false},     {"10.15", true, true},
        {"10.15.7", true, true},  {"10.15.07", true, false}, {"10.15.8", false, false},
        {"11", false, false},     {"10.15.7.1", false, true}, {"9.99.99", true, false},
        {"", true, false}};
    for (const auto& [given, atLeast, equal] : cases) {
        EXPECT_EQ(QBPlatform::isVersionAtLeast("10.15.7", given), atLeast) << given;
        EXPECT_EQ(QBPlatform::isVersionEqualTo("10.15.7", given), equal) << given;
    }
}
