#include "QBKelvoXMLRPCServer.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <limits>

#include "platform/QBLog.h"
#include "platform/QBText.h"

namespace {

// ---- Element extraction ---------------------------------------------------------------------

std::unique_ptr<icu::RegexPattern> compileTagPattern(std::string_view tag) {
    const std::string source = "<" + std::string(tag) + ">(.+?)</" + std::string(tag) + ">";
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexPattern> pattern(icu::RegexPattern::compile(
        icu::UnicodeString::fromUTF8(source), UREGEX_DOTALL, status));
    return U_SUCCESS(status) ? std::move(pattern) : nullptr;
}

// The tags a method call is decoded with, compiled once. A compiled pattern may be shared by
// threads; each search makes its own matcher.
class TagPatterns {
public:
    static const TagPatterns& shared() {
        static const TagPatterns patterns;
        return patterns;
    }
    const icu::RegexPattern* find(std::string_view tag) const {
        for (const auto& [name, pattern] : compiled) {
            if (name == tag) return pattern.get();
        }
        return nullptr;
    }

private:
    TagPatterns() {
        for (std::string_view tag :
             {"methodCall", "methodName", "params", "param", "value", "string", "int", "i4"}) {
            compiled.emplace_back(tag, compileTagPattern(tag));
        }
    }
    std::vector<std::pair<std::string_view, std::unique_ptr<icu::RegexPattern>>> compiled;
};

// Calls found(content) for the first (or every) element named by pattern in text.
template <typename Found>
void matchElements(const icu::RegexPattern& pattern, const icu::UnicodeString& text, bool all,
                   Found found) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(pattern.matcher(text, status));
    if (U_FAILURE(status)) return;
    while (matcher->find(status) && U_SUCCESS(status)) {
        found(matcher->group(1, status));
        if (!all) return;
    }
}

std::optional<icu::UnicodeString> firstElement(std::string_view tag, const icu::UnicodeString& text) {
    std::optional<icu::UnicodeString> content;
    const auto collect = [&](icu::UnicodeString found) { content = std::move(found); };
    if (const auto* pattern = TagPatterns::shared().find(tag)) {
        matchElements(*pattern, text, false, collect);
    } else if (const auto compiled = compileTagPattern(tag)) {
        matchElements(*compiled, text, false, collect);
    }
    return content;
}

std::vector<icu::UnicodeString> allElements(std::string_view tag, const icu::UnicodeString& text) {
    std::vector<icu::UnicodeString> contents;
    const auto collect = [&](icu::UnicodeString found) { contents.push_back(std::move(found)); };
    if (const auto* pattern = TagPatterns::shared().find(tag)) {
        matchElements(*pattern, text, true, collect);
    } else if (const auto compiled = compileTagPattern(tag)) {
        matchElements(*compiled, text, true, collect);
    }
    return contents;
}

std::string toUTF8(const icu::UnicodeString& text) {
    std::string utf8;
    text.toUTF8String(utf8);
    return utf8;
}

// An int or i4 element's text: leading white space, an optional sign, digits; 0 without a
// number; clamped to the 32 bits the element holds.
std::int64_t int32Value(const icu::UnicodeString& text) {
    return std::clamp<std::int64_t>(QBText::scanLeadingInteger(toUTF8(text)),
                                    std::numeric_limits<std::int32_t>::min(),
                                    std::numeric_limits<std::int32_t>::max());
}

// A parameter's value, or nullopt when its kind is not understood (it then drops out).
std::optional<QBKelvoXMLRPCServer::Value> decodeParam(const icu::UnicodeString& param) {
    const auto value = firstElement("value", param);
    if (!value) return std::nullopt;
    if (const auto text = firstElement("string", *value)) return toUTF8(*text);
    if (const auto number = firstElement("int", *value)) return int32Value(*number);
    if (const auto number = firstElement("i4", *value)) return int32Value(*number);
    return std::nullopt;
}

// ---- Dispatch -------------------------------------------------------------------------------

using Value = QBKelvoXMLRPCServer::Value;
using Params = std::vector<Value>;

// A string argument: the string, or the decimal text of an int given in its place.
std::string textOf(const Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return *text;
    return std::to_string(std::get<std::int64_t>(value));
}

// A port argument: the number, or a string read as a decimal integer (0 without one).
std::int64_t integerOf(const Value& value) {
    if (const auto* number = std::get_if<std::int64_t>(&value)) return *number;
    return QBText::scanLeadingInteger(std::get<std::string>(value));
}

struct Command {
    std::string_view name;
    std::size_t needs;  // parameters the call must have; with fewer, the fallback arguments
    Value (*call)(QBKelvoBridgeCommands& commands, const Params& p);
};

