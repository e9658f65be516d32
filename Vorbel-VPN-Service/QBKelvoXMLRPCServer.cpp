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
//
// The body is converted to UTF-16 once; every search then runs on a region of that one text and
// yields a span of it, so nested elements are found without copying their contents.

// A run [start, limit) of UTF-16 code units of the text being decoded.
struct Span {
    std::int32_t start;
    std::int32_t limit;
};

// The element pattern is "<tag>(.+?)</tag>" with "." matching line ends too: the content is the
// shortest run of at least one character that is followed by the closing tag. It is written as
// one character, then runs that stop only at a "<" beginning the closing tag. That finds exactly
// the same matches (the run ends at the first closing tag after the first character; where there
// is none, no later start can match either), but ICU scans it in a tight loop instead of trying
// the closing tag after every character: about three times faster on a typical call.
std::string tagPatternSource(std::string_view tag) {
    const std::string name(tag);
    return "<" + name + ">(.[^<]*(?:<(?!/" + name + ">)[^<]*)*)</" + name + ">";
}

std::unique_ptr<icu::RegexPattern> compileTagPattern(std::string_view tag) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexPattern> pattern(icu::RegexPattern::compile(
        icu::UnicodeString::fromUTF8(tagPatternSource(tag)), UREGEX_DOTALL, status));
    return U_SUCCESS(status) ? std::move(pattern) : nullptr;
}

// The tags a method call is decoded with.
enum class Tag { methodCall, methodName, params, param, value, string, integer, i4 };
constexpr std::array<std::string_view, 8> tagNames{"methodCall", "methodName", "params", "param",
                                                   "value",      "string",     "int",    "i4"};

// The patterns of the fixed tags, compiled once. A compiled pattern may be shared by threads.
class TagPatterns {
public:
    static const TagPatterns& shared() {
        static const TagPatterns patterns;
        return patterns;
    }
    const icu::RegexPattern* pattern(Tag tag) const {
        return compiled[static_cast<std::size_t>(tag)].get();
    }
    static std::optional<Tag> fixedTag(std::string_view name) {
        for (std::size_t i = 0; i < tagNames.size(); ++i) {
            if (tagNames[i] == name) return static_cast<Tag>(i);
        }
        return std::nullopt;
    }

private:
    TagPatterns() {
        for (std::size_t i = 0; i < tagNames.size(); ++i) {
            compiled[i] = compileTagPattern(tagNames[i]);
        }
    }
    std::array<std::unique_ptr<icu::RegexPattern>, tagNames.size()> compiled;
};

// A matcher may not be shared by threads; each thread keeps one per fixed tag, made on first
// use and reused for every search (making one costs more than a short search).
icu::RegexMatcher* threadMatcher(Tag tag) {
    thread_local std::array<std::unique_ptr<icu::RegexMatcher>, tagNames.size()> matchers;
    auto& matcher = matchers[static_cast<std::size_t>(tag)];
    if (!matcher) {
        const auto* pattern = TagPatterns::shared().pattern(tag);
        UErrorCode status = U_ZERO_ERROR;
        if (pattern) matcher.reset(pattern->matcher(status));
        if (U_FAILURE(status)) matcher.reset();
    }
    return matcher.get();
}

// Contents of the first (or every) element that matcher finds within the span of text.
std::vector<Span> findElements(icu::RegexMatcher& matcher, const icu::UnicodeString& text,
                               Span within, bool all) {
    std::vector<Span> found;
    UErrorCode status = U_ZERO_ERROR;
    matcher.reset(text);
    matcher.region(within.start, within.limit, status);
    while (U_SUCCESS(status) && matcher.find(status) && U_SUCCESS(status)) {
        found.push_back(Span{matcher.start(1, status), matcher.end(1, status)});
        if (!all) break;
    }
    matcher.reset(icu::UnicodeString());  // keep no reference to text
    return U_SUCCESS(status) ? found : std::vector<Span>{};
}

std::optional<Span> firstElement(Tag tag, const icu::UnicodeString& text, Span within) {
    auto* matcher = threadMatcher(tag);
    if (!matcher) return std::nullopt;
    const auto found = findElements(*matcher, text, within, false);
    if (found.empty()) return std::nullopt;
    return found.front();
}

std::vector<Span> allElements(Tag tag, const icu::UnicodeString& text, Span within) {
    auto* matcher = threadMatcher(tag);
    return matcher ? findElements(*matcher, text, within, true) : std::vector<Span>{};
}

// Element contents for any tag name, for the public text operations.
std::vector<std::string> elementTexts(std::string_view tag, std::string_view data, bool all) {
    const auto text = icu::UnicodeString::fromUTF8(data);
    const Span whole{0, text.length()};
    std::vector<Span> spans;
    if (const auto fixed = TagPatterns::fixedTag(tag)) {
        spans = all ? allElements(*fixed, text, whole) : std::vector<Span>();
        if (!all) {
            if (const auto first = firstElement(*fixed, text, whole)) spans.push_back(*first);
        }
    } else if (const auto pattern = compileTagPattern(tag)) {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(status));
        if (U_SUCCESS(status)) spans = findElements(*matcher, text, whole, all);
    }
    std::vector<std::string> contents;
    for (const auto span : spans) {
        contents.emplace_back();
        text.tempSubStringBetween(span.start, span.limit).toUTF8String(contents.back());
    }
    return contents;
}

