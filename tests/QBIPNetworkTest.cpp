#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <limits>
#include <string>

#include "QBIPNetwork.h"

namespace {

void expectInvalid(const QBIPNetwork& network, const std::string& context) {
    EXPECT_FALSE(network.isValid()) << context;
    EXPECT_EQ(network.prefix(), -1) << context;
    EXPECT_EQ(network.mask(), std::nullopt) << context;
    EXPECT_EQ(network.addressAndMask(), std::nullopt) << context;
    EXPECT_EQ(network.shortAddressAndMask(), std::nullopt) << context;
    EXPECT_EQ(network.maskAsInt(), 0u) << context;
    EXPECT_FALSE(network.isDefault()) << context;
}

sockaddr_in6 ipv6SockAddr(const std::array<std::uint8_t, 16>& bytes) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    std::memcpy(&address.sin6_addr, bytes.data(), bytes.size());
    return address;
}

}  // namespace

TEST(QBIPNetworkTest, PrefixToMaskAtTheLimits) {
    const std::pair<std::int64_t, std::optional<std::string>> cases[] = {
        {0, "0.0.0.0"},          {1, "128.0.0.0"},
        {8, "255.0.0.0"},        {13, "255.248.0.0"},
        {24, "255.255.255.0"},   {31, "255.255.255.254"},
        {32, "255.255.255.255"}, {33, std::nullopt},
        {-1, std::nullopt},      {std::numeric_limits<std::int64_t>::min(), std::nullopt},
        {std::numeric_limits<std::int64_t>::max(), std::nullopt},
    };
    for (const auto& [prefix, mask] : cases) {
        EXPECT_EQ(QBIPNetwork::ipv4CIDRToMask(prefix), mask) << prefix;
    }
}

TEST(QBIPNetworkTest, MaskToPrefixKnowsOnlyTheContiguousDottedMasks) {
    for (std::int64_t prefix = 0; prefix <= 32; ++prefix) {
        EXPECT_EQ(QBIPNetwork::ipv4MaskToCIDR(*QBIPNetwork::ipv4CIDRToMask(prefix)), prefix);
    }
    for (const char* text : {"255.255.255.1", "255.0.255.0", "0xffffff00", " 255.0.0.0",
                             "255.000.0.0", "", "mask"}) {
        EXPECT_EQ(QBIPNetwork::ipv4MaskToCIDR(text), 0) << text;
    }
}

TEST(QBIPNetworkTest, HexMaskGivesDottedMaskAndPrefix) {
    const QBIPNetwork network("127.0.0.1", "0xff000000");
    EXPECT_EQ(network.ipVersion(), 4);
    EXPECT_EQ(network.mask(), "255.0.0.0");
    EXPECT_EQ(network.prefix(), 8);
    EXPECT_EQ(network.addressAndMask(), "127.0.0.1/255.0.0.0");
    EXPECT_EQ(network.shortAddressAndMask(), "127.0.0.1/8");
    EXPECT_EQ(network.description(), "127.0.0.1/255.0.0.0");
    const QBIPAddress& asAddress = network;
    EXPECT_EQ(asAddress.description(), "127.0.0.1/255.0.0.0");
}

TEST(QBIPNetworkTest, SlashFormsWithPrefixOrMaskAgree) {
    const QBIPNetwork reference("192.168.1.0/24");
    for (const char* text : {"192.168.1.0/255.255.255.0", "192.168.1.0/ffffff00",
                             " \t192.168.1.0/0xffffff00\r\n", "192.168.1.0/24.7",
                             "192.168.1.0/+24", "192.168.1.0/2.4e1", "192.168.1.0/ 24",
                             "\xc2\xa0" "192.168.1.0/24\xe2\x80\xa9"}) {  // NBSP, U+2029
        const QBIPNetwork network(text);
        EXPECT_EQ(network.prefix(), 24) << text;
        EXPECT_EQ(network.mask(), "255.255.255.0") << text;
        EXPECT_EQ(network.addressAndMask(), reference.addressAndMask()) << text;
        EXPECT_EQ(network.shortAddressAndMask(), "192.168.1.0/24") << text;
    }
}

TEST(QBIPNetworkTest, MalformedSlashFormsGiveInvalidNetwork) {
    for (const char* text :
         {"192.168.1.0/24/1", "192.168.1.0", "", "/", "/24", "192.168.1.0/",
          "192.168.1.0/abc", "192.168.1.0/0x18", "192.168.1.0/24abc", "192.168.1.0/2 4",
          "192.168.1.0 /24", "host/24", "192.168.1.0/33", "192.168.1.0/-1", "192.168.1.0/1e30",
          "fe80::1/129", "fe80::1/-1", "fe80::1/.", "fe80::1/1e", "fe80::1/+", "fe80::1/inf",
          "fe80::1/nan", "fe80::1/255.255.255.0", "10.0.0.1/255.0.0", "10.0.0.1/ffff::"}) {
        expectInvalid(QBIPNetwork(text), text);
    }
}

