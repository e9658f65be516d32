#pragma once
// QBUserProcess: starts an application for another user in that user's own session, the way a
// desktop starts one (the Linux counterpart of asking the session to open an application).
//
// When the user has a service manager of their own (its bus socket is in the user's runtime
// directory, looked for by the request's child once it has the user's ids), the application runs there as a transient service in the user's "app.slice",
// named as desktops name application units, with the session's display; it is then no child of
// ours in any sense: not in our control group, sandbox or limits, and a stop of the service does
// not touch it. The unit lives as long as any of its processes does (ExitType=cgroup), so a
// launcher that starts the application and exits leaves the unit running. The request itself is
// a child that takes the user's ids and runs the manager's client, bounded in time and reaped.
//
// Without a service manager (the service run by hand, or in namespaces without systemd) the
// application is started directly, detached from the service, with the user's ids and session
// environment.
//
// Both paths start their child clean (QBChildProcess): nothing of the service's descriptors,
// limits or signal state goes along.
//
// Threads: every operation may be called from any thread, also from several at once.
//
//   QBUserProcess::open(user, {"/usr/bin/gio", "launch", desktopFile}, "com.example.App");

#include <string>
#include <vector>

struct QBConsoleUser;

class QBUserProcess {
public:
    struct ServiceManager {
        // The command that asks the calling user's own service manager to run a transient unit.
        std::vector<std::string> runCommand = {"/usr/bin/systemd-run", "--user"};
        // The folder of the users' runtime directories, each named by the user id and holding
        // the socket of the user's bus ("bus") while the user's manager runs.
        std::string runtimeDirectoryRoot = "/run/user";
    };
    // The slice where a desktop puts the applications it starts.
    static constexpr const char* applicationSlice = "app.slice";

    // Starts command (command[0] is the program) as user in user's session, as an application
    // with id applicationId; returns without waiting for the application. Through the user's
    // service manager when the user has one, else directly. False when the application could
    // not be handed over (no process could be made, or the manager refused the unit) or
    // command is empty.
    static bool open(const QBConsoleUser& user, const std::vector<std::string>& command,
                     const std::string& applicationId, const ServiceManager& manager);

    // "app-<launcher>-<applicationId>@<random>.service", with the launcher's file name and each
    // character that a unit name cannot hold replaced by "_".
    static std::string unitName(const std::string& launcherPath, const std::string& applicationId);

    QBUserProcess() = delete;
};
