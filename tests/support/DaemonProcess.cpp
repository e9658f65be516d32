#include "support/DaemonProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "support/Eventually.h"

extern char** environ;

DaemonProcess::~DaemonProcess() {
    if (pid > 0 && ::waitpid(pid, nullptr, WNOHANG) == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

bool DaemonProcess::start(const std::string& path) {
    const auto errorFile = directory.file("stderr.log");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    // The child starts with no blocked signals, whatever this test process blocks.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    char* argv[] = {const_cast<char*>(path.c_str()), nullptr};
    const bool started = ::posix_spawn(&pid, path.c_str(), &actions, &attributes, argv, environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (!started) pid = -1;
    return started;
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

std::string DaemonProcess::standardError() const {
    std::ifstream in(directory.file("stderr.log"));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

namespace {

template <typename Address>
bool connects(int family, const Address& address, std::chrono::milliseconds timeout) {
    return eventually([&] {
        const int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool ok = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        return ok;
    }, timeout);
}

}  // namespace

bool waitUntilTCPListening(const std::string& address, int port, std::chrono::milliseconds timeout) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(port));
    return ::inet_pton(AF_INET, address.c_str(), &target.sin_addr) == 1 && connects(AF_INET, target, timeout);
}

bool waitUntilUnixListening(const std::string& path, std::chrono::milliseconds timeout) {
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    if (path.size() >= sizeof target.sun_path) return false;
    std::memcpy(target.sun_path, path.c_str(), path.size() + 1);
    return connects(AF_UNIX, target, timeout);
}
