#include "QBKelvoBridge.h"

#include <cmath>
#include <limits>

#include "QBKelvoGUIApplication.h"
#include "QBLumentideIPC.h"
#include "QBPlatform.h"
#include "platform/QBText.h"

using json = nlohmann::json;

namespace {

constexpr const char* resultKey = "result";
constexpr const char* versionKey = "version";

std::string stringResult(const std::optional<json>& answer, const char* fallback) {
    return QBKelvoBridge::stringAnswer(answer, resultKey).value_or(fallback);
}

json commandContent(const char* command) {
    return json{{"command", command}};
}

// A fractional number cut toward zero, clamped to the 64-bit range.
std::int64_t integerPart(double value) {
    constexpr double limit = 9223372036854775808.0;  // 2^63
    if (std::isnan(value)) return 0;
    if (value >= limit) return std::numeric_limits<std::int64_t>::max();
    if (value <= -limit) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(std::trunc(value));
}

}  // namespace

QBKelvoBridge::QBKelvoBridge(std::shared_ptr<QBLumentideIPC> channel,
                             std::shared_ptr<QBKelvoGUIApplication> application)
    : channel(std::move(channel)), application(std::move(application)) {}

// ---- Answers --------------------------------------------------------------------------------

std::optional<std::string> QBKelvoBridge::stringAnswer(const std::optional<json>& answer,
                                                       const char* key) {
    if (!answer || !answer->is_object()) return std::nullopt;
    const auto value = answer->find(key);
    if (value == answer->end() || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::optional<std::int64_t> QBKelvoBridge::numberAnswer(const std::optional<json>& answer,
                                                        const char* key) {
    if (!answer || !answer->is_object()) return std::nullopt;
    const auto value = answer->find(key);
    if (value == answer->end()) return std::nullopt;
    if (value->is_boolean()) return value->get<bool>() ? 1 : 0;
    if (value->is_number_unsigned()) {
        const auto number = value->get<std::uint64_t>();
        return number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                   ? std::numeric_limits<std::int64_t>::max()
                   : static_cast<std::int64_t>(number);
    }
    if (value->is_number_integer()) return value->get<std::int64_t>();
    if (value->is_number_float()) return integerPart(value->get<double>());
    return std::nullopt;
}

// ---- Relaying -------------------------------------------------------------------------------

std::optional<json> QBKelvoBridge::relay(const json& content, bool launchAllowed) {
    if (!application || !channel ||
        !application->isGUIApplicationAvailableAndStartIfNeeded(launchAllowed)) {
        return std::nullopt;
    }
    return channel->sendMessageToFirstClient(serviceCommand, content);
}

bool QBKelvoBridge::acceptsServer(const std::string& server, std::int64_t port,
                                  std::int64_t webPort) {
    const auto isPort = [](std::int64_t value) { return value >= lowestPort && value <= highestPort; };
    return !server.empty() && isPort(port) && isPort(webPort);
}

json QBKelvoBridge::serverContent(const char* command, const std::string& server,
                                  std::int64_t port, std::int64_t webPort) {
    return json{{"command", command}, {"server", server}, {"port", port}, {"webPort", webPort}};
}

std::string QBKelvoBridge::boundedToken(const std::string& token) {
    return QBText::utf16Length(token) > maximumTokenLength ? std::string() : token;
}

// ---- The commands ---------------------------------------------------------------------------

std::string QBKelvoBridge::clientOS() {
    return "Mac OS " + QBPlatform::operatingSystemVersion();
}

std::string QBKelvoBridge::clientVersion() {
    // Never launches: asks the GUI only when it is connected now.
    if (auto version = stringAnswer(relay(commandContent("clientVersion"), false), versionKey)) {
        return *version;
    }
    return application ? application->installedVersion().value_or(unknownVersion) : unknownVersion;
}

std::int64_t QBKelvoBridge::authorizeServer(const std::string& server, std::int64_t port,
                                            std::int64_t webPort) {
    if (!acceptsServer(server, port, webPort)) return 0;
    return numberAnswer(relay(serverContent("authorize", server, port, webPort)), resultKey)
        .value_or(0);
}

std::string QBKelvoBridge::connect(const std::string& server, std::int64_t port,
                                   std::int64_t webPort) {
    if (!acceptsServer(server, port, webPort)) return "";
    return stringResult(relay(serverContent("connect", server, port, webPort)), "");
}

std::string QBKelvoBridge::connect(const std::string& server, std::int64_t port,
                                   std::int64_t webPort, const std::string& secToken) {
    const auto tokenLength = QBText::utf16Length(secToken);
    if (!acceptsServer(server, port, webPort) || tokenLength < 1 ||
        tokenLength > maximumTokenLength) {
        return "";
    }
    auto content = serverContent("connectWithToken", server, port, webPort);
    content["securityToken"] = secToken;
    return stringResult(relay(content), "");
}

std::string QBKelvoBridge::disconnectWithSecToken(const std::string& secToken) {
    relay(json{{"command", "disconnect"}, {"securityToken", boundedToken(secToken)}});
    return "";
}

std::string QBKelvoBridge::suspendWithSecToken(const std::string& secToken) {
    relay(json{{"command", "suspend"}, {"securityToken", boundedToken(secToken)}});
    return "";
}

std::string QBKelvoBridge::resume() {
    relay(commandContent("resume"));
    return "";
}

std::string QBKelvoBridge::state() {
    return stringResult(relay(commandContent("state")), "disconnected");
}

std::int64_t QBKelvoBridge::connectionTime() {
    return numberAnswer(relay(commandContent("connectionTime")), resultKey).value_or(0);
}

std::string QBKelvoBridge::connectionTimeDisplayable() {
    return stringResult(relay(commandContent("connectionTimeDisplayable")), "");
}

std::string QBKelvoBridge::trafficRates() {
    return stringResult(relay(commandContent("trafficRates")), "0,0");
}

std::string QBKelvoBridge::trafficTotals() {
    return stringResult(relay(commandContent("trafficTotals")), "0,0");
}
