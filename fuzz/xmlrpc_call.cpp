// Fuzz target: XML-RPC method-call decoding and the element search under it, on arbitrary text
// (the request handling target reaches them only behind a well-formed HTTP head).
//
// Checked: a decoded method name and every string parameter are pieces of the body; the first
// element found alone is the first of all elements found; every element's content is non-empty.

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "QBKelvoXMLRPCServer.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

constexpr std::array<std::string_view, 8> tags = {"methodCall", "methodName", "params", "param",
                                                   "value",      "string",     "int",    "i4"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view body(reinterpret_cast<const char*>(data), size);

    if (const auto call = QBKelvoXMLRPCServer::decodeMethodCall(body)) {
        require(!call->name.empty() && body.find(call->name) != std::string_view::npos);
        for (const auto& param : call->params) {
            if (const auto* text = std::get_if<std::string>(&param)) {
                require(body.find(*text) != std::string_view::npos);
            }
        }
    }

    const auto tag = tags[size % tags.size()];
    const auto first = QBKelvoXMLRPCServer::getXMLTag(tag, body);
    const auto all = QBKelvoXMLRPCServer::getAllXMLTags(tag, body);
    require(first.has_value() == !all.empty());
    if (first) require(*first == all.front());
    for (const auto& content : all) require(!content.empty());
    return 0;
}
