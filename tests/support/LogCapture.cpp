#include "support/LogCapture.h"

LogCapture::LogCapture() {
    QBLog::setSink([this](QBLog::Channel channel, std::string_view text) {
        std::lock_guard guard(lock);
        recorded.push_back({channel, std::string(text)});
    });
}

LogCapture::~LogCapture() { QBLog::setSink({}); }

std::vector<LogCapture::Line> LogCapture::lines() const {
    std::lock_guard guard(lock);
    return recorded;
}

int LogCapture::count(const std::string& text) const {
    std::lock_guard guard(lock);
    int n = 0;
    for (const auto& line : recorded) n += line.text == text;
    return n;
}

int LogCapture::count(const std::string& text, QBLog::Channel channel) const {
    std::lock_guard guard(lock);
    int n = 0;
    for (const auto& line : recorded) n += line.text == text && line.channel == channel;
    return n;
}

void LogCapture::clear() {
    std::lock_guard guard(lock);
    recorded.clear();
}
