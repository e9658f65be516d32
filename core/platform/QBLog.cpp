#include "platform/QBLog.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <deque>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "QBMutex.h"

namespace {

using Clock = std::chrono::system_clock;

QBMutex sinkLock;  // a leaf: nothing else is taken while it is held
QBLog::Sink sink QB_GUARDED_BY(sinkLock);

bool deliverToSink(QBLog::Channel channel, std::string_view text) {
    QBMutexLock guard(sinkLock);
    if (!sink) return false;
    sink(channel, text);
    return true;
}

long currentThreadId() {
    return static_cast<long>(syscall(SYS_gettid));
}

struct Line {
    QBLog::Channel channel;
    Clock::time_point time;
    long thread;
    std::string text;
};

std::string generalLogPrefix(Clock::time_point time, long thread) {
    using namespace std::chrono;
    const std::time_t seconds = Clock::to_time_t(time);
    const auto millis = duration_cast<milliseconds>(time.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[64];
    const size_t used = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char prefix[256];
    std::snprintf(prefix, sizeof prefix, "%.*s.%03lld %s[%d:%ld] ", static_cast<int>(used), stamp,
                  static_cast<long long>(millis), program_invocation_short_name,
                  static_cast<int>(getpid()), thread);
    return prefix;
}

void writeAll(int fd, const std::string& line) {
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // nowhere else to report a failing log
        done += static_cast<size_t>(n);
    }
}

void output(const Line& line) {
    if (line.channel == QBLog::Channel::notice) {
        syslog(LOG_NOTICE, "%s", line.text.c_str());
        return;
    }
    writeAll(STDERR_FILENO, generalLogPrefix(line.time, line.thread) + line.text + "\n");
}

// The queue and its writer thread. Made once and never destroyed: the detached writer may still
// run while the process exits.
class Writer {
public:
    void add(Line line) QB_EXCLUDES(lock) {
        QBMutexLock guard(lock);
        if (!started) startThread();
        if (!threadRuns) {
            guard.unlock();
            output(line);
            return;
        }
        if (lines.size() >= QBLog::queueCapacity) {
            ++dropped;
            return;
        }
        lines.push_back(std::move(line));
        ++queued;
        linesQueued.notify_one();
    }

    bool flush(std::chrono::milliseconds timeout) QB_EXCLUDES(lock) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        QBMutexLock guard(lock);
        const std::uint64_t target = queued;
        while (written < target || dropped > 0 || writing) {
            if (linesWritten.wait_until(guard.native(), deadline) == std::cv_status::timeout) {
                return written >= target && dropped == 0 && !writing;
            }
        }
        return true;
    }

private:
    void startThread() QB_REQUIRES(lock) {
        started = true;
        try {
            std::thread([this] {
                ::pthread_setname_np(::pthread_self(), "log");
                drain();
            }).detach();
            threadRuns = true;
        } catch (const std::system_error&) {
            threadRuns = false;
        }
    }

    void drain() QB_EXCLUDES(lock) {
        QBMutexLock guard(lock);
        for (;;) {
            while (lines.empty() && dropped == 0) linesQueued.wait(guard.native());
            std::deque<Line> batch;
            batch.swap(lines);
            const std::size_t lost = std::exchange(dropped, 0);
            writing = true;
            guard.unlock();
            for (const Line& line : batch) output(line);
            // The lost lines came after the ones just written: the queue was full.
            if (lost > 0) {
                output({QBLog::Channel::general, Clock::now(), currentThreadId(),
                        std::to_string(lost) + " log lines dropped"});
            }
            guard.relock();
            written += batch.size();
            writing = false;
            linesWritten.notify_all();
        }
    }

    QBMutex lock;  // a leaf, never held while writing
    std::condition_variable linesQueued;
    std::condition_variable linesWritten;
    std::deque<Line> lines QB_GUARDED_BY(lock);
    std::size_t dropped QB_GUARDED_BY(lock) = 0;    // refused since the writer last took the queue
    std::uint64_t queued QB_GUARDED_BY(lock) = 0;   // lines ever queued
    std::uint64_t written QB_GUARDED_BY(lock) = 0;  // of those, lines written
    bool writing QB_GUARDED_BY(lock) = false;       // the writer is outputting lines it took
    bool started QB_GUARDED_BY(lock) = false;
    bool threadRuns QB_GUARDED_BY(lock) = false;
};

Writer& writer() {
    static Writer* const instance = new Writer;
    return *instance;
}

void enqueue(QBLog::Channel channel, std::string_view text) {
    if (deliverToSink(channel, text)) return;
    writer().add({channel, Clock::now(), currentThreadId(), std::string(text)});
}

}  // namespace

void QBLog::log(std::string_view text) {
    enqueue(Channel::general, text);
}

void QBLog::notice(std::string_view text) {
    enqueue(Channel::notice, text);
}

bool QBLog::flush(std::chrono::milliseconds timeout) {
    return writer().flush(timeout);
}

void QBLog::setSink(Sink newSink) {
    QBMutexLock guard(sinkLock);
    sink = std::move(newSink);
}
