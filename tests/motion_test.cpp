// The arm kernel's motions and controller services on the wire, against a
// kernel over the in-memory socket whose requests are all accepted, with a
// six-joint arm whose limits are known: single-target motions, the jump,
// trajectories (move_toppra, move_pvt), kinematics, coordinate systems,
// calibrations, recording and teaching; the order in which inputs are
// refused and how replies are read.
//
// The arm's joint count, limits and gripper are set on the kernel's members
// directly; no state frame comes in, so nothing else writes them.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "kernel_fixture.h"

namespace kelm {
namespace test {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

Json::Value parseJson(const std::string& text) { return AnsweredKernel::parse(text); }

// Expects `sent` to equal `expected` (JSON text): the same keys, the same
// values and the same JSON types.
void expectBody(const Json::Value& sent, const std::string& expected) { EXPECT_EQ(sent, parseJson(expected)); }

// `values` with the one at `index` replaced.
template <class Values>
Values with(Values values, std::size_t index, double value) {
    values.at(index) = value;
    return values;
}

class MotionTest : public ::testing::Test {
protected:
    const std::vector<double> kHome{0.0, 0.5, -0.5, 0.0, 1.0, 0.0};
    const std::vector<double> kShort{0.0, 0.5, -0.5, 0.0, 1.0};
    const std::vector<double> kPose{0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0};
    const Pose kPoseArray{0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0};

    void SetUp() override {
        kernel->status.dof = 6;
        kernel->config.limit_lower = {-3.0, -2.0, -2.5, -3.0, -1.5, -6.0};
        kernel->config.limit_upper = {3.0, 2.0, 2.5, 3.0, 1.5, 6.0};
    }

    // Every request with `command` as one array.
    Json::Value allSent(const std::string& command) {
        Json::Value all(Json::arrayValue);
        for (const Json::Value& body : kernel.sent(command)) all.append(body);
        return all;
    }

    void expectRefused(int result, const std::string& message) {
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(log.contains(message, LOG_ERROR)) << message;
    }

    // Expects an accepted call (empty `message`) to have sent one motion and
    // logged no error, a refused one to have logged `message` and sent nothing;
    // then starts a fresh record of log and wire for the next call.
    void expectOutcome(int result, const std::string& message) {
        if (message.empty()) {
            EXPECT_EQ(result, 1);
            EXPECT_EQ(log.count("", LOG_ERROR), 0u);
            kernel.onlySent("webRecieveTasks");
        } else {
            expectRefused(result, message);
            EXPECT_EQ(kernel.sentCount(), 0u);
        }
        log.clear();
        kernel.forgetSent();
    }

