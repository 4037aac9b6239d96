// Fault injection of the controller simulator, seen through the arm kernel:
// lost, late and refused replies, errors and warnings, gaps in the count,
// malformed frames, closed connections and a silent stream.
#include <atomic>
#include <memory>
#include <thread>

#include "recorder.h"
#include "sim_fixture.h"

namespace kelm {
namespace test {
namespace {

const std::vector<double> kHome{0.0, 0.0, 0.0, 0.0, -1.57, 0.0};

class SimFaultTest : public SimFixture {
protected:
    void SetUp() override { startSimulator(); }
};

TEST_F(SimFaultTest, ReplyFaultsHitOnlyTheirCommandAndCount) {
    KelmKernelImpl& kernel = connect(0);
    ASSERT_TRUE(kernel.is_connected());
    sim::FaultInjector& faults = simulator->faults();

    faults.dropReplies("setDebugMode", 1);
    EXPECT_EQ(kernel.set_speed_level(5.0, 1), 1) << "another command is answered";
    EXPECT_EQ(kernel.set_debug(true), -1) << "the dropped reply times out";
    EXPECT_EQ(kernel.set_debug(true), 1) << "one drop only";
    EXPECT_EQ(simulator->stats().replies_dropped, 1u);

    faults.refuse("setSpeedLevel", 2);
    for (int expected : {-1, -1, 1}) EXPECT_EQ(kernel.set_speed_level(5.0, 1), expected);

    faults.delayReplies("setDebugMode", std::chrono::milliseconds(200));
    EXPECT_EQ(kernel.set_debug(false), 1) << "late, but within the time-out";
    faults.delayReplies("setDebugMode", std::chrono::milliseconds(1500));
    EXPECT_EQ(kernel.set_debug(false), -1) << "later than the time-out";

    faults.clearReplyFaults();
    faults.refuse(sim::FaultInjector::kAnyCommand);
    EXPECT_EQ(kernel.set_servo_enable(true), -1);
    EXPECT_TRUE(kernel.get_version().empty()) << "a refused question has no answer to read";
    faults.clearReplyFaults();
    EXPECT_EQ(kernel.set_servo_enable(true), 1);
}

TEST_F(SimFaultTest, ErrorEndsTheTaskWaitUntilResetAWarningStopsNothing) {
    KelmKernelImpl& kernel = connect(0);
    ASSERT_EQ(kernel.set_kelm_ready(true, kReadyBudgetMs), 1);
    // Shared with the callback, which outlives this scope when an assertion
    // ends the test early.
    auto errors = std::make_shared<Recorder<std::pair<int, std::string>>>();
    kernel.register_error_catch_callback(
        "errors", [errors](int code, std::string message) { errors->add(std::make_pair(code, message)); });
    const auto lastError = [errors] {
        const auto all = errors->values();
        return all.empty() ? std::make_pair(0, std::string()) : all.back();
    };
    std::string key;
    ASSERT_EQ(kernel.move_joint(kHome, key, 5.0, 0, 0, true), 1);  // slow: still running below
    simulator->model().raiseError(0, 13, "task failed");
    EXPECT_EQ(kernel.task_blocking_wait(key, kMoveWaitMs), 1);
    ASSERT_TRUE(waitUntil([&] { return kernel.get_status().motion_state == -1; }));
    EXPECT_EQ(lastError(), std::make_pair(13, std::string("task failed")));
    EXPECT_EQ(kernel.move_joint(kHome, key, 100.0, 0, 0, true), -1);
    ASSERT_EQ(kernel.clean_kelm_error(), 1);
    EXPECT_TRUE(waitUntil([&] { return kernel.get_status().motion_state == 0; }));

    simulator->model().raiseError(0, 3001, "cable strained");
    ASSERT_TRUE(waitUntil([&] { return lastError().first == 3001; }));
    ASSERT_EQ(kernel.move_joint(kHome, key, 100.0, 0, 0, true), 1);
    EXPECT_EQ(kernel.task_blocking_wait(key, kMoveWaitMs), 1);
    EXPECT_NEAR(kernel.get_joint_pos()[4], kHome[4], 1e-6) << "the move ran to its end";
}

TEST_F(SimFaultTest, CountGapsAndMalformedFramesReachTheKernel) {
    LogCapture log;
    KelmKernelImpl& kernel = connect(0);
    ASSERT_TRUE(kernel.is_connected());
    ASSERT_TRUE(waitUntil([&] { return kernel.get_status().dof == 6; }));
    log.clear();
    simulator->faults().skipCounts(5);
    EXPECT_TRUE(log.waitFor("miss msg"));
    simulator->faults().malformFrames(1);
    EXPECT_TRUE(log.waitFor("parse error"));
}

TEST_F(SimFaultTest, ClosedConnectionIsReportedToTheKernel) {
    for (bool clean : {true, false}) {
        KelmKernelImpl& kernel = connect(0);
        ASSERT_TRUE(kernel.is_connected());
        auto lost = std::make_shared<std::atomic<bool>>(false);
        kernel.register_connect_changed_callback("lost", [lost](bool connected) {
            if (!connected) *lost = true;
        });
        simulator->closeConnections(clean);
        EXPECT_TRUE(waitUntil([&] { return lost->load(); })) << (clean ? "close frame" : "cut");
        EXPECT_FALSE(kernel.is_connected());
    }
}

TEST_F(SimFaultTest, StreamStopsAndResumes) {
    KelmKernelImpl& kernel = connect(0);
    auto frames = std::make_shared<std::atomic<int>>(0);
    kernel.register_update_robot_state_callback("frames", [frames](std::string) { ++*frames; });
    ASSERT_TRUE(waitUntil([&] { return frames->load() > 10; }));
    simulator->faults().setStreaming(false);
    // Frames on their way arrive first: wait, boundedly, for a quiet 200 ms.
    int stopped_at = frames->load();
    for (int i = 0; i < 25; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (frames->load() == stopped_at) break;
        stopped_at = frames->load();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(frames->load(), stopped_at);
    EXPECT_EQ(kernel.set_debug(true), 1) << "replies still flow";
    simulator->faults().setStreaming(true);
    EXPECT_TRUE(waitUntil([&] { return frames->load() > stopped_at + 10; }));
}

TEST_F(SimFaultTest, CommandLineFaultsApplyFromTheStart) {
    simulator->stop();
    sim::SimOptions options = defaultOptions();
    options.refuse = {"setServoEnable"};
    options.errors = {{1, 21, "force sensor"}};
    startSimulator(options);
    KelmKernelImpl& first = connect(0);
    EXPECT_EQ(first.set_servo_enable(true), -1);
    KelmKernelImpl& second = connect(1);
    EXPECT_TRUE(waitUntil([&] { return second.get_status().motion_state == -1; }));
    EXPECT_NE(first.get_status().motion_state, -1);
}

}  // namespace
}  // namespace test
}  // namespace kelm
