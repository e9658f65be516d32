#include <gtest/gtest.h>

#include <string>

#include "QBEtherAddress.h"

using namespace std::string_literals;

TEST(QBEtherAddressTest, RendersLowercaseWithoutLeadingZeros) {
    EXPECT_EQ(QBEtherAddress().address(), "0:0:0:0:0:0");
    EXPECT_EQ(QBEtherAddress("00:1C:42:0A:0B:FF").address(), "0:1c:42:a:b:ff");
}

TEST(QBEtherAddressTest, TextThatIsNotAnEthernetAddressLeavesNoAddressUntilAGoodOne) {
    for (const auto& text : {""s, "00:1c:42:0a:0b"s, "gg:00:00:00:00:00"s, "00-1c-42-0a-0b-ff"s,
                             "100:0:0:0:0:0"s, "0:1:2\0:3:4:5"s, "0:1:2:3:4:5\0"s}) {
        QBEtherAddress address("0:1c:42:a:b:ff");
        address.setAddress(text);
        EXPECT_EQ(address.address(), std::nullopt) << text;
        address.setAddress("2:0:0:0:0:1");
        EXPECT_EQ(address.address(), "2:0:0:0:0:1") << text;
    }
}
