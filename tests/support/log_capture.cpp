#include "log_capture.h"

namespace kelm {
namespace test {

LogCapture::LogCapture() {
    getLogInstance()->setLineObserver([this](LogLevel level, const std::string& text) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(Line{level, text});
        }
        added_.notify_all();
    });
}

LogCapture::~LogCapture() { getLogInstance()->setLineObserver(nullptr); }

std::vector<LogCapture::Line> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::size_t LogCapture::count(const std::string& fragment, int level) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return countLocked(fragment, level);
}

std::size_t LogCapture::countLocked(const std::string& fragment, int level) const {
    std::size_t found = 0;
    for (const auto& line : lines_) {
        if ((level < 0 || line.level == level) && line.text.find(fragment) != std::string::npos) ++found;
    }
    return found;
}

bool LogCapture::waitFor(const std::string& fragment, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return added_.wait_for(lock, timeout, [&] { return countLocked(fragment, -1) > 0; });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

}  // namespace test
}  // namespace kelm
