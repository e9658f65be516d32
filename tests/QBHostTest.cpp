#include <gtest/gtest.h>

#include "QBHost.h"

using AddressList = QBHost::AddressList;
using Texts = std::vector<std::string>;

static AddressList list(std::initializer_list<const char*> texts) {
    AddressList addresses;
    for (const char* text : texts) addresses.push_back(QBIPAddress::ipAddressWithAddress(text));
    return addresses;
}

static Texts texts(const std::optional<AddressList>& addresses) {
    Texts out;
    for (const auto& address : addresses.value_or(AddressList{})) out.push_back(address->address().value_or("?"));
    return out;
}

// Answers from fixed per-version tables and records each call as "name version".
struct FakeResolver {
    std::optional<AddressList> v4, v6, both;
    Texts calls;
    QBHost::Resolver hook() {
        return [this](const std::string& name, std::int64_t version) {
            return calls.push_back(name + " " + std::to_string(version)), version == 4 ? v4 : version == 6 ? v6 : both;
        };
    }
};

TEST(QBHostTest, LiteralsAreKnownWithoutLookupButTheOtherFamilyIsAskedEveryTime) {
    FakeResolver fake;
    QBHost v4("192.0.2.7", fake.hook());
    EXPECT_EQ(QBHost("2001:db8::1", fake.hook()).address()->address(), "2001:db8::1");
    EXPECT_TRUE(fake.calls.empty());
    EXPECT_EQ(v4.addressesIPv6(), std::nullopt);
    EXPECT_EQ(texts(v4.addresses()), Texts{"192.0.2.7"});
    EXPECT_EQ(fake.calls, (Texts{"192.0.2.7 6", "192.0.2.7 6"}));
}

TEST(QBHostTest, DomainNameIsResolvedOnDemandInIDNAFormWithOneLookupForBothFamilies) {
    FakeResolver fake;
    fake.both = list({"192.0.2.1", "2001:db8::5", "192.0.2.2"});
    QBHost host("b\u00fccher.example", fake.hook());
    EXPECT_TRUE(fake.calls.empty());
    EXPECT_EQ(texts(host.addresses()), (Texts{"192.0.2.1", "192.0.2.2", "2001:db8::5"}));
    EXPECT_EQ(host.randomAddress()->ipVersion(), 4);  // IPv4 preferred
    host.addresses(), host.addressesIPv4(), host.addressesIPv6();
    EXPECT_EQ(fake.calls, Texts{"xn--bcher-kva.example 0"});  // both lists filled: no more
}

TEST(QBHostTest, UnfoundFamiliesAreLookedUpAgainUntilFound) {
    FakeResolver fake;
    fake.both = AddressList{};  // an answer without addresses counts as none
    QBHost host("h", fake.hook());
    EXPECT_EQ(host.addresses(), std::nullopt);
    fake.both = list({"2001:db8::1"});
    EXPECT_EQ(texts(host.addresses()), Texts{"2001:db8::1"});
    EXPECT_EQ(texts(host.addresses()), Texts{"2001:db8::1"});  // asks for IPv4 only
    fake.v4 = list({"192.0.2.9"});
    EXPECT_EQ(texts(host.addressesIPv4()), Texts{"192.0.2.9"});
    EXPECT_EQ(texts(host.addresses()), (Texts{"192.0.2.9", "2001:db8::1"}));
    EXPECT_EQ(host.address()->address(), "192.0.2.9");
    EXPECT_EQ(fake.calls, (Texts{"h 0", "h 0", "h 4", "h 4"}));
}

// The system resolver, without network: literals and the reserved ".invalid".
TEST(QBHostSystemResolverTest, LookupsGiveEachAddressOnceOrNothing) {
    EXPECT_EQ(texts(QBHost::dnsLookup("127.0.0.1", 0)), Texts{"127.0.0.1"});  // not once per type
    EXPECT_EQ(QBHost::dnsLookup("::1", 4), std::nullopt);
    EXPECT_EQ(QBHost::dnsLookup("no-such-host.invalid", 0), std::nullopt);
    // A NUL inside would cut the name short in the C interface.
    EXPECT_EQ(QBHost::dnsLookup(std::string("localhost\0.invalid", 18), 4), std::nullopt);
}
