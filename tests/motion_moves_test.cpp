// Single-target motions on the wire: jogs, joint and line moves, the
// pass-through move, arcs, the jump and the delay; and the order in which
// their inputs are refused.
#include <cmath>
#include <functional>
#include <limits>

#include "motion_fixture.h"
#include "state_frame_builder.h"

namespace kelm {
namespace test {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

using MoveCall = std::function<int(KelmKernelImpl&, const std::vector<double>&, std::string&, bool)>;

struct NamedMove {
    const char* name;
    MoveCall call;
};

// The four operations that share the single-target checks; an arc gets the
// target as all three of its points.
std::vector<NamedMove> singleTargetMoves() {
    return {
        {"move_joint",
         [](KelmKernelImpl& k, const std::vector<double>& t, std::string& key, bool joint) {
             return k.move_joint(t, key, 100.0, 0, 0, joint);
         }},
        {"move_line",
         [](KelmKernelImpl& k, const std::vector<double>& t, std::string& key, bool joint) {
             return k.move_line(t, key, 100.0, 0, 0, joint);
         }},
        {"move_3p_arc",
         [](KelmKernelImpl& k, const std::vector<double>& t, std::string& key, bool joint) {
             return k.move_3p_arc({t, t, t}, key, 100.0, true, 0.0, 0, 0, joint);
         }},
        {"move_center_arc",
         [](KelmKernelImpl& k, const std::vector<double>& t, std::string& key, bool joint) {
             return k.move_center_arc({t, t, t}, key, 100.0, true, 0.0, 0, 0, joint);
         }},
    };
}

struct TargetCase {
    const char* what;
    std::vector<double> target;
    bool is_joint;
    const char* message;  // empty: accepted and sent; "%s" stands for the operation
};

std::string withOperation(const char* message, const char* operation) {
    std::string text = message;
    const auto at = text.find("%s");
    if (at != std::string::npos) text.replace(at, 2, operation);
    return text;
}

TEST_F(MotionTest, TargetsAreCheckedForValuesThenLengthThenLimitsOrQuaternion) {
    const std::vector<TargetCase> cases = {
        {"NaN and wrong length", {kNaN, 0.0}, true, "error: 输入含有非法值，请检查输入！！！"},
        {"infinity in a pose", {0.3, 0.1, kInf, 0.0, 0.0, 0.0, 1.0}, false, "error: 输入含有非法值，请检查输入！！！"},
        {"joint target too short", {0.0, 0.0, 0.0, 0.0, 9.0}, true,
         "%s: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6"},
        {"on the limits", {-3.0, 2.0, -2.5, 3.0, -1.5, 6.0}, true, ""},
        {"just above a limit", {0.0, 0.0, 2.5 + 1e-9, 0.0, 0.0, 0.0}, true,
         "关节[2]数据超出限位. limit = [-2.500000, 2.500000], value = 2.500000"},
        {"just below a limit", {0.0, 0.0, 0.0, 0.0, 0.0, -6.0 - 1e-9}, true,
         "关节[5]数据超出限位. limit = [-6.000000, 6.000000], value = -6.000000"},
        {"pose of 8 values", {0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0, 0.0}, false,
         "%s: 输入目标位姿维度不正确, 姿态默认四元数描述(xyzw), 输入维度: 8, 合理维度: 7"},
        {"quaternion within tolerance", {0.3, 0.1, 0.4, 0.0, 0.0, 0.0, std::sqrt(1.00009)}, false, ""},
        {"quaternion beyond tolerance", {0.3, 0.1, 0.4, 0.0, 0.0, 0.0, std::sqrt(1.0002)}, false,
         "error: 输入四元数模不为1, 请检查目标输入, magnitude_squared = 1.000200"},
    };
    for (const NamedMove& move : singleTargetMoves()) {
        for (const TargetCase& c : cases) {
            SCOPED_TRACE(std::string(move.name) + ": " + c.what);
            log.clear();
            peer.clearReceived();
            task_key = "untouched";
            const int result = move.call(*kernel, c.target, task_key, c.is_joint);
            if (*c.message == '\0') {
                EXPECT_EQ(result, 1);
                const Json::Value sent = onlySent("webRecieveTasks");
                EXPECT_EQ(sent["task_key"], task_key);
                EXPECT_EQ(log.count("", LOG_ERROR), 0u);
                continue;
            }
            EXPECT_EQ(result, -1);
            EXPECT_EQ(task_key, "untouched");
            EXPECT_EQ(log.count("", LOG_ERROR), 1u);
            EXPECT_TRUE(log.contains(withOperation(c.message, move.name), LOG_ERROR));
            expectNothingSent();
        }
    }
}

TEST_F(MotionTest, JointTargetIsRefusedWhileLimitsAreUnknown) {
    kernel->config.limit_upper.clear();
    for (const NamedMove& move : singleTargetMoves()) {
        SCOPED_TRACE(move.name);
        EXPECT_EQ(move.call(*kernel, kHome, task_key, true), -1);
        EXPECT_TRUE(log.contains(std::string(move.name) + ": joint limits unknown", LOG_ERROR));
    }
    EXPECT_EQ(kernel->move_toppra({kHome}, task_key, 100.0, 0, 0, true), -1);
    EXPECT_EQ(kernel->move_pvt({kHome}, {}, {1.0}, task_key, true), -1);
    expectNothingSent();
}

// The joint count comes from the state frames and the limits from the ready
// sequence's configuration request, not from anything the test sets.
TEST_F(MotionTest, FramesAndReadySequenceSupplyJointCountAndLimits) {
    kernel->status.dof = 0;
    kernel->config = ArmConfig{};
    const std::vector<double> upper{1, 2, 3, 4, 5, 6, 7};
    Json::Value params;
    params["dof"] = 7;
    for (double limit : upper) {
        params["limit_upper"].append(limit);
        params["limit_lower"].append(-limit);
    }
    peer.replyTo("getJointParams", jsonObject({{"params", params}}), kReplyDelay);
    ASSERT_TRUE(peer.sendJson(stateFrame(1, {realisticArm(0), realisticArm(kArmIndex, 7)})));
    ASSERT_TRUE(waitUntil([this] { return kernel->status.dof == 7; }));
    ASSERT_EQ(kernel->set_kelm_ready(false, 0.0), 1);

    EXPECT_EQ(kernel->move_joint(upper, task_key, 100.0, 0, 0, true), 1);
    EXPECT_EQ(kernel->move_joint(kHome, task_key, 100.0, 0, 0, true), -1);
    EXPECT_TRUE(log.contains("move_joint: 输入目标维度与臂维度不一致，输入维度: 6, 臂维度: 7", LOG_ERROR));
}

TEST_F(MotionTest, JointAndLineMovesDifferInTargetKeyAndAcceleration) {
    ASSERT_EQ(kernel->move_joint(kPose, task_key, 100.0, 2, 3, false), 1);
    const Json::Value joint = onlySent("webRecieveTasks");
    ASSERT_EQ(kernel->move_line(kHome, task_key, 50.0, 2, 3, true), 1);
    const Json::Value line = peer.receivedCommands("webRecieveTasks").back();

    EXPECT_EQ(joint["task_id"], "TASK_MOVJ");
    EXPECT_EQ(joint["point_type"]["space"], 1);
    EXPECT_EQ(realsOf(joint["data"]["target_pos"]), kPose);
    EXPECT_FALSE(joint["data"].isMember("acc"));
    EXPECT_EQ(line["task_id"], "TASK_MOVL");
    EXPECT_EQ(line["point_type"]["space"], 0);
    EXPECT_EQ(realsOf(line["data"]["point"]), kHome);
    EXPECT_TRUE(isReal(line["data"]["point"][0]));
    EXPECT_EQ(line["data"]["acc"], line["data"]["speed"]);
    for (const Json::Value& body : {joint, line}) {
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
    const Json::Value& joint = sent[0];
    const Json::Value& line = sent[1];
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
    for (const Json::Value& body : {joint, line}) {
        EXPECT_FALSE(body.isMember("task_level"));
        EXPECT_FALSE(body.isMember("point_type"));
        EXPECT_EQ(body["arm_index"], kArmIndex);
    }
}

TEST_F(MotionTest, MoveDirectlyMapsGripperValuesWithoutUpperClamp) {
    const std::vector<std::vector<double>> points{kHome, kHome, {1.0, kNaN}};
    kernel->end_effector.connected = true;
    ASSERT_EQ(kernel->move_directly(points, task_key, {-0.01, 0.5, kNaN}), 1);
    const Json::Value sent = onlySent("webRecieveTasks");
    EXPECT_EQ(sent["task_id"], "TASK_MOVD");
    EXPECT_EQ(sent["task_level"], "Task_General");
    EXPECT_FALSE(sent.isMember("data"));
    EXPECT_FALSE(sent.isMember("point_type"));
    ASSERT_EQ(sent["target_points"].size(), 3u);
    EXPECT_EQ(realsOf(sent["target_points"][1]), kHome);
    EXPECT_EQ(sent["gripper"]["gripper_linkage"], 1);
    const Json::Value& gripper = sent["gripper"]["eeffe_point"];
    ASSERT_EQ(gripper.size(), 3u);
    EXPECT_TRUE(isInteger(gripper[0]) && gripper[0] == 0);
    EXPECT_TRUE(isReal(gripper[1]) && gripper[1] == 0.5);
    EXPECT_TRUE(isInteger(gripper[2]) && gripper[2] == 0);
}

TEST_F(MotionTest, MoveDirectlyGripperRules) {
    const std::vector<std::vector<double>> points{kHome, kHome, kHome};
    kernel->end_effector.connected = true;
    EXPECT_EQ(kernel->move_directly(points, task_key, {0.01, 0.02}), -1);
    EXPECT_TRUE(log.contains("点位与夹爪维度不一致,请检查数据.", LOG_ERROR));
    expectNothingSent();
    peer.clearReceived();

    ASSERT_EQ(kernel->move_directly(points, task_key, {}), 1);
    Json::Value sent = onlySent("webRecieveTasks");
    EXPECT_EQ(sent["gripper"]["gripper_linkage"], 0);
    EXPECT_FALSE(sent["gripper"].isMember("eeffe_point"));
    peer.clearReceived();

    kernel->end_effector.connected = false;
    ASSERT_EQ(kernel->move_directly(points, task_key, {0.01, 0.02, 0.03}), 1);
    EXPECT_TRUE(log.contains("夹抓未连接，无法联动控制夹抓", LOG_ERROR));
    sent = onlySent("webRecieveTasks");
    EXPECT_EQ(sent["gripper"]["gripper_linkage"], 0);
    EXPECT_FALSE(sent["gripper"].isMember("eeffe_point"));
    peer.clearReceived();

    ASSERT_EQ(kernel->move_directly({}, task_key, {}), 1);
    EXPECT_FALSE(onlySent("webRecieveTasks").isMember("target_points"));
}

TEST_F(MotionTest, ArcBodiesDifferOnlyInType) {
    const std::array<std::vector<double>, 3> points{kHome, kHome, kHome};
    ASSERT_EQ(kernel->move_3p_arc(points, task_key, 20.0, true, 0.5, 1, 2, true), 1);
    ASSERT_EQ(kernel->move_center_arc(points, task_key, 20.0, true, 0.5, 1, 2, true), 1);
    std::vector<Json::Value> sent = peer.receivedCommands("webRecieveTasks");
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0]["task_id"], "TASK_MOVC");
    EXPECT_EQ(sent[0]["data"]["type"], 0);
    EXPECT_EQ(sent[1]["data"]["type"], 1);
    EXPECT_EQ(sent[0]["data"]["dir"], 0);
    EXPECT_EQ(sent[0]["data"]["radian"], 0.5);
    EXPECT_EQ(sent[0]["data"]["acc"], 20.0);
    EXPECT_FALSE(sent[0].isMember("task_level"));
    ASSERT_EQ(sent[0]["data"]["points"].size(), 3u);
    EXPECT_EQ(realsOf(sent[0]["data"]["points"][2]), kHome);
    for (Json::Value& body : sent) {
        body.removeMember("task_key");
        body["data"].removeMember("type");
    }
    EXPECT_EQ(sent[0], sent[1]);
}

TEST_F(MotionTest, ArcSendsDirectionInvertedAndRadianOnlyAboveZero) {
    const std::array<std::vector<double>, 3> points{kPose, kPose, kPose};
    for (double radian : {0.0, -1.0, kNaN}) {
        ASSERT_EQ(kernel->move_3p_arc(points, task_key, 20.0, false, radian, 0, 0, false), 1);
    }
    for (const Json::Value& body : peer.receivedCommands("webRecieveTasks")) {
        EXPECT_EQ(body["data"]["dir"], 1);
        EXPECT_FALSE(body["data"].isMember("radian"));
        EXPECT_EQ(body["point_type"]["space"], 1);
    }
}

TEST_F(MotionTest, ArcFinishesEachPointBeforeTheNext) {
    std::vector<double> short_point(kHome.begin(), kHome.end() - 1);
    std::vector<double> illegal = kHome;
    illegal[0] = kNaN;
    EXPECT_EQ(kernel->move_3p_arc({kHome, short_point, illegal}, task_key, 20.0, true, 0.0, 0, 0, true), -1);
    EXPECT_TRUE(log.contains("move_3p_arc: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6"));
    EXPECT_FALSE(log.contains("非法值"));

    std::vector<double> beyond = kHome;
    beyond[4] = 1.6;
    EXPECT_EQ(kernel->move_center_arc({kHome, beyond, kHome}, task_key, 20.0, true, 0.0, 0, 0, true), -1);
    EXPECT_TRUE(log.contains("关节[4]数据超出限位. limit = [-1.500000, 1.500000], value = 1.600000"));
    expectNothingSent();
}

TEST_F(MotionTest, DelayIgnoresItsLevel) {
    ASSERT_EQ(kernel->move_delay(1.5, 0), 1);
    ASSERT_EQ(kernel->move_delay(1.5, 1), 1);
    ASSERT_EQ(kernel->move_delay(-1.0, 0), 1);
    std::vector<Json::Value> sent = peer.receivedCommands("webRecieveTasks");
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0]["task_id"], "TASK_TIMER");
    EXPECT_TRUE(isReal(sent[0]["data"]["time"]));
    EXPECT_EQ(sent[2]["data"]["time"], -1.0);
    EXPECT_NE(sent[0]["task_key"], sent[1]["task_key"]);
    sent[0].removeMember("task_key");
    sent[1].removeMember("task_key");
    EXPECT_EQ(sent[0], sent[1]);
    EXPECT_FALSE(sent[0].isMember("task_level"));
}

