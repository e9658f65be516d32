#include "QBHost.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <limits>

#include "QBRandom.h"
#include "platform/QBText.h"

namespace {

// ---- Punycode (RFC 3492), on code points with unsigned 32-bit arithmetic ----

constexpr std::uint32_t punycodeBase = 36;
constexpr std::uint32_t punycodeTMin = 1;
constexpr std::uint32_t punycodeTMax = 26;
constexpr std::uint32_t punycodeSkew = 38;
constexpr std::uint32_t punycodeDamp = 700;
constexpr std::uint32_t punycodeInitialBias = 72;
constexpr std::uint32_t punycodeInitialN = 128;
constexpr char punycodeDelimiter = '-';
// The RFC's arithmetic is 32-bit; its overflow checks compare against this.
constexpr std::uint32_t punycodeMaxInt = std::numeric_limits<std::uint32_t>::max();
// Code point counts take part in that arithmetic, so longer inputs could not be handled
// exactly; such inputs (4 Gi characters) are refused.
constexpr std::size_t punycodeMaxInputLength = punycodeMaxInt - 1;

constexpr char32_t maxCodePoint = 0x10FFFF;
constexpr char32_t firstSurrogate = 0xD800;
constexpr char32_t lastSurrogate = 0xDFFF;

constexpr std::u16string_view idnaPrefix = u"xn--";

std::uint32_t punycodeThreshold(std::uint32_t k, std::uint32_t bias) {
    if (k <= bias) return punycodeTMin;
    if (k >= bias + punycodeTMax) return punycodeTMax;
    return k - bias;
}

std::uint32_t punycodeAdapt(std::uint32_t delta, std::uint32_t numPoints, bool firstTime) {
    delta = firstTime ? delta / punycodeDamp : delta / 2;
    delta += delta / numPoints;
    std::uint32_t k = 0;
    while (delta > ((punycodeBase - punycodeTMin) * punycodeTMax) / 2) {
        delta /= punycodeBase - punycodeTMin;
        k += punycodeBase;
    }
    return k + (punycodeBase - punycodeTMin + 1) * delta / (delta + punycodeSkew);
}

// 0..25 as "a".."z", 26..35 as "0".."9": lower case only, no case annotation.
char punycodeEncodeDigit(std::uint32_t digit) {
    return static_cast<char>(digit < 26 ? 'a' + digit : '0' + (digit - 26));
}

// The digit value of c, or punycodeBase when c is not a digit; letters in either case.
std::uint32_t punycodeDecodeDigit(char c) {
    if (c >= '0' && c <= '9') return static_cast<std::uint32_t>(c - '0') + 26;
    if (c >= 'A' && c <= 'Z') return static_cast<std::uint32_t>(c - 'A');
    if (c >= 'a' && c <= 'z') return static_cast<std::uint32_t>(c - 'a');
    return punycodeBase;
}

// Counts of marked positions 0..size-1 (a Fenwick tree): marking, counting the marks before a
// position, and finding the k-th unmarked position, each in O(log size). It keeps Punycode's
// position arithmetic linear-logarithmic, where walking or shifting the whole label for every
// code point would be quadratic (a long crafted label took seconds).
class PositionCounts {
  public:
    explicit PositionCounts(std::size_t size) : tree(size + 1, 0) {
        while (topBit * 2 <= size) topBit *= 2;
    }
    void mark(std::size_t position) {
        for (std::size_t at = position + 1; at < tree.size(); at += at & (~at + 1)) ++tree[at];
    }
    // Marked positions below position.
    std::uint32_t marksBefore(std::size_t position) const {
        std::uint32_t count = 0;
        for (std::size_t at = position; at > 0; at -= at & (~at + 1)) count += tree[at];
        return count;
    }
    // The unmarked position that has k unmarked positions before it (k < unmarked count).
    std::size_t unmarkedAt(std::size_t k) const {
        std::size_t at = 0;
        for (std::size_t step = topBit; step > 0; step /= 2) {
            const std::size_t next = at + step;
            if (next < tree.size() && step - tree[next] <= k) {
                at = next;
                k -= step - tree[next];
            }
        }
        return at;
    }

