#include "platform/QBSignalSource.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

QBSignalSource::QBSignalSource(std::initializer_list<int> signals, Handler signalHandler)
    : handler(std::move(signalHandler)) {
    sigemptyset(&signalSet);
    for (int signalNumber : signals) sigaddset(&signalSet, signalNumber);
    pthread_sigmask(SIG_BLOCK, &signalSet, nullptr);

    signalDescriptor = signalfd(-1, &signalSet, SFD_CLOEXEC);
    if (signalDescriptor < 0) return;
    if (pipe2(wakePipe, O_CLOEXEC) != 0) {
        wakePipe[0] = wakePipe[1] = -1;
        return;
    }
    try {
        waiter = std::thread([this] {
            ::pthread_setname_np(::pthread_self(), "signals");
            waitLoop();
        });
    } catch (const std::system_error&) {
        // isActive() tells the owner; the signals stay blocked.
    }
}

QBSignalSource::~QBSignalSource() {
    if (waiter.joinable()) {
        const char wake = 0;
        while (::write(wakePipe[1], &wake, 1) < 0 && errno == EINTR) {
        }
        waiter.join();
    }
    waitForHandlers();
    for (int fd : {signalDescriptor, wakePipe[0], wakePipe[1]}) {
        if (fd >= 0) ::close(fd);
    }
}

void QBSignalSource::waitForHandlers() {
    QBMutexLock guard(handlersLock);
    while (runningHandlers != 0) handlersDone.wait(guard.native());
    std::list<std::thread> finished;
    finished.swap(handlers);
    guard.unlock();
    for (auto& thread : finished) thread.join();
}

void QBSignalSource::waitLoop() {
    pollfd watched[2] = {{signalDescriptor, POLLIN, 0}, {wakePipe[0], POLLIN, 0}};
    for (;;) {
        if (poll(watched, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (watched[1].revents != 0) return;
        if ((watched[0].revents & POLLIN) == 0) continue;
        signalfd_siginfo info{};
        const ssize_t n = ::read(signalDescriptor, &info, sizeof info);
        if (n == static_cast<ssize_t>(sizeof info)) startHandler(static_cast<int>(info.ssi_signo));
    }
}

void QBSignalSource::startHandler(int signalNumber) {
    {
        QBMutexLock guard(handlersLock);
        ++runningHandlers;  // counted before the thread exists, so a waiter never misses it
        try {
            handlers.emplace_back([this, signalNumber] {
                ::pthread_setname_np(::pthread_self(), "stop");
                runHandler(signalNumber);
            });
            return;
        } catch (const std::system_error&) {
            // No thread to be had: the handler runs here, and signals wait meanwhile.
        }
    }
    runHandler(signalNumber);
}

void QBSignalSource::runHandler(int signalNumber) {
    try {
        handler(signalNumber);
    } catch (...) {
        // A handler that fails ends its own run, not the process.
    }
    QBMutexLock done(handlersLock);
    --runningHandlers;
    handlersDone.notify_all();
}
