// A kernel's messages against the limits of the transport, over a loopback
// WebSocket: a kinematics batch reply far larger than any state frame (and
// the bound on what a message may cost the parser), and a controller that
// stops reading while a tracking stream and a gripper setting go to it.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelm_kernel.h"
#include "log_capture.h"
#include "message_text.h"
#include "state_frame_builder.h"
#include "test_peer.h"

namespace kelm {
namespace test {
namespace {

using std::chrono::milliseconds;

// A kernel connected to `peer` that has taken over one frame of a six-joint arm.
std::unique_ptr<KelmKernelImpl> connectedKernel(TestPeer& peer) {
    auto kernel = std::make_unique<KelmKernelImpl>(peer.host(), peer.port(), 1.0, 0);
    EXPECT_TRUE(peer.waitForConnections(1));
    peer.sendText(toJsonText(stateFrame(1, {realisticArm(0)})));
    EXPECT_TRUE(waitUntil([&] { return kernel->get_status().dof == 6; }));
    return kernel;
}

TEST(KernelTransport, AKinematicsBatchReplyOfTenThousandPointsArrivesWhole) {
    constexpr std::size_t kPoints = 10000;
    TestPeer peer;
    std::atomic<std::size_t> reply_bytes{0};
    peer.replyWith("getKinematics", [&](const Json::Value& request) {
        Json::Value reply = TestPeer::recv("Task_Recieve");
        reply["data"]["point_cnt"] = request["data"]["point_cnt"];
        for (std::size_t k = 1; k <= kPoints; ++k) {
            for (int i = 0; i < 7; ++i) reply["data"]["point" + std::to_string(k)].append(k / 3.0 + i / 7.0);
        }
        reply_bytes = toJsonText(reply).size();
        return reply;
    });
    auto kernel = connectedKernel(peer);
    std::vector<std::array<double, 7>> poses;
    ASSERT_EQ(kernel->forwardKine(0, 0, std::vector<std::vector<double>>(kPoints, std::vector<double>(6, 0.25)), poses),
              1);
    ASSERT_EQ(poses.size(), kPoints);
    EXPECT_DOUBLE_EQ(poses.back()[6], kPoints / 3.0 + 6 / 7.0);
    EXPECT_GT(reply_bytes.load(), std::size_t{1} << 20);  // above the former limit
    EXPECT_TRUE(kernel->is_connected());
}

// What a message of the largest size may cost the parser is bounded by its
// count of values, not its size.
TEST(KernelTransport, AMessageOfMoreValuesThanTheBoundIsNotParsed) {
    LogCapture log;
    std::string numbers = "[0";  // the array and its numbers: one value more than the bound
    for (std::size_t i = 1; i < kMostMessageValues; ++i) numbers += ",0";
    EXPECT_TRUE(parseMessageText(numbers + "]").isNull());
    EXPECT_TRUE(log.contains("not parsed: more than 2000000 values", LOG_ERROR));
    const std::string long_text = "[\"" + std::string(numbers.size(), 'x') + "\"]";
    EXPECT_TRUE(parseMessageText(long_text).isArray());
}

TEST(KernelTransport, AControllerThatStopsReadingLosesTrackingTargetsButNeverAGripperSetting) {
    LogCapture log;
    TestPeer peer;
    auto kernel = connectedKernel(peer);
    const auto connection = peer.server().connectionIds().at(0);
    peer.server().stallReading(connection, milliseconds(60000));  // from its next read on, until ended below
    Chatter chatter(peer, "{}");
    const std::vector<double> pose{0.3, 0.0, 0.5, 0.0, 0.0, 0.0, 1.0};
    ASSERT_EQ(kernel->tracking(pose, false, 0.01), 1);
    ASSERT_TRUE(peer.waitForCommand("trajectoryTrackingTasks"));  // the last read before the stall

    int sent = 0;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (sent < 200000 && std::chrono::steady_clock::now() < give_up && kernel->tracking(pose, false, 0.01) == 1) {
        if (++sent % 10 == 0) std::this_thread::sleep_for(milliseconds(1));
    }
    ASSERT_TRUE(log.contains("streamed messages are dropped")) << "no target was dropped after " << sent;
    EXPECT_EQ(kernel->set_end_effector(0.05, 1.0), 1);
    EXPECT_EQ(kernel->tracking(pose, false, 0.01), -1);

    peer.server().stallReading(connection, milliseconds(0));
    const auto gripper = peer.waitForCommand("setEffectorCtr", milliseconds(10000));
    ASSERT_TRUE(gripper);
    EXPECT_EQ((*gripper)["pos"], 0.05);
    EXPECT_TRUE(kernel->is_connected());
}

}  // namespace
}  // namespace test
}  // namespace kelm