  private:
    std::vector<std::uint32_t> tree;
    std::size_t topBit = 1;
};

// RFC 3492 section 6.3; nullopt on the RFC's overflow conditions. The RFC walks the whole input
// once per distinct code point; here the code points are taken in increasing order (positions
// ascending among equals) and the code points below the current one that the walk would count
// come from PositionCounts, which gives the same deltas in O(n log n).
std::optional<std::string> punycodeEncode(std::u32string_view input) {
    if (input.size() > punycodeMaxInputLength) return std::nullopt;
    std::string output;
    std::vector<std::size_t> pending;  // positions of non-basic code points, to be sorted
    for (std::size_t position = 0; position < input.size(); ++position) {
        if (input[position] < 0x80) {
            output.push_back(static_cast<char>(input[position]));
        } else {
            pending.push_back(position);
        }
    }
    const auto basicCount = static_cast<std::uint32_t>(output.size());
    if (basicCount > 0) output.push_back(punycodeDelimiter);
    std::sort(pending.begin(), pending.end(), [input](std::size_t a, std::size_t b) {
        return input[a] != input[b] ? input[a] < input[b] : a < b;
    });

    PositionCounts smaller(input.size());  // marks the code points below n
    for (std::size_t position = 0; position < input.size(); ++position) {
        if (input[position] < 0x80) smaller.mark(position);
    }
    std::uint32_t n = punycodeInitialN;
    std::uint32_t delta = 0;
    std::uint32_t bias = punycodeInitialBias;
    std::uint32_t handled = basicCount;
    for (std::size_t first = 0; first < pending.size();) {
        const std::uint32_t m = input[pending[first]];
        std::size_t last = first;
        while (last < pending.size() && input[pending[last]] == m) ++last;
        if (m - n > (punycodeMaxInt - delta) / (handled + 1)) return std::nullopt;
        delta += (m - n) * (handled + 1);
        n = m;
        // handled code points are below n; the walk counts each of them once.
        const std::uint32_t below = handled;
        std::uint32_t counted = 0;
        for (std::size_t j = first; j < last; ++j) {
            const std::uint32_t before = smaller.marksBefore(pending[j]);
            // The RFC steps delta one by one and fails when it wraps to zero.
            if (std::uint64_t{delta} + (before - counted) > punycodeMaxInt) return std::nullopt;
            delta += before - counted;
            counted = before;
            std::uint32_t q = delta;
            for (std::uint32_t k = punycodeBase;; k += punycodeBase) {
                const std::uint32_t t = punycodeThreshold(k, bias);
                if (q < t) break;
                output.push_back(punycodeEncodeDigit(t + (q - t) % (punycodeBase - t)));
                q = (q - t) / (punycodeBase - t);
            }
            output.push_back(punycodeEncodeDigit(q));
            bias = punycodeAdapt(delta, handled + 1, handled == basicCount);
            delta = 0;
            ++handled;
        }
        if (std::uint64_t{delta} + (below - counted) > punycodeMaxInt) return std::nullopt;
        delta += below - counted;
        for (std::size_t j = first; j < last; ++j) smaller.mark(pending[j]);
        ++delta;
        ++n;
        first = last;
    }
    return output;
}

// Up to this many code points (every real label; DNS allows 63 octets) the decoder inserts them
// one by one: shifting so few costs less than the tree's allocations.
constexpr std::size_t directInsertionLimit = 256;

// One decoded code point and the position it was inserted at, among the code points so far.
struct Insertion {
    std::uint32_t position;
    char32_t codePoint;
};

// The label that inserting each code point at its position, in order, into basic gives. Taken
// in reverse, an insertion lands on the free slot of the finished label with position free
// slots before it; the basic code points fill the slots left, in order.
std::u32string placeInsertions(std::u32string basic, const std::vector<Insertion>& insertions) {
    if (basic.size() + insertions.size() <= directInsertionLimit) {
        for (const auto& insertion : insertions) {
            basic.insert(basic.begin() + insertion.position, insertion.codePoint);
        }
        return basic;
    }
    std::u32string label(basic.size() + insertions.size(), U'\0');
    std::vector<bool> filled(label.size(), false);
    PositionCounts taken(label.size());
    for (auto insertion = insertions.rbegin(); insertion != insertions.rend(); ++insertion) {
        const std::size_t slot = taken.unmarkedAt(insertion->position);
        label[slot] = insertion->codePoint;
        filled[slot] = true;
        taken.mark(slot);
    }
    for (std::size_t slot = 0, next = 0; slot < label.size(); ++slot) {
        if (!filled[slot]) label[slot] = basic[next++];
    }
    return label;
}

// RFC 3492 section 6.2; nullopt for bad input, overflow, or a value that is no Unicode scalar
// value (above U+10FFFF or a surrogate). A value that is once inserted stays in the output, so
// rejecting it at once gives the same answer as checking the finished output.
std::optional<std::u32string> punycodeDecode(std::string_view input) {
    if (input.size() > punycodeMaxInputLength) return std::nullopt;
    const std::size_t lastDelimiter = input.rfind(punycodeDelimiter);
    const std::size_t basicCount = lastDelimiter == std::string_view::npos ? 0 : lastDelimiter;
    std::u32string output;
    for (std::size_t j = 0; j < basicCount; ++j) {
        const auto c = static_cast<unsigned char>(input[j]);
        if (c >= 0x80) return std::nullopt;
        output.push_back(c);
    }

    std::vector<Insertion> insertions;
    std::uint32_t n = punycodeInitialN;
    std::uint32_t i = 0;
    std::uint32_t bias = punycodeInitialBias;
    for (std::size_t in = basicCount > 0 ? basicCount + 1 : 0; in < input.size();) {
        const std::uint32_t oldi = i;
        std::uint32_t w = 1;
        for (std::uint32_t k = punycodeBase;; k += punycodeBase) {
            if (in >= input.size()) return std::nullopt;  // ends in the middle of a number
            const std::uint32_t digit = punycodeDecodeDigit(input[in++]);
            if (digit >= punycodeBase) return std::nullopt;
            if (digit > (punycodeMaxInt - i) / w) return std::nullopt;
            i += digit * w;
            const std::uint32_t t = punycodeThreshold(k, bias);
            if (digit < t) break;
            if (w > punycodeMaxInt / (punycodeBase - t)) return std::nullopt;
            w *= punycodeBase - t;
        }
        const auto count = static_cast<std::uint32_t>(output.size() + insertions.size() + 1);
        bias = punycodeAdapt(i - oldi, count, oldi == 0);
        if (i / count > punycodeMaxInt - n) return std::nullopt;
        n += i / count;
        i %= count;
        if (n > maxCodePoint || (n >= firstSurrogate && n <= lastSurrogate)) return std::nullopt;
        insertions.push_back({i, static_cast<char32_t>(n)});
        ++i;
    }
    return placeInsertions(std::move(output), insertions);
}

// ---- Text conversions ----

void appendUTF8(std::string& out, std::u32string_view codePoints) {
    for (char32_t c : codePoints) {
        char bytes[U8_MAX_LENGTH];
        std::int32_t length = 0;
        U8_APPEND_UNSAFE(bytes, length, static_cast<UChar32>(c));
        out.append(bytes, static_cast<std::size_t>(length));
    }
}

void appendUTF8(std::string& out, std::u16string_view units) {
    icu::UnicodeString(false, units.data(), static_cast<std::int32_t>(units.size()))
        .toUTF8String(out);
}

// The UTF-16 form of name; ill-formed UTF-8 sequences become U+FFFD.
icu::UnicodeString unicodeFromUTF8(std::string_view name) {
    if (name.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) return {};
    return icu::UnicodeString::fromUTF8(
        icu::StringPiece(name.data(), static_cast<std::int32_t>(name.size())));
}

std::u16string_view unitsOf(const icu::UnicodeString& text) {
    return {text.getBuffer(), static_cast<std::size_t>(text.length())};
}

icu::UnicodeString normalizedNFKC(const icu::UnicodeString& text) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfkc = icu::Normalizer2::getNFKCInstance(status);
    if (U_FAILURE(status)) return text;
    icu::UnicodeString normalized = nfkc->normalize(text, status);
    return U_FAILURE(status) ? text : normalized;
}

