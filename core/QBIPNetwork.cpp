#include "QBIPNetwork.h"

#include <arpa/inet.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "platform/QBText.h"

namespace {

constexpr std::int64_t unknownPrefix = -1;
constexpr std::int64_t ipv4MaxPrefix = 32;
constexpr std::int64_t ipv6MaxPrefix = 128;
constexpr std::size_t ipv6AddressBytes = 16;

using MaskTable = std::unordered_map<std::string, std::int64_t>;

// Dotted mask text -> prefix length for the 33 contiguous masks. A function-local static is
// initialised exactly once even when several threads arrive together, and never changes after.
const MaskTable& maskTable() {
    static const MaskTable table = [] {
        MaskTable built;
        for (std::int64_t prefix = 0; prefix <= ipv4MaxPrefix; ++prefix) {
            built.emplace(*QBIPNetwork::ipv4CIDRToMask(prefix), prefix);
        }
        return built;
    }();
    return table;
}

// Host-order value with the prefix's high bits set; prefix clamped to 0..32.
std::uint32_t prefixMaskValue(std::int64_t prefix) {
    if (prefix <= 0) return 0;
    if (prefix >= ipv4MaxPrefix) return 0xFFFFFFFFu;
    return ~std::uint32_t{0} << (ipv4MaxPrefix - prefix);
}

const in_addr& ipv4Bytes(const QBIPAddress& address) {
    return reinterpret_cast<const sockaddr_in*>(address.getSockAddr())->sin_addr;
}

const in6_addr& ipv6Bytes(const QBIPAddress& address) {
    return reinterpret_cast<const sockaddr_in6*>(address.getSockAddr())->sin6_addr;
}

// Leading-one count of a netmask byte, or -1 for a byte that is not of the form 1...10...0.
int maskByteBits(std::uint8_t byte) {
    for (int bits = 0; bits <= 8; ++bits) {
        if (byte == static_cast<std::uint8_t>(0xFF00u >> bits)) return bits;
    }
    return -1;
}

// Text without white space and line ends (Unicode classes) at either end.
std::string_view trimmed(std::string_view text) {
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        return text;  // beyond what the decoder indexes; such text is never a network anyway
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    std::int32_t begin = 0;
    auto end = static_cast<std::int32_t>(text.size());
    while (begin < end) {
        std::int32_t next = begin;
        UChar32 c;
        U8_NEXT(bytes, next, end, c);
        if (c < 0 || !QBText::isWhitespaceOrNewline(static_cast<char32_t>(c))) break;
        begin = next;
    }
    while (end > begin) {
        std::int32_t previous = end;
        UChar32 c;
        U8_PREV(bytes, begin, previous, c);
        if (c < 0 || !QBText::isWhitespaceOrNewline(static_cast<char32_t>(c))) break;
        end = previous;
    }
    return text.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin));
}

// Digits at text[at...], advancing at past them.
std::string_view digitRun(std::string_view text, std::size_t& at) {
    const std::size_t start = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    return text.substr(start, at - start);
}

// Exponents beyond this only push the value further past the 64-bit range or down to zero.
constexpr std::int64_t exponentLimit = 1000;

// The integer value of a decimal number text: an optional sign, digits with an optional fraction
// (at least one digit in all), an optional exponent, white space around it ignored. Truncated
// toward zero and limited to the 64-bit range; nullopt when the text is anything else.
// Computed on the digits themselves, so no rounding can carry 24.999... up to 25.
std::optional<std::int64_t> numberValue(std::string_view text) {
    text = trimmed(text);
    std::size_t at = 0;
    bool negative = false;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) negative = text[at++] == '-';
    const std::string_view whole = digitRun(text, at);
    std::string_view fraction;
    if (at < text.size() && text[at] == '.') fraction = digitRun(text, ++at);
    if (whole.empty() && fraction.empty()) return std::nullopt;
    std::int64_t exponent = 0;
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
        ++at;
        bool negativeExponent = false;
        if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
            negativeExponent = text[at++] == '-';
        }
        const std::string_view exponentDigits = digitRun(text, at);
        if (exponentDigits.empty()) return std::nullopt;
        for (char digit : exponentDigits) {
            exponent = std::min(exponent * 10 + (digit - '0'), exponentLimit);
        }
        if (negativeExponent) exponent = -exponent;
    }
    if (at != text.size()) return std::nullopt;

    // The digits before the decimal point once the exponent has moved it; zeros past the end.
    auto digitAt = [&](std::size_t index) -> std::uint64_t {
        if (index < whole.size()) return static_cast<std::uint64_t>(whole[index] - '0');
        index -= whole.size();
        return index < fraction.size() ? static_cast<std::uint64_t>(fraction[index] - '0') : 0;
    };
    const auto integerDigits = static_cast<std::int64_t>(whole.size()) + exponent;
    constexpr std::uint64_t magnitudeLimit = std::uint64_t{1} << 63;  // |INT64_MIN|
    std::uint64_t magnitude = 0;
    for (std::int64_t k = 0; k < integerDigits; ++k) {
        const std::uint64_t digit = digitAt(static_cast<std::size_t>(k));
        if (magnitude > (magnitudeLimit - digit) / 10) {
            magnitude = magnitudeLimit;  // saturated
            break;
        }
        magnitude = magnitude * 10 + digit;
    }
    if (negative) {
        return magnitude >= magnitudeLimit ? std::numeric_limits<std::int64_t>::min()
                                           : -static_cast<std::int64_t>(magnitude);
    }
    return magnitude >= magnitudeLimit ? std::numeric_limits<std::int64_t>::max()
                                       : static_cast<std::int64_t>(magnitude);
}

}  // namespace

