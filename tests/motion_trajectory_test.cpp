// Trajectory motions: the batch checks of move_toppra, and move_pvt's list
// lengths, time stamps, gripper clamp and per-point messages.
#include <tuple>

#include "motion_fixture.h"

namespace kelm {
namespace test {
namespace {

using Points = std::vector<std::vector<double>>;

TEST_F(MotionTest, ToppraChecksAllValuesBeforeAnyLength) {
    expectRefused(kernel->move_toppra({kShort, kHome, with(kHome, 5, kNaN)}, task_key, 40.0, 0, 0, true), "非法值");
    EXPECT_FALSE(log.contains("输入目标维度"));
    expectRefused(kernel->move_toppra({kHome, kShort}, task_key, 40.0, 0, 0, true),
                  "move_toppra: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6");
    expectRefused(kernel->move_toppra({kPose, with(kPose, 6, 2.0)}, task_key, 40.0, 0, 0, false),
                  "magnitude_squared = 4.000000");
    expectNothingSent();
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
    run(
        {
            {{kPose, {0.3, 0.1, 0.4, 0.0, 0.0, 0.0}},
             {},
             {1.0, 2.0},
             "第[2]组数据只有6个,请保证笛卡尔空间下位置数据长度为7."},
            {{with(kPose, 6, 1.001)},
             {},
             {1.0},
             "error: 输入四元数模不为1, 请检查目标输入, magnitude_squared = 1.002001"},
            {{kPose}, {}, {1.0}, ""},
        },
        false);
}

// Unlike move_directly, move_pvt clamps the gripper to [0, 0.08] as reals.
TEST_F(PvtTest, GripperIsClampedAndLinkedOnlyWithAConnectedGripper) {
    kernel->end_effector.connected = true;
    ASSERT_EQ(kernel->move_pvt(three, {-1.0, 0.1, 0.05}, {1.0, 2.0, 3.0}, task_key, true), 1);
    const std::string home = "[0.0, 0.5, -0.5, 0.0, 1.0, 0.0]";
    expectBody(onlySent("webRecieveTasks"), R"({"command": "webRecieveTasks", "task_id": "TASK_PVT",
        "task_level": "Task_General", "arm_index": 1, "point_type": {"space": 0},
        "gripper": {"gripper_linkage": 1, "eeffe_point": [0.0, 0.08, 0.05]},
        "data": {"time": [1.0, 2.0, 3.0], "pos": [)" +
                                                home + "," + home + "," + home + "]}}");

    kernel->end_effector.connected = false;
    ASSERT_EQ(kernel->move_pvt(three, {-1.0, 0.1, 0.05}, {1.0, 2.0, 3.0}, task_key, true), 1);
    EXPECT_TRUE(log.contains("夹抓未连接，无法联动控制夹抓", LOG_ERROR));
    EXPECT_EQ(kernel.sent("webRecieveTasks").back()["gripper"], parseJson(R"({"gripper_linkage": 0})"));
}

}  // namespace
}  // namespace test
}  // namespace kelm