    static constexpr int kArmIndex = 1;
    LogCapture log;
    AnsweredKernel kernel{kArmIndex};
    std::string task_key;
};

using Target = std::vector<double>;
using Points = std::vector<std::vector<double>>;
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
    EXPECT_EQ(kernel.sentCount(), 0u);
}

// Joint and line moves differ in their target's key and the line's
// acceleration; jogs send their numbers untouched; the delay has no level.
TEST_F(MotionTest, SingleMotionsSendTheirBodies) {
    ASSERT_EQ(kernel->move_joint(kPose, task_key, 100.0, 2, 3, false), 1);
    ASSERT_EQ(kernel->move_line(kHome, task_key, 50.0, 2, 3, true), 1);
    ASSERT_EQ(kernel->move_center_arc({kHome, kHome, kHome}, task_key, 20.0, true, 0.5, 1, 2, true), 1);
    ASSERT_EQ(kernel->move_joint_jog(99, 5, -1.0), 1);
    ASSERT_EQ(kernel->move_line_jog(2, -1, 0.5, 3, 4), 1);
    ASSERT_EQ(kernel->move_delay(1.5, 1), 1);
    EXPECT_EQ(allSent("webRecieveTasks"), parseJson(R"([
        {"command": "webRecieveTasks", "task_id": "TASK_MOVJ", "task_level": "Task_General", "arm_index": 1,
         "point_type": {"space": 1},
         "data": {"target_pos": [0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0], "speed": 100.0, "tool": 2, "user": 3}},
        {"command": "webRecieveTasks", "task_id": "TASK_MOVL", "task_level": "Task_General", "arm_index": 1,
         "point_type": {"space": 0},
         "data": {"point": [0.0, 0.5, -0.5, 0.0, 1.0, 0.0], "speed": 50.0, "acc": 50.0, "tool": 2, "user": 3}},
        {"command": "webRecieveTasks", "task_id": "TASK_MOVC", "arm_index": 1, "point_type": {"space": 0},
         "data": {"points": [[0.0, 0.5, -0.5, 0.0, 1.0, 0.0], [0.0, 0.5, -0.5, 0.0, 1.0, 0.0],
                             [0.0, 0.5, -0.5, 0.0, 1.0, 0.0]],
                  "speed": 20.0, "acc": 20.0, "tool": 1, "user": 2, "dir": 0, "radian": 0.5, "type": 1}},
        {"command": "webRecieveTasks", "task_id": "TASK_MOVJ_JOG", "arm_index": 1, "index": 99, "dir": 5,
         "data": {"speed": -1.0}},
        {"command": "webRecieveTasks", "task_id": "TASK_MOVL_JOG", "arm_index": 1, "index": 2, "dir": -1,
         "data": {"speed": 0.5, "acc": 0.5, "tool": 3, "user": 4}},
        {"command": "webRecieveTasks", "task_id": "TASK_TIMER", "arm_index": 1, "data": {"time": 1.5}}])"));
}

// Unlike move_pvt, move_directly sends values below zero as the integer 0 and
// does not clamp from above.
TEST_F(MotionTest, MoveDirectlyMapsGripperValuesWhenTheGripperIsConnected) {
    const std::vector<Target> points{kHome, kHome, {1.0, kNaN}};
    kernel->end_effector.connected = true;
    ASSERT_EQ(kernel->move_directly(points, task_key, {-0.01, 0.5, kNaN}), 1);
    expectBody(kernel.onlySent("webRecieveTasks"), R"({"command": "webRecieveTasks", "task_id": "TASK_MOVD",
        "task_level": "Task_General", "arm_index": 1,
        "target_points": [[0.0, 0.5, -0.5, 0.0, 1.0, 0.0], [0.0, 0.5, -0.5, 0.0, 1.0, 0.0], [1.0, null]],
        "gripper": {"gripper_linkage": 1, "eeffe_point": [0, 0.5, 0]}})");

    expectRefused(kernel->move_directly(points, task_key, {0.01, 0.02}), "点位与夹爪维度不一致,请检查数据.");
    kernel->end_effector.connected = false;
    ASSERT_EQ(kernel->move_directly(points, task_key, {0.1, 0.2, 0.3}), 1);
    EXPECT_EQ(kernel.sent("webRecieveTasks").back()["gripper"], parseJson(R"({"gripper_linkage": 0})"));
    EXPECT_TRUE(log.contains("夹抓未连接，无法联动控制夹抓", LOG_ERROR));
}

TEST_F(MotionTest, ArcSendsTheRadianOnlyAboveZero) {
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
    EXPECT_EQ(kernel.sentCount(), 0u);
}

// ---- the jump ----

class JumpTest : public MotionTest {
protected:
    const Pose kTarget{0.4, 0.1, 0.2, 0.0, 0.0, 1.0, 0.0};

    void SetUp() override {
        MotionTest::SetUp();
        kernel.replyTo("getKinematics", parseJson(R"({"recv": "Task_Recieve",
            "data": {"point_cnt": 1, "point1": [0.2, 0.0, 0.3, 0.0, 0.0, 0.0, 1.0]}})"));
        kernel->joint_pos = kHome;
    }
};

TEST_F(JumpTest, SendsFourPosesFromThePlannedOrElseTheCurrentPosition) {
    ASSERT_EQ(kernel->move_jump(kTarget, {0.0, 0.0, 0.05}, {0.0, 0.0, 0.05}, task_key, 30.0, 1, 2), 1);
    EXPECT_EQ(kernel.onlySent("getKinematics")["data"]["joint1"], parseJson("[0.0, 0.5, -0.5, 0.0, 1.0, 0.0]"));
    expectBody(kernel.onlySent("webRecieveTasks"), R"({"command": "webRecieveTasks", "task_id": "TASK_MOVT",
        "task_level": "Task_General", "arm_index": 1, "point_type": {"space": 1},
        "data": {"point_num": 4, "speed": 30.0, "acc": 30.0, "tool": 1, "user": 2,
                 "way_point1": [0.2, 0.0, 0.3, 0.0, 0.0, 0.0, 1.0], "way_point2": [0.2, 0.0, 0.35, 0.0, 0.0, 0.0, 1.0],
                 "way_point3": [0.4, 0.1, 0.25, 0.0, 0.0, 1.0, 0.0],
                 "way_point4": [0.4, 0.1, 0.2, 0.0, 0.0, 1.0, 0.0]}})");

    kernel->plan_joint_pos = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6};  // the planned position comes first
    ASSERT_EQ(kernel->move_jump(kTarget, {}, {}, task_key, 30.0, 0, 0), 1);
    EXPECT_EQ(kernel.sent("getKinematics").back()["data"]["joint1"], parseJson("[0.1, 0.2, 0.3, 0.4, 0.5, 0.6]"));
}

