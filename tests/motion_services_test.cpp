// Controller services: kinematics requests and the reading of their replies,
// coordinate systems and calibrations, recording and teaching.
#include <cmath>
#include <tuple>

#include "motion_fixture.h"

namespace kelm {
namespace test {
namespace {

using Points = std::vector<std::vector<double>>;

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
    answer("getKinematics", kinematicsReply(3, "point", {kPose, kPose, kPose}));
    std::vector<Pose> poses;
    ASSERT_EQ(kernel->forwardKine(4, 5, {kHome, {0.1, 0.2, 0.3, 0.4, 0.5, 0.6}}, poses), 1);
    EXPECT_EQ(poses, std::vector<Pose>(3, kPoseArray));
    expectBody(onlySent("getKinematics"), R"({"command": "getKinematics", "task_id": "forward", "arm_index": 1,
        "data": {"point_cnt": 2, "tool": 4, "user": 5, "joint1": [0.0, 0.5, -0.5, 0.0, 1.0, 0.0],
                 "joint2": [0.1, 0.2, 0.3, 0.4, 0.5, 0.6]}})");

    answer("getKinematics", kinematicsReply(2, "point", {kPose, {1, 2, 3, 4, 5, 6}}));
    expectRefused(kernel->forwardKine(0, 0, {kHome, kHome}, poses), "forwardKine error, 返回位姿维度不为7");
    EXPECT_EQ(poses, (std::vector<Pose>{kPoseArray, Pose{}}));
    answer("getKinematics", kinematicsReply(0, "point", {}));
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
    expectNothingSent();
}

TEST_F(MotionTest, InverseSendsPosesUnnormalisedAndKeepsUnsolvedPointsEmpty) {
    const Pose nearly_unit = with(kPoseArray, 6, std::sqrt(1.00005));
    answer("getKinematics", kinematicsReply(1, "joint", {kHome}));
    std::vector<double> single;
    ASSERT_EQ(kernel->inverseKine(1, 2, nearly_unit, kHome, single), 1);
    EXPECT_EQ(single, kHome);
    Json::Value sent = onlySent("getKinematics");
    EXPECT_EQ(sent["data"]["point1"][6], nearly_unit[6]);
    sent["data"].removeMember("point1");
    expectBody(sent, R"({"command": "getKinematics", "task_id": "inverse", "arm_index": 1,
        "data": {"point_cnt": 1, "tool": 1, "user": 2, "refer1": [0.0, 0.5, -0.5, 0.0, 1.0, 0.0]}})");

    Points out;
    answer("getKinematics", kinematicsReply(3, "joint", {kHome, {}, kHome}));
    EXPECT_EQ(kernel->inverseKine(0, 0, {kPoseArray, kPoseArray}, {kHome, kHome}, out), -1);
    EXPECT_EQ(out, (Points{kHome, {}, kHome}));
    for (int count : {1, 0}) {
        answer("getKinematics", kinematicsReply(count, "joint", Points(count)));
        EXPECT_EQ(kernel->inverseKine(0, 0, kPoseArray, kHome, single), -1);
        EXPECT_EQ(single, kHome);
    }
}

// ---- coordinates and calibration ----

TEST_F(MotionTest, ToolCoordinatesHoldSevenValuesUserCoordinatesAnyNumber) {
    answer("getCoordinate", parseJson(R"({"coordinate": [0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0]})"));
    EXPECT_EQ(kernel->get_tool_coordinate(2), kPoseArray);
    answer("getCoordinate", parseJson(R"({"coordinate": [1, 2, 3, 4, 5, 6]})"));
    EXPECT_EQ(kernel->get_tool_coordinate(2), Pose{});
    EXPECT_EQ(kernel->get_user_coordinate(2), (std::vector<double>{1, 2, 3, 4, 5, 6}));

    ASSERT_EQ(kernel->set_tool_coordinate(3, {1, 2, 3, 4, 5, 6, 7, 8}), 1);
    expectBody(onlySent("setToolData"), R"({"command": "setToolData", "operation": "update", "index": 3,
        "arm_index": 1, "data": {"coord": [1.0, 2.0, 3.0, 4.0, 5.0, 6.0]}})");
    kernel.forgetSent();
    ASSERT_EQ(kernel->set_user_coordinate(3, {1, 2}), 1);  // a short vector goes out as far as it reaches
    EXPECT_EQ(onlySent("setUserData")["data"]["coord"], parseJson("[1.0, 2.0]"));
    kernel.forgetSent();
    EXPECT_EQ(kernel->set_tool_index(-1), -1);
    expectNothingSent();
}

TEST_F(MotionTest, CalibrationsAreJudgedByTheirResult) {
    const Points points{{1, 2, 3, 4, 5, 6, 7, 8}, {6, 5, 4, 3, 2, 1}};
    const std::pair<const char*, int> cases[] = {{R"({"result": "ok"})", 1},
                                                 {R"({"result": "fail", "recv": "Task_Recieve"})", -1},
                                                 {R"({"recv": "Task_Recieve"})", -2}};
    for (const auto& [reply, expected] : cases) {
        answer("userCalibration", parseJson(reply));
        answer("toolCalibrate", parseJson(reply));
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
        answer("setZeroPosition", parseJson(reply));
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
        answer("teachRecorder", parseJson(reply));
        EXPECT_EQ(kernel->check_teach(names), expected) << reply;
        EXPECT_EQ(names, expected_names) << reply;
    }
}

}  // namespace
}  // namespace test
}  // namespace kelm
