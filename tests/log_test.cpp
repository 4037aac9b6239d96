// Logger formatting, pose printing and the clock's guarantees.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log_manager.h"
#include "print_array.h"

namespace {

// Captures the lines the logger writes while it is alive.
class CapturedLines {
public:
    CapturedLines() {
        kelm::getLogInstance()->setLineObserver([this](kelm::LogLevel level, const std::string& line) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.emplace_back(level, line);
        });
    }
    ~CapturedLines() { kelm::getLogInstance()->setLineObserver(nullptr); }

    std::vector<std::pair<kelm::LogLevel, std::string>> lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    std::string last() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_.empty() ? std::string() : lines_.back().second;
    }

private:
    std::mutex mutex_;
    std::vector<std::pair<kelm::LogLevel, std::string>> lines_;
};

TEST(LogManager, FormatsPrintfConversionsAndIgnoresSurplusArguments) {
    CapturedLines captured;
    const char* format = "recieve a error, code = %d, msg = %s\n";
    KELM_LOG(kelm::LOG_INFO, format, 3001, "overload", format, 3001, "overload");
    EXPECT_EQ(captured.last(), "recieve a error, code = 3001, msg = overload");

    KELM_LOG(kelm::LOG_ERROR, "%lu points, %f s", 12UL, 0.5);
    EXPECT_EQ(captured.last(), "12 points, 0.500000 s");
    EXPECT_EQ(captured.lines().back().first, kelm::LOG_ERROR);
}

TEST(LogManager, PrintsBoolConversionAsNumberAndKeepsEscapedPercent) {
    CapturedLines captured;
    KELM_LOG(kelm::LOG_INFO, "ready %b, done %b, 100%% %s", true, false, "ok");
    EXPECT_EQ(captured.last(), "ready 1, done 0, 100% ok");
}

TEST(LogManager, PassesUtf8AndLongLinesThrough) {
    CapturedLines captured;
    KELM_LOG(kelm::LOG_ERROR, "error: 输入含有非法值，请检查输入！！！");
    EXPECT_EQ(captured.last(), "error: 输入含有非法值，请检查输入！！！");

    const std::string long_text(5000, 'x');
    KELM_LOG(kelm::LOG_INFO, "parse error %s", long_text.c_str());
    EXPECT_EQ(captured.last(), "parse error " + long_text);
}

TEST(LogManager, IsSafeFromManyThreadsAtOnce) {
    CapturedLines captured;
    constexpr int kThreads = 4;
    constexpr int kLinesEach = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLinesEach; ++i) KELM_LOG(kelm::LOG_INFO, "thread %d line %d", t, i);
        });
    }
    for (auto& thread : threads) thread.join();
    kelm::getLogInstance()->reset();
    EXPECT_EQ(captured.lines().size(), static_cast<size_t>(kThreads * kLinesEach));
}

TEST(PrintArray, SwitchesToScientificOnlyAboveOneMillion) {
    CapturedLines captured;
    const std::array<double, 7> values = {1000000.0, 2000000.0, -2000000.0,
                                          std::numeric_limits<double>::quiet_NaN(), 0.1, -0.25, 3.0};
    kelm::getLogInstance()->printArray(__FILE__, __LINE__, kelm::LOG_INFO, "target Pos", values, 6, ", ");
    EXPECT_EQ(captured.last(),
              "target Pos : 1000000.000000, 2.000000e+06, -2000000.000000, nan, 0.100000, -0.250000, 3.000000");
}

TEST(PrintArray, KeepsTheLabelsOwnBlankBeforeTheColon) {
    CapturedLines captured;
    const std::array<double, 7> pose = {0.1, 0.2, 0.3, 0.0, 0.0, 0.0, 2.0};
    kelm::getLogInstance()->printArray(__FILE__, __LINE__, kelm::LOG_INFO, "quat_pose: ", pose, 6, ", ");
    EXPECT_EQ(captured.last(),
              "quat_pose:  : 0.100000, 0.200000, 0.300000, 0.000000, 0.000000, 0.000000, 2.000000");
}

TEST(LogTime, TimeStampsAreUniqueAcrossThreads) {
    constexpr int kThreads = 4;
    constexpr int kStampsEach = 5000;
    std::vector<std::vector<std::string>> stamps(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&stamps, t] {
            for (int i = 0; i < kStampsEach; ++i) stamps[t].push_back(kelm::log_time::getTimeStamp(0));
        });
    }
    for (auto& thread : threads) thread.join();
    std::set<std::string> unique;
    for (const auto& list : stamps) unique.insert(list.begin(), list.end());
    EXPECT_EQ(unique.size(), static_cast<size_t>(kThreads * kStampsEach));
}

TEST(LogTime, TimerReadsZeroUntilEndedAndThenGrows) {
    kelm::log_time::TimerUnit timer;
    kelm::log_time::timer_start(timer);
    EXPECT_LE(timer.elapsed_ms, 0.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    kelm::log_time::timer_end(timer);
    const double first = timer.elapsed_ms;
    EXPECT_GE(first, 5.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    kelm::log_time::timer_end(timer);
    EXPECT_GT(timer.elapsed_ms, first);
}

}  // namespace
