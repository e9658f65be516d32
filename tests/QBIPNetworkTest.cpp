#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <string>

#include "QBIPNetwork.h"

namespace {

const sockaddr* asSockAddr(const void* address) { return static_cast<const sockaddr*>(address); }

}  // namespace

TEST(QBIPNetworkTest, PrefixToMaskAndBack) {
    EXPECT_EQ(QBIPNetwork::ipv4CIDRToMask(13), "255.248.0.0");
    EXPECT_EQ(QBIPNetwork::ipv4CIDRToMask(33), std::nullopt);
    EXPECT_EQ(QBIPNetwork::ipv4CIDRToMask(-1), std::nullopt);
    for (std::int64_t prefix = 0; prefix <= 32; ++prefix)
        EXPECT_EQ(QBIPNetwork::ipv4MaskToCIDR(*QBIPNetwork::ipv4CIDRToMask(prefix)), prefix);
    for (const char* text : {"255.0.255.0", "0xffffff00", "255.000.0.0", ""})
        EXPECT_EQ(QBIPNetwork::ipv4MaskToCIDR(text), 0) << text;  // only contiguous dotted masks
}

TEST(QBIPNetworkTest, PrefixOrMaskInAnyFormGiveTheSameNetwork) {
    std::vector<QBIPNetwork> networks{QBIPNetwork("192.168.1.0", "0xffffff00"),
                                      QBIPNetwork("192.168.1.0", std::int64_t{24})};
    for (const char* text : {"192.168.1.0/255.255.255.0", "192.168.1.0/ffffff00",
                             " \t192.168.1.0/24\r\n", "192.168.1.0/24.7", "192.168.1.0/+2.4e1",
                             "192.168.1.0/ 24", "\xc2\xa0" "192.168.1.0/24\xe2\x80\xa9"})
        networks.emplace_back(text);
    for (const QBIPNetwork& network : networks) {
        SCOPED_TRACE(&network - networks.data());
        EXPECT_EQ(network.mask(), "255.255.255.0");
        EXPECT_EQ(network.shortAddressAndMask(), "192.168.1.0/24");
        EXPECT_EQ(static_cast<const QBIPAddress&>(network).description(),
                  "192.168.1.0/255.255.255.0");
    }
}

TEST(QBIPNetworkTest, MalformedFormsGiveInvalidNetwork) {
    for (const char* text :
         {"192.168.1.0/24/1", "192.168.1.0", "/24", "192.168.1.0/", "192.168.1.0/0x18",
          "192.168.1.0/24abc", "192.168.1.0/2 4", "192.168.1.0 /24", "192.168.1.0/1e30",
          "fe80::1/129", "fe80::1/-1", "fe80::1/.", "fe80::1/1e", "fe80::1/nan", "fe80::1/255.255.255.0",
          "10.0.0.1/255.0.0", "fe80::1%lo0/64"}) {
        const QBIPNetwork network(text);
        EXPECT_EQ(network.prefix(), -1) << text;
        EXPECT_EQ(network.addressAndMask(), std::nullopt) << text;
    }
}

TEST(QBIPNetworkTest, IPv6PrefixIsTheTruncatedNumberAndServesAsTheMask) {
    const std::pair<const char*, std::int64_t> cases[] = {
        {"fe80::1/6.4e1", 64}, {"fe80::1/640e-1", 64}, {"fe80::1/-0.5", 0}, {"fe80::1/.5", 0},
        {"fe80::1/127.99999999999999999999", 127},  // no rounding up through a double
        {"fe80::1/0e99999999999999999999", 0}};
    for (const auto& [text, prefix] : cases) {
        const QBIPNetwork network(text);
        EXPECT_EQ(network.addressAndMask(), "fe80::1/" + std::to_string(prefix)) << text;
        EXPECT_EQ(network.maskAsInt(), static_cast<std::uint64_t>(prefix)) << text;
    }
}

TEST(QBIPNetworkTest, OutOfRangeIPv4PrefixLeavesNetworkUnchanged) {
    QBIPNetwork network("10.0.0.0/8");
    network.setAddress("192.168.0.0", std::int64_t{33});
    network.setAddressAndMask("192.168.0.0/-1");
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/255.0.0.0");
}

TEST(QBIPNetworkTest, NonContiguousMaskIsValidWithPrefixZero) {
    const QBIPNetwork network("10.0.0.0", "255.0.255.0");
    EXPECT_EQ(network.mask(), "255.0.255.0");
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/0.0.0.0");  // the prefix wins when known
    EXPECT_TRUE(network.networkContainsIPAddress(QBIPAddress("10.77.0.5")));
    EXPECT_FALSE(network.networkContainsIPAddress(QBIPAddress("10.77.1.5")));
}

