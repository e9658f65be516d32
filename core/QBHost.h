#pragma once
// QBHost: one host, named by an IP literal or a domain name (which may hold non-ASCII
// characters), resolved on demand into cached IPv4 and IPv6 address lists. Also the IDNA and
// Punycode (RFC 3492) conversions on their own.
//
// Invariants: a domain name is kept in its IDNA-encoded ASCII form; an IP literal is kept as
// given and its address is cached at construction. Each address list is either unset or
// non-empty and holds no address twice; a lookup that finds nothing leaves the list unset, so
// the next request that needs it looks up again. A filled list is never refreshed.
//
// Threads: a host has no lock; filling the lists changes it, so use one host from one thread
// at a time. Lookups block the caller for as long as the resolver takes. The static
// conversions use only their arguments and may run on any thread.
//
//   auto host = QBHost::hostWithName("b\u00fccher.example");   // kept as "xn--bcher-kva.example"
//   if (auto list = host->addresses()) connectTo(list->front());

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QBIPAddress.h"

class QBHost {
  public:
    using AddressList = std::vector<std::shared_ptr<QBIPAddress>>;
    // Resolves a name for one IP version (4, 6, or any other value for both); nullopt when the
    // lookup fails or finds nothing. dnsLookup is the real one; tests pass their own.
    using Resolver =
        std::function<std::optional<AddressList>(const std::string& name, std::int64_t ipVersion)>;

    // A host for name; no lookup happens here.
    explicit QBHost(std::string_view name, Resolver resolver = &QBHost::dnsLookup);
    static std::shared_ptr<QBHost> hostWithName(std::string_view name);

    // The first cached IPv4 address, else the first cached IPv6 address, else null. Never looks up.
    std::shared_ptr<QBIPAddress> address() const;
    // A random cached IPv4 address, else a random cached IPv6 address, else null. Never looks up.
    std::shared_ptr<QBIPAddress> randomAddress() const;
    // The IPv4 list followed by the IPv6 list, resolving unset lists first; nullopt when both
    // stay unset.
    std::optional<AddressList> addresses();
    // The IPv4 list, resolving it first when unset; nullopt when none is found.
    std::optional<AddressList> addressesIPv4();
    // The IPv6 list, resolving it first when unset; nullopt when none is found.
    std::optional<AddressList> addressesIPv6();

    // Asks getaddrinfo for name (IPv4 for version 4, IPv6 for 6, both otherwise) and returns the
    // distinct addresses in resolver order; nullopt when the lookup fails or finds none.
    static std::optional<AddressList> dnsLookup(const std::string& name, std::int64_t ipVersion);

    // Same as IDNAEncodedString / IDNADecodedString.
    static std::string IDNAEncodeName(std::string_view name);
    static std::string IDNADecodeName(std::string_view name);
    // The name in NFKC with every label that is not plain ASCII written as "xn--" and its
    // Punycode; "." and "@" separate labels; blanks where a label or separator run begins are
    // dropped. Invalid UTF-8 is read as U+FFFD. A label whose Punycode overflows is left out.
    static std::string IDNAEncodedString(std::string_view name);
    // The name with every label that begins with "xn--" (in any case) replaced by its Punycode
    // decoding; a label that does not decode is left out, its separators stay.
    static std::string IDNADecodedString(std::string_view name);
    // RFC 3492 Punycode of one label (UTF-8), without prefix; "" for an empty label or invalid
    // UTF-8; nullopt on arithmetic overflow.
    static std::optional<std::string> punycodeEncodedString(std::string_view label);
    // The label (UTF-8) that Punycode text decodes to; nullopt for invalid input, overflow, or a
    // decoded value above U+10FFFF or in the surrogate range.
    static std::optional<std::string> punycodeDecodedString(std::string_view punycode);
    // The code points of UTF-8 text (their number is the size); nullopt for invalid UTF-8.
    static std::optional<std::u32string> longCharactersWithCount(std::string_view text);

  private:
    void storeIfFound(std::optional<AddressList>& list, std::int64_t ipVersion);

    std::string domainName;                    // the IP literal, or the IDNA-encoded name
    std::optional<AddressList> ipv4Addresses;  // unset, or non-empty
    std::optional<AddressList> ipv6Addresses;  // unset, or non-empty
    Resolver resolver;
};
