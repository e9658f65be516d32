#pragma once
// DaemonProcess: runs the real daemon binary (or another program of ours, such as the GUI
// stand-in) as a child process, its standard output and error collected into one file. The
// destructor kills and reaps a child that is still running, so no test leaves one behind.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/TempDir.h"

// How the child is set up before it runs the binary.
struct DaemonSetup {
    bool stopPending = false;     // starts with SIGTERM blocked and already pending
    bool withoutThreads = false;  // runs as nobody, allowed no further thread (needs root)
};

class DaemonProcess {
public:
    ~DaemonProcess();

    // Starts command[0] with command as its arguments, with no blocked signals whatever this
    // process blocks, then as setup says. False on failure.
    bool start(const std::vector<std::string>& command = {QB_DAEMON_PATH}, const DaemonSetup& setup = {});
    bool signal(int signalNumber) const;
    // Exit status once the child has ended within timeout; nullopt when it is still running or
    // was ended by a signal.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);
    // What the child has written to standard output and error so far.
    std::string output() const;
    pid_t processId() const { return pid; }

private:
    TempDir directory;
    const std::string outputFile = directory.file("output.log");
    pid_t pid = -1;
};
