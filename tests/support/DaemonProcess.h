#pragma once
// DaemonProcess: runs the real daemon binary as a child process, with its standard error
// collected into a file. The destructor kills and reaps a child that is still running, so no
// test leaves a daemon behind.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "support/TempDir.h"

class DaemonProcess {
public:
    ~DaemonProcess();

    // How the child is set up before it runs the binary.
    struct Setup {
        bool stopPending = false;     // starts with SIGTERM blocked and already pending
        bool withoutThreads = false;  // runs as nobody, allowed no further thread (needs root)
    };

    // Starts the binary at path (default: the daemon built with the tests), with no blocked
    // signals whatever this process blocks. False on failure.
    bool start(const std::string& path = QB_DAEMON_PATH) { return start(Setup{}, path); }
    bool start(const Setup& setup, const std::string& path = QB_DAEMON_PATH);
    bool signal(int signalNumber) const;
    // Exit status once the child has ended within timeout; nullopt when it is still running or
    // was ended by a signal.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);
    // What the daemon has written to standard error so far.
    std::string standardError() const;

private:
    TempDir directory;
    const std::string errorFile = directory.file("stderr.log");
    pid_t pid = -1;
};
