// Single-target motions on the wire: jogs, joint and line moves, the
// pass-through move, arcs, the jump and the delay; and the order in which
// their inputs are refused.
#include <cmath>
#include <functional>

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
        {"move_joint", [](KelmKernelImpl& k, const Target& t, std::string& key, bool joint) {
             return k.move_joint(t, key, 100.0, 0, 0, joint); }},
        {"move_line", [](KelmKernelImpl& k, const Target& t, std::string& key, bool joint) {
             return k.move_line(t, key, 100.0, 0, 0, joint); }},
        {"move_3p_arc", [](KelmKernelImpl& k, const Target& t, std::string& key, bool joint) {
             return k.move_3p_arc({t, t, t}, key, 100.0, true, 0.0, 0, 0, joint); }},
        {"move_center_arc", [](KelmKernelImpl& k, const Target& t, std::string& key, bool joint) {
             return k.move_center_arc({t, t, t}, key, 100.0, true, 0.0, 0, 0, joint); }},
    };
}

TEST_F(MotionTest, TargetsAreCheckedForValuesThenLengthThenLimitsOrQuaternion) {
    const char* const illegal = "error: 输入含有非法值，请检查输入！！！";
    const struct {
        Target target;
        bool is_joint;
        std::string message;  // empty: accepted and sent; "%s" stands for the operation
    } cases[] = {
        {{kNaN, 0.0}, true, illegal},
        {{0.3, 0.1, INFINITY, 0.0, 0.0, 0.0, 1.0}, false, illegal},
        {{0.0, 0.0, 0.0, 0.0, 9.0}, true, "%s: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6"},
        {{-3.0, 2.0, -2.5, 3.0, -1.5, 6.0}, true, ""},
        {with(kHome, 2, 2.5 + 1e-9), true, "关节[2]数据超出限位. limit = [-2.500000, 2.500000], value = 2.500000"},
        {with(kHome, 5, -6.0 - 1e-9), true, "关节[5]数据超出限位. limit = [-6.000000, 6.000000], value = -6.000000"},
        {{0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0, 0.0}, false,
         "%s: 输入目标位姿维度不正确, 姿态默认四元数描述(xyzw), 输入维度: 8, 合理维度: 7"},
        {with(kPose, 6, std::sqrt(1.00009)), false, ""},
        {with(kPose, 6, std::sqrt(1.0002)), false, "error: 输入四元数模不为1, 请检查目标输入, magnitude_squared = 1.000200"},
    };
    for (const NamedMove& move : singleTargetMoves()) {
        for (const auto& c : cases) {
            std::string message = c.message;
            if (message.rfind("%s", 0) == 0) message.replace(0, 2, move.name);
            SCOPED_TRACE(std::string(move.name) + " expecting: " + message);
            log.clear();
            peer.clearReceived();
            task_key = "untouched";
            const int result = move.call(*kernel, c.target, task_key, c.is_joint);
            if (message.empty()) {
                EXPECT_EQ(result, 1);
                EXPECT_EQ(onlySent("webRecieveTasks")["task_key"], task_key);
                EXPECT_EQ(log.count("", LOG_ERROR), 0u);
                continue;
            }
            expectRefused(result, message);
            EXPECT_EQ(task_key, "untouched");
            EXPECT_EQ(log.count("", LOG_ERROR), 1u);
            expectNothingSent();
        }
    }
}

TEST_F(MotionTest, JointTargetIsRefusedWhileLimitsAreUnknown) {
    kernel->config.limit_upper.clear();
    for (const NamedMove& move : singleTargetMoves()) {
        expectRefused(move.call(*kernel, kHome, task_key, true), std::string(move.name) + ": joint limits unknown");
    }
    EXPECT_EQ(kernel->move_toppra({kHome}, task_key, 100.0, 0, 0, true), -1);
    EXPECT_EQ(kernel->move_pvt({kHome}, {}, {1.0}, task_key, true), -1);
    expectNothingSent();
}

