// Controller services: kinematics requests and the reading of their replies,
// coordinate systems and calibrations, recording and teaching.
#include <cmath>
#include <limits>
#include <mutex>

#include "motion_fixture.h"

namespace kelm {
namespace test {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Reply members that a test changes between calls; the peer reads them on its
// own thread.
class ScriptedReply {
public:
    void set(const Json::Value& members) {
        std::lock_guard<std::mutex> lock(mutex_);
        members_ = members;
    }
    Json::Value get() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return members_;
    }

private:
    mutable std::mutex mutex_;
    Json::Value members_;
};

Json::Value realArray(const std::vector<double>& values) {
    Json::Value array(Json::arrayValue);
    for (double value : values) array.append(value);
    return array;
}

// An accepted kinematics reply with `count` and the numbered `points`
// ("point1", ... or "joint1", ...).
Json::Value kinematicsReply(int count, const char* word, const std::vector<std::vector<double>>& points) {
    Json::Value reply = TestPeer::recv("Task_Recieve");
    reply["data"]["point_cnt"] = count;
    for (std::size_t k = 0; k < points.size(); ++k) {
        reply["data"][word + std::to_string(k + 1)] = realArray(points[k]);
    }
    return reply;
}

class ServicesTest : public MotionTest {
protected:
    void SetUp() override {
        MotionTest::SetUp();
        for (const char* command : {"getKinematics", "getCoordinate", "userCalibration", "toolCalibrate",
                                    "teachRecorder", "setZeroPosition"}) {
            peer.replyWith(command, [this](const Json::Value&) { return reply.get(); }, kReplyDelay);
        }
    }
    // The rules read `reply`, which goes before the peer.
    void TearDown() override { peer.clearRules(); }

