#include "platform/QBUserProcess.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>

#include "QBRandom.h"
#include "platform/QBChildProcess.h"
#include "platform/QBConsoleUser.h"

namespace {

QBChildProcess::Options optionsFor(const QBConsoleUser& user,
                                   std::vector<std::string> environment) {
    QBChildProcess::Options options;
    options.identity = QBChildProcess::Identity{user.userId, user.groupId,
                                                user.supplementaryGroups()};
    // Where a session program starts; "/" for a user whose home is missing ("/nonexistent").
    struct stat home {};
    const bool hasHome = !user.home.empty() && ::stat(user.home.c_str(), &home) == 0 &&
                         S_ISDIR(home.st_mode);
    options.workingDirectory = hasHome ? user.home : "/";
    options.environment = std::move(environment);
    return options;
}

// The manager's client, as the user, asked to run command as a transient application unit.
std::vector<std::string> transientUnitRequest(const QBConsoleUser& user,
                                              const std::vector<std::string>& command,
                                              const std::string& applicationId,
                                              const QBUserProcess::ServiceManager& manager) {
    auto request = manager.runCommand;
    request.insert(request.end(),
                   {"--quiet", "--collect",
                    "--unit=" + QBUserProcess::unitName(command.front(), applicationId),
                    std::string("--slice=") + QBUserProcess::applicationSlice,
                    "--property=ExitType=cgroup"});
    if (!user.display.empty()) request.push_back("--setenv=DISPLAY=" + user.display);
    if (!user.waylandDisplay.empty()) {
        request.push_back("--setenv=WAYLAND_DISPLAY=" + user.waylandDisplay);
    }
    request.push_back("--");
    request.insert(request.end(), command.begin(), command.end());
    return request;
}

}  // namespace

bool QBUserProcess::open(const QBConsoleUser& user, const std::vector<std::string>& command,
                         const std::string& applicationId, const ServiceManager& manager) {
    if (command.empty()) return false;
    if (!manager.runCommand.empty()) {
        const auto request = transientUnitRequest(user, command, applicationId, manager);
        const std::vector<std::string> arguments(request.begin() + 1, request.end());
        auto options = optionsFor(user, user.sessionEnvironment(manager.runtimeDirectoryRoot));
        // Looked for by the child as the user: the runtime directory is the user's own (mode
        // 0700), which root without CAP_DAC_READ_SEARCH may not search.
        options.requiredPath = user.runtimeDirectory(manager.runtimeDirectoryRoot) + "/bus";
        const auto status = QBChildProcess::run(request.front(), arguments, options).status;
        // Not started: the user has no manager (or no manager's client is installed).
        if (status != QBChildProcess::notStarted) return status == 0;
    }
    return QBChildProcess::startDetached(command, optionsFor(user, user.sessionEnvironment()));
}

std::string QBUserProcess::unitName(const std::string& launcherPath,
                                    const std::string& applicationId) {
    const auto slash = launcherPath.rfind('/');
    std::string name = "app-" + launcherPath.substr(slash == std::string::npos ? 0 : slash + 1) +
                       "-" + applicationId;
    const auto allowedInUnitName = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '.' || c == '_';
    };
    std::replace_if(name.begin(), name.end(), std::not_fn(allowedInUnitName), '_');
    char random[17];
    std::snprintf(random, sizeof random, "%08x%08x",
                  static_cast<unsigned>(QBRandom::randomInRange(0x100000000LL)),
                  static_cast<unsigned>(QBRandom::randomInRange(0x100000000LL)));
    return name + "@" + random + ".service";
}
