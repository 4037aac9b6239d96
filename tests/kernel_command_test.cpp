// Control commands, configuration queries and the two streaming requests as
// they reach a controller: exact bodies, clamps, refusals that send nothing,
// and how replies are read; the ready sequence against a scripted arm whose
// frames follow the requests it gets, and the wait for a task's end with each
// of its four outcomes.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kernel_fixture.h"
#include "registry_probe.h"

namespace kelm {
namespace test {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr int kArm = 1;

Json::Value parse(const std::string& text) { return AnsweredKernel::parse(text); }

class KernelCommands : public ::testing::Test {
protected:
    LogCapture log;
    AnsweredKernel kernel{kArm};
};

TEST_F(KernelCommands, SendExactlyTheirBodiesWithArgumentsClamped) {
    using Call = std::function<int(KelmKernelImpl&)>;
    const std::vector<std::pair<Call, const char*>> cases = {
        {[](KelmKernelImpl& k) { return k.set_servo_enable(true); },
         R"({"command":"setServoEnable","arm_index":1,"enable":true})"},
        {[](KelmKernelImpl& k) { return k.set_control_mode(0); },
         R"({"command":"setControlMode","arm_index":1,"mode":0})"},
        {[](KelmKernelImpl& k) { return k.set_collision_config(true, 3); },
         R"({"command":"setCollisionConfig","arm_index":1,"flag":true,"level":3})"},
        {[](KelmKernelImpl& k) { return k.set_teleoperation_mode(2); },
         R"({"command":"setTeleoperationMode","arm_index":1,"is_master":2})"},
        {[](KelmKernelImpl& k) { return k.disable_stop(); },
         R"({"command":"stopSignals","stop_id":"SIG_ARM_DISABLE"})"},
        {[](KelmKernelImpl& k) { return k.emergency_stop(); },
         R"({"command":"stopSignals","stop_id":"SIG_EMERGENCY_STOP"})"},
        {[](KelmKernelImpl& k) { return k.task_stop(true); },
         R"({"command":"stopSignals","arm_index":1,"stop_id":"SIG_TASK_STOP","stop_at_once":true})"},
        {[](KelmKernelImpl& k) { return k.stop(); },
         R"({"command":"stopSignals","arm_index":1,"stop_id":"SIG_ARM_STOP","step_cnt":5})"},
        {[](KelmKernelImpl& k) { return k.pause(); },
         R"({"command":"stopSignals","arm_index":1,"stop_id":"SIG_ARM_PAUSE","step_cnt":5})"},
        {[](KelmKernelImpl& k) { return k.recover(); },
         R"({"command":"stopSignals","arm_index":1,"stop_id":"SIG_ARM_RECOVER","step_cnt":5})"},
        {[](KelmKernelImpl& k) { return k.clean_kelm_error(); },
         R"({"command":"setControllerErrorReset","arm_index":1})"},
        {[](KelmKernelImpl& k) { return k.set_speed_level(11.0, 0); },
         R"({"command":"setSpeedLevel","arm_index":1,"level":10.0,"response_level":1})"},
        {[](KelmKernelImpl& k) { return k.set_speed_level(-1.0, 20000); },
         R"({"command":"setSpeedLevel","arm_index":1,"level":0.0,"response_level":10000})"},
        {[](KelmKernelImpl& k) { return k.set_debug(true); }, R"({"command":"setDebugMode","trigger":true})"},
        {[](KelmKernelImpl& k) { return k.set_end_effector(0.1, 30.0); },
         R"({"command":"setEffectorCtr","arm_index":1,"pos":0.08,"tau":20.0})"},
        {[](KelmKernelImpl& k) { return k.set_end_effector(-1.0, -1.0); },
         R"({"command":"setEffectorCtr","arm_index":1,"pos":0.0,"tau":0.0})"},
        {[](KelmKernelImpl& k) { return k.set_end_effector(kInf, 5.0); },
         R"({"command":"setEffectorCtr","arm_index":1,"pos":0.08,"tau":5.0})"},
    };
    for (const auto& command : cases) {
        SCOPED_TRACE(command.second);
        const Json::Value body = parse(command.second);
        EXPECT_EQ(command.first(*kernel), 1);
        EXPECT_EQ(kernel.onlySent(body["command"].asString()), body);
        kernel.forgetSent();
    }
    EXPECT_FALSE(log.contains("setEffectorCtr"));  // a streaming command: no per-request line
}

TEST_F(KernelCommands, RefusedArgumentsSendNothingAndOnlyTaskRecieveCountsAsTaken) {
    EXPECT_EQ(kernel->set_control_mode(5), -1);
    EXPECT_EQ(kernel->set_control_mode(-1), -1);
    EXPECT_EQ(log.count("请输入： 1 PV模式，2 MIT模式，3拖动模式，4力位混合模式", LOG_ERROR), 2u);
    EXPECT_EQ(kernel->set_end_effector(kNaN, 1.0), -1);
    EXPECT_EQ(kernel->set_end_effector(0.01, kNaN), -1);
    EXPECT_EQ(kernel->set_speed_level(kNaN, 5), -1);
    EXPECT_EQ(log.count("error: 输入含有非法值，请检查输入！！！", LOG_ERROR), 3u);
    EXPECT_EQ(kernel.sentCount(), 0u);

    const std::vector<std::pair<Json::Value, int>> replies = {
        {TestPeer::recv("Task_Refused"), -1},
        {jsonObject({{"result", "ok"}}), -1},
        {jsonObject({{"recv", "Task_Recieve"}, {"extra", 7}}), 1}};
    for (const auto& reply : replies) {
        kernel.replyTo("setServoEnable", reply.first);
        EXPECT_EQ(kernel->set_servo_enable(true), reply.second) << reply.first;
    }
    kernel.replyTo("setServoEnable", Json::Value());
    EXPECT_EQ(kernel->set_servo_enable(true), -1);
    EXPECT_TRUE(log.contains(" timeout", LOG_ERROR));
}

TEST_F(KernelCommands, ReadsTheJointConfigurationAndVersion) {
    Json::Value params = jsonObject({{"dof", 7}});
    const char* columns[] = {"limit_upper", "limit_lower", "joint_vel", "joint_acc", "joint_dec", "joint_jerk"};
    for (int column = 0; column < 6; ++column) {
        const int length = column == 5 ? 4 : 9;  // jerk too short, the others longer than dof
        for (int joint = 0; joint < length; ++joint) params[columns[column]].append(10.0 * column + joint + 0.5);
    }
    kernel.replyTo("getJointParams", jsonObject({{"params", params}}));
    kernel.replyTo("getArmIntrinsicProperties", jsonObject({{"version", "v2.3.1"}}));

    const ArmConfig config = kernel->get_config();
    EXPECT_EQ(kernel.onlySent("getJointParams"), jsonObject({{"command", "getJointParams"}, {"arm_index", kArm}}));
    EXPECT_EQ(config.dof, 7);
    EXPECT_EQ(config.limit_upper, (std::vector<double>{0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5}));
    EXPECT_EQ(config.limit_lower[6], 16.5);
    EXPECT_EQ(config.joint_jerk, (std::vector<double>{50.5, 51.5, 52.5, 53.5, 0, 0, 0}));
    EXPECT_TRUE(kernel->config.limit_upper.empty());  // only the ready sequence stores it
    EXPECT_EQ(kernel->get_version(), "v2.3.1");
    EXPECT_EQ(kernel.onlySent("getArmIntrinsicProperties"),
              parse(R"({"command":"getArmIntrinsicProperties","type":"version","arm_index":1})"));
}

// ---- streaming ----

class KernelStreaming : public KernelCommands {
protected:
    void SetUp() override {
        kernel->onReceive(toJsonText(twoArmFrame(1)));  // dof 6
        kernel->config.dof = 6;
        kernel->config.limit_lower.assign(6, -1.0);
        kernel->config.limit_upper.assign(6, 1.0);
        log.clear();
    }