TEST(QBIPNetworkTest, NumericSecondPartIsTruncatedToAnInteger) {
    const std::pair<const char*, std::int64_t> cases[] = {
        {"fe80::/64", 64},           {"fe80::/6.4e1", 64},    {"fe80::/640e-1", 64},
        {"fe80::/128.0", 128},       {"fe80::/-0.5", 0},      {"fe80::/.5", 0},
        {"fe80::/127.99999999999999999999", 127},  // no rounding up through a double
        {"fe80::/00064", 64},        {"fe80::/0e99999999999999999999", 0},
    };
    for (const auto& [text, prefix] : cases) {
        const QBIPNetwork network(text);
        EXPECT_EQ(network.ipVersion(), 6) << text;
        EXPECT_EQ(network.prefix(), prefix) << text;
    }
}

TEST(QBIPNetworkTest, OutOfRangeIPv4PrefixLeavesNetworkUnchanged) {
    QBIPNetwork network("10.0.0.0/8");
    network.setAddress("192.168.0.0", std::int64_t{33});
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/255.0.0.0");
    network.setAddressAndMask("192.168.0.0/-1");
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/255.0.0.0");
    network.setAddressAndMask("192.168.0.0/24/1");
    expectInvalid(network, "three parts");
}

TEST(QBIPNetworkTest, NonContiguousMaskIsValidWithPrefixZero) {
    const QBIPNetwork network("10.0.0.0", "255.0.255.0");
    EXPECT_EQ(network.ipVersion(), 4);
    EXPECT_EQ(network.prefix(), 0);
    EXPECT_EQ(network.mask(), "255.0.255.0");
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/0.0.0.0");  // the prefix wins when known
    EXPECT_EQ(network.shortAddressAndMask(), "10.0.0.0/0");
    EXPECT_TRUE(network.networkContainsIPAddress(QBIPAddress("10.77.0.5")));
    EXPECT_FALSE(network.networkContainsIPAddress(QBIPAddress("10.77.1.5")));
}

TEST(QBIPNetworkTest, IPv6PrefixForms) {
    const QBIPNetwork network("fe80::1", std::int64_t{64});
    EXPECT_EQ(network.ipVersion(), 6);
    EXPECT_EQ(network.mask(), "64");
    EXPECT_EQ(network.addressAndMask(), "fe80::1/64");
    EXPECT_EQ(network.shortAddressAndMask(), "fe80::1/64");
    EXPECT_EQ(network.maskAsInt(), 64u);
    expectInvalid(QBIPNetwork("fe80::1", std::int64_t{129}), "129");
    expectInvalid(QBIPNetwork("fe80::1", std::int64_t{-1}), "-1");
    expectInvalid(QBIPNetwork("fe80::1%lo0", std::int64_t{64}), "zone");
}

TEST(QBIPNetworkTest, MaskAndPrefixSettersAndHostOrderMaskValue) {
    QBIPNetwork network("10.0.0.0/16");
    EXPECT_EQ(network.maskAsInt(), 0xFFFF0000u);
    network.setMask(QBIPAddress("255.255.0.0"));  // prefix unknown: text and value from the mask
    EXPECT_EQ(network.prefix(), -1);
    EXPECT_EQ(network.maskAsInt(), 0xFFFF0000u);
    EXPECT_EQ(network.shortAddressAndMask(), "10.0.0.0/255.255.0.0");
    network.setPrefix(12);  // the stored mask stays; the prefix wins in the texts
    EXPECT_EQ(network.mask(), "255.255.0.0");
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/255.240.0.0");
    EXPECT_EQ(network.shortAddressAndMask(), "10.0.0.0/12");
    network.setPrefix(40);
    EXPECT_EQ(network.maskAsInt(), 0xFFFFFFFFu);
    network.setMask(QBIPAddress());
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/(null)");
    EXPECT_EQ(QBIPNetwork("10.0.0.0/0").maskAsInt(), 0u);
    EXPECT_EQ(QBIPNetwork("10.0.0.0/1").maskAsInt(), 0x80000000u);
}

