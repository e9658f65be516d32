// QBVPNConfiguration, its document: loading text into commands, meta-commands and blocks, and
// querying and editing them.

#include "QBVPNConfiguration.h"

#include <algorithm>
#include <charconv>

#include "QBVPNConfigurationText.h"
#include "platform/QBFile.h"

using namespace qbvpnconfiguration;

namespace {

// Length in bytes of the line break that starts text, or 0: U+000A..U+000D, U+0085, U+2028
// and U+2029 in their UTF-8 forms.
std::size_t lineBreakLength(std::string_view text) {
    const auto byte = static_cast<unsigned char>(text.front());
    if (byte < 0x80) return byte >= 0x0A && byte <= 0x0D ? 1 : 0;
    if (text.starts_with("\xC2\x85")) return 2;
    if (text.starts_with("\xE2\x80\xA8") || text.starts_with("\xE2\x80\xA9")) return 3;
    return 0;
}

// Calls lineHandler with each line of valid UTF-8 text. Every line break ends a line, so CR LF
// yields an empty line between CR and LF, and text ending in a break yields a last empty line.
template <class LineHandler>
void forEachLine(std::string_view text, LineHandler&& lineHandler) {
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t breakLength = lineBreakLength(text.substr(i));
        if (breakLength == 0) {
            ++i;
            continue;
        }
        lineHandler(text.substr(start, i - start));
        i += breakLength;
        start = i;
    }
    lineHandler(text.substr(start));
}

// Path rules: trailing slashes are ignored, the root stays "/".
std::string_view withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    return path;
}

// The last path component.
std::string lastComponent(std::string_view path) {
    path = withoutTrailingSlashes(path);
    if (path == "/") return "/";
    const auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

}  // namespace

std::string qbvpnconfiguration::parentDirectory(std::string_view path) {
    path = withoutTrailingSlashes(path);
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos) return "";
    if (slash == 0) return "/";
    return std::string(withoutTrailingSlashes(path.substr(0, slash)));
}

QBVPNConfiguration::Parameter::Parameter(double number) {
    char text[32];  // the shortest round-trip form of a double needs at most 24 characters
    const auto result = std::to_chars(text, text + sizeof text, number);
    value.assign(text, result.ptr);
}

QBVPNConfiguration::QBVPNConfiguration() = default;
QBVPNConfiguration::~QBVPNConfiguration() = default;

// --- Loading ---

void QBVPNConfiguration::parse() {
    if (!filePath) return;
    const auto content = QBFile::readRegular(*filePath);
    if (!content) return;
    parseRawData(*content);
}

void QBVPNConfiguration::parseRawData(std::string_view text) {
    if (!QBText::isValidUTF8(text)) return;
    if (parseMultilineCommands) multilineCommands.emplace();
    bool inBlock = false;
    std::optional<std::string> blockName;  // nullopt: the hook gave no name, the block is dropped
    std::string blockText;
    forEachLine(text, [&](std::string_view line) {
        if (inBlock) {
            if (isMultilineCommandEnd(line, blockName.value_or(""))) {
                if (blockName) (*multilineCommands)[*blockName] = std::move(blockText);
                inBlock = false;
                blockText.clear();
            } else {
                blockText.append(line).push_back('\n');
            }
        } else if (parseMultilineCommands && isMultilineCommandStart(line)) {
            inBlock = true;
            blockName = multilineCommandNameForLine(line);
        } else if (line.starts_with(metaCommandPrefix)) {
            loadMetaCommandLine(line.substr(metaCommandPrefix.size()));
        } else {
            loadCommandLine(line);
        }
    });
    // A block still open when the text ends is dropped.
}

void QBVPNConfiguration::loadCommandLine(std::string_view line) {
    auto tokens = parseLine(line);
    if (!tokens) return;
    const std::string name = parseCommand(tokens->front());
    if (!allowUnknownCommands && !isKnown(knownCommands, name)) return;
    tokens->erase(tokens->begin());
    storeOccurrence(commands, name, std::move(*tokens));
}