std::string toUTF8(const icu::UnicodeString& text, Span span) {
    std::string utf8;
    text.tempSubStringBetween(span.start, span.limit).toUTF8String(utf8);
    return utf8;
}

// An int or i4 element's text: leading white space, an optional sign, digits; 0 without a
// number; clamped to the 32 bits the element holds.
std::int64_t int32Value(const icu::UnicodeString& text, Span span) {
    return std::clamp<std::int64_t>(QBText::scanLeadingInteger(toUTF8(text, span)),
                                    std::numeric_limits<std::int32_t>::min(),
                                    std::numeric_limits<std::int32_t>::max());
}

// A parameter's value, or nullopt when its kind is not understood (it then drops out).
std::optional<QBKelvoXMLRPCServer::Value> decodeParam(const icu::UnicodeString& text, Span param) {
    const auto value = firstElement(Tag::value, text, param);
    if (!value) return std::nullopt;
    if (const auto string = firstElement(Tag::string, text, *value)) return toUTF8(text, *string);
    if (const auto number = firstElement(Tag::integer, text, *value)) {
        return int32Value(text, *number);
    }
    if (const auto number = firstElement(Tag::i4, text, *value)) return int32Value(text, *number);
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
// give an empty part between them. ASCII bytes are tested directly, other code points decoded.
template <typename Predicate>
std::vector<std::string_view> splitAt(std::string_view text, Predicate isSeparator) {
    std::vector<std::string_view> parts;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::int32_t partStart = 0;
    for (std::int32_t next = 0; next < length;) {
        const std::int32_t at = next;
        UChar32 c = bytes[next];
        if (c < 0x80) {
            ++next;
        } else {
            U8_NEXT(bytes, next, length, c);
        }
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
    return c < 0x80 ? (c >= 0x0A && c <= 0x0D) : QBText::isNewline(c);
}

// Inside a line (already split at line breaks) this is the white-space class: Zs and tab.
bool isBlank(char32_t c) {
    return c < 0x80 ? (c == ' ' || (c >= 0x09 && c <= 0x0D)) : QBText::isWhitespaceOrNewline(c);
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

QBKelvoXMLRPCServer::RequestHead QBKelvoXMLRPCServer::parseRequestHead(
    std::string_view headerBlock) {
    RequestHead head;
    const auto lines = splitAt(headerBlock, [](char32_t c) { return isLineBreak(c); });
    head.requestLine = splitAt(lines.front(), [](char32_t c) { return isBlank(c); });
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const auto colon = lines[i].find(':');
        if (colon == std::string_view::npos) continue;
        head.headers.emplace_back(trimBlanks(lines[i].substr(0, colon)),
                                  lines[i].substr(colon + 1));
    }
    return head;
}

std::optional<std::string_view> QBKelvoXMLRPCServer::RequestHead::header(
    std::string_view name) const {
    for (auto entry = headers.rbegin(); entry != headers.rend(); ++entry) {
        if (entry->first == name) return entry->second;
    }
    return std::nullopt;
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
    const auto lengthHeader = head.header("Content-Length");
    const std::int64_t length = lengthHeader ? QBText::scanLeadingInteger(*lengthHeader) : 0;
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
        case 200:
            return "OK";
        case 400:
            return "Bad request";
        case 403:
            return "Forbidden";
        case 404:
            return "Not found";
        case 500:
            return "Internal Error";
        case 501:
            return "Not implemented";
        default:
            return "";
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

std::optional<std::string> QBKelvoXMLRPCServer::getXMLTag(std::string_view tag,
                                                          std::string_view inData) {
    auto contents = elementTexts(tag, inData, false);
    if (contents.empty()) return std::nullopt;
    return std::move(contents.front());
}

std::vector<std::string> QBKelvoXMLRPCServer::getAllXMLTags(std::string_view tag,
                                                            std::string_view inData) {
    return elementTexts(tag, inData, true);
}

std::optional<QBKelvoXMLRPCServer::MethodCall> QBKelvoXMLRPCServer::decodeMethodCall(
    std::string_view body) {
    const auto text = icu::UnicodeString::fromUTF8(body);
    const auto call = firstElement(Tag::methodCall, text, Span{0, text.length()});
    if (!call) return std::nullopt;
    const auto name = firstElement(Tag::methodName, text, *call);
    if (!name) return std::nullopt;
    MethodCall decoded{toUTF8(text, *name), {}};
    if (const auto block = firstElement(Tag::params, text, *call)) {
        for (const auto param : allElements(Tag::param, text, *block)) {
            if (auto value = decodeParam(text, param)) decoded.params.push_back(std::move(*value));
        }
    }
    return decoded;
}

std::optional<QBKelvoXMLRPCServer::Value> QBKelvoXMLRPCServer::performXMLMethod(
    const std::string& name, const std::vector<Value>& withParams) {
    if (!bridgeCommands_) return std::nullopt;
    for (const auto& command : commandTable) {
        if (command.name != name) continue;
        const auto& arguments =
            withParams.size() >= command.needs ? withParams : fallbackArguments();
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
            params += "<int>" +
                      std::to_string(static_cast<std::int32_t>(std::get<std::int64_t>(value))) +
                      "</int>";
        }
        params += "</value>\r\n    </param>\r\n";
    }
    const std::string block =
        values.empty() ? std::string() : "  <params>\n" + params + "  </params>";
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
