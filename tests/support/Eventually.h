#pragma once
// eventually(): polls a condition every few milliseconds until it holds or timeout passes, so a
// test waits for something another thread does without a fixed sleep and without hanging.

#include <chrono>
#include <thread>

// Sanitizers slow every thread down several times; bounds that tests check on wall-clock time
// (a stop within a second, say) are stretched by this factor in those builds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int sanitizerSlowdown = 5;
#else
constexpr int sanitizerSlowdown = 1;
#endif

template <typename Condition>
bool eventually(Condition condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(5) * sanitizerSlowdown) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