void QBVPNConfiguration::loadMetaCommandLine(std::string_view rest) {
    auto tokens = parseLine(rest);
    if (!tokens) return;
    const std::string name = std::move(tokens->front());
    if (!allowUnknownCommands && !isKnown(knownMetaCommands, name)) return;
    tokens->erase(tokens->begin());
    storeOccurrence(metaCommands, name, std::move(*tokens));
}

// --- Queries ---

namespace {

// Removes name from a map keyed by std::string (C++20 maps erase only by the key type).
template <class Map>
void eraseName(Map& map, std::string_view name) {
    if (const auto found = map.find(name); found != map.end()) map.erase(found);
}

std::optional<QBVPNConfiguration::Parameters> lastOccurrence(
    const QBVPNConfiguration::CommandStore& store, std::string_view name) {
    const auto* occurrences = occurrencesOf(store, name);
    if (occurrences == nullptr) return std::nullopt;
    return occurrences->back();
}

std::optional<std::string> firstOfLastOccurrence(const QBVPNConfiguration::CommandStore& store,
                                                 std::string_view name) {
    const auto* occurrences = occurrencesOf(store, name);
    if (occurrences == nullptr || occurrences->back().empty()) return std::nullopt;
    return occurrences->back().front();
}

}  // namespace

std::optional<QBVPNConfiguration::Parameters> QBVPNConfiguration::getCommand(
    std::string_view name) const {
    return lastOccurrence(commands, name);
}

std::optional<QBVPNConfiguration::Parameters> QBVPNConfiguration::getMetaCommand(
    std::string_view name) const {
    return lastOccurrence(metaCommands, name);
}

std::optional<QBVPNConfiguration::Occurrences> QBVPNConfiguration::getCommands(
    std::string_view name) const {
    const auto* occurrences = occurrencesOf(commands, name);
    if (occurrences == nullptr) return std::nullopt;
    return *occurrences;
}

std::optional<QBVPNConfiguration::Occurrences> QBVPNConfiguration::getMetaCommands(
    std::string_view name) const {
    const auto* occurrences = occurrencesOf(metaCommands, name);
    if (occurrences == nullptr) return std::nullopt;
    return *occurrences;
}

std::optional<std::string> QBVPNConfiguration::getFirstParameterForCommand(
    std::string_view name) const {
    return firstOfLastOccurrence(commands, name);
}

std::optional<std::string> QBVPNConfiguration::getFirstParameterForMetaCommand(
    std::string_view name) const {
    return firstOfLastOccurrence(metaCommands, name);
}

std::string QBVPNConfiguration::getFirstParameterForCommandAsString(std::string_view name) const {
    return getFirstParameterForCommand(name).value_or("");
}

std::string QBVPNConfiguration::getFirstParameterForMetaCommandAsString(
    std::string_view name) const {
    return getFirstParameterForMetaCommand(name).value_or("");
}

bool QBVPNConfiguration::commandExists(std::string_view name) const {
    return occurrencesOf(commands, name) != nullptr;
}

bool QBVPNConfiguration::metaCommandExists(std::string_view name) const {
    return occurrencesOf(metaCommands, name) != nullptr;
}

// --- Editing ---

bool QBVPNConfiguration::isKnown(const std::vector<std::string>& known,
                                 std::string_view name) const {
    return std::find(known.begin(), known.end(), name) != known.end();
}

void QBVPNConfiguration::storeOccurrence(CommandStore& store, std::string_view name,
                                         Parameters parameters) {
    auto found = store.find(name);
    if (found == store.end()) found = store.emplace(std::string(name), Occurrences{}).first;
    found->second.push_back(std::move(parameters));
}

