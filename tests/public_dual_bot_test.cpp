// KelmDualBot against a fake two-arm controller: twins reach their own arm,
// members on both arms fold their results (sum rule, servo bit rule, teach
// list merge, version concatenation), and the callback twins act on one arm.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kelm_dual_bot.h"
#include "log_capture.h"
#include "public_fake_controller.h"

namespace kelm {
namespace {

using test::FakeArmController;
using test::waitUntil;

const std::vector<double> kJointTarget{0.1, -0.2, 0.3, 0.0, -1.0, 0.5};
const std::array<double, 7> kPoseTarget{0.25, 0.125, 0.5, 0.0, 0.0, 0.0, 1.0};

// Left is arm 1 and right arm 0, so a twin reaching the wrong kernel shows on the wire.
constexpr int kLeft = 1;
constexpr int kRight = 0;

class DualBotTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(bot.set_ready(), 1); }

    size_t sentCount(const std::string& command) { return controller.peer.receivedCommands(command).size(); }

    FakeArmController controller{{6, 6}};
    KelmDualBot bot{controller.host(), controller.port(), 1.0, kLeft, kRight};
};

struct TwinCase {
    const char* command;
    std::function<void(KelmDualBot&)> left;
    std::function<void(KelmDualBot&)> right;
};

TEST_F(DualBotTest, EachTwinReachesItsOwnArm) {
    std::vector<double> joint_out;
    std::array<double, 7> pose_out{};
    const std::vector<TwinCase> cases{
        {"webRecieveTasks", [](KelmDualBot& b) { b.move_left_joint(kJointTarget, -1.0, false); },
         [](KelmDualBot& b) { b.move_right_joint(kJointTarget, -1.0, false); }},
        {"webRecieveTasks", [](KelmDualBot& b) { b.move_left_pose_traj({kPoseTarget}, {}, {}, false); },
         [](KelmDualBot& b) { b.move_right_pose_traj({kPoseTarget}, {}, {}, false); }},
        {"webRecieveTasks", [](KelmDualBot& b) { b.move_left_line_joint(kJointTarget, false); },
         [](KelmDualBot& b) { b.move_right_line_joint(kJointTarget, false); }},
        {"trajectoryTrackingTasks", [](KelmDualBot& b) { b.track_left_joint(kJointTarget, -1.0); },
         [](KelmDualBot& b) { b.track_right_joint(kJointTarget, -1.0); }},
        {"setEffectorCtr", [](KelmDualBot& b) { b.set_left_gripper(0.04, 1.0); },
         [](KelmDualBot& b) { b.set_right_gripper(0.04, 1.0); }},
        {"setToolData", [](KelmDualBot& b) { b.set_left_tool_index(2); },
         [](KelmDualBot& b) { b.set_right_tool_index(2); }},
        {"getJointParams", [](KelmDualBot& b) { b.get_left_config(); }, [](KelmDualBot& b) { b.get_right_config(); }},
        {"getKinematics", [&](KelmDualBot& b) { b.forward_kine_left(0, kJointTarget, pose_out); },
         [&](KelmDualBot& b) { b.forward_kine_right(0, kJointTarget, pose_out); }},
        {"getKinematics", [&](KelmDualBot& b) { b.inverse_kine_left(0, kPoseTarget, kJointTarget, joint_out); },
         [&](KelmDualBot& b) { b.inverse_kine_right(0, kPoseTarget, kJointTarget, joint_out); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        c.left(bot);
        auto left_request = controller.peer.waitForCommand(c.command);
        ASSERT_TRUE(left_request);
        EXPECT_EQ((*left_request)["arm_index"].asInt(), kLeft);
        c.right(bot);
        auto right_request = controller.peer.waitForCommand(c.command);
        ASSERT_TRUE(right_request);
        EXPECT_EQ((*right_request)["arm_index"].asInt(), kRight);
    }
    EXPECT_EQ(bot.get_left_status().arm_index, kLeft);
    EXPECT_EQ(bot.get_right_status().arm_index, kRight);
}

TEST_F(DualBotTest, StateTwinsReadTheirOwnArm) {
    const std::array<double, 7> left_pose{0.5, 0.25, 0.125, 0.0, 0.0, 0.0, 1.0};
    const std::array<double, 7> right_pose{-0.5, -0.25, 0.75, 0.0, 0.0, 1.0, 0.0};
    controller.setPose(kLeft, left_pose);
    controller.setPose(kRight, right_pose);
    controller.setGripper(kLeft, true, 3);
    EXPECT_TRUE(waitUntil([&] { return bot.get_left_cart_pose() == left_pose; }));
    EXPECT_TRUE(waitUntil([&] { return bot.get_right_cart_pose() == right_pose; }));
    EXPECT_TRUE(waitUntil([&] { return bot.get_left_gripper_state() == 3; }));
    EXPECT_EQ(bot.get_right_gripper_state(), -1);
}

struct FoldedCase {
    const char* command;
    std::function<int(KelmDualBot&)> call;
};

TEST_F(DualBotTest, MembersOnBothArmsSucceedOnlyIfBothArmsDoAndAlwaysAskBoth) {
    const std::vector<FoldedCase> cases{
        {"setControlMode", [](KelmDualBot& b) { return b.set_control_mode(0); }},
        {"setSpeedLevel", [](KelmDualBot& b) { return b.set_speed_level(5.0, 100); }},
        {"setCollisionConfig", [](KelmDualBot& b) { return b.set_collision_config(true, 3); }},
        {"teachRecorder", [](KelmDualBot& b) { return b.trajectory_teach(true, "wave"); }},
        {"teachRecorder", [](KelmDualBot& b) { return b.trajectory_recorder("wave"); }},
    };
    struct Refusal {
        const char* name;
        std::vector<int> refusing_arms;
        int expected;
    };
    const std::vector<Refusal> refusals{
        {"both take it", {}, 1}, {"the left arm refuses", {kLeft}, -1}, {"the right arm refuses", {kRight}, -1}};
    for (const auto& c : cases) {
        for (const auto& refusal : refusals) {
            SCOPED_TRACE(std::string(c.command) + ", " + refusal.name);
            controller.acceptAll();
            for (int arm : refusal.refusing_arms) controller.refuse(c.command, arm);
            const size_t before = sentCount(c.command);
            EXPECT_EQ(c.call(bot), refusal.expected);
            const auto sent = controller.peer.receivedCommands(c.command);
            ASSERT_EQ(sent.size(), before + 2) << "both arms must be asked";
            EXPECT_EQ(sent[before]["arm_index"].asInt(), kLeft) << "the left arm is asked first";
            EXPECT_EQ(sent[before + 1]["arm_index"].asInt(), kRight);
        }
    }
}

TEST_F(DualBotTest, ServoTeachListAndVersionFoldBothArmsTheirOwnWay) {
    // Servo enable answers 1 whatever the arms say.
    controller.refuse("setServoEnable", kLeft);
    EXPECT_EQ(bot.set_servo_enable(true), 1);
    controller.refuse("setServoEnable", kRight);
    EXPECT_EQ(bot.set_servo_enable(false), 1);
    EXPECT_EQ(sentCount("setServoEnable"), 4u);
    // The teach list is replaced by the left names, then the right ones are
    // appended, even when the left arm fails.
    controller.setTeachList(kLeft, {"x"});
    controller.setTeachList(kRight, {"y", "z"});
    std::vector<std::string> names{"old1", "old2"};
    EXPECT_EQ(bot.check_teach(names), 1);
    EXPECT_EQ(names, (std::vector<std::string>{"x", "y", "z"}));
    controller.refuse("teachRecorder", kLeft);
    names = {"q"};
    EXPECT_EQ(bot.check_teach(names), -1);
    EXPECT_EQ(names, (std::vector<std::string>{"q", "y", "z"}));
    EXPECT_EQ(bot.get_version(), "v1v0");  // left, then right
}

TEST_F(DualBotTest, RightPoseCallbackRoundTripLeavesTheLeftOneAlone) {
    const std::array<double, 7> seen{0.125, 0.25, 0.5, 0.0, 0.0, 0.0, 1.0};
    const std::array<double, 7> after_release{0.75, 0.25, 0.5, 0.0, 0.0, 0.0, 1.0};
    std::atomic<int> left_calls{0}, seen_calls{0}, calls_after_release{0};
    bot.register_left_pose_cbk([&](double, std::array<double, 7>) { ++left_calls; });
    bot.register_right_pose_cbk([&](double, std::array<double, 7> pose) {
        if (pose == seen) ++seen_calls;
        if (pose == after_release) ++calls_after_release;
    });
    controller.setPose(kRight, seen);
    EXPECT_TRUE(waitUntil([&] { return seen_calls > 0; }));
    EXPECT_EQ(bot.release_right_pose_cbk(), 0);
    controller.setPose(kRight, after_release);
    ASSERT_TRUE(waitUntil([&] { return bot.get_right_cart_pose() == after_release; }));
    controller.setPose(kRight, seen);  // once read, the frames with after_release have been handled
    ASSERT_TRUE(waitUntil([&] { return bot.get_right_cart_pose() == seen; }));
    const int left_before = left_calls;
    EXPECT_TRUE(waitUntil([&] { return left_calls > left_before + 2; })) << "the left callback went with the right one";
    EXPECT_EQ(calls_after_release, 0) << "the right pose callback fired after its release";
    EXPECT_EQ(bot.release_left_pose_cbk(), 0);
}

TEST(DualBotLinePose, LinePoseTwinsSendThePoseAsASevenJointTarget) {
    FakeArmController controller{{7, 6}};
    KelmDualBot bot{controller.host(), controller.port(), 1.0, 0, 1};
    ASSERT_EQ(bot.set_ready(), 1);

    EXPECT_EQ(bot.move_left_line_pose(kPoseTarget, false), 1);
    auto request = controller.peer.waitForCommand("webRecieveTasks");
    ASSERT_TRUE(request);
    EXPECT_EQ((*request)["task_id"].asString(), "TASK_MOVL");
    EXPECT_EQ((*request)["point_type"]["space"].asInt(), 0);
    EXPECT_EQ((*request)["data"]["point"].size(), 7u);

    EXPECT_EQ(bot.move_right_line_pose(kPoseTarget, false), -1) << "a six-joint arm takes no seven-value target";
    EXPECT_EQ(controller.peer.receivedCommands("webRecieveTasks").size(), 1u);
}

}  // namespace
}  // namespace kelm
