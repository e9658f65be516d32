#include "platform/QBConsoleUser.h"

#include <grp.h>
#include <pwd.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

namespace {

// A text that sd-login allocated; nullptr stands for none.
using LoginText = std::unique_ptr<char, decltype(&std::free)>;

LoginText loginText(char* text) {
    return LoginText(text, &std::free);
}

std::optional<std::string> sessionProperty(int (*query)(const char*, char**), const char* session) {
    char* value = nullptr;
    if (query(session, &value) < 0 || value == nullptr) return std::nullopt;
    return std::string(loginText(value).get());
}

// A compositor that is not told otherwise names its socket so; logind does not record it.
constexpr const char* defaultWaylandDisplay = "wayland-0";

std::optional<QBConsoleUser> fromPasswordEntry(const passwd& entry) {
    QBConsoleUser user;
    user.name = entry.pw_name ? entry.pw_name : "";
    user.userId = entry.pw_uid;
    user.groupId = entry.pw_gid;
    user.home = entry.pw_dir ? entry.pw_dir : "";
    return user;
}

template <typename Lookup>
std::optional<QBConsoleUser> lookUpPasswordEntry(Lookup lookup) {
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::string buffer(size > 0 ? static_cast<std::size_t>(size) : 16384, '\0');
    passwd entry{};
    passwd* found = nullptr;
    if (lookup(&entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
        return std::nullopt;
    }
    return fromPasswordEntry(entry);
}

}  // namespace

std::optional<QBConsoleUser> QBConsoleUser::fromLogind(const char* seat) {
    char* rawSession = nullptr;
    uid_t userId = 0;
    if (sd_seat_get_active(seat, &rawSession, &userId) < 0 || rawSession == nullptr) {
        return std::nullopt;
    }
    const auto session = loginText(rawSession);
    // A login screen runs as a user of its own; it is nobody logged in.
    if (sessionProperty(sd_session_get_class, session.get()).value_or("") != "user") {
        return std::nullopt;
    }
    auto user = lookUpPasswordEntry([userId](passwd* entry, char* buffer, std::size_t size,
                                             passwd** found) {
        return ::getpwuid_r(userId, entry, buffer, size, found);
    });
    if (!user) return std::nullopt;
    user->display = sessionProperty(sd_session_get_display, session.get()).value_or("");
    if (sessionProperty(sd_session_get_type, session.get()).value_or("") == "wayland") {
        user->waylandDisplay = defaultWaylandDisplay;
    }
    return user;
}

std::optional<QBConsoleUser> QBConsoleUser::fromPasswordDatabase(const std::string& name) {
    return lookUpPasswordEntry([&name](passwd* entry, char* buffer, std::size_t size,
                                       passwd** found) {
        return ::getpwnam_r(name.c_str(), entry, buffer, size, found);
    });
}

std::string QBConsoleUser::runtimeDirectory(const std::string& root) const {
    return root + "/" + std::to_string(userId);
}

std::vector<std::string> QBConsoleUser::sessionEnvironment(const std::string& runtimeRoot) const {
    const std::string runtimeDirectory = this->runtimeDirectory(runtimeRoot);
    std::vector<std::string> environment{
        "HOME=" + home,
        "USER=" + name,
        "LOGNAME=" + name,
        std::string("PATH=") + sessionPath,
        "XDG_RUNTIME_DIR=" + runtimeDirectory,
        "DBUS_SESSION_BUS_ADDRESS=unix:path=" + runtimeDirectory + "/bus",
    };
    if (!display.empty()) environment.push_back("DISPLAY=" + display);
    if (!waylandDisplay.empty()) environment.push_back("WAYLAND_DISPLAY=" + waylandDisplay);
    return environment;
}

std::vector<gid_t> QBConsoleUser::supplementaryGroups() const {
    int count = 32;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    // getgrouplist reports the count it needs when the list is too short; one retry suffices
    // unless the group database grows in between, and then the primary group alone is used.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (::getgrouplist(name.c_str(), groupId, groups.data(), &count) >= 0) {
            groups.resize(static_cast<std::size_t>(count));
            return groups;
        }
        groups.resize(static_cast<std::size_t>(count));
    }
    return {groupId};
}
