#pragma once
// QBIPAddress: one IPv4 or IPv6 address, or none (ipVersion 6, 4 or 0).
//
// Made from text (dotted decimal, IPv6 text, or an IPv4 netmask written as eight lowercase
// hexadecimal digits with or without "0x"), from a socket address or from raw address bytes.
// Address bytes are kept in network byte order inside a sockaddr_storage. Setting from text
// writes only the address bytes: the family and port fields keep what they held (zero for an
// object made without a socket address), so users of getSockAddr() read the address bytes only.
// Two objects are equal when their address texts are equal; two objects without an address are
// not equal, except that an object is always equal to itself (isEqual, operator==).
// Text containing a zero byte is not an address.
//
// Threads: a value object; not changed after set-up, so any thread may read a built object.
//
//   QBIPAddress mask("0xffffff00");   // ipVersion() 4, address() "255.255.255.0"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QBIPAddress {
public:
    QBIPAddress();                                  // no address
    explicit QBIPAddress(std::string_view text);    // IPv4 if it parses as such, else IPv6, else none
    explicit QBIPAddress(const sockaddr* address);  // AF_INET / AF_INET6 copied; else none
    virtual ~QBIPAddress() = default;
    QBIPAddress(const QBIPAddress&) = default;
    QBIPAddress& operator=(const QBIPAddress&) = default;

    static std::shared_ptr<QBIPAddress> ipAddressWithAddress(std::string_view text);
    static std::shared_ptr<QBIPAddress> ipAddressWithSockAddr(const sockaddr* address);
    // Null unless (ipVersion 6 and >= 16 bytes) or (ipVersion 4 and >= 4 bytes).
    static std::shared_ptr<QBIPAddress> ipAddressWithAddressBytes(
        const std::vector<std::uint8_t>& bytes, std::int64_t ipVersion);

    // Parses text (after hexFormatToDecimal) as the given version; ipVersion becomes that version,
    // or 0 when the text does not parse or the version is neither 4 nor 6.
    void setAddress(std::string_view text, std::int64_t ipVersion);

    // Address text (inet_ntop), or nullopt when there is no address.
    std::optional<std::string> address() const;
    // in-addr.arpa / ip6.arpa name, or nullopt when there is no address.
    std::optional<std::string> arpaAddress() const;
    std::int64_t ipVersion() const { return version; }
    bool isValid() const { return version == 4 || version == 6; }
    // The stored socket address (only its address bytes are meaningful for text-made objects).
    const sockaddr_storage* getSockAddr() const { return &addr; }

    // Whether text parses as an address of the given version (4 accepts the hex netmask form).
    static bool isValidAddress(std::string_view text, std::int64_t ipVersion);
    // "ffffff00" or "0xffffff00" -> "255.255.255.0" (any eight lowercase hexadecimal digits are
    // converted); other text comes back unchanged, except that a leading "0x" is dropped when
    // the text is 10 UTF-16 code units long.
    static std::string hexFormatToDecimal(std::string_view text);

    // Whether both have an address and their texts are equal; false for a null other.
    bool isEqualToIPAddress(const QBIPAddress* other) const;
    // True for the object itself, otherwise isEqualToIPAddress (a network compares by address).
    bool isEqual(const QBIPAddress* other) const;
    bool operator==(const QBIPAddress& other) const { return isEqual(&other); }
    // Hash of the address text (of the empty text when there is none): equal objects hash alike.
    std::size_t hash() const;
    // The address text (a network gives its address/mask text), or nullopt when invalid.
    virtual std::optional<std::string> description() const { return address(); }

protected:
    sockaddr_storage addr{};
    std::int64_t version = 0;
};
