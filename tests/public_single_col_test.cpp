// KelmSingleCol against a fake controller: which request each motion member
// chooses, when a blocking motion returns, the gripper state rule, the
// tracking length check and the fixed-name callbacks.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kelm_single_col.h"
#include "log_capture.h"
#include "public_fake_controller.h"

namespace kelm {
namespace {

using namespace std::chrono_literals;
using test::BoundedCall;
using test::FakeArmController;
using test::TestPeer;
using test::waitUntil;

const std::vector<double> kJointTarget{0.1, -0.2, 0.3, 0.0, -1.0, 0.5};
const std::array<double, 7> kPoseTarget{0.25, 0.125, 0.5, 0.0, 0.0, 0.0, 1.0};

class SingleColTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(arm.set_ready(), 1); }

    std::vector<Json::Value> tasks() { return controller.peer.receivedCommands("webRecieveTasks"); }

    FakeArmController controller;
    KelmSingleCol arm{controller.host(), controller.port(), 1.0};
};

struct MotionCase {
    const char* name;
    std::function<int(KelmSingleCol&)> move;
    int expected;
    const char* task_id;  // nullptr: nothing may reach the controller
    int space;
    std::function<void(const Json::Value& request)> check;
};

TEST_F(SingleColTest, MotionMembersChooseTheirRequestByTimeAndTarget) {
    const std::vector<std::vector<double>> three_points{kJointTarget, kJointTarget, kJointTarget};
    const std::vector<MotionCase> cases{
        {"negative time: controller-timed joint move at full speed",
         [](KelmSingleCol& a) { return a.move_joint(kJointTarget, -1.0, false); }, 1, "TASK_MOVJ", 0,
         [](const Json::Value& r) {
             EXPECT_EQ(r["data"]["speed"].asDouble(), 100.0);
             EXPECT_EQ(r["data"]["target_pos"].size(), 6u);
         }},
        {"a duration: one timed point", [](KelmSingleCol& a) { return a.move_joint(kJointTarget, 1.5, false); }, 1,
         "TASK_PVT", 0,
         [](const Json::Value& r) {
             EXPECT_TRUE(r["data"]["time"].size() == 1u && r["data"]["time"][0].asDouble() == 1.5);
             EXPECT_EQ(r["data"]["pos"].size(), 1u);
         }},
        {"a duration of 0 is refused by the timed move",
         [](KelmSingleCol& a) { return a.move_joint(kJointTarget, 0.0, false); }, -1, nullptr, 0, nullptr},
        {"pose, negative time", [](KelmSingleCol& a) { return a.move_pose(kPoseTarget, -1.0, false); }, 1, "TASK_MOVJ",
         1, [](const Json::Value& r) { EXPECT_EQ(r["data"]["target_pos"].size(), 7u); }},
        {"line to joints", [](KelmSingleCol& a) { return a.move_line_joint(kJointTarget, false); }, 1, "TASK_MOVL", 0,
         [](const Json::Value& r) { EXPECT_EQ(r["data"]["speed"].asDouble(), 100.0); }},
        {"line to a pose", [](KelmSingleCol& a) { return a.move_line_pose(kPoseTarget, false); }, 1, "TASK_MOVL", 1,
         [](const Json::Value& r) { EXPECT_EQ(r["data"]["point"].size(), 7u); }},
        {"3 points, 2 stamps: the controller times the path",
         [&](KelmSingleCol& a) {
             return a.move_joint_traj(three_points, {0.01, 0.02}, {1.0, 2.0}, false);
         },
         1, "TASK_MOVT", 0,
         [](const Json::Value& r) {
             EXPECT_EQ(r["data"]["point_num"].asInt(), 3);
             EXPECT_EQ(r["data"]["speed"].asDouble(), 100.0);
             EXPECT_FALSE(r.isMember("gripper"));
         }},
        {"3 points, 3 stamps, no gripper: timed points",
         [&](KelmSingleCol& a) {
             return a.move_joint_traj(three_points, {}, {1.0, 2.0, 3.0}, false);
         },
         1, "TASK_PVT", 0,
         [](const Json::Value& r) {
             EXPECT_EQ(r["data"]["time"].size(), 3u);
             EXPECT_EQ(r["gripper"]["gripper_linkage"].asInt(), 0);
             EXPECT_FALSE(r["gripper"].isMember("eeffe_point"));
         }},
        {"no poses: the controller's to refuse, whatever the stamps",
         [](KelmSingleCol& a) { return a.move_pose_traj({}, {}, {1.0}, false); }, 1, "TASK_MOVT", 1,
         [](const Json::Value& r) { EXPECT_EQ(r["data"]["point_num"].asInt(), 0); }},
        {"poses with one stamp each",
         [](KelmSingleCol& a) {
             return a.move_pose_traj({kPoseTarget, kPoseTarget}, {}, {1.0, 2.0}, false);
         },
         1, "TASK_PVT", 1,
         [](const Json::Value& r) {
             ASSERT_EQ(r["data"]["pos"].size(), 2u);
             EXPECT_EQ(r["data"]["pos"][1][1].asDouble(), kPoseTarget[1]);
         }},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const size_t sent_before = tasks().size();
        BoundedCall call(controller.peer, [&] { return c.move(arm); });
        EXPECT_EQ(call.result(), c.expected);
        const auto sent = tasks();
        if (c.task_id == nullptr) {
            EXPECT_EQ(sent.size(), sent_before);
            continue;
        }
        ASSERT_EQ(sent.size(), sent_before + 1);
        const Json::Value& request = sent.back();
        EXPECT_EQ(request["task_id"].asString(), c.task_id);
        EXPECT_EQ(request["point_type"]["space"].asInt(), c.space);
        EXPECT_EQ(request["arm_index"].asInt(), 0);
        if (c.check) c.check(request);
    }
}

