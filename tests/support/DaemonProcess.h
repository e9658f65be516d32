#pragma once
// DaemonProcess: runs the real daemon binary as a child process, with its standard error
// collected into a file, and stops it. The destructor kills and reaps a child that is still
// running, so no test leaves a daemon behind.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "support/TempDir.h"

class DaemonProcess {
public:
    DaemonProcess();
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Starts the binary at path (default: the daemon built with the tests). False on failure.
    bool start(const std::string& path = QB_DAEMON_PATH);
    pid_t pid() const { return pid_; }

    bool signal(int signalNumber) const;
    // Exit status once the child has ended within timeout; nullopt when it is still running or
    // ended through a signal (then terminatedBySignal() says which).
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);
    int terminatedBySignal() const { return terminatingSignal; }
    bool isRunning();

    // What the daemon has written to standard error so far.
    std::string standardError() const;

private:
    TempDir directory;
    std::string errorFile;
    pid_t pid_ = -1;
    int terminatingSignal = 0;
};

// Polls until a TCP connection to address:port succeeds or timeout passes.
bool waitUntilTCPListening(const std::string& address, int port, std::chrono::milliseconds timeout);
// Polls until a Unix-domain socket at path accepts a connection or timeout passes.
bool waitUntilUnixListening(const std::string& path, std::chrono::milliseconds timeout);
