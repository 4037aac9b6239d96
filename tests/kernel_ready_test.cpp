// The ready sequence against a scripted arm whose frames follow the requests
// it gets, and the wait for a task's end with each of its four outcomes.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kernel_fixture.h"
#include "registry_probe.h"

namespace kelm {
namespace test {
namespace {

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
