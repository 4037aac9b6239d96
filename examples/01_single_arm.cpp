// Drives one arm: connect, bring it up, move it and wait, read its state.
//
//   01_single_arm [ip] [port]      (defaults: 127.0.0.1 8090)
//
// Exits with 0 when every step worked, 1 otherwise.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelm_single_col.h"

namespace {

void print_joints(const char* label, const std::vector<double>& joints) {
    std::printf("%s", label);
    for (double value : joints) std::printf(" %.4f", value);
    std::printf("\n");
}

// A target `step` radians away from `joints` on the first joint, kept inside
// that joint's limits.
std::vector<double> nearby_target(std::vector<double> joints, const kelm::ArmConfig& config, double step) {
    double target = joints[0] + step;
    if (!config.limit_lower.empty() && !config.limit_upper.empty()) {
        target = std::clamp(target, config.limit_lower[0], config.limit_upper[0]);
    }
    joints[0] = target;
    return joints;
}

int fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string ip = argc > 1 ? argv[1] : "127.0.0.1";
    const int port = argc > 2 ? std::atoi(argv[2]) : kelm::kControllerPort;

    // Connects while it is constructed, waiting up to 1 s.
    kelm::KelmSingleCol arm(ip, port, 1.0);
    if (!arm.is_connected()) return fail("no controller at that address");

    // Errors arrive on the receive thread with the arm's state lock held:
    // only record them here.
    std::atomic<int> last_error{0};
    arm.register_error_cbk("example", [&last_error](int code, std::string) { last_error = code; });
    std::atomic<int> frames{0};
    arm.register_joint_cbk(
        [&frames](double, std::vector<double>, std::vector<double>, std::vector<double>) { ++frames; });

    std::printf("controller version: %s\n", arm.get_version().c_str());
    if (arm.set_ready() != 1) return fail("the arm did not become ready");

    const kelm::ArmStatus status = arm.get_status();
    std::printf("arm %d: %d joints, servo %s\n", status.arm_index, status.dof, status.servo ? "on" : "off");

    const std::vector<double> start = arm.get_joint_pos();
    if (start.empty()) return fail("no joint position reported");
    print_joints("start:", start);

    // A controller-timed move that blocks until the arm has arrived.
    const std::vector<double> target = nearby_target(start, arm.get_config(), 0.2);
    if (arm.move_joint(target, -1.0, true) != 1) return fail("move to the target failed");
    print_joints("after the move:", arm.get_joint_pos());

    // The way back as a timed move of 1.5 s, again waited for.
    if (arm.move_joint(start, 1.5, true) != 1) return fail("move back failed");
    print_joints("back at:", arm.get_joint_pos());

    const std::array<double, 7> pose = arm.get_cart_pose();
    std::printf("pose: %.4f %.4f %.4f / %.4f %.4f %.4f %.4f\n", pose[0], pose[1], pose[2], pose[3], pose[4], pose[5],
                pose[6]);
    std::printf("%d joint frames received\n", frames.load());

    arm.release_joint_cbk();
    arm.release_error_cbk("example");
    if (last_error != 0) {
        std::fprintf(stderr, "the arm reported error %d\n", last_error.load());
        return 1;
    }
    return 0;
}
