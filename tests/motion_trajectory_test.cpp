// Trajectory motions: the batch checks of move_toppra, and move_pvt's list
// lengths, time stamps, gripper clamp and per-point messages.
#include <limits>

#include "motion_fixture.h"

namespace kelm {
namespace test {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

using Points = std::vector<std::vector<double>>;

TEST_F(MotionTest, ToppraNumbersItsWayPointsFromOne) {
    const std::vector<double> second{0.1, 0.2, 0.3, 0.4, 0.5, 0.6};
    ASSERT_EQ(kernel->move_toppra({kHome, second}, task_key, 40.0, 1, 2, true), 1);
    const Json::Value sent = onlySent("webRecieveTasks");
    EXPECT_EQ(sent["task_key"], task_key);
    EXPECT_EQ(sent["task_id"], "TASK_MOVT");
    EXPECT_EQ(sent["task_level"], "Task_General");
    EXPECT_EQ(sent["point_type"]["space"], 0);
    const Json::Value& data = sent["data"];
    EXPECT_TRUE(isInteger(data["point_num"]) && data["point_num"] == 2);
    EXPECT_EQ(realsOf(data["way_point1"]), kHome);
    EXPECT_EQ(realsOf(data["way_point2"]), second);
    EXPECT_FALSE(data.isMember("way_point"));
    EXPECT_FALSE(data.isMember("way_point3"));
    EXPECT_TRUE(isReal(data["speed"]) && isReal(data["acc"]));
    EXPECT_EQ(data["acc"], data["speed"]);
    EXPECT_EQ(data["tool"], 1);
    EXPECT_EQ(data["user"], 2);
}

TEST_F(MotionTest, ToppraChecksAllValuesBeforeAnyLength) {
    const std::vector<double> short_point(kHome.begin(), kHome.end() - 1);
    std::vector<double> illegal = kHome;
    illegal[5] = kNaN;
    EXPECT_EQ(kernel->move_toppra({short_point, kHome, illegal}, task_key, 40.0, 0, 0, true), -1);
    EXPECT_TRUE(log.contains("error: 输入含有非法值，请检查输入！！！", LOG_ERROR));
    EXPECT_FALSE(log.contains("输入目标维度"));
    log.clear();

    EXPECT_EQ(kernel->move_toppra({kHome, short_point}, task_key, 40.0, 0, 0, true), -1);
    EXPECT_TRUE(log.contains("move_toppra: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6", LOG_ERROR));
    log.clear();

    std::vector<double> off_unit = kPose;
    off_unit[6] = 2.0;
    EXPECT_EQ(kernel->move_toppra({kPose, off_unit}, task_key, 40.0, 0, 0, false), -1);
    EXPECT_TRUE(log.contains("magnitude_squared = 4.000000", LOG_ERROR));
    expectNothingSent();
}

struct PvtCase {
    const char* what;
    Points points;
    std::vector<double> gripper;
    std::vector<double> times;
    const char* message;  // empty: accepted and sent
};

// Runs each case on a fresh record of the wire; a refused case must have sent
// nothing before the jog that follows it.
class PvtTest : public MotionTest {
protected:
    void run(const std::vector<PvtCase>& cases, bool is_joint = true) {
        for (const PvtCase& c : cases) {
            SCOPED_TRACE(c.what);
            log.clear();
            peer.clearReceived();
            const int result = kernel->move_pvt(c.points, c.gripper, c.times, task_key, is_joint);
            if (*c.message == '\0') {
                EXPECT_EQ(result, 1);
                EXPECT_EQ(log.count("", LOG_ERROR), 0u);
                EXPECT_EQ(peer.receivedCommands("webRecieveTasks").size(), 1u);
                continue;
            }
            EXPECT_EQ(result, -1);
            EXPECT_TRUE(log.contains(c.message, LOG_ERROR));
            expectNothingSent();
        }
    }
    Points three() const { return {kHome, kHome, kHome}; }
};

TEST_F(PvtTest, ListLengthsNeedOneMatchingListAndAStampPerPoint) {
    kernel->end_effector.connected = true;
    run({
        {"stamps and a short gripper list", three(), {0.01, 0.02}, {1.0, 2.0, 3.0}, ""},
        {"both lists short", three(), {0.01, 0.02}, {1.0, 2.0}, "点位与时间戳或点位与夹爪维度不一致,请检查数据."},
        {"short stamps, no gripper", three(), {}, {1.0, 2.0}, "点位与时间戳维度不一致,请检查数据."},
        {"gripper matches, stamps short", three(), {0.01, 0.02, 0.03}, {1.0, 2.0}, "点位与时间戳维度不一致,请检查数据."},
        {"no points at all", {}, {}, {}, "move_pvt: the trajectory holds no point"},
    });
}

TEST_F(PvtTest, TimeStampsMustRiseFromAboveZeroInStepsBelowAnHour) {
    const char* const stamps = "请保证时间大于0且时间戳序列递增.";
    run({
        {"equal neighbours", three(), {}, {0.5, 1.0, 1.0}, stamps},
        {"step of 3600", {kHome, kHome}, {}, {1.0, 3601.0}, stamps},
        {"step just below 3600", {kHome, kHome}, {}, {1.0, 3600.5}, ""},
        {"single stamp of 3600", {kHome}, {}, {3600.0}, stamps},
        {"single stamp below 3600", {kHome}, {}, {3599.9}, ""},
        {"first stamp 0 at the current position", {kHome}, {}, {0.0}, stamps},
        {"negative stamp", {kHome}, {}, {-1.0}, stamps},
        {"NaN stamp", {kHome}, {}, {kNaN}, "error: 输入含有非法值，请检查输入！！！"},
    });
}

TEST_F(PvtTest, PointMessagesCountFromOne) {
    std::vector<double> beyond = kHome;
    beyond[2] = 2.6;
    const std::vector<double> short_point(kHome.begin(), kHome.end() - 1);
    std::vector<double> illegal = kHome;
    illegal[1] = kNaN;
    run({
        {"limit of the third joint of the second point", {kHome, beyond}, {}, {1.0, 2.0}, "给定点[2][3]超过关节限位."},
        {"short second point", {kHome, short_point}, {}, {1.0, 2.0}, "第[2]组数据只有5个,请保证关节数据长度为6."},
        {"short first point", {short_point}, {}, {1.0}, "第[1]组数据只有5个,请保证关节数据长度为6."},
        {"long point", {{0, 0, 0, 0, 0, 0, 0}}, {}, {1.0}, "第[1]组数据只有7个,请保证关节数据长度为6."},
        {"illegal value after a short point", {short_point, illegal}, {}, {1.0, 2.0}, "非法值"},
    });
    const std::vector<double> short_pose(kPose.begin(), kPose.end() - 1);
    std::vector<double> off_unit = kPose;
    off_unit[6] = 1.001;
    run({
        {"short pose", {kPose, short_pose}, {}, {1.0, 2.0}, "第[2]组数据只有6个,请保证笛卡尔空间下位置数据长度为7."},
        {"quaternion", {off_unit}, {}, {1.0}, "error: 输入四元数模不为1, 请检查目标输入, magnitude_squared = 1.002001"},
        {"good pose", {kPose}, {}, {1.0}, ""},
    },
        false);
}

TEST_F(PvtTest, GripperIsClampedAndLinkedOnlyWithAConnectedGripper) {
    kernel->end_effector.connected = true;
    ASSERT_EQ(kernel->move_pvt(three(), {-1.0, 0.1, 0.05}, {1.0, 2.0, 3.0}, task_key, true), 1);
    const Json::Value sent = onlySent("webRecieveTasks");
    EXPECT_EQ(sent["task_key"], task_key);
    EXPECT_EQ(sent["task_id"], "TASK_PVT");
    EXPECT_EQ(sent["task_level"], "Task_General");
    EXPECT_EQ(sent["point_type"]["space"], 0);
    EXPECT_EQ(sent["gripper"]["gripper_linkage"], 1);
    const Json::Value& gripper = sent["gripper"]["eeffe_point"];
    ASSERT_EQ(gripper.size(), 3u);
    EXPECT_TRUE(isReal(gripper[0]) && gripper[0] == 0.0);
    EXPECT_EQ(gripper[1], 0.08);
    EXPECT_EQ(gripper[2], 0.05);
    const Json::Value& data = sent["data"];
    EXPECT_EQ(realsOf(data["time"]), (std::vector<double>{1.0, 2.0, 3.0}));
    ASSERT_EQ(data["pos"].size(), 3u);
    EXPECT_EQ(realsOf(data["pos"][2]), kHome);
    for (const char* absent : {"speed", "acc", "point_num", "tool", "user"}) EXPECT_FALSE(data.isMember(absent));

    kernel->end_effector.connected = false;
    ASSERT_EQ(kernel->move_pvt(three(), {-1.0, 0.1, 0.05}, {1.0, 2.0, 3.0}, task_key, true), 1);
    EXPECT_TRUE(log.contains("夹抓未连接，无法联动控制夹抓", LOG_ERROR));
    const Json::Value unlinked = peer.receivedCommands("webRecieveTasks").back();
    EXPECT_EQ(unlinked["gripper"]["gripper_linkage"], 0);
    EXPECT_FALSE(unlinked["gripper"].isMember("eeffe_point"));
}

TEST_F(PvtTest, IllegalGripperValueIsRefused) {
    kernel->end_effector.connected = true;
    run({{"NaN gripper", three(), {0.01, kNaN, 0.02}, {1.0, 2.0, 3.0}, "error: 输入含有非法值，请检查输入！！！"}});
}

}  // namespace
}  // namespace test
}  // namespace kelm
