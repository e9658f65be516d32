#include "platform/QBLog.h"

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

namespace {

std::mutex sinkLock;  // guards sink; leaf lock, taken by nothing else
QBLog::Sink sink;

bool deliverToSink(QBLog::Channel channel, std::string_view text) {
    std::lock_guard guard(sinkLock);
    if (!sink) return false;
    sink(channel, text);
    return true;
}

std::string generalLogPrefix() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[64];
    const size_t used = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char prefix[256];
    std::snprintf(prefix, sizeof prefix, "%.*s.%03lld %s[%d:%ld] ", static_cast<int>(used), stamp,
                  static_cast<long long>(millis), program_invocation_short_name,
                  static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)));
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

}  // namespace

void QBLog::log(std::string_view text) {
    if (deliverToSink(Channel::general, text)) return;
    std::string line = generalLogPrefix();
    line.append(text);
    line.push_back('\n');
    writeAll(STDERR_FILENO, line);
}

void QBLog::notice(std::string_view text) {
    if (deliverToSink(Channel::notice, text)) return;
    syslog(LOG_NOTICE, "%.*s", static_cast<int>(text.size()), text.data());
}

void QBLog::setSink(Sink newSink) {
    std::lock_guard guard(sinkLock);
    sink = std::move(newSink);
}