TEST_F(JumpTest, RefusesBadInputBeforeAskingForTheStartAndMovesNotWithoutIt) {
    expectRefused(kernel->move_jump(with(kTarget, 5, std::sqrt(1.0002)), {}, {}, task_key, 30.0, 0, 0),
                  "magnitude_squared = 1.000200");
    expectRefused(kernel->move_jump(kTarget, {}, {0.0, kNaN, 0.0}, task_key, 30.0, 0, 0), "非法值");

    kernel.replyTo("getKinematics", TestPeer::recv("Task_Failed"));
    task_key = "untouched";
    EXPECT_EQ(kernel->move_jump(kTarget, {}, {}, task_key, 30.0, 0, 0), -1);
    EXPECT_EQ(task_key, "untouched");
    EXPECT_EQ(kernel.sent("getKinematics").size(), 1u);
    EXPECT_TRUE(kernel.sent("webRecieveTasks").empty());
}

// ---- trajectories ----

TEST_F(MotionTest, ToppraChecksAllValuesBeforeAnyLength) {
    expectRefused(kernel->move_toppra({kShort, kHome, with(kHome, 5, kNaN)}, task_key, 40.0, 0, 0, true), "非法值");
    EXPECT_FALSE(log.contains("输入目标维度"));
    expectRefused(kernel->move_toppra({kHome, kShort}, task_key, 40.0, 0, 0, true),
                  "move_toppra: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6");
    expectRefused(kernel->move_toppra({kPose, with(kPose, 6, 2.0)}, task_key, 40.0, 0, 0, false),
                  "magnitude_squared = 4.000000");
    EXPECT_EQ(kernel.sentCount(), 0u);
}

// points, gripper values, time stamps, message: empty if accepted
using PvtCase = std::tuple<Points, std::vector<double>, std::vector<double>, const char*>;

class PvtTest : public MotionTest {
protected:
    void run(const std::vector<PvtCase>& cases, bool is_joint = true) {
        for (const auto& [points, gripper, times, message] : cases) {
            SCOPED_TRACE(std::string("expecting: ") + message);
            expectOutcome(kernel->move_pvt(points, gripper, times, task_key, is_joint), message);
        }
    }
    const Points three{kHome, kHome, kHome};
};

TEST_F(PvtTest, ListLengthsNeedOneMatchingListAndAStampPerPoint) {
    kernel->end_effector.connected = true;
    run({
        {three, {0.01, 0.02}, {1.0, 2.0, 3.0}, ""},
        {three, {0.01, 0.02}, {1.0, 2.0}, "点位与时间戳或点位与夹爪维度不一致,请检查数据."},
        {three, {}, {1.0, 2.0}, "点位与时间戳维度不一致,请检查数据."},
        {{}, {}, {}, "move_pvt: the trajectory holds no point"},
        {three, {0.01, kNaN, 0.02}, {1.0, 2.0, 3.0}, "error: 输入含有非法值，请检查输入！！！"},
    });
}

TEST_F(PvtTest, TimeStampsMustRiseFromAboveZeroInStepsBelowAnHour) {
    const char* const stamps = "请保证时间大于0且时间戳序列递增.";
    run({
        {three, {}, {0.5, 1.0, 1.0}, stamps},
        {{kHome, kHome}, {}, {1.0, 3601.0}, stamps},
        {{kHome, kHome}, {}, {1.0, 3600.5}, ""},
        {{kHome}, {}, {3600.0}, stamps},
        {{kHome}, {}, {3599.9}, ""},
        {{kHome}, {}, {0.0}, stamps},
        {{kHome}, {}, {kNaN}, "error: 输入含有非法值，请检查输入！！！"},
    });
}

