#include "log_manager.h"

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

namespace kelm {

namespace {

constexpr const char* kLinePattern = "[%Y-%m-%d %H:%M:%S.%f] [%^%l%$] [%s:%#] [tid %t] %v";

bool isLengthModifier(char c) {
    return c == 'h' || c == 'l' || c == 'L' || c == 'q' || c == 'j' || c == 'z' || c == 't';
}

bool isFlagWidthOrPrecision(char c) {
    return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == ' ' || c == '#' || c == '.' || c == '*';
}

// Returns `format` with every "%b" conversion turned into "%d", so that a bool
// passed through the variadic list prints as 0 or 1 on every C library.
std::string translateBoolConversions(const char* format) {
    std::string out;
    for (const char* p = format; *p != '\0'; ++p) {
        out.push_back(*p);
        if (*p != '%') continue;
        ++p;
        while (*p != '\0' && (isFlagWidthOrPrecision(*p) || isLengthModifier(*p))) out.push_back(*p++);
        if (*p == '\0') break;
        out.push_back(*p == 'b' ? 'd' : *p);
    }
    return out;
}

std::string formatLine(const char* format, va_list args) {
    const std::string fmt = translateBoolConversions(format);
    char small[512];
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(small, sizeof small, fmt.c_str(), copy);
    va_end(copy);
    if (needed < 0) return format;
    if (static_cast<size_t>(needed) < sizeof small) return std::string(small, static_cast<size_t>(needed));
    std::vector<char> big(static_cast<size_t>(needed) + 1);
    std::vsnprintf(big.data(), big.size(), fmt.c_str(), args);
    return std::string(big.data(), static_cast<size_t>(needed));
}

spdlog::level::level_enum toSpdlogLevel(LogLevel level) {
    return level == LOG_ERROR ? spdlog::level::err : spdlog::level::info;
}

// The lowest spdlog level written when lines of `level` and above are wanted.
spdlog::level::level_enum toSpdlogThreshold(int level) {
    if (level <= LOG_INFO) return spdlog::level::trace;
    return level == LOG_ERROR ? spdlog::level::err : spdlog::level::off;
}

std::string& lastErrorLine() {
    thread_local std::string line;
    return line;
}

}  // namespace

struct LogManager::Sink {
    std::shared_ptr<spdlog::logger> logger;
};

LogManager::LogManager() : sink_(std::make_unique<Sink>()) {
    auto color_sink = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
    sink_->logger = std::make_shared<spdlog::logger>("kelm", color_sink);
    reset();
}

LogManager::~LogManager() = default;

void LogManager::log(const char* file, int line, LogLevel level, const char* format, ...) {
    if (format == nullptr) return;
    va_list args;
    va_start(args, format);
    std::string text = formatLine(format, args);
    va_end(args);
    while (!text.empty() && text.back() == '\n') text.pop_back();

    sink_->logger->log(spdlog::source_loc{file, line, ""}, toSpdlogLevel(level), text);
    if (level == LOG_ERROR) lastErrorLine() = text;

    std::lock_guard<std::mutex> lock(observer_mutex_);
    if (observer_) observer_(level, text);
}

void LogManager::reset() {
    sink_->logger->flush();
    sink_->logger->set_pattern(kLinePattern);
    sink_->logger->set_level(toSpdlogThreshold(level_.load()));
    sink_->logger->flush_on(spdlog::level::err);
}

void LogManager::setLevel(int level) {
    level_.store(level);
    sink_->logger->set_level(toSpdlogThreshold(level));
}

void LogManager::setLineObserver(LineObserver observer) {
    std::lock_guard<std::mutex> lock(observer_mutex_);
    observer_ = std::move(observer);
}

std::string LogManager::lastErrorLineOfThisThread() { return lastErrorLine(); }

LogManager* getLogInstance() {
    // Deliberately never destroyed: threads that outlive main() may still log.
    static LogManager* instance = new LogManager();
    return instance;
}

namespace log_time {

std::string getTimeStamp(int) {
    static std::atomic<std::uint64_t> sequence{0};
    const auto now = std::chrono::system_clock::now();
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count() % 1000000;
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    const size_t len = std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &local);
    std::snprintf(text + len, sizeof text - len, "%06lld_%llu", static_cast<long long>(micros),
                  static_cast<unsigned long long>(sequence.fetch_add(1, std::memory_order_relaxed)));
    return text;
}

namespace {
std::int64_t steadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
}  // namespace

void timer_start(TimerUnit& timer) {
    timer.start_ns = steadyNanoseconds();
    timer.elapsed_ms = 0.0;
}

void timer_end(TimerUnit& timer) { timer.elapsed_ms = static_cast<double>(steadyNanoseconds() - timer.start_ns) / 1e6; }

}  // namespace log_time
}  // namespace kelm
