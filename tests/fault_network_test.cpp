// A slow or vanishing network between the arm kernel and the simulated
// controller: latency with jitter, a controller that stops reading for a
// while, one that goes silent without closing, and a reset in mid-message.
#include <atomic>
#include <memory>
#include <thread>

#include "recorder.h"
#include "sim_fixture.h"

namespace kelm {
namespace test {
namespace {

using std::chrono::milliseconds;

class FaultNetworkTest : public SimFixture {
protected:
    void SetUp() override { startSimulator(); }

    // Counts the kernel's losses of its connection; shared with the callback,
    // which may outlive the test's scope.
    std::shared_ptr<std::atomic<int>> countLosses(KelmKernelImpl& kernel) {
        auto losses = std::make_shared<std::atomic<int>>(0);
        kernel.register_connect_changed_callback("losses", [losses](bool up) {
            if (!up) ++*losses;
        });
        return losses;
    }
};

TEST_F(FaultNetworkTest, LatencyWithJitterKeepsFramesInOrderAndRepliesInTime) {
    LogCapture log;
    simulator->faults().setNetworkDelay(std::chrono::microseconds(2000), std::chrono::microseconds(1000));
    KelmKernelImpl& kernel = connect(0);
    ASSERT_TRUE(kernel.is_connected());
    ASSERT_TRUE(waitUntil([&] { return kernel.get_status().dof == 6; }));
    log.clear();  // the first frame's count follows whatever came before the connection
    for (int i = 0; i < 5; ++i) EXPECT_EQ(kernel.set_debug(i % 2 == 0), 1);
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_EQ(log.count("miss msg"), 0u) << "frames were reordered or lost";
}

TEST_F(FaultNetworkTest, StallDelaysTheReplyAndTheConnectionSurvives) {
    KelmKernelImpl& kernel = connect(0);
    ASSERT_TRUE(kernel.is_connected());
    auto losses = countLosses(kernel);
    simulator->stallReading(milliseconds(400));
    kernel.set_speed_level(5.0, 1);  // the stall begins with this read
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(kernel.set_debug(true), 1) << "answered after the stall, within the time-out";
    EXPECT_GE(std::chrono::steady_clock::now() - asked, milliseconds(100));
    EXPECT_TRUE(kernel.is_connected());
    EXPECT_EQ(losses->load(), 0);
}

TEST_F(FaultNetworkTest, HalfOpenControllerIsTakenAsLostAndEndsTheTaskWait) {
    LogCapture log;
    KelmKernelImpl& kernel = connectReady(0);
    auto losses = countLosses(kernel);
    std::string key;
    ASSERT_EQ(kernel.move_joint({0.0, 0.0, 0.0, 0.0, -1.57, 0.0}, key, 5.0, 0, 0, true), 1);
    simulator->goHalfOpen();
    const auto since = std::chrono::steady_clock::now();
    EXPECT_EQ(kernel.task_blocking_wait(key, 10000), 1) << "the loss ends the wait";
    EXPECT_LT(std::chrono::steady_clock::now() - since, milliseconds(6000));
    EXPECT_FALSE(kernel.is_connected());
    // The wait's own loss callback may wake this thread before the walk
    // reaches the counter.
    EXPECT_TRUE(waitUntil([&] { return losses->load() == 1; }));
    EXPECT_TRUE(log.contains("connection taken as lost", LOG_ERROR));
}

TEST_F(FaultNetworkTest, ResetInMidMessageIsOneLossAndReconnectWorks) {
    LogCapture log;
    KelmKernelImpl& kernel = connect(0);
    ASSERT_TRUE(kernel.is_connected());
    auto losses = countLosses(kernel);
    simulator->resetConnections();
    ASSERT_TRUE(waitUntil([&] { return losses->load() == 1; }));
    EXPECT_FALSE(kernel.is_connected());
    EXPECT_TRUE(log.contains("WebSocket", LOG_ERROR));
    ASSERT_EQ(kernel.connect_kelm("127.0.0.1", simulator->port(), 1.0), 1);
    EXPECT_EQ(kernel.set_debug(true), 1);
    EXPECT_EQ(losses->load(), 1);
}

}  // namespace
}  // namespace test
}  // namespace kelm
