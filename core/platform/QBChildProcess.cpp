#include "platform/QBChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

extern char** environ;

namespace {

// Owns the spawn attributes and file actions for one child and frees them in every case.
class SpawnPlan {
public:
    SpawnPlan(int outputPipe, const std::optional<std::string>& workingDirectory) {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        ready = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY,
                                                 0) == 0 &&
                posix_spawn_file_actions_adddup2(&actions, outputPipe, STDOUT_FILENO) == 0 &&
                posix_spawn_file_actions_adddup2(&actions, outputPipe, STDERR_FILENO) == 0 &&
                posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1) == 0 &&
                (!workingDirectory || posix_spawn_file_actions_addchdir_np(
                                          &actions, workingDirectory->c_str()) == 0) &&
                cleanSignals();
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    pid_t spawn(const std::string& program, const std::vector<std::string>& arguments) const {
        if (!ready) return -1;
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 2);
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        pid_t child = -1;
        // glibc reports a program that cannot be executed as the result of posix_spawn itself.
        if (::posix_spawn(&child, program.c_str(), &actions, &attributes, argv.data(), environ) !=
            0) {
            return -1;
        }
        return child;
    }

private:
    bool cleanSignals() {
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        return posix_spawnattr_setsigmask(&attributes, &none) == 0 &&
               posix_spawnattr_setsigdefault(&attributes, &all) == 0 &&
               posix_spawnattr_setflags(&attributes,
                                        POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
    }

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    bool ready = false;
};

// Reads until end of file or until the deadline; false when the deadline came first.
bool readToEnd(int descriptor, std::string& output) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + QBChildProcess::outputTimeout;
    char chunk[4096];
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        pollfd readable{descriptor, POLLIN, 0};
        const int ready = ::poll(&readable, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t count = ::read(descriptor, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return true;
        const auto room = QBChildProcess::maxOutput - output.size();
        output.append(chunk, std::min(static_cast<std::size_t>(count), room));
    }
}

std::int32_t waitForStatus(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return QBChildProcess::notStarted;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return WTERMSIG(status);
    return QBChildProcess::notStarted;
}

}  // namespace

QBChildProcess::Result QBChildProcess::run(const std::string& program,
                                           const std::vector<std::string>& arguments,
                                           const std::optional<std::string>& workingDirectory) {
    Result result;
    int outputPipe[2];
    if (::pipe2(outputPipe, O_CLOEXEC) != 0) return result;
    const pid_t child = SpawnPlan(outputPipe[1], workingDirectory).spawn(program, arguments);
    ::close(outputPipe[1]);
    if (child < 0) {
        ::close(outputPipe[0]);
        return result;
    }
    if (!readToEnd(outputPipe[0], result.output)) ::kill(child, SIGKILL);
    ::close(outputPipe[0]);
    result.status = waitForStatus(child);
    return result;
}
