#pragma once
// QBChildProcess: runs a program as a child of the service, without a shell, and collects what it
// prints: one pipe is both its standard output and its standard error; standard input is
// /dev/null.
//
// The child gets nothing of the service that it should not have: every descriptor above 2 is
// closed in it (listening sockets, the channel, descriptors passed by the service manager), its
// signal mask is empty and every signal has its default disposition (the service blocks its stop
// signals and ignores SIGPIPE, and ignored dispositions would survive exec).
//
// Threads: run() may be called from any thread, also from several at once; it blocks the caller
// until the child has ended (or has been killed after outputTimeout).
//
//   auto result = QBChildProcess::run("/sbin/ip", {"-o", "address", "show", "dev", "lo"});
//   if (result.status == 0) parse(result.output);

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class QBChildProcess {
public:
    struct Result {
        // The exit status; for a child ended by a signal, the signal's number; notStarted when
        // no child could be made (a missing program, no pipe, no process).
        std::int32_t status = notStarted;
        // Everything the child wrote to standard output and error, in order, up to maxOutput.
        std::string output;
    };

    static constexpr std::int32_t notStarted = -1;
    // The tools run here print a few hundred bytes; a child that prints without end is read to
    // its end all the same (so that it does not block), but only this much is kept.
    static constexpr std::size_t maxOutput = 1 << 20;
    // The service's start and stop wait for these children; a tool that hangs (a stuck netlink
    // request, a child that keeps the pipe open) is killed after this long.
    static constexpr std::chrono::seconds outputTimeout{10};

    // Runs program with arguments (argv[0] is the program path), in workingDirectory when one is
    // given, else in the service's own. Never throws; failures are in status.
    static Result run(const std::string& program, const std::vector<std::string>& arguments,
                      const std::optional<std::string>& workingDirectory = std::nullopt);

    QBChildProcess() = delete;
};