std::u32string codePointsOf(std::u16string_view units) {
    std::u32string codePoints;
    codePoints.reserve(units.size());
    for (std::size_t i = 0; i < units.size();) {
        UChar32 c;
        U16_NEXT(units.data(), i, units.size(), c);
        codePoints.push_back(static_cast<char32_t>(c));
    }
    return codePoints;
}

// ---- IDNA label walk ----

bool isLabelSeparator(char16_t unit) {
    return unit == u'.' || unit == u'@';
}

bool isPlainASCII(std::u16string_view label) {
    return std::all_of(label.begin(), label.end(),
                       [](char16_t u) { return u >= 0x01 && u <= 0x7F; });
}

bool hasIDNAPrefix(std::u16string_view label) {
    if (label.size() < idnaPrefix.size()) return false;
    for (std::size_t i = 0; i < idnaPrefix.size(); ++i) {
        char16_t unit = label[i];
        if (unit >= u'A' && unit <= u'Z') unit = static_cast<char16_t>(unit - u'A' + u'a');
        if (unit != idnaPrefix[i]) return false;
    }
    return true;
}

// Walks name as alternating labels and runs of separators. Blanks and line breaks where a
// label or a separator run begins (at the start, or right after a separator run) are dropped;
// blanks inside a label or before the following separator belong to the label.
template <typename OnLabel, typename OnSeparators>
void walkLabels(std::u16string_view name, OnLabel onLabel, OnSeparators onSeparators) {
    std::size_t position = 0;
    while (position < name.size()) {
        while (position < name.size() && QBText::isWhitespaceOrNewline(name[position])) ++position;
        std::size_t labelEnd = position;
        while (labelEnd < name.size() && !isLabelSeparator(name[labelEnd])) ++labelEnd;
        if (labelEnd > position) onLabel(name.substr(position, labelEnd - position));
        std::size_t runEnd = labelEnd;
        while (runEnd < name.size() && isLabelSeparator(name[runEnd])) ++runEnd;
        if (runEnd > labelEnd) onSeparators(name.substr(labelEnd, runEnd - labelEnd));
        position = runEnd;
    }
}

