// LogCapture: records the lines written to the process-wide logger while it
// lives, so that a test can look for a message. Only one capture may be alive
// at a time (it installs the logger's one line observer).
//
// Threads: lines arrive on whatever thread logs; the queries are safe from
// any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_manager.h"

namespace kelm {
namespace test {

class LogCapture {
public:
    struct Line {
        LogLevel level;
        std::string text;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines() const;
    // Number of lines that contain `fragment` (at `level`, or any level when -1).
    std::size_t count(const std::string& fragment, int level = -1) const;
    bool contains(const std::string& fragment, int level = -1) const { return count(fragment, level) > 0; }
    // Waits up to `timeout` until a line containing `fragment` has been written.
    bool waitFor(const std::string& fragment, std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));
    void clear();

private:
    std::size_t countLocked(const std::string& fragment, int level) const;

    mutable std::mutex mutex_;
    std::condition_variable added_;
    std::vector<Line> lines_;
};

// Polls `condition` every millisecond until it holds or `timeout` has passed;
// returns its last value.
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds timeout = std::chrono::milliseconds(3000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace test
}  // namespace kelm
