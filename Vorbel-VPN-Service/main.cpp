// Process entry of the daemon: no arguments, no environment, no configuration file.
// SIGTERM and SIGINT run stopService() on a worker thread; the exit status is always 0.

#include <sys/resource.h>

#include <csignal>
#include <memory>

#include "VorbelVPNService.h"
#include "platform/QBSignalSource.h"

namespace {

void ignoreSignal(int signalNumber) {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(signalNumber, &action, nullptr);
}

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

    service->startService();

    // Both servers may end while a stop sequence is still shutting the channel down or removing
    // the alias; the process ends only after it has finished.
    stopSignals.waitForHandlers();
    return 0;
}