QBIPNetwork::QBIPNetwork() { generateIPv4CIDRDictionary(); }

QBIPNetwork::QBIPNetwork(std::string_view addressAndMask) : QBIPNetwork() {
    setAddressAndMask(addressAndMask);
}

QBIPNetwork::QBIPNetwork(std::string_view address, std::string_view mask) : QBIPNetwork() {
    setAddress(address, mask);
}

QBIPNetwork::QBIPNetwork(std::string_view address, std::int64_t prefix) : QBIPNetwork() {
    setAddress(address, prefix);
}

QBIPNetwork::QBIPNetwork(const sockaddr* address) : QBIPAddress(address) {
    generateIPv4CIDRDictionary();
}

std::shared_ptr<QBIPNetwork> QBIPNetwork::initWithAddressAndMask(
    std::optional<std::string_view> addressAndMask) {
    if (!addressAndMask) return nullptr;
    return std::make_shared<QBIPNetwork>(*addressAndMask);
}

std::shared_ptr<QBIPNetwork> QBIPNetwork::initWithAddress(std::optional<std::string_view> address,
                                                          std::optional<std::string_view> mask) {
    if (!address || !mask) return nullptr;
    return std::make_shared<QBIPNetwork>(*address, *mask);
}

std::shared_ptr<QBIPNetwork> QBIPNetwork::initWithAddress(std::string_view address,
                                                          std::int64_t prefix) {
    return std::make_shared<QBIPNetwork>(address, prefix);
}

std::shared_ptr<QBIPNetwork> QBIPNetwork::initWithSockAddr(const sockaddr* address) {
    return std::make_shared<QBIPNetwork>(address);
}

void QBIPNetwork::makeInvalid() {
    version = 0;
    cidrPrefix = unknownPrefix;
}

void QBIPNetwork::setAddressAndMask(std::string_view addressAndMask) {
    const std::string_view text = trimmed(addressAndMask);
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos || text.find('/', slash + 1) != std::string_view::npos) {
        makeInvalid();  // not exactly two parts
        return;
    }
    const std::string_view address = text.substr(0, slash);
    const std::string_view second = text.substr(slash + 1);
    if (isValidAddress(second, 4)) {
        setAddress(address, second);
        return;
    }
    const auto prefixValue = numberValue(second);
    if (!prefixValue) {
        makeInvalid();
        return;
    }
    setAddress(address, *prefixValue);
}

void QBIPNetwork::setAddress(std::string_view address, std::string_view mask) {
    if (!isValidAddress(address, 4) || !isValidAddress(mask, 4)) {
        makeInvalid();
        return;
    }
    QBIPAddress::setAddress(address, 4);
    storedMask.setAddress(mask, 4);
    cidrPrefix = ipv4MaskToCIDR(storedMask.address().value_or(std::string()));
}

void QBIPNetwork::setAddress(std::string_view address, std::int64_t prefix) {
    if (isValidAddress(address, 4)) {
        // An out-of-range prefix leaves an IPv4 network as it was.
        if (const auto mask = ipv4CIDRToMask(prefix)) setAddress(address, std::string_view(*mask));
        return;
    }
    if (isValidAddress(address, 6) && prefix >= 0 && prefix <= ipv6MaxPrefix) {
        QBIPAddress::setAddress(address, 6);
        cidrPrefix = prefix;
        return;
    }
    makeInvalid();
}

void QBIPNetwork::setMask(const QBIPAddress& mask) {
    storedMask = mask;
    cidrPrefix = unknownPrefix;
}

void QBIPNetwork::setPrefix(std::int64_t prefix) { cidrPrefix = prefix; }

void QBIPNetwork::setPrefixAsSockAddr(const sockaddr* mask) {
    // Without a length field in Linux socket addresses, the family is what tells that the
    // structure is large enough to hold 16 address bytes.
    if (mask == nullptr || mask->sa_family != AF_INET6) {
        cidrPrefix = unknownPrefix;
        return;
    }
    const auto* bytes = reinterpret_cast<const sockaddr_in6*>(mask)->sin6_addr.s6_addr;
    std::int64_t bits = 0;
    // Every byte counts, also after a partial one, so 255.0.255... style masks add up.
    for (std::size_t i = 0; i < ipv6AddressBytes; ++i) {
        const int byteBits = maskByteBits(bytes[i]);
        if (byteBits < 0) {
            bits = unknownPrefix;
            break;
        }
        bits += byteBits;
    }
    cidrPrefix = bits;
}