// Units that are all below 128 as bytes; nullopt when any is not.
std::optional<std::string> asciiBytes(std::u16string_view units) {
    std::string bytes;
    bytes.reserve(units.size());
    for (char16_t unit : units) {
        if (unit >= 0x80) return std::nullopt;
        bytes.push_back(static_cast<char>(unit));
    }
    return bytes;
}

int familyForIPVersion(std::int64_t ipVersion) {
    if (ipVersion == 4) return AF_INET;
    if (ipVersion == 6) return AF_INET6;
    return AF_UNSPEC;
}

// inet_ntop's longest text (IPv6) plus its terminator.
constexpr socklen_t addressTextCapacity = 46;

std::optional<std::string> addressText(const addrinfo& entry) {
    const void* bytes = nullptr;
    if (entry.ai_family == AF_INET && entry.ai_addr != nullptr) {
        bytes = &reinterpret_cast<const sockaddr_in*>(entry.ai_addr)->sin_addr;
    } else if (entry.ai_family == AF_INET6 && entry.ai_addr != nullptr) {
        bytes = &reinterpret_cast<const sockaddr_in6*>(entry.ai_addr)->sin6_addr;
    } else {
        return std::nullopt;
    }
    char text[addressTextCapacity];
    if (inet_ntop(entry.ai_family, bytes, text, addressTextCapacity) == nullptr)
        return std::nullopt;
    return std::string(text);
}

bool containsEqual(const QBHost::AddressList& list, const QBIPAddress& address) {
    return std::any_of(list.begin(), list.end(),
                       [&](const auto& item) { return *item == address; });
}

std::optional<QBHost::AddressList> nonEmpty(std::optional<QBHost::AddressList> list) {
    if (list && list->empty()) return std::nullopt;
    return list;
}

}  // namespace

// ---- Host ----

QBHost::QBHost(std::string_view name, Resolver resolver)
    : resolver(resolver ? std::move(resolver) : Resolver(&QBHost::dnsLookup)) {
    const auto literal = QBIPAddress::ipAddressWithAddress(name);
    if (literal && literal->isValid()) {
        domainName = std::string(name);
        (literal->ipVersion() == 6 ? ipv6Addresses : ipv4Addresses) = AddressList{literal};
    } else {
        domainName = IDNAEncodeName(name);
    }
}

std::shared_ptr<QBHost> QBHost::hostWithName(std::string_view name) {
    return std::make_shared<QBHost>(name);
}

std::shared_ptr<QBIPAddress> QBHost::address() const {
    if (ipv4Addresses) return ipv4Addresses->front();
    if (ipv6Addresses) return ipv6Addresses->front();
    return nullptr;
}

std::shared_ptr<QBIPAddress> QBHost::randomAddress() const {
    const auto& list = ipv4Addresses ? ipv4Addresses : ipv6Addresses;
    if (!list) return nullptr;
    return QBRandom::randomObjectInArray(*list).value_or(nullptr);
}

void QBHost::storeIfFound(std::optional<AddressList>& list, std::int64_t ipVersion) {
    list = nonEmpty(resolver(domainName, ipVersion));
}

std::optional<QBHost::AddressList> QBHost::addressesIPv4() {
    if (!ipv4Addresses) storeIfFound(ipv4Addresses, 4);
    return ipv4Addresses;
}

std::optional<QBHost::AddressList> QBHost::addressesIPv6() {
    if (!ipv6Addresses) storeIfFound(ipv6Addresses, 6);
    return ipv6Addresses;
}

