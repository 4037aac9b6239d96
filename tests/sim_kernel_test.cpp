// The arm kernel against the controller simulator over loopback: bring-up,
// motions and their ends, streaming, kinematics and tool coordinates.
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

TEST_F(SimKernelTest, JointMoveEndsAtItsTargetOnItsOwnArmAndReportsItsKey) {
    for (int arm : {0, 1}) {
        SCOPED_TRACE(arm);
        KelmKernelImpl& kernel = connectReady(arm);
        EXPECT_EQ(kernel.config.limit_upper, sim::defaultJointLimits(6).upper);
        EXPECT_EQ(kernel.get_version(), sim::kSimVersion);
        const std::vector<double> other_arm = simulator->model().telemetry(1 - arm).joints;
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
        EXPECT_EQ(simulator->model().telemetry(1 - arm).joints, other_arm);
        ASSERT_TRUE(waitUntil([&] { return kernel.get_status().motion_state == 0; }));
        kernel.release_state_changed_callback();
        std::lock_guard<std::mutex> lock(states_mutex);
        EXPECT_EQ(states, (std::vector<int>{1, 0}));
    }
}

TEST_F(SimKernelTest, TrackingFollowsJointAndPoseTargets) {
    KelmKernelImpl& kernel = connectReady(0);
    ASSERT_EQ(kernel.set_control_mode(2), 1);
    // Streams `target` every 5 ms until the arm's joints reach `joints`.
    const auto follows = [&](const std::vector<double>& target, bool joint_space, const std::vector<double>& joints) {
        for (int frame = 0; frame < 600; ++frame) {
            if (kernel.tracking(target, joint_space, joint_space ? 0.05 : -1.0) != 1) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            const std::vector<double> now = kernel.get_joint_pos();
            bool reached = !joint_space || std::fabs(kernel.get_end_effector_pos() - 0.05) < 1e-6;
            for (size_t i = 0; i < joints.size(); ++i) reached = reached && std::fabs(now[i] - joints[i]) < 1e-4;
            if (reached) return true;
        }
        return false;
    };
    const std::vector<double> joint_target{0.3, 0.2, -0.2, 0.1, -1.2, 0.4};
    EXPECT_TRUE(follows(joint_target, true, joint_target));
    const std::vector<double> pose_joints{-0.2, 0.1, 0.1, -0.3, -1.0, 0.2};
    std::array<double, 7> pose{};
    ASSERT_EQ(kernel.forwardKine(0, 0, pose_joints, pose), 1);
    EXPECT_TRUE(follows(std::vector<double>(pose.begin(), pose.end()), false, pose_joints));
}

TEST_F(SimKernelTest, KinematicsRoundTripAndAnUnreachablePoseComesBackEmpty) {
    KelmKernelImpl& kernel = connectReady(0);
    const std::vector<std::vector<double>> joints{{0.1, 0.2, -0.3, 0.4, -0.9, 0.6}, {-0.8, -0.4, 0.5, -1.0, 1.2, -2.0}};
    std::vector<std::array<double, 7>> poses;
    ASSERT_EQ(kernel.forwardKine(0, 0, joints, poses), 1);
    ASSERT_EQ(poses.size(), joints.size());
    std::vector<std::vector<double>> seeds = joints, solved;
    for (auto& seed : seeds)
        for (double& q : seed) q += 0.03;
    ASSERT_EQ(kernel.inverseKine(0, 0, poses, seeds, solved), 1);
    ASSERT_EQ(solved.size(), joints.size());
    for (size_t k = 0; k < joints.size(); ++k)
        for (size_t i = 0; i < joints[k].size(); ++i) EXPECT_NEAR(solved[k][i], joints[k][i], 1e-6) << k << "/" << i;
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
    EXPECT_NEAR(std::hypot(tip[0] - flange[0], tip[1] - flange[1], tip[2] - flange[2]), 0.1, 1e-12);
    ASSERT_EQ(kernel.set_tool_index(1), 1);
    EXPECT_TRUE(waitUntil([&] { return kernel.get_tool_index() == 1; }));
    EXPECT_EQ(kernel.set_tool_index(99), -1);
}

}  // namespace
}  // namespace test
}  // namespace kelm
