#pragma once
// DaemonProcess: runs the real daemon binary (or another program of ours, such as the GUI
// stand-in) as a child process, with its standard output and error collected into files. The
// destructor kills and reaps a child that is still running, so no test leaves one behind.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/TempDir.h"

class DaemonProcess {
public:
    ~DaemonProcess();

    // Starts the binary at path (default: the daemon built with the tests), with no blocked
    // signals whatever this process blocks. False on failure.
    bool start(const std::string& path = QB_DAEMON_PATH) { return start(std::vector{path}); }
    // Starts command[0] with command as its arguments.
    bool start(const std::vector<std::string>& command);
    bool signal(int signalNumber) const;
    // Exit status once the child has ended within timeout; nullopt when it is still running or
    // was ended by a signal.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);
    // What the daemon has written to standard error so far.
    std::string standardError() const;
    std::string standardOutput() const;
    pid_t processId() const { return pid; }

private:
    TempDir directory;
    const std::string errorFile = directory.file("stderr.log");
    const std::string outputFile = directory.file("stdout.log");
    pid_t pid = -1;
};
