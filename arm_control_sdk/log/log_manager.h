// Process-wide logger and clock of the arm client.
//
// LogManager writes one line per call to standard error (coloured on a
// terminal) with time, level, source file:line and thread id. Every member is
// safe to call from any thread at any time; getLogInstance() never returns a
// freed object. log_time gives the task keys of requests and the elapsed-time
// readings of the wait loops.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace kelm {

// Level 0 reports progress, level 1 refused input and failures.
enum LogLevel : int {
    LOG_INFO = 0,
    LOG_ERROR = 1,
};

class LogManager {
public:
    // Called with every formatted line (without time, place or level prefix)
    // after it has been written. Runs on the logging thread while the
    // observer lock is held, so it must not log itself.
    using LineObserver = std::function<void(LogLevel level, const std::string& line)>;

    LogManager();
    ~LogManager();
    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

    // Writes one line. `format` follows printf; "%b" takes a bool passed as
    // int and prints 0 or 1. Surplus arguments are ignored.
    void log(const char* file, int line, LogLevel level, const char* format, ...);

    // Flushes what is buffered and puts the logger back to its initial
    // settings, but for the level that setLevel chose (at first: all levels
    // written).
    void reset();

    // Writes only lines of `level` and above: LOG_INFO writes everything,
    // LOG_ERROR failures only, any higher value nothing. The line observer
    // sees every line all the same.
    void setLevel(int level);

    // Writes "<label> : v0, v1, ..., v6": each value in fixed notation with
    // `precision` digits, or scientific when it is greater than 1e6.
    template <typename ArrayT>
    void printArray(const char* file, int line, LogLevel level, const char* label, const ArrayT& values, int precision,
                    const char* separator);

    // Installs (or, with an empty function, removes) the line observer.
    void setLineObserver(LineObserver observer);

    // The last level-1 line that the calling thread logged, without prefix;
    // empty before its first. An operation that refuses its input logs the
    // reason first, so this is that reason right after the refusal.
    static std::string lastErrorLineOfThisThread();

private:
    struct Sink;
    std::unique_ptr<Sink> sink_;
    std::mutex observer_mutex_;
    LineObserver observer_;
    std::atomic<int> level_{LOG_INFO};
};

// The one logger of the process.
LogManager* getLogInstance();

namespace log_time {

// Wall-clock time as text, unique for every call in the process (a sequence
// number tells apart two calls within the same microsecond). The argument is
// kept for compatibility and not used.
std::string getTimeStamp(int unused);

// A stopwatch on the steady clock. `elapsed_ms` reads 0 until the first
// timer_end() and then the milliseconds between timer_start() and the latest
// timer_end().
struct TimerUnit {
    std::int64_t start_ns = 0;
    double elapsed_ms = 0.0;
};

void timer_start(TimerUnit& timer);
void timer_end(TimerUnit& timer);

}  // namespace log_time
}  // namespace kelm

// Logs one line with the caller's source place.
#define KELM_LOG(level, ...) \
    ::kelm::getLogInstance()->log(__FILE__, __LINE__, static_cast<::kelm::LogLevel>(level), __VA_ARGS__)
