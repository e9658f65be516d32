// Process entry of the daemon: no arguments, no environment, no configuration file.
// SIGTERM and SIGINT run stopService() on a worker thread; the exit status is always 0.

#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <system_error>

#include "VorbelVPNService.h"
#include "platform/QBLog.h"
#include "platform/QBSignalSource.h"

namespace {

void doNothing(int) {}

// Ignores signalNumber without discarding it: setting SIG_IGN would drop one already pending,
// which the signal source must still read. A handler that does nothing never runs, as the
// signal stays blocked in every thread; children get the default action back at exec.
void ignoreSignal(int signalNumber) {
    struct sigaction action {};
    action.sa_handler = doNothing;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(signalNumber, &action, nullptr);
}

// How long the end of the process waits for the log to be written; a journal that does not
// read must not hold the process.
constexpr std::chrono::seconds logFlushTimeout{1};

// Both bridge servers may hold thousands of connections (a hostile page can open them); the
// default soft limit of 1024 descriptors would make them evict connections far earlier.
void allowAllDescriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main() {
    auto service = std::make_shared<VorbelVPNService>();

    // Must exist before any other thread: it blocks both signals for every thread made later.
    QBSignalSource stopSignals({SIGTERM, SIGINT}, [service](int) { service->stopService(); });
    ignoreSignal(SIGTERM);
    ignoreSignal(SIGINT);
    allowAllDescriptors();
    if (!stopSignals.isActive()) {
        // Without its thread nothing could stop the service: do not start it.
        QBLog::log("Failed to start the signal thread");
    } else {
        try {
            service->startService();
        } catch (const std::system_error&) {
            QBLog::log("Failed to start a thread");  // the exit status stays 0
            service->stopService();
        }
        // Both servers may end while a stop sequence is still shutting the channel down or
        // removing the alias; the process ends only after it has finished.
        stopSignals.waitForHandlers();
    }
    QBLog::flush(logFlushTimeout);
    return 0;
}
