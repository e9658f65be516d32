#pragma once
// QBKelvoGUIApplication: the VPN client's GUI application as the bridge sees it: whether it is
// connected to the message channel, where it is installed and which version, who is logged in
// at the console, and starting it for that user when it is not connected.
//
// The application is found by its desktop entry: first at a fixed install location, then by its
// desktop-entry id in the data directories; only an entry that nobody but root can change counts
// (QBDesktopEntry). It is started by a launcher program (by default GLib's "gio launch", which
// starts a desktop entry the way a desktop does), handed to the console user's own session
// (QBUserProcess): through the user's service manager, or directly when the user has none. A
// console user with user or group id 0 is never used.
//
// Waiting: a bridge command that finds no GUI client connected starts the application and waits
// at most availabilityChecks * checkInterval (10 s) for a client, woken as soon as one connects,
// or at once when the channel shuts down. Requests that arrive while a launch is in flight (less
// than that bound ago) wait for it instead of starting another.
//
// Every fixed value is a Settings member whose default is the constant the daemon uses, so tests
// substitute a console user, an application and a launcher without any switch in the program.
//
// Threads: every operation may be called from any thread, also from several at once.
//
//   QBKelvoGUIApplication gui(channel);
//   if (gui.isGUIApplicationAvailableAndStartIfNeeded(true)) channel->sendMessageToFirstClient(...);

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QBMutex.h"
#include "platform/QBConsoleUser.h"
#include "platform/QBUserProcess.h"

class QBLumentideIPC;

class QBKelvoGUIApplication {
public:
    // The console user name that means that nobody is logged in.
    static constexpr const char* loggedOutUserName = "loginwindow";
    // Desktop-entry keys that hold the installed version: the version people see, and the build.
    static constexpr const char* shortVersionKey = "X-Kelvo-ShortVersion";
    static constexpr const char* buildVersionKey = "X-Kelvo-BuildVersion";

    struct Settings {
        // Where the application's installer puts its desktop entry; looked at first.
        std::string applicationPath = "/opt/Vorbel Tunnelwright/com.kelvo.KelvoTunnelwright.desktop";
        // Its desktop-entry id, looked up in the "applications" folder of each data directory.
        std::string applicationIdentifier = "com.kelvo.KelvoTunnelwright";
        std::vector<std::string> dataDirectories = {"/usr/local/share", "/usr/share"};
        // Program and leading arguments that start the application; its path is added last.
        std::vector<std::string> launcher = {"/usr/bin/gio", "launch"};
        // How the launcher is handed to the console user's own service manager.
        QBUserProcess::ServiceManager serviceManager;
        // Who is logged in at the console.
        std::function<std::optional<QBConsoleUser>()> consoleUser = [] {
            return QBConsoleUser::fromLogind();
        };
        // After a launch, a client is waited for at most checks * interval.
        int availabilityChecks = 10;
        std::chrono::milliseconds checkInterval{1000};
    };

    explicit QBKelvoGUIApplication(std::shared_ptr<QBLumentideIPC> channel)
        : QBKelvoGUIApplication(std::move(channel), Settings{}) {}
    QBKelvoGUIApplication(std::shared_ptr<QBLumentideIPC> channel, Settings settings);

    // True when a GUI client is connected. When none is: false at once if startIfNeeded is
    // false or the channel has shut down; otherwise starts the application (unless a launch is
    // in flight) and waits for a client within the bound above.
    bool isGUIApplicationAvailableAndStartIfNeeded(bool startIfNeeded);
    // Starts the application as the console user, if there is one and the application is
    // installed; returns without waiting for it.
    void launchGUIApplication();
    // The path of the application's desktop entry; nullopt when it is not installed.
    std::optional<std::string> getGUIApplicationPath() const;
    // The console user; nullopt when nobody (or the logged-out name) is logged in.
    std::optional<QBConsoleUser> getGUIUser() const;
    // The installed application's version, "shortVersion,buildVersion"; nullopt when it is not
    // installed or its entry lacks either key.
    std::optional<std::string> installedVersion() const;

    const Settings& settings() const { return _settings; }

private:
    // Starts a launch unless one is in flight; true when this call launched.
    bool launchUnlessInFlight() QB_EXCLUDES(launchLock);
    std::chrono::milliseconds waitBound() const;

    const std::shared_ptr<QBLumentideIPC> channel;
    const Settings _settings;

    // A leaf lock: held only to read and set lastLaunch, never while launching or waiting.
    QBMutex launchLock;
    std::optional<std::chrono::steady_clock::time_point> lastLaunch QB_GUARDED_BY(launchLock);
};
