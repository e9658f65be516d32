#include "support/DaemonProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "support/Eventually.h"

DaemonProcess::~DaemonProcess() {
    if (pid > 0 && ::waitpid(pid, nullptr, WNOHANG) == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

bool DaemonProcess::start(const std::vector<std::string>& command, const DaemonSetup& setup) {
    std::vector<char*> arguments;
    for (const auto& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid = ::fork();
    if (pid == 0) {  // only async-signal-safe calls until exec
        sigset_t mask;
        sigemptyset(&mask);
        if (setup.stopPending) sigaddset(&mask, SIGTERM);
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        if (setup.stopPending) ::kill(::getpid(), SIGTERM);  // stays pending across exec
        ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        ::dup2(::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), STDOUT_FILENO);
        ::dup2(STDOUT_FILENO, STDERR_FILENO);
        if (setup.withoutThreads) {
            // The process limit counts this user's processes and threads; nobody's one process
            // is already all it may have. Set after setuid, which would otherwise flag the
            // process as over the limit and make exec fail.
            const rlimit oneProcess{1, 1};
            if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0 ||
                ::setrlimit(RLIMIT_NPROC, &oneProcess) != 0) {
                ::_exit(126);
            }
        }
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    return pid > 0;
}

bool DaemonProcess::signal(int signalNumber) const {
    return pid > 0 && ::kill(pid, signalNumber) == 0;
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds timeout) {
    int status = 0;
    if (pid <= 0 || !eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout)) {
        return std::nullopt;
    }
    pid = -1;
    return WIFEXITED(status) ? std::optional(WEXITSTATUS(status)) : std::nullopt;
}

std::string DaemonProcess::output() const {
    std::ifstream in(outputFile);
    return {std::istreambuf_iterator<char>(in), {}};
}
