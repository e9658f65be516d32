#pragma once
// DaemonProcess: runs the real daemon binary as a child process, its standard output and error
// collected into one file. The destructor kills and reaps a child that is still running, so no
// test leaves one behind.

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <string>

#include "support/Eventually.h"
#include "support/TempDir.h"

struct DaemonSetup {  // how the child is set up before it runs the daemon
    bool stopPending = false;     // starts with SIGTERM blocked and already pending
    bool withoutThreads = false;  // runs as nobody, allowed no further thread (needs root)
};

class DaemonProcess {
public:
    ~DaemonProcess() {
        if (pid > 0 && ::waitpid(pid, nullptr, WNOHANG) == 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
    }

    // Starts the daemon with no blocked signals whatever this process blocks, then as setup
    // says. False on failure.
    bool start(const DaemonSetup& setup = {}) {
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
            // The process limit counts this user's processes and threads: nobody's one process is
            // all it may have. Set after setuid, which would flag the process as over it, failing exec.
            const rlimit oneProcess{1, 1};
            if (setup.withoutThreads && (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 ||
                                         ::setuid(65534) != 0 || ::setrlimit(RLIMIT_NPROC, &oneProcess) != 0))
                ::_exit(126);
            ::execl(QB_DAEMON_PATH, QB_DAEMON_PATH, nullptr);
            ::_exit(127);
        }
        return pid > 0;
    }
    bool signal(int signalNumber) const { return pid > 0 && ::kill(pid, signalNumber) == 0; }
    // Exit status once the child has ended within timeout; nullopt when it is still running or
    // was ended by a signal.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout) {
        int status = 0;
        if (pid <= 0 || !eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout)) return std::nullopt;
        pid = -1;
        return WIFEXITED(status) ? std::optional(WEXITSTATUS(status)) : std::nullopt;
    }
    std::string output() const {
        std::ifstream in(outputFile);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    pid_t processId() const { return pid; }

private:
    TempDir directory;
    const std::string outputFile = directory.file("output.log");
    pid_t pid = -1;
};
