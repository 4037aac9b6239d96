// A callback that drops the last owner of its own kernel, on the kernel's
// receive thread: the kernel is destroyed there and then, and the walk that
// called the callback stops at once, whichever registry it was walking.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/direct_kernel.h"
#include "support/recorder.h"
#include "support/state_frame_builder.h"

namespace kelm {
namespace {

using test::DirectKernel;
using Registrar = std::function<void(KelmKernelImpl&, const std::string& name, std::function<void()> call)>;

struct Walk {
    const char* registry;
    Registrar add;
};

const Walk kWalks[] = {
    {"state text (outside every lock)",
     [](KelmKernelImpl& k, const std::string& name, std::function<void()> call) {
         k.register_update_robot_state_callback(name, [call](std::string) { call(); });
     }},
    {"joint (after state_mutex)",
     [](KelmKernelImpl& k, const std::string& name, std::function<void()> call) {
         k.register_get_joint_callback(
             name, [call](double, std::vector<double>, std::vector<double>, std::vector<double>) { call(); });
     }},
    {"error (inside state_mutex)",
     [](KelmKernelImpl& k, const std::string& name, std::function<void()> call) {
         k.register_error_catch_callback(name, [call](int, std::string) { call(); });
     }},
};

TEST(KernelRelease, ACallbackReleasingItsOwnKernelEndsTheWalkThere) {
    for (const Walk& walk : kWalks) {
        SCOPED_TRACE(walk.registry);
        auto socket = std::make_shared<test::LoopbackSocket>();
        auto kernel = std::make_shared<DirectKernel>(0, socket);
        auto order = std::make_shared<test::Recorder<std::string>>();
        // Walked in key order: "a" releases the kernel, "z" and the pose
        // callback would come after it in the same frame.
        walk.add(*kernel, "a release", [&kernel, order] {
            if (!kernel) return;
            order->add("release");
            kernel.reset();
            order->add("released");
        });
        walk.add(*kernel, "z after", [order] { order->add("after"); });
        kernel->register_get_pose_callback("pose", [order](double, Pose) { order->add("pose"); });
        kernel->register_connect_changed_callback("lost", [order](bool up) {
            if (!up) order->add("lost");
        });

        Json::Value frame = test::stateFrame(1, {test::realisticArm(0)});
        frame["error"] = 2001;
        frame["error_arm_index"] = 0;
        socket->deliver(Json::writeString(Json::StreamWriterBuilder(), frame));

        // The receive thread lets go of the socket when it ends; the walk, if
        // it went on, would have run before that.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (socket.use_count() > 1 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_EQ(socket.use_count(), 1) << "the receive thread ended";
        EXPECT_EQ(order->values(), (std::vector<std::string>{"release", "lost", "released"}));
    }
}

}  // namespace
}  // namespace kelm
