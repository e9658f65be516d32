// The general log line on standard error: its format, and that a stalled output never holds up a
// caller, the lines lost meanwhile being counted.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <future>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/QBLog.h"
#include "support/Eventually.h"

using namespace std::chrono_literals;

namespace {

// Standard error goes into a pipe for the life of the object; nobody reads it until readAll().
class StandardErrorPipe {
public:
    StandardErrorPipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return;
        readEnd = ends[0], savedError = ::dup(STDERR_FILENO);
        ::dup2(ends[1], STDERR_FILENO), ::close(ends[1]);
    }
    ~StandardErrorPipe() {
        if (readEnd >= 0) ::dup2(savedError, STDERR_FILENO), ::close(savedError), ::close(readEnd);
    }
    // Reads until the log has been written out, then the rest; the lines read.
    std::vector<std::string> readAll() {
        auto flushed = std::async(std::launch::async, [] { return QBLog::flush(10s * sanitizerSlowdown); });
        std::string text;
        char chunk[65536];
        ::fcntl(readEnd, F_SETFL, O_NONBLOCK);
        const auto drain = [&] {
            for (ssize_t n; (n = ::read(readEnd, chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
        };
        while (flushed.wait_for(1ms) != std::future_status::ready) drain();
        EXPECT_TRUE(flushed.get());
        drain();
        std::vector<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

private:
    int readEnd = -1, savedError = -1;
};

}  // namespace

TEST(QBLogTest, LinesCarryDateTimeProgramAndThreadInTheOrderLogged) {
    StandardErrorPipe output;
    QBLog::log("Client connected");
    QBLog::log("Invalid command");
    const auto lines = output.readAll();
    ASSERT_EQ(lines.size(), 2u);
    // The thread is the one that logged, not the writer.
    const auto prefix = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} QBLogTest\[)" + std::to_string(::getpid()) + ":" +
                        std::to_string(::gettid()) + R"(\] )";
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(prefix + "Client connected"))) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(prefix + "Invalid command"))) << lines[1];
}

TEST(QBLogTest, AStalledOutputHoldsUpNoCallerAndTheLostLinesAreCounted) {
    constexpr int logged = 50000;  // far more than the pipe and the queue hold together
    StandardErrorPipe output;
    auto logging = std::async(std::launch::async, [] {
        for (int i = 0; i < logged; ++i) QBLog::log("Client connected");
    });
    EXPECT_EQ(logging.wait_for(20s * sanitizerSlowdown), std::future_status::ready) << "a caller waits for the output";
    const auto lines = output.readAll();  // also lets a blocked caller go on
    logging.get();
    int connected = 0, dropped = 0;
    const std::regex droppedLine(R"(\] (\d+) log lines dropped$)");
    for (const auto& line : lines) {
        std::smatch count;
        if (line.ends_with("] Client connected")) ++connected;
        else if (std::regex_search(line, count, droppedLine)) dropped += std::stoi(count[1]);
    }
    EXPECT_GT(dropped, 0);
    EXPECT_EQ(connected + dropped, logged);
}
