// Recorder: a thread-safe list of the values a callback was given, for tests
// that check what arrived on another thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <vector>

#include "log_capture.h"

namespace kelm {
namespace test {

template <typename T>
class Recorder {
public:
    void add(const T& value) {
        std::lock_guard<std::mutex> lock(mutex_);
        values_.push_back(value);
    }
    std::vector<T> values() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_;
    }
    bool contains(const T& value) const {
        const auto all = values();
        return std::find(all.begin(), all.end(), value) != all.end();
    }
    bool waitFor(const std::vector<T>& expected,
                 std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const {
        return waitUntil([&] { return values() == expected; }, timeout);
    }
    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const {
        return waitUntil([&] { return values().size() >= count; }, timeout);
    }

private:
    mutable std::mutex mutex_;
    std::vector<T> values_;
};

}  // namespace test
}  // namespace kelm