TEST_F(MotionTest, JointAndLineMovesDifferInTargetKeyAndAcceleration) {
    ASSERT_EQ(kernel->move_joint(kPose, task_key, 100.0, 2, 3, false), 1);
    ASSERT_EQ(kernel->move_line(kHome, task_key, 50.0, 2, 3, true), 1);
    const std::vector<Json::Value> sent = peer.receivedCommands("webRecieveTasks");
    ASSERT_EQ(sent.size(), 2u);
    const Json::Value &joint = sent[0], &line = sent[1];
    EXPECT_EQ(joint["task_id"], "TASK_MOVJ");
    EXPECT_EQ(joint["point_type"]["space"], 1);
    EXPECT_EQ(realsOf(joint["data"]["target_pos"]), kPose);
    EXPECT_FALSE(joint["data"].isMember("acc"));
    EXPECT_EQ(line["task_id"], "TASK_MOVL");
    EXPECT_EQ(line["point_type"]["space"], 0);
    EXPECT_EQ(realsOf(line["data"]["point"]), kHome);
    EXPECT_TRUE(isReal(line["data"]["point"][0]));
    EXPECT_EQ(line["data"]["acc"], line["data"]["speed"]);
    for (const Json::Value& body : sent) {
        EXPECT_EQ(body["task_level"], "Task_General");
        EXPECT_TRUE(isInteger(body["arm_index"]) && body["arm_index"] == kArmIndex);
        EXPECT_TRUE(isInteger(body["data"]["tool"]) && body["data"]["tool"] == 2);
        EXPECT_TRUE(isInteger(body["data"]["user"]) && body["data"]["user"] == 3);
        EXPECT_TRUE(isReal(body["data"]["speed"]));
    }
}

TEST_F(MotionTest, JogsSendTheirNumbersUntouched) {
    ASSERT_EQ(kernel->move_joint_jog(99, 5, -1.0), 1);
    ASSERT_EQ(kernel->move_line_jog(2, -1, 0.5, 3, 4), 1);
    const std::vector<Json::Value> sent = peer.receivedCommands("webRecieveTasks");
    ASSERT_EQ(sent.size(), 2u);
    const Json::Value &joint = sent[0], &line = sent[1];
    EXPECT_EQ(joint["task_id"], "TASK_MOVJ_JOG");
    EXPECT_EQ(joint["index"], 99);
    EXPECT_EQ(joint["dir"], 5);
    EXPECT_EQ(joint["data"]["speed"], -1.0);
    EXPECT_EQ(joint["data"].getMemberNames(), std::vector<std::string>{"speed"});
    EXPECT_EQ(line["task_id"], "TASK_MOVL_JOG");
    EXPECT_EQ(line["dir"], -1);
    EXPECT_EQ(line["data"]["acc"], 0.5);
    EXPECT_EQ(line["data"]["tool"], 3);
    EXPECT_EQ(line["data"]["user"], 4);
    for (const Json::Value& body : sent) {
        EXPECT_FALSE(body.isMember("task_level") || body.isMember("point_type"));
        EXPECT_EQ(body["arm_index"], kArmIndex);
    }
}

