#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "QBIPAddress.h"

using namespace std::string_literals;

namespace {

sockaddr_in ipv4SockAddr(const char* text, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, text, &address.sin_addr);
    return address;
}

const sockaddr* asSockAddr(const void* address) { return static_cast<const sockaddr*>(address); }

}  // namespace

TEST(QBIPAddressTest, TextFormsGiveVersionAndCanonicalText) {
    struct Case {
        std::string text;
        std::int64_t version;
        std::string address;
    };
    const Case cases[] = {
        {"127.94.0.1", 4, "127.94.0.1"},
        {"::1", 6, "::1"},
        {"2001:0DB8:0000:0000::0001", 6, "2001:db8::1"},
        {"::ffff:1.2.3.4", 6, "::ffff:1.2.3.4"},
        {"0xffffff00", 4, "255.255.255.0"},
        {"ffffff00", 4, "255.255.255.0"},
        {"12345678", 4, "18.52.86.120"},  // eight decimal digits are read as hexadecimal too
    };
    for (const auto& c : cases) {
        const QBIPAddress address(c.text);
        EXPECT_EQ(address.ipVersion(), c.version) << c.text;
        EXPECT_TRUE(address.isValid()) << c.text;
        EXPECT_EQ(address.address(), c.address) << c.text;
        EXPECT_EQ(address.description(), c.address) << c.text;
    }
}

TEST(QBIPAddressTest, UnparseableTextGivesObjectWithoutAddress) {
    const std::string texts[] = {
        "", "example.com", "1.2.3", "256.1.1.1", " 1.2.3.4", "1.2.3.4 ", "0xFFFFFF00",
        "FFFFFF00", "ffffff0g", "fe80::1%lo0", ":::", "1.2.3.4\0"s "junk", "::1\0"s,
        "0x1:2::3:4",  // only setAddress strips the "0x" before an IPv6 parse
    };
    for (const auto& text : texts) {
        const auto address = QBIPAddress::ipAddressWithAddress(text);
        ASSERT_NE(address, nullptr);
        EXPECT_EQ(address->ipVersion(), 0) << text;
        EXPECT_FALSE(address->isValid()) << text;
        EXPECT_EQ(address->address(), std::nullopt) << text;
        EXPECT_EQ(address->arpaAddress(), std::nullopt) << text;
        EXPECT_EQ(address->description(), std::nullopt) << text;
    }
}

