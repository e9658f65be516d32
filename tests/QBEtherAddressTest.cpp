#include <gtest/gtest.h>

#include <string>

#include "QBEtherAddress.h"

using namespace std::string_literals;

TEST(QBEtherAddressTest, RendersLowercaseWithoutLeadingZeros) {
    const std::pair<std::string, std::string> cases[] = {
        {"00:1C:42:0A:0B:FF", "0:1c:42:a:b:ff"},
        {"0:1c:42:a:b:ff", "0:1c:42:a:b:ff"},
        {"ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:ff"},
        {"1:2:3:4:5:6", "1:2:3:4:5:6"},
        {"00:00:00:00:00:00", "0:0:0:0:0:0"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(QBEtherAddress(text).address(), expected) << text;
    }
}

TEST(QBEtherAddressTest, NewObjectHoldsTheZeroAddress) {
    EXPECT_EQ(QBEtherAddress().address(), "0:0:0:0:0:0");
}

TEST(QBEtherAddressTest, TextThatIsNotAnEthernetAddressLeavesNoAddress) {
    const std::string texts[] = {
        "", "00:1c:42:0a:0b", "gg:00:00:00:00:00", "00-1c-42-0a-0b-ff", "001c420a0bff",
        "100:0:0:0:0:0", ":0:0:0:0:0", "0:1:2\0:3:4:5"s, "0:1:2:3:4:5\0"s,
    };
    for (const auto& text : texts) {
        QBEtherAddress address("0:1c:42:a:b:ff");
        address.setAddress(text);
        EXPECT_EQ(address.address(), std::nullopt) << text;
        address.setAddress("2:0:0:0:0:1");  // a good text afterwards is taken again
        EXPECT_EQ(address.address(), "2:0:0:0:0:1") << text;
    }
}