// Unlike move_pvt, move_directly sends values below zero as the integer 0 and
// does not clamp from above.
TEST_F(MotionTest, MoveDirectlyMapsGripperValuesWhenTheGripperIsConnected) {
    const std::vector<Target> points{kHome, kHome, {1.0, kNaN}};
    kernel->end_effector.connected = true;
    ASSERT_EQ(kernel->move_directly(points, task_key, {-0.01, 0.5, kNaN}), 1);
    const Json::Value sent = onlySent("webRecieveTasks");
    EXPECT_EQ(sent["task_id"], "TASK_MOVD");
    EXPECT_EQ(sent["task_level"], "Task_General");
    EXPECT_FALSE(sent.isMember("data") || sent.isMember("point_type"));
    ASSERT_EQ(sent["target_points"].size(), 3u);
    EXPECT_EQ(realsOf(sent["target_points"][1]), kHome);
    EXPECT_EQ(sent["gripper"]["gripper_linkage"], 1);
    const Json::Value& gripper = sent["gripper"]["eeffe_point"];
    ASSERT_EQ(gripper.size(), 3u);
    EXPECT_TRUE(isInteger(gripper[0]) && gripper[0] == 0);
    EXPECT_TRUE(isReal(gripper[1]) && gripper[1] == 0.5);
    EXPECT_TRUE(isInteger(gripper[2]) && gripper[2] == 0);

    expectRefused(kernel->move_directly(points, task_key, {0.01, 0.02}), "点位与夹爪维度不一致,请检查数据.");
    for (bool connected : {true, false}) {
        kernel->end_effector.connected = connected;
        peer.clearReceived();
        ASSERT_EQ(kernel->move_directly(points, task_key, connected ? Target{} : Target{0.1, 0.2, 0.3}), 1);
        const Json::Value unlinked = onlySent("webRecieveTasks");
        EXPECT_EQ(unlinked["gripper"]["gripper_linkage"], 0);
        EXPECT_FALSE(unlinked["gripper"].isMember("eeffe_point"));
    }
    EXPECT_TRUE(log.contains("夹抓未连接，无法联动控制夹抓", LOG_ERROR));
}

TEST_F(MotionTest, ArcBodiesDifferOnlyInTypeAndSendRadianOnlyAboveZero) {
    const std::array<Target, 3> points{kHome, kHome, kHome};
    ASSERT_EQ(kernel->move_3p_arc(points, task_key, 20.0, true, 0.5, 1, 2, true), 1);
    ASSERT_EQ(kernel->move_center_arc(points, task_key, 20.0, true, 0.5, 1, 2, true), 1);
    for (double radian : {0.0, -1.0, kNaN}) {
        ASSERT_EQ(kernel->move_3p_arc({kPose, kPose, kPose}, task_key, 20.0, false, radian, 0, 0, false), 1);
    }
    std::vector<Json::Value> sent = peer.receivedCommands("webRecieveTasks");
    ASSERT_EQ(sent.size(), 5u);
    EXPECT_EQ(sent[0]["task_id"], "TASK_MOVC");
    EXPECT_EQ(sent[0]["data"]["type"], 0);
    EXPECT_EQ(sent[1]["data"]["type"], 1);
    EXPECT_EQ(sent[0]["data"]["dir"], 0);
    EXPECT_EQ(sent[0]["data"]["radian"], 0.5);
    EXPECT_EQ(sent[0]["data"]["acc"], 20.0);
    EXPECT_FALSE(sent[0].isMember("task_level"));
    EXPECT_EQ(realsOf(sent[0]["data"]["points"][2]), kHome);
    for (std::size_t i = 2; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i]["data"]["dir"], 1);
        EXPECT_FALSE(sent[i]["data"].isMember("radian"));
        EXPECT_EQ(sent[i]["point_type"]["space"], 1);
    }
    for (std::size_t i : {0, 1}) {
        sent[i].removeMember("task_key");
        sent[i]["data"].removeMember("type");
    }
    EXPECT_EQ(sent[0], sent[1]);
}

TEST_F(MotionTest, ArcFinishesEachPointBeforeTheNext) {
    expectRefused(kernel->move_3p_arc({kHome, kShort, with(kHome, 0, kNaN)}, task_key, 20.0, true, 0.0, 0, 0, true),
                  "move_3p_arc: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6");
    EXPECT_FALSE(log.contains("非法值"));
    expectRefused(kernel->move_center_arc({kHome, with(kHome, 4, 1.6), kHome}, task_key, 20.0, true, 0.0, 0, 0, true),
                  "关节[4]数据超出限位. limit = [-1.500000, 1.500000], value = 1.600000");
    expectNothingSent();
}