TEST(QBIPAddressTest, HexFormatToDecimalConvertsOnlyEightLowercaseHexDigits) {
    const std::pair<std::string, std::string> cases[] = {
        {"0xffffff00", "255.255.255.0"},
        {"ffffff00", "255.255.255.0"},
        {"0xFFFFFF00", "FFFFFF00"},  // uppercase is not converted, but loses its "0x"
        {"FFFFFF00", "FFFFFF00"},
        {"12345678", "18.52.86.120"},
        {"10.0.0.1", "10.0.0.1"},
        {"0xffffff0", "0xffffff0"},    // nine characters: untouched
        {"0xffffff000", "0xffffff000"},
        {"0Xffffff00", "0Xffffff00"},
        {"0xzzzzzzzz", "zzzzzzzz"},
        // Ten UTF-16 code units although more than ten bytes: the "0x" goes.
        {"0x\xc3\xa9" "1234567", "\xc3\xa9" "1234567"},
        {"0x\xf0\x9f\x98\x80" "123456", "\xf0\x9f\x98\x80" "123456"},
        // Ten bytes but fewer code units: kept.
        {"0x\xc3\xa9" "123456", "0x\xc3\xa9" "123456"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(QBIPAddress::hexFormatToDecimal(text), expected) << text;
    }
}

TEST(QBIPAddressTest, SetAddressReplacesOrInvalidates) {
    QBIPAddress address("10.0.0.1");
    address.setAddress("fe80::2", 6);
    EXPECT_EQ(address.address(), "fe80::2");
    address.setAddress("0x1:2::3:4", 6);  // the hexadecimal step runs for either version
    EXPECT_EQ(address.address(), "1:2::3:4");
    address.setAddress("10.0.0.1", 6);
    EXPECT_FALSE(address.isValid());
    address.setAddress("10.0.0.1", 4);
    EXPECT_EQ(address.address(), "10.0.0.1");
    address.setAddress("10.0.0.1", 5);
    EXPECT_EQ(address.ipVersion(), 0);
    EXPECT_FALSE(QBIPAddress::isValidAddress("10.0.0.1", 5));
    EXPECT_FALSE(QBIPAddress::isValidAddress("ffffff00", 6));  // no hexadecimal step here
}

TEST(QBIPAddressTest, ReverseLookupNames) {
    EXPECT_EQ(QBIPAddress("10.1.2.3").arpaAddress(), "3.2.1.10.in-addr.arpa");
    EXPECT_EQ(QBIPAddress("2001:db8::1").arpaAddress(),
              "1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa");
    EXPECT_EQ(QBIPAddress("fedc:ba98:7654:3210:0123:4567:89ab:cdef").arpaAddress(),
              "f.e.d.c.b.a.9.8.7.6.5.4.3.2.1.0.0.1.2.3.4.5.6.7.8.9.a.b.c.d.e.f.ip6.arpa");
}

TEST(QBIPAddressTest, FromSocketAddressKeepsTheWholeStructure) {
    const sockaddr_in v4 = ipv4SockAddr("192.0.2.5", 8080);
    const auto fromV4 = QBIPAddress::ipAddressWithSockAddr(asSockAddr(&v4));
    EXPECT_EQ(fromV4->ipVersion(), 4);
    EXPECT_EQ(fromV4->address(), "192.0.2.5");
    EXPECT_EQ(std::memcmp(fromV4->getSockAddr(), &v4, sizeof v4), 0);
    fromV4->setAddress("10.9.8.7", 4);  // writes the address bytes only
    EXPECT_EQ(ntohs(reinterpret_cast<const sockaddr_in*>(fromV4->getSockAddr())->sin_port), 8080);
    EXPECT_EQ(fromV4->address(), "10.9.8.7");
    EXPECT_EQ(QBIPAddress("10.0.0.1").getSockAddr()->ss_family, 0);

    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(53);
    v6.sin6_scope_id = 3;
    inet_pton(AF_INET6, "fe80::1", &v6.sin6_addr);
    const QBIPAddress fromV6(asSockAddr(&v6));
    EXPECT_EQ(fromV6.ipVersion(), 6);
    EXPECT_EQ(fromV6.address(), "fe80::1");
    EXPECT_EQ(std::memcmp(fromV6.getSockAddr(), &v6, sizeof v6), 0);

    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    EXPECT_FALSE(QBIPAddress(asSockAddr(&local)).isValid());
    EXPECT_FALSE(QBIPAddress(static_cast<const sockaddr*>(nullptr)).isValid());
}

TEST(QBIPAddressTest, FromRawBytesNeedsEnoughBytesForTheVersion) {
    const std::vector<std::uint8_t> sixteen = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0,
                                               0,    0,    0,    0,    0, 0, 0, 1};
    const auto v6 = QBIPAddress::ipAddressWithAddressBytes(sixteen, 6);
    ASSERT_NE(v6, nullptr);
    EXPECT_EQ(v6->address(), "2001:db8::1");
    EXPECT_EQ(v6->getSockAddr()->ss_family, AF_INET6);

    const auto firstFour = QBIPAddress::ipAddressWithAddressBytes(sixteen, 4);
    ASSERT_NE(firstFour, nullptr);
    EXPECT_EQ(firstFour->address(), "32.1.13.184");
    EXPECT_EQ(firstFour->getSockAddr()->ss_family, AF_INET);

    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes({10, 0, 0}, 4), nullptr);
    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes(
                  std::vector<std::uint8_t>(sixteen.begin(), sixteen.end() - 1), 6),
              nullptr);
    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes(sixteen, 5), nullptr);
}

TEST(QBIPAddressTest, EqualityAndHashFollowTheAddressText) {
    const QBIPAddress a("10.0.0.1");
    const QBIPAddress hex("0a000001");
    EXPECT_TRUE(a == QBIPAddress("10.0.0.1"));
    EXPECT_TRUE(a == hex);
    EXPECT_EQ(a.hash(), hex.hash());
    EXPECT_FALSE(a == QBIPAddress("10.0.0.2"));
    EXPECT_FALSE(a == QBIPAddress("::ffff:10.0.0.1"));
    EXPECT_FALSE(a.isEqualToIPAddress(nullptr));
}

TEST(QBIPAddressTest, ObjectsWithoutAddressAreNotEqualToEachOther) {
    const QBIPAddress none;
    const QBIPAddress bogus("bogus");
    EXPECT_FALSE(none == bogus);
    EXPECT_FALSE(none.isEqualToIPAddress(&none));
    EXPECT_TRUE(none.isEqual(&none));  // identity alone makes an object equal to itself
}
