#pragma once
// LogCapture: while alive, every QBLog line is recorded here instead of being written out.
// Thread-safe: lines may arrive from any thread.

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/QBLog.h"

class LogCapture {
public:
    LogCapture() {
        QBLog::setSink([this](QBLog::Channel channel, std::string_view text) {
            std::lock_guard guard(lock);
            recorded.emplace_back(channel, text);
        });
    }
    ~LogCapture() { QBLog::setSink({}); }

    // Number of lines equal to text, on any channel or on the one given.
    int count(const std::string& text, std::optional<QBLog::Channel> channel = std::nullopt) const {
        std::lock_guard guard(lock);
        return static_cast<int>(std::count_if(recorded.begin(), recorded.end(), [&](const auto& line) {
            return line.second == text && (!channel || line.first == *channel);
        }));
    }
    bool contains(const std::string& text) const { return count(text) > 0; }
    void clear() { std::lock_guard guard(lock); recorded.clear(); }

private:
    mutable std::mutex lock;  // guards recorded
    std::vector<std::pair<QBLog::Channel, std::string>> recorded;
};
