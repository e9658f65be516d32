#include "support/DaemonProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

DaemonProcess::DaemonProcess() : errorFile(directory.file("stderr.log")) {}

DaemonProcess::~DaemonProcess() {
    if (pid_ > 0 && isRunning()) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

bool DaemonProcess::start(const std::string& path) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    // The child starts with no blocked signals, whatever this test process blocks.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    char* argv[] = {const_cast<char*>(path.c_str()), nullptr};
    const int rc = ::posix_spawn(&pid_, path.c_str(), &actions, &attributes, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0) pid_ = -1;
    return rc == 0;
}

bool DaemonProcess::signal(int signalNumber) const {
    return pid_ > 0 && ::kill(pid_, signalNumber) == 0;
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pid_ > 0) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            pid_ = -1;
            if (WIFSIGNALED(status)) terminatingSignal = WTERMSIG(status);
            if (WIFEXITED(status)) return WEXITSTATUS(status);
            return std::nullopt;
        }
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::nullopt;
}

bool DaemonProcess::isRunning() {
    if (pid_ <= 0) return false;
    int status = 0;
    return ::waitpid(pid_, &status, WNOHANG) == 0;
}

std::string DaemonProcess::standardError() const {
    std::ifstream in(errorFile);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

namespace {

template <typename Address>
bool tryConnect(int family, const Address& address) {
    const int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool ok =
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

template <typename Attempt>
bool pollUntil(std::chrono::milliseconds timeout, Attempt attempt) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (attempt()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace

bool waitUntilTCPListening(const std::string& address, int port, std::chrono::milliseconds timeout) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(port));
    if (::inet_pton(AF_INET, address.c_str(), &target.sin_addr) != 1) return false;
    return pollUntil(timeout, [&] { return tryConnect(AF_INET, target); });
}

bool waitUntilUnixListening(const std::string& path, std::chrono::milliseconds timeout) {
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    if (path.size() >= sizeof target.sun_path) return false;
    std::memcpy(target.sun_path, path.c_str(), path.size() + 1);
    return pollUntil(timeout, [&] { return tryConnect(AF_UNIX, target); });
}
