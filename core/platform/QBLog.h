#pragma once
// QBLog: the daemon's two log channels, in one place.
//
//  - log():    the general log line. One line on standard error: date and time, program name,
//              [pid:tid], then the text. The service manager's journal keeps standard error.
//  - notice(): syslog(3) at LOG_NOTICE priority, for the channel server's start, finish and
//              fatal set-up failures.
//
// Texts are fixed strings chosen by the callers; QBLog adds nothing but the prefix.
//
// Logging never blocks the caller on the output: a line (with the time and thread of the call)
// goes into a queue of at most queueCapacity lines, which one writer thread drains, one write(2)
// per line, so lines never interleave. When the output stops taking lines (a journal that is not
// read, a full pipe), the queue fills and later lines are dropped; once the output takes lines
// again, the writer logs how many were lost: "<count> log lines dropped". When the writer thread
// cannot be started, lines are written by their callers.
//
// Thread-safety: every function may be called from any thread at any time.
//
// Tests replace the output with setSink() to see which lines were logged (see
// tests/support/LogCapture.h); a sink receives every line at once, on the calling thread.

#include <chrono>
#include <cstddef>
#include <functional>
#include <string_view>

class QBLog {
public:
    enum class Channel { general, notice };
    using Sink = std::function<void(Channel channel, std::string_view text)>;

    // Lines waiting for the output at most. Far more than the daemon logs in any burst (one
    // line per connection, and connections are bounded); past it, lines are counted, not kept.
    static constexpr std::size_t queueCapacity = 4096;

    // Queues the general log line for text.
    static void log(std::string_view text);
    // Queues text for syslog at notice priority.
    static void notice(std::string_view text);
    // Waits until every line queued so far has been written, at most timeout; false when the
    // output did not take them in time (the process should not wait for a stalled journal).
    static bool flush(std::chrono::milliseconds timeout);

    // Replaces both channels' output with sink; an empty sink restores the real outputs.
    static void setSink(Sink sink);

    QBLog() = delete;
};