TEST_F(PvtTest, PointMessagesCountFromOne) {
    run({
        {{kHome, with(kHome, 2, 2.6)}, {}, {1.0, 2.0}, "给定点[2][3]超过关节限位."},
        {{kHome, kShort}, {}, {1.0, 2.0}, "第[2]组数据只有5个,请保证关节数据长度为6."},
        {{kShort, with(kHome, 1, kNaN)}, {}, {1.0, 2.0}, "非法值"},
    });
    const Points short_pose{kPose, {0.3, 0.1, 0.4, 0.0, 0.0, 0.0}};
    run({{short_pose, {}, {1.0, 2.0}, "第[2]组数据只有6个,请保证笛卡尔空间下位置数据长度为7."},
         {{with(kPose, 6, 1.001)}, {}, {1.0}, "magnitude_squared = 1.002001"},
         {{kPose}, {}, {1.0}, ""}},
        false);
}

// Unlike move_directly, move_pvt clamps the gripper to [0, 0.08] as reals.
TEST_F(PvtTest, GripperIsClampedAndLinkedOnlyWithAConnectedGripper) {
    kernel->end_effector.connected = true;
    ASSERT_EQ(kernel->move_pvt(three, {-1.0, 0.1, 0.05}, {1.0, 2.0, 3.0}, task_key, true), 1);
    const std::string home = "[0.0, 0.5, -0.5, 0.0, 1.0, 0.0]";
    expectBody(kernel.onlySent("webRecieveTasks"), R"({"command": "webRecieveTasks", "task_id": "TASK_PVT",
        "task_level": "Task_General", "arm_index": 1, "point_type": {"space": 0},
        "gripper": {"gripper_linkage": 1, "eeffe_point": [0.0, 0.08, 0.05]},
        "data": {"time": [1.0, 2.0, 3.0], "pos": [)" + home +
                                                       "," + home + "," + home + "]}}");

    kernel->end_effector.connected = false;
    ASSERT_EQ(kernel->move_pvt(three, {-1.0, 0.1, 0.05}, {1.0, 2.0, 3.0}, task_key, true), 1);
    EXPECT_TRUE(log.contains("夹抓未连接，无法联动控制夹抓", LOG_ERROR));
    EXPECT_EQ(kernel.sent("webRecieveTasks").back()["gripper"], parseJson(R"({"gripper_linkage": 0})"));
}

// An accepted kinematics reply with `count` and the numbered `points`
// ("point1", ... or "joint1", ...).
Json::Value kinematicsReply(int count, const char* word, const Points& points) {
    Json::Value reply = TestPeer::recv("Task_Recieve");
    reply["data"]["point_cnt"] = count;
    for (std::size_t k = 0; k < points.size(); ++k) {
        Json::Value& point = reply["data"][word + std::to_string(k + 1)] = Json::Value(Json::arrayValue);
        for (double value : points[k]) point.append(value);
    }
    return reply;
}

// ---- kinematics ----

TEST_F(MotionTest, ForwardSendsNumberedJointsAndReadsTheReplyByItsCount) {
    kernel.replyTo("getKinematics", kinematicsReply(3, "point", {kPose, kPose, kPose}));
    std::vector<Pose> poses;
    ASSERT_EQ(kernel->forwardKine(4, 5, {kHome, {0.1, 0.2, 0.3, 0.4, 0.5, 0.6}}, poses), 1);
    EXPECT_EQ(poses, std::vector<Pose>(3, kPoseArray));
    expectBody(kernel.onlySent("getKinematics"), R"({"command": "getKinematics", "task_id": "forward", "arm_index": 1,
        "data": {"point_cnt": 2, "tool": 4, "user": 5, "joint1": [0.0, 0.5, -0.5, 0.0, 1.0, 0.0],
                 "joint2": [0.1, 0.2, 0.3, 0.4, 0.5, 0.6]}})");

    kernel.replyTo("getKinematics", kinematicsReply(2, "point", {kPose, {1, 2, 3, 4, 5, 6}}));
    expectRefused(kernel->forwardKine(0, 0, {kHome, kHome}, poses), "forwardKine error, 返回位姿维度不为7");
    EXPECT_EQ(poses, (std::vector<Pose>{kPoseArray, Pose{}}));
    kernel.replyTo("getKinematics", kinematicsReply(0, "point", {}));
    EXPECT_EQ(kernel->forwardKine(0, 0, {kHome}, poses), 1);
    EXPECT_TRUE(poses.empty());
}