TEST(QBIPNetworkTest, MaskAndPrefixSettersAndHostOrderMaskValue) {
    QBIPNetwork network("10.0.0.0/16");
    network.setMask(QBIPAddress("255.255.0.0"));  // prefix unknown: text and value from the mask
    EXPECT_EQ(network.prefix(), -1);
    EXPECT_EQ(network.maskAsInt(), 0xFFFF0000u);
    EXPECT_EQ(network.shortAddressAndMask(), "10.0.0.0/255.255.0.0");
    network.setPrefix(12);  // the stored mask stays; the prefix wins in the texts
    EXPECT_EQ(network.mask(), "255.255.0.0");
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/255.240.0.0");
    EXPECT_EQ(network.maskAsInt(), 0xFFF00000u);
    network.setPrefix(40);
    EXPECT_EQ(network.maskAsInt(), 0xFFFFFFFFu);
    network.setMask(QBIPAddress());
    EXPECT_EQ(network.addressAndMask(), "10.0.0.0/(null)");
    EXPECT_EQ(QBIPNetwork("10.0.0.0/0").maskAsInt(), 0u);
}

TEST(QBIPNetworkTest, Containment) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"192.168.1.0/24", "192.168.1.77", true}, {"192.168.1.0/24", "192.168.2.1", false},
        {"192.168.1.0/24", "::ffff:192.168.1.77", false}, {"0.0.0.0/0", "203.0.113.9", true},
        {"10.0.0.1/32", "10.0.0.1", true}, {"10.0.0.1/8", "10.0.0.1", false},  // host bits kept
        {"::/0", "2001:db8::1", true}, {"::/0", "10.0.0.1", false},
        {"2001:db8::/33", "2001:db8:7fff::1", true}, {"2001:db8::/33", "2001:db8:8000::1", false},
        {"2001:db8::1/128", "2001:db8::1", true}, {"2001:db8::1/128", "2001:db8::2", false},
        {"bogus/8", "10.0.0.1", false}};
    for (const auto& [network, address, contained] : cases) {
        EXPECT_EQ(QBIPNetwork(network).networkContainsIPAddress(QBIPAddress(address)), contained)
            << network << " " << address;
    }
    sockaddr_in6 address{};  // an IPv6 network from a socket address has no prefix yet
    address.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::1", &address.sin6_addr);
    const QBIPNetwork unknownPrefix(asSockAddr(&address));
    EXPECT_EQ(unknownPrefix.addressAndMask(), "2001:db8::1/-1");
    EXPECT_FALSE(unknownPrefix.networkContainsIPAddress(QBIPAddress("2001:db8::1")));
}

TEST(QBIPNetworkTest, DefaultRoutes) {
    const std::pair<const char*, bool> cases[] = {
        {"0.0.0.0/0", true}, {"::/0", true},   {"0.0.0.0/8", false}, {"10.0.0.0/0", false},
        {"::/64", false},    {"::1/0", false}, {"", false}};
    for (const auto& [text, isDefault] : cases)
        EXPECT_EQ(QBIPNetwork(text).isDefault(), isDefault) << text;
    sockaddr_in any{};
    any.sin_family = AF_INET;
    EXPECT_TRUE(QBIPNetwork(asSockAddr(&any)).isDefault());  // no mask counts as the zero mask
}

TEST(QBIPNetworkTest, PrefixFromIPv6MaskSocketAddress) {
    using Bytes = std::array<std::uint8_t, 16>;
    Bytes all;
    all.fill(0xff);
    const std::pair<Bytes, std::int64_t> cases[] = {
        {Bytes{}, 0}, {all, 128}, {Bytes{0xff, 0xff, 0xfe}, 23},
        {Bytes{0xff, 0x00, 0xff, 0x80}, 17},  // bytes after a partial one still count
        {Bytes{0xff, 0x0f}, -1}};
    QBIPNetwork network("fe80::", std::int64_t{10});
    for (const auto& [bytes, prefix] : cases) {
        sockaddr_in6 mask{};
        mask.sin6_family = AF_INET6;
        std::memcpy(&mask.sin6_addr, bytes.data(), bytes.size());
        network.setPrefixAsSockAddr(asSockAddr(&mask));
        EXPECT_EQ(network.prefix(), prefix) << prefix;
    }
    sockaddr_in ipv4Mask{};
    ipv4Mask.sin_family = AF_INET;
    network.setPrefix(10);
    network.setPrefixAsSockAddr(asSockAddr(&ipv4Mask));
    EXPECT_EQ(network.prefix(), -1);
}

TEST(QBIPNetworkTest, EqualityIgnoresTheMaskAndFactoriesAnswerNullOnlyForMissingText) {
    EXPECT_TRUE(QBIPNetwork("10.0.0.0/8") == QBIPAddress("10.0.0.0"));
    EXPECT_EQ(QBIPNetwork("10.0.0.0/8").hash(), QBIPAddress("10.0.0.0").hash());
    EXPECT_EQ(QBIPNetwork::initWithAddressAndMask(std::nullopt), nullptr);
    EXPECT_EQ(QBIPNetwork::initWithAddress("10.0.0.1", std::nullopt), nullptr);
    EXPECT_FALSE(QBIPNetwork::initWithAddressAndMask("bogus")->isValid());
}
