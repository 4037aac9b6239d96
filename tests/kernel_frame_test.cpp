// State frames as a kernel takes them over: which arm, which keys, at which
// precision, in which order the registries fire, and how a bad frame leaves
// the receive thread alive; and the unpacking of remote IO blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "direct_kernel.h"
#include "log_capture.h"
#include "state_frame_builder.h"
#include "test_peer.h"  // jsonObject, toJsonText

namespace kelm {
namespace test {
namespace {

// What values read after the kernel stored them as floats.
template <typename Values>
Values asFloats(Values values) {
    for (double& value : values) value = static_cast<float>(value);
    return values;
}

bool isFree(std::mutex& lock) {
    if (!lock.try_lock()) return false;
    lock.unlock();
    return true;
}

// Frames go straight into the kernel's onReceive on the test thread, as the
// receive thread would hand them over: no network and no waiting.
class KernelFrames : public ::testing::Test {
protected:
    void deliver(const Json::Value& message) { kernel->onReceive(toJsonText(message)); }

    LogCapture log;
    std::unique_ptr<DirectKernel> kernel = std::make_unique<DirectKernel>(0);
};

class KernelFramesPerArm : public KernelFrames, public ::testing::WithParamInterface<int> {};

// Joints and poses are narrowed to float; the external torques and the
// gripper position (neither exact as floats) are not.
TEST_P(KernelFramesPerArm, TakesOverItsOwnArmOfATwoArmFrame) {
    const int arm_index = GetParam();
    kernel = std::make_unique<DirectKernel>(arm_index);
    deliver(twoArmFrame(1));
    const ArmFrame expected = realisticArm(arm_index);

    EXPECT_EQ(kernel->get_joint_pos(), asFloats(expected.joint_pos));
    EXPECT_EQ(kernel->get_joint_vel(), asFloats(expected.joint_vel));
    EXPECT_EQ(kernel->get_plan_joint_pos(), asFloats(expected.plan_joint_pos));
    EXPECT_EQ(kernel->get_joint_external_tau(), expected.joint_external_tau);
    EXPECT_EQ(kernel->get_cart_pose(), asFloats(expected.pose));
    EXPECT_EQ(kernel->get_end_effector_pos(), expected.gripper_pos);
    const ArmStatus status = kernel->get_status();
    EXPECT_EQ(status.arm_index, arm_index);
    EXPECT_EQ(status.arm_name, expected.arm_name);
    EXPECT_EQ(status.fsm_mode, POSITION);
    EXPECT_EQ(kernel->arm_count, 2);
    std::lock_guard<std::mutex> lock(kernel->state_mutex);
    EXPECT_EQ(kernel->tool_index, expected.tool);
    EXPECT_EQ(kernel->last_task_key, expected.last_task_key);
    EXPECT_EQ(kernel->time_stamp, 1700000000.25);
}

INSTANTIATE_TEST_SUITE_P(BothArms, KernelFramesPerArm, ::testing::Values(0, 1));

TEST_F(KernelFrames, AbsentKeysKeepTheirValuesAndDataCallbacksStillFire) {
    deliver(twoArmFrame(1));
    std::vector<std::vector<double>> positions;
    kernel->register_get_joint_callback("probe", [&](double, std::vector<double> pos, std::vector<double>,
                                                     std::vector<double>) { positions.push_back(pos); });
    Json::Value bare = jsonObject({{"command", "webSendRobotState"}, {"count", 2}});
    bare["arm"].append(jsonObject({{"arm_index", 0}}));
    deliver(bare);
    deliver(jsonObject({{"command", "webSendRobotState"}, {"count", 3}}));

    const ArmFrame expected = realisticArm(0);
    EXPECT_EQ(positions, std::vector<std::vector<double>>(2, asFloats(expected.joint_pos)));
    EXPECT_EQ(kernel->get_cart_pose(), asFloats(expected.pose));
    EXPECT_EQ(kernel->get_end_effector_pos(), expected.gripper_pos);
    EXPECT_EQ(kernel->get_status().arm_name, "arm0");
    EXPECT_EQ(kernel->arm_count, 1);
}

TEST_F(KernelFrames, ArmLevelPoseDecidesWhetherJointPositionsAreRead) {
    deliver(twoArmFrame(1));
    const std::vector<double> first_positions = kernel->get_joint_pos();

    // Without the arm-level pose, reality.pose is passed over; vel is not.
    Json::Value frame = twoArmFrame(2);
    frame["arm"][0].removeMember("pose");
    frame["arm"][0]["reality"]["pose"][0] = 9.0;
    frame["arm"][0]["reality"]["vel"][0] = 9.0;
    deliver(frame);
    EXPECT_EQ(kernel->get_joint_pos(), first_positions);
    EXPECT_EQ(kernel->get_joint_vel()[0], 9.0);

    // With the arm-level pose, a reality without pose empties the positions.
    frame = twoArmFrame(3);
    frame["arm"][0]["reality"].removeMember("pose");
    frame["arm"][0]["pose"] = Json::Value(Json::arrayValue);
    for (double value : {1.0, 2.0, 3.0}) frame["arm"][0]["pose"].append(value);
    deliver(frame);
    EXPECT_TRUE(kernel->get_joint_pos().empty());
    EXPECT_EQ(kernel->get_cart_pose(), (Pose{1, 2, 3, 0, 0, 0, 0}));
    std::lock_guard<std::mutex> lock(kernel->state_mutex);
    EXPECT_EQ(kernel->pose_tool, kernel->cart_pose);
}

TEST_F(KernelFrames, LogsCountGapsInUnsignedArithmetic) {
    for (const char* count : {"7", "8", "8", "10", "9"}) {
        Json::Value frame = twoArmFrame(0);
        frame["count"] = count;
        deliver(frame);
    }
    EXPECT_EQ(log.count("miss msg"), 3u);
    EXPECT_TRUE(log.contains("miss msg, current count 7, last count 0"));
    EXPECT_TRUE(log.contains("miss msg, current count 10, last count 8"));
    EXPECT_TRUE(log.contains("miss msg, current count 9, last count 10"));
}

TEST_F(KernelFrames, ErrorFiresOnEveryFrameOnlyForTheNamedArm) {
    DirectKernel second(1);
    std::vector<int> first_codes;
    int second_calls = 0;
    kernel->register_error_catch_callback("probe", [&](int code, std::string) { first_codes.push_back(code); });
    second.register_error_catch_callback("probe", [&](int, std::string) { ++second_calls; });

    Json::Value frame = twoArmFrame(1);
    frame["errMsg"] = "communication";
    for (int code : {5, 5, 3001}) {
        frame["error"] = code;  // no error_arm_index: arm 0
        deliver(frame);
    }
    frame["error"] = 9;
    frame["error_arm_index"] = 1;
    deliver(frame);
    second.onReceive(toJsonText(frame));
    EXPECT_EQ(second_calls, 1);
    EXPECT_EQ(first_codes, (std::vector<int>{5, 5, 3001}));
    EXPECT_EQ(log.count("recieve a error, code = 5, msg = communication"), 2u);
    EXPECT_EQ(log.count("recieve a warnning, msg = communication"), 1u);
}

TEST_F(KernelFrames, FiresRegistriesInOrderAndStateChangesOnlyOnAnEdge) {
    deliver(twoArmFrame(1));
    std::vector<std::string> events;
    auto note = [&](std::string name) { return [&events, name](auto&&...) { events.push_back(name); }; };
    auto noteArm = [&](std::string name) {
        return [&events, name](int arm, auto&&...) { events.push_back(name + std::to_string(arm)); };
    };
    kernel->register_error_catch_callback("probe", [&](int, std::string) {
        events.push_back("error:" + kernel->get_status().arm_name);  // still the previous frame's name
    });
    kernel->register_fsm_mode_changed_callback("probe", noteArm("mode"));
    kernel->register_servo_status_changed_callback("probe", noteArm("servo"));
    kernel->register_motor_code_changed_callback("probe", noteArm("code"));
    kernel->register_motor_run_state_changed_callback("probe", noteArm("run"));
    kernel->register_get_external_force_callback("probe", note("force"));
    kernel->register_get_tele_slave_data_callback("probe", note("slave"));
    kernel->register_state_changed_callback("probe", [&](int state) {
        events.push_back("state" + std::to_string(state) + ":" +
                         fsm_mode_str_map.at(static_cast<FsmMode>(kernel->get_status().fsm_mode)));
    });
    kernel->register_get_joint_callback("probe", note("joint"));
    kernel->register_get_pose_callback("probe", note("pose"));
    kernel->register_get_plan_joint_callback("probe", note("plan"));
    kernel->register_get_tele_master_data_callback("probe", note("master"));

    ArmFrame arm = realisticArm(0, 2);
    arm.arm_name = "renamed";
    arm.motion_state = Kelm_Running;
    arm.fsm_state = "MIT";
    Json::Value frame = stateFrame(2, {arm});
    frame["error"] = 7;
    deliver(frame);
    EXPECT_EQ(events,
              (std::vector<std::string>{"error:arm0", "mode0", "servo0", "code0", "run0", "mode1", "servo1", "code1",
                                        "run1", "force", "slave", "state1:MIT", "joint", "pose", "plan", "master"}));
    events.clear();
    frame["error"] = 0;
    deliver(frame);
    EXPECT_EQ(std::count(events.begin(), events.end(), "state1:MIT"), 0);
    EXPECT_EQ(std::count(events.begin(), events.end(), "mode0"), 1);  // every frame, changed or not
}

TEST_F(KernelFrames, BadFramesAreLoggedAndTheReceiveThreadLivesOn) {
    deliver(twoArmFrame(1));
    struct BadFrame {
        std::function<void(Json::Value&)> spoil;
        const char* logged;
        bool joints_taken;  // whether the frame got as far as the joint positions
    };
    const std::vector<BadFrame> cases = {
        {[](Json::Value& f) { f.removeMember("count"); }, "stoul", false},
        {[](Json::Value& f) { f["count"] = "seven"; }, "stoul", false},
        {[](Json::Value& f) { f["count"] = "99999999999999999999999"; }, "stoul", false},
        {[](Json::Value& f) { f["Unix_time_stamp"] = "noon"; }, "stod", false},
        {[](Json::Value& f) { f["arm"][0]["pose"][0] = "x"; }, "not convertible", true},
    };
    const double first_joint = kernel->get_joint_pos()[0];
    for (const BadFrame& bad : cases) {
        SCOPED_TRACE(bad.logged);
        log.clear();
        Json::Value frame = twoArmFrame(5);
        frame["arm"][0]["reality"]["pose"][0] = 42.0;
        bad.spoil(frame);
        deliver(frame);
        EXPECT_TRUE(log.contains(bad.logged, LOG_ERROR));
        EXPECT_EQ(kernel->get_joint_pos()[0], bad.joints_taken ? 42.0 : first_joint);
        EXPECT_TRUE(isFree(kernel->state_mutex));
    }
    EXPECT_EQ(kernel->msg_count, 5u);  // the time stamp failed after the count was taken
    kernel->onReceive("{not json");
    EXPECT_TRUE(log.contains("parse error {not json", LOG_ERROR));
    deliver(twoArmFrame(6));
    EXPECT_EQ(kernel->get_joint_pos(), asFloats(realisticArm(0).joint_pos));
}

TEST_F(KernelFrames, ThrowingOrEmptyCallbackEndsOnlyItsFrame) {
    int pose_calls = 0;
    int throws_left = 1;
    kernel->register_get_joint_callback("probe",
                                        [&](double, std::vector<double>, std::vector<double>, std::vector<double>) {
                                            if (throws_left-- > 0) throw std::runtime_error("joint listener failed");
                                        });
    kernel->register_get_pose_callback("probe", [&](double, Pose) { ++pose_calls; });
    deliver(twoArmFrame(1));
    EXPECT_TRUE(log.contains("joint listener failed", LOG_ERROR));
    EXPECT_EQ(pose_calls, 0);

    kernel->register_state_changed_callback("empty", KelmKernelImpl::StateCallback());
    ArmFrame arm = realisticArm(0);
    arm.motion_state = Kelm_Running;
    deliver(stateFrame(2, {arm}));
    EXPECT_TRUE(log.contains("bad_function_call", LOG_ERROR));
    EXPECT_TRUE(isFree(kernel->state_mutex));
    kernel->release_state_changed_callback();
    deliver(twoArmFrame(3));
    EXPECT_EQ(pose_calls, 1);
}

// ---- remote IO ----

class KernelIO : public KernelFrames {
protected:
    int parseIO(const std::string& text) {
        Json::Value root;
        std::istringstream stream(text);
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, &errors)) << errors;
        return kernel->parseIOInfo(root, stations);
    }

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
    EXPECT_TRUE(isFree(kernel->io_mutex));
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
