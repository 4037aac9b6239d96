// Test fixture: a KelmKernelImpl connected over loopback WebSocket to a
// scriptable TestPeer, with the log captured.
//
// deliver() pushes one message from the peer and returns once the kernel has
// finished with it: a probe registered after "parseRecieveData" in the
// kernel's state callbacks counts the messages that went through.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "kelm_kernel.h"
#include "log_capture.h"
#include "state_frame_builder.h"
#include "test_peer.h"

namespace kelm {
namespace test {

class KernelOnPeer : public ::testing::Test {
protected:
    // Constructs the kernel (which connects while it is built).
    void connectKernel(int arm_index = 0) {
        kernel = std::make_unique<KelmKernelImpl>(peer.host(), peer.port(), 1.0, arm_index);
        ASSERT_TRUE(kernel->is_connected());
        // "~" sorts after "parseRecieveData", so the probe runs second.
        kernel->register_update_robot_state_callback("~handled", [this](std::string) { ++handled; });
    }

    bool deliverText(const std::string& text) {
        const size_t before = handled.load();
        if (!peer.sendText(text)) return false;
        return waitUntil([&] { return handled.load() > before; });
    }

    bool deliver(const Json::Value& message) { return deliverText(toJsonText(message)); }

    // The kernel's arm object of the last frame, for edits: frame["arm"][index].
    static Json::Value& armOf(Json::Value& frame, int index) { return frame["arm"][index]; }

    LogCapture log;
    TestPeer peer;
    std::unique_ptr<KelmKernelImpl> kernel;
    std::atomic<size_t> handled{0};
};

}  // namespace test
}  // namespace kelm
