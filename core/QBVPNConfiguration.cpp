#include "QBVPNConfiguration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unicode/ustring.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <new>

#include "platform/QBFile.h"
#include "platform/QBText.h"

namespace {

constexpr char16_t escapeUnit = u'\\';
constexpr char16_t quoteUnit = u'"';
// Longest UTF-8 form of one UTF-16 code unit; a line of more bytes than maxLineLength times this
// has more code units than maxLineLength, so it is refused before any conversion.
constexpr std::size_t maxUTF8BytesPerCodeUnit = 3;
// Permission bits of a newly created configuration file: such files may carry private keys.
constexpr mode_t newFileMode = 0600;

// White space and line breaks: Zs, Zl, Zp, U+0009..U+000D and U+0085. The ASCII range is
// answered here because it is nearly every code unit the tokenizer sees.
bool isWhitespaceUnit(char16_t c) {
    if (c < 0x80) return c == u' ' || (c >= 0x09 && c <= 0x0D);
    return QBText::isWhitespaceOrNewline(c);
}

bool isCommentUnit(char16_t c) {
    return c == u'#' || c == u';';
}

bool isQuoteUnit(char16_t c) {
    return c == quoteUnit;
}

std::u16string_view trimmed(std::u16string_view text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && isWhitespaceUnit(text[begin])) ++begin;
    while (end > begin && isWhitespaceUnit(text[end - 1])) --end;
    return text.substr(begin, end - begin);
}

// UTF-16 form of text in which each ill-formed UTF-8 sequence became U+FFFD, so that whatever a
// caller stored can still be written out as valid text.
std::u16string toUTF16Lenient(std::string_view text) {
    if (auto units = QBText::toUTF16(text)) return std::move(*units);
    // ICU counts lengths in 32 bits; larger text is not converted.
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) return {};
    std::u16string units(text.size(), u'\0');  // never more code units than bytes
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(units.data(), static_cast<int32_t>(units.size()), &written, text.data(),
                         static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
    if (U_FAILURE(status) && status != U_STRING_NOT_TERMINATED_WARNING) return {};
    units.resize(static_cast<std::size_t>(written));
    return units;
}

std::string validUTF8(std::string_view text) {
    if (QBText::isValidUTF8(text)) return std::string(text);
    return QBText::toUTF8(toUTF16Lenient(text));
}

// Writes one parameter into out, which has room for 2n + 3 code units (every unit escaped, two
// quotes, one separating blank). Returns the number of code units written.
std::size_t writeParameter(std::u16string_view parameter, char16_t* out) {
    const bool quoted = std::any_of(parameter.begin(), parameter.end(), isWhitespaceUnit);
    std::size_t length = 0;
    if (quoted) out[length++] = quoteUnit;
    for (const char16_t c : parameter) {
        if (c == escapeUnit || isQuoteUnit(c) || (!quoted && isCommentUnit(c)))
            out[length++] = escapeUnit;
        out[length++] = c;
    }
    if (quoted) out[length++] = quoteUnit;
    return length;
}

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

// Path helpers with the usual text-path rules: trailing slashes are ignored, the root stays "/".
std::string_view withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    return path;
}

std::string parentDirectory(std::string_view path) {
    path = withoutTrailingSlashes(path);
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos) return "";
    if (slash == 0) return "/";
    return std::string(withoutTrailingSlashes(path.substr(0, slash)));
}

