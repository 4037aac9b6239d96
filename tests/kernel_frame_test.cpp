// State frames as a kernel takes them over: which arm, which keys, at which
// precision, in which order the registries fire, and how a bad frame leaves
// the receive thread alive.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "kernel_fixture.h"

namespace kelm {
namespace test {
namespace {

double asFloat(double value) { return static_cast<double>(static_cast<float>(value)); }

std::vector<double> asFloats(const std::vector<double>& values) {
    std::vector<double> narrowed;
    for (double value : values) narrowed.push_back(asFloat(value));
    return narrowed;
}

Pose asFloats(const std::array<double, 7>& values) {
    Pose narrowed{};
    for (size_t i = 0; i < values.size(); ++i) narrowed[i] = asFloat(values[i]);
    return narrowed;
}

class KernelFrames : public KernelOnPeer {};

class KernelFramesPerArm : public KernelOnPeer, public ::testing::WithParamInterface<int> {};

TEST_P(KernelFramesPerArm, TakesOverItsOwnArmOfATwoArmFrame) {
    const int arm_index = GetParam();
    connectKernel(arm_index);
    ASSERT_TRUE(deliver(twoArmFrame(1)));
    const ArmFrame expected = realisticArm(arm_index);

    EXPECT_EQ(kernel->get_joint_pos(), asFloats(expected.joint_pos));
    EXPECT_EQ(kernel->get_joint_vel(), asFloats(expected.joint_vel));
    EXPECT_EQ(kernel->get_joint_tau(), asFloats(expected.joint_tau));
    EXPECT_EQ(kernel->get_plan_joint_pos(), asFloats(expected.plan_joint_pos));
    EXPECT_EQ(kernel->get_plan_joint_vel(), asFloats(expected.plan_joint_vel));
    EXPECT_EQ(kernel->get_plan_joint_tau(), asFloats(expected.plan_joint_tau));
    EXPECT_EQ(kernel->get_joint_external_tau(), expected.joint_external_tau);
    EXPECT_EQ(kernel->get_cart_external_force(), expected.cart_external_force);
    EXPECT_EQ(kernel->get_cart_pose(), asFloats(expected.pose));
    EXPECT_EQ(kernel->get_end_effector_pos(), expected.gripper_pos);
    EXPECT_EQ(kernel->get_end_effector_tau(), expected.gripper_tau);
    EXPECT_EQ(kernel->get_end_effector_state(), 1);
    EXPECT_TRUE(kernel->get_end_effector_connect());

    const ArmStatus status = kernel->get_status();
    EXPECT_EQ(status.arm_index, arm_index);
    EXPECT_EQ(status.arm_name, expected.arm_name);
    EXPECT_EQ(status.dof, 6);
    EXPECT_TRUE(status.servo);
    EXPECT_EQ(status.fsm_mode, POSITION);
    EXPECT_EQ(status.motion_state, Kelm_Standby);
    EXPECT_TRUE(status.connected);
    EXPECT_EQ(kernel->arm_count.load(), 2);
    std::lock_guard<std::mutex> lock(kernel->state_mutex);
    EXPECT_EQ(kernel->tool_index, expected.tool);
    EXPECT_EQ(kernel->user_index, expected.user);
    EXPECT_EQ(kernel->last_task_key, expected.last_task_key);
    EXPECT_EQ(kernel->time_stamp, 1700000000.25);
}

INSTANTIATE_TEST_SUITE_P(BothArms, KernelFramesPerArm, ::testing::Values(0, 1));

TEST_F(KernelFrames, NarrowsJointsAndPosesToFloatButNotGripperOrForces) {
    connectKernel();
    ArmFrame arm = realisticArm(0);
    arm.joint_pos[0] = 0.1;
    arm.pose[0] = 0.1;
    arm.gripper_pos = 0.1;
    arm.vel_per = 0.1;
    arm.cart_external_force[0] = 0.1;
    ASSERT_TRUE(deliver(stateFrame(1, {arm})));

    EXPECT_EQ(kernel->get_joint_pos()[0], static_cast<double>(0.1f));
    EXPECT_NE(kernel->get_joint_pos()[0], 0.1);
    EXPECT_EQ(kernel->get_cart_pose()[0], static_cast<double>(0.1f));
    EXPECT_EQ(kernel->get_end_effector_pos(), 0.1);
    EXPECT_EQ(kernel->get_status().vel_per, 0.1);
    EXPECT_EQ(kernel->get_cart_external_force()[0], 0.1);
}

TEST_F(KernelFrames, AbsentKeysKeepTheirValuesAndDataCallbacksStillFire) {
    connectKernel();
    ASSERT_TRUE(deliver(twoArmFrame(1)));
    int joint_calls = 0;
    std::vector<double> last_positions;
    kernel->register_get_joint_callback("probe", [&](double, std::vector<double> pos, std::vector<double>,
                                                     std::vector<double>) {
        ++joint_calls;
        last_positions = pos;
    });

    Json::Value bare = jsonObject({{"command", "webSendRobotState"}, {"count", 2}});
    bare["arm"].append(jsonObject({{"arm_index", 0}}));
    ASSERT_TRUE(deliver(bare));
    ASSERT_TRUE(deliver(jsonObject({{"command", "webSendRobotState"}, {"count", 3}})));

    const ArmFrame expected = realisticArm(0);
    EXPECT_EQ(joint_calls, 2);
    EXPECT_EQ(last_positions, asFloats(expected.joint_pos));
    EXPECT_EQ(kernel->get_cart_pose(), asFloats(expected.pose));
    EXPECT_EQ(kernel->get_end_effector_pos(), expected.gripper_pos);
    EXPECT_EQ(kernel->get_status().arm_name, "arm0");
    EXPECT_EQ(kernel->arm_count.load(), 1);
}

TEST_F(KernelFrames, CachedVectorsKeepTheirStorageFromFrameToFrame) {
    connectKernel();
    auto storage = [&] {
        std::lock_guard<std::mutex> lock(kernel->state_mutex);
        return std::vector<const double*>{kernel->joint_pos.data(),       kernel->joint_vel.data(),
                                          kernel->joint_tau.data(),       kernel->plan_joint_pos.data(),
                                          kernel->plan_joint_vel.data(),  kernel->plan_joint_tau.data(),
                                          kernel->joint_external_tau.data(), kernel->cart_external_force.data()};
    };
    ASSERT_TRUE(deliver(twoArmFrame(1)));
    const std::vector<const double*> first = storage();
    ArmFrame moved = realisticArm(0);
    for (double& position : moved.joint_pos) position += 0.5;
    ASSERT_TRUE(deliver(stateFrame(2, {moved})));
    EXPECT_EQ(storage(), first);
    EXPECT_EQ(kernel->get_joint_pos(), asFloats(moved.joint_pos));
}

TEST_F(KernelFrames, ArmLevelPoseDecidesWhetherJointPositionsAreRead) {
    connectKernel();
    ASSERT_TRUE(deliver(twoArmFrame(1)));
    const std::vector<double> first_positions = kernel->get_joint_pos();

    // Without the arm-level pose, reality.pose is passed over; vel is not.
    Json::Value frame = twoArmFrame(2);
    armOf(frame, 0).removeMember("pose");
    armOf(frame, 0)["reality"]["pose"][0] = 9.0;
    armOf(frame, 0)["reality"]["vel"][0] = 9.0;
    ASSERT_TRUE(deliver(frame));
    EXPECT_EQ(kernel->get_joint_pos(), first_positions);
    EXPECT_EQ(kernel->get_joint_vel()[0], 9.0);

    // With the arm-level pose, a reality without pose empties the positions.
    frame = twoArmFrame(3);
    armOf(frame, 0)["reality"].removeMember("pose");
    armOf(frame, 0)["pose"] = Json::Value(Json::arrayValue);
    for (double value : {1.0, 2.0, 3.0}) armOf(frame, 0)["pose"].append(value);
    ASSERT_TRUE(deliver(frame));
    EXPECT_TRUE(kernel->get_joint_pos().empty());
    EXPECT_EQ(kernel->get_cart_pose(), (Pose{1, 2, 3, 0, 0, 0, 0}));
    std::lock_guard<std::mutex> lock(kernel->state_mutex);
    EXPECT_EQ(kernel->pose_tool, kernel->cart_pose);  // absent frame poses follow cart_pose
}

TEST_F(KernelFrames, LogsCountGapsInUnsignedArithmetic) {
    connectKernel();
    for (const char* count : {"7", "8", "8", "10", "9"}) {
        Json::Value frame = twoArmFrame(0);
        frame["count"] = count;
        ASSERT_TRUE(deliver(frame));
    }
    EXPECT_EQ(log.count("miss msg"), 3u);
    EXPECT_TRUE(log.contains("miss msg, current count 7, last count 0"));
    EXPECT_TRUE(log.contains("miss msg, current count 10, last count 8"));
    EXPECT_TRUE(log.contains("miss msg, current count 9, last count 10"));
}

TEST_F(KernelFrames, ErrorFiresOnEveryFrameOnlyForTheNamedArm) {
    connectKernel(0);
    KelmKernelImpl second(peer.host(), peer.port(), 1.0, 1);
    std::vector<int> first_codes;
    std::atomic<int> second_calls{0};
    kernel->register_error_catch_callback("probe", [&](int code, std::string) { first_codes.push_back(code); });
    second.register_error_catch_callback("probe", [&](int, std::string) { ++second_calls; });

    Json::Value frame = twoArmFrame(1);
    frame["error"] = 5;  // no error_arm_index: arm 0
    frame["errMsg"] = "communication";
    ASSERT_TRUE(deliver(frame));
    ASSERT_TRUE(deliver(frame));
    frame["error"] = 3001;
    ASSERT_TRUE(deliver(frame));
    frame["error"] = 9;
    frame["error_arm_index"] = 1;
    ASSERT_TRUE(deliver(frame));
    ASSERT_TRUE(waitUntil([&] { return second_calls.load() == 1; }));

    EXPECT_EQ(first_codes, (std::vector<int>{5, 5, 3001}));
    EXPECT_EQ(log.count("recieve a error, code = 5, msg = communication"), 2u);
    EXPECT_EQ(log.count("recieve a warnning, msg = communication"), 1u);
}

TEST_F(KernelFrames, FiresRegistriesInTheDocumentedOrder) {
    connectKernel();
    ASSERT_TRUE(deliver(twoArmFrame(1)));
    std::vector<std::string> events;
    std::string name_seen_by_error;
    int fsm_seen_by_state_change = -2;
    kernel->register_error_catch_callback("probe", [&](int, std::string) {
        events.push_back("error");
        name_seen_by_error = kernel->get_status().arm_name;  // lock-free inside the lock
    });
    kernel->register_fsm_mode_changed_callback("probe", [&](int i, int) { events.push_back("mode" + std::to_string(i)); });
    kernel->register_servo_status_changed_callback("probe", [&](int i, bool) { events.push_back("servo" + std::to_string(i)); });
    kernel->register_motor_code_changed_callback(
        "probe", [&](int i, int, const std::string&) { events.push_back("code" + std::to_string(i)); });
    kernel->register_motor_run_state_changed_callback("probe", [&](int i, int) { events.push_back("run" + std::to_string(i)); });
    kernel->register_get_external_force_callback(
        "probe", [&](double, std::vector<double>, std::vector<double>) { events.push_back("force"); });
    kernel->register_get_tele_slave_data_callback("probe", [&](double, std::vector<double>, double) { events.push_back("slave"); });
    kernel->register_state_changed_callback("probe", [&](int) {
        events.push_back("state");
        fsm_seen_by_state_change = kernel->get_status().fsm_mode;
    });
    kernel->register_get_joint_callback("probe", [&](double, std::vector<double>, std::vector<double>, std::vector<double>) {
        events.push_back("joint");
        kernel->get_joint_pos();  // getters are allowed after the lock
    });
    kernel->register_get_pose_callback("probe", [&](double, Pose) { events.push_back("pose"); });
    kernel->register_get_plan_joint_callback(
        "probe", [&](double, std::vector<double>, std::vector<double>, std::vector<double>) { events.push_back("plan"); });
    kernel->register_get_tele_master_data_callback("probe", [&](double, std::vector<double>, double) { events.push_back("master"); });

    ArmFrame arm = realisticArm(0, 2);
    arm.arm_name = "renamed";
    arm.motion_state = Kelm_Running;
    arm.fsm_state = "MIT";
    Json::Value frame = stateFrame(2, {arm});
    frame["error"] = 7;
    ASSERT_TRUE(deliver(frame));

    EXPECT_EQ(events, (std::vector<std::string>{"error", "mode0", "servo0", "code0", "run0", "mode1", "servo1",
                                                "code1", "run1", "force", "slave", "state", "joint", "pose", "plan",
                                                "master"}));
    EXPECT_EQ(name_seen_by_error, "arm0");
    EXPECT_EQ(fsm_seen_by_state_change, MIT);
}

TEST_F(KernelFrames, ChangeRegistriesFollowTheirOwnRules) {
    connectKernel();
    std::vector<int> states;
    int mode_calls = 0;
    kernel->register_state_changed_callback("probe", [&](int state) { states.push_back(state); });
    kernel->register_fsm_mode_changed_callback("probe", [&](int, int) { ++mode_calls; });
    uint64_t count = 1;
    for (int motion_state : {0, 0, -1, -1, 1}) {
        ArmFrame arm = realisticArm(0, 1);
        arm.motion_state = motion_state;
        Json::Value frame = stateFrame(count++, {arm});
        armOf(frame, 0)["axises"].append(jsonObject({{"mode", 3}}));  // no index: skipped
        ASSERT_TRUE(deliver(frame));
    }
    EXPECT_EQ(states, (std::vector<int>{-1, 1}));  // edge-triggered
    EXPECT_EQ(mode_calls, 5);                        // every frame, changed or not
}

TEST_F(KernelFrames, UnknownFsmStateReadsIdleAndJoinsTheTable) {
    connectKernel();
    ArmFrame arm = realisticArm(0);
    arm.fsm_state = "NOT_A_MODE";
    ASSERT_TRUE(deliver(stateFrame(1, {arm})));
    EXPECT_EQ(kernel->get_status().fsm_mode, IDLE);
    EXPECT_EQ(str_map_fsm_mode.count("NOT_A_MODE"), 1u);
    str_map_fsm_mode.erase("NOT_A_MODE");
}

struct BadFrame {
    const char* name;
    std::function<void(Json::Value&)> spoil;
    const char* logged;
    bool joints_taken;  // whether the frame got as far as the joint positions
};

TEST_F(KernelFrames, BadFramesAreLoggedAndTheReceiveThreadLivesOn) {
    connectKernel();
    ASSERT_TRUE(deliver(twoArmFrame(1)));
    const std::vector<BadFrame> cases = {
        {"count absent", [](Json::Value& f) { f.removeMember("count"); }, "stoul", false},
        {"count not a number", [](Json::Value& f) { f["count"] = "seven"; }, "stoul", false},
        {"count out of range", [](Json::Value& f) { f["count"] = "99999999999999999999999"; }, "stoul", false},
        {"time stamp not a number", [](Json::Value& f) { f["Unix_time_stamp"] = "noon"; }, "stod", false},
        {"pose of text", [](Json::Value& f) { f["arm"][0]["pose"][0] = "x"; }, "not convertible", true},
    };
    const double first_joint = kernel->get_joint_pos()[0];
    for (const BadFrame& bad : cases) {
        SCOPED_TRACE(bad.name);
        log.clear();
        Json::Value frame = twoArmFrame(5);
        frame["arm"][0]["reality"]["pose"][0] = 42.0;
        bad.spoil(frame);
        ASSERT_TRUE(deliver(frame));
        EXPECT_TRUE(log.contains(bad.logged, LOG_ERROR));
        EXPECT_EQ(kernel->get_joint_pos()[0], bad.joints_taken ? 42.0 : first_joint);
        ASSERT_TRUE(kernel->state_mutex.try_lock());
        kernel->state_mutex.unlock();
    }
    // The time stamp failed after count and debug had been taken over.
    EXPECT_EQ(kernel->msg_count, 5u);

    log.clear();
    ASSERT_TRUE(deliverText("{not json"));
    EXPECT_TRUE(log.contains("parse error {not json", LOG_ERROR));

    ASSERT_TRUE(deliver(twoArmFrame(6)));
    EXPECT_EQ(kernel->get_joint_pos(), asFloats(realisticArm(0).joint_pos));
}

TEST_F(KernelFrames, ThrowingCallbackEndsOnlyItsFrame) {
    connectKernel();
    int pose_calls = 0;
    int throws_left = 1;
    kernel->register_get_joint_callback("probe", [&](double, std::vector<double>, std::vector<double>,
                                                     std::vector<double>) {
        if (throws_left-- > 0) throw std::runtime_error("joint listener failed");
    });
    kernel->register_get_pose_callback("probe", [&](double, Pose) { ++pose_calls; });
    ASSERT_TRUE(deliver(twoArmFrame(1)));
    EXPECT_TRUE(log.contains("joint listener failed", LOG_ERROR));
    EXPECT_EQ(pose_calls, 0);

    kernel->register_state_changed_callback("empty", KelmKernelImpl::StateCallback());
    ArmFrame arm = realisticArm(0);
    arm.motion_state = Kelm_Running;
    ASSERT_TRUE(deliver(stateFrame(2, {arm})));
    EXPECT_TRUE(log.contains("bad_function_call", LOG_ERROR));
    ASSERT_TRUE(kernel->state_mutex.try_lock());
    kernel->state_mutex.unlock();
    kernel->release_state_changed_callback();

    kernel->register_get_plan_joint_callback("odd", [](double, std::vector<double>, std::vector<double>,
                                                       std::vector<double>) { throw 42; });
    testing::internal::CaptureStdout();
    ASSERT_TRUE(deliver(twoArmFrame(3)));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("execption: {"), std::string::npos);
    kernel->release_get_plan_joint_callback();

    ASSERT_TRUE(deliver(twoArmFrame(4)));
    EXPECT_EQ(pose_calls, 2);
}

}  // namespace
}  // namespace test
}  // namespace kelm
