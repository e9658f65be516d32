#include "QBKelvoBridgeCommands.h"

#include <algorithm>
#include <array>

namespace {

using C = QBKelvoBridgeCommands;
using A = C::Arguments;
using R = C::Result;
using Id = C::MethodId;
using T = C::Takes;
using K = C::Answer;

constexpr std::string_view resultKey = "result";
constexpr std::string_view versionKey = "version";
constexpr std::int64_t zero = 0;

// Every XML-RPC method the bridge answers; nothing else in the program names them.
// clang-format off
constexpr std::array<C::Method, 13> table{{
    // id, name, takes, answer, answer key, default, answers at once, launches the GUI, operation
    {Id::clientOS, "clientOS", T::nothing, K::operatingSystem, {}, "", true, false,
     [](C& c, const A&) -> R { return c.clientOS(); }},
    {Id::clientVersion, "clientVersion", T::nothing, K::version, versionKey, "0.0.0,0", false, false,
     [](C& c, const A&) -> R { return c.clientVersion(); }},
    {Id::authorize, "authorize", T::server, K::number, resultKey, zero, false, true,
     [](C& c, const A& a) -> R { return c.authorizeServer(a.server, a.port, a.webPort); }},
    {Id::connect, "connect", T::server, K::text, resultKey, "", false, true,
     [](C& c, const A& a) -> R { return c.connect(a.server, a.port, a.webPort); }},
    {Id::connectWithToken, "connectWithToken", T::serverAndToken, K::text, resultKey, "", false, true,
     [](C& c, const A& a) -> R { return c.connect(a.server, a.port, a.webPort, a.token); }},
    {Id::disconnect, "disconnect", T::token, K::ignored, {}, "", false, true,
     [](C& c, const A& a) -> R { return c.disconnectWithSecToken(a.token); }},
    {Id::suspend, "suspend", T::token, K::ignored, {}, "", false, true,
     [](C& c, const A& a) -> R { return c.suspendWithSecToken(a.token); }},
    {Id::resume, "resume", T::nothing, K::ignored, {}, "", false, true,
     [](C& c, const A&) -> R { return c.resume(); }},
    {Id::state, "state", T::nothing, K::text, resultKey, "disconnected", false, true,
     [](C& c, const A&) -> R { return c.state(); }},
    {Id::connectionTime, "connectionTime", T::nothing, K::number, resultKey, zero, false, true,
     [](C& c, const A&) -> R { return c.connectionTime(); }},
    {Id::connectionTimeDisplayable, "connectionTimeDisplayable", T::nothing, K::text, resultKey, "",
     false, true, [](C& c, const A&) -> R { return c.connectionTimeDisplayable(); }},
    {Id::trafficRates, "trafficRates", T::nothing, K::text, resultKey, "0,0", false, true,
     [](C& c, const A&) -> R { return c.trafficRates(); }},
    {Id::trafficTotals, "trafficTotals", T::nothing, K::text, resultKey, "0,0", false, true,
     [](C& c, const A&) -> R { return c.trafficTotals(); }},
}};
// clang-format on

constexpr bool inIdOrder() {
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (static_cast<std::size_t>(table[i].id) != i) return false;
    }
    return true;
}
static_assert(inIdOrder(), "method(id) indexes the table by id");

}  // namespace

std::size_t QBKelvoBridgeCommands::Method::needs() const {
    switch (takes) {
        case Takes::nothing:
            return 0;
        case Takes::server:
            return 3;
        case Takes::serverAndToken:
            return 4;
        case Takes::token:
            return 1;
    }
    return 0;
}

QBKelvoBridgeCommands::Result QBKelvoBridgeCommands::Method::fallbackResult() const {
    if (const auto* text = std::get_if<std::string_view>(&fallback)) return std::string(*text);
    return std::get<std::int64_t>(fallback);
}

std::span<const QBKelvoBridgeCommands::Method> QBKelvoBridgeCommands::methods() { return table; }

const QBKelvoBridgeCommands::Method& QBKelvoBridgeCommands::method(MethodId id) {
    return table[static_cast<std::size_t>(id)];
}

const QBKelvoBridgeCommands::Method* QBKelvoBridgeCommands::methodNamed(std::string_view name) {
    const auto found = std::find_if(table.begin(), table.end(),
                                    [name](const Method& entry) { return entry.name == name; });
    return found == table.end() ? nullptr : &*found;
}

bool QBKelvoBridgeCommands::answersAtOnce(std::string_view method) const {
    const auto* entry = methodNamed(method);
    return entry != nullptr && entry->answersAtOnce;
}