std::string lastComponent(std::string_view path) {
    path = withoutTrailingSlashes(path);
    if (path == "/") return "/";
    const auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

void syncDirectory(const std::string& directory) {
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

// Writes text to a temporary file beside path, flushes it to disk and renames it over path, so
// that path holds either its old or its new content. The temporary file is removed on failure.
void replaceFileAtomically(const std::string& path, std::string_view text) {
    std::string directory = parentDirectory(path);
    if (directory.empty()) directory = ".";
    // A fixed short name: the target's own name could leave no room for the suffix.
    std::string temporary = directory + "/.configuration.XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return;
    struct stat old {};
    if (::stat(path.c_str(), &old) == 0 && S_ISREG(old.st_mode)) {
        // Keep the replaced file's owner and permissions; only root can give the file away.
        [[maybe_unused]] const int owned = ::fchown(fd, old.st_uid, old.st_gid);
        ::fchmod(fd, old.st_mode & 07777);
    } else {
        ::fchmod(fd, newFileMode);
    }
    const bool written = writeAll(fd, text) && ::fsync(fd) == 0;
    const bool closed = ::close(fd) == 0;
    if (!written || !closed || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return;
    }
    syncDirectory(directory);
}

std::optional<std::string> readRegularFile(const std::string& path) {
    return QBFile::readRegular(path);
}

}  // namespace

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
    const auto content = readRegularFile(*filePath);
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

std::optional<QBVPNConfiguration::Parameters> QBVPNConfiguration::parseLine(
    std::string_view line) const {
    if (maxLineLength < 0) return std::nullopt;
    const auto limit = static_cast<std::size_t>(maxLineLength);
    if (line.size() > limit * maxUTF8BytesPerCodeUnit) return std::nullopt;
    const auto units = QBText::toUTF16(line);
    if (!units || units->size() > limit) return std::nullopt;
    const std::u16string_view rest = trimmed(*units);
    if (rest.empty()) return std::nullopt;
    try {
        Parameters tokens;
        // The one token buffer of this call, written by index: no token outgrows the line.
        std::u16string token(rest.size(), u'\0');
        std::size_t tokenLength = 0;
        bool tokenIsASCII = true;  // ASCII tokens skip the converter and its worst-case buffer
        const auto emitToken = [&] {
            if (tokenLength == 0) return;
            const std::u16string_view text(token.data(), tokenLength);
            if (tokenIsASCII) {
                tokens.emplace_back(text.begin(), text.end());
            } else {
                tokens.push_back(QBText::toUTF8(text));
            }
            tokenLength = 0;
            tokenIsASCII = true;
        };
        bool escaped = false;
        bool inQuotes = false;
        for (const char16_t c : rest) {
            if (!escaped && c == escapeUnit) {
                escaped = true;
            } else if (!escaped && isQuoteUnit(c)) {
                inQuotes = !inQuotes;
            } else if (!escaped && !inQuotes && isWhitespaceUnit(c)) {
                emitToken();
            } else if (!escaped && !inQuotes && isCommentUnit(c)) {
                break;
            } else {
                token[tokenLength++] = c;
                tokenIsASCII = tokenIsASCII && c < 0x80;
                escaped = false;
            }
        }
        emitToken();
        if (tokens.empty()) return std::nullopt;
        return tokens;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

std::string QBVPNConfiguration::parseCommand(std::string_view command) const {
    return std::string(command);
}

// --- Queries ---

namespace {

const QBVPNConfiguration::Occurrences* occurrencesOf(const QBVPNConfiguration::CommandStore& store,
                                                     std::string_view name) {
    const auto found = store.find(name);
    return found == store.end() ? nullptr : &found->second;
}

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

// --- Generation and saving ---

std::optional<std::string> QBVPNConfiguration::generateString(const Parameters& parameters) const {
    try {
        std::string text;
        std::u16string buffer;  // reused for every parameter; sized before each write
        for (std::size_t i = 0; i < parameters.size(); ++i) {
            const std::u16string units = toUTF16Lenient(parameters[i]);
            buffer.resize(2 * units.size() + 3);
            std::size_t length = 0;
            if (i > 0) buffer[length++] = u' ';
            length += writeParameter(units, buffer.data() + length);
            text += QBText::toUTF8(std::u16string_view(buffer.data(), length));
        }
        return text;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

void QBVPNConfiguration::appendCommandLines(std::string& text, std::string_view linePrefix,
                                            std::string_view name,
                                            const Occurrences& occurrences) const {
    const std::string writtenName = validUTF8(name);
    for (const auto& parameters : occurrences) {
        text += linePrefix;
        text += writtenName;
        text.push_back(' ');
        text += generateString(parameters).value_or("");
        text.push_back('\n');
    }
}

void QBVPNConfiguration::appendMetaCommands(std::string& text) const {
    const std::string linePrefix = validUTF8(metaCommandPrefix) + " ";
    for (const auto& [name, occurrences] : metaCommands) {
        if (!allowUnknownCommands && !isKnown(knownMetaCommands, name)) continue;
        appendCommandLines(text, linePrefix, name, occurrences);
    }
}

void QBVPNConfiguration::appendBlocks(std::string& text) const {
    if (!multilineCommands) return;
    for (const auto& [name, body] : *multilineCommands) {
        const auto start = multilineCommandStartForName(name);
        const auto end = multilineCommandEndForName(name);
        // A block that the hooks cannot frame would not read back as a block: leave it out.
        if (!start || !end) continue;
        text += validUTF8(*start) + "\n" + validUTF8(body) + "\n" + validUTF8(*end) + "\n";
    }
}

std::string QBVPNConfiguration::generateRawConfigurationData() const {
    std::string text(generatedHeader);
    appendMetaCommands(text);
    for (const auto& name : knownCommands) {
        if (const auto* occurrences = occurrencesOf(commands, name))
            appendCommandLines(text, "", name, *occurrences);
    }
    if (allowUnknownCommands) {
        for (const auto& [name, occurrences] : commands) {
            if (!isKnown(knownCommands, name)) appendCommandLines(text, "", name, occurrences);
        }
    }
    if (parseMultilineCommands) appendBlocks(text);
    return text;
}

void QBVPNConfiguration::save() {
    if (_protocol) setMetaCommand("protocol", {*_protocol});
    if (!filePath) return;
    replaceFileAtomically(*filePath, generateRawConfigurationData());
}

std::optional<QBVPNConfiguration::CommandStore> QBVPNConfiguration::getUnknownCommands() const {
    CommandStore unknown;
    for (const auto& [name, occurrences] : commands) {
        if (!isKnown(knownCommands, name)) unknown.emplace(name, occurrences);
    }
    if (unknown.empty()) return std::nullopt;
    return unknown;
}

std::string QBVPNConfiguration::getUnknownCommandsAsString() const {
    std::string text;
    const auto unknown = getUnknownCommands();
    if (!unknown) return text;
    for (const auto& [name, occurrences] : *unknown) {
        for (const auto& parameters : occurrences) {
            text += validUTF8(name);
            if (!parameters.empty()) text += " " + generateString(parameters).value_or("");
            text.push_back('\n');
        }
    }
    return text;
}

void QBVPNConfiguration::removeUnknownCommands() {
    const auto unknown = getUnknownCommands();
    if (!unknown) return;
    for (const auto& entry : *unknown) removeCommand(entry.first);
}
