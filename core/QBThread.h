#pragma once
// QBThread: starts a thread with a stack of a chosen size and a short role name, the two things
// std::thread cannot do. Servers that keep a thread per connection or per job give each a small
// stack (only touched pages become resident), so that hundreds of them cost little; the role
// name is what `top -H` and `ps -L` show, so a thread's purpose can be told from outside.
//
// A role name has at most maxRoleLength characters (the kernel's limit); a longer one is cut.
// A stack size of 0, or one the system refuses (below its minimum), takes the system's default.
//
// Threads: any thread may start threads; a QBThread object is joined by one thread.
//
//   QBThread::startDetached([job] { job(); }, 256 * 1024, "pool");
//   auto loop = QBThread::start([&] { run(); }, 0, "loop-94-1");
//   if (loop) loop->join();

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include <pthread.h>

class QBThread {
public:
    static constexpr std::size_t maxRoleLength = 15;

    // Runs body on a new detached thread. False when no thread could be started; body has then
    // been destroyed without running.
    static bool startDetached(std::function<void()> body, std::size_t stackSize, const char* role);
    // Runs body on a new thread that the caller joins; nothing when no thread could be started.
    static std::optional<QBThread> start(std::function<void()> body, std::size_t stackSize,
                                         const char* role);

    QBThread(QBThread&& other) noexcept;
    QBThread& operator=(QBThread&&) = delete;
    QBThread(const QBThread&) = delete;
    QBThread& operator=(const QBThread&) = delete;
    // A thread that was not joined is joined here.
    ~QBThread();

    // Names the calling thread, unless it is the process's main thread (whose name is the
    // process's own, which tools such as pgrep look for).
    static void nameCurrent(const std::string& role);

    // Waits until the thread has ended; once.
    void join();

private:
    explicit QBThread(pthread_t thread) : thread(thread) {}
    static bool create(pthread_t& thread, std::function<void()> body, std::size_t stackSize,
                       const char* role, bool detached);

    pthread_t thread;
    bool joinable = true;
};
