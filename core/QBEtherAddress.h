#pragma once
// QBEtherAddress: one 48-bit Ethernet (MAC) address, parsed from and rendered to the usual
// colon-separated hexadecimal text ("0:1c:42:a:b:ff").
//
// Invariants: the six octets are kept first octet first, as transmitted; a new object holds six
// zero octets. Text that is not an Ethernet address leaves the object without an address: its
// octets become zero and address() answers nullopt until a good text is set.
//
// Threads: a value object without a lock; set it up on one thread, then any thread may read it.

#include <net/ethernet.h>

#include <optional>
#include <string>
#include <string_view>

class QBEtherAddress {
public:
    // The all-zero address 0:0:0:0:0:0.
    QBEtherAddress();
    // setAddress(text).
    explicit QBEtherAddress(std::string_view text);

    // Six hexadecimal numbers of one or two digits separated by colons (ether_aton_r); any other
    // text (also one with a zero byte) leaves the object without an address.
    void setAddress(std::string_view text);
    // Six lowercase hexadecimal numbers without leading zeros separated by colons
    // (ether_ntoa_r), or nullopt when the last text set was not an Ethernet address.
    std::optional<std::string> address() const;

private:
    ether_addr addr{};
    bool hasAddress = true;
};
