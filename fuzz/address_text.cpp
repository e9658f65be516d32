// Fuzz target: IP address, IP network and Ethernet address texts.
//
// Checked: every text that gives a valid value round-trips through the value's canonical text:
// the canonical text parses to an equal value with the same canonical text.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "QBEtherAddress.h"
#include "QBIPAddress.h"
#include "QBIPNetwork.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void checkAddress(std::string_view text) {
    const QBIPAddress address(text);
    if (!address.isValid()) {
        require(!address.address() && !address.arpaAddress());
        return;
    }
    const auto canonical = address.address();
    require(canonical && address.arpaAddress());
    const QBIPAddress again(*canonical);
    require(again.isValid() && again.ipVersion() == address.ipVersion());
    require(again.address() == canonical && again == address);
}

void checkNetwork(std::string_view text, const QBIPAddress& member) {
    const QBIPNetwork network(text);
    network.networkContainsIPAddress(member);
    network.isDefault();
    if (!network.isValid()) {
        require(!network.addressAndMask() && network.prefix() == -1);
        return;
    }
    const auto canonical = network.addressAndMask();
    require(canonical.has_value());
    const QBIPNetwork again(*canonical);
    require(again.isValid() && again.addressAndMask() == canonical);
    require(again.prefix() == network.prefix() && again.maskAsInt() == network.maskAsInt());

    // The short form names the mask by its prefix, which holds only for a contiguous mask.
    const bool contiguous =
        network.ipVersion() == 6 || QBIPNetwork::ipv4CIDRToMask(network.prefix()) == network.mask();
    if (contiguous) {
        const auto shortForm = network.shortAddressAndMask();
        require(shortForm && QBIPNetwork(*shortForm).addressAndMask() == canonical);
    }
}

void checkEther(std::string_view text) {
    const QBEtherAddress ether(text);
    const auto canonical = ether.address();
    if (!canonical) return;
    require(QBEtherAddress(*canonical).address() == canonical);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkAddress(text);
    // The text up to a "/" is also tried as an address inside the network the whole text names.
    checkNetwork(text, QBIPAddress(text.substr(0, text.find('/'))));
    checkEther(text);
    return 0;
}
