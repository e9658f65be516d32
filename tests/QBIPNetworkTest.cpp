#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>

#include "QBIPNetwork.h"

static const sockaddr* asSockAddr(const void* address) { return static_cast<const sockaddr*>(address); }

TEST(QBIPNetworkTest, PrefixToMaskAndBackSettersAndHostOrderMaskValue) {
    EXPECT_EQ(QBIPNetwork::ipv4CIDRToMask(13), "255.248.0.0");
    for (int prefix : {-1, 33}) EXPECT_EQ(QBIPNetwork::ipv4CIDRToMask(prefix), std::nullopt) << prefix;
    for (std::int64_t prefix = 0; prefix <= 32; ++prefix)
        EXPECT_EQ(QBIPNetwork::ipv4MaskToCIDR(*QBIPNetwork::ipv4CIDRToMask(prefix)), prefix);
    for (const char* text : {"255.0.255.0", "0xffffff00", "255.000.0.0"})
        EXPECT_EQ(QBIPNetwork::ipv4MaskToCIDR(text), 0) << text;  // only contiguous dotted masks
    QBIPNetwork network("10.0.0.0", "255.0.255.0");  // non-contiguous: valid with prefix 0
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/0.0.0.0");  // the prefix wins when known
    network.setAddress("192.168.0.0", std::int64_t{33});  // out of range: the network stays
    network.setAddressAndMask("192.168.0.0/-1");
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/0.0.0.0");
    EXPECT_TRUE(network.networkContainsIPAddress(QBIPAddress("10.77.0.5")));
    EXPECT_FALSE(network.networkContainsIPAddress(QBIPAddress("10.77.1.5")));
    network.setMask(QBIPAddress("255.255.0.0"));  // prefix unknown: text and value from the mask
    EXPECT_EQ(network.maskAsInt(), 0xFFFF0000u);
    EXPECT_EQ(network.shortAddressAndMask(), "10.0.0.0/255.255.0.0");
    network.setPrefix(12);  // the stored mask stays
    EXPECT_EQ(network.mask(), "255.255.0.0");
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/255.240.0.0");
    EXPECT_EQ(network.maskAsInt(), 0xFFF00000u);
    network.setPrefix(40);
    EXPECT_EQ(network.maskAsInt(), 0xFFFFFFFFu);
    network.setMask(QBIPAddress());
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/(null)");
}

TEST(QBIPNetworkTest, SlashFormsTakeAMaskOrATruncatedNumber) {
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"192.168.1.0/255.255.255.0", "192.168.1.0/24"}, {"192.168.1.0/ffffff00", "192.168.1.0/24"},
        {" \t192.168.1.0/24.7\r\n", "192.168.1.0/24"}, {"192.168.1.0/+2.4e1", "192.168.1.0/24"},
        {"\xc2\xa0" "192.168.1.0/ 24\xe2\x80\xa9", "192.168.1.0/24"},  // Unicode blanks trimmed
        {"fe80::1/640e-1", "fe80::1/64"}, {"fe80::1/-0.5", "fe80::1/0"}, {"::/.5", "::/0"},
        {"fe80::1/127.99999999999999999999", "fe80::1/127"},  // no rounding up through a double
        {"fe80::1/0e99999999999999999999", "fe80::1/0"},
        {"192.168.1.0/24/1", {}}, {"192.168.1.0", {}}, {"192.168.1.0/0x18", {}},
        {"192.168.1.0/24abc", {}}, {"192.168.1.0/2 4", {}}, {"192.168.1.0 /24", {}},
        {"192.168.1.0/1e30", {}}, {"fe80::1/129", {}}, {"fe80::1/-1", {}}, {"fe80::1/.", {}},
        {"fe80::1/1e", {}}, {"fe80::1/255.255.255.0", {}}, {"10.0.0.1/255.0.0", {}},
        {"fe80::1%lo0/64", {}}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(QBIPNetwork(text).shortAddressAndMask(), expected) << text;
    const QBIPNetwork network("192.168.1.0", "0xffffff00");
    EXPECT_EQ(network.mask(), "255.255.255.0");
    EXPECT_EQ(static_cast<const QBIPAddress&>(network).description(), "192.168.1.0/255.255.255.0");
    EXPECT_EQ(QBIPNetwork("fe80::1/64").maskAsInt(), 64u);
    EXPECT_TRUE(QBIPNetwork("10.0.0.0/8") == QBIPAddress("10.0.0.0"));  // equality ignores the mask
    EXPECT_EQ(QBIPNetwork("10.0.0.0/8").hash(), QBIPAddress("10.0.0.0").hash());
}

TEST(QBIPNetworkTest, ContainmentAndDefaultRoutes) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"192.168.1.0/24", "192.168.1.77", true}, {"192.168.1.0/24", "192.168.2.1", false},
        {"192.168.1.0/24", "::ffff:192.168.1.77", false}, {"0.0.0.0/0", "203.0.113.9", true},
        {"10.0.0.1/32", "10.0.0.1", true}, {"10.0.0.1/8", "10.0.0.1", false},  // host bits kept
        {"::/0", "2001:db8::1", true}, {"::/0", "10.0.0.1", false},
        {"2001:db8::/33", "2001:db8:7fff::1", true}, {"2001:db8::/33", "2001:db8:8000::1", false},
        {"2001:db8::1/128", "2001:db8::2", false}, {"bogus/8", "10.0.0.1", false}};
    for (const auto& [network, address, contained] : cases)
        EXPECT_EQ(QBIPNetwork(network).networkContainsIPAddress(QBIPAddress(address)), contained) << network << " " << address;
    for (const auto& [text, isDefault] :
         {std::pair{"0.0.0.0/0", true}, {"::/0", true}, {"0.0.0.0/8", false},
          {"10.0.0.0/0", false}, {"::/64", false}, {"::1/0", false}, {"", false}})
        EXPECT_EQ(QBIPNetwork(text).isDefault(), isDefault) << text;
    const sockaddr_in any{AF_INET, 0, {}, {}};
    EXPECT_TRUE(QBIPNetwork(asSockAddr(&any)).isDefault());  // no mask counts as the zero mask
}

TEST(QBIPNetworkTest, PrefixFromIPv6MaskSocketAddress) {
    sockaddr_in6 mask{AF_INET6, 0, 0, {}, 0};
    QBIPNetwork network(asSockAddr(&mask));  // from a socket address: no prefix yet
    EXPECT_EQ(network.addressAndMask(), "::/-1");
    EXPECT_FALSE(network.networkContainsIPAddress(QBIPAddress("::")));
    const std::pair<std::vector<std::uint8_t>, std::int64_t> cases[] = {
        {std::vector<std::uint8_t>(16, 0xff), 128}, {{0xff, 0xff, 0xfe}, 23}, {{0xff, 0x0f}, -1},
        {{0xff, 0x00, 0xff, 0x80}, 17}};  // bytes after a partial one still count
    for (const auto& [bytes, prefix] : cases) {
        mask.sin6_addr = {};
        std::copy(bytes.begin(), bytes.end(), mask.sin6_addr.s6_addr);
        network.setPrefixAsSockAddr(asSockAddr(&mask));
        EXPECT_EQ(network.prefix(), prefix) << prefix;
    }
    network.setPrefix(10);
    mask.sin6_family = AF_INET;
    network.setPrefixAsSockAddr(asSockAddr(&mask));
    EXPECT_EQ(network.prefix(), -1);
}
