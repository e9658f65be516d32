#include "QBIPAddress.h"

#include <arpa/inet.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <cstdio>
#include <cstring>
#include <functional>

namespace {

// inet_ntop's longest text (IPv6) plus its terminator.
constexpr size_t addressTextCapacity = 46;

bool isLowercaseHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

int hexValue(char c) { return c <= '9' ? c - '0' : c - 'a' + 10; }

void* addressBytes(sockaddr_storage& storage, std::int64_t version) {
    if (version == 6) return &reinterpret_cast<sockaddr_in6&>(storage).sin6_addr;
    return &reinterpret_cast<sockaddr_in&>(storage).sin_addr;
}

const void* addressBytes(const sockaddr_storage& storage, std::int64_t version) {
    return addressBytes(const_cast<sockaddr_storage&>(storage), version);
}

int familyOf(std::int64_t version) { return version == 6 ? AF_INET6 : AF_INET; }

// Length of UTF-8 text in UTF-16 code units, the unit in which the "0x" rule counts characters.
// A malformed sequence counts as one unit (such text is never an address anyway).
std::size_t utf16Length(std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::size_t units = 0;
    for (std::int32_t i = 0; i < length;) {
        UChar32 c;
        U8_NEXT(bytes, i, length, c);
        units += c < 0 ? 1 : U16_LENGTH(c);
    }
    return units;
}

// "0x" and eight hexadecimal digits, counted in UTF-16 code units.
constexpr std::size_t hexNetmaskWithPrefixLength = 10;
// No UTF-16 code unit takes more than three UTF-8 bytes, so longer texts need not be measured.
constexpr std::size_t hexNetmaskWithPrefixMaxBytes = 3 * hexNetmaskWithPrefixLength;

}  // namespace

QBIPAddress::QBIPAddress() = default;

QBIPAddress::QBIPAddress(std::string_view text) {
    if (isValidAddress(text, 4)) {
        setAddress(text, 4);
    } else if (isValidAddress(text, 6)) {
        setAddress(text, 6);
    }
}

QBIPAddress::QBIPAddress(const sockaddr* address) {
    if (address == nullptr) return;
    if (address->sa_family == AF_INET6) {
        std::memcpy(&addr, address, sizeof(sockaddr_in6));
        version = 6;
    } else if (address->sa_family == AF_INET) {
        std::memcpy(&addr, address, sizeof(sockaddr_in));
        version = 4;
    }
}

std::shared_ptr<QBIPAddress> QBIPAddress::ipAddressWithAddress(std::string_view text) {
    return std::make_shared<QBIPAddress>(text);
}

std::shared_ptr<QBIPAddress> QBIPAddress::ipAddressWithSockAddr(const sockaddr* address) {
    return std::make_shared<QBIPAddress>(address);
}

std::shared_ptr<QBIPAddress> QBIPAddress::ipAddressWithAddressBytes(
    const std::vector<std::uint8_t>& bytes, std::int64_t ipVersion) {
    sockaddr_storage storage{};
    if (ipVersion == 6 && bytes.size() >= 16) {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
        v6.sin6_family = AF_INET6;
        std::memcpy(&v6.sin6_addr, bytes.data(), 16);
    } else if (ipVersion == 4 && bytes.size() >= 4) {
        auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
        v4.sin_family = AF_INET;
        std::memcpy(&v4.sin_addr, bytes.data(), 4);
    } else {
        return nullptr;
    }
    return std::make_shared<QBIPAddress>(reinterpret_cast<const sockaddr*>(&storage));
}

std::string QBIPAddress::hexFormatToDecimal(std::string_view text) {
    if (text.substr(0, 2) == "0x" && text.size() >= hexNetmaskWithPrefixLength &&
        text.size() <= hexNetmaskWithPrefixMaxBytes && utf16Length(text) == hexNetmaskWithPrefixLength) {
        text.remove_prefix(2);
    }
    if (text.size() != 8) return std::string(text);
    for (char c : text) {
        if (!isLowercaseHexDigit(c)) return std::string(text);
    }
    int octets[4];
    for (int i = 0; i < 4; ++i) octets[i] = hexValue(text[2 * i]) * 16 + hexValue(text[2 * i + 1]);
    char dotted[16];
    std::snprintf(dotted, sizeof dotted, "%d.%d.%d.%d", octets[0], octets[1], octets[2], octets[3]);
    return dotted;
}

bool QBIPAddress::isValidAddress(std::string_view text, std::int64_t ipVersion) {
    if (ipVersion != 4 && ipVersion != 6) return false;
    // inet_pton needs a terminated string; an embedded zero byte makes the text invalid.
    const std::string candidate = ipVersion == 4 ? hexFormatToDecimal(text) : std::string(text);
    if (candidate.find('\0') != std::string::npos) return false;
    in6_addr scratch{};
    return ::inet_pton(familyOf(ipVersion), candidate.c_str(), &scratch) == 1;
}

void QBIPAddress::setAddress(std::string_view text, std::int64_t ipVersion) {
    const std::string candidate = hexFormatToDecimal(text);
    if ((ipVersion != 4 && ipVersion != 6) || candidate.find('\0') != std::string::npos) {
        version = 0;
        return;
    }
    in6_addr parsed{};
    if (::inet_pton(familyOf(ipVersion), candidate.c_str(), &parsed) != 1) {
        version = 0;
        return;
    }
    // Only the address bytes are written; family and port keep what they held.
    std::memcpy(addressBytes(addr, ipVersion), &parsed, ipVersion == 6 ? 16 : 4);
    version = ipVersion;
}

std::optional<std::string> QBIPAddress::address() const {
    if (!isValid()) return std::nullopt;
    char text[addressTextCapacity];
    if (::inet_ntop(familyOf(version), addressBytes(addr, version), text, sizeof text) == nullptr) {
        return std::nullopt;
    }
    return std::string(text);
}

std::optional<std::string> QBIPAddress::arpaAddress() const {
    if (version == 4) {
        const auto* b = static_cast<const std::uint8_t*>(addressBytes(addr, 4));
        char name[32];
        std::snprintf(name, sizeof name, "%u.%u.%u.%u.in-addr.arpa", b[3], b[2], b[1], b[0]);
        return std::string(name);
    }
    if (version == 6) {
        static constexpr char digits[] = "0123456789abcdef";
        const auto* b = static_cast<const std::uint8_t*>(addressBytes(addr, 6));
        std::string name;
        name.reserve(32 * 2 + 8);
        for (int i = 15; i >= 0; --i) {
            name += digits[b[i] & 0x0F];
            name += '.';
            name += digits[b[i] >> 4];
            name += '.';
        }
        name += "ip6.arpa";
        return name;
    }
    return std::nullopt;
}

bool QBIPAddress::isEqual(const QBIPAddress* other) const {
    return other == this || isEqualToIPAddress(other);
}

bool QBIPAddress::isEqualToIPAddress(const QBIPAddress* other) const {
    if (other == nullptr) return false;
    const auto mine = address();
    const auto theirs = other->address();
    return mine.has_value() && theirs.has_value() && *mine == *theirs;
}

std::size_t QBIPAddress::hash() const {
    return std::hash<std::string>{}(address().value_or(std::string()));
}
