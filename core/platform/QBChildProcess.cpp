#include "platform/QBChildProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// The descriptor limit the process started with, read before main() runs and so before the
// service raises its own soft limit (which a child must not inherit: select() and programs that
// loop over every possible descriptor misbehave above 1024).
struct StartingLimit {
    rlimit limit{};
    bool known = ::getrlimit(RLIMIT_NOFILE, &limit) == 0;
};
const StartingLimit startingDescriptorLimit;

// A descriptor that closes itself.
class Descriptor {
public:
    explicit Descriptor(int descriptor = -1) : descriptor(descriptor) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;

    int get() const { return descriptor; }
    bool valid() const { return descriptor >= 0; }
    void reset() {
        if (descriptor >= 0) ::close(descriptor);
        descriptor = -1;
    }

private:
    int descriptor;
};

// Moves a close-on-exec descriptor above the standard three, so that placing a child's standard
// descriptors can never overwrite it (a service started with a closed standard output would
// otherwise get 1 for its first pipe).
Descriptor aboveStandard(int descriptor) {
    if (descriptor < 0 || descriptor > STDERR_FILENO) return Descriptor(descriptor);
    Descriptor original(descriptor);
    return Descriptor(::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

struct Pipe {
    Descriptor readEnd, writeEnd;
    static std::optional<Pipe> open() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
        Pipe pipe{aboveStandard(ends[0]), aboveStandard(ends[1])};
        if (!pipe.readEnd.valid() || !pipe.writeEnd.valid()) return std::nullopt;
        return pipe;
    }
};

Descriptor openNull(int mode) {
    return aboveStandard(::open("/dev/null", mode | O_CLOEXEC));
}

// Vectors of C strings made before the fork; they point into the given strings.
std::vector<char*> cStringVector(const std::vector<std::string>& texts) {
    std::vector<char*> vector;
    vector.reserve(texts.size() + 1);
    for (const auto& text : texts) vector.push_back(const_cast<char*>(text.c_str()));
    vector.push_back(nullptr);
    return vector;
}

// Everything a child does between fork and exec, prepared before the fork.
struct ChildPlan {
    const char* program = nullptr;
    std::vector<char*> arguments;
    std::vector<char*> environment;  // empty: the service's own
    const char* workingDirectory = nullptr;
    const QBChildProcess::Identity* identity = nullptr;
    const char* requiredPath = nullptr;
    int input = -1;
    int output = -1;
    int failureReport = -1;  // close-on-exec; the child writes errno there when exec is not reached
};

[[noreturn]] void fail(const ChildPlan& plan) {
    const int error = errno;
    if (plan.failureReport >= 0) {
        [[maybe_unused]] const ssize_t ignored = ::write(plan.failureReport, &error, sizeof error);
    }
    ::_exit(127);
}

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

// Every descriptor above 2 closes at exec; the failure report stays open until then.
void closeAboveStandardAtExec(const ChildPlan& plan) {
    if (::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
    // Kernels before 5.11: close them one by one, up to the current limit.
    rlimit current{};
    const rlim_t highest = ::getrlimit(RLIMIT_NOFILE, &current) == 0 ? current.rlim_cur : 65536;
    for (rlim_t descriptor = STDERR_FILENO + 1; descriptor < highest; ++descriptor) {
        if (static_cast<int>(descriptor) != plan.failureReport) ::close(static_cast<int>(descriptor));
    }
}

[[noreturn]] void becomeProgram(const ChildPlan& plan) {
    resetSignals();
    if (::dup2(plan.input, STDIN_FILENO) < 0 || ::dup2(plan.output, STDOUT_FILENO) < 0 ||
        ::dup2(plan.output, STDERR_FILENO) < 0) {
        fail(plan);
    }
    closeAboveStandardAtExec(plan);
    if (startingDescriptorLimit.known) ::setrlimit(RLIMIT_NOFILE, &startingDescriptorLimit.limit);
    if (const auto* identity = plan.identity) {
        if (::setgid(identity->groupId) != 0 ||
            ::setgroups(identity->supplementaryGroups.size(),
                        identity->supplementaryGroups.data()) != 0 ||
            ::setuid(identity->userId) != 0) {
            fail(plan);
        }
    }
    if (plan.requiredPath != nullptr && ::access(plan.requiredPath, F_OK) != 0) fail(plan);
    if (plan.workingDirectory != nullptr && ::chdir(plan.workingDirectory) != 0) fail(plan);
    ::execve(plan.program, plan.arguments.data(),
             plan.environment.empty() ? environ : plan.environment.data());
    fail(plan);
}

// The plan for options; it points into options and arguments, which must outlive it.
ChildPlan planFor(const std::string& program, const std::vector<std::string>& arguments,
                  const QBChildProcess::Options& options) {
    ChildPlan plan;
    plan.program = program.c_str();
    plan.arguments = cStringVector(arguments);
    if (options.environment) plan.environment = cStringVector(*options.environment);
    if (options.workingDirectory) plan.workingDirectory = options.workingDirectory->c_str();
    if (options.identity) plan.identity = &*options.identity;
    if (options.requiredPath) plan.requiredPath = options.requiredPath->c_str();
    return plan;
}

void reap(pid_t child) {
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
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

int millisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1 << 30));
}

