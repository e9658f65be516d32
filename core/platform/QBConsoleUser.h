#pragma once
// QBConsoleUser: the user logged in at the machine's console, and what a program started for that
// user needs to appear in the user's graphical session.
//
// On Linux the console is a seat of logind: the user of the active session on "seat0" is the
// console user. No active session, a greeter session (a login screen) or a session without a
// known user means nobody is logged in. The name, primary group and home come from the password
// database; the display from the session as logind reports it.
//
// Threads: every operation may be called from any thread; nothing is cached (a user may log out
// and another log in between two calls).
//
//   if (auto user = QBConsoleUser::fromLogind()) launch(user->name, user->userId);

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

struct QBConsoleUser {
    // The seat whose active session is the console.
    static constexpr const char* consoleSeat = "seat0";
    // The folder of the users' runtime directories ("<root>/<user id>").
    static constexpr const char* runtimeDirectoryRoot = "/run/user";
    // The search path a session program gets; a login shell would set a similar one.
    static constexpr const char* sessionPath = "/usr/local/bin:/usr/bin:/bin";

    std::string name;
    uid_t userId = 0;
    gid_t groupId = 0;
    std::string home;
    // DISPLAY of an X11 session, WAYLAND_DISPLAY of a Wayland session; empty when not known.
    std::string display;
    std::string waylandDisplay;

    // The user of the active session on the seat; nullopt when nobody is logged in there (no
    // active session, a greeter, an unknown user) or logind cannot be asked.
    static std::optional<QBConsoleUser> fromLogind(const char* seat = consoleSeat);
    // The record of a user of the password database, with no display; nullopt for an unknown name.
    static std::optional<QBConsoleUser> fromPasswordDatabase(const std::string& name);

    // The user's runtime directory under root.
    std::string runtimeDirectory(const std::string& root = runtimeDirectoryRoot) const;
    // The environment of a program started in this user's session, as "NAME=value" texts: HOME,
    // USER, LOGNAME, PATH, XDG_RUNTIME_DIR (under runtimeRoot), DBUS_SESSION_BUS_ADDRESS, and
    // DISPLAY or WAYLAND_DISPLAY when known.
    std::vector<std::string> sessionEnvironment(
        const std::string& runtimeRoot = runtimeDirectoryRoot) const;
    // The user's supplementary groups (primary group included), from the group database.
    std::vector<gid_t> supplementaryGroups() const;
};