std::optional<QBHost::AddressList> QBHost::addresses() {
    if (!ipv4Addresses && !ipv6Addresses) {
        // One lookup for both families, split by version in resolver order.
        AddressList four;
        AddressList six;
        if (const auto all = resolver(domainName, 0)) {
            for (const auto& item : *all) {
                if (item && item->ipVersion() == 4) four.push_back(item);
                if (item && item->ipVersion() == 6) six.push_back(item);
            }
        }
        ipv4Addresses = nonEmpty(std::move(four));
        ipv6Addresses = nonEmpty(std::move(six));
    } else if (!ipv4Addresses) {
        storeIfFound(ipv4Addresses, 4);
    } else if (!ipv6Addresses) {
        storeIfFound(ipv6Addresses, 6);
    }
    if (!ipv4Addresses) return ipv6Addresses;
    if (!ipv6Addresses) return ipv4Addresses;
    AddressList all = *ipv4Addresses;
    all.insert(all.end(), ipv6Addresses->begin(), ipv6Addresses->end());
    return all;
}

std::optional<QBHost::AddressList> QBHost::dnsLookup(const std::string& name,
                                                     std::int64_t ipVersion) {
    // The resolver takes a C string; a name with a NUL inside would be looked up cut short.
    if (name.find('\0') != std::string::npos) return std::nullopt;
    addrinfo hints{};
    hints.ai_family = familyForIPVersion(ipVersion);
    addrinfo* entries = nullptr;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &entries) != 0) return std::nullopt;
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(entries, &freeaddrinfo);

    // One entry per socket type is usual, so the same address comes several times.
    AddressList found;
    for (const addrinfo* entry = entries; entry != nullptr; entry = entry->ai_next) {
        const auto text = addressText(*entry);
        if (!text) continue;
        auto address = QBIPAddress::ipAddressWithAddress(*text);
        if (!address->isValid() || containsEqual(found, *address)) continue;
        found.push_back(std::move(address));
    }
    return nonEmpty(std::move(found));
}

// ---- IDNA and Punycode ----

std::string QBHost::IDNAEncodeName(std::string_view name) {
    return IDNAEncodedString(name);
}

std::string QBHost::IDNADecodeName(std::string_view name) {
    return IDNADecodedString(name);
}

std::string QBHost::IDNAEncodedString(std::string_view name) {
    // NFKC first; among other things it turns fullwidth and ideographic full stops into ".".
    const icu::UnicodeString normalized = normalizedNFKC(unicodeFromUTF8(name));
    std::string out;
    walkLabels(
        unitsOf(normalized),
        [&out](std::u16string_view label) {
            if (isPlainASCII(label)) {
                appendUTF8(out, label);
                return;
            }
            // Overflow needs a label thousands of code points long. Such a label has no
            // encoding, so it is left out and its separators stay, as the decoder does with a
            // label that does not decode.
            if (const auto encoded = punycodeEncode(codePointsOf(label))) {
                out += "xn--";
                out += *encoded;
            }
        },
        [&out](std::u16string_view separators) { appendUTF8(out, separators); });
    return out;
}

std::string QBHost::IDNADecodedString(std::string_view name) {
    const icu::UnicodeString text = unicodeFromUTF8(name);
    std::string out;
    walkLabels(
        unitsOf(text),
        [&out](std::u16string_view label) {
            if (!hasIDNAPrefix(label)) {
                appendUTF8(out, label);
                return;
            }
            const auto digits = asciiBytes(label.substr(idnaPrefix.size()));
            const auto decoded = digits ? punycodeDecode(*digits) : std::nullopt;
            if (decoded) appendUTF8(out, *decoded);  // a label that does not decode is left out
        },
        [&out](std::u16string_view separators) { appendUTF8(out, separators); });
    return out;
}

std::optional<std::string> QBHost::punycodeEncodedString(std::string_view label) {
    const auto codePoints = longCharactersWithCount(label);
    if (!codePoints || codePoints->empty()) return std::string();
    return punycodeEncode(*codePoints);
}

std::optional<std::string> QBHost::punycodeDecodedString(std::string_view punycode) {
    const auto codePoints = punycodeDecode(punycode);
    if (!codePoints) return std::nullopt;
    std::string out;
    appendUTF8(out, *codePoints);
    return out;
}

std::optional<std::u32string> QBHost::longCharactersWithCount(std::string_view text) {
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()))
        return std::nullopt;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::u32string codePoints;
    codePoints.reserve(text.size());
    for (std::int32_t i = 0; i < length;) {
        UChar32 c;
        U8_NEXT(bytes, i, length, c);
        if (c < 0) return std::nullopt;
        codePoints.push_back(static_cast<char32_t>(c));
    }
    return codePoints;
}
