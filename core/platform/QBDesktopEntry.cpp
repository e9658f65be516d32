#include "platform/QBDesktopEntry.h"

#include <sstream>

#include "platform/QBFile.h"

namespace {

std::string_view trimBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

std::optional<std::string> QBDesktopEntry::findById(const std::string& id,
                                                    const std::vector<std::string>& dataDirectories) {
    if (id.empty() || id.find('/') != std::string::npos) return std::nullopt;
    for (const auto& directory : dataDirectories) {
        const std::string path = directory + "/applications/" + id + ".desktop";
        const auto text = QBFile::readTrusted(path, maximumFileSize);
        if (!text) continue;
        const auto entry = parse(*text);
        if (entry && entry->value("Hidden") == "true") return std::nullopt;
        return path;
    }
    return std::nullopt;
}

bool QBDesktopEntry::isInstalled(const std::string& path) {
    return QBFile::readTrusted(path, maximumFileSize).has_value();
}

std::optional<QBDesktopEntry> QBDesktopEntry::read(const std::string& path) {
    const auto text = QBFile::readTrusted(path, maximumFileSize);
    return text ? parse(*text) : std::nullopt;
}

std::optional<QBDesktopEntry> QBDesktopEntry::parse(const std::string& text) {
    QBDesktopEntry entry;
    bool inEntryGroup = false;
    bool sawEntryGroup = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto content = trimBlanks(line);
        if (content.empty() || content.front() == '#') continue;
        if (content.front() == '[') {
            inEntryGroup = content == entryGroup;
            sawEntryGroup = sawEntryGroup || inEntryGroup;
            continue;
        }
        const auto equals = content.find('=');
        if (!inEntryGroup || equals == std::string_view::npos) continue;
        // The first occurrence of a key counts; a repeated key is an error the file's reader ignores.
        entry.values.emplace(std::string(trimBlanks(content.substr(0, equals))),
                             std::string(trimBlanks(content.substr(equals + 1))));
    }
    if (!sawEntryGroup) return std::nullopt;
    return entry;
}

std::optional<std::string> QBDesktopEntry::value(const std::string& key) const {
    const auto found = values.find(key);
    if (found == values.end()) return std::nullopt;
    return found->second;
}
