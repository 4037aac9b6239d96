// The ready sequence against a scripted arm whose frames follow the commands
// it gets, and the wait for a task's end with each of its four outcomes.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kernel_fixture.h"
#include "registry_probe.h"

namespace kelm {
namespace test {
namespace {

// An arm behind the peer: streams its state every 10 ms once started,
// accepts every request, turns its servo on at the given servo request and
// goes to POSITION when the mode is set. The peer's rules and stream share
// ownership of it, so a frame being built while a test ends never outlives it.
class ScriptedArm : public std::enable_shared_from_this<ScriptedArm> {
public:
    static std::shared_ptr<ScriptedArm> behind(TestPeer& peer) {
        auto arm = std::make_shared<ScriptedArm>();
        peer.replyToAll(TestPeer::recv("Task_Recieve"));
        peer.replyWith("setServoEnable", [arm](const Json::Value&) {
            if (++arm->servo_requests >= arm->servo_on_at_request) arm->servo = true;
            return TestPeer::recv("Task_Recieve");
        });
        peer.replyWith("setControlMode", [arm](const Json::Value&) {
            arm->setFsmState("POSITION");
            return TestPeer::recv("Task_Recieve");
        });
        Json::Value params = jsonObject({{"dof", 6}});
        for (int i = 0; i < 6; ++i) {
            params["limit_lower"].append(-3.0);
            params["limit_upper"].append(3.0);
        }
        peer.replyTo("getJointParams", jsonObject({{"params", params}}));
        return arm;
    }

    void startStreaming(TestPeer& peer) {
        auto self = shared_from_this();
        peer.startStream([self] { return self->frame(); }, std::chrono::microseconds(10000));
    }
    void setFsmState(const std::string& state) {
        std::lock_guard<std::mutex> lock(mutex_);
        fsm_state_ = state;
    }
    void setLastTaskKey(const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex_);
        last_task_key_ = key;
    }

    std::atomic<bool> servo{false};
    std::atomic<int> motion_state{Kelm_Standby};
    std::atomic<int> error{0};
    std::atomic<int> servo_requests{0};
    std::atomic<int> servo_on_at_request{1};

private:
    Json::Value frame() {
        ArmFrame arm = realisticArm(0);
        arm.servo = servo;
        arm.motion_state = motion_state;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            arm.fsm_state = fsm_state_;
            arm.last_task_key = last_task_key_;
        }
        Json::Value state = stateFrame(++count_, {arm});
        state["error"] = error.load();
        return state;
    }

    std::mutex mutex_;
    std::string fsm_state_ = "IDLE";
    std::string last_task_key_ = "none";
    uint64_t count_ = 0;  // the peer's one scheduler thread builds the frames
};

class KernelReady : public KernelOnPeer {
protected:
    void SetUp() override { connectKernel(); }

    // Commands the kernel sent, in order, with the stop signal's id.
    std::vector<std::string> sentCommands() const {
        std::vector<std::string> commands;
        for (const ReceivedMessage& message : peer.received()) {
            std::string command = message.json["command"].asString();
            if (message.json.isMember("stop_id")) command += " " + message.json["stop_id"].asString();
            commands.push_back(command);
        }
        return commands;
    }

    void TearDown() override { peer.stopStream(); }