    ScriptedReply reply;
    const std::vector<double> kPose7{0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0};
    const Pose kPoseArray{0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0};
};

// ---- kinematics ----

TEST_F(ServicesTest, ForwardSendsNumberedJointsAndTheReplyCountGoverns) {
    const std::vector<double> second{0.1, 0.2, 0.3, 0.4, 0.5, 0.6};
    reply.set(kinematicsReply(3, "point", {kPose7, kPose7, kPose7}));
    std::vector<Pose> poses;
    ASSERT_EQ(kernel->forwardKine(4, 5, {kHome, second}, poses), 1);
    EXPECT_EQ(poses.size(), 3u);
    EXPECT_EQ(poses[2], kPoseArray);

    const Json::Value sent = onlySent("getKinematics");
    EXPECT_EQ(sent["task_id"], "forward");
    EXPECT_EQ(sent["arm_index"], kArmIndex);
    const Json::Value& data = sent["data"];
    EXPECT_TRUE(isInteger(data["point_cnt"]) && data["point_cnt"] == 2);
    EXPECT_EQ(data["tool"], 4);
    EXPECT_EQ(data["user"], 5);
    EXPECT_EQ(realsOf(data["joint1"]), kHome);
    EXPECT_EQ(realsOf(data["joint2"]), second);
    EXPECT_FALSE(data.isMember("joint0") || data.isMember("point1"));
}

TEST_F(ServicesTest, ForwardReplyReading) {
    std::vector<Pose> poses;
    reply.set(kinematicsReply(2, "point", {kPose7, {1, 2, 3, 4, 5, 6}}));
    EXPECT_EQ(kernel->forwardKine(0, 0, {kHome, kHome}, poses), -1);
    EXPECT_TRUE(log.contains("forwardKine error, 返回位姿维度不为7", LOG_ERROR));
    ASSERT_EQ(poses.size(), 2u);
    EXPECT_EQ(poses[0], kPoseArray);
    EXPECT_EQ(poses[1], Pose{});

    reply.set(kinematicsReply(0, "point", {}));
    EXPECT_EQ(kernel->forwardKine(0, 0, {kHome}, poses), 1);
    EXPECT_TRUE(poses.empty());
    Pose single{9, 9, 9, 9, 9, 9, 9};
    const Pose before = single;
    EXPECT_EQ(kernel->forwardKine(0, 0, kHome, single), -1);
    EXPECT_EQ(single, before);

    reply.set(TestPeer::recv("Task_Failed"));
    EXPECT_EQ(kernel->forwardKine(0, 0, kHome, single), -1);
    EXPECT_TRUE(log.contains("forwardKine error", LOG_INFO));
    EXPECT_EQ(single, before);
}

TEST_F(ServicesTest, ForwardRefusesBeforeSending) {
    std::vector<Pose> poses{Pose{}};
    std::vector<double> illegal = kHome;
    illegal[3] = kNaN;
    const std::vector<double> short_joints(kHome.begin(), kHome.end() - 1);
    EXPECT_EQ(kernel->forwardKine(0, 0, std::vector<std::vector<double>>{}, poses), -1);
    EXPECT_EQ(kernel->forwardKine(0, 0, {kHome, kHome, illegal}, poses), -1);
    EXPECT_EQ(kernel->forwardKine(0, 0, {kHome, short_joints}, poses), -1);
    EXPECT_TRUE(log.contains("error: jnt_values empty", LOG_ERROR));
    EXPECT_TRUE(log.contains("error: 输入含有非法值，请检查输入！！！", LOG_ERROR));
    EXPECT_TRUE(log.contains("error: jnt_values[1] size is unreasonable, 5 / 6", LOG_ERROR));
    EXPECT_EQ(poses.size(), 1u);
    expectNothingSent();
}

TEST_F(ServicesTest, InverseChecksCountsThenAllValuesThenEachPoint) {
    std::vector<std::vector<double>> out{{7.0}};
    const std::vector<double> short_ref(kHome.begin(), kHome.end() - 1);
    Pose illegal = kPoseArray;
    illegal[0] = kNaN;
    Pose off_unit = kPoseArray;
    off_unit[6] = 2.0;
    EXPECT_EQ(kernel->inverseKine(0, 0, {kPoseArray, kPoseArray}, {kHome, kHome, kHome}, out), -1);
    EXPECT_TRUE(log.contains("error: quat_poses size != ref_joints size", LOG_ERROR));
    EXPECT_EQ(kernel->inverseKine(0, 0, std::vector<Pose>{}, {}, out), -1);
    EXPECT_TRUE(log.contains("error: quat_poses empty", LOG_ERROR));
    EXPECT_EQ(kernel->inverseKine(0, 0, {kPoseArray, illegal}, {short_ref, kHome}, out), -1);
    EXPECT_TRUE(log.contains("error: 输入含有非法值，请检查输入！！！", LOG_ERROR));
    EXPECT_FALSE(log.contains("ref_joints[0]"));
    EXPECT_EQ(kernel->inverseKine(0, 0, {kPoseArray, kPoseArray}, {kHome, short_ref}, out), -1);
    EXPECT_TRUE(log.contains("error: ref_joints[1] size is unreasonable, 5 / 6", LOG_ERROR));
    EXPECT_EQ(kernel->inverseKine(0, 0, {off_unit}, {kHome}, out), -1);
    EXPECT_TRUE(log.contains("error: 输入四元数模不为1, 请检查quat_poses[0], magnitude_squared =4.000000", LOG_ERROR));
    EXPECT_TRUE(log.contains(
        "quat_pose:  : 0.300000, 0.100000, 0.400000, 0.000000, 0.000000, 0.000000, 2.000000", LOG_INFO));
    EXPECT_EQ(out, (std::vector<std::vector<double>>{{7.0}}));
    expectNothingSent();
}

TEST_F(ServicesTest, InverseSendsPosesUnnormalisedWithTheirReferences) {
    Pose nearly_unit = kPoseArray;
    nearly_unit[6] = std::sqrt(1.00005);
    reply.set(kinematicsReply(1, "joint", {kHome}));
    std::vector<double> out;
    ASSERT_EQ(kernel->inverseKine(1, 2, nearly_unit, kHome, out), 1);
    EXPECT_EQ(out, kHome);
    const Json::Value sent = onlySent("getKinematics");
    EXPECT_EQ(sent["task_id"], "inverse");
    EXPECT_EQ(realsOf(sent["data"]["point1"]), std::vector<double>(nearly_unit.begin(), nearly_unit.end()));
    EXPECT_EQ(realsOf(sent["data"]["refer1"]), kHome);
    EXPECT_FALSE(sent["data"].isMember("joint1"));
}

TEST_F(ServicesTest, InverseKeepsUnsolvedPointsEmpty) {
    std::vector<std::vector<double>> out;
    reply.set(kinematicsReply(3, "joint", {kHome, {}, kHome}));
    EXPECT_EQ(kernel->inverseKine(0, 0, {kPoseArray, kPoseArray}, {kHome, kHome}, out), -1);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0], kHome);
    EXPECT_TRUE(out[1].empty());
    EXPECT_EQ(out[2], kHome);

    const std::vector<double> held{1.0, 2.0};
    std::vector<double> single = held;
    reply.set(kinematicsReply(1, "joint", std::vector<std::vector<double>>{std::vector<double>{}}));
    EXPECT_EQ(kernel->inverseKine(0, 0, kPoseArray, kHome, single), -1);
    EXPECT_EQ(single, held);
    reply.set(kinematicsReply(0, "joint", {}));
    EXPECT_EQ(kernel->inverseKine(0, 0, kPoseArray, kHome, single), -1);
    EXPECT_EQ(single, held);
}

