#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/un.h>

#include <cstring>

#include "QBEtherAddress.h"
#include "QBIPAddress.h"

using namespace std::string_literals;

static const sockaddr* asSockAddr(const void* address) { return static_cast<const sockaddr*>(address); }

TEST(QBIPAddressTest, TextFormsGiveVersionCanonicalTextAndReverseLookupName) {
    const std::tuple<std::string, std::int64_t, std::optional<std::string>> cases[] = {
        {"127.94.0.1", 4, "127.94.0.1"}, {"2001:0DB8:0000:0000::0001", 6, "2001:db8::1"},
        {"0xffffff00", 4, "255.255.255.0"},
        {"12345678", 4, "18.52.86.120"},  // eight decimal digits are hexadecimal too
        {" 1.2.3.4", 0, {}}, {"0xFFFFFF00", 0, {}}, {"1.2.3.4\0junk"s, 0, {}}, {"::1\0"s, 0, {}},
        {"0x1:2::3:4", 0, {}}};  // only setAddress strips the "0x" before an IPv6 parse
    for (const auto& [text, version, canonical] : cases) {
        const QBIPAddress address(text);
        EXPECT_EQ(address.ipVersion(), version) << text;
        EXPECT_EQ(address.address(), canonical) << text;
    }
    EXPECT_EQ(QBIPAddress("10.1.2.3").arpaAddress(), "3.2.1.10.in-addr.arpa");
    EXPECT_EQ(QBIPAddress("fedc:ba98:7654:3210:0123:4567:89ab:cdef").arpaAddress(),
              "f.e.d.c.b.a.9.8.7.6.5.4.3.2.1.0.0.1.2.3.4.5.6.7.8.9.a.b.c.d.e.f.ip6.arpa");
}

TEST(QBIPAddressTest, HexFormatToDecimalConvertsOnlyEightLowercaseHexDigits) {
    const std::pair<std::string, std::string> cases[] = {
        {"ffffff00", "255.255.255.0"}, {"0xFFFFFF00", "FFFFFF00"}, {"0xffffff0", "0xffffff0"},
        {"0xzzzzzzzz", "zzzzzzzz"},  // ten characters lose their "0x", converted or not
        // The "0x" rule counts UTF-16 code units, not bytes or code points.
        {"0x\xf0\x9f\x98\x80" "123456", "\xf0\x9f\x98\x80" "123456"},
        {"0x\xc3\xa9" "123456", "0x\xc3\xa9" "123456"}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(QBIPAddress::hexFormatToDecimal(text), expected) << text;
}

TEST(QBIPAddressTest, SetAddressReplacesOrInvalidates) {
    QBIPAddress address("10.0.0.1");
    address.setAddress("0x1:2::3:4", 6);  // the hexadecimal step runs for either version
    EXPECT_EQ(address.address(), "1:2::3:4");
    for (const auto& [version, result] : {std::pair{6, 0}, {4, 4}, {5, 0}}) {
        address.setAddress("10.0.0.1", version);
        EXPECT_EQ(address.ipVersion(), result) << version;
    }
}

TEST(QBIPAddressTest, FromSocketAddressKeepsTheWholeStructure) {
    sockaddr_in v4{AF_INET, htons(8080), {}, {}};
    inet_pton(AF_INET, "192.0.2.5", &v4.sin_addr);
    const auto fromV4 = QBIPAddress::ipAddressWithSockAddr(asSockAddr(&v4));
    EXPECT_EQ(std::memcmp(fromV4->getSockAddr(), &v4, sizeof v4), 0);
    fromV4->setAddress("10.9.8.7", 4);  // writes the address bytes only
    EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(fromV4->getSockAddr())->sin_port, htons(8080));
    EXPECT_EQ(fromV4->address(), "10.9.8.7");

    sockaddr_in6 v6{AF_INET6, htons(53), 0, {}, 3};  // port and scope are kept too
    inet_pton(AF_INET6, "fe80::1", &v6.sin6_addr);
    const QBIPAddress fromV6(asSockAddr(&v6));
    EXPECT_EQ(std::memcmp(fromV6.getSockAddr(), &v6, sizeof v6), 0);

    const sockaddr_un local{AF_UNIX, {}};
    EXPECT_FALSE(QBIPAddress(asSockAddr(&local)).isValid());
    EXPECT_FALSE(QBIPAddress(asSockAddr(nullptr)).isValid());
}

TEST(QBIPAddressTest, FromRawBytesNeedsEnoughBytesForTheVersion) {
    const std::vector<std::uint8_t> bytes = {0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes(bytes, 6)->address(), "2001:db8::1");
    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes(bytes, 4)->address(), "32.1.13.184");
    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes({10, 0, 0}, 4), nullptr);
    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes({bytes.begin(), bytes.end() - 1}, 6), nullptr);
    EXPECT_EQ(QBIPAddress::ipAddressWithAddressBytes(bytes, 5), nullptr);
}

TEST(QBIPAddressTest, EqualityAndHashFollowTheAddressText) {
    const QBIPAddress a("10.0.0.1");
    EXPECT_TRUE(a == QBIPAddress("0a000001"));
    EXPECT_EQ(a.hash(), QBIPAddress("0a000001").hash());
    EXPECT_FALSE(a == QBIPAddress("10.0.0.2") || a == QBIPAddress("::ffff:10.0.0.1"));
    EXPECT_FALSE(a.isEqualToIPAddress(nullptr));
    // Objects without an address equal nothing, not even themselves, except by identity.
    const QBIPAddress none;
    EXPECT_FALSE(none.isEqualToIPAddress(&none));
    EXPECT_TRUE(none.isEqual(&none));
}

TEST(QBEtherAddressTest, RendersLowercaseAndRefusesOtherTextUntilAGoodOne) {
    EXPECT_EQ(QBEtherAddress().address(), "0:0:0:0:0:0");
    EXPECT_EQ(QBEtherAddress("00:1C:42:0A:0B:FF").address(), "0:1c:42:a:b:ff");
    for (const auto& text : {""s, "00:1c:42:0a:0b"s, "gg:00:00:00:00:00"s, "00-1c-42-0a-0b-ff"s,
                             "100:0:0:0:0:0"s, "0:1:2:3:4:5\0"s}) {
        QBEtherAddress address("0:1c:42:a:b:ff");
        address.setAddress(text);
        EXPECT_EQ(address.address(), std::nullopt) << text;
        address.setAddress("2:0:0:0:0:1");
        EXPECT_EQ(address.address(), "2:0:0:0:0:1") << text;
    }
}
