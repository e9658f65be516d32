#include "QBPlatform.h"

#include <plist/plist.h>

#include <sys/stat.h>
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/QBFile.h"
#include "platform/QBText.h"

namespace {

// Both version sources are a few hundred bytes; the bound keeps a damaged or special file
// (a device, a huge file) from being read into memory whole.
constexpr std::size_t maxVersionFileSize = 64 * 1024;

// The running version is major.minor.patch; a given version is padded to this many parts.
constexpr std::size_t versionPartCount = 3;

struct Version {
    std::int32_t major = 0;
    std::int32_t minor = 0;
    std::int32_t patch = 0;
};

bool fileExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

std::optional<std::string> readSmallFile(const std::string& path) {
    return QBFile::readRegular(path, maxVersionFileSize);
}

std::vector<std::string_view> splitAtDots(std::string_view text) {
    std::vector<std::string_view> parts;
    for (std::size_t start = 0;;) {
        const auto dot = text.find('.', start);
        parts.push_back(text.substr(start, dot == std::string_view::npos ? dot : dot - start));
        if (dot == std::string_view::npos) return parts;
        start = dot + 1;
    }
}

// The leading-integer reading of a version part, held in 32 bits like the cached parts:
// values beyond that range become its nearest limit.
std::int32_t partValue(std::string_view part) {
    const std::int64_t value = QBText::scanLeadingInteger(part);
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(
        value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

Version versionFromText(std::string_view text) {
    const auto parts = splitAtDots(text);
    Version version;
    version.major = partValue(parts[0]);
    if (parts.size() > 1) version.minor = partValue(parts[1]);
    if (parts.size() > 2) version.patch = partValue(parts[2]);
    return version;
}

std::string formatVersion(const Version& version) {
    char text[48];
    std::snprintf(text, sizeof text, "%d.%d.%d", version.major, version.minor, version.patch);
    return text;
}

// "ProductVersion" of the property list (XML or binary); nullopt when the file is not a
// dictionary or the key is missing or not a string.
std::optional<std::string> productVersionFromPlist(const std::string& path) {
    const auto content = readSmallFile(path);
    if (!content || content->empty()) return std::nullopt;
    plist_t root = nullptr;
    plist_from_memory(content->data(), static_cast<std::uint32_t>(content->size()), &root);
    const std::unique_ptr<void, decltype(&plist_free)> owner(root, &plist_free);
    if (root == nullptr || plist_get_node_type(root) != PLIST_DICT) return std::nullopt;
    plist_t item = plist_dict_get_item(root, "ProductVersion");
    if (item == nullptr || plist_get_node_type(item) != PLIST_STRING) return std::nullopt;
    std::uint64_t length = 0;
    const char* value = plist_get_string_ptr(item, &length);
    if (value == nullptr) return std::nullopt;
    return std::string(value, static_cast<std::size_t>(length));
}

// An os-release value: shell-style, optionally in single or double quotes; inside double
// quotes a backslash escapes the next character.
std::string unquoteOsReleaseValue(std::string_view value) {
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t' || value.back() == '\r'))
        value.remove_suffix(1);
    if (value.size() < 2 || (value.front() != '"' && value.front() != '\''))
        return std::string(value);
    const char quote = value.front();
    std::string out;
    for (std::size_t i = 1; i < value.size() && value[i] != quote; ++i) {
        if (quote == '"' && value[i] == '\\' && i + 1 < value.size()) ++i;
        out.push_back(value[i]);
    }
    return out;
}

std::optional<std::string> versionIdFromOsRelease(const std::string& path) {
    const auto content = readSmallFile(path);
    if (!content) return std::nullopt;
    constexpr std::string_view key = "VERSION_ID=";
    std::string_view rest = *content;
    while (!rest.empty()) {
        const auto end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
        if (line.substr(0, key.size()) == key)
            return unquoteOsReleaseValue(line.substr(key.size()));
    }
    return std::nullopt;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::size_t digitRunEnd(std::string_view text, std::size_t start) {
    while (start < text.size() && isDigit(text[start])) ++start;
    return start;
}

// Compares two runs of decimal digits by value without converting them, so runs of any
// length work: leading zeros dropped, then the longer run is larger, then digit by digit.
int compareDigitRuns(std::string_view a, std::string_view b) {
    const auto significant = [](std::string_view run) {
        const auto first = run.find_first_not_of('0');
        return first == std::string_view::npos ? std::string_view{} : run.substr(first);
    };
    a = significant(a);
    b = significant(b);
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    const int order = a.compare(b);
    return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

std::string padToThreeParts(std::string_view version) {
    std::string padded(version);
    for (std::size_t parts = splitAtDots(version).size(); parts < versionPartCount; ++parts)
        padded += ".0";
    return padded;
}

}  // namespace

std::string QBPlatform::readOperatingSystemVersion(const std::string& plistPath,
                                                   const std::string& osReleasePath) {
    std::optional<std::string> text;
    if (fileExists(plistPath)) {
        text = productVersionFromPlist(plistPath);
    } else {
        text = versionIdFromOsRelease(osReleasePath);
    }
    return formatVersion(text ? versionFromText(*text) : Version{});
}

std::string QBPlatform::operatingSystemVersion() {
    // Read once per process, also when the result is 0.0.0; call_once makes concurrent first
    // callers wait for the one reader instead of racing on the cache.
    static std::once_flag once;
    static std::string cached;
    std::call_once(
        once, [] { cached = readOperatingSystemVersion(systemVersionPlistPath, osReleasePath); });
    return cached;
}

bool QBPlatform::isOperatingSystemAtLeastVersion(std::string_view version) {
    return isVersionAtLeast(operatingSystemVersion(), version);
}

bool QBPlatform::isOperatingSystemEqualTo(std::string_view version) {
    return isVersionEqualTo(operatingSystemVersion(), version);
}

bool QBPlatform::isVersionAtLeast(std::string_view running, std::string_view version) {
    return compareNumeric(padToThreeParts(version), running) <= 0;
}

bool QBPlatform::isVersionEqualTo(std::string_view running, std::string_view version) {
    const auto given = splitAtDots(version);
    const auto actual = splitAtDots(running);
    const std::size_t count = std::min(given.size(), versionPartCount);
    for (std::size_t i = 0; i < count; ++i) {
        if (i >= actual.size() || given[i] != actual[i]) return false;
    }
    return true;
}

int QBPlatform::compareNumeric(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            const std::size_t endA = digitRunEnd(a, i);
            const std::size_t endB = digitRunEnd(b, j);
            const int order = compareDigitRuns(a.substr(i, endA - i), b.substr(j, endB - j));
            if (order != 0) return order;
            i = endA;
            j = endB;
            continue;
        }
        const auto ca = static_cast<unsigned char>(a[i]);
        const auto cb = static_cast<unsigned char>(b[j]);
        if (ca != cb) return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size()) return 1;
    if (j < b.size()) return -1;
    return 0;
}