// ---- coordinates and calibration ----

TEST_F(ServicesTest, ToolIndexMustNotBeNegativeButUserIndexMay) {
    EXPECT_EQ(kernel->set_tool_index(-1), -1);
    expectNothingSent();
    ASSERT_EQ(kernel->set_user_index(-1), 1);
    const Json::Value sent = onlySent("setUserData");
    EXPECT_EQ(sent["operation"], "change");
    EXPECT_EQ(sent["index"], -1);
    EXPECT_EQ(sent["arm_index"], kArmIndex);
}

TEST_F(ServicesTest, ToolCoordinateMustHoldSevenValuesUserCoordinateAnyNumber) {
    reply.set(jsonObject({{"coordinate", realArray(kPose7)}}));
    EXPECT_EQ(kernel->get_tool_coordinate(2), kPoseArray);
    const Json::Value sent = onlySent("getCoordinate");
    EXPECT_EQ(sent["type"], "tool");
    EXPECT_EQ(sent["index"], 2);

    reply.set(jsonObject({{"coordinate", realArray({1, 2, 3, 4, 5, 6})}}));
    EXPECT_EQ(kernel->get_tool_coordinate(2), Pose{});
    EXPECT_TRUE(log.contains("获取工具坐标系失败, 获取位姿维度错误", LOG_ERROR));
    EXPECT_EQ(kernel->get_user_coordinate(2), (std::vector<double>{1, 2, 3, 4, 5, 6}));

    reply.set(jsonObject({{"err_msg", "no such system"}, {"coordinate", realArray(kPose7)}}));
    EXPECT_TRUE(kernel->get_user_coordinate(2).empty());
    EXPECT_EQ(kernel->get_tool_coordinate(2), Pose{});
    EXPECT_TRUE(log.contains("获取工具坐标系失败", LOG_ERROR));
}

TEST_F(ServicesTest, CoordinateWritesSendSixValues) {
    ASSERT_EQ(kernel->set_tool_coordinate(3, {1, 2, 3, 4, 5, 6, 7, 8}), 1);
    ASSERT_EQ(kernel->set_user_coordinate(3, {1, 2, 3, 4, 5, 6}), 1);
    const Json::Value tool = onlySent("setToolData");
    EXPECT_EQ(tool["operation"], "update");
    EXPECT_EQ(realsOf(tool["data"]["coord"]), (std::vector<double>{1, 2, 3, 4, 5, 6}));
    EXPECT_TRUE(isReal(tool["data"]["coord"][0]));
    EXPECT_EQ(onlySent("setUserData")["data"]["coord"].size(), 6u);

    peer.clearReceived();
    EXPECT_EQ(kernel->set_tool_coordinate(3, {1, 2, 3, 4, 5}), -1);
    EXPECT_EQ(kernel->tool_calibtate(3, {{1, 2, 3, 4, 5, 6}, {1, 2}}), -1);
    expectNothingSent();
}

