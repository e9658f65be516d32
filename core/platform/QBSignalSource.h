#pragma once
// QBSignalSource: turns asynchronous signals into calls of a handler on a worker thread, the
// way a dispatch signal source on a concurrent queue does.
//
// The constructor blocks the given signals in the calling thread; every thread created after it
// inherits that mask, so the signals are never delivered asynchronously anywhere and never take
// their default action. One waiter thread reads them from a signalfd; every arrival runs the
// handler on a new worker thread (or on the waiter thread itself when no thread can be started).
// Handlers for different arrivals may run at the same time; an exception from one is dropped.
//
// Construct it on the main thread before any other thread exists (the mask is only inherited).
// Child processes inherit the blocked mask too: code that starts a child must reset it
// (posix_spawnattr_setsigmask with POSIX_SPAWN_SETSIGMASK, or sigprocmask after fork).
// waitForHandlers() and the destructor may be called from the owning thread only.
//
//   QBSignalSource stop({SIGTERM, SIGINT}, [&](int) { service->stopService(); });
//   service->startService();
//   stop.waitForHandlers();   // never end the process during a running stop

#include <csignal>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <list>
#include <thread>

#include "QBMutex.h"

class QBSignalSource {
public:
    using Handler = std::function<void(int signalNumber)>;

    QBSignalSource(std::initializer_list<int> signals, Handler handler);
    ~QBSignalSource();
    QBSignalSource(const QBSignalSource&) = delete;
    QBSignalSource& operator=(const QBSignalSource&) = delete;

    // False when the signalfd, the wake pipe or the waiter thread could not be made; signals
    // then stay blocked.
    bool isActive() const { return waiter.joinable(); }

    // Blocks until every handler started so far has returned.
    void waitForHandlers();

private:
    void waitLoop();
    void startHandler(int signalNumber);
    void runHandler(int signalNumber);

    Handler handler;
    sigset_t signalSet{};
    int signalDescriptor = -1;
    int wakePipe[2] = {-1, -1};
    std::thread waiter;

    QBMutex handlersLock;  // a leaf: handlers run without it
    std::condition_variable handlersDone;
    int runningHandlers QB_GUARDED_BY(handlersLock) = 0;
    // Joined by waitForHandlers and the destructor.
    std::list<std::thread> handlers QB_GUARDED_BY(handlersLock);
};
