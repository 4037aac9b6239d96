// Control commands, configuration queries and the two streaming requests as
// they reach a controller: exact bodies, clamps, refusals that send nothing,
// and how replies are read.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "kernel_fixture.h"

namespace kelm {
namespace test {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr int kArm = 1;

// The request without the key that cmd_publish added.
Json::Value withoutKey(Json::Value request) {
    EXPECT_TRUE(request["task_key"].isString());
    request.removeMember("task_key");
    return request;
}

class KernelCommands : public KernelOnPeer {
protected:
    void SetUp() override {
        peer.replyToAll(TestPeer::recv("Task_Recieve"));
        connectKernel(kArm);
    }

    // The next request with this command, without its key.
    Json::Value nextRequest(const std::string& command) {
        auto request = peer.waitForCommand(command);
        EXPECT_TRUE(request.has_value()) << command;
        return request ? withoutKey(*request) : Json::Value();
    }
};

struct CommandCase {
    const char* name;
    std::function<int(KelmKernelImpl&)> call;
    Json::Value body;
};

TEST_F(KernelCommands, SendExactlyTheirBodies) {
    const std::vector<CommandCase> cases = {
        {"servo", [](KelmKernelImpl& k) { return k.set_servo_enable(true); },
         jsonObject({{"command", "setServoEnable"}, {"arm_index", kArm}, {"enable", true}})},
        {"mode 0", [](KelmKernelImpl& k) { return k.set_control_mode(0); },
         jsonObject({{"command", "setControlMode"}, {"arm_index", kArm}, {"mode", 0}})},
        {"collision", [](KelmKernelImpl& k) { return k.set_collision_config(true, 3); },
         jsonObject({{"command", "setCollisionConfig"}, {"arm_index", kArm}, {"flag", true}, {"level", 3}})},
        {"teleoperation", [](KelmKernelImpl& k) { return k.set_teleoperation_mode(2); },
         jsonObject({{"command", "setTeleoperationMode"}, {"arm_index", kArm}, {"is_master", 2}})},
        {"disable", [](KelmKernelImpl& k) { return k.disable_stop(); },
         jsonObject({{"command", "stopSignals"}, {"stop_id", "SIG_ARM_DISABLE"}})},
        {"emergency", [](KelmKernelImpl& k) { return k.emergency_stop(); },
         jsonObject({{"command", "stopSignals"}, {"stop_id", "SIG_EMERGENCY_STOP"}})},
        {"task stop", [](KelmKernelImpl& k) { return k.task_stop(true); },
         jsonObject({{"command", "stopSignals"}, {"arm_index", kArm}, {"stop_id", "SIG_TASK_STOP"},
                     {"stop_at_once", true}})},
        {"stop", [](KelmKernelImpl& k) { return k.stop(); },
         jsonObject({{"command", "stopSignals"}, {"arm_index", kArm}, {"stop_id", "SIG_ARM_STOP"}, {"step_cnt", 5}})},
        {"pause", [](KelmKernelImpl& k) { return k.pause(); },
         jsonObject({{"command", "stopSignals"}, {"arm_index", kArm}, {"stop_id", "SIG_ARM_PAUSE"}, {"step_cnt", 5}})},
        {"recover", [](KelmKernelImpl& k) { return k.recover(); },
         jsonObject({{"command", "stopSignals"}, {"arm_index", kArm}, {"stop_id", "SIG_ARM_RECOVER"},
                     {"step_cnt", 5}})},
        {"error reset", [](KelmKernelImpl& k) { return k.clean_kelm_error(); },
         jsonObject({{"command", "setControllerErrorReset"}, {"arm_index", kArm}})},
        {"speed above", [](KelmKernelImpl& k) { return k.set_speed_level(11.0, 0); },
         jsonObject({{"command", "setSpeedLevel"}, {"arm_index", kArm}, {"level", 10.0}, {"response_level", 1}})},
        {"speed below", [](KelmKernelImpl& k) { return k.set_speed_level(-1.0, 20000); },
         jsonObject({{"command", "setSpeedLevel"}, {"arm_index", kArm}, {"level", 0.0}, {"response_level", 10000}})},
        {"debug", [](KelmKernelImpl& k) { return k.set_debug(true); },
         jsonObject({{"command", "setDebugMode"}, {"trigger", true}})},
        {"gripper above", [](KelmKernelImpl& k) { return k.set_end_effector(0.1, 30.0); },
         jsonObject({{"command", "setEffectorCtr"}, {"arm_index", kArm}, {"pos", 0.08}, {"tau", 20.0}})},
        {"gripper below", [](KelmKernelImpl& k) { return k.set_end_effector(-1.0, -1.0); },
         jsonObject({{"command", "setEffectorCtr"}, {"arm_index", kArm}, {"pos", 0.0}, {"tau", 0.0}})},
        {"gripper infinite", [](KelmKernelImpl& k) { return k.set_end_effector(kInf, 5.0); },
         jsonObject({{"command", "setEffectorCtr"}, {"arm_index", kArm}, {"pos", 0.08}, {"tau", 5.0}})},
    };
    for (const CommandCase& command : cases) {
        SCOPED_TRACE(command.name);
        EXPECT_EQ(command.call(*kernel), 1);
        EXPECT_EQ(nextRequest(command.body["command"].asString()), command.body);
    }
    // The streaming gripper command writes no per-request line.
    EXPECT_FALSE(log.contains("setEffectorCtr"));
}

TEST_F(KernelCommands, RefusedArgumentsSendNothing) {
    EXPECT_EQ(kernel->set_control_mode(5), -1);
    EXPECT_EQ(kernel->set_control_mode(-1), -1);
    EXPECT_EQ(log.count("请输入： 1 PV模式，2 MIT模式，3拖动模式，4力位混合模式", LOG_ERROR), 2u);
    EXPECT_EQ(kernel->set_end_effector(kNaN, 1.0), -1);
    EXPECT_EQ(kernel->set_end_effector(0.01, kNaN), -1);
    EXPECT_EQ(kernel->set_speed_level(kNaN, 5), -1);
    EXPECT_EQ(log.count("error: 输入含有非法值，请检查输入！！！", LOG_ERROR), 3u);

    EXPECT_EQ(kernel->set_debug(false), 1);
    ASSERT_TRUE(peer.waitForCommand("setDebugMode"));
    EXPECT_EQ(peer.receivedCount(), 1u);
}

TEST_F(KernelCommands, OnlyTaskRecieveCountsAsTaken) {
    peer.replyTo("setServoEnable", TestPeer::recv("Task_Refused"));
    EXPECT_EQ(kernel->set_servo_enable(true), -1);
    peer.replyTo("setServoEnable", jsonObject({{"result", "ok"}}));
    EXPECT_EQ(kernel->set_servo_enable(true), -1);
    peer.replyTo("setServoEnable", jsonObject({{"recv", "Task_Recieve"}, {"extra", 7}}));
    EXPECT_EQ(kernel->set_servo_enable(true), 1);
    peer.neverReply("setServoEnable");
    EXPECT_EQ(kernel->set_servo_enable(true), -1);
    EXPECT_TRUE(log.contains(" timeout", LOG_ERROR));
}

TEST_F(KernelCommands, ReadsTheJointConfiguration) {
    Json::Value params = jsonObject({{"dof", 7}});
    const char* columns[] = {"limit_upper", "limit_lower", "joint_vel", "joint_acc", "joint_dec", "joint_jerk"};
    for (int column = 0; column < 6; ++column) {
        Json::Value& values = params[columns[column]];
        const int length = column == 5 ? 4 : 9;  // jerk too short, the others longer than dof
        for (int joint = 0; joint < length; ++joint) values.append(10.0 * column + joint + 0.5);
    }
    peer.replyTo("getJointParams", jsonObject({{"params", params}}));
    peer.replyTo("getArmIntrinsicProperties", jsonObject({{"version", "v2.3.1"}}));

    const ArmConfig config = kernel->get_config();
    EXPECT_EQ(nextRequest("getJointParams"), jsonObject({{"command", "getJointParams"}, {"arm_index", kArm}}));
    EXPECT_EQ(config.dof, 7);
    EXPECT_EQ(config.limit_upper, (std::vector<double>{0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5}));
    EXPECT_EQ(config.limit_lower[6], 16.5);
    EXPECT_EQ(config.joint_jerk, (std::vector<double>{50.5, 51.5, 52.5, 53.5, 0, 0, 0}));
    EXPECT_TRUE(kernel->config.limit_upper.empty());  // only the ready sequence stores it

    EXPECT_EQ(kernel->get_version(), "v2.3.1");
    EXPECT_EQ(nextRequest("getArmIntrinsicProperties"),
              jsonObject({{"command", "getArmIntrinsicProperties"}, {"type", "version"}, {"arm_index", kArm}}));
}

TEST(KernelWithoutController, QueriesGiveEmptyAnswersAtOnce) {
    LogCapture log;
    TestPeer peer;
    const unsigned short port = peer.port();
    peer.stop();
    KelmKernelImpl kernel(TestPeer::kHost, port, 0.2, 0);
    EXPECT_FALSE(kernel.is_connected());
    EXPECT_EQ(kernel.arm_count.load(), 1);
    EXPECT_TRUE(kernel.get_joint_pos().empty());
    EXPECT_EQ(kernel.get_config().dof, 0);
    EXPECT_TRUE(log.contains("get config result null", LOG_ERROR));
    EXPECT_EQ(kernel.get_version(), "");
    EXPECT_EQ(kernel.set_servo_enable(true), -1);
    EXPECT_EQ(kernel.tracking({0, 0, 0, 0, 0, 0, 1}, false, -1.0), -1);
}

// ---- streaming ----

class KernelStreaming : public KernelCommands {
protected:
    void SetUp() override {
        KernelCommands::SetUp();
        ASSERT_TRUE(deliver(twoArmFrame(1)));  // dof 6
        kernel->config.dof = 6;
        kernel->config.limit_lower.assign(6, -1.0);
        kernel->config.limit_upper.assign(6, 1.0);
    }