TEST_F(MotionTest, DelayIgnoresItsLevel) {
    ASSERT_EQ(kernel->move_delay(1.5, 0), 1);
    ASSERT_EQ(kernel->move_delay(1.5, 1), 1);
    std::vector<Json::Value> sent = peer.receivedCommands("webRecieveTasks");
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0]["task_id"], "TASK_TIMER");
    EXPECT_TRUE(isReal(sent[0]["data"]["time"]) && !sent[0].isMember("task_level"));
    for (Json::Value& body : sent) body.removeMember("task_key");
    EXPECT_EQ(sent[0], sent[1]);
}

// ---- the jump ----

class JumpTest : public MotionTest {
protected:
    const Pose kStart{0.2, 0.0, 0.3, 0.0, 0.0, 0.0, 1.0};
    const Pose kTarget{0.4, 0.1, 0.2, 0.0, 0.0, 1.0, 0.0};

    void SetUp() override {
        MotionTest::SetUp();
        Json::Value reply = TestPeer::recv("Task_Recieve");
        reply["data"]["point_cnt"] = 1;
        for (double value : kStart) reply["data"]["point1"].append(value);
        answer("getKinematics", reply);
        kernel->joint_pos = kHome;
    }
};

TEST_F(JumpTest, SendsFourPosesFromTheComputedStart) {
    ASSERT_EQ(kernel->move_jump(kTarget, {0.0, 0.0, 0.05}, {0.0, 0.0, 0.05}, task_key, 30.0, 1, 2), 1);
    const Json::Value kinematics = onlySent("getKinematics");
    EXPECT_EQ(kinematics["task_id"], "forward");
    EXPECT_EQ(realsOf(kinematics["data"]["joint1"]), kHome);

    const Json::Value sent = onlySent("webRecieveTasks");
    EXPECT_EQ(sent["task_key"], task_key);
    EXPECT_EQ(sent["task_id"], "TASK_MOVT");
    EXPECT_EQ(sent["point_type"]["space"], 1);
    EXPECT_EQ(sent["data"]["point_num"], 4);
    EXPECT_EQ(realsOf(sent["data"]["way_point1"]), Target(kStart.begin(), kStart.end()));
    EXPECT_EQ(realsOf(sent["data"]["way_point2"]), (Target{0.2, 0.0, 0.35, 0.0, 0.0, 0.0, 1.0}));
    EXPECT_EQ(realsOf(sent["data"]["way_point3"]), (Target{0.4, 0.1, 0.25, 0.0, 0.0, 1.0, 0.0}));
    EXPECT_EQ(realsOf(sent["data"]["way_point4"]), Target(kTarget.begin(), kTarget.end()));
}

TEST_F(JumpTest, StartsFromThePlannedPositionWhenThereIsOne) {
    kernel->plan_joint_pos = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6};
    ASSERT_EQ(kernel->move_jump(kTarget, {}, {}, task_key, 30.0, 0, 0), 1);
    EXPECT_EQ(realsOf(onlySent("getKinematics")["data"]["joint1"]), kernel->plan_joint_pos);
}

TEST_F(JumpTest, RefusesBadInputBeforeAskingForTheStartAndMovesNotWithoutIt) {
    Pose off_unit = kTarget;
    off_unit[5] = std::sqrt(1.0002);
    expectRefused(kernel->move_jump(off_unit, {}, {}, task_key, 30.0, 0, 0), "magnitude_squared = 1.000200");
    expectRefused(kernel->move_jump(kTarget, {}, {0.0, kNaN, 0.0}, task_key, 30.0, 0, 0), "非法值");

    answer("getKinematics", TestPeer::recv("Task_Failed"));
    task_key = "untouched";
    EXPECT_EQ(kernel->move_jump(kTarget, {}, {}, task_key, 30.0, 0, 0), -1);
    EXPECT_EQ(task_key, "untouched");
    ASSERT_EQ(kernel->move_joint_jog(0, 1, 1.0), 1);
    EXPECT_EQ(peer.receivedCommands("getKinematics").size(), 1u);
    const std::vector<Json::Value> tasks = peer.receivedCommands("webRecieveTasks");
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0]["task_id"], "TASK_MOVJ_JOG");
}

}  // namespace
}  // namespace test
}  // namespace kelm