// Arguments used, position by position, when a call has fewer parameters than its command needs.
const Params& fallbackArguments() {
    static const Params fallback{std::string(), std::int64_t{0}, std::int64_t{0}, std::string()};
    return fallback;
}

// clang-format off
constexpr std::array<Command, 13> commandTable{{
    {"clientOS", 0, [](QBKelvoBridgeCommands& c, const Params&) -> Value { return c.clientOS(); }},
    {"clientVersion", 0, [](QBKelvoBridgeCommands& c, const Params&) -> Value { return c.clientVersion(); }},
    {"authorize", 3, [](QBKelvoBridgeCommands& c, const Params& p) -> Value {
        return c.authorizeServer(textOf(p[0]), integerOf(p[1]), integerOf(p[2])); }},
    {"connect", 3, [](QBKelvoBridgeCommands& c, const Params& p) -> Value {
        return c.connect(textOf(p[0]), integerOf(p[1]), integerOf(p[2])); }},
    {"connectWithToken", 4, [](QBKelvoBridgeCommands& c, const Params& p) -> Value {
        return c.connect(textOf(p[0]), integerOf(p[1]), integerOf(p[2]), textOf(p[3])); }},
    {"disconnect", 1, [](QBKelvoBridgeCommands& c, const Params& p) -> Value {
        return c.disconnectWithSecToken(textOf(p[0])); }},
    {"suspend", 1, [](QBKelvoBridgeCommands& c, const Params& p) -> Value {
        return c.suspendWithSecToken(textOf(p[0])); }},
    {"resume", 0, [](QBKelvoBridgeCommands& c, const Params&) -> Value { return c.resume(); }},
    {"state", 0, [](QBKelvoBridgeCommands& c, const Params&) -> Value { return c.state(); }},
    {"connectionTime", 0, [](QBKelvoBridgeCommands& c, const Params&) -> Value { return c.connectionTime(); }},
    {"connectionTimeDisplayable", 0, [](QBKelvoBridgeCommands& c, const Params&) -> Value {
        return c.connectionTimeDisplayable(); }},
    {"trafficRates", 0, [](QBKelvoBridgeCommands& c, const Params&) -> Value { return c.trafficRates(); }},
    {"trafficTotals", 0, [](QBKelvoBridgeCommands& c, const Params&) -> Value { return c.trafficTotals(); }},
}};
// clang-format on

// ---- HTTP pieces ----------------------------------------------------------------------------

constexpr std::string_view xmlDeclarationStart = "<?xml version=\"1.0\"";
constexpr std::string_view headerBlockTerminator = "\r\n\r\n";

const QBKelvoXMLRPCServer::Headers& preflightHeaders() {
    static const QBKelvoXMLRPCServer::Headers headers{
        {"Access-Control-Allow-Headers", "Origin, X-Requested-With, Content-Type, Accept"},
        {"Access-Control-Allow-Origin", "*"},
        {"Access-Control-Allow-Methods", "POST, OPTIONS"},
    };
    return headers;
}

// Splits UTF-8 text at every code point for which isSeparator holds; two separators in a row
// give an empty part between them.
template <typename Predicate>
std::vector<std::string_view> splitAt(std::string_view text, Predicate isSeparator) {
    std::vector<std::string_view> parts;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::int32_t partStart = 0;
    for (std::int32_t next = 0; next < length;) {
        const std::int32_t at = next;
        UChar32 c;
        U8_NEXT(bytes, next, length, c);
        if (c >= 0 && isSeparator(static_cast<char32_t>(c))) {
            parts.push_back(text.substr(static_cast<std::size_t>(partStart),
                                        static_cast<std::size_t>(at - partStart)));
            partStart = next;
        }
    }
    parts.push_back(text.substr(static_cast<std::size_t>(partStart)));
    return parts;
}

bool isLineBreak(char32_t c) {
    return QBText::isNewline(c);
}

// Inside a line (already split at line breaks) this is the white-space class: Zs and tab.
bool isBlank(char32_t c) {
    return QBText::isWhitespaceOrNewline(c);
}

std::string_view trimBlanks(std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::int32_t first = -1;
    std::int32_t end = 0;
    for (std::int32_t next = 0; next < length;) {
        const std::int32_t at = next;
        UChar32 c;
        U8_NEXT(bytes, next, length, c);
        if (c >= 0 && isBlank(static_cast<char32_t>(c))) continue;
        if (first < 0) first = at;
        end = next;
    }
    if (first < 0) return {};
    return text.substr(static_cast<std::size_t>(first), static_cast<std::size_t>(end - first));
}

