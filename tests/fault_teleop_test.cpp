// Fault runs of the teleoperation tool: a controller that disappears while
// the built kelm_teleop runs against two simulated controllers on port 8090
// (master on 127.0.0.2, slave on 127.0.0.1).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "sim_controller.h"
#include "teleop_process.h"

namespace {

using namespace std::chrono_literals;
using kelm::sim::SimController;
using kelm::sim::SimOptions;

constexpr const char* kTeleopPath = KELM_TELEOP_PATH;
constexpr const char* kMasterHost = "127.0.0.2";
constexpr const char* kSlaveHost = "127.0.0.1";
constexpr auto kBringUpLimit = 60s;
constexpr auto kExitLimit = 30s;
const std::string kRunningLine = "程序运行中... 按 Ctrl+C 退出";
const std::string kModeFailureLine = "初始化失败！！！请检查机器是否连接或者有错误.";
const std::string kLeavingLine = "退出遥操，臂恢复为位置模式.";

// A simulated controller on port 8090 that counts the messages with one
// `command`, as they arrive.
class CountingController {
public:
    CountingController(const char* host, std::string counted_command) : counted_(std::move(counted_command)) {
        SimOptions options;
        options.ip = host;
        options.port = kelm::kControllerPort;
        options.rate = 200.0;
        options.quiet = true;
        controller_ = std::make_unique<SimController>(options);
        controller_->received_message_observers.set("counter",
                                                    [this](const std::string& text, SimController::Clock::time_point) {
                                                        if (text.find(counted_) != std::string::npos) ++count_;
                                                    });
        controller_->start();
    }
    ~CountingController() { kill(); }

    // The controller process dies: every connection is cut, no close frame.
    void kill() {
        if (controller_) controller_->stop();
    }
    size_t count() const { return count_.load(); }
    SimController& sim() { return *controller_; }
    // Waits, up to `limit`, until at least `n` counted messages have come.
    bool waitForCount(size_t n, std::chrono::milliseconds limit) const {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (count_.load() < n) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(5ms);
        }
        return true;
    }

private:
    std::string counted_;
    std::atomic<size_t> count_{0};
    std::unique_ptr<SimController> controller_;
};

TEST(FaultTeleop, MasterLostDuringTeleoperationKeepsToolRunningUntilCtrlC) {
    CountingController master(kMasterHost, "setControlMode");
    CountingController slave(kSlaveHost, "trajectoryTrackingTasks");
    TeleopProcess tool(kTeleopPath, {"--mode", "0", "--ip", kMasterHost});
    ASSERT_TRUE(tool.waitForStdout(kRunningLine, kBringUpLimit)) << tool.stdoutText();
    ASSERT_TRUE(slave.waitForCount(20, 10s)) << "no tracking stream reached the slave";

    master.kill();
    // A lost connection alone does not end the tool.
    EXPECT_FALSE(tool.waitForExit(1500ms)) << tool.stdoutText();

    tool.interrupt();
    const auto exit_code = tool.waitForExit(kExitLimit);
    ASSERT_TRUE(exit_code) << "the tool hung after SIGINT:\n" << tool.stdoutText();
    EXPECT_EQ(*exit_code, 0);
    ASSERT_TRUE(tool.waitForClosedOutput(5s));
    EXPECT_NE(tool.stdoutText().find(kLeavingLine), std::string::npos) << tool.stdoutText();
}

TEST(FaultTeleop, SlaveLostDuringHomingEndsTheWaitAndTheToolLeaves) {
    CountingController master(kMasterHost, "webRecieveTasks");
    CountingController slave(kSlaveHost, "webRecieveTasks");
    TeleopProcess tool(kTeleopPath, {"--mode", "0", "--ip", kMasterHost});
    // The slave's homing move is the first motion it is sent. Once its reply
    // has gone out the tool is in the task wait; the arm rests away from
    // home, so the move is still running when the slave dies.
    ASSERT_TRUE(slave.waitForCount(1, kBringUpLimit)) << tool.stdoutText();
    const auto replies_before_move = slave.sim().stats().replies_sent;
    const auto reply_deadline = std::chrono::steady_clock::now() + 10s;
    while (slave.sim().stats().replies_sent == replies_before_move &&
           std::chrono::steady_clock::now() < reply_deadline) {
        std::this_thread::sleep_for(1ms);
    }
    ASSERT_GT(slave.sim().stats().replies_sent, replies_before_move) << "the homing move was never answered";
    ASSERT_EQ(slave.sim().model().telemetry(0).motion_state, 1) << "the homing move ended before the slave died";
    slave.kill();

    // The wait for the slave's move ends with the connection; homing goes on
    // to the grippers, and putting the slave into its mode fails.
    const auto exit_code = tool.waitForExit(kExitLimit);
    ASSERT_TRUE(exit_code) << "the tool hung after losing the slave:\n" << tool.stdoutText();
    EXPECT_EQ(*exit_code, 1);
    ASSERT_TRUE(tool.waitForClosedOutput(5s));
    EXPECT_NE(tool.stdoutText().find(kModeFailureLine), std::string::npos) << tool.stdoutText();
    EXPECT_EQ(tool.stdoutText().find(kRunningLine), std::string::npos);
}

}  // namespace
