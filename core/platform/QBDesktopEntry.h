#pragma once
// QBDesktopEntry: an installed application's desktop entry (the freedesktop.org key file that a
// Linux desktop uses to find and start applications), and its lookup by desktop-entry id in the
// data directories, the way desktops find an application by its identifier.
//
// Only the "[Desktop Entry]" group is read; a key's value is the text after the first "=" with
// the blanks around it removed, escapes left as they are. Localised keys ("Name[de]") are kept
// under their full name. Files larger than maximumFileSize are refused.
//
// A desktop entry says what runs in a user's session when the service starts the application,
// so only an entry that nobody but root can change counts as installed: a regular file (not a
// link, FIFO or device) owned by root and not writable by group or others, in folders that only
// root can change (QBFile::readTrusted). Anything else counts as not installed.
//
// Threads: values; every operation may be called from any thread.
//
//   auto path = QBDesktopEntry::findById("com.example.App", {"/usr/local/share", "/usr/share"});
//   auto entry = path ? QBDesktopEntry::read(*path) : std::nullopt;

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

class QBDesktopEntry {
public:
    // Desktop entries are a few kilobytes; this bounds what a damaged file makes us read.
    static constexpr std::size_t maximumFileSize = 64 * 1024;
    static constexpr const char* entryGroup = "[Desktop Entry]";

    // The path of the entry with this id ("<id>.desktop" in the "applications" folder) in the
    // first data directory that holds an installed one; nullopt when none does, or when the
    // first one found is marked Hidden (an entry the user or admin deleted).
    static std::optional<std::string> findById(const std::string& id,
                                               const std::vector<std::string>& dataDirectories);
    // Whether path holds an installed entry (a trusted regular file of at most maximumFileSize).
    static bool isInstalled(const std::string& path);
    // The entry in the file at path; nullopt when it is not installed, cannot be read, or has no
    // "[Desktop Entry]" group.
    static std::optional<QBDesktopEntry> read(const std::string& path);
    // The same on the file's text.
    static std::optional<QBDesktopEntry> parse(const std::string& text);

    // The value of key; nullopt when the group has no such key.
    std::optional<std::string> value(const std::string& key) const;

private:
    std::map<std::string, std::string> values;
};
