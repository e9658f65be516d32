#pragma once
// LogCapture: while alive, every QBLog line is recorded here instead of being written out.
// Thread-safe: lines may arrive from any thread.

#include <mutex>
#include <string>
#include <vector>

#include "platform/QBLog.h"

class LogCapture {
public:
    struct Line {
        QBLog::Channel channel;
        std::string text;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines() const;
    // Number of lines equal to text on any channel / on the given channel.
    int count(const std::string& text) const;
    int count(const std::string& text, QBLog::Channel channel) const;
    bool contains(const std::string& text) const { return count(text) > 0; }
    void clear();

private:
    mutable std::mutex lock;
    std::vector<Line> recorded;
};