bool contains(const std::vector<std::string>& list, std::string_view item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

// ---- Creation and serving -------------------------------------------------------------------

std::shared_ptr<QBKelvoXMLRPCServer> QBKelvoXMLRPCServer::serverWithAddress(
    std::shared_ptr<QBIPAddress> address, std::int32_t andPort,
    std::shared_ptr<QBLumentideIPC> andIPC, std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands) {
    return serverWithAddress(std::move(address), andPort, std::move(andIPC),
                             std::move(bridgeCommands), Settings{});
}

std::shared_ptr<QBKelvoXMLRPCServer> QBKelvoXMLRPCServer::serverWithAddress(
    std::shared_ptr<QBIPAddress> address, std::int32_t andPort,
    std::shared_ptr<QBLumentideIPC> andIPC, std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands,
    const Settings& settings) {
    return std::make_shared<QBKelvoXMLRPCServer>(std::move(address), andPort, std::move(andIPC),
                                                 std::move(bridgeCommands), settings);
}

QBKelvoXMLRPCServer::QBKelvoXMLRPCServer(std::shared_ptr<QBIPAddress> address, std::int32_t andPort,
                                         std::shared_ptr<QBLumentideIPC> andIPC,
                                         std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands,
                                         const Settings& settings)
    : _address(std::move(address)),
      _port(andPort),
      allowedPaths{"/vpn"},
      allowedMethods{"POST", "OPTIONS"},
      lumentideIPC_(std::move(andIPC)),
      bridgeCommands_(std::move(bridgeCommands)),
      _serverSocket(QBTCPSocket::socket()),
      settings_(settings) {
    _serverSocket->setServerLimits(settings_.connectionLimits);
}

void QBKelvoXMLRPCServer::serve() {
    _serverSocket->serveOnAddress(_address, _port, weak_from_this(), false);
}

void QBKelvoXMLRPCServer::shutdown() {
    _serverSocket->shutdownServer();
}

void QBKelvoXMLRPCServer::clientConnected(std::shared_ptr<QBTCPSocket> connection) {
    QBLog::log("Client connected");
    while (connection->isOpen() && readHTTPRequest(*connection)) {
    }
    connection->close();
}

// ---- Reading a request ----------------------------------------------------------------------

QBKelvoXMLRPCServer::RequestHead QBKelvoXMLRPCServer::parseRequestHead(std::string_view headerBlock) {
    RequestHead head;
    const auto lines = splitAt(headerBlock, isLineBreak);
    for (const auto part : splitAt(lines.front(), isBlank)) head.requestLine.emplace_back(part);
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const auto colon = lines[i].find(':');
        if (colon == std::string_view::npos) continue;
        head.headers[std::string(trimBlanks(lines[i].substr(0, colon)))] =
            std::string(lines[i].substr(colon + 1));
    }
    return head;
}

bool QBKelvoXMLRPCServer::readHTTPRequest(QBTCPSocket& connection) {
    const auto headerBlock = connection.readStringTerminatedBy(
        headerBlockTerminator,
        QBTCPSocket::MessageDeadlines{settings_.idleTimeout, settings_.headerBlockTimeout});
    if (!headerBlock) return false;
    const auto head = parseRequestHead(*headerBlock);
    if (head.requestLine.size() < 2) return false;
    const auto& method = head.requestLine[0];
    if (!contains(allowedMethods, method) || !contains(allowedPaths, head.requestLine[1])) {
        return false;
    }
    if (method == "OPTIONS") {
        sendHTTPReplyWithStatus(200, preflightHeaders(), "", connection);
        return true;
    }
    if (method == "POST") return answerPost(head, connection);
    return false;
}

bool QBKelvoXMLRPCServer::answerPost(const RequestHead& head, QBTCPSocket& connection) {
    const auto lengthHeader = head.headers.find("Content-Length");
    const std::int64_t length =
        lengthHeader == head.headers.end() ? 0 : QBText::scanLeadingInteger(lengthHeader->second);
    if (length < 1 || length > maxBodyLength) return false;
    const auto body = QBBuffer::initWithSize(length);
    if (!body) return false;
    connection.readData(static_cast<std::uint32_t>(length), *body, settings_.bodyTimeout);
    if (body->length() != length) return false;
    const auto text = body->readString();
    if (!text || !text->starts_with(xmlDeclarationStart)) return false;
    return processXMLRPCRequest(*text, connection);
}

// ---- Writing a reply ------------------------------------------------------------------------

