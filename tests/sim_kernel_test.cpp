// The arm kernel against the controller simulator over loopback: bring-up,
// motions and their ends, refusals, streaming, kinematics and teleoperation.
#include <atomic>
#include <cmath>
#include <mutex>
#include <thread>

#include "arm_kinematics.h"
#include "sim_fixture.h"

namespace kelm {
namespace test {
namespace {

const std::vector<double> kHome{0.0, 0.0, 0.0, 0.0, -1.57, 0.0};
constexpr double kFloatTolerance = 1e-6;  // frames carry joint values as floats

class SimKernelTest : public SimFixture {
protected:
    void SetUp() override { startSimulator(); }
};

TEST_F(SimKernelTest, ReadySequenceReachesServoOnAndPosition) {
    KelmKernelImpl& kernel = connect(0);
    ASSERT_TRUE(kernel.is_connected());
    ASSERT_EQ(kernel.set_kelm_ready(true, kReadyBudgetMs), 1);
    const ArmStatus status = kernel.get_status();
    EXPECT_TRUE(status.servo);
    EXPECT_EQ(status.fsm_mode, 1);
    EXPECT_EQ(status.motion_state, 0);
    EXPECT_EQ(status.dof, 6);
    const sim::JointLimits limits = sim::defaultJointLimits(6);
    EXPECT_EQ(kernel.config.limit_upper, limits.upper);
    EXPECT_EQ(kernel.config.limit_lower, limits.lower);
    EXPECT_EQ(kernel.get_version(), sim::kSimVersion);
}

TEST_F(SimKernelTest, JointMoveEndsAtItsTargetAndReportsItsKey) {
    KelmKernelImpl& kernel = connectReady(0);
    std::mutex states_mutex;
    std::vector<int> states;
    kernel.register_state_changed_callback("states", [&](int state) {
        std::lock_guard<std::mutex> lock(states_mutex);
        states.push_back(state);
    });
    std::string key;
    ASSERT_EQ(kernel.move_joint(kHome, key, 100.0, 0, 0, true), 1);
    ASSERT_FALSE(key.empty());
    EXPECT_EQ(kernel.task_blocking_wait(key, kMoveWaitMs), 1);
    const std::vector<double> joints = kernel.get_joint_pos();
    ASSERT_EQ(joints.size(), kHome.size());
    for (size_t i = 0; i < kHome.size(); ++i) EXPECT_NEAR(joints[i], kHome[i], kFloatTolerance) << "joint " << i;
    ASSERT_TRUE(waitUntil([&] { return kernel.get_status().motion_state == 0; }));
    std::lock_guard<std::mutex> lock(states_mutex);
    EXPECT_EQ(states, (std::vector<int>{1, 0}));
}

TEST_F(SimKernelTest, MotionsAreRefusedWhileTheArmCannotMove) {
    const struct {
        const char* why;
        std::function<void(KelmKernelImpl&)> make_unable;
    } cases[] = {
        {"servo off", [](KelmKernelImpl& kernel) { EXPECT_EQ(kernel.set_servo_enable(false), 1); }},
        {"drag mode", [](KelmKernelImpl& kernel) { EXPECT_EQ(kernel.set_control_mode(3), 1); }},
        {"error", [this](KelmKernelImpl&) { simulator->model().raiseError(0, 13, "task failed"); }},
    };
    KelmKernelImpl& kernel = connect(0);
    for (const auto& c : cases) {
        ASSERT_EQ(kernel.set_kelm_ready(true, kReadyBudgetMs), 1) << c.why;
        c.make_unable(kernel);
        ASSERT_TRUE(waitUntil([&] {
            const ArmStatus status = kernel.get_status();
            return !status.servo || status.fsm_mode != 1;
        })) << c.why;
        std::string key;
        EXPECT_EQ(kernel.move_joint(kHome, key, 100.0, 0, 0, true), -1) << c.why;
        EXPECT_NE(simulator->model().telemetry(0).motion_state, 1) << c.why;
    }
}

TEST_F(SimKernelTest, TrackingFollowsJointAndPoseTargets) {
    KelmKernelImpl& kernel = connectReady(0);
    ASSERT_EQ(kernel.set_control_mode(2), 1);
    const std::vector<double> joint_target{0.3, 0.2, -0.2, 0.1, -1.2, 0.4};
    const auto reached = [&](const std::vector<double>& target) {
        const std::vector<double> joints = kernel.get_joint_pos();
        for (size_t i = 0; i < target.size(); ++i)
            if (std::fabs(joints[i] - target[i]) > 1e-4) return false;
        return true;
    };
    bool arrived = false;
    for (int frame = 0; frame < 600 && !arrived; ++frame) {
        ASSERT_EQ(kernel.tracking(joint_target, true, 0.05), 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        arrived = reached(joint_target) && std::fabs(kernel.get_end_effector_pos() - 0.05) < 1e-6;
    }
    EXPECT_TRUE(arrived);

    const std::vector<double> pose_joints{-0.2, 0.1, 0.1, -0.3, -1.0, 0.2};
    std::array<double, 7> pose{};
    ASSERT_EQ(kernel.forwardKine(0, 0, pose_joints, pose), 1);
    arrived = false;
    for (int frame = 0; frame < 600 && !arrived; ++frame) {
        ASSERT_EQ(kernel.tracking(std::vector<double>(pose.begin(), pose.end()), false, -1.0), 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        arrived = reached(pose_joints);
    }
    EXPECT_TRUE(arrived);
}

TEST_F(SimKernelTest, ForwardAndInverseKinematicsRoundTrip) {
    KelmKernelImpl& kernel = connectReady(0);
    const std::vector<std::vector<double>> joints{
        {0.1, 0.2, -0.3, 0.4, -0.9, 0.6}, {-0.8, -0.4, 0.5, -1.0, 1.2, -2.0}, {1.5, 0.6, -1.0, 2.0, -0.5, 3.0}};
    std::vector<std::array<double, 7>> poses;
    ASSERT_EQ(kernel.forwardKine(0, 0, joints, poses), 1);
    ASSERT_EQ(poses.size(), joints.size());
    std::vector<std::vector<double>> seeds = joints;
    for (auto& seed : seeds)
        for (double& q : seed) q += 0.03;
    std::vector<std::vector<double>> solved;
    ASSERT_EQ(kernel.inverseKine(0, 0, poses, seeds, solved), 1);
    ASSERT_EQ(solved.size(), joints.size());
    for (size_t k = 0; k < joints.size(); ++k)
        for (size_t i = 0; i < joints[k].size(); ++i) EXPECT_NEAR(solved[k][i], joints[k][i], 1e-6) << k << "/" << i;

    // A pose out of reach comes back empty, and the batch reports it.
    std::vector<std::array<double, 7>> mixed{poses[0], {3.0, 0.0, 0.5, 0.0, 0.0, 0.0, 1.0}};
    ASSERT_EQ(kernel.inverseKine(0, 0, mixed, {seeds[0], seeds[0]}, solved), -1);
    ASSERT_EQ(solved.size(), 2u);
    EXPECT_EQ(solved[0].size(), 6u);
    EXPECT_TRUE(solved[1].empty());
}

TEST_F(SimKernelTest, ToolCoordinateChangesTheReportedTip) {
    KelmKernelImpl& kernel = connectReady(0);
    ASSERT_EQ(kernel.set_tool_coordinate(1, {0.0, 0.0, 0.1, 0.0, 0.0, 0.0}), 1);
    const std::array<double, 7> tool = kernel.get_tool_coordinate(1);
    EXPECT_DOUBLE_EQ(tool[2], 0.1);
    EXPECT_DOUBLE_EQ(tool[6], 1.0);
    std::array<double, 7> flange{}, tip{};
    ASSERT_EQ(kernel.forwardKine(0, 0, kHome, flange), 1);
    ASSERT_EQ(kernel.forwardKine(1, 0, kHome, tip), 1);
    const double offset = std::sqrt(std::pow(tip[0] - flange[0], 2) + std::pow(tip[1] - flange[1], 2) +
                                    std::pow(tip[2] - flange[2], 2));
    EXPECT_NEAR(offset, 0.1, 1e-12);
    ASSERT_EQ(kernel.set_tool_index(1), 1);
    EXPECT_TRUE(waitUntil([&] { return kernel.get_tool_index() == 1; }));
    EXPECT_EQ(kernel.set_tool_index(99), -1);
}

TEST_F(SimKernelTest, TeachingRecordsAndListsTrajectories) {
    KelmKernelImpl& kernel = connectReady(0);
    ASSERT_EQ(kernel.trajectory_teach(true, "wave"), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(kernel.trajectory_teach(false, "wave"), 1);
    std::vector<std::string> names;
    ASSERT_EQ(kernel.check_teach(names), 1);
    EXPECT_EQ(names, (std::vector<std::string>{"wave"}));
    EXPECT_EQ(kernel.trajectory_recorder("wave"), 1);
    EXPECT_EQ(kernel.trajectory_recorder("unknown"), -1);
}

TEST_F(SimKernelTest, SecondArmMovesOnItsOwn) {
    KelmKernelImpl& kernel = connectReady(1);
    const std::vector<double> before = simulator->model().telemetry(0).joints;
    std::string key;
    ASSERT_EQ(kernel.move_joint(kHome, key, 100.0, 0, 0, true), 1);
    ASSERT_EQ(kernel.task_blocking_wait(key, kMoveWaitMs), 1);
    const std::vector<double> joints = kernel.get_joint_pos();
    for (size_t i = 0; i < kHome.size(); ++i) EXPECT_NEAR(joints[i], kHome[i], kFloatTolerance);
    EXPECT_EQ(simulator->model().telemetry(0).joints, before);
}

// The force-feedback ring as the teleoperation tool wires it: the master's
// operator moves it, the slave follows, the slave's contact with the wall
// comes back to the master as redundancy torque.
TEST_F(SimKernelTest, TeleoperationRingCarriesMotionAndForce) {
    simulator->stop();
    sim::SimOptions options = defaultOptions();
    options.wall.enabled = true;
    options.wall.height = 2.0;  // every pose presses into it
    options.wall.stiffness = 50.0;
    startSimulator(options);
    KelmKernelImpl& master = connectReady(0);
    KelmKernelImpl& slave = connectReady(1);
    ASSERT_EQ(master.set_teleoperation_mode(1), 1);
    ASSERT_EQ(slave.set_teleoperation_mode(2), 1);
    master.register_get_tele_master_data_callback(
        "follow", [&](double, std::vector<double> joints, double gripper) { slave.tracking(joints, true, gripper); });
    std::atomic<bool> felt{false};
    slave.register_get_tele_slave_data_callback("feedback", [&](double, std::vector<double> tau, double gripper_tau) {
        if (tau.size() == 6 && std::fabs(tau[1]) > 1e-3) felt = true;
        master.set_redundancy_tau(tau, gripper_tau);
    });
    const std::vector<double> start = simulator->model().telemetry(0).joints;
    EXPECT_TRUE(waitForArm(0, [&](const sim::ArmTelemetry& arm) { return std::fabs(arm.joints[0] - start[0]) > 0.05; }));
    EXPECT_TRUE(waitUntil([&] { return felt.load(); }));
    EXPECT_TRUE(waitUntil([&] {
        const std::vector<double> tau = simulator->model().redundancyTau(0);
        return std::fabs(tau[1]) > 1e-3;
    }));
    // The slave follows: it leaves its own start as the master's hand moves.
    // (How closely it follows is the tracking test's business; here the
    // lag depends on how loaded the machine is.)
    const std::vector<double> slave_start = simulator->model().telemetry(1).joints;
    EXPECT_TRUE(waitForArm(
        1, [&](const sim::ArmTelemetry& arm) { return std::fabs(arm.joints[0] - slave_start[0]) > 0.05; },
        std::chrono::milliseconds(10000)));
    master.release_get_tele_master_data_callback();
    slave.release_get_tele_slave_data_callback();
}

}  // namespace
}  // namespace test
}  // namespace kelm