TEST_F(SingleColTest, BlockingMotionReturnsOnlyOnceAFrameReportsItsTaskFinished) {
    const std::vector<std::pair<const char*, std::function<int()>>> moves{
        {"move_joint", [&] { return arm.move_joint(kJointTarget, -1.0, true); }},
        {"move_line_pose", [&] { return arm.move_line_pose(kPoseTarget, true); }},
        {"move_joint_traj, timed", [&] { return arm.move_joint_traj({kJointTarget}, {}, {1.0}, true); }},
    };
    for (const auto& move : moves) {
        SCOPED_TRACE(move.first);
        BoundedCall call(controller.peer, move.second);
        auto request = controller.peer.waitForCommand("webRecieveTasks");
        ASSERT_TRUE(request);
        EXPECT_FALSE(call.returnedWithin(300ms)) << "returned while its task was still running";
        controller.finishTask(0, (*request)["task_key"].asString());
        EXPECT_EQ(call.result(), 1);
    }
    controller.refuse("webRecieveTasks", 0);
    BoundedCall refused(controller.peer, [&] { return arm.move_joint(kJointTarget, 1.0, true); });
    EXPECT_EQ(refused.result(), -1) << "a refused motion does not wait";
}

TEST_F(SingleColTest, GripperStateNeedsAConnectedGripperAndKeepsItsSign) {
    controller.setGripper(0, true, 5);
    EXPECT_TRUE(waitUntil([&] { return arm.get_gripper_state() == 5; }));
    controller.setGripper(0, false, 5);
    EXPECT_TRUE(waitUntil([&] { return arm.get_gripper_state() == -1; }));
    controller.setGripper(0, true, 254);  // one byte on the controller: -2
    EXPECT_TRUE(waitUntil([&] { return arm.get_gripper_state() == -2; }));
}

TEST_F(SingleColTest, TrackJointOfTheWrongLengthSaysSoOnStandardOutputAndSendsNothing) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(arm.track_joint({0.1, 0.2}, -1.0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "targets size error\n");

    EXPECT_EQ(arm.track_joint(kJointTarget, -1.0), 1);
    EXPECT_EQ(arm.track_pose(kPoseTarget, 0.02), 1);
    auto joint = controller.peer.waitForCommand("trajectoryTrackingTasks");
    ASSERT_TRUE(joint);
    EXPECT_EQ((*joint)["data"]["way_point"].size(), 6u) << "the refused target reached the controller";
    auto pose = controller.peer.waitForCommand("trajectoryTrackingTasks");
    ASSERT_TRUE(pose);
    EXPECT_EQ((*pose)["data"]["way_point"].size(), 7u);
}

TEST_F(SingleColTest, JointCallbackIsReplacedUnderItsFixedNameAndReleased) {
    std::atomic<int> first{0}, second{0}, frames{0};
    auto counter = [](std::atomic<int>& hits) {
        return [&hits](double, std::vector<double>, std::vector<double>, std::vector<double>) { ++hits; };
    };
    // Pose callbacks fire after the joint callbacks of a frame: a clock of processed frames.
    arm.register_pose_cbk([&frames](double, std::array<double, 7>) { ++frames; });
    auto framesPass = [&](int count) {
        const int target = frames + count;
        return waitUntil([&] { return frames >= target; });
    };

    arm.register_joint_cbk(counter(first));
    ASSERT_TRUE(waitUntil([&] { return first > 0; }));
    arm.register_joint_cbk(counter(second));
    ASSERT_TRUE(framesPass(2));
    const int first_after_replacement = first;
    ASSERT_TRUE(framesPass(3));
    EXPECT_EQ(first, first_after_replacement);
    EXPECT_GT(second, 0);

    EXPECT_EQ(arm.release_joint_cbk(), 0);
    ASSERT_TRUE(framesPass(2));
    const int second_after_release = second;
    ASSERT_TRUE(framesPass(3));
    EXPECT_EQ(second, second_after_release);
    EXPECT_EQ(arm.release_pose_cbk(), 0);
}

}  // namespace
}  // namespace kelm