TEST(QBIPNetworkTest, Containment) {
    struct Case {
        const char* network;
        const char* address;
        bool contained;
    };
    const Case cases[] = {
        {"192.168.1.0/24", "192.168.1.77", true},
        {"192.168.1.0/24", "192.168.1.0", true},
        {"192.168.1.0/24", "192.168.2.1", false},
        {"192.168.1.0/24", "::ffff:192.168.1.77", false},
        {"192.168.1.0/24", "bogus", false},
        {"0.0.0.0/0", "203.0.113.9", true},
        {"0.0.0.0/0", "::1", false},
        {"10.0.0.1/32", "10.0.0.1", true},
        {"10.0.0.1/32", "10.0.0.2", false},
        {"10.0.0.1/8", "10.0.0.1", false},  // host bits set: contains nothing
        {"10.0.0.1/8", "10.0.0.0", false},
        {"::/0", "2001:db8::1", true},
        {"::/0", "10.0.0.1", false},
        {"2001:db8::/32", "2001:db8:1::1", true},
        {"2001:db8::/32", "2001:db9::1", false},
        {"2001:db8::/33", "2001:db8:7fff::1", true},
        {"2001:db8::/33", "2001:db8:8000::1", false},
        {"2001:db8::1/128", "2001:db8::1", true},
        {"2001:db8::1/128", "2001:db8::2", false},
        {"2001:db8::1/64", "2001:db8::1", false},
        {"bogus/8", "10.0.0.1", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(QBIPNetwork(c.network).networkContainsIPAddress(QBIPAddress(c.address)),
                  c.contained)
            << c.network << " " << c.address;
    }
}

TEST(QBIPNetworkTest, IPv6NetworkWithUnknownPrefixContainsNothing) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::1", &address.sin6_addr);
    const QBIPNetwork network(reinterpret_cast<const sockaddr*>(&address));
    EXPECT_EQ(network.ipVersion(), 6);
    EXPECT_EQ(network.prefix(), -1);
    EXPECT_EQ(network.addressAndMask(), "2001:db8::1/-1");
    EXPECT_FALSE(network.networkContainsIPAddress(QBIPAddress("2001:db8::1")));
}

TEST(QBIPNetworkTest, DefaultRoutes) {
    EXPECT_TRUE(QBIPNetwork("0.0.0.0/0").isDefault());
    EXPECT_TRUE(QBIPNetwork("0.0.0.0/0.0.0.0").isDefault());
    EXPECT_TRUE(QBIPNetwork("::/0").isDefault());
    EXPECT_FALSE(QBIPNetwork("10.0.0.0/8").isDefault());
    EXPECT_FALSE(QBIPNetwork("0.0.0.0/8").isDefault());
    EXPECT_FALSE(QBIPNetwork("::/64").isDefault());
    EXPECT_FALSE(QBIPNetwork("::1/0").isDefault());
    EXPECT_FALSE(QBIPNetwork().isDefault());

    sockaddr_in any{};
    any.sin_family = AF_INET;
    const QBIPNetwork fromSocket(reinterpret_cast<const sockaddr*>(&any));
    EXPECT_TRUE(fromSocket.isDefault());  // no mask set counts as the all-zero mask
}

TEST(QBIPNetworkTest, PrefixFromIPv6MaskSocketAddress) {
    using Bytes = std::array<std::uint8_t, 16>;
    const std::pair<Bytes, std::int64_t> cases[] = {
        {Bytes{}, 0},
        {Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 64},
        {Bytes{0xff, 0xff, 0xfe}, 23},
        {Bytes{0xff, 0x00, 0xff, 0x80}, 17},  // bytes after a partial one still count
        {Bytes{0xff, 0x0f}, -1},
        {Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
               0xff, 0xff},
         128},
    };
    for (const auto& [bytes, prefix] : cases) {
        QBIPNetwork network("fe80::", std::int64_t{10});
        const sockaddr_in6 mask = ipv6SockAddr(bytes);
        network.setPrefixAsSockAddr(reinterpret_cast<const sockaddr*>(&mask));
        EXPECT_EQ(network.prefix(), prefix) << prefix;
    }
    QBIPNetwork network("fe80::", std::int64_t{10});
    network.setPrefixAsSockAddr(nullptr);
    EXPECT_EQ(network.prefix(), -1);
    sockaddr_in ipv4Mask{};
    ipv4Mask.sin_family = AF_INET;
    network.setPrefix(10);
    network.setPrefixAsSockAddr(reinterpret_cast<const sockaddr*>(&ipv4Mask));
    EXPECT_EQ(network.prefix(), -1);
}

TEST(QBIPNetworkTest, EqualityIgnoresTheMask) {
    const QBIPNetwork wide("10.0.0.0/8");
    const QBIPAddress plain("10.0.0.0");
    EXPECT_TRUE(wide == QBIPNetwork("10.0.0.0/16"));
    EXPECT_TRUE(wide == plain);
    EXPECT_EQ(wide.hash(), plain.hash());
}

TEST(QBIPNetworkTest, FactoriesAnswerNullOnlyForMissingText) {
    EXPECT_EQ(QBIPNetwork::initWithAddressAndMask(std::nullopt), nullptr);
    EXPECT_EQ(QBIPNetwork::initWithAddress(std::nullopt, "255.0.0.0"), nullptr);
    EXPECT_EQ(QBIPNetwork::initWithAddress("10.0.0.1", std::nullopt), nullptr);
    const auto invalid = QBIPNetwork::initWithAddressAndMask("bogus");
    ASSERT_NE(invalid, nullptr);
    EXPECT_FALSE(invalid->isValid());
    EXPECT_EQ(QBIPNetwork::initWithAddress("10.0.0.1", "255.0.0.0")->prefix(), 8);
}
