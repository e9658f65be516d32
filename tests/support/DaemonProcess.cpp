#include "support/DaemonProcess.h"

#include <fcntl.h>
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

bool DaemonProcess::start(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const auto& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid = ::fork();
    if (pid == 0) {  // only async-signal-safe calls until exec
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        ::dup2(::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644),
               STDOUT_FILENO);
        ::dup2(::open(errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644),
               STDERR_FILENO);
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

namespace {

std::string contentsOf(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

std::string DaemonProcess::standardError() const { return contentsOf(errorFile); }

std::string DaemonProcess::standardOutput() const { return contentsOf(outputFile); }
