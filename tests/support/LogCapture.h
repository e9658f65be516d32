#pragma once
// LogCapture: while alive, every QBLog line is recorded here instead of being written out.
// Thread-safe: lines may arrive from any thread.

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/QBLog.h"

class LogCapture {
public:
    struct Line {
        QBLog::Channel channel;
        std::string text;
    };

    LogCapture() {
        QBLog::setSink([this](QBLog::Channel channel, std::string_view text) {
            std::lock_guard guard(lock);
            recorded.push_back({channel, std::string(text)});
        });
    }
    ~LogCapture() { QBLog::setSink({}); }

    std::vector<Line> lines() const {
        std::lock_guard guard(lock);
        return recorded;
    }
    // Number of lines equal to text on any channel / on the given channel.
    int count(const std::string& text) const { return countOn(text, std::nullopt); }
    int count(const std::string& text, QBLog::Channel channel) const {
        return countOn(text, channel);
    }
    bool contains(const std::string& text) const { return count(text) > 0; }
    void clear() {
        std::lock_guard guard(lock);
        recorded.clear();
    }

private:
    int countOn(const std::string& text, std::optional<QBLog::Channel> channel) const {
        std::lock_guard guard(lock);
        return static_cast<int>(
            std::count_if(recorded.begin(), recorded.end(), [&](const Line& line) {
                return line.text == text && (!channel || line.channel == *channel);
            }));
    }

    mutable std::mutex lock;  // guards recorded
    std::vector<Line> recorded;
};
