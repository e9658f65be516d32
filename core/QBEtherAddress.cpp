#include "QBEtherAddress.h"

#include <netinet/ether.h>

namespace {

// "xx:xx:xx:xx:xx:xx" and its terminator, the longest text ether_ntoa_r writes.
constexpr std::size_t etherTextCapacity = 18;

}  // namespace

QBEtherAddress::QBEtherAddress() = default;

QBEtherAddress::QBEtherAddress(std::string_view text) { setAddress(text); }

void QBEtherAddress::setAddress(std::string_view text) {
    // ether_aton_r reads a terminated string; a zero byte inside would cut the text short.
    const std::string terminated(text);
    ether_addr parsed{};
    if (terminated.find('\0') != std::string::npos ||
        ::ether_aton_r(terminated.c_str(), &parsed) == nullptr) {
        addr = ether_addr{};
        hasAddress = false;
        return;
    }
    addr = parsed;
    hasAddress = true;
}

std::optional<std::string> QBEtherAddress::address() const {
    if (!hasAddress) return std::nullopt;
    char text[etherTextCapacity];
    if (::ether_ntoa_r(&addr, text) == nullptr) return std::nullopt;
    return std::string(text);
}
