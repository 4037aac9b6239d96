// Single-target motions on the wire: jogs, joint and line moves, the
// pass-through move, arcs, the jump and the delay; and the order in which
// their inputs are refused.
#include <cmath>
#include <functional>
#include <tuple>

#include "motion_fixture.h"

namespace kelm {
namespace test {
namespace {

using Target = std::vector<double>;
struct NamedMove {
    const char* name;
    std::function<int(KelmKernelImpl&, const Target&, std::string&, bool)> call;
};

// The four operations that share the single-target checks; an arc gets the
// target as all three of its points.
std::vector<NamedMove> singleTargetMoves() {
    return {
        {"move_joint", [](auto& k, auto& t, auto& key, bool j) { return k.move_joint(t, key, 100.0, 0, 0, j); }},
        {"move_line", [](auto& k, auto& t, auto& key, bool j) { return k.move_line(t, key, 100.0, 0, 0, j); }},
        {"move_3p_arc",
         [](auto& k, auto& t, auto& key, bool j) {
             return k.move_3p_arc({t, t, t}, key, 1.0, true, 0.0, 0, 0, j);
         }},
        {"move_center_arc",
         [](auto& k, auto& t, auto& key, bool j) {
             return k.move_center_arc({t, t, t}, key, 1.0, true, 0, 0, 0, j);
         }},
    };
}

TEST_F(MotionTest, TargetsAreCheckedForValuesThenLengthThenLimitsOrQuaternion) {
    const char* const illegal = "error: 输入含有非法值，请检查输入！！！";
    // target, whether it is joints, message: empty if accepted, "%s" stands for the operation
    const std::tuple<Target, bool, std::string> cases[] = {
        {{kNaN, 0.0}, true, illegal},
        {{0.3, 0.1, INFINITY, 0.0, 0.0, 0.0, 1.0}, false, illegal},
        {{0.0, 0.0, 0.0, 0.0, 9.0}, true, "%s: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6"},
        {{-3.0, 2.0, -2.5, 3.0, -1.5, 6.0}, true, ""},
        {with(kHome, 2, 2.5 + 1e-9), true, "关节[2]数据超出限位. limit = [-2.500000, 2.500000], value = 2.500000"},
        {with(kHome, 5, -6.0 - 1e-9), true, "关节[5]数据超出限位. limit = [-6.000000, 6.000000], value = -6.000000"},
        {{0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0, 0.0},
         false,
         "%s: 输入目标位姿维度不正确, 姿态默认四元数描述(xyzw), 输入维度: 8, 合理维度: 7"},
        {with(kPose, 6, std::sqrt(1.00009)), false, ""},
        {with(kPose, 6, std::sqrt(1.0002)), false,
         "error: 输入四元数模不为1, 请检查目标输入, magnitude_squared = 1.000200"},
    };
    for (const NamedMove& move : singleTargetMoves()) {
        for (const auto& [target, is_joint, expected] : cases) {
            std::string message = expected;
            if (message.rfind("%s", 0) == 0) message.replace(0, 2, move.name);
            SCOPED_TRACE(std::string(move.name) + " expecting: " + message);
            task_key = "untouched";
            expectOutcome(move.call(*kernel, target, task_key, is_joint), message);
            EXPECT_EQ(task_key == "untouched", !message.empty());
        }
    }
}

TEST_F(MotionTest, JointTargetIsRefusedWhileLimitsAreUnknown) {
    kernel->config.limit_upper.clear();
    for (const NamedMove& move : singleTargetMoves()) {
        expectRefused(move.call(*kernel, kHome, task_key, true), std::string(move.name) + ": joint limits unknown");
    }
    EXPECT_EQ(kernel->move_pvt({kHome}, {}, {1.0}, task_key, true), -1);
    expectNothingSent();
}

TEST_F(MotionTest, JointAndLineMovesDifferInTargetKeyAndAcceleration) {
    ASSERT_EQ(kernel->move_joint(kPose, task_key, 100.0, 2, 3, false), 1);
    ASSERT_EQ(kernel->move_line(kHome, task_key, 50.0, 2, 3, true), 1);
    EXPECT_EQ(allSent("webRecieveTasks"), parseJson(R"([
        {"command": "webRecieveTasks", "task_id": "TASK_MOVJ", "task_level": "Task_General", "arm_index": 1,
         "point_type": {"space": 1},
         "data": {"target_pos": [0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0], "speed": 100.0, "tool": 2, "user": 3}},
        {"command": "webRecieveTasks", "task_id": "TASK_MOVL", "task_level": "Task_General", "arm_index": 1,
         "point_type": {"space": 0},
         "data": {"point": [0.0, 0.5, -0.5, 0.0, 1.0, 0.0], "speed": 50.0, "acc": 50.0, "tool": 2, "user": 3}}])"));
}

TEST_F(MotionTest, JogsSendTheirNumbersUntouched) {
    ASSERT_EQ(kernel->move_joint_jog(99, 5, -1.0), 1);
    ASSERT_EQ(kernel->move_line_jog(2, -1, 0.5, 3, 4), 1);
    EXPECT_EQ(allSent("webRecieveTasks"), parseJson(R"([
        {"command": "webRecieveTasks", "task_id": "TASK_MOVJ_JOG", "arm_index": 1, "index": 99, "dir": 5,
         "data": {"speed": -1.0}},
        {"command": "webRecieveTasks", "task_id": "TASK_MOVL_JOG", "arm_index": 1, "index": 2, "dir": -1,
         "data": {"speed": 0.5, "acc": 0.5, "tool": 3, "user": 4}}])"));
}

// Unlike move_pvt, move_directly sends values below zero as the integer 0 and
// does not clamp from above.
TEST_F(MotionTest, MoveDirectlyMapsGripperValuesWhenTheGripperIsConnected) {
    const std::vector<Target> points{kHome, kHome, {1.0, kNaN}};
    kernel->end_effector.connected = true;
    ASSERT_EQ(kernel->move_directly(points, task_key, {-0.01, 0.5, kNaN}), 1);
    expectBody(onlySent("webRecieveTasks"), R"({"command": "webRecieveTasks", "task_id": "TASK_MOVD",
        "task_level": "Task_General", "arm_index": 1,
        "target_points": [[0.0, 0.5, -0.5, 0.0, 1.0, 0.0], [0.0, 0.5, -0.5, 0.0, 1.0, 0.0], [1.0, null]],
        "gripper": {"gripper_linkage": 1, "eeffe_point": [0, 0.5, 0]}})");

