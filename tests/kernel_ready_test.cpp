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

namespace kelm {
namespace test {
namespace {

using std::chrono::milliseconds;

// An arm behind the peer: streams its state every 10 ms, accepts every
// request, and switches servo and mode when told to after a given number of
// commands. The peer's rules and stream share ownership of it, so a frame
// being built while a test ends never outlives its arm.
class ScriptedArm : public std::enable_shared_from_this<ScriptedArm> {
public:
    static std::shared_ptr<ScriptedArm> behind(TestPeer& peer) {
        auto arm = std::make_shared<ScriptedArm>();
        arm->answerRequestsOf(peer);
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
    void answerRequestsOf(TestPeer& peer) {
        auto self = shared_from_this();
        peer.replyToAll(TestPeer::recv("Task_Recieve"));
        peer.replyWith("setServoEnable", [self](const Json::Value&) {
            if (++self->servo_requests >= self->servo_on_at_request) self->servo = true;
            return TestPeer::recv("Task_Recieve");
        });
        peer.replyWith("setControlMode", [self](const Json::Value&) {
            self->setFsmState("POSITION");
            return TestPeer::recv("Task_Recieve");
        });
        Json::Value params = jsonObject({{"dof", 6}});
        for (int i = 0; i < 6; ++i) {
            params["limit_lower"].append(-3.0);
            params["limit_upper"].append(3.0);
        }
        peer.replyTo("getJointParams", jsonObject({{"params", params}}));
    }

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

    void waitForFirstFrame() {
        ASSERT_TRUE(waitUntil([&] { return handled.load() > 0; }));
    }

    void TearDown() override { peer.stopStream(); }

    std::shared_ptr<ScriptedArm> arm = ScriptedArm::behind(peer);
};

TEST_F(KernelReady, ShortPathWhenTheArmIsAlreadyReady) {
    arm->servo = true;
    arm->setFsmState("POSITION");
    arm->startStreaming(peer);
    waitForFirstFrame();
    log.clear();

    EXPECT_EQ(kernel->set_kelm_ready(true, 3000.0), 1);
    EXPECT_EQ(sentCommands(), (std::vector<std::string>{"setControllerErrorReset", "stopSignals SIG_ARM_RECOVER",
                                                        "getJointParams"}));
    EXPECT_FALSE(log.contains("kelm is"));
    EXPECT_EQ(kernel->config.limit_upper, std::vector<double>(6, 3.0));
}

TEST_F(KernelReady, RunningArmCountsAsReady) {
    arm->servo = true;
    arm->setFsmState("POSITION");
    arm->motion_state = Kelm_Running;
    arm->startStreaming(peer);
    waitForFirstFrame();

    EXPECT_EQ(kernel->set_kelm_ready(true, 3000.0), 1);
    EXPECT_EQ(sentCommands(), (std::vector<std::string>{"setControllerErrorReset", "stopSignals SIG_ARM_RECOVER",
                                                        "getJointParams"}));
    EXPECT_TRUE(log.contains("kelm is ready..."));
    EXPECT_TRUE(log.contains("servo status--1, fsm mode--POSITION, robot state--Kelm_Running, connected--1"));
}

TEST_F(KernelReady, RetriesTheServoUntilItComesOnWithinTheBudget) {
    arm->servo_on_at_request = 2;
    arm->startStreaming(peer);
    waitForFirstFrame();

    EXPECT_EQ(kernel->set_kelm_ready(true, 3000.0), 1);
    EXPECT_EQ(arm->servo_requests.load(), 2);
    EXPECT_EQ(peer.receivedCommands("setControlMode").size(), 1u);
    EXPECT_EQ(peer.receivedCommands("setControlMode")[0]["mode"], 0);
    EXPECT_TRUE(log.contains("kelm is ready..."));
}

TEST_F(KernelReady, BudgetOfZeroSendsOnlyTheResetAndTheClosingRequests) {
    arm->startStreaming(peer);
    waitForFirstFrame();

    EXPECT_EQ(kernel->set_kelm_ready(true, 0.0), -1);
    EXPECT_EQ(sentCommands(), (std::vector<std::string>{"setControllerErrorReset", "stopSignals SIG_ARM_RECOVER",
                                                        "getJointParams"}));
    EXPECT_TRUE(log.contains("time out, duration time"));
    EXPECT_TRUE(log.contains("kelm is not ready, try again with a lager delay time"));
    EXPECT_TRUE(log.contains("servo status--0, fsm mode--IDLE, robot state--Kelm_Standby, connected--1"));
}

TEST_F(KernelReady, ErrorThatNeverClearsSpendsTheBudgetOnResets) {
    arm->servo = true;
    arm->setFsmState("POSITION");
    arm->motion_state = Kelm_Error;
    arm->startStreaming(peer);
    waitForFirstFrame();

    EXPECT_EQ(kernel->set_kelm_ready(true, 300.0), -1);
    EXPECT_GE(peer.receivedCommands("setControllerErrorReset").size(), 3u);
    EXPECT_TRUE(peer.receivedCommands("setServoEnable").empty());
    EXPECT_TRUE(log.contains("robot state--Kelm_Error"));
}

TEST_F(KernelReady, SingleAttemptTriesEachStepOnce) {
    arm->servo_on_at_request = 1000;
    arm->startStreaming(peer);
    waitForFirstFrame();

    EXPECT_EQ(kernel->set_kelm_ready(false, 3000.0), -1);
    EXPECT_EQ(arm->servo_requests.load(), 1);
    EXPECT_EQ(peer.receivedCommands("setControlMode").size(), 1u);
    EXPECT_TRUE(log.contains("kelm is not ready, try again with a lager delay time"));
    EXPECT_FALSE(log.contains("time out"));
}

TEST(KernelReadyWithoutController, FailsAfterItsBudget) {
    LogCapture log;
    TestPeer peer;
    const unsigned short port = peer.port();
    peer.stop();
    KelmKernelImpl kernel(TestPeer::kHost, port, 0.2, 0);
    EXPECT_EQ(kernel.set_kelm_ready(true, 300.0), -1);
    EXPECT_TRUE(log.contains("get config result null"));
    EXPECT_TRUE(log.contains("time out, duration time"));
    EXPECT_TRUE(log.contains("connected--0"));
}

// ---- task waits ----

class KernelTaskWait : public KernelReady {
protected:
    bool registeredAnywhere(const std::string& key) const {
        return kernel->subscriptions.contains(key) || kernel->error_catch_callbacks.contains(key) ||
               kernel->connect_changed_callbacks.contains(key);
    }
};

TEST_F(KernelTaskWait, FinishedTaskEndsTheWait) {
    arm->setLastTaskKey("move-1");
    arm->startStreaming(peer);
    EXPECT_EQ(kernel->task_blocking_wait("move-1", 5000), 1);
    EXPECT_FALSE(registeredAnywhere("move-1"));
    EXPECT_EQ(kernel->task_wait_flag.load(), 0);
}

TEST_F(KernelTaskWait, WarningDoesNotEndTheWaitButTimeOutCleansUp) {
    arm->error = WARN_MESSAGE;
    arm->startStreaming(peer);
    EXPECT_EQ(kernel->task_blocking_wait("move-2", 300), 0);
    EXPECT_TRUE(log.contains("recieve a warnning"));
    EXPECT_FALSE(registeredAnywhere("move-2"));
    EXPECT_EQ(kernel->task_blocking_wait("move-3", 0), 0);
    EXPECT_FALSE(registeredAnywhere("move-3"));
}

TEST_F(KernelTaskWait, ErrorEndsTheWaitAndLeavesAStaleSubscription) {
    arm->error = 3002;
    arm->startStreaming(peer);
    EXPECT_EQ(kernel->task_blocking_wait("move-4", 5000), 1);
    EXPECT_TRUE(kernel->subscriptions.contains("move-4"));
    EXPECT_FALSE(kernel->error_catch_callbacks.contains("move-4"));

    // The stale subscription fires between waits ...
    arm->error = 0;
    arm->setLastTaskKey("move-4");
    ASSERT_TRUE(waitUntil([&] { return !kernel->subscriptions.contains("move-4"); }));
    EXPECT_EQ(kernel->task_wait_flag.load(), 1);
    EXPECT_EQ(kernel->task_blocking_wait("", 5000), 0);
    // ... and the next wait starts afresh.
    EXPECT_EQ(kernel->task_blocking_wait("move-5", 50), 0);
}

TEST_F(KernelTaskWait, DisconnectEndsTheWaitAndReconnectDoesNot) {
    std::thread disturber([&] {
        if (!waitUntil([&] { return kernel->connect_changed_callbacks.contains("move-6"); })) return;
        kernel->connectChanged(true);
        EXPECT_EQ(kernel->task_wait_flag.load(), 0);
        peer.dropConnections();
    });
    EXPECT_EQ(kernel->task_blocking_wait("move-6", 5000), 1);
    disturber.join();
    EXPECT_FALSE(kernel->connect_changed_callbacks.contains("move-6"));
}

}  // namespace
}  // namespace test
}  // namespace kelm