// Waits until descriptor is readable or the deadline passes; false at the deadline.
bool waitReadable(int descriptor, Clock::time_point deadline) {
    for (;;) {
        pollfd readable{descriptor, POLLIN, 0};
        const int ready = ::poll(&readable, 1, millisecondsUntil(deadline));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

// Reads until end of file or until the deadline; false when the deadline came first.
bool readToEnd(int descriptor, std::string& output, Clock::time_point deadline) {
    char chunk[4096];
    for (;;) {
        if (!waitReadable(descriptor, deadline)) return false;
        const ssize_t count = ::read(descriptor, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return true;
        const auto room = QBChildProcess::maxOutput - output.size();
        output.append(chunk, std::min(static_cast<std::size_t>(count), room));
    }
}

// Waits until the child has ended (without reaping it) or the deadline passes; false at the
// deadline. A child that closed its output may run on.
bool waitForEnd(pid_t child, Clock::time_point deadline) {
    const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    // Without process descriptors (kernels before 5.3) the reaping wait is not bounded.
    return !process.valid() || waitReadable(process.get(), deadline);
}

// Whether the child reported that it could not reach exec; waits for the exec or the report.
bool failedBeforeExec(int failureReport) {
    int error = 0;
    for (;;) {
        const ssize_t count = ::read(failureReport, &error, sizeof error);
        if (count < 0 && errno == EINTR) continue;
        return count > 0;
    }
}

}  // namespace

QBChildProcess::Result QBChildProcess::run(const std::string& program,
                                           const std::vector<std::string>& arguments,
                                           const Options& options) {
    Result result;
    const auto deadline = Clock::now() + options.timeLimit;
    std::vector<std::string> argumentVector{program};
    argumentVector.insert(argumentVector.end(), arguments.begin(), arguments.end());
    auto outputPipe = Pipe::open();
    auto failurePipe = Pipe::open();
    const Descriptor input = openNull(O_RDONLY);
    if (!outputPipe || !failurePipe || !input.valid()) return result;

    ChildPlan plan = planFor(program, argumentVector, options);
    plan.input = input.get();
    plan.output = outputPipe->writeEnd.get();
    plan.failureReport = failurePipe->writeEnd.get();
    const pid_t child = ::fork();
    if (child < 0) return result;
    if (child == 0) {
        ::setpgid(0, 0);
        becomeProgram(plan);
    }
    // Set on both sides, so that the group exists whichever runs first.
    ::setpgid(child, child);
    outputPipe->writeEnd.reset();
    failurePipe->writeEnd.reset();
    if (failedBeforeExec(failurePipe->readEnd.get())) {
        reap(child);
        return result;
    }
    const bool ended = readToEnd(outputPipe->readEnd.get(), result.output, deadline) &&
                       waitForEnd(child, deadline);
    if (!ended) {
        ::kill(-child, SIGKILL);
        ::kill(child, SIGKILL);  // also when it left the group
    }
    result.status = waitForStatus(child);
    return result;
}

QBChildProcess::Result QBChildProcess::run(const std::string& program,
                                           const std::vector<std::string>& arguments) {
    return run(program, arguments, Options{});
}

bool QBChildProcess::startDetached(const std::vector<std::string>& arguments,
                                   const Options& options) {
    if (arguments.empty()) return false;
    const Descriptor null = openNull(O_RDWR);
    if (!null.valid()) return false;
    ChildPlan plan = planFor(arguments.front(), arguments, options);
    plan.input = plan.output = null.get();
    const pid_t child = ::fork();
    if (child < 0) return false;
    if (child == 0) {
        ::setsid();
        if (::fork() == 0) becomeProgram(plan);
        ::_exit(0);
    }
    reap(child);
    return true;
}
