#pragma once
// QBInterfaceData: what the interface tool says about one network interface: its IPv4 and IPv6
// addresses with their networks, its hardware address and its MTU.
//
// parse() reads the tool's text as given (bytes), so tests and fuzzers drive it without running
// a tool. It knows two dialects, line by line:
//   - the BSD ifconfig form: "inet 127.94.0.1 netmask 0xffffffff",
//     "inet 10.0.0.1 --> 10.0.0.2 netmask 0xffffffff", "inet6 fe80::1%lo0 prefixlen 64",
//     "ether 0:1:2:3:4:5", "lo0: flags=8049<UP,LOOPBACK> mtu 16384";
//   - iproute2's form, also with -o (each line led by "N: name"): "inet 127.0.0.1/8 scope host
//     lo", "inet 10.0.0.1 peer 10.0.0.2/32 ...", "inet6 ::1/128 ...", "link/ether aa:...",
//     "1: lo: <LOOPBACK,UP> mtu 65536 ...".
// An address with a "/" (or a "peer" keyword) marks the iproute2 form, which ifconfig never
// prints. Lines of no known form are skipped; output that is not UTF-8 gives empty data.
//
// Threads: a value; parse() is pure and may run on any thread.

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "QBEtherAddress.h"
#include "QBIPAddress.h"
#include "QBIPNetwork.h"

struct QBInterfaceData {
    // One IPv4 line: its network, and the peer's address for a point-to-point line.
    using IPv4Entry = std::pair<QBIPNetwork, std::optional<QBIPAddress>>;

    std::vector<IPv4Entry> inet;       // in output order
    std::vector<QBIPNetwork> inet6;    // in output order; a zone ("%lo0") is cut off
    std::optional<QBEtherAddress> ether;  // the last hardware-address line
    std::optional<std::int64_t> mtu;

    static QBInterfaceData parse(std::string_view toolOutput);
    // True when one of the IPv4 entries has exactly this address text.
    bool listsIPv4Address(const std::string& address) const;
};