    // Tracks `target` expecting a publish, and returns the body sent.
    Json::Value tracked(const std::vector<double>& target, bool is_joint, double gripper) {
        EXPECT_EQ(kernel->tracking(target, is_joint, gripper), 1);
        return nextRequest("trajectoryTrackingTasks");
    }
};

TEST_F(KernelStreaming, TrackingClampsJointsAndPublishesQuietly) {
    log.clear();
    const Json::Value body = tracked({0.5, 2.0, -3.0, 0.0, 1.0, -1.0}, true, 0.03);
    Json::Value expected = jsonObject({{"command", "trajectoryTrackingTasks"}, {"task_id", "TASK_TRACKING"},
                                       {"arm_index", kArm}});
    for (double value : {0.5, 1.0, -1.0, 0.0, 1.0, -1.0}) expected["data"]["way_point"].append(value);
    expected["data"]["grp_point"] = 0.03;
    expected["point_type"]["space"] = 0;
    EXPECT_EQ(body, expected);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(KernelStreaming, TrackingNormalisesQuaternions) {
    struct Case {
        std::vector<double> quaternion;
        std::vector<double> sent;
    };
    const double within_tolerance = std::sqrt(1.00005);
    const double half_root = 0.6 / std::sqrt(0.72);
    const std::vector<Case> cases = {
        {{0, 0, 0, 2}, {0, 0, 0, 1}},
        {{0, 0, 0, 0}, {0, 0, 0, 1}},
        {{0, 0, 0, within_tolerance}, {0, 0, 0, within_tolerance}},
        {{0, 0, 0.6, 0.6}, {0, 0, half_root, half_root}},
    };
    for (const Case& quaternion : cases) {
        std::vector<double> pose{0.3, -0.2, 0.5};
        pose.insert(pose.end(), quaternion.quaternion.begin(), quaternion.quaternion.end());
        const Json::Value body = tracked(pose, false, -1.0);
        EXPECT_EQ(body["point_type"]["space"], 1);
        ASSERT_EQ(body["data"]["way_point"].size(), 7u);
        EXPECT_EQ(body["data"]["way_point"][0], 0.3);
        for (int i = 0; i < 4; ++i) EXPECT_DOUBLE_EQ(body["data"]["way_point"][3 + i].asDouble(), quaternion.sent[i]);
    }
}

TEST_F(KernelStreaming, TrackingGripperKeyFollowsItsValue) {
    const std::vector<double> joints(6, 0.0);
    EXPECT_FALSE(tracked(joints, true, -1.0)["data"].isMember("grp_point"));
    EXPECT_FALSE(tracked(joints, true, kNaN)["data"].isMember("grp_point"));
    EXPECT_EQ(tracked(joints, true, 0.0)["data"]["grp_point"], 0.0);
    EXPECT_EQ(tracked(joints, true, 0.5)["data"]["grp_point"], 0.08);
    EXPECT_EQ(tracked(joints, true, kInf)["data"]["grp_point"], 0.08);
}

TEST_F(KernelStreaming, RefusedStreamsLogAndSendNothing) {
    struct Case {
        const char* name;
        std::function<int()> call;
        const char* logged;
    };
    const std::vector<double> tau(6, 0.5);
    const std::vector<Case> cases = {
        {"joint NaN", [&] { return kernel->tracking({kNaN, 0, 0, 0, 0, 0}, true, 0.0); }, "输入含有非法值"},
        {"joint infinite", [&] { return kernel->tracking({kInf, 0, 0, 0, 0, 0}, true, 0.0); }, "输入含有非法值"},
        {"NaN before length", [&] { return kernel->tracking({kNaN}, true, 0.0); }, "输入含有非法值"},
        {"joint length", [&] { return kernel->tracking({0, 0, 0, 0, 0}, true, 0.0); },
         "move_tracking: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6"},
        {"pose of 6", [&] { return kernel->tracking({0, 0, 0, 0, 0, 1}, false, 0.0); }, "输入维度: 6, 合理维度: 7"},
        {"pose of 8", [&] { return kernel->tracking({0, 0, 0, 0, 0, 0, 1, 0}, false, 0.0); }, "输入维度: 8, 合理维度: 7"},
        {"tau length before NaN", [&] { return kernel->set_redundancy_tau({kNaN}, 0.0); },
         "输入冗余关节力矩维度与臂维度不一致，输入维度: 1, 臂维度: 6"},
        {"tau NaN", [&] { return kernel->set_redundancy_tau({kNaN, 0, 0, 0, 0, 0}, 0.0); }, "输入含有非法值"},
        {"end-effector tau NaN", [&] { return kernel->set_redundancy_tau(tau, kNaN); }, "输入含有非法值"},
    };
    for (const Case& refused : cases) {
        SCOPED_TRACE(refused.name);
        log.clear();
        EXPECT_EQ(refused.call(), -1);
        EXPECT_EQ(log.count(refused.logged, LOG_ERROR), 1u);
        EXPECT_EQ(log.lines().size(), 1u);
    }
    kernel->config = ArmConfig();
    EXPECT_EQ(kernel->tracking(std::vector<double>(6, 0.0), true, 0.0), -1);  // no limits to clamp against yet

    EXPECT_EQ(kernel->set_redundancy_tau(tau, kInf), 1);  // only NaN is refused for the end effector
    ASSERT_TRUE(peer.waitForCount(1));
    EXPECT_NE(peer.received()[0].text.find("setRedundancyTau"), std::string::npos);
    EXPECT_EQ(peer.receivedCount(), 1u);
}

TEST_F(KernelStreaming, RedundancyTauGoesOutUnchanged) {
    log.clear();
    EXPECT_EQ(kernel->set_redundancy_tau({1, -2, 300, 0, 0, 0.5}, 2.5), 1);
    Json::Value expected = jsonObject({{"command", "setRedundancyTau"}, {"arm_index", kArm}, {"is_master", true},
                                       {"eeff_tau", 2.5}});
    for (double value : {1.0, -2.0, 300.0, 0.0, 0.0, 0.5}) expected["redundancy_tau"].append(value);
    EXPECT_EQ(nextRequest("setRedundancyTau"), expected);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace test
}  // namespace kelm
