#include "QBKelvoGUIApplication.h"

#include <algorithm>

#include "QBLumentideIPC.h"
#include "platform/QBDesktopEntry.h"
#include "platform/QBUserProcess.h"

QBKelvoGUIApplication::QBKelvoGUIApplication(std::shared_ptr<QBLumentideIPC> channel,
                                             Settings settings)
    : channel(std::move(channel)), _settings(std::move(settings)) {}

std::chrono::milliseconds QBKelvoGUIApplication::waitBound() const {
    return _settings.checkInterval * std::max(_settings.availabilityChecks, 0);
}

bool QBKelvoGUIApplication::isGUIApplicationAvailableAndStartIfNeeded(bool startIfNeeded) {
    if (!channel) return false;
    if (channel->clientCount() > 0) return true;
    if (!startIfNeeded || channel->isShutdown()) return false;
    launchUnlessInFlight();
    return channel->waitForClients(waitBound());
}

bool QBKelvoGUIApplication::launchUnlessInFlight() {
    {
        QBMutexLock guard(launchLock);
        const auto now = std::chrono::steady_clock::now();
        if (lastLaunch && now - *lastLaunch < waitBound()) return false;
        lastLaunch = now;
    }
    launchGUIApplication();
    return true;
}

void QBKelvoGUIApplication::launchGUIApplication() {
    const auto user = getGUIUser();
    if (!user || user->userId == 0 || user->groupId == 0) return;
    const auto path = getGUIApplicationPath();
    if (!path) return;
    auto arguments = _settings.launcher;
    arguments.push_back(*path);
    QBUserProcess::open(*user, arguments, _settings.applicationIdentifier, _settings.serviceManager);
}

std::optional<std::string> QBKelvoGUIApplication::getGUIApplicationPath() const {
    if (QBDesktopEntry::isInstalled(_settings.applicationPath)) return _settings.applicationPath;
    return QBDesktopEntry::findById(_settings.applicationIdentifier, _settings.dataDirectories);
}

std::optional<QBConsoleUser> QBKelvoGUIApplication::getGUIUser() const {
    auto user = _settings.consoleUser ? _settings.consoleUser() : std::nullopt;
    if (!user || user->name.empty() || user->name == loggedOutUserName) return std::nullopt;
    return user;
}

std::optional<std::string> QBKelvoGUIApplication::installedVersion() const {
    const auto path = getGUIApplicationPath();
    const auto entry = path ? QBDesktopEntry::read(*path) : std::nullopt;
    if (!entry) return std::nullopt;
    const auto shortVersion = entry->value(shortVersionKey);
    const auto buildVersion = entry->value(buildVersionKey);
    if (!shortVersion || !buildVersion) return std::nullopt;
    return *shortVersion + "," + *buildVersion;
}
