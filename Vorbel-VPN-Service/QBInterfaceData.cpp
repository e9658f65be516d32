#include "QBInterfaceData.h"

#include <string>

#include "QBVPNConfiguration.h"
#include "platform/QBText.h"

namespace {

using Tokens = QBVPNConfiguration::Parameters;

// Splits valid UTF-8 at every line break: LF, VT, FF, CR, U+0085, U+2028 and U+2029.
std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        std::size_t breakLength = 0;
        if (byte >= 0x0A && byte <= 0x0D) {
            breakLength = 1;
        } else if (text.substr(i, 2) == "\xC2\x85") {
            breakLength = 2;
        } else if (text.substr(i, 3) == "\xE2\x80\xA8" || text.substr(i, 3) == "\xE2\x80\xA9") {
            breakLength = 3;
        }
        if (breakLength == 0) {
            ++i;
            continue;
        }
        lines.push_back(text.substr(start, i - start));
        i += breakLength;
        start = i;
    }
    lines.push_back(text.substr(start));
    return lines;
}

std::int64_t integerOf(const std::string& token) { return QBText::scanLeadingInteger(token); }

// iproute2 leads a line with "N: name" (the link line and every line of -o output).
bool dropLinkPrefix(Tokens& tokens) {
    const auto& first = tokens.front();
    if (tokens.size() < 2 || first.size() < 2 || first.back() != ':' ||
        first.find_first_not_of("0123456789") != first.size() - 1) {
        return false;
    }
    tokens.erase(tokens.begin(), tokens.begin() + 2);
    return true;
}

// "A/P" -> (A, P); "A" -> (A, fullPrefix).
std::pair<std::string, std::int64_t> splitPrefix(const std::string& text, std::int64_t fullPrefix) {
    const auto slash = text.find('/');
    if (slash == std::string::npos) return {text, fullPrefix};
    return {text.substr(0, slash), integerOf(text.substr(slash + 1))};
}

std::string withoutZone(const std::string& address) { return address.substr(0, address.find('%')); }

// iproute2: "inet A/P ...", "inet A peer B/Q ...", and the same with inet6.
bool readIPRouteAddress(const Tokens& tokens, QBInterfaceData& data) {
    if (tokens.size() < 2 || (tokens[0] != "inet" && tokens[0] != "inet6")) return false;
    const bool pointToPoint = tokens.size() >= 4 && tokens[2] == "peer";
    if (!pointToPoint && tokens[1].find('/') == std::string::npos) return false;
    const bool v4 = tokens[0] == "inet";
    const std::int64_t full = v4 ? 32 : 128;
    auto [local, prefix] = splitPrefix(tokens[1], full);
    std::optional<QBIPAddress> peer;
    if (pointToPoint) {
        const auto [peerAddress, peerPrefix] = splitPrefix(tokens[3], full);
        prefix = peerPrefix;
        peer.emplace(peerAddress);
    }
    if (v4) {
        data.inet.emplace_back(QBIPNetwork(local, prefix), std::move(peer));
    } else {
        data.inet6.emplace_back(withoutZone(local), prefix);
    }
    return true;
}

// ifconfig: the rules for its inet, inet6, ether and mtu lines; the first that matches applies.
void readIfconfigLine(const Tokens& tokens, QBInterfaceData& data) {
    const auto count = tokens.size();
    if (count == 6 && tokens[0] == "inet" && tokens[2] == "-->") {
        data.inet.emplace_back(QBIPNetwork(tokens[1], tokens[5]), QBIPAddress(tokens[3]));
    } else if (count == 6 && tokens[0] == "inet") {
        data.inet.emplace_back(QBIPNetwork(tokens[1], tokens[3]), std::nullopt);
    } else if (count == 4 && tokens[0] == "inet" && tokens[2] == "netmask") {
        // Some ifconfig versions print no broadcast for a host alias.
        data.inet.emplace_back(QBIPNetwork(tokens[1], tokens[3]), std::nullopt);
    } else if (count >= 4 && tokens[0] == "inet6") {
        data.inet6.emplace_back(withoutZone(tokens[1]), integerOf(tokens[3]));
    } else if (count == 2 && tokens[0] == "ether") {
        data.ether.emplace(tokens[1]);
    } else if (count == 4 && tokens[2] == "mtu") {
        data.mtu = integerOf(tokens[3]);
    }
}

// iproute2's link line ("<FLAGS> mtu N ...", after its "N: name" lead) and "link/ether X ...".
bool readIPRouteLink(const Tokens& tokens, bool hadLinkPrefix, QBInterfaceData& data) {
    if (tokens.size() >= 2 && tokens[0] == "link/ether") {
        data.ether.emplace(tokens[1]);
        return true;
    }
    if (!hadLinkPrefix) return false;
    for (std::size_t i = 0; i + 1 < tokens.size(); ++i) {
        if (tokens[i] == "mtu") {
            data.mtu = integerOf(tokens[i + 1]);
            return true;
        }
    }
    return false;
}

}  // namespace

QBInterfaceData QBInterfaceData::parse(std::string_view toolOutput) {
    QBInterfaceData data;
    if (!QBText::isValidUTF8(toolOutput)) return data;
    const QBVPNConfiguration tokenizer;
    for (const auto line : splitLines(toolOutput)) {
        auto tokens = tokenizer.parseLine(line);
        if (!tokens || tokens->empty()) continue;
        const bool hadLinkPrefix = dropLinkPrefix(*tokens);
        if (tokens->empty()) continue;
        if (readIPRouteAddress(*tokens, data) || readIPRouteLink(*tokens, hadLinkPrefix, data)) {
            continue;
        }
        readIfconfigLine(*tokens, data);
    }
    return data;
}

bool QBInterfaceData::listsIPv4Address(const std::string& address) const {
    for (const auto& [network, peer] : inet) {
        if (network.address() == address) return true;
    }
    return false;
}
