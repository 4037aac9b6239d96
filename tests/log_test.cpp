// Logger formatting, array printing and the clock's guarantees.
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "print_array.h"

namespace kelm {
namespace {

using test::LogCapture;

std::string lastLine(const LogCapture& log) {
    const auto lines = log.lines();
    return lines.empty() ? std::string() : lines.back().text;
}

TEST(LogManager, FormatsConversionsAsTheControllerTextsNeedThem) {
    LogCapture log;
    const char* format = "recieve a error, code = %d, msg = %s\n";
    KELM_LOG(LOG_INFO, format, 3001, "overload", format, 3001, "overload");
    EXPECT_EQ(lastLine(log), "recieve a error, code = 3001, msg = overload");
    KELM_LOG(LOG_ERROR, "%lu points, %f s", 12UL, 0.5);
    EXPECT_EQ(lastLine(log), "12 points, 0.500000 s");
    EXPECT_EQ(log.lines().back().level, LOG_ERROR);
    KELM_LOG(LOG_INFO, "ready %b, done %b, 100%% %s", true, false, "ok");
    EXPECT_EQ(lastLine(log), "ready 1, done 0, 100% ok");
    KELM_LOG(LOG_ERROR, "error: 输入含有非法值，请检查输入！！！");
    EXPECT_EQ(lastLine(log), "error: 输入含有非法值，请检查输入！！！");
    const std::string long_text(5000, 'x');
    KELM_LOG(LOG_INFO, "parse error %s", long_text.c_str());
    EXPECT_EQ(lastLine(log), "parse error " + long_text);
}

TEST(PrintArray, ScientificOnlyAboveOneMillionAndTheLabelKeptAsGiven) {
    LogCapture log;
    const std::array<double, 7> values = {1000000.0, 2000000.0, -2000000.0, std::numeric_limits<double>::quiet_NaN(),
                                          0.1,       -0.25,     3.0};
    getLogInstance()->printArray(__FILE__, __LINE__, LOG_INFO, "quat_pose: ", values, 6, ", ");
    EXPECT_EQ(lastLine(log),
              "quat_pose:  : 1000000.000000, 2.000000e+06, -2000000.000000, nan, 0.100000, -0.250000, 3.000000");
}

TEST(LogTime, TimeStampsAreUniqueAcrossThreads) {
    std::vector<std::vector<std::string>> stamps(4);
    std::vector<std::thread> threads;
    for (auto& list : stamps) {
        threads.emplace_back([&list] {
            for (int i = 0; i < 5000; ++i) list.push_back(log_time::getTimeStamp(0));
        });
    }
    for (auto& thread : threads) thread.join();
    std::set<std::string> unique;
    for (const auto& list : stamps) unique.insert(list.begin(), list.end());
    EXPECT_EQ(unique.size(), 20000u);
}

}  // namespace
}  // namespace kelm
