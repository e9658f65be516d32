// Fuzz target: the operating-system version reader (property list or os-release text) and the
// version comparisons.
//
// Input: one byte choosing the source (bit 0 set: the property list, else os-release), then the
// file's content, which the reader reads from an in-memory file. Checked: the version read is
// "major.minor.patch" of three decimal numbers; the numeric ordering is antisymmetric and every
// text equals itself; the running version is at least, and equal to, itself.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "QBPlatform.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

int sign(int order) {
    return (order > 0) - (order < 0);
}

// A file held in memory, rewritten for every input; its path is the /proc link to it.
struct MemoryFile {
    MemoryFile() : descriptor(memfd_create("os-version", 0)) { require(descriptor >= 0); }
    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor); }
    void replace(std::string_view content) const {
        require(ftruncate(descriptor, 0) == 0);
        require(pwrite(descriptor, content.data(), content.size(), 0) ==
                static_cast<ssize_t>(content.size()));
    }
    int descriptor;
};

bool isThreeNumbers(const std::string& version) {
    int parts = 0;
    for (std::size_t start = 0; start <= version.size(); ++parts) {
        auto end = version.find('.', start);
        if (end == std::string::npos) end = version.size();
        auto part = std::string_view(version).substr(start, end - start);
        if (part.starts_with('-')) part.remove_prefix(1);
        if (part.empty() || part.find_first_not_of("0123456789") != std::string_view::npos) return false;
        start = end + 1;
    }
    return parts == 3;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const MemoryFile file;
    static const std::string missing = "/nonexistent/SystemVersion.plist";
    if (size == 0) return 0;
    const std::string_view content(reinterpret_cast<const char*>(data + 1), size - 1);
    file.replace(content);
    const bool fromPlist = (data[0] & 1) != 0;
    const std::string version = fromPlist
                                    ? QBPlatform::readOperatingSystemVersion(file.path(), missing)
                                    : QBPlatform::readOperatingSystemVersion(missing, file.path());
    require(isThreeNumbers(version));
    require(QBPlatform::isVersionAtLeast(version, version));
    require(QBPlatform::isVersionEqualTo(version, version));

    // The content's first line against the rest, as two versions given to the comparisons.
    const auto cut = std::min(content.find('\n'), content.size());
    const auto a = content.substr(0, cut);
    const auto b = content.substr(std::min(cut + 1, content.size()));
    require(sign(QBPlatform::compareNumeric(a, b)) == -sign(QBPlatform::compareNumeric(b, a)));
    require(QBPlatform::compareNumeric(a, a) == 0);
    QBPlatform::isVersionAtLeast(version, a);
    QBPlatform::isVersionEqualTo(version, b);
    return 0;
}
