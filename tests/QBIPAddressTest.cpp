#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "QBIPAddress.h"

using namespace std::string_literals;

namespace {

const sockaddr* asSockAddr(const void* address) { return static_cast<const sockaddr*>(address); }

}  // namespace

TEST(QBIPAddressTest, TextFormsGiveVersionAndCanonicalText) {
    const std::tuple<std::string, std::int64_t, std::string> cases[] = {
        {"127.94.0.1", 4, "127.94.0.1"}, {"::1", 6, "::1"}, {"::ffff:1.2.3.4", 6, "::ffff:1.2.3.4"},
        {"2001:0DB8:0000:0000::0001", 6, "2001:db8::1"}, {"0xffffff00", 4, "255.255.255.0"},
        {"12345678", 4, "18.52.86.120"}};  // eight decimal digits are hexadecimal too
    for (const auto& [text, version, canonical] : cases) {
        const QBIPAddress address(text);
        EXPECT_EQ(address.ipVersion(), version) << text;
        EXPECT_TRUE(address.isValid()) << text;
        EXPECT_EQ(address.address(), canonical) << text;
        EXPECT_EQ(address.description(), canonical) << text;
    }
}

TEST(QBIPAddressTest, UnparseableTextGivesObjectWithoutAddress) {
    for (const auto& text :
         {""s, "example.com"s, "1.2.3"s, "256.1.1.1"s, " 1.2.3.4"s, "1.2.3.4 "s, "0xFFFFFF00"s,
          "FFFFFF00"s, "ffffff0g"s, "fe80::1%lo0"s, ":::"s, "1.2.3.4\0junk"s, "::1\0"s,
          "0x1:2::3:4"s}) {  // only setAddress strips the "0x" before an IPv6 parse
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
        {"0xffffff00", "255.255.255.0"}, {"ffffff00", "255.255.255.0"},
        {"0xFFFFFF00", "FFFFFF00"},  // uppercase is not converted, but loses its "0x"
        {"FFFFFF00", "FFFFFF00"},        {"12345678", "18.52.86.120"}, {"10.0.0.1", "10.0.0.1"},
        {"0xffffff0", "0xffffff0"},  // nine or eleven characters: untouched
        {"0xffffff000", "0xffffff000"},  {"0Xffffff00", "0Xffffff00"}, {"0xzzzzzzzz", "zzzzzzzz"},
        // Ten UTF-16 code units although more than ten bytes: the "0x" goes.
        {"0x\xc3\xa9" "1234567", "\xc3\xa9" "1234567"},
        {"0x\xf0\x9f\x98\x80" "123456", "\xf0\x9f\x98\x80" "123456"},
        {"0x\xc3\xa9" "123456", "0x\xc3\xa9" "123456"}};  // ten bytes, fewer units: kept
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(QBIPAddress::hexFormatToDecimal(text), expected) << text;
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
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(8080);
    inet_pton(AF_INET, "192.0.2.5", &v4.sin_addr);
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
    const std::vector<std::uint8_t> sixteen = {0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0,
                                               0,    0, 0,    0,    0, 0, 0, 1};
    const auto v6 = QBIPAddress::ipAddressWithAddressBytes(sixteen, 6);
    ASSERT_NE(v6, nullptr);
    EXPECT_EQ(v6->address(), "2001:db8::1");
    EXPECT_EQ(v6->getSockAddr()->ss_family, AF_INET6);
    const auto firstFour = QBIPAddress::ipAddressWithAddressBytes(sixteen, 4);
    ASSERT_NE(firstFour, nullptr);
    EXPECT_EQ(firstFour->address(), "32.1.13.184");
    EXPECT_EQ(firstFour->getSockAddr()->ss_family, AF_INET);

    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes({10, 0, 0}, 4), nullptr);
    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes({sixteen.begin(), sixteen.end() - 1}, 6),
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
    // Objects without an address equal nothing, not even themselves, except by identity.
    const QBIPAddress none;
    EXPECT_FALSE(none == QBIPAddress("bogus"));
    EXPECT_FALSE(none.isEqualToIPAddress(&none));
    EXPECT_TRUE(none.isEqual(&none));
}
