// The arm kernel against the controller simulator over loopback: bring-up,
// motions and their ends, streaming, kinematics and tool coordinates; and the
// simulator's injected faults as the kernel sees them: lost, late and refused
// replies, errors and warnings, gaps in the count, malformed frames, closed
// connections and a silent stream. Faults given on the simulator's command
// line are used by the Python tests (a refused servo, a raised warning).
#include <atomic>
#include <cmath>
#include <memory>
#include <thread>

#include "arm_kinematics.h"
#include "recorder.h"
#include "sim_fixture.h"

namespace kelm {
namespace test {
namespace {

const std::vector<double> kHome{0.0, 0.0, 0.0, 0.0, -1.57, 0.0};
constexpr double kFloatTolerance = 1e-6;  // frames carry joint values as floats

using SimKernelTest = SimFixture;
using SimFaultTest = SimFixture;

bool reached(const std::vector<double>& joints, const std::vector<double>& target, double tolerance) {
    if (joints.size() != target.size()) return false;
    for (size_t i = 0; i < joints.size(); ++i)
        if (std::fabs(joints[i] - target[i]) > tolerance) return false;
    return true;
}

TEST_F(SimKernelTest, JointMoveEndsAtItsTargetOnItsOwnArmAndReportsItsKey) {
    for (int arm : {0, 1}) {
        SCOPED_TRACE(arm);
        KelmKernelImpl& kernel = connectReady(arm);
        EXPECT_EQ(kernel.config.limit_upper, sim::defaultJointLimits(6).upper);
        EXPECT_EQ(kernel.get_version(), sim::kSimVersion);
        const std::vector<double> other_arm = simulator->model().telemetry(1 - arm).joints;
        auto states = std::make_shared<Recorder<int>>();
        kernel.register_state_changed_callback("states", [states](int state) { states->add(state); });
        std::string key;
        ASSERT_EQ(kernel.move_joint(kHome, key, 100.0, 0, 0, true), 1);
        EXPECT_EQ(kernel.task_blocking_wait(key, kMoveWaitMs), 1);
        // The simulator skips frames to a lagging client, so the joints the
        // kernel holds when the wait ends may be a frame behind.
        EXPECT_TRUE(waitUntil([&] { return reached(kernel.get_joint_pos(), kHome, kFloatTolerance); }));
        // The other arm stays where it was (a body's servo holds it to within microradians).
        EXPECT_TRUE(reached(simulator->model().telemetry(1 - arm).joints, other_arm, 1e-4));
        EXPECT_TRUE(states->waitFor({1, 0}));
        kernel.release_state_changed_callback();
    }
}

// A streamed target does not outlive a later planned motion: the arm holds
// where the motion ended.
TEST_F(SimKernelTest, PlannedMotionEndsTheStreamedTarget) {
    KelmKernelImpl& kernel = connectReady(0);
    const std::vector<double> streamed{0.3, -0.2, 0.2, 0.1, -1.2, 0.2};
    ASSERT_EQ(kernel.tracking(streamed, true, 0.05), 1);
    EXPECT_TRUE(waitUntil([&] { return reached(kernel.get_joint_pos(), streamed, 1e-3); }, std::chrono::seconds(10)));
    std::string key;
    ASSERT_EQ(kernel.move_joint(kHome, key, 100.0, 0, 0, true), 1);
    EXPECT_EQ(kernel.task_blocking_wait(key, kMoveWaitMs), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_TRUE(reached(kernel.get_joint_pos(), kHome, 1e-3));
}

TEST_F(SimKernelTest, TrackingFollowsJointAndPoseTargets) {
    KelmKernelImpl& kernel = connectReady(0);
    ASSERT_EQ(kernel.set_control_mode(2), 1);
    // Streams `target` every 5 ms until the arm's joints reach `joints`.
    const auto follows = [&](const std::vector<double>& target, bool joint_space, const std::vector<double>& joints) {
        for (int frame = 0; frame < 600; ++frame) {
            if (kernel.tracking(target, joint_space, joint_space ? 0.05 : -1.0) != 1) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            const bool gripper_reached = !joint_space || std::fabs(kernel.get_end_effector_pos() - 0.05) < 1e-6;
            if (gripper_reached && reached(kernel.get_joint_pos(), joints, 1e-4)) return true;
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

TEST_F(SimKernelTest, KinematicsRoundTripAnUnreachablePoseComesBackEmptyAndAToolMovesTheTip) {
    KelmKernelImpl& kernel = connectReady(0);
    const std::vector<std::vector<double>> joints{{0.1, 0.2, -0.3, 0.4, -0.9, 0.6}, {-0.8, -0.4, 0.5, -1.0, 1.2, -2.0}};
    std::vector<std::array<double, 7>> poses;
    ASSERT_EQ(kernel.forwardKine(0, 0, joints, poses), 1);
    ASSERT_EQ(poses.size(), joints.size());
    poses.push_back({3.0, 0.0, 0.5, 0.0, 0.0, 0.0, 1.0});  // out of reach
    std::vector<std::vector<double>> seeds = {joints[0], joints[1], joints[1]}, solved;
    for (auto& seed : seeds)
        for (double& q : seed) q += 0.03;
    ASSERT_EQ(kernel.inverseKine(0, 0, poses, seeds, solved), -1);
    ASSERT_EQ(solved.size(), 3u);
    for (size_t k = 0; k < joints.size(); ++k) EXPECT_TRUE(reached(solved[k], joints[k], 1e-6)) << k;
    EXPECT_TRUE(solved[2].empty());

    // A tool coordinate system moves the reported tip.
    ASSERT_EQ(kernel.set_tool_coordinate(1, {0.0, 0.0, 0.1, 0.0, 0.0, 0.0}), 1);
    EXPECT_EQ(kernel.get_tool_coordinate(1), (std::array<double, 7>{0.0, 0.0, 0.1, 0.0, 0.0, 0.0, 1.0}));
    std::array<double, 7> flange{}, tip{};
    ASSERT_EQ(kernel.forwardKine(0, 0, kHome, flange), 1);
    ASSERT_EQ(kernel.forwardKine(1, 0, kHome, tip), 1);
    EXPECT_NEAR(std::hypot(tip[0] - flange[0], tip[1] - flange[1], tip[2] - flange[2]), 0.1, 1e-12);
    ASSERT_EQ(kernel.set_tool_index(1), 1);
    EXPECT_TRUE(waitUntil([&] { return kernel.get_tool_index() == 1; }));
    EXPECT_EQ(kernel.set_tool_index(99), -1);
}

// ---- injected faults ----

TEST_F(SimFaultTest, ReplyFaultsHitOnlyTheirCommandAndCount) {
    KelmKernelImpl& kernel = connect(0);
    ASSERT_TRUE(kernel.is_connected());
    sim::FaultInjector& faults = simulator->faults();

    faults.dropReplies("setDebugMode", 1);
    EXPECT_EQ(kernel.set_speed_level(5.0, 1), 1) << "another command is answered";
    EXPECT_EQ(kernel.set_debug(true), -1) << "the dropped reply times out";
    EXPECT_EQ(kernel.set_debug(true), 1) << "one drop only";

    faults.refuse("setSpeedLevel", 2);
    for (int expected : {-1, -1, 1}) EXPECT_EQ(kernel.set_speed_level(5.0, 1), expected);

    faults.delayReplies("setDebugMode", std::chrono::milliseconds(200));
    EXPECT_EQ(kernel.set_debug(false), 1) << "late, but within the time-out";
    faults.delayReplies("setDebugMode", std::chrono::milliseconds(1500));
    EXPECT_EQ(kernel.set_debug(false), -1) << "later than the time-out";

    faults.clearReplyFaults();
    faults.refuse(sim::FaultInjector::kAnyCommand);
    EXPECT_EQ(kernel.set_servo_enable(true), -1);
    EXPECT_TRUE(kernel.get_version().empty()) << "a refused question has no answer to read";
    faults.clearReplyFaults();
    EXPECT_EQ(kernel.set_servo_enable(true), 1);
}

TEST_F(SimFaultTest, ErrorEndsTheTaskWaitUntilResetAWarningStopsNothing) {
    KelmKernelImpl& kernel = connectReady(0);
    // Shared with the callback, which outlives this scope when an assertion
    // ends the test early.
    auto errors = std::make_shared<Recorder<std::pair<int, std::string>>>();
    kernel.register_error_catch_callback(
        "errors", [errors](int code, std::string message) { errors->add(std::make_pair(code, message)); });
    std::string key;
    ASSERT_EQ(kernel.move_joint(kHome, key, 5.0, 0, 0, true), 1);  // slow: still running below
    simulator->model().raiseError(0, 13, "task failed");
    EXPECT_EQ(kernel.task_blocking_wait(key, kMoveWaitMs), 1);
    ASSERT_TRUE(waitUntil([&] { return kernel.get_status().motion_state == -1; }));
    EXPECT_TRUE(errors->contains(std::make_pair(13, std::string("task failed"))));
    EXPECT_EQ(kernel.move_joint(kHome, key, 100.0, 0, 0, true), -1);
    ASSERT_EQ(kernel.clean_kelm_error(), 1);
    EXPECT_TRUE(waitUntil([&] { return kernel.get_status().motion_state == 0; }));

    simulator->model().raiseError(0, 3001, "cable strained");
    ASSERT_TRUE(waitUntil([&] { return errors->contains(std::make_pair(3001, std::string("cable strained"))); }));
    ASSERT_EQ(kernel.move_joint(kHome, key, 100.0, 0, 0, true), 1);
    EXPECT_EQ(kernel.task_blocking_wait(key, kMoveWaitMs), 1);
    EXPECT_TRUE(waitUntil([&] { return reached(kernel.get_joint_pos(), kHome, kFloatTolerance); }))
        << "the move ran to its end";
}

TEST_F(SimFaultTest, CountGapsAndMalformedFramesReachTheKernel) {
    LogCapture log;
    KelmKernelImpl& kernel = connect(0);
    ASSERT_TRUE(kernel.is_connected());
    ASSERT_TRUE(waitUntil([&] { return kernel.get_status().dof == 6; }));
    log.clear();
    simulator->faults().skipCounts(5);
    EXPECT_TRUE(log.waitFor("miss msg"));
    simulator->faults().malformFrames(1);
    EXPECT_TRUE(log.waitFor("parse error"));
}

TEST_F(SimFaultTest, ClosedConnectionIsReportedToTheKernel) {
    for (bool clean : {true, false}) {
        KelmKernelImpl& kernel = connect(0);
        ASSERT_TRUE(kernel.is_connected());
        auto lost = std::make_shared<std::atomic<bool>>(false);
        kernel.register_connect_changed_callback("lost", [lost](bool connected) {
            if (!connected) *lost = true;
        });
        simulator->closeConnections(clean);
        EXPECT_TRUE(waitUntil([&] { return lost->load(); })) << (clean ? "close frame" : "cut");
        EXPECT_FALSE(kernel.is_connected());
    }
}

TEST_F(SimFaultTest, StreamStopsAndResumes) {
    KelmKernelImpl& kernel = connect(0);
    auto frames = std::make_shared<std::atomic<int>>(0);
    kernel.register_update_robot_state_callback("frames", [frames](std::string) { ++*frames; });
    ASSERT_TRUE(waitUntil([&] { return frames->load() > 10; }));
    simulator->faults().setStreaming(false);
    // Frames on their way arrive first: wait, boundedly, for a quiet 200 ms.
    int stopped_at = frames->load();
    for (int i = 0; i < 25; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (frames->load() == stopped_at) break;
        stopped_at = frames->load();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(frames->load(), stopped_at);
    EXPECT_EQ(kernel.set_debug(true), 1) << "replies still flow";
    simulator->faults().setStreaming(true);
    EXPECT_TRUE(waitUntil([&] { return frames->load() > stopped_at + 10; }));
}

}  // namespace
}  // namespace test
}  // namespace kelm