    // The request that one accepted tracking call sent, without its key.
    Json::Value tracked(const std::vector<double>& target, bool is_joint, double gripper) {
        kernel.forgetSent();
        EXPECT_EQ(kernel->tracking(target, is_joint, gripper), 1);
        return kernel.onlySent("trajectoryTrackingTasks");
    }
};

// The gripper rule and the redundancy torques' body are checked against the
// tree writer by the stream text test.
TEST_F(KernelStreaming, TrackingClampsJointsAndNormalisesQuaternionsQuietly) {
    EXPECT_EQ(tracked({0.5, 2.0, -3.0, 0.0, 1.0, -1.0}, true, 0.03),
              parse(R"({"command":"trajectoryTrackingTasks","task_id":"TASK_TRACKING","arm_index":1,
                        "data":{"way_point":[0.5,1.0,-1.0,0.0,1.0,-1.0],"grp_point":0.03},"point_type":{"space":0}})"));
    const double within_tolerance = std::sqrt(1.00005);
    const double half_root = 0.6 / std::sqrt(0.72);
    const std::vector<std::pair<std::vector<double>, std::vector<double>>> quaternions = {
        {{0, 0, 0, 2}, {0, 0, 0, 1}},
        {{0, 0, 0, 0}, {0, 0, 0, 1}},
        {{0, 0, 0, within_tolerance}, {0, 0, 0, within_tolerance}},
        {{0, 0, 0.6, 0.6}, {0, 0, half_root, half_root}},
    };
    for (const auto& quaternion : quaternions) {
        std::vector<double> pose{0.3, -0.2, 0.5};
        pose.insert(pose.end(), quaternion.first.begin(), quaternion.first.end());
        const Json::Value body = tracked(pose, false, -1.0);
        EXPECT_EQ(body["point_type"]["space"], 1);
        ASSERT_EQ(body["data"]["way_point"].size(), 7u);
        EXPECT_EQ(body["data"]["way_point"][0], 0.3);
        for (int i = 0; i < 4; ++i) EXPECT_DOUBLE_EQ(body["data"]["way_point"][3 + i].asDouble(), quaternion.second[i]);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(KernelStreaming, RefusedStreamsLogOnceAndSendNothing) {
    const std::vector<double> tau(6, 0.5);
    const char* const illegal = "输入含有非法值";
    const std::tuple<std::vector<double>, bool, const char*> targets[] = {
        {{kNaN, 0, 0, 0, 0, 0}, true, illegal},
        {{kInf, 0, 0, 0, 0, 0}, true, illegal},
        {{kNaN}, true, illegal},
        {{0, 0, 0, 0, 0}, true, "move_tracking: 输入目标维度与臂维度不一致，输入维度: 5, 臂维度: 6"},
        {{0, 0, 0, 0, 0, 1}, false, "输入维度: 6, 合理维度: 7"},
        {{0, 0, 0, 0, 0, 0, 1, 0}, false, "输入维度: 8, 合理维度: 7"},
    };
    const std::tuple<std::vector<double>, double, const char*> torques[] = {
        {{kNaN}, 0.0, "输入冗余关节力矩维度与臂维度不一致，输入维度: 1, 臂维度: 6"},
        {{kNaN, 0, 0, 0, 0, 0}, 0.0, illegal},
        {tau, kNaN, illegal},
    };
    const auto expectRefusedOnce = [&](int result, const char* message) {
        EXPECT_EQ(result, -1) << message;
        EXPECT_EQ(log.count(message, LOG_ERROR), 1u) << message;
        EXPECT_EQ(log.lines().size(), 1u) << message;
        log.clear();
    };
    for (const auto& [target, is_joint, message] : targets)
        expectRefusedOnce(kernel->tracking(target, is_joint, 0.0), message);
    for (const auto& [values, eeff_tau, message] : torques)
        expectRefusedOnce(kernel->set_redundancy_tau(values, eeff_tau), message);
    kernel->config = ArmConfig();
    EXPECT_EQ(kernel->tracking(std::vector<double>(6, 0.0), true, 0.0), -1);  // no limits to clamp against yet

    EXPECT_EQ(kernel->set_redundancy_tau(tau, kInf), 1);  // only NaN is refused for the end effector
    ASSERT_EQ(kernel.sentCount(), 1u);
    EXPECT_NE(kernel->socket().sent().back().find("setRedundancyTau"), std::string::npos);
}

// ---- the ready sequence and task waits ----

// An arm behind the kernel's in-memory socket: accepts every request, turns
// its servo on at the given servo request, goes to POSITION when the mode is
// set, and shows its state in a frame after each answer. stream() delivers
// its frame every 10 ms as well, until the test ends.
class KernelReady : public ::testing::Test {
protected:
    void SetUp() override {
        kernel.replyWith("setServoEnable", [this](const Json::Value&) {
            if (++servo_requests >= servo_on_at_request) servo = true;
            return TestPeer::recv("Task_Recieve");
        });
        kernel.replyWith("setControlMode", [this](const Json::Value&) {
            fsm_state = "POSITION";
            return TestPeer::recv("Task_Recieve");
        });
        kernel.replyTo("getJointParams", AnsweredKernel::parse(R"({"params": {"dof": 6,
            "limit_lower": [-3.0, -3.0, -3.0, -3.0, -3.0, -3.0], "limit_upper": [3.0, 3.0, 3.0, 3.0, 3.0, 3.0]}})"));
        kernel.after_each_answer = [this] { return frame(); };
    }

    void TearDown() override {
        streaming = false;
        if (streamer.joinable()) streamer.join();
    }

    void stream() {
        streamer = std::thread([this] {
            for (int sent = 0; streaming && sent < kMaxStreamFrames; ++sent) {
                kernel->socket().deliver(frame());
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
    }

    // Commands the kernel sent, in order, with the stop signal's id.
    std::vector<std::string> sentCommands() {
        std::vector<std::string> commands;
        for (const std::string& text : kernel->socket().sent()) {
            const Json::Value message = AnsweredKernel::parse(text);
            std::string command = message["command"].asString();
            if (message.isMember("stop_id")) command += " " + message["stop_id"].asString();
            commands.push_back(command);
        }
        return commands;
    }

    std::string frame() {
        ArmFrame arm = realisticArm(0);
        arm.servo = servo;
        arm.motion_state = motion_state;
        arm.fsm_state = fsm_state.load();
        arm.last_task_key = last_task_key.load();
        Json::Value state = stateFrame(++count, {arm});
        state["error"] = error.load();
        return toJsonText(state);
    }

    static constexpr int kMaxStreamFrames = 1000;
    std::atomic<bool> servo{false};
    std::atomic<int> motion_state{Kelm_Standby};
    std::atomic<int> error{0};
    std::atomic<int> servo_requests{0};
    std::atomic<int> servo_on_at_request{1};
    std::atomic<const char*> fsm_state{"IDLE"};  // string literals
    std::atomic<const char*> last_task_key{"none"};
    std::atomic<uint64_t> count{0};
    std::atomic<bool> streaming{true};
    std::thread streamer;
    LogCapture log;
    AnsweredKernel kernel{0};
};

struct ReadyCase {
    const char* name;
    bool servo;  // the arm as it starts
    const char* fsm_state;
    int motion_state;
    int servo_on_at_request;
    bool retry;  // the call
    double budget_ms;
    int result;  // what is expected
    int servo_requests;
    std::size_t min_resets;
    const char* logged;      // may be null
    const char* not_logged;  // may be null
};

void PrintTo(const ReadyCase& ready, std::ostream* out) { *out << ready.name; }

class KernelReadyPaths : public KernelReady, public ::testing::WithParamInterface<ReadyCase> {};

TEST_P(KernelReadyPaths, SendsWhatTheArmNeedsAndReportsTheOutcome) {
    const ReadyCase& ready = GetParam();
    servo = ready.servo;
    fsm_state = ready.fsm_state;
    motion_state = ready.motion_state;
    servo_on_at_request = ready.servo_on_at_request;
    kernel->onReceive(frame());
    log.clear();

    EXPECT_EQ(kernel->set_kelm_ready(ready.retry, ready.budget_ms), ready.result);
    EXPECT_EQ(servo_requests.load(), ready.servo_requests);
    if (ready.servo_requests == 0 && ready.motion_state != Kelm_Error) {
        EXPECT_EQ(sentCommands(), (std::vector<std::string>{"setControllerErrorReset", "stopSignals SIG_ARM_RECOVER",
                                                            "getJointParams"}));
    }
    for (const Json::Value& mode : kernel.sent("setControlMode")) EXPECT_EQ(mode["mode"], 0);
    EXPECT_GE(kernel.sent("setControllerErrorReset").size(), ready.min_resets);
    EXPECT_TRUE(!ready.logged || log.contains(ready.logged));
    EXPECT_FALSE(ready.not_logged && log.contains(ready.not_logged));
    EXPECT_EQ(kernel->config.limit_upper, std::vector<double>(6, 3.0));  // read at the end, ready or not
}

const char* const kNotReady = "kelm is not ready, try again with a lager delay time";

INSTANTIATE_TEST_SUITE_P(
    Paths, KernelReadyPaths,
    ::testing::Values(
        ReadyCase{"AlreadyReady", true, "POSITION", Kelm_Standby, 1, true, 3000, 1, 0, 1, nullptr, "kelm is"},
        ReadyCase{"RunningCountsAsReady", true, "POSITION", Kelm_Running, 1, true, 3000, 1, 0, 1,
                  "servo status--1, fsm mode--POSITION, robot state--Kelm_Running, connected--1", nullptr},
        ReadyCase{"ServoRetriedWithinBudget", false, "IDLE", Kelm_Standby, 2, true, 10000, 1, 2, 1, "kelm is ready...",
                  nullptr},
        ReadyCase{"ZeroBudget", false, "IDLE", Kelm_Standby, 1, true, 0, -1, 0, 1,
                  "servo status--0, fsm mode--IDLE, robot state--Kelm_Standby, connected--1", "kelm is ready"},
        ReadyCase{"ErrorNeverClears", true, "POSITION", Kelm_Error, 1, true, 1000, -1, 0, 2, "robot state--Kelm_Error",
                  nullptr},
        ReadyCase{"SingleAttempt", false, "IDLE", Kelm_Standby, 1000, false, 3000, -1, 1, 0, kNotReady, "time out"}),
    [](const ::testing::TestParamInfo<ReadyCase>& info) { return info.param.name; });

TEST(KernelWithoutController, QueriesGiveEmptyAnswersAtOnceAndReadyFailsAfterItsBudget) {
    LogCapture log;
    TestPeer peer;
    const unsigned short port = peer.port();
    peer.stop();
    KelmKernelImpl kernel(TestPeer::kHost, port, 0.2, 0);
    EXPECT_FALSE(kernel.is_connected());
    EXPECT_TRUE(kernel.get_joint_pos().empty());
    EXPECT_EQ(kernel.get_config().dof, 0);
    EXPECT_EQ(kernel.get_version(), "");
    EXPECT_EQ(kernel.set_servo_enable(true), -1);
    EXPECT_EQ(kernel.tracking({0, 0, 0, 0, 0, 0, 1}, false, -1.0), -1);
    EXPECT_EQ(kernel.set_kelm_ready(true, 300.0), -1);
    EXPECT_TRUE(log.contains("get config result null", LOG_ERROR));
    EXPECT_TRUE(log.contains("time out, duration time"));
    EXPECT_TRUE(log.contains("connected--0"));
}

// ---- task waits ----

class KernelTaskWait : public KernelReady {
protected:
    bool registeredAnywhere(const std::string& key) {
        return RegistryProbe::contains(*kernel, kernel->subscriptions, key) ||
               RegistryProbe::contains(*kernel, kernel->error_catch_callbacks, key) ||
               RegistryProbe::contains(*kernel, kernel->connect_changed_callbacks, key);
    }
};

TEST_F(KernelTaskWait, FinishedTaskEndsTheWaitAndAWarningDoesNot) {
    last_task_key = "move-1";
    stream();
    EXPECT_EQ(kernel->task_blocking_wait("move-1", 5000), 1);
    EXPECT_EQ(kernel->task_wait_flag.load(), 0);
    error = WARN_MESSAGE;
    EXPECT_EQ(kernel->task_blocking_wait("move-2", 300), 0);
    EXPECT_TRUE(log.waitFor("recieve a warnning"));  // a frame may not have come in the 300 ms
    EXPECT_EQ(kernel->task_blocking_wait("move-3", 0), 0);
    for (const char* key : {"move-1", "move-2", "move-3"}) EXPECT_FALSE(registeredAnywhere(key)) << key;
}

TEST_F(KernelTaskWait, ErrorEndsTheWaitAndLeavesAStaleSubscription) {
    error = 3002;
    stream();
    EXPECT_EQ(kernel->task_blocking_wait("move-4", 5000), 1);
    EXPECT_TRUE(RegistryProbe::contains(*kernel, kernel->subscriptions, "move-4"));
    EXPECT_FALSE(RegistryProbe::contains(*kernel, kernel->error_catch_callbacks, "move-4"));

    // The stale subscription fires between waits; the next wait starts afresh.
    error = 0;
    last_task_key = "move-4";
    ASSERT_TRUE(waitUntil([&] { return !RegistryProbe::contains(*kernel, kernel->subscriptions, "move-4"); }));
    EXPECT_EQ(kernel->task_wait_flag.load(), 1);
    EXPECT_EQ(kernel->task_blocking_wait("", 5000), 0);
    EXPECT_EQ(kernel->task_blocking_wait("move-5", 50), 0);
}

TEST_F(KernelTaskWait, DisconnectEndsTheWaitAndReconnectDoesNot) {
    std::thread disturber([&] {
        if (!waitUntil([&] { return RegistryProbe::contains(*kernel, kernel->connect_changed_callbacks, "move-6"); }))
            return;
        kernel->connectChanged(true);
        EXPECT_EQ(kernel->task_wait_flag.load(), 0);
        kernel->socket().abort();
    });
    EXPECT_EQ(kernel->task_blocking_wait("move-6", 5000), 1);
    disturber.join();
    EXPECT_FALSE(RegistryProbe::contains(*kernel, kernel->connect_changed_callbacks, "move-6"));
}

}  // namespace
}  // namespace test
}  // namespace kelm
