#include "platform/QBFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

namespace {

bool onlyRootCanWrite(const struct stat& info) {
    return info.st_uid == 0 && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool isSafeFolder(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return false;
    return onlyRootCanWrite(info) || (info.st_uid == 0 && (info.st_mode & S_ISVTX) != 0);
}

// Whether the folder and every folder above it is safe, after resolving symbolic links (a link
// found on the way was put there by whoever may write the folder that holds it, which is safe
// only if that folder is; the resolved path is what the kernel walks).
bool isSafeFolderChain(const std::string& folder) {
    const std::unique_ptr<char, decltype(&std::free)> resolved(
        ::realpath(folder.empty() ? "." : folder.c_str(), nullptr), &std::free);
    if (!resolved) return false;
    std::string path = resolved.get();
    for (;;) {
        if (!isSafeFolder(path.empty() ? "/" : path)) return false;
        if (path.empty() || path == "/") return true;
        path.resize(path.rfind('/'));
    }
}

std::optional<std::string> readOpened(int descriptor, std::size_t maximumSize,
                                      bool mustBeTrusted) {
    struct stat info {};
    if (::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    if (mustBeTrusted && !onlyRootCanWrite(info)) return std::nullopt;
    if (static_cast<std::uintmax_t>(info.st_size) > maximumSize) return std::nullopt;
    std::string content;
    content.reserve(static_cast<std::size_t>(info.st_size));
    char chunk[16384];
    for (;;) {
        const ssize_t got = ::read(descriptor, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) return content;
        // A file that grows while it is read is held to the bound all the same.
        if (static_cast<std::size_t>(got) > maximumSize - content.size()) return std::nullopt;
        content.append(chunk, static_cast<std::size_t>(got));
    }
}

std::optional<std::string> openAndRead(const std::string& path, std::size_t maximumSize,
                                       int extraFlags, bool mustBeTrusted) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | extraFlags);
    if (descriptor < 0) return std::nullopt;
    auto content = readOpened(descriptor, maximumSize, mustBeTrusted);
    ::close(descriptor);
    return content;
}

}  // namespace

std::optional<std::string> QBFile::readRegular(const std::string& path, std::size_t maximumSize) {
    return openAndRead(path, maximumSize, 0, false);
}

std::optional<std::string> QBFile::readTrusted(const std::string& path, std::size_t maximumSize) {
    const auto slash = path.rfind('/');
    const std::string folder =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    if (!isSafeFolderChain(folder)) return std::nullopt;
    return openAndRead(path, maximumSize, O_NOFOLLOW, true);
}
