#include "QBKelvoBridge.h"

#include <cmath>
#include <limits>

#include "QBKelvoGUIApplication.h"
#include "QBLumentideIPC.h"
#include "QBPlatform.h"
#include "platform/QBText.h"

using json = nlohmann::json;

namespace {

// A fractional number cut toward zero, clamped to the 64-bit range.
std::int64_t integerPart(double value) {
    constexpr double limit = 9223372036854775808.0;  // 2^63
    if (std::isnan(value)) return 0;
    if (value >= limit) return std::numeric_limits<std::int64_t>::max();
    if (value <= -limit) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(std::trunc(value));
}

bool isPort(std::int64_t value) {
    return value >= QBKelvoBridgeCommands::lowestPort && value <= QBKelvoBridgeCommands::highestPort;
}

}  // namespace

QBKelvoBridge::QBKelvoBridge(std::shared_ptr<QBLumentideIPC> channel,
                             std::shared_ptr<QBKelvoGUIApplication> application)
    : channel(std::move(channel)), application(std::move(application)) {}

// ---- The relayed commands -------------------------------------------------------------------

std::optional<json> QBKelvoBridge::contentFor(const Method& method, const Arguments& arguments) {
    // Built member by member: an initializer list would build every value twice.
    json content = json::object();
    content["command"] = method.name;
    if (method.takes == Takes::server || method.takes == Takes::serverAndToken) {
        if (arguments.server.empty() || !isPort(arguments.port) || !isPort(arguments.webPort)) {
            return std::nullopt;
        }
        content["server"] = arguments.server;
        content["port"] = arguments.port;
        content["webPort"] = arguments.webPort;
    }
    const auto tokenLength = QBText::utf16Length(arguments.token);
    if (method.takes == Takes::serverAndToken) {
        if (tokenLength < 1 || tokenLength > maximumTokenLength) return std::nullopt;
        content["securityToken"] = arguments.token;
    }
    if (method.takes == Takes::token) {
        // Not refused: a token that is too long is sent as the empty one.
        content["securityToken"] = tokenLength > maximumTokenLength ? "" : arguments.token;
    }
    return content;
}

QBKelvoBridge::Result QBKelvoBridge::resultFrom(const Method& method,
                                                const std::optional<json>& answer) const {
    switch (method.answer) {
        case Answer::operatingSystem:
            return "Mac OS " + QBPlatform::operatingSystemVersion();
        case Answer::ignored:
            break;
        case Answer::text:
            if (auto text = stringAnswer(answer, method.answerKey)) return *text;
            break;
        case Answer::number:
            if (auto number = numberAnswer(answer, method.answerKey)) return *number;
            break;
        case Answer::version:
            if (auto version = stringAnswer(answer, method.answerKey)) return *version;
            if (application) {
                if (auto installed = application->installedVersion()) return *installed;
            }
            break;
    }
    return method.fallbackResult();
}

QBKelvoBridge::Result QBKelvoBridge::perform(MethodId id, const Arguments& arguments) {
    const Method& method = QBKelvoBridgeCommands::method(id);
    if (method.answer == Answer::operatingSystem) return resultFrom(method, std::nullopt);
    const auto content = contentFor(method, arguments);
    if (!content) return method.fallbackResult();
    std::optional<json> answer;
    if (application && channel &&
        application->isGUIApplicationAvailableAndStartIfNeeded(method.launchesGUI)) {
        answer = channel->sendMessageToFirstClient(serviceCommand, *content);
    }
    return resultFrom(method, answer);
}

bool QBKelvoBridge::startCommand(std::string_view name, const Arguments& arguments,
                                 const Finish& finish) {
    const Method* method = methodNamed(name);
    if (!method || method->answer == Answer::operatingSystem || !channel) return false;
    auto content = contentFor(*method, arguments);
    if (!content) {
        finish(method->fallbackResult());
        return true;
    }
    // Without a client the command may have to launch the GUI and wait: not here.
    if (channel->clientCount() == 0) return false;
    channel->sendMessageToFirstClient(
        serviceCommand, *content,
        [this, method, finish](std::optional<json> answer) { finish(resultFrom(*method, answer)); });
    return true;
}

// ---- Answers --------------------------------------------------------------------------------

std::optional<std::string> QBKelvoBridge::stringAnswer(const std::optional<json>& answer,
                                                       std::string_view key) {
    if (!answer || !answer->is_object()) return std::nullopt;
    const auto value = answer->find(key);
    if (value == answer->end() || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::optional<std::int64_t> QBKelvoBridge::numberAnswer(const std::optional<json>& answer,
                                                        std::string_view key) {
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

std::string QBKelvoBridge::clientOS() { return text(perform(MethodId::clientOS, {})); }

std::string QBKelvoBridge::clientVersion() { return text(perform(MethodId::clientVersion, {})); }

std::int64_t QBKelvoBridge::authorizeServer(const std::string& server, std::int64_t port,
                                            std::int64_t webPort) {
    return number(perform(MethodId::authorize, {server, port, webPort, {}}));
}

std::string QBKelvoBridge::connect(const std::string& server, std::int64_t port,
                                   std::int64_t webPort) {
    return text(perform(MethodId::connect, {server, port, webPort, {}}));
}

std::string QBKelvoBridge::connect(const std::string& server, std::int64_t port,
                                   std::int64_t webPort, const std::string& secToken) {
    return text(perform(MethodId::connectWithToken, {server, port, webPort, secToken}));
}

std::string QBKelvoBridge::disconnectWithSecToken(const std::string& secToken) {
    return text(perform(MethodId::disconnect, {{}, 0, 0, secToken}));
}

std::string QBKelvoBridge::suspendWithSecToken(const std::string& secToken) {
    return text(perform(MethodId::suspend, {{}, 0, 0, secToken}));
}

std::string QBKelvoBridge::resume() { return text(perform(MethodId::resume, {})); }

std::string QBKelvoBridge::state() { return text(perform(MethodId::state, {})); }

std::int64_t QBKelvoBridge::connectionTime() { return number(perform(MethodId::connectionTime, {})); }

std::string QBKelvoBridge::connectionTimeDisplayable() {
    return text(perform(MethodId::connectionTimeDisplayable, {}));
}

std::string QBKelvoBridge::trafficRates() { return text(perform(MethodId::trafficRates, {})); }

std::string QBKelvoBridge::trafficTotals() { return text(perform(MethodId::trafficTotals, {})); }
