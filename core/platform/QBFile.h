#pragma once
// QBFile: reading a small file whole, safely: close-on-exec (a child never inherits it) and
// non-blocking (a FIFO or device put in a file's place never stalls the reader), a regular file
// only, and bounded in size. The trusted read also refuses a file that anybody but root could
// have written or put there.
//
// Threads: every operation may be called from any thread.
//
//   auto text = QBFile::readTrusted("/usr/share/applications/x.desktop", 64 * 1024);

#include <cstddef>
#include <limits>
#include <optional>
#include <string>

class QBFile {
public:
    static constexpr std::size_t unbounded = std::numeric_limits<std::size_t>::max();

    // The content of the regular file at path; nullopt when it cannot be opened, is no regular
    // file, is larger than maximumSize, or a read fails.
    static std::optional<std::string> readRegular(const std::string& path,
                                                  std::size_t maximumSize = unbounded);

    // The same, only for a file that only root can change: the file itself (not a symbolic
    // link) and every folder above it (symbolic links resolved) owned by root and not writable
    // by group or others. A root-owned folder with the sticky bit (/tmp) counts as safe: others
    // may add files there but not replace root's.
    static std::optional<std::string> readTrusted(const std::string& path, std::size_t maximumSize);

    QBFile() = delete;
};
