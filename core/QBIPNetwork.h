#pragma once
// QBIPNetwork: an IP address together with the size of its network: for IPv4 a netmask and a
// prefix length, for IPv6 a prefix length.
//
// Invariants: the inherited address and ipVersion() hold the network's address as given (host
// bits are not cleared, so 10.0.0.1/8 contains no address, not even its own); ipVersion() is 0
// when the network is not valid, and cidrPrefix is then -1. The IPv4 mask object is always
// present (an object without an address until a mask is set). Equality and hashing are those of
// QBIPAddress: a network equals any address or network with the same address text.
// The table from dotted masks to prefix lengths is built once per process, on first use, and only
// read afterwards.
//
// Threads: a value object without a lock; set it up on one thread, then any thread may read it.
//
//   QBIPNetwork lan("192.168.1.0/24");
//   lan.networkContainsIPAddress(QBIPAddress("192.168.1.77"));  // true
//   lan.addressAndMask();                                       // "192.168.1.0/255.255.255.0"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "QBIPAddress.h"

class QBIPNetwork : public QBIPAddress {
public:
    // No address, an empty mask, prefix -1.
    QBIPNetwork();
    // From "address/mask" or "address/prefix" text (setAddressAndMask).
    explicit QBIPNetwork(std::string_view addressAndMask);
    // From an IPv4 address and a dotted or hexadecimal mask (setAddress with a mask).
    QBIPNetwork(std::string_view address, std::string_view mask);
    // From an address and a prefix length (setAddress with a prefix).
    QBIPNetwork(std::string_view address, std::int64_t prefix);
    // The address of an AF_INET or AF_INET6 socket address (else none), an empty mask, prefix -1.
    explicit QBIPNetwork(const sockaddr* address);

    // Factories for callers whose text may be missing: null when a text is nullopt, otherwise
    // the network the matching constructor makes (which may be invalid).
    static std::shared_ptr<QBIPNetwork> initWithAddressAndMask(
        std::optional<std::string_view> addressAndMask);
    static std::shared_ptr<QBIPNetwork> initWithAddress(std::optional<std::string_view> address,
                                                        std::optional<std::string_view> mask);
    static std::shared_ptr<QBIPNetwork> initWithAddress(std::string_view address,
                                                        std::int64_t prefix);
    static std::shared_ptr<QBIPNetwork> initWithSockAddr(const sockaddr* address);

    // Trims white space and line ends, splits at "/" into exactly two parts; the second part is
    // an IPv4 mask text or a whole decimal number (sign, fraction and exponent allowed, white
    // space around it ignored, truncated to an integer). Anything else: invalid.
    void setAddressAndMask(std::string_view addressAndMask);
    // Both texts valid IPv4 (the mask also in hexadecimal): IPv4 network, prefix from the mask
    // (0 for a non-contiguous mask). Otherwise invalid.
    void setAddress(std::string_view address, std::string_view mask);
    // IPv4 address: as setAddress(address, mask) with the prefix's mask; a prefix outside 0..32
    // leaves the network unchanged. IPv6 address and prefix 0..128: IPv6 network. Otherwise
    // invalid. Hides QBIPAddress::setAddress(text, ipVersion), still reachable through a base
    // reference or by qualified name.
    void setAddress(std::string_view address, std::int64_t prefix);
    // Replaces the IPv4 mask object; the prefix becomes unknown (-1).
    void setMask(const QBIPAddress& mask);
    // Sets the prefix alone; the mask is unchanged.
    void setPrefix(std::int64_t prefix);
    // Prefix from an IPv6 netmask socket address: the sum of the leading-one counts of its 16
    // bytes, or -1 when a byte is not of the form 1...10...0, the pointer is null or the family
    // is not AF_INET6.
    void setPrefixAsSockAddr(const sockaddr* mask);

    // Dotted mask with the prefix's high bits set ("0.0.0.0" for 0); nullopt outside 0..32.
    static std::optional<std::string> ipv4CIDRToMask(std::int64_t prefix);
    // Prefix of a contiguous dotted mask; 0 for any other text.
    static std::int64_t ipv4MaskToCIDR(std::string_view mask);
    // Builds the mask-to-prefix table if it is not built yet; every constructor calls it.
    static void generateIPv4CIDRDictionary();

    // "address/mask" (IPv4: dotted mask; IPv6: prefix length), or nullopt when invalid.
    // A valid network whose mask is unknown renders it as missingMaskText.
    std::optional<std::string> addressAndMask() const;
    // "address/prefix" (the mask text when the prefix is unknown), or nullopt when invalid.
    std::optional<std::string> shortAddressAndMask() const;
    // IPv4: the mask's address text (nullopt when no mask is set); IPv6: the prefix length in
    // decimal; nullopt when invalid.
    std::optional<std::string> mask() const;
    // Host-order numeric mask: IPv4 from the prefix (0..32, larger counts as 32) or, when the
    // prefix is unknown, the stored mask's bytes; IPv6: the prefix converted to unsigned (so
    // an unknown prefix gives the all-ones value); 0 when invalid.
    std::uint64_t maskAsInt() const;
    // The prefix length when valid, otherwise -1.
    std::int64_t prefix() const;
    // The stored IPv4 mask object (an object without an address when none was set).
    const QBIPAddress& ipv4Mask() const { return storedMask; }

    // Whether the address lies in the network. IPv4: inside the prefix (when 0..32) or inside
    // the stored mask. IPv6: equal to the network address in the first prefix bits. False for an
    // invalid address or network, an address of the other version, and an IPv6 network whose
    // prefix is not within 0..128.
    bool networkContainsIPAddress(const QBIPAddress& address) const;
    // The default route: IPv6 ::/0, or IPv4 0.0.0.0 with an all-zero (or absent) mask.
    bool isDefault() const;

    // The same text as addressAndMask().
    std::optional<std::string> description() const override { return addressAndMask(); }

    // How an unknown IPv4 mask appears in addressAndMask()/shortAddressAndMask().
    static constexpr std::string_view missingMaskText = "(null)";

private:
    void makeInvalid();
    bool ipv4Contains(const QBIPAddress& address) const;
    bool ipv6Contains(const QBIPAddress& address) const;
    std::string withSecondPart(std::optional<std::string> secondPart) const;

    QBIPAddress storedMask;
    std::int64_t cidrPrefix = -1;
};
