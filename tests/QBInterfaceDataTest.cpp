#include "QBInterfaceData.h"

#include <gtest/gtest.h>

// An entry as "address/prefix" (then " peer P" for point-to-point), "none" when rejected.
static std::string render(const QBIPNetwork& network) {
    return network.address() ? *network.address() + "/" + std::to_string(network.prefix()) : "none";
}

struct ListingCase {
    const char* name;
    std::string output;
    std::vector<std::string> inet, inet6;
    std::optional<std::string> ether;
    std::optional<std::int64_t> mtu;
};

const std::vector<ListingCase> listings = {
    {"BsdLoopbackWithAlias",
     "lo0: flags=8049<UP,LOOPBACK,RUNNING,MULTICAST> mtu 16384\n"
     "\toptions=1203<RXCSUM,TXCSUM,TXSTATUS,SW_TIMESTAMP>\n"
     "\tinet 127.0.0.1 netmask 0xff000000 \n"
     "\tinet6 ::1 prefixlen 128 \n"
     "\tinet6 fe80::1%lo0 prefixlen 64 scopeid 0x1 \n"
     "\tinet 127.94.0.1 netmask 0xffffffff\n"  // four tokens: recorded too
     "\tnd6 options=201<PERFORMNUD,DAD>\n",
     {"127.0.0.1/8", "127.94.0.1/32"}, {"::1/128", "fe80::1/64"}, std::nullopt, 16384},
    {"BsdSixTokenLinesPointToPointAndTwoEtherLines",
     "en0: flags=8863<UP> mtu 1500\r\n"
     "\tether 00:1c:42:00:00:08 \r\n"
     "\tinet 10.0.0.5 netmask 0xffffff00 broadcast 10.0.0.255\r\n"
     "\tinet 10.8.0.1 --> 10.8.0.2 netmask 0xffffffff\r\n"
     "\tether 0:1c:42:0:0:9\r\n"
     "\tinet 999.1.1.1 netmask 0xffffff00 broadcast 10.0.0.255\r\n",  // rejected: still a pair
     {"10.0.0.5/24", "10.8.0.1/32 peer 10.8.0.2", "none"}, {}, "0:1c:42:0:0:9", 1500},
    {"OtherLineBreaksSplitLinesToo",
     "inet 10.1.0.1 netmask 0xffff0000 broadcast 10.1.255.255\v"
     "inet 10.2.0.1 netmask 0xffff0000 broadcast 10.2.255.255\xE2\x80\xA8"
     "inet 10.3.0.1 netmask 0xffff0000 broadcast 10.3.255.255\xC2\x85"
     "inet6 fe80::2%en0 prefixlen",  // three tokens: no entry
     {"10.1.0.1/16", "10.2.0.1/16", "10.3.0.1/16"}, {}, std::nullopt, std::nullopt},
    {"IPRouteOneLinePerAddress",
     "1: lo    inet 127.0.0.1/8 scope host lo\\       valid_lft forever preferred_lft forever\n"
     "1: lo    inet 127.94.0.1/32 scope host lo\\       valid_lft forever preferred_lft forever\n"
     "1: lo    inet6 ::1/128 scope host \\       valid_lft forever preferred_lft forever\n",
     {"127.0.0.1/8", "127.94.0.1/32"}, {"::1/128"}, std::nullopt, std::nullopt},
    {"IPRouteFullListing",
     "4: tun0: <POINTOPOINT,UP,LOWER_UP> mtu 1420 qdisc fq_codel state UNKNOWN qlen 500\n"
     "    link/ether 02:42:ac:11:00:02 brd ff:ff:ff:ff:ff:ff\n"
     "    inet 10.8.0.1 peer 10.8.0.2/32 scope global tun0\n"
     "       valid_lft forever preferred_lft forever\n"
     "    inet 192.168.7.3/24 brd 192.168.7.255 scope global secondary tun0\n"
     "    inet 127.0.0.1/8 scope host secondary lo\n"  // six tokens, yet not the BSD form
     "    inet6 fe80::42:acff:fe11:2/64 scope link \n",
     {"10.8.0.1/32 peer 10.8.0.2", "192.168.7.3/24", "127.0.0.1/8"}, {"fe80::42:acff:fe11:2/64"}, "2:42:ac:11:0:2", 1420},
    {"ToolErrorTextMatchesNothing", "Device \"lo9\" does not exist.\n", {}, {}, std::nullopt, std::nullopt},
};

TEST(QBInterfaceDataTest, RecordsTheListedAddressesEtherAndMtu) {
    for (const auto& listing : listings) {
        SCOPED_TRACE(listing.name);
        const auto data = QBInterfaceData::parse(listing.output);
        std::vector<std::string> inet, inet6;
        for (const auto& [network, peer] : data.inet)
            inet.push_back(render(network) + (peer ? " peer " + peer->address().value_or("none") : ""));
        for (const auto& network : data.inet6) inet6.push_back(render(network));
        EXPECT_EQ(inet, listing.inet);
        EXPECT_EQ(inet6, listing.inet6);
        EXPECT_EQ(data.ether ? data.ether->address() : std::nullopt, listing.ether);
        EXPECT_EQ(data.mtu, listing.mtu);
    }
}

TEST(QBInterfaceDataLookupTest, FindsAnAddressByItsExactText) {
    const auto data = QBInterfaceData::parse("\tinet 127.94.0.10 netmask 0xffffffff\n\tinet 999.1.1.1 netmask 0xff000000\n");
    EXPECT_TRUE(data.listsIPv4Address("127.94.0.10"));
    EXPECT_FALSE(data.listsIPv4Address("127.94.0.1") || data.listsIPv4Address("999.1.1.1"));
}
