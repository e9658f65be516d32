#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "QBHost.h"

namespace {

using AddressList = QBHost::AddressList;
using Texts = std::vector<std::string>;
using Versions = std::vector<std::int64_t>;

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
    Versions versions;
    QBHost::Resolver hook() {
        return [this](const std::string& name, std::int64_t version) {
            names.push_back(name);
            versions.push_back(version);
            return version == 4 ? v4 : version == 6 ? v6 : both;
        };
    }
};

}  // namespace

TEST(QBHostTest, LiteralsAreKnownWithoutLookupButTheOtherFamilyIsAskedEveryTime) {
    FakeResolver fake;
    QBHost v4("192.0.2.7", fake.hook());
    EXPECT_EQ(QBHost("2001:db8::1", fake.hook()).address()->address(), "2001:db8::1");
    EXPECT_TRUE(fake.versions.empty());
    EXPECT_EQ(v4.addressesIPv6(), std::nullopt);
    EXPECT_EQ(texts(v4.addresses()), Texts{"192.0.2.7"});
    EXPECT_EQ(fake.versions, (Versions{6, 6}));
}

TEST(QBHostTest, DomainNameIsResolvedOnDemandInIDNAFormWithOneLookupForBothFamilies) {
    FakeResolver fake;
    fake.both = list({"192.0.2.1", "2001:db8::5", "192.0.2.2"});
    QBHost host("b\u00fccher.example", fake.hook());
    EXPECT_TRUE(fake.versions.empty());
    EXPECT_EQ(texts(host.addresses()), (Texts{"192.0.2.1", "192.0.2.2", "2001:db8::5"}));
    EXPECT_EQ(fake.names, Texts{"xn--bcher-kva.example"});
    EXPECT_EQ(host.randomAddress()->ipVersion(), 4);  // IPv4 preferred
    host.addresses(), host.addressesIPv4(), host.addressesIPv6();
    EXPECT_EQ(fake.versions, Versions{0});  // both lists filled: nothing is looked up again
}

TEST(QBHostTest, UnfoundFamiliesAreLookedUpAgainUntilFound) {
    FakeResolver fake;
    fake.both = AddressList{};  // an answer without addresses counts as none
    QBHost host("v6only.example", fake.hook());
    EXPECT_EQ(host.addresses(), std::nullopt);
    fake.both = list({"2001:db8::1"});
    EXPECT_EQ(texts(host.addresses()), Texts{"2001:db8::1"});
    EXPECT_EQ(texts(host.addresses()), Texts{"2001:db8::1"});  // asks for IPv4 only
    fake.v4 = list({"192.0.2.9"});
    EXPECT_EQ(texts(host.addressesIPv4()), Texts{"192.0.2.9"});
    EXPECT_EQ(texts(host.addresses()), (Texts{"192.0.2.9", "2001:db8::1"}));
    EXPECT_EQ(host.address()->address(), "192.0.2.9");
    EXPECT_EQ(fake.versions, (Versions{0, 0, 4, 4}));
}

// The system resolver, without network: literals, localhost and the reserved ".invalid".
TEST(QBHostSystemResolverTest, LookupsGiveEachAddressOnceOrNothing) {
    EXPECT_EQ(texts(QBHost::dnsLookup("127.0.0.1", 0)), Texts{"127.0.0.1"});  // once per socket type
    EXPECT_EQ(QBHost::dnsLookup("::1", 4), std::nullopt);
    const auto both = texts(QBHost::hostWithName("localhost")->addresses());
    EXPECT_EQ(std::set<std::string>(both.begin(), both.end()).size(), both.size());
    EXPECT_NE(std::find(both.begin(), both.end(), "127.0.0.1"), both.end());
    EXPECT_EQ(QBHost::dnsLookup("no-such-host.invalid", 0), std::nullopt);
    // A NUL inside would cut the name short in the C interface.
    EXPECT_EQ(QBHost::dnsLookup(std::string("localhost\0.invalid", 18), 4), std::nullopt);
}