// ---- the jump ----

class JumpTest : public MotionTest {
protected:
    const Pose kStart{0.2, 0.0, 0.3, 0.0, 0.0, 0.0, 1.0};
    const Pose kTarget{0.4, 0.1, 0.2, 0.0, 0.0, 1.0, 0.0};

    void answerForwardKinematics() {
        peer.replyWith("getKinematics", [this](const Json::Value&) {
            Json::Value reply = TestPeer::recv("Task_Recieve");
            reply["data"]["point_cnt"] = 1;
            for (double value : kStart) reply["data"]["point1"].append(value);
            return reply;
        }, kReplyDelay);
    }
};

TEST_F(JumpTest, SendsFourPosesFromTheComputedStart) {
    answerForwardKinematics();
    kernel->joint_pos = kHome;
    ASSERT_EQ(kernel->move_jump(kTarget, {0.0, 0.0, 0.05}, {0.0, 0.0, 0.05}, task_key, 30.0, 1, 2), 1);

    const Json::Value kinematics = onlySent("getKinematics");
    EXPECT_EQ(kinematics["task_id"], "forward");
    EXPECT_EQ(realsOf(kinematics["data"]["joint1"]), kHome);

    const Json::Value sent = onlySent("webRecieveTasks");
    EXPECT_EQ(sent["task_key"], task_key);
    EXPECT_EQ(sent["task_id"], "TASK_MOVT");
    EXPECT_EQ(sent["point_type"]["space"], 1);
    EXPECT_EQ(sent["data"]["point_num"], 4);
    const std::vector<double> up{0.2, 0.0, 0.35, 0.0, 0.0, 0.0, 1.0};
    const std::vector<double> down{0.4, 0.1, 0.25, 0.0, 0.0, 1.0, 0.0};
    EXPECT_EQ(realsOf(sent["data"]["way_point1"]), std::vector<double>(kStart.begin(), kStart.end()));
    EXPECT_EQ(realsOf(sent["data"]["way_point2"]), up);
    EXPECT_EQ(realsOf(sent["data"]["way_point3"]), down);
    EXPECT_EQ(realsOf(sent["data"]["way_point4"]), std::vector<double>(kTarget.begin(), kTarget.end()));
    for (const char* title : {"start Pos", "jump up Pos", "jump down Pos", "target Pos"}) {
        EXPECT_TRUE(log.contains(title, LOG_INFO)) << title;
    }
}

