#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "QBHost.h"

namespace {

using AddressList = QBHost::AddressList;
using Texts = std::vector<std::string>;

AddressList list(std::initializer_list<const char*> texts) {
    AddressList addresses;
    for (const char* text : texts) addresses.push_back(QBIPAddress::ipAddressWithAddress(text));
    return addresses;
}

Texts texts(const std::optional<AddressList>& addresses) {
    Texts out;
    for (const auto& address : addresses.value_or(AddressList{}))
        out.push_back(address->address().value_or("?"));
    return out;
}

// Answers from fixed per-version tables and records every name and version asked.
struct FakeResolver {
    std::optional<AddressList> v4, v6, both;
    Texts names;
    std::vector<std::int64_t> versions;
    QBHost::Resolver hook() {
        return [this](const std::string& name, std::int64_t version) {
            names.push_back(name);
            versions.push_back(version);
            return version == 4 ? v4 : version == 6 ? v6 : both;
        };
    }
};

}  // namespace

TEST(QBHostTest, LiteralsAreKnownWithoutLookup) {
    FakeResolver fake;
    QBHost v4("192.0.2.7", fake.hook());
    QBHost v6("2001:db8::1", fake.hook());
    EXPECT_EQ(v4.address()->address(), "192.0.2.7");
    EXPECT_EQ(v4.randomAddress()->address(), "192.0.2.7");
    EXPECT_EQ(texts(v4.addressesIPv4()), Texts{"192.0.2.7"});
    EXPECT_EQ(v6.address()->address(), "2001:db8::1");
    EXPECT_EQ(texts(v6.addressesIPv6()), Texts{"2001:db8::1"});
    EXPECT_TRUE(fake.versions.empty());
    // The other family of a literal is never found, so every call asks for it again.
    EXPECT_EQ(texts(v4.addresses()), Texts{"192.0.2.7"});
    EXPECT_EQ(texts(v4.addresses()), Texts{"192.0.2.7"});
    EXPECT_EQ(fake.versions, (std::vector<std::int64_t>{6, 6}));
    EXPECT_EQ(fake.names.front(), "192.0.2.7");
}

TEST(QBHostTest, DomainNameHasNoAddressUntilAskedAndIsResolvedInIDNAForm) {
    FakeResolver fake;
    fake.both = list({"192.0.2.1", "2001:db8::5", "192.0.2.2"});
    QBHost host("b\u00fccher.example", fake.hook());
    EXPECT_EQ(host.address(), nullptr);
    EXPECT_EQ(host.randomAddress(), nullptr);
    EXPECT_TRUE(fake.versions.empty());

    // One lookup for both families, split by version in resolver order.
    EXPECT_EQ(texts(host.addresses()), (Texts{"192.0.2.1", "192.0.2.2", "2001:db8::5"}));
    EXPECT_EQ(fake.names, Texts{"xn--bcher-kva.example"});
    EXPECT_TRUE(fake.versions[0] != 4 && fake.versions[0] != 6);
    EXPECT_EQ(host.address()->address(), "192.0.2.1");
    const auto random = host.randomAddress()->address();
    EXPECT_TRUE(random == "192.0.2.1" || random == "192.0.2.2") << *random;  // IPv4 preferred
    host.addresses(), host.addressesIPv4(), host.addressesIPv6();
    EXPECT_EQ(fake.versions.size(), 1u);  // both lists filled: nothing is looked up again
}

TEST(QBHostTest, UnfoundFamiliesAreLookedUpAgainUntilFound) {
    FakeResolver fake;
    fake.both = AddressList{};  // an answer without addresses counts as none
    QBHost host("v6only.example", fake.hook());
    EXPECT_EQ(host.addresses(), std::nullopt);
    EXPECT_EQ(host.addressesIPv4(), std::nullopt);
    EXPECT_EQ(host.address(), nullptr);
    fake.both = list({"2001:db8::1", "2001:db8::2"});
    EXPECT_EQ(texts(host.addresses()), (Texts{"2001:db8::1", "2001:db8::2"}));
    EXPECT_EQ(texts(host.addresses()), (Texts{"2001:db8::1", "2001:db8::2"}));  // asks for IPv4
    EXPECT_EQ(host.randomAddress()->ipVersion(), 6);
    EXPECT_EQ(fake.versions, (std::vector<std::int64_t>{0, 4, 0, 4}));

    // Once the family turns up it is kept, preferred, and the lookups stop.
    fake.v4 = list({"192.0.2.9"});
    EXPECT_EQ(texts(host.addressesIPv4()), Texts{"192.0.2.9"});
    EXPECT_EQ(texts(host.addresses()), (Texts{"192.0.2.9", "2001:db8::1", "2001:db8::2"}));
    EXPECT_EQ(fake.versions, (std::vector<std::int64_t>{0, 4, 0, 4, 4}));
    EXPECT_EQ(host.randomAddress()->address(), "192.0.2.9");
}

TEST(QBHostTest, AddressesAfterOneFamilyAsksOnlyForTheOther) {
    FakeResolver fake;
    fake.v4 = list({"192.0.2.3"});
    fake.v6 = list({"2001:db8::3"});
    QBHost host("split.example", fake.hook());
    EXPECT_EQ(texts(host.addressesIPv4()), Texts{"192.0.2.3"});
    EXPECT_EQ(texts(host.addresses()), (Texts{"192.0.2.3", "2001:db8::3"}));
    EXPECT_EQ(fake.versions, (std::vector<std::int64_t>{4, 6}));
}

// The system resolver, without network: literals, localhost and the reserved ".invalid".

TEST(QBHostSystemResolverTest, LiteralsAndLocalhostGiveEachAddressOnce) {
    // getaddrinfo answers once per socket type; the duplicates must go.
    EXPECT_EQ(texts(QBHost::dnsLookup("127.0.0.1", 4)), Texts{"127.0.0.1"});
    EXPECT_EQ(texts(QBHost::dnsLookup("127.0.0.1", 0)), Texts{"127.0.0.1"});
    EXPECT_EQ(texts(QBHost::dnsLookup("::1", 6)), Texts{"::1"});
    EXPECT_EQ(QBHost::dnsLookup("::1", 4), std::nullopt);

    const auto v4 = texts(QBHost::dnsLookup("localhost", 4));
    EXPECT_EQ(std::count(v4.begin(), v4.end(), "127.0.0.1"), 1) << ::testing::PrintToString(v4);
    // Whether localhost has an IPv6 address depends on /etc/hosts; what comes must be IPv6.
    for (const auto& address : QBHost::dnsLookup("localhost", 6).value_or(AddressList{}))
        EXPECT_EQ(address->ipVersion(), 6);
    const auto both = texts(QBHost::hostWithName("localhost")->addresses());
    EXPECT_EQ(std::set<std::string>(both.begin(), both.end()).size(), both.size());
    EXPECT_NE(std::find(both.begin(), both.end(), "127.0.0.1"), both.end());
}

TEST(QBHostSystemResolverTest, UnresolvableNamesGiveNothing) {
    EXPECT_EQ(QBHost::dnsLookup("no-such-host.invalid", 0), std::nullopt);
    EXPECT_EQ(QBHost::hostWithName("no-such-host.invalid")->addresses(), std::nullopt);
    EXPECT_EQ(QBHost::dnsLookup("", 0), std::nullopt);
    // A NUL inside would cut the name short in the C interface.
    EXPECT_EQ(QBHost::dnsLookup(std::string("localhost\0.invalid", 18), 4), std::nullopt);
}
