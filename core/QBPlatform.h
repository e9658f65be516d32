#pragma once
// QBPlatform: the version of the running operating system as "major.minor.patch", and
// comparisons of a given version with it.
//
// The version comes from the macOS property list (key "ProductVersion") when that file exists,
// else from VERSION_ID of /etc/os-release (Debian 12 reads as "12.0.0"). It is read once per
// process and cached, also when no source could be read (then it is "0.0.0").
//
// Threads: every operation may be called from any thread; the first call reads the version
// exactly once, concurrent first callers wait for it.
//
//   if (QBPlatform::isOperatingSystemAtLeastVersion("10.15")) { ... }

#include <cstdint>
#include <string>
#include <string_view>

class QBPlatform {
  public:
    // The version property list of macOS; read in preference to the os-release file.
    static constexpr const char* systemVersionPlistPath =
        "/System/Library/CoreServices/SystemVersion.plist";
    // The distribution's identification file on Linux.
    static constexpr const char* osReleasePath = "/etc/os-release";

    // The running version, "%d.%d.%d" of the cached parts; "0.0.0" when it could not be read.
    static std::string operatingSystemVersion();
    // Whether the running version equals or orders after version (numeric ordering).
    static bool isOperatingSystemAtLeastVersion(std::string_view version);
    // Whether the first min(parts of version, 3) dot-separated parts of version equal those of
    // the running version, compared as exact text ("10.15" matches 10.15.7, "10.15.07" does not).
    static bool isOperatingSystemEqualTo(std::string_view version);

    // Reads the version from the property list at plistPath when that file exists, else from
    // VERSION_ID in the os-release file at osReleasePath; "0.0.0" when the chosen source has no
    // usable value. Uncached; the public operations use it with the two system paths.
    static std::string readOperatingSystemVersion(const std::string& plistPath,
                                                  const std::string& osReleasePath);

    // The comparisons against a given running version instead of the cached one.
    static bool isVersionAtLeast(std::string_view running, std::string_view version);
    static bool isVersionEqualTo(std::string_view running, std::string_view version);

    // Orders two texts with runs of ASCII digits compared as numbers (leading zeros do not
    // count, any length) and every other byte compared by value, which for UTF-8 is code point
    // order; a text that runs out first orders first ("10.9" < "10.15" < "10.15.7" < "10.15.7.1").
    // Returns a negative number, 0 or a positive number.
    static int compareNumeric(std::string_view a, std::string_view b);

    QBPlatform() = delete;
};