// Inverse: counts first, then every value, then each point.
TEST_F(MotionTest, KinematicsRefuseBadInputBeforeSendingAndLeaveTheOutputAlone) {
    std::vector<Pose> poses{Pose{}};
    expectRefused(kernel->forwardKine(0, 0, Points{}, poses), "error: jnt_values empty");
    expectRefused(kernel->forwardKine(0, 0, {kHome, kHome, with(kHome, 3, kNaN)}, poses), "非法值");
    expectRefused(kernel->forwardKine(0, 0, {kHome, kShort}, poses),
                  "error: jnt_values[1] size is unreasonable, 5 / 6");
    EXPECT_EQ(poses, std::vector<Pose>{Pose{}});

    Points out{{7.0}};
    expectRefused(kernel->inverseKine(0, 0, {kPoseArray, kPoseArray}, {kHome, kHome, kHome}, out),
                  "error: quat_poses size != ref_joints size");
    expectRefused(kernel->inverseKine(0, 0, std::vector<Pose>{}, {}, out), "error: quat_poses empty");
    log.clear();
    expectRefused(kernel->inverseKine(0, 0, {kPoseArray, with(kPoseArray, 0, kNaN)}, {kShort, kHome}, out), "非法值");
    EXPECT_FALSE(log.contains("ref_joints[0]"));
    expectRefused(kernel->inverseKine(0, 0, {kPoseArray, kPoseArray}, {kHome, kShort}, out),
                  "error: ref_joints[1] size is unreasonable, 5 / 6");
    expectRefused(kernel->inverseKine(0, 0, {with(kPoseArray, 6, 2.0)}, {kHome}, out),
                  "error: 输入四元数模不为1, 请检查quat_poses[0], magnitude_squared =4.000000");
    EXPECT_EQ(out, Points{{7.0}});
    EXPECT_EQ(kernel.sentCount(), 0u);
}

TEST_F(MotionTest, InverseSendsPosesUnnormalisedAndKeepsUnsolvedPointsEmpty) {
    const Pose nearly_unit = with(kPoseArray, 6, std::sqrt(1.00005));
    kernel.replyTo("getKinematics", kinematicsReply(1, "joint", {kHome}));
    std::vector<double> single;
    ASSERT_EQ(kernel->inverseKine(1, 2, nearly_unit, kHome, single), 1);
    EXPECT_EQ(single, kHome);
    Json::Value sent = kernel.onlySent("getKinematics");
    EXPECT_EQ(sent["data"]["point1"][6], nearly_unit[6]);
    sent["data"].removeMember("point1");
    expectBody(sent, R"({"command": "getKinematics", "task_id": "inverse", "arm_index": 1,
        "data": {"point_cnt": 1, "tool": 1, "user": 2, "refer1": [0.0, 0.5, -0.5, 0.0, 1.0, 0.0]}})");

    Points out;
    kernel.replyTo("getKinematics", kinematicsReply(3, "joint", {kHome, {}, kHome}));
    EXPECT_EQ(kernel->inverseKine(0, 0, {kPoseArray, kPoseArray}, {kHome, kHome}, out), -1);
    EXPECT_EQ(out, (Points{kHome, {}, kHome}));
    for (int count : {1, 0}) {
        kernel.replyTo("getKinematics", kinematicsReply(count, "joint", Points(count)));
        EXPECT_EQ(kernel->inverseKine(0, 0, kPoseArray, kHome, single), -1);
        EXPECT_EQ(single, kHome);
    }
}

// ---- coordinates and calibration ----

TEST_F(MotionTest, ToolCoordinatesHoldSevenValuesUserCoordinatesAnyNumber) {
    kernel.replyTo("getCoordinate", parseJson(R"({"coordinate": [0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0]})"));
    EXPECT_EQ(kernel->get_tool_coordinate(2), kPoseArray);
    kernel.replyTo("getCoordinate", parseJson(R"({"coordinate": [1, 2, 3, 4, 5, 6]})"));
    EXPECT_EQ(kernel->get_tool_coordinate(2), Pose{});
    EXPECT_EQ(kernel->get_user_coordinate(2), (std::vector<double>{1, 2, 3, 4, 5, 6}));

    ASSERT_EQ(kernel->set_tool_coordinate(3, {1, 2, 3, 4, 5, 6, 7, 8}), 1);
    expectBody(kernel.onlySent("setToolData"), R"({"command": "setToolData", "operation": "update", "index": 3,
        "arm_index": 1, "data": {"coord": [1.0, 2.0, 3.0, 4.0, 5.0, 6.0]}})");
    kernel.forgetSent();
    ASSERT_EQ(kernel->set_user_coordinate(3, {1, 2}), 1);  // a short vector goes out as far as it reaches
    EXPECT_EQ(kernel.onlySent("setUserData")["data"]["coord"], parseJson("[1.0, 2.0]"));
    kernel.forgetSent();
    EXPECT_EQ(kernel->set_tool_index(-1), -1);
    EXPECT_EQ(kernel.sentCount(), 0u);
}

