#pragma once
// QBChildProcess: runs a program as a child of the service, without a shell, and collects what it
// prints; or starts one detached from the service. Also the one place where the service forks.
//
// Every child starts clean, whatever the service holds: standard input is /dev/null; standard
// output and error are a pipe of our own (run) or /dev/null (startDetached), never the
// service's; no descriptor above 2 survives (listening sockets, the channel, the journal stream,
// descriptors passed by the service manager); the descriptor soft limit is the one the process
// started with (the service raises its own); the signal mask is empty and every signal has its
// default disposition (the service blocks its stop signals and ignores SIGPIPE, and ignored
// dispositions would survive exec). A child given an identity takes the group id, the
// supplementary groups and the user id, in this order, and runs only when all three succeed.
// Everything a child needs is made before the fork; between fork and exec the child makes only
// async-signal-safe calls.
//
// Threads: every operation may be called from any thread, also from several at once. run()
// blocks the caller until the child has ended, at most about its time limit.
//
//   auto result = QBChildProcess::run("/sbin/ip", {"-o", "address", "show", "dev", "lo"});
//   if (result.status == 0) parse(result.output);

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class QBChildProcess {
public:
    struct Result {
        // The exit status; for a child ended by a signal, the signal's number; notStarted when
        // no child could be made (a missing program or working directory, an identity that
        // could not be taken, no pipe, no process).
        std::int32_t status = notStarted;
        // Everything the child wrote to standard output and error, in order, up to maxOutput.
        std::string output;
    };

    // The user a child runs as.
    struct Identity {
        uid_t userId = 0;
        gid_t groupId = 0;
        std::vector<gid_t> supplementaryGroups;
    };

    struct Options {
        // The child's working directory; the service's own when none is given.
        std::optional<std::string> workingDirectory;
        // The child's whole environment as "NAME=value" texts; the service's own when none.
        std::optional<std::vector<std::string>> environment;
        // The ids the child takes; the service's own when none.
        std::optional<Identity> identity;
        // A path the child must find, once it has taken its ids, to run the program at all (a
        // socket in a folder that only the user may search, say); without it the run is
        // notStarted.
        std::optional<std::string> requiredPath;
        // run(): how long the whole run may take, reaping included.
        std::chrono::milliseconds timeLimit = runTimeLimit;
    };

    static constexpr std::int32_t notStarted = -1;
    // The tools run here print a few hundred bytes; a child that prints without end is read to
    // its end all the same (so that it does not block), but only this much is kept.
    static constexpr std::size_t maxOutput = 1 << 20;
    // The service's start and stop wait for these children; a tool that hangs (a stuck netlink
    // request, a child that keeps running after closing its output) is killed with its whole
    // process group once this much time has passed since it started.
    static constexpr std::chrono::milliseconds runTimeLimit{10'000};

    // Runs program with arguments (argv[0] is the program path) in a process group of its own
    // and waits for it to end, killing the group at the time limit. Never throws; failures are
    // in status.
    static Result run(const std::string& program, const std::vector<std::string>& arguments,
                      const Options& options);
    // The same with the default options.
    static Result run(const std::string& program, const std::vector<std::string>& arguments);

    // Starts arguments[0] with arguments in a session of its own and returns without waiting:
    // the program runs in a grandchild, which belongs to init (or the nearest subreaper) once
    // the intermediate child, reaped here at once, has gone. Output goes to /dev/null. False
    // when no process could be made or arguments is empty; what the grandchild meets (an id it
    // cannot take, a program that will not start) is not reported.
    static bool startDetached(const std::vector<std::string>& arguments, const Options& options);

    QBChildProcess() = delete;
};