    expectRefused(kernel->move_directly(points, task_key, {0.01, 0.02}), "点位与夹爪维度不一致,请检查数据.");
    kernel->end_effector.connected = false;
    ASSERT_EQ(kernel->move_directly(points, task_key, {0.1, 0.2, 0.3}), 1);
    EXPECT_EQ(kernel.sent("webRecieveTasks").back()["gripper"], parseJson(R"({"gripper_linkage": 0})"));
    EXPECT_TRUE(log.contains("夹抓未连接，无法联动控制夹抓", LOG_ERROR));
}

TEST_F(MotionTest, ArcSendsItsTypeAndTheRadianOnlyAboveZero) {
    ASSERT_EQ(kernel->move_center_arc({kHome, kHome, kHome}, task_key, 20.0, true, 0.5, 1, 2, true), 1);
    const std::string home = "[0.0, 0.5, -0.5, 0.0, 1.0, 0.0]";
    expectBody(onlySent("webRecieveTasks"), R"({"command": "webRecieveTasks", "task_id": "TASK_MOVC", "arm_index": 1,
        "point_type": {"space": 0}, "data": {"points": [)" +
                                                home + "," + home + "," + home + R"(],
        "speed": 20.0, "acc": 20.0, "tool": 1, "user": 2, "dir": 0, "radian": 0.5, "type": 1}})");
    for (double radian : {0.0, kNaN}) {
        ASSERT_EQ(kernel->move_3p_arc({kPose, kPose, kPose}, task_key, 20.0, false, radian, 0, 0, false), 1);
        const Json::Value data = kernel.sent("webRecieveTasks").back()["data"];
        EXPECT_TRUE(data["type"] == 0 && data["dir"] == 1 && !data.isMember("radian")) << data;
    }
}

TEST_F(MotionTest, ArcChecksEachPointFullyBeforeTheNext) {
    expectRefused(kernel->move_3p_arc({kHome, kShort, with(kHome, 0, kNaN)}, task_key, 20.0, true, 0.0, 0, 0, true),
                  "move_3p_arc: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6");
    EXPECT_FALSE(log.contains("非法值"));
    expectNothingSent();
}

TEST_F(MotionTest, DelaySendsNoLevel) {
    ASSERT_EQ(kernel->move_delay(1.5, 1), 1);
    expectBody(onlySent("webRecieveTasks"),
               R"({"command": "webRecieveTasks", "task_id": "TASK_TIMER", "arm_index": 1, "data": {"time": 1.5}})");
}

// ---- the jump ----

class JumpTest : public MotionTest {
protected:
    const Pose kTarget{0.4, 0.1, 0.2, 0.0, 0.0, 1.0, 0.0};

