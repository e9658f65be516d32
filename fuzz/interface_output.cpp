// Fuzz target: the interface tool's output as the service reads it, in both dialects (BSD
// ifconfig and iproute2's ip).
//
// Input: the tool's output, any bytes. Checked: parsing is deterministic; output that is not UTF-8
// gives empty data; an address that a line's network value rejected is listed under no text.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "QBInterfaceData.h"
#include "platform/QBText.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view output(reinterpret_cast<const char*>(data), size);
    const auto parsed = QBInterfaceData::parse(output);
    for (const auto& [network, peer] : parsed.inet) {
        if (network.ipVersion() == 0) require(!network.address());
    }
    const auto again = QBInterfaceData::parse(output);
    require(again.inet.size() == parsed.inet.size() && again.inet6.size() == parsed.inet6.size() &&
            again.mtu == parsed.mtu && again.ether.has_value() == parsed.ether.has_value());
    if (!QBText::isValidUTF8(output)) {
        require(parsed.inet.empty() && parsed.inet6.empty() && !parsed.ether && !parsed.mtu);
    }
    return 0;
}