TEST_F(JumpTest, StartsFromThePlannedPositionWhenThereIsOne) {
    answerForwardKinematics();
    kernel->joint_pos = kHome;
    kernel->plan_joint_pos = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6};
    ASSERT_EQ(kernel->move_jump(kTarget, {}, {}, task_key, 30.0, 0, 0), 1);
    EXPECT_EQ(realsOf(onlySent("getKinematics")["data"]["joint1"]), kernel->plan_joint_pos);
}

TEST_F(JumpTest, RefusesBeforeAskingForTheStart) {
    Pose off_unit = kTarget;
    off_unit[5] = std::sqrt(1.0002);
    EXPECT_EQ(kernel->move_jump(off_unit, {}, {}, task_key, 30.0, 0, 0), -1);
    EXPECT_EQ(kernel->move_jump(kTarget, {}, {0.0, kNaN, 0.0}, task_key, 30.0, 0, 0), -1);
    EXPECT_TRUE(log.contains("magnitude_squared = 1.000200", LOG_ERROR));
    EXPECT_TRUE(log.contains("error: 输入含有非法值，请检查输入！！！", LOG_ERROR));
    expectNothingSent();
}

TEST_F(JumpTest, FailedStartPoseSendsNoMotion) {
    peer.replyTo("getKinematics", TestPeer::recv("Task_Failed"), kReplyDelay);
    kernel->joint_pos = kHome;
    task_key = "untouched";
    EXPECT_EQ(kernel->move_jump(kTarget, {}, {}, task_key, 30.0, 0, 0), -1);
    EXPECT_EQ(task_key, "untouched");
    EXPECT_EQ(peer.receivedCommands("getKinematics").size(), 1u);
    ASSERT_EQ(kernel->move_joint_jog(0, 1, 1.0), 1);
    const std::vector<Json::Value> tasks = peer.receivedCommands("webRecieveTasks");
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0]["task_id"], "TASK_MOVJ_JOG");
}

}  // namespace
}  // namespace test
}  // namespace kelm
