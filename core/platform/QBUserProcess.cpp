#include "platform/QBUserProcess.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "platform/QBConsoleUser.h"

namespace {

// Vectors of C strings made before the fork; they point into the given strings.
std::vector<char*> cStringVector(const std::vector<std::string>& texts) {
    std::vector<char*> vector;
    vector.reserve(texts.size() + 1);
    for (const auto& text : texts) vector.push_back(const_cast<char*>(text.c_str()));
    vector.push_back(nullptr);
    return vector;
}

// The service blocks its stop signals and ignores SIGPIPE; a program it starts must not inherit
// either (ignored dispositions survive exec).
void resetSignals() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    sigemptyset(&standard.sa_mask);
    for (int signalNumber = 1; signalNumber < NSIG; ++signalNumber) {
        sigaction(signalNumber, &standard, nullptr);  // fails harmlessly for SIGKILL, SIGSTOP
    }
}

struct LaunchPlan {
    uid_t userId;
    gid_t groupId;
    std::vector<gid_t> groups;
    const char* home;
    std::vector<char*> arguments;
    std::vector<char*> environment;
};

[[noreturn]] void runAsUser(const LaunchPlan& plan) {
    if (::setgid(plan.groupId) != 0 || ::setgroups(plan.groups.size(), plan.groups.data()) != 0 ||
        ::setuid(plan.userId) != 0) {
        ::_exit(0);
    }
    if (::chdir(plan.home) != 0 && ::chdir("/") != 0) ::_exit(0);
    ::execve(plan.arguments[0], plan.arguments.data(), plan.environment.data());
    ::_exit(0);
}

void reap(pid_t child) {
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

bool QBUserProcess::launchDetached(const QBConsoleUser& user,
                                   const std::vector<std::string>& arguments,
                                   const std::vector<std::string>& environment) {
    if (arguments.empty()) return false;
    const LaunchPlan plan{user.userId,
                          user.groupId,
                          user.supplementaryGroups(),
                          user.home.empty() ? "/" : user.home.c_str(),
                          cStringVector(arguments),
                          cStringVector(environment)};
    const pid_t child = ::fork();
    if (child < 0) return false;
    if (child == 0) {
        resetSignals();
        ::setsid();
        const pid_t grandchild = ::fork();
        if (grandchild == 0) runAsUser(plan);
        ::_exit(0);
    }
    reap(child);
    return true;
}
