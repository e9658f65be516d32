// QBVPNConfiguration, its generation: the document written out as configuration text, and saved
// to its file atomically.

#include <fcntl.h>
#include <sys/stat.h>
#include <unicode/ustring.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "QBVPNConfiguration.h"
#include "QBVPNConfigurationText.h"

using namespace qbvpnconfiguration;

namespace {

// Permission bits of a newly created configuration file: such files may carry private keys.
constexpr mode_t newFileMode = 0600;

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

}  // namespace

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
