// Children run for the service (runTask): their output as lines, their status, and what they must
// not inherit from the daemon.

#include "platform/QBChildProcess.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "VorbelVPNService.h"
#include "support/Eventually.h"
#include "support/TempDir.h"

namespace {

using Lines = std::vector<std::string>;

struct Run {
    std::int32_t status = 0;
    std::optional<Lines> lines;
};

Run shell(const std::string& script, const std::optional<std::string>& directory = std::nullopt) {
    Run run;
    run.status = VorbelVPNService().runTask("/bin/sh", Lines{"-c", script}, &run.lines, directory);
    return run;
}

TEST(QBChildProcessTest, OutputLinesStatusAndWhereItRuns) {
    const auto run = shell("printf 'one\\r\\n'; printf 'two\\n' >&2; exit 3");
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.lines, (Lines{"one\r", "two", ""}));  // split at line feeds only
    EXPECT_EQ(shell("printf 'caf\\303\\251'").lines, Lines{"caf\xC3\xA9"});
    EXPECT_EQ(shell("printf 'bad \\377 byte\\n'").lines, std::nullopt);
    EXPECT_EQ(shell("kill -KILL $$").status, SIGKILL);
    EXPECT_EQ(VorbelVPNService().runTask("/nonexistent/tool", std::nullopt), QBChildProcess::notStarted);
    EXPECT_EQ(VorbelVPNService().runTask("/etc/hostname", Lines{}), QBChildProcess::notStarted);
    TempDir directory;
    EXPECT_EQ(shell("pwd", directory.path()).lines, (Lines{directory.path(), ""}));
    EXPECT_EQ(shell("pwd", directory.file("missing")).status, QBChildProcess::notStarted);
}

TEST(QBChildProcessTest, ChildInheritsNoDescriptorsBlockedOrIgnoredSignals) {
    // The daemon's state: stop signals blocked, SIGPIPE and SIGTERM ignored, a listening socket
    // that is not close-on-exec (as the service manager passes it), and its descriptor soft limit
    // raised; children keep the limit it started with.
    sigset_t stopSignals, previousMask;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM), sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, &previousMask);
    const auto previousPipe = std::signal(SIGPIPE, SIG_IGN), previousTerm = std::signal(SIGTERM, SIG_IGN);
    const int listening = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(listening, 3);
    rlimit startingLimit{};
    ::getrlimit(RLIMIT_NOFILE, &startingLimit);
    const rlimit raised{startingLimit.rlim_max, startingLimit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &raised);
    // Read by the shell's children, not while the shell itself waits for one (it may block
    // signals or hold a pipe meanwhile); a descriptor is open when the shell can duplicate it.
    const auto run = shell("grep -E '^Sig(Blk|Ign)' /proc/self/status; readlink /proc/self/fd/0; "
                           "for fd in 0 1 2 3 4 5 6 7 8 9; do { true >&$fd; } 2>/dev/null && "
                           "printf '%s ' $fd; done; printf '\\n'; ulimit -n");
    ::setrlimit(RLIMIT_NOFILE, &startingLimit);
    ::close(listening);
    std::signal(SIGPIPE, previousPipe), std::signal(SIGTERM, previousTerm);
    pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);

    ASSERT_EQ(run.status, 0);
    ASSERT_TRUE(run.lines && run.lines->size() == 6) << ::testing::PrintToString(run.lines);
    const auto& lines = *run.lines;
    EXPECT_EQ(lines[0], "SigBlk:\t0000000000000000");
    // (glibc's own real-time signals may be inherited as ignored from whoever started the test.)
    const auto ignored = std::stoull(lines[1].substr(lines[1].find('\t') + 1), nullptr, 16);
    for (const int signalNumber : {SIGPIPE, SIGTERM, SIGINT})
        EXPECT_EQ(ignored & (1ULL << (signalNumber - 1)), 0u) << "ignored: " << signalNumber;
    EXPECT_EQ(lines[2], "/dev/null");
    EXPECT_EQ(lines[3], "0 1 2 ");
    EXPECT_EQ(lines[4], std::to_string(startingLimit.rlim_cur));
}

// A tool that closes its output and runs on, or leaves a process of its group holding it, is
// killed with its whole group at the time limit, and reaped.
TEST(QBChildProcessTest, TheTimeLimitCoversTheWholeRunAndTheWholeProcessGroup) {
    TempDir directory;
    QBChildProcess::Options options;
    options.timeLimit = std::chrono::milliseconds(300 * sanitizerSlowdown);
    const auto pidFile = directory.file("helper.pid");
    for (const std::string end : {"exec >&- 2>&-; sleep 60", "exit 0"}) {
        const auto result = QBChildProcess::run("/bin/sh", {"-c", "sleep 60 & echo $! > " + pidFile + "; " + end}, options);
        EXPECT_TRUE(end == "exit 0" || result.status == SIGKILL) << "the tool runs on after closing its output: " << result.status;
        // The group's other process is gone too (a zombie at most, until init reaps it).
        std::string helper;
        ASSERT_TRUE(std::ifstream(pidFile) >> helper);
        EXPECT_TRUE(eventually([&] {
            std::ifstream statFile("/proc/" + helper + "/stat");
            const std::string stat{std::istreambuf_iterator<char>(statFile), {}};
            return stat.empty() || stat.find(") Z ") != std::string::npos;
        }, std::chrono::seconds(5 * sanitizerSlowdown))) << end;
    }
}

}  // namespace
