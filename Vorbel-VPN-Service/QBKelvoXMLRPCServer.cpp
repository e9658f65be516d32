#include "QBKelvoXMLRPCServer.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <limits>
#include <span>

#include "platform/QBLog.h"
#include "platform/QBText.h"

namespace {

// ---- Element extraction ---------------------------------------------------------------------
//
// An element's content is what the pattern "<tag>(.+?)</tag>" captures, "." matching line ends
// too: the shortest run of at least one character that is followed by the closing tag. On UTF-8
// text that is a plain search: the opening tag, then the first closing tag that starts at least
// one byte after it (the closing tag begins with "<", which never occurs inside a multi-byte
// character, so one byte stands for the one character). Where the first opening tag has no such
// closing tag, no later opening tag has one either. Searches run within a span of the text and
// yield spans of it, so nested elements are found without copying.

// A run [start, limit) of bytes of the text being decoded.
struct Span {
    std::size_t start;
    std::size_t limit;
};

struct TagMarks {
    explicit TagMarks(std::string_view tag)
        : open("<" + std::string(tag) + ">"), close("</" + std::string(tag) + ">") {}
    const std::string open;
    const std::string close;
};

std::optional<Span> firstElement(const TagMarks& tag, std::string_view text, Span within) {
    const auto region = text.substr(0, within.limit);
    const auto openAt = region.find(tag.open, within.start);
    if (openAt == std::string_view::npos) return std::nullopt;
    const auto contentStart = openAt + tag.open.size();
    if (contentStart >= region.size()) return std::nullopt;
    const auto closeAt = region.find(tag.close, contentStart + 1);
    if (closeAt == std::string_view::npos) return std::nullopt;
    return Span{contentStart, closeAt};
}

std::optional<Span> firstElement(std::string_view tag, std::string_view text, Span within) {
    return firstElement(TagMarks(tag), text, within);
}

// Every element in turn: each search starts where the previous element's closing tag ends.
std::vector<Span> allElements(std::string_view tag, std::string_view text, Span within) {
    const TagMarks marks(tag);
    std::vector<Span> found;
    while (const auto element = firstElement(marks, text, within)) {
        found.push_back(*element);
        within.start = element->limit + marks.close.size();
    }
    return found;
}

std::string textOf(std::string_view text, Span span) {
    return std::string(text.substr(span.start, span.limit - span.start));
}

// An int or i4 element's text: leading white space, an optional sign, digits; 0 without a
// number; clamped to the 32 bits the element holds.
std::int64_t int32Value(std::string_view text, Span span) {
    return std::clamp<std::int64_t>(
        QBText::scanLeadingInteger(text.substr(span.start, span.limit - span.start)),
        std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max());
}

// A parameter's value, or nullopt when its kind is not understood (it then drops out).
std::optional<QBKelvoXMLRPCServer::Value> decodeParam(std::string_view text, Span param) {
    const auto value = firstElement("value", text, param);
    if (!value) return std::nullopt;
    if (const auto string = firstElement("string", text, *value)) return textOf(text, *string);
    if (const auto number = firstElement("int", text, *value)) return int32Value(text, *number);
    if (const auto number = firstElement("i4", text, *value)) return int32Value(text, *number);
    return std::nullopt;
}

// ---- Dispatch -------------------------------------------------------------------------------

using Value = QBKelvoXMLRPCServer::Value;
using Params = std::vector<Value>;

// A string argument: the string, or the decimal text of an int given in its place.
std::string argumentText(const Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return *text;
    return std::to_string(std::get<std::int64_t>(value));
}

// A port argument: the number, or a string read as a decimal integer (0 without one).
std::int64_t integerOf(const Value& value) {
    if (const auto* number = std::get_if<std::int64_t>(&value)) return *number;
    return QBText::scanLeadingInteger(std::get<std::string>(value));
}

using Method = QBKelvoBridgeCommands::Method;
using Takes = QBKelvoBridgeCommands::Takes;

// The parameters of a call as its method's arguments, by position, as the method takes them.
// With fewer parameters than it needs, every argument is the empty string or 0.
QBKelvoBridgeCommands::Arguments argumentsOf(const Method& method, const Params& p) {
    if (p.size() < method.needs()) return {};
    switch (method.takes) {
        case Takes::nothing:
            return {};
        case Takes::server:
            return {argumentText(p[0]), integerOf(p[1]), integerOf(p[2]), {}};
        case Takes::serverAndToken:
            return {argumentText(p[0]), integerOf(p[1]), integerOf(p[2]), argumentText(p[3])};
        case Takes::token:
            return {{}, 0, 0, argumentText(p[0])};
    }
    return {};
}

// ---- HTTP pieces ----------------------------------------------------------------------------

constexpr std::string_view xmlDeclarationStart = "<?xml version=\"1.0\"";
constexpr std::string_view headerBlockTerminator = "\r\n\r\n";

using Close = QBTCPEventServer::Close;
using Defer = QBTCPEventServer::Defer;
using Offload = QBTCPEventServer::Offload;
using Reply = QBTCPEventServer::Reply;
using Wait = QBTCPEventServer::Wait;

// Stages of a connection between requests, for the event server's time-outs.
enum Stage { idleStage, headerStage, bodyStage };

// The preflight answer never changes: made once.
const std::string& preflightReply() {
    static const std::string reply = QBKelvoXMLRPCServer::httpReply(
        200,
        {{"Access-Control-Allow-Headers", "Origin, X-Requested-With, Content-Type, Accept"},
         {"Access-Control-Allow-Origin", "*"},
         {"Access-Control-Allow-Methods", "POST, OPTIONS"}},
        "");
    return reply;
}

// Splits UTF-8 text at every code point for which isSeparator holds; two separators in a row
// give an empty part between them. ASCII bytes are tested directly, other code points decoded.
// Room for expectedParts is made at once, so a usual request grows no vector.
template <typename Predicate>
std::vector<std::string_view> splitAt(std::string_view text, std::size_t expectedParts, Predicate isSeparator) {
    std::vector<std::string_view> parts;
    parts.reserve(expectedParts);
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
      lumentideIPC(std::move(andIPC)),
      bridgeCommands(std::move(bridgeCommands)),
      _serverSocket(QBTCPSocket::socket()),
      _settings(settings),
      eventServer(*this, _settings.serving) {}

void QBKelvoXMLRPCServer::serve() {
    if (!_serverSocket->listenOnAddress(_address, _port)) return;
    eventServer.serve(_serverSocket->fileDescriptor());
    _serverSocket->close();
}

void QBKelvoXMLRPCServer::shutdown() {
    eventServer.shutdown();
}

void QBKelvoXMLRPCServer::clientConnected() {
    QBLog::log("Client connected");
}

// ---- Reading a request ----------------------------------------------------------------------

QBKelvoXMLRPCServer::RequestHead QBKelvoXMLRPCServer::parseRequestHead(
    std::string_view headerBlock) {
    RequestHead head;
    // A browser's request has a dozen header lines or so, and its request line three parts.
    const auto lines = splitAt(headerBlock, 24, [](char32_t c) { return isLineBreak(c); });
    head.requestLine = splitAt(lines.front(), 3, [](char32_t c) { return isBlank(c); });
    head.headers.reserve(lines.size() - 1);
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

QBKelvoXMLRPCServer::Step QBKelvoXMLRPCServer::readHTTPRequest(std::string_view pending,
                                                                std::size_t alreadySeen) {
    if (pending.empty()) return Wait{idleStage, _settings.idleTimeout};
    // The terminator may straddle the bytes seen before and the new ones.
    const auto from = alreadySeen > headerBlockTerminator.size()
                          ? alreadySeen - (headerBlockTerminator.size() - 1)
                          : 0;
    const auto terminator = pending.find(headerBlockTerminator, from);
    if (terminator == std::string_view::npos) {
        if (pending.size() >= maxHeaderBlockLength) return Close{};
        return Wait{headerStage, _settings.headerBlockTimeout};
    }
    const auto blockLength = terminator + headerBlockTerminator.size();
    if (blockLength > maxHeaderBlockLength) return Close{};
    // The block is consumed whole, but as text it ends at its first NUL byte, as a C string
    // read from the socket does: nothing after a NUL is a header.
    auto block = pending.substr(0, blockLength);
    block = block.substr(0, block.find('\0'));
    if (!QBText::isValidUTF8(block)) return Close{};
    const auto head = parseRequestHead(block);
    if (head.requestLine.size() < 2) return Close{};
    const auto& method = head.requestLine[0];
    if (!contains(allowedMethods, method) || !contains(allowedPaths, head.requestLine[1])) {
        return Close{};
    }
    if (method == "OPTIONS") return Reply{blockLength, preflightReply()};
    if (method == "POST") return answerPost(head, pending, blockLength);
    return Close{};
}

QBKelvoXMLRPCServer::Step QBKelvoXMLRPCServer::answerPost(const RequestHead& head,
                                                          std::string_view pending,
                                                          std::size_t blockLength) {
    const auto lengthHeader = head.header("Content-Length");
    const std::int64_t length = lengthHeader ? QBText::scanLeadingInteger(*lengthHeader) : 0;
    if (length < 1 || length > maxBodyLength) return Close{};
    const auto requestLength = blockLength + static_cast<std::size_t>(length);
    if (pending.size() < requestLength) {
        return Wait{bodyStage, _settings.bodyTimeout, requestLength};
    }
    // The body as text: up to its first NUL byte, and only when that is UTF-8.
    auto body = pending.substr(blockLength, static_cast<std::size_t>(length));
    body = body.substr(0, body.find('\0'));
    if (!QBText::isValidUTF8(body) || !body.starts_with(xmlDeclarationStart)) {
        return Close{};
    }
    return processXMLRPCRequest(body, requestLength);
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
    using Header = std::pair<std::string_view, std::string_view>;
    // Every reply carries these; they replace a given header of the same name.
    const std::string contentLength = std::to_string(content.size());
    const std::array<Header, 6> fixed{{{"Access-Control-Allow-Origin", "*"},
                                       {"Cache-Control", "no-cache"},
                                       {"Content-Length", contentLength},
                                       {"Content-Type", "text/xml"},
                                       {"Pragma", "no-cache"},
                                       {"Server", "MacTunnelwright/1.1"}}};
    // In the order of their names, as a map of them would list them. The fixed ones are in that
    // order already; only a reply with headers of its own (the preflight's, made once) merges.
    std::vector<Header> merged;
    if (!headers.empty()) {
        merged.assign(fixed.begin(), fixed.end());
        for (const auto& given : headers) {
            const bool replaced = std::any_of(fixed.begin(), fixed.end(), [&](const Header& header) {
                return header.first == given.first;
            });
            if (!replaced) merged.emplace_back(given.first, given.second);
        }
        std::sort(merged.begin(), merged.end(),
                  [](const Header& a, const Header& b) { return a.first < b.first; });
    }
    const std::span<const Header> all =
        headers.empty() ? std::span<const Header>(fixed) : std::span<const Header>(merged);

    const std::string statusText = std::to_string(status);
    const std::string_view reason = reasonPhrase(status);
    std::size_t size = 9 + statusText.size() + 1 + reason.size() + 2 + 2 + content.size();
    for (const auto& [name, value] : all) size += name.size() + 2 + value.size() + 2;
    std::string reply;
    reply.reserve(size);
    reply += "HTTP/1.1 ";
    reply += statusText;
    reply += ' ';
    reply += reason;
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

// ---- XML-RPC --------------------------------------------------------------------------------

std::optional<std::string> QBKelvoXMLRPCServer::getXMLTag(std::string_view tag,
                                                          std::string_view inData) {
    const auto element = firstElement(tag, inData, Span{0, inData.size()});
    if (!element) return std::nullopt;
    return textOf(inData, *element);
}

std::vector<std::string> QBKelvoXMLRPCServer::getAllXMLTags(std::string_view tag,
                                                            std::string_view inData) {
    std::vector<std::string> contents;
    for (const auto element : allElements(tag, inData, Span{0, inData.size()})) {
        contents.push_back(textOf(inData, element));
    }
    return contents;
}

std::optional<QBKelvoXMLRPCServer::MethodCall> QBKelvoXMLRPCServer::decodeMethodCall(
    std::string_view body) {
    const auto call = firstElement("methodCall", body, Span{0, body.size()});
    if (!call) return std::nullopt;
    const auto name = firstElement("methodName", body, *call);
    if (!name) return std::nullopt;
    MethodCall decoded{textOf(body, *name), {}};
    if (const auto block = firstElement("params", body, *call)) {
        for (const auto param : allElements("param", body, *block)) {
            if (auto value = decodeParam(body, param)) decoded.params.push_back(std::move(*value));
        }
    }
    return decoded;
}

std::optional<QBKelvoXMLRPCServer::Value> QBKelvoXMLRPCServer::performXMLMethod(
    const std::string& name, const std::vector<Value>& withParams) {
    const auto* method = bridgeCommands ? QBKelvoBridgeCommands::methodNamed(name) : nullptr;
    if (!method) return std::nullopt;
    return method->call(*bridgeCommands, argumentsOf(*method, withParams));
}

std::string QBKelvoXMLRPCServer::methodResponseDocument(const std::vector<Value>& values) {
    constexpr std::string_view start = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<methodResponse>\r\n";
    constexpr std::string_view end = "\r\n</methodResponse>\r\n";
    constexpr std::string_view paramsStart = "  <params>\n";
    constexpr std::string_view paramsEnd = "  </params>";
    constexpr std::string_view paramStart = "    <param>\r\n      <value>";
    constexpr std::string_view paramEnd = "</value>\r\n    </param>\r\n";
    // Room for the whole document at once: the fixed text, each value's markup (at most
    // "<string></string>") and its text (an int's at most 11 characters).
    std::size_t size = start.size() + paramsStart.size() + paramsEnd.size() + end.size();
    for (const auto& value : values) {
        const auto* text = std::get_if<std::string>(&value);
        size += paramStart.size() + 17 + (text ? text->size() : 11) + paramEnd.size();
    }
    std::string document;
    document.reserve(size);
    document += start;
    if (!values.empty()) document += paramsStart;
    for (const auto& value : values) {
        document += paramStart;
        if (const auto* text = std::get_if<std::string>(&value)) {
            document += "<string>";
            document += *text;
            document += "</string>";
        } else {
            // An int element holds 32 bits; a wider number keeps its low 32 bits.
            document += "<int>";
            document += std::to_string(static_cast<std::int32_t>(std::get<std::int64_t>(value)));
            document += "</int>";
        }
        document += paramEnd;
    }
    if (!values.empty()) document += paramsEnd;
    document += end;
    return document;
}

std::string QBKelvoXMLRPCServer::methodResponseReply(const std::vector<Value>& values) {
    return httpReply(200, {}, methodResponseDocument(values));
}

QBKelvoXMLRPCServer::Step QBKelvoXMLRPCServer::processXMLRPCRequest(std::string_view body,
                                                                    std::size_t consumed) {
    auto call = decodeMethodCall(body);
    if (!call) return Close{};
    const auto* method = bridgeCommands ? QBKelvoBridgeCommands::methodNamed(call->name) : nullptr;
    if (!method) return Close{};
    const auto arguments = argumentsOf(*method, call->params);
    if (bridgeCommands->answersAtOnce(method->name)) {
        return Reply{consumed, methodResponseReply({method->call(*bridgeCommands, arguments)})};
    }
    // A command that can go on without a thread (its GUI application is connected) is started
    // here and answered when its result comes; one that may wait runs on a pool thread. The
    // server outlives both, since serve() returns only after every request has had its answer.
    return Defer{
        consumed,
        [this, method, arguments](const QBTCPEventServer::Finish& finish) {
            return bridgeCommands->startCommand(
                method->name, arguments,
                [finish](Value result) { finish(methodResponseReply({std::move(result)})); });
        },
        [this, method, arguments]() -> std::optional<std::string> {
            return methodResponseReply({method->call(*bridgeCommands, arguments)});
        }};
}
