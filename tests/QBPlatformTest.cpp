#include <gtest/gtest.h>

#include <fstream>

#include "QBPlatform.h"
#include "support/TempDir.h"

TEST(QBPlatformTest, PropertyListIsPreferredAndVersionsHaveThreeParts) {
    TempDir dir;
    const std::string plist = dir.file("SystemVersion.plist"), osRelease = dir.file("os-release");
    const auto read = [&] { return QBPlatform::readOperatingSystemVersion(plist, osRelease); };
    const auto write = [](const std::string& path, const std::string& content) { std::ofstream(path) << content; };
    EXPECT_EQ(read(), "0.0.0");  // neither source
    const std::pair<std::string, std::string> osReleaseCases[] = {
        {"NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\n", "12.0.0"},
        {"VERSION_ID=22.04\n", "22.4.0"}, {"ID=x\r\nVERSION_ID='3.18.4'\r\n", "3.18.4"},
        {"MY_VERSION_ID=9\n", "0.0.0"}};
    for (const auto& [content, expected] : osReleaseCases) {
        write(osRelease, content);
        EXPECT_EQ(read(), expected) << content;
    }
    // Both encodings go through the same reader; a part that is not a number reads as 0.
    write(plist, "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>ProductVersion</key>"
                 "<string>10.x.7.9</string></dict></plist>");
    EXPECT_EQ(read(), "10.0.7");
    write(plist, "not a property list");  // an existing property list is the source all the same
    EXPECT_EQ(read(), "0.0.0");
    EXPECT_EQ(QBPlatform::operatingSystemVersion(),  // the cached value comes from the system files
              QBPlatform::readOperatingSystemVersion(
                  "/System/Library/CoreServices/SystemVersion.plist", "/etc/os-release"));
}

TEST(QBPlatformTest, VersionComparisonsOrderDigitRunsByValue) {
    const auto sign = [](int v) { return (v > 0) - (v < 0); };
    for (const auto& [a, b, order] :
         {std::tuple{"10.9", "10.15", -1}, {"10.15.7", "10.15.7.1", -1}, {"10.15.07", "10.15.7", 0},
          {"1.0a", "1.0b", -1}, {"99999999999999999999", "100000000000000000000", -1}}) {
        EXPECT_EQ(sign(QBPlatform::compareNumeric(a, b)), order) << a << " vs " << b;  // b vs a: fuzzed
    }
    for (const auto& [given, atLeast, equal] :
         {std::tuple{"10", true, true}, {"10.9", true, false}, {"10.15.07", true, false},
          {"10.15.8", false, false}, {"11", false, false}, {"10.15.7.1", false, true}}) {
        EXPECT_EQ(QBPlatform::isVersionAtLeast("10.15.7", given), atLeast) << given;
        EXPECT_EQ(QBPlatform::isVersionEqualTo("10.15.7", given), equal) << given;
    }
}
