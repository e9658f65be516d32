#include <gtest/gtest.h>

#include <string>

#include "QBEtherAddress.h"

using namespace std::string_literals;

TEST(QBEtherAddressTest, RendersLowercaseWithoutLeadingZeros) {
    EXPECT_EQ(QBEtherAddress().address(), "0:0:0:0:0:0");
    const std::pair<std::string, std::string> cases[] = {
        {"00:1C:42:0A:0B:FF", "0:1c:42:a:b:ff"}, {"0:1c:42:a:b:ff", "0:1c:42:a:b:ff"},
        {"ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:ff"}, {"00:00:00:00:00:00", "0:0:0:0:0:0"}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(QBEtherAddress(text).address(), expected);
}

TEST(QBEtherAddressTest, TextThatIsNotAnEthernetAddressLeavesNoAddress) {
    for (const auto& text : {""s, "00:1c:42:0a:0b"s, "gg:00:00:00:00:00"s, "00-1c-42-0a-0b-ff"s,
                             "001c420a0bff"s, "100:0:0:0:0:0"s, ":0:0:0:0:0"s, "0:1:2\0:3:4:5"s,
                             "0:1:2:3:4:5\0"s}) {
        QBEtherAddress address("0:1c:42:a:b:ff");
        address.setAddress(text);
        EXPECT_EQ(address.address(), std::nullopt) << text;
        address.setAddress("2:0:0:0:0:1");  // a good text afterwards is taken again
        EXPECT_EQ(address.address(), "2:0:0:0:0:1") << text;
    }
}
