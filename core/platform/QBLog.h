#pragma once
// QBLog: the daemon's two log channels, in one place.
//
//  - log():    the general log line. One line on standard error: date and time, program name,
//              [pid:tid], then the text. The service manager's journal keeps standard error.
//  - notice(): syslog(3) at LOG_NOTICE priority, for the channel server's start, finish and
//              fatal set-up failures.
//
// Texts are fixed strings chosen by the callers; QBLog adds nothing but the prefix.
// Thread-safety: every function may be called from any thread at any time. A line is written
// with one write(2), so lines of concurrent callers never interleave.
//
// Tests replace the output with setSink() to see which lines were logged (see
// tests/support/LogCapture.h).

#include <functional>
#include <string_view>

class QBLog {
public:
    enum class Channel { general, notice };
    using Sink = std::function<void(Channel channel, std::string_view text)>;

    // Writes the general log line for text.
    static void log(std::string_view text);
    // Sends text to syslog at notice priority.
    static void notice(std::string_view text);

    // Replaces both channels' output with sink; an empty sink restores the real outputs.
    static void setSink(Sink sink);

    QBLog() = delete;
};