TEST_F(MotionTest, CalibrationsAreJudgedByTheirResult) {
    const Points points{{1, 2, 3, 4, 5, 6, 7, 8}, {6, 5, 4, 3, 2, 1}};
    const std::pair<const char*, int> cases[] = {{R"({"result": "ok"})", 1},
                                                 {R"({"result": "fail", "recv": "Task_Recieve"})", -1},
                                                 {R"({"recv": "Task_Recieve"})", -2}};
    for (const auto& [reply, expected] : cases) {
        kernel.replyTo("userCalibration", parseJson(reply));
        kernel.replyTo("toolCalibrate", parseJson(reply));
        EXPECT_EQ(kernel->user_calibrate(1, points), expected) << reply;
        EXPECT_EQ(kernel->tool_calibtate(1, points), expected) << reply;
    }
    expectBody(kernel.sent("userCalibration").front(),
               R"({"command": "userCalibration", "operation": "calibrate", "user": 1, "arm_index": 1})");
    expectBody(kernel.sent("toolCalibrate").front(), R"({"command": "toolCalibrate", "arm_index": 1,
        "data": {"tool_index": 1, "pos": [[1.0, 2.0, 3.0, 4.0, 5.0, 6.0], [6.0, 5.0, 4.0, 3.0, 2.0, 1.0]]}})");
}

TEST_F(MotionTest, ControllerCalibrationsReturnTheControllersRet) {
    const std::pair<const char*, int> cases[] = {{R"({"recv": "Task_Recieve", "ret": 5})", 5},
                                                 {R"({"recv": "Task_Recieve"})", 0},
                                                 {R"({"recv": "Task_Refused", "ret": 5})", -1}};
    for (const auto& [reply, expected] : cases) {
        kernel.replyTo("setZeroPosition", parseJson(reply));
        EXPECT_EQ(kernel->set_zero_position(2), expected) << reply;
    }
    EXPECT_EQ(kernel.sent("setZeroPosition").front()["axis_id"], 2);

    EXPECT_EQ(kernel->set_dynamics_cali_record_flag(), 0);
    EXPECT_EQ(kernel->set_dynamics_cali_calcu(false), 0);
    EXPECT_EQ(allSent("dynamicsCalibration"), parseJson(R"([{"command": "dynamicsCalibration", "operation": "record"},
        {"command": "dynamicsCalibration", "operation": "calibrate", "type": "arm", "arm_index": 1}])"));
}

// ---- recording and teaching ----

TEST_F(MotionTest, TeachRequestsCarryIntegerTaskIds) {
    ASSERT_EQ(kernel->trajectory_teach(true, "a"), 1);
    ASSERT_EQ(kernel->trajectory_teach(false, "a"), 1);
    ASSERT_EQ(kernel->trajectory_recorder("b"), 1);
    std::vector<std::string> names;
    kernel->check_teach(names);
    EXPECT_EQ(allSent("teachRecorder"), parseJson(R"([
        {"command": "teachRecorder", "arm_index": 1, "task_id": 1, "name": "a"},
        {"command": "teachRecorder", "arm_index": 1, "task_id": 0, "name": "a"},
        {"command": "teachRecorder", "arm_index": 1, "task_id": 2, "name": "b"},
        {"command": "teachRecorder", "arm_index": 1, "task_id": 3, "name": ""}])"));
}

TEST_F(MotionTest, CheckTeachSizesTheListByCount) {
    using Names = std::vector<std::string>;
    const std::tuple<const char*, int, Names> cases[] = {
        {R"({"count": -2})", -1, {"1", "2", "3"}},
        {R"({"count": 2, "teach_list": ["x", "y"], "recv": "Task_Refused"})", 1, {"x", "y"}},
        {R"({"count": 3, "teach_list": ["x", "y"]})", 1, {"x", "y", ""}},
        {R"({"count": 0})", 1, {}},
    };
    Names names{"1", "2", "3"};
    for (const auto& [reply, expected, expected_names] : cases) {
        kernel.replyTo("teachRecorder", parseJson(reply));
        EXPECT_EQ(kernel->check_teach(names), expected) << reply;
        EXPECT_EQ(names, expected_names) << reply;
    }
}

}  // namespace
}  // namespace test
}  // namespace kelm