    void SetUp() override {
        MotionTest::SetUp();
        answer("getKinematics", parseJson(R"({"recv": "Task_Recieve",
            "data": {"point_cnt": 1, "point1": [0.2, 0.0, 0.3, 0.0, 0.0, 0.0, 1.0]}})"));
        kernel->joint_pos = kHome;
    }
};

TEST_F(JumpTest, SendsFourPosesFromTheComputedStart) {
    ASSERT_EQ(kernel->move_jump(kTarget, {0.0, 0.0, 0.05}, {0.0, 0.0, 0.05}, task_key, 30.0, 1, 2), 1);
    EXPECT_EQ(onlySent("getKinematics")["data"]["joint1"], parseJson("[0.0, 0.5, -0.5, 0.0, 1.0, 0.0]"));
    expectBody(onlySent("webRecieveTasks"), R"({"command": "webRecieveTasks", "task_id": "TASK_MOVT",
        "task_level": "Task_General", "arm_index": 1, "point_type": {"space": 1},
        "data": {"point_num": 4, "speed": 30.0, "acc": 30.0, "tool": 1, "user": 2,
                 "way_point1": [0.2, 0.0, 0.3, 0.0, 0.0, 0.0, 1.0], "way_point2": [0.2, 0.0, 0.35, 0.0, 0.0, 0.0, 1.0],
                 "way_point3": [0.4, 0.1, 0.25, 0.0, 0.0, 1.0, 0.0],
                 "way_point4": [0.4, 0.1, 0.2, 0.0, 0.0, 1.0, 0.0]}})");
}

TEST_F(JumpTest, StartsFromThePlannedPositionWhenThereIsOne) {
    kernel->plan_joint_pos = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6};
    ASSERT_EQ(kernel->move_jump(kTarget, {}, {}, task_key, 30.0, 0, 0), 1);
    EXPECT_EQ(onlySent("getKinematics")["data"]["joint1"], parseJson("[0.1, 0.2, 0.3, 0.4, 0.5, 0.6]"));
}

TEST_F(JumpTest, RefusesBadInputBeforeAskingForTheStartAndMovesNotWithoutIt) {
    expectRefused(kernel->move_jump(with(kTarget, 5, std::sqrt(1.0002)), {}, {}, task_key, 30.0, 0, 0),
                  "magnitude_squared = 1.000200");
    expectRefused(kernel->move_jump(kTarget, {}, {0.0, kNaN, 0.0}, task_key, 30.0, 0, 0), "非法值");

    answer("getKinematics", TestPeer::recv("Task_Failed"));
    task_key = "untouched";
    EXPECT_EQ(kernel->move_jump(kTarget, {}, {}, task_key, 30.0, 0, 0), -1);
    EXPECT_EQ(task_key, "untouched");
    EXPECT_EQ(kernel.sent("getKinematics").size(), 1u);
    EXPECT_TRUE(kernel.sent("webRecieveTasks").empty());
}

}  // namespace
}  // namespace test
}  // namespace kelm