std::optional<std::string> QBIPNetwork::ipv4CIDRToMask(std::int64_t prefix) {
    if (prefix < 0 || prefix > ipv4MaxPrefix) return std::nullopt;
    const std::uint32_t value = prefixMaskValue(prefix);
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        if (!text.empty()) text += '.';
        text += std::to_string((value >> shift) & 0xFFu);
    }
    return text;
}

std::int64_t QBIPNetwork::ipv4MaskToCIDR(std::string_view mask) {
    const MaskTable& table = maskTable();
    const auto found = table.find(std::string(mask));
    return found == table.end() ? 0 : found->second;
}

void QBIPNetwork::generateIPv4CIDRDictionary() { maskTable(); }

std::string QBIPNetwork::withSecondPart(std::optional<std::string> secondPart) const {
    std::string text = address().value_or(std::string());
    text += '/';
    text += secondPart ? *secondPart : std::string(missingMaskText);
    return text;
}

std::optional<std::string> QBIPNetwork::addressAndMask() const {
    if (version == 4) {
        return withSecondPart(cidrPrefix >= 0 ? ipv4CIDRToMask(cidrPrefix) : mask());
    }
    if (version == 6) return withSecondPart(mask());
    return std::nullopt;
}

std::optional<std::string> QBIPNetwork::shortAddressAndMask() const {
    if (!isValid()) return std::nullopt;
    return withSecondPart(cidrPrefix >= 0 ? std::to_string(cidrPrefix) : mask());
}

std::optional<std::string> QBIPNetwork::mask() const {
    if (version == 4) return storedMask.address();
    if (version == 6) return std::to_string(cidrPrefix);
    return std::nullopt;
}

std::uint64_t QBIPNetwork::maskAsInt() const {
    if (version == 6) return static_cast<std::uint64_t>(cidrPrefix);
    if (version != 4) return 0;
    if (cidrPrefix >= 0) return prefixMaskValue(cidrPrefix);
    return ntohl(ipv4Bytes(storedMask).s_addr);
}

std::int64_t QBIPNetwork::prefix() const { return isValid() ? cidrPrefix : unknownPrefix; }

bool QBIPNetwork::networkContainsIPAddress(const QBIPAddress& address) const {
    if (!isValid() || address.ipVersion() != version) return false;
    return version == 4 ? ipv4Contains(address) : ipv6Contains(address);
}

bool QBIPNetwork::ipv4Contains(const QBIPAddress& address) const {
    const std::uint32_t candidate = ipv4Bytes(address).s_addr;  // network byte order
    const std::uint32_t network = ipv4Bytes(*this).s_addr;
    if (cidrPrefix >= 0 && cidrPrefix <= ipv4MaxPrefix &&
        (candidate & htonl(prefixMaskValue(cidrPrefix))) == network) {
        return true;
    }
    // The stored mask decides when the prefix does not: a non-contiguous mask has prefix 0.
    return (candidate & ipv4Bytes(storedMask).s_addr) == network;
}

bool QBIPNetwork::ipv6Contains(const QBIPAddress& address) const {
    if (cidrPrefix < 0 || cidrPrefix > ipv6MaxPrefix) return false;
    std::array<std::uint8_t, ipv6AddressBytes> masked{};
    std::memcpy(masked.data(), ipv6Bytes(address).s6_addr, ipv6AddressBytes);
    const auto wholeBytes = static_cast<std::size_t>(cidrPrefix / 8);
    const auto partialBits = static_cast<unsigned>(cidrPrefix % 8);
    for (std::size_t i = wholeBytes; i < ipv6AddressBytes; ++i) {
        const bool isPartialByte = i == wholeBytes && partialBits != 0;
        masked[i] &= isPartialByte ? static_cast<std::uint8_t>(0xFF00u >> partialBits) : 0;
    }
    return std::memcmp(masked.data(), ipv6Bytes(*this).s6_addr, ipv6AddressBytes) == 0;
}

bool QBIPNetwork::isDefault() const {
    if (version == 6) {
        static constexpr in6_addr any = IN6ADDR_ANY_INIT;
        return cidrPrefix == 0 &&
               std::memcmp(ipv6Bytes(*this).s6_addr, any.s6_addr, ipv6AddressBytes) == 0;
    }
    if (version == 4) {
        // A mask never set has all-zero bytes, so it counts as the all-zero mask.
        return ipv4Bytes(*this).s_addr == 0 && ipv4Bytes(storedMask).s_addr == 0;
    }
    return false;
}