TEST_F(ServicesTest, CalibrationsAreJudgedByTheirResult) {
    const std::vector<std::vector<double>> points{{1, 2, 3, 4, 5, 6, 7, 8}, {6, 5, 4, 3, 2, 1}};
    const struct {
        Json::Value reply;
        int expected;
    } cases[] = {
        {jsonObject({{"result", "ok"}}), 1},
        {jsonObject({{"result", "fail"}, {"recv", "Task_Recieve"}}), -1},
        {TestPeer::recv("Task_Recieve"), -2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply.toStyledString());
        reply.set(c.reply);
        EXPECT_EQ(kernel->user_calibrate(1, points), c.expected);
        EXPECT_EQ(kernel->tool_calibtate(1, points), c.expected);
    }
    const Json::Value user = peer.receivedCommands("userCalibration").front();
    EXPECT_EQ(user["operation"], "calibrate");
    EXPECT_EQ(user["user"], 1);
    EXPECT_FALSE(user.isMember("data") || user.isMember("points") || user.isMember("pos"));
    const Json::Value tool = peer.receivedCommands("toolCalibrate").front();
    EXPECT_EQ(tool["data"]["tool_index"], 1);
    ASSERT_EQ(tool["data"]["pos"].size(), 2u);
    EXPECT_EQ(realsOf(tool["data"]["pos"][0]), (std::vector<double>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(tool["arm_index"], kArmIndex);

    peer.neverReply("userCalibration");
    EXPECT_EQ(kernel->user_calibrate(1, {}), -2);
}

// ---- recording and teaching ----

TEST_F(ServicesTest, TeachRequestsCarryIntegerTaskIds) {
    reply.set(TestPeer::recv("Task_Recieve"));
    ASSERT_EQ(kernel->trajectory_teach(true, "a"), 1);
    ASSERT_EQ(kernel->trajectory_teach(false, "a"), 1);
    ASSERT_EQ(kernel->trajectory_recorder("b"), 1);
    std::vector<std::string> names;
    kernel->check_teach(names);
    const std::vector<Json::Value> sent = peer.receivedCommands("teachRecorder");
    ASSERT_EQ(sent.size(), 4u);
    const int expected_ids[] = {1, 0, 2, 3};
    const char* expected_names[] = {"a", "a", "b", ""};
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_TRUE(isInteger(sent[i]["task_id"]));
        EXPECT_EQ(sent[i]["task_id"], expected_ids[i]);
        EXPECT_EQ(sent[i]["name"], expected_names[i]);
        EXPECT_EQ(sent[i]["arm_index"], kArmIndex);
    }
    reply.set(TestPeer::recv("Task_Refused"));
    EXPECT_EQ(kernel->trajectory_recorder("b"), -1);
}

TEST_F(ServicesTest, CheckTeachSizesTheListByCount) {
    const std::vector<std::string> five{"1", "2", "3", "4", "5"};
    std::vector<std::string> names = five;
    reply.set(jsonObject({{"recv", "Task_Refused"}}));
    EXPECT_EQ(kernel->check_teach(names), -1);
    reply.set(jsonObject({{"count", -2}}));
    EXPECT_EQ(kernel->check_teach(names), -1);
    EXPECT_EQ(names, five);

    Json::Value list(Json::arrayValue);
    list.append("x");
    list.append("y");
    reply.set(jsonObject({{"count", 2}, {"teach_list", list}, {"recv", "Task_Refused"}}));
    EXPECT_EQ(kernel->check_teach(names), 1);
    EXPECT_EQ(names, (std::vector<std::string>{"x", "y"}));
    reply.set(jsonObject({{"count", 3}, {"teach_list", list}}));
    EXPECT_EQ(kernel->check_teach(names), 1);
    EXPECT_EQ(names, (std::vector<std::string>{"x", "y", ""}));
    reply.set(jsonObject({{"count", 0}}));
    EXPECT_EQ(kernel->check_teach(names), 1);
    EXPECT_TRUE(names.empty());
}

TEST_F(ServicesTest, ControllerCalibrationsReturnTheControllersRet) {
    reply.set(jsonObject({{"recv", "Task_Recieve"}, {"ret", 5}}));
    EXPECT_EQ(kernel->set_zero_position(2), 5);
    reply.set(TestPeer::recv("Task_Recieve"));
    EXPECT_EQ(kernel->set_zero_position(2), 0);
    reply.set(jsonObject({{"recv", "Task_Refused"}, {"ret", 5}}));
    EXPECT_EQ(kernel->set_zero_position(2), -1);
    EXPECT_EQ(peer.receivedCommands("setZeroPosition").front()["axis_id"], 2);

    EXPECT_EQ(kernel->set_dynamics_cali_record_flag(), 0);
    EXPECT_EQ(kernel->set_dynamics_cali_calcu(false), 0);
    const std::vector<Json::Value> dynamics = peer.receivedCommands("dynamicsCalibration");
    ASSERT_EQ(dynamics.size(), 2u);
    EXPECT_EQ(dynamics[0]["operation"], "record");
    EXPECT_FALSE(dynamics[0].isMember("arm_index"));
    EXPECT_EQ(dynamics[1]["operation"], "calibrate");
    EXPECT_EQ(dynamics[1]["type"], "arm");
    EXPECT_EQ(dynamics[1]["arm_index"], kArmIndex);

    ASSERT_EQ(kernel->set_traj_recorder(1), 1);
    EXPECT_TRUE(isInteger(onlySent("setTrajRecorder")["toRecord"]));
}

}  // namespace
}  // namespace test
}  // namespace kelm
