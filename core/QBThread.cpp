#include "QBThread.h"

#include <unistd.h>

#include <memory>
#include <string>

namespace {

struct Start {
    std::function<void()> body;
    std::string role;
};

void* runStart(void* argument) {
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    ::pthread_setname_np(::pthread_self(), start->role.c_str());
    try {
        start->body();
    } catch (...) {
        // A body that throws ends its own thread, not the process.
    }
    return nullptr;
}

}  // namespace

bool QBThread::create(pthread_t& thread, std::function<void()> body, std::size_t stackSize,
                      const char* role, bool detached) {
    auto start = std::make_unique<Start>(
        Start{std::move(body), std::string(role ? role : "").substr(0, maxRoleLength)});
    pthread_attr_t attributes;
    if (::pthread_attr_init(&attributes) != 0) return false;
    if (detached) ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (stackSize > 0) ::pthread_attr_setstacksize(&attributes, stackSize);
    const bool started = ::pthread_create(&thread, &attributes, &runStart, start.get()) == 0;
    ::pthread_attr_destroy(&attributes);
    if (started) start.release();  // the thread owns it now
    return started;
}

bool QBThread::startDetached(std::function<void()> body, std::size_t stackSize, const char* role) {
    pthread_t thread;
    return create(thread, std::move(body), stackSize, role, true);
}

std::optional<QBThread> QBThread::start(std::function<void()> body, std::size_t stackSize,
                                        const char* role) {
    pthread_t thread;
    if (!create(thread, std::move(body), stackSize, role, false)) return std::nullopt;
    return QBThread(thread);
}

QBThread::QBThread(QBThread&& other) noexcept : thread(other.thread), joinable(other.joinable) {
    other.joinable = false;
}

QBThread::~QBThread() {
    join();
}

void QBThread::join() {
    if (!joinable) return;
    ::pthread_join(thread, nullptr);
    joinable = false;
}

void QBThread::nameCurrent(const std::string& role) {
    if (::gettid() == ::getpid()) return;
    ::pthread_setname_np(::pthread_self(), role.substr(0, maxRoleLength).c_str());
}
