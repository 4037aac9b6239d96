// The protocol tables, spot-checked where a wrong row would go unnoticed, and
// the unpacking of remote IO blocks.
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "direct_kernel.h"
#include "log_capture.h"

namespace kelm {
namespace test {
namespace {

TEST(KelmTables, SpotChecks) {
    for (const auto& row :
         std::vector<std::pair<int, std::string>>{{-1, "ERROR"}, {0, "IDLE"}, {2, "MIT"}, {5, "TELEOPERATION"}}) {
        EXPECT_EQ(fsm_mode_str_map.at(static_cast<FsmMode>(row.first)), row.second);
        EXPECT_EQ(str_map_fsm_mode.at(row.second), row.first);
    }
    EXPECT_EQ(str_map_fsm_mode.size(), 7u);
    EXPECT_EQ(kelm_state_str.at(Kelm_Running), "Kelm_Running");
    // The colour table maps names to codes and, for plain colours, codes back to names.
    EXPECT_EQ(enum_color_map.at(static_cast<LogColor>(18)), "\033[38;5;136m");
    EXPECT_EQ(color_str_map.at("bold"), "\033[1m");
    EXPECT_EQ(color_str_map.at("\033[41m"), "red_background");
    EXPECT_EQ(color_str_map.count("\033[1m"), 0u);
    EXPECT_EQ(kelm_err_code_map.size(), 47u);
    EXPECT_EQ(kelm_err_code_map.count(static_cast<KelmErrorCode>(19)), 0u);
    for (const auto& row : std::vector<std::pair<int, std::string>>{{18, "ERR_DYNAMICS_ERROR"},
                                                                    {206, "ERR_EXTRA_ARM_COLLISION"},
                                                                    {3001, "WARN_MESSAGE"},
                                                                    {3203, "ERR_PLAN_SCENCE_ERROR"},
                                                                    {3508, "ERR_CM_UPDATE_ENV"}}) {
        EXPECT_EQ(kelm_err_code_map.at(static_cast<KelmErrorCode>(row.first)), row.second) << row.first;
    }
}

// ---- remote IO ----

class KernelIO : public ::testing::Test {
protected:
    int parseIO(const std::string& text) {
        Json::Value root;
        std::istringstream stream(text);
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, &errors)) << errors;
        return kernel.parseIOInfo(root, stations);
    }

    LogCapture log;
    DirectKernel kernel;
    std::vector<KelmKernelImpl::RtuInfo> stations;
};

TEST_F(KernelIO, UnpacksDigitalChannelsSixteenToAWord) {
    EXPECT_EQ(parseIO(R"({"rtu": [{"size": [20, 3], "di": [65535, 5], "do": [6]},
                                  {"size": [16, 0, 16, 0], "di": [1, 2]}]})"),
              1);
    ASSERT_EQ(stations.size(), 2u);
    std::vector<int> inputs(16, 1);
    inputs.insert(inputs.end(), {1, 0, 1, 0});
    EXPECT_EQ(stations[0].units[0].di_value, inputs);
    EXPECT_EQ(stations[0].units[0].do_value, (std::vector<int>{0, 1, 1}));
    EXPECT_EQ(stations[1].units[1].di_value[1], 1);
    EXPECT_EQ(stations[1].units[1].di_value[0], 0);
    EXPECT_FALSE(log.contains("size error"));

    stations.clear();
    EXPECT_EQ(parseIO(R"({"rtu": [{"size": [17, 0, 0, 0], "di": [1]}]})"), 1);
    EXPECT_EQ(stations[0].units[0].di_value, std::vector<int>(17, 0));
    EXPECT_EQ(log.count("di_value_size error", LOG_ERROR), 2u);  // the empty second unit logs as well
}

TEST_F(KernelIO, AnalogWidthsAreTakenOnlyWhenTheirShapeFits) {
    parseIO(R"({"rtu": [{"size": [0, 0], "ad": [["42"]], "ad_type_size": [[2]], "ctrl": [[7, "8"]],
                          "ctrl_type_size": [[2, 4, 1]]}]})");
    const KelmKernelImpl::IOUnit& unit = stations[0].units[0];
    ASSERT_EQ(unit.ad_value.size(), 1u);
    EXPECT_EQ(unit.ad_value[0].value, 42u);
    EXPECT_EQ(unit.ad_value[0].bits, 16);
    ASSERT_EQ(unit.ctrl_value.size(), 2u);
    EXPECT_EQ(unit.ctrl_value[1].value, 8u);
    EXPECT_EQ(unit.ctrl_value[1].bits, 0);

    EXPECT_THROW(parseIO(R"({"rtu": [{"size": [0, 0], "ad": [["volts"]]}]})"), std::invalid_argument);
    EXPECT_THROW(parseIO(R"({"rtu": [{"size": [0, 0], "ad": [["99999999999999999999999"]]}]})"), std::out_of_range);
    EXPECT_THROW(parseIO(R"({"rtu": [{"size": [-1, 0]}]})"), std::length_error);
    ASSERT_TRUE(kernel.io_mutex.try_lock());
    kernel.io_mutex.unlock();
}

TEST_F(KernelIO, StationsAreSkippedKeptOrEmptiedAsTheBlockSays) {
    parseIO(R"({"rtu": [{"size": [1, 1], "di": [1], "do": [1]}, {"size": [2, 2], "di": [3], "do": [3]}]})");
    EXPECT_EQ(parseIO(R"({"rtu": [{"size": [1]}, {"size": []}]})"), 1);
    EXPECT_EQ(stations[0].units[0].di_value, std::vector<int>{1});  // odd size: kept
    EXPECT_TRUE(stations[1].units.empty());                         // empty size: no units
    EXPECT_EQ(parseIO(R"({"count": 1})"), 1);
    EXPECT_EQ(stations.size(), 2u);  // no rtu: untouched
    EXPECT_EQ(parseIO(R"({"rtu": []})"), 1);
    EXPECT_TRUE(stations.empty());
}

}  // namespace
}  // namespace test
}  // namespace kelm