void QBVPNConfiguration::setCommand(std::string_view name,
                                    const std::optional<ParameterList>& parameters,
                                    bool appendIfExists, bool isMetaCommand) {
    CommandStore& store = isMetaCommand ? metaCommands : commands;
    if (!allowUnknownCommands && !isKnown(isMetaCommand ? knownMetaCommands : knownCommands, name))
        return;
    Parameters occurrence;
    if (parameters) {
        occurrence.reserve(parameters->size());
        for (const auto& parameter : *parameters) occurrence.push_back(parameter.text());
    }
    if (!appendIfExists) eraseName(store, name);
    storeOccurrence(store, name, std::move(occurrence));
}

void QBVPNConfiguration::setCommand(std::string_view name) {
    setCommand(name, std::nullopt, false, false);
}

void QBVPNConfiguration::setCommand(std::string_view name, const ParameterList& parameters) {
    setCommand(name, parameters, false, false);
}

void QBVPNConfiguration::addCommand(std::string_view name, const ParameterList& parameters) {
    setCommand(name, parameters, true, false);
}

void QBVPNConfiguration::setMetaCommand(std::string_view name) {
    setCommand(name, std::nullopt, false, true);
}

void QBVPNConfiguration::setMetaCommand(std::string_view name, const ParameterList& parameters) {
    setCommand(name, parameters, false, true);
}

void QBVPNConfiguration::addMetaCommand(std::string_view name, const ParameterList& parameters) {
    setCommand(name, parameters, true, true);
}

void QBVPNConfiguration::removeCommand(std::string_view name) {
    eraseName(commands, name);
}

void QBVPNConfiguration::removeMetaCommand(std::string_view name) {
    eraseName(metaCommands, name);
}

// --- Multi-line blocks ---

std::optional<std::string> QBVPNConfiguration::getMultilineCommand(std::string_view name) const {
    if (!multilineCommands) return std::nullopt;
    const auto found = multilineCommands->find(name);
    if (found == multilineCommands->end()) return std::nullopt;
    return found->second;
}

std::optional<QBVPNConfiguration::BlockStore> QBVPNConfiguration::getMultilineCommands() const {
    return multilineCommands;
}

void QBVPNConfiguration::setMultilineCommand(std::string_view name, std::string_view text) {
    if (!multilineCommands) multilineCommands.emplace();
    multilineCommands->insert_or_assign(std::string(name), std::string(text));
}

void QBVPNConfiguration::removeMultilineCommand(std::string_view name) {
    if (multilineCommands) eraseName(*multilineCommands, name);
}

void QBVPNConfiguration::removeAllMultilineCommands() {
    multilineCommands.reset();
}

bool QBVPNConfiguration::multilineCommandExists(std::string_view name) const {
    return multilineCommands && multilineCommands->find(name) != multilineCommands->end();
}

bool QBVPNConfiguration::isMultilineCommandStart(std::string_view) const {
    return false;
}

bool QBVPNConfiguration::isMultilineCommandEnd(std::string_view, std::string_view) const {
    return false;
}

std::optional<std::string> QBVPNConfiguration::multilineCommandNameForLine(std::string_view) const {
    return std::nullopt;
}

std::optional<std::string> QBVPNConfiguration::multilineCommandStartForName(
    std::string_view) const {
    return std::nullopt;
}

std::optional<std::string> QBVPNConfiguration::multilineCommandEndForName(std::string_view) const {
    return std::nullopt;
}

// --- File path and naming ---

std::optional<std::string> QBVPNConfiguration::getSavePathParentDirectory() const {
    if (!filePath) return std::nullopt;
    return parentDirectory(*filePath);
}

std::optional<std::string> QBVPNConfiguration::getConnectionID() const {
    const auto directory = getSavePathParentDirectory();
    if (!directory) return std::nullopt;
    return lastComponent(*directory);
}

std::optional<std::string> QBVPNConfiguration::displayName() const {
    const auto words = getMetaCommand("name");
    if (!words) return std::nullopt;
    std::string name;
    for (std::size_t i = 0; i < words->size(); ++i) {
        if (i > 0) name.push_back(' ');
        name += (*words)[i];
    }
    return name;
}

void QBVPNConfiguration::sanitize() {}