    std::shared_ptr<ScriptedArm> arm = ScriptedArm::behind(peer);
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
    int servo_requests;  // -1: not checked
    std::size_t min_resets;
    const char* logged;      // may be null
    const char* not_logged;  // may be null
};

void PrintTo(const ReadyCase& ready, std::ostream* out) { *out << ready.name; }

class KernelReadyPaths : public KernelReady, public ::testing::WithParamInterface<ReadyCase> {};

TEST_P(KernelReadyPaths, SendsWhatTheArmNeedsAndReportsTheOutcome) {
    const ReadyCase& ready = GetParam();
    arm->servo = ready.servo;
    arm->setFsmState(ready.fsm_state);
    arm->motion_state = ready.motion_state;
    arm->servo_on_at_request = ready.servo_on_at_request;
    arm->startStreaming(peer);
    ASSERT_TRUE(waitUntil([&] { return handled.load() > 0; }));
    log.clear();

    EXPECT_EQ(kernel->set_kelm_ready(ready.retry, ready.budget_ms), ready.result);
    if (ready.servo_requests >= 0) {
        EXPECT_EQ(arm->servo_requests.load(), ready.servo_requests);
    }
    if (ready.servo_requests == 0 && ready.motion_state != Kelm_Error) {
        EXPECT_EQ(sentCommands(), (std::vector<std::string>{"setControllerErrorReset", "stopSignals SIG_ARM_RECOVER",
                                                            "getJointParams"}));
    }
    for (const Json::Value& mode : peer.receivedCommands("setControlMode")) EXPECT_EQ(mode["mode"], 0);
    EXPECT_GE(peer.receivedCommands("setControllerErrorReset").size(), ready.min_resets);
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
        ReadyCase{"ServoRetriedWithinBudget", false, "IDLE", Kelm_Standby, 2, true, 3000, 1, 2, 1, "kelm is ready...",
                  nullptr},
        ReadyCase{"ZeroBudget", false, "IDLE", Kelm_Standby, 1, true, 0, -1, 0, 1,
                  "servo status--0, fsm mode--IDLE, robot state--Kelm_Standby, connected--1", "kelm is ready"},
        ReadyCase{"ErrorNeverClears", true, "POSITION", Kelm_Error, 1, true, 300, -1, 0, 3, "robot state--Kelm_Error",
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
    bool registeredAnywhere(const std::string& key) const {
        return RegistryProbe::contains(*kernel, kernel->subscriptions, key) ||
               RegistryProbe::contains(*kernel, kernel->error_catch_callbacks, key) ||
               RegistryProbe::contains(*kernel, kernel->connect_changed_callbacks, key);
    }
};

TEST_F(KernelTaskWait, FinishedTaskEndsTheWaitAndAWarningDoesNot) {
    arm->setLastTaskKey("move-1");
    arm->startStreaming(peer);
    EXPECT_EQ(kernel->task_blocking_wait("move-1", 5000), 1);
    EXPECT_EQ(kernel->task_wait_flag.load(), 0);
    arm->error = WARN_MESSAGE;
    EXPECT_EQ(kernel->task_blocking_wait("move-2", 300), 0);
    EXPECT_TRUE(log.contains("recieve a warnning"));
    EXPECT_EQ(kernel->task_blocking_wait("move-3", 0), 0);
    for (const char* key : {"move-1", "move-2", "move-3"}) EXPECT_FALSE(registeredAnywhere(key)) << key;
}

TEST_F(KernelTaskWait, ErrorEndsTheWaitAndLeavesAStaleSubscription) {
    arm->error = 3002;
    arm->startStreaming(peer);
    EXPECT_EQ(kernel->task_blocking_wait("move-4", 5000), 1);
    EXPECT_TRUE(RegistryProbe::contains(*kernel, kernel->subscriptions, "move-4"));
    EXPECT_FALSE(RegistryProbe::contains(*kernel, kernel->error_catch_callbacks, "move-4"));

    // The stale subscription fires between waits; the next wait starts afresh.
    arm->error = 0;
    arm->setLastTaskKey("move-4");
    ASSERT_TRUE(waitUntil([&] { return !RegistryProbe::contains(*kernel, kernel->subscriptions, "move-4"); }));
    EXPECT_EQ(kernel->task_wait_flag.load(), 1);
    EXPECT_EQ(kernel->task_blocking_wait("", 5000), 0);
    EXPECT_EQ(kernel->task_blocking_wait("move-5", 50), 0);
}

TEST_F(KernelTaskWait, DisconnectEndsTheWaitAndReconnectDoesNot) {
    std::thread disturber([&] {
        if (!waitUntil([&] { return RegistryProbe::contains(*kernel, kernel->connect_changed_callbacks, "move-6"); })) return;
        kernel->connectChanged(true);
        EXPECT_EQ(kernel->task_wait_flag.load(), 0);
        peer.dropConnections();
    });
    EXPECT_EQ(kernel->task_blocking_wait("move-6", 5000), 1);
    disturber.join();
    EXPECT_FALSE(RegistryProbe::contains(*kernel, kernel->connect_changed_callbacks, "move-6"));
}

}  // namespace
}  // namespace test
}  // namespace kelm
