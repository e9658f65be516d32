#include "QBKelvoBridge.h"

#include <array>
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

// A fractional number cut toward zero, clamped to the 64-bit range.
std::int64_t integerPart(double value) {
    constexpr double limit = 9223372036854775808.0;  // 2^63
    if (std::isnan(value)) return 0;
    if (value >= limit) return std::numeric_limits<std::int64_t>::max();
    if (value <= -limit) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(std::trunc(value));
}

bool isPort(std::int64_t value) {
    return value >= QBKelvoBridge::lowestPort && value <= QBKelvoBridge::highestPort;
}

}  // namespace

QBKelvoBridge::QBKelvoBridge(std::shared_ptr<QBLumentideIPC> channel,
                             std::shared_ptr<QBKelvoGUIApplication> application)
    : channel(std::move(channel)), application(std::move(application)) {}

// ---- The relayed commands -------------------------------------------------------------------

const QBKelvoBridge::Rule* QBKelvoBridge::findRule(std::string_view method) {
    using I = Inputs;
    using K = AnswerKind;
    static const std::array<Rule, 12> rules{{
        {"clientVersion", I::none, K::version, unknownVersion},
        {"authorize", I::server, K::number, std::int64_t{0}},
        {"connect", I::server, K::text, ""},
        {"connectWithToken", I::serverAndToken, K::text, ""},
        {"disconnect", I::token, K::ignored, ""},
        {"suspend", I::token, K::ignored, ""},
        {"resume", I::none, K::ignored, ""},
        {"state", I::none, K::text, "disconnected"},
        {"connectionTime", I::none, K::number, std::int64_t{0}},
        {"connectionTimeDisplayable", I::none, K::text, ""},
        {"trafficRates", I::none, K::text, "0,0"},
        {"trafficTotals", I::none, K::text, "0,0"},
    }};
    for (const auto& rule : rules) {
        if (rule.method == method) return &rule;
    }
    return nullptr;
}

std::optional<json> QBKelvoBridge::contentFor(const Rule& rule, const Arguments& arguments) {
    json content{{"command", rule.method}};
    if (rule.inputs == Inputs::server || rule.inputs == Inputs::serverAndToken) {
        if (arguments.server.empty() || !isPort(arguments.port) || !isPort(arguments.webPort)) {
            return std::nullopt;
        }
        content["server"] = arguments.server;
        content["port"] = arguments.port;
        content["webPort"] = arguments.webPort;
    }
    const auto tokenLength = QBText::utf16Length(arguments.token);
    if (rule.inputs == Inputs::serverAndToken) {
        if (tokenLength < 1 || tokenLength > maximumTokenLength) return std::nullopt;
        content["securityToken"] = arguments.token;
    }
    if (rule.inputs == Inputs::token) {
        // Not refused: a token that is too long is sent as the empty one.
        content["securityToken"] = tokenLength > maximumTokenLength ? "" : arguments.token;
    }
    return content;
}

QBKelvoBridge::Result QBKelvoBridge::resultFrom(const Rule& rule,
                                                const std::optional<json>& answer) const {
    switch (rule.answer) {
        case AnswerKind::ignored:
            return rule.fallback;
        case AnswerKind::text:
            if (auto text = stringAnswer(answer, resultKey)) return *text;
            return rule.fallback;
        case AnswerKind::number:
            if (auto number = numberAnswer(answer, resultKey)) return *number;
            return rule.fallback;
        case AnswerKind::version:
            if (auto version = stringAnswer(answer, versionKey)) return *version;
            if (application) {
                if (auto installed = application->installedVersion()) return *installed;
            }
            return rule.fallback;
    }
    return rule.fallback;
}

QBKelvoBridge::Result QBKelvoBridge::perform(std::string_view method, const Arguments& arguments) {
    const Rule* rule = findRule(method);
    if (!rule) return "";
    const auto content = contentFor(*rule, arguments);
    if (!content) return rule->fallback;
    // clientVersion asks only a GUI that is connected now; the others launch it when needed.
    const bool launchAllowed = rule->answer != AnswerKind::version;
    std::optional<json> answer;
    if (application && channel &&
        application->isGUIApplicationAvailableAndStartIfNeeded(launchAllowed)) {
        answer = channel->sendMessageToFirstClient(serviceCommand, *content);
    }
    return resultFrom(*rule, answer);
}

bool QBKelvoBridge::startCommand(std::string_view method, const Arguments& arguments,
                                 const Finish& finish) {
    const Rule* rule = findRule(method);
    if (!rule || !channel) return false;
    auto content = contentFor(*rule, arguments);
    if (!content) {
        finish(rule->fallback);
        return true;
    }
    // Without a client the command may have to launch the GUI and wait: not here.
    if (channel->clientCount() == 0) return false;
    channel->sendMessageToFirstClient(
        serviceCommand, *content,
        [this, rule, finish](std::optional<json> answer) { finish(resultFrom(*rule, answer)); });
    return true;
}

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

// ---- The thirteen operations ----------------------------------------------------------------

namespace {

std::string text(QBKelvoBridgeCommands::Result result) {
    return std::get<std::string>(std::move(result));
}

std::int64_t number(const QBKelvoBridgeCommands::Result& result) {
    return std::get<std::int64_t>(result);
}

}  // namespace

std::string QBKelvoBridge::clientOS() {
    return "Mac OS " + QBPlatform::operatingSystemVersion();
}

std::string QBKelvoBridge::clientVersion() {
    return text(perform("clientVersion", {}));
}

std::int64_t QBKelvoBridge::authorizeServer(const std::string& server, std::int64_t port,
                                            std::int64_t webPort) {
    return number(perform("authorize", {server, port, webPort, {}}));
}

std::string QBKelvoBridge::connect(const std::string& server, std::int64_t port,
                                   std::int64_t webPort) {
    return text(perform("connect", {server, port, webPort, {}}));
}

std::string QBKelvoBridge::connect(const std::string& server, std::int64_t port,
                                   std::int64_t webPort, const std::string& secToken) {
    return text(perform("connectWithToken", {server, port, webPort, secToken}));
}

std::string QBKelvoBridge::disconnectWithSecToken(const std::string& secToken) {
    return text(perform("disconnect", {{}, 0, 0, secToken}));
}

std::string QBKelvoBridge::suspendWithSecToken(const std::string& secToken) {
    return text(perform("suspend", {{}, 0, 0, secToken}));
}

std::string QBKelvoBridge::resume() { return text(perform("resume", {})); }

std::string QBKelvoBridge::state() { return text(perform("state", {})); }

std::int64_t QBKelvoBridge::connectionTime() { return number(perform("connectionTime", {})); }

std::string QBKelvoBridge::connectionTimeDisplayable() {
    return text(perform("connectionTimeDisplayable", {}));
}

std::string QBKelvoBridge::trafficRates() { return text(perform("trafficRates", {})); }

std::string QBKelvoBridge::trafficTotals() { return text(perform("trafficTotals", {})); }