std::string_view QBKelvoXMLRPCServer::reasonPhrase(std::int32_t status) {
    switch (status) {
        case 200: return "OK";
        case 400: return "Bad request";
        case 403: return "Forbidden";
        case 404: return "Not found";
        case 500: return "Internal Error";
        case 501: return "Not implemented";
        default: return "";
    }
}

std::string QBKelvoXMLRPCServer::httpReply(std::int32_t status, const Headers& headers,
                                           std::string_view content) {
    Headers all = headers;
    all["Content-Length"] = std::to_string(content.size());
    all["Content-Type"] = "text/xml";
    all["Server"] = "MacTunnelwright/1.1";
    all["Pragma"] = "no-cache";
    all["Cache-Control"] = "no-cache";
    all["Access-Control-Allow-Origin"] = "*";

    std::string reply = "HTTP/1.1 " + std::to_string(status) + " ";
    reply += reasonPhrase(status);
    reply += "\r\n";
    for (const auto& [name, value] : all) {
        reply += name;
        reply += ": ";
        reply += value;
        reply += "\r\n";
    }
    reply += "\r\n";
    reply += content;
    return reply;
}

void QBKelvoXMLRPCServer::sendHTTPReplyWithStatus(std::int32_t status, const Headers& withHeaders,
                                                  std::string_view withContent,
                                                  QBTCPSocket& toSocket) {
    // A failed send surfaces as a failed read of the next request.
    toSocket.sendString(httpReply(status, withHeaders, withContent));
}

// ---- XML-RPC --------------------------------------------------------------------------------

std::optional<std::string> QBKelvoXMLRPCServer::getXMLTag(std::string_view tag, std::string_view inData) {
    const auto content = firstElement(tag, icu::UnicodeString::fromUTF8(inData));
    if (!content) return std::nullopt;
    return toUTF8(*content);
}

std::vector<std::string> QBKelvoXMLRPCServer::getAllXMLTags(std::string_view tag, std::string_view inData) {
    std::vector<std::string> contents;
    for (const auto& content : allElements(tag, icu::UnicodeString::fromUTF8(inData))) {
        contents.push_back(toUTF8(content));
    }
    return contents;
}

std::optional<QBKelvoXMLRPCServer::MethodCall> QBKelvoXMLRPCServer::decodeMethodCall(std::string_view body) {
    const auto call = firstElement("methodCall", icu::UnicodeString::fromUTF8(body));
    if (!call) return std::nullopt;
    const auto name = firstElement("methodName", *call);
    if (!name) return std::nullopt;
    MethodCall decoded{toUTF8(*name), {}};
    if (const auto block = firstElement("params", *call)) {
        for (const auto& param : allElements("param", *block)) {
            if (auto value = decodeParam(param)) decoded.params.push_back(std::move(*value));
        }
    }
    return decoded;
}

std::optional<QBKelvoXMLRPCServer::Value> QBKelvoXMLRPCServer::performXMLMethod(
    const std::string& name, const std::vector<Value>& withParams) {
    if (!bridgeCommands_) return std::nullopt;
    for (const auto& command : commandTable) {
        if (command.name != name) continue;
        const auto& arguments = withParams.size() >= command.needs ? withParams : fallbackArguments();
        return command.call(*bridgeCommands_, arguments);
    }
    return std::nullopt;
}

std::string QBKelvoXMLRPCServer::methodResponseDocument(const std::vector<Value>& values) {
    std::string params;
    for (const auto& value : values) {
        params += "    <param>\r\n      <value>";
        if (const auto* text = std::get_if<std::string>(&value)) {
            params += "<string>" + *text + "</string>";
        } else {
            // An int element holds 32 bits; a wider number keeps its low 32 bits.
            params += "<int>" + std::to_string(static_cast<std::int32_t>(std::get<std::int64_t>(value))) + "</int>";
        }
        params += "</value>\r\n    </param>\r\n";
    }
    const std::string block = values.empty() ? std::string() : "  <params>\n" + params + "  </params>";
    return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<methodResponse>\r\n" + block +
           "\r\n</methodResponse>\r\n";
}

void QBKelvoXMLRPCServer::sendXMLRPCMethodResponse(const std::vector<Value>& values,
                                                   QBTCPSocket& toSocket) {
    sendHTTPReplyWithStatus(200, {}, methodResponseDocument(values), toSocket);
}

bool QBKelvoXMLRPCServer::processXMLRPCRequest(std::string_view body, QBTCPSocket& forSocket) {
    const auto call = decodeMethodCall(body);
    if (!call) return false;
    auto result = performXMLMethod(call->name, call->params);
    if (!result) return false;
    sendXMLRPCMethodResponse({std::move(*result)}, forSocket);
    return true;
}
