// Drives the two arms of one controller: bring both up, move each in turn,
// read both states.
//
//   02_dual_arm [ip] [port] [left index] [right index]
//                                  (defaults: 127.0.0.1 8090 0 1)
//
// Exits with 0 when every step worked, 1 otherwise.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelm_dual_bot.h"

namespace {

void print_pose(const char* label, const std::array<double, 7>& pose) {
    std::printf("%s %.4f %.4f %.4f / %.4f %.4f %.4f %.4f\n", label, pose[0], pose[1], pose[2], pose[3], pose[4],
                pose[5], pose[6]);
}

// `joints` with `step` radians added to the last joint.
std::vector<double> turned_wrist(std::vector<double> joints, double step) {
    joints.back() += step;
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
    const int left_index = argc > 3 ? std::atoi(argv[3]) : 0;
    const int right_index = argc > 4 ? std::atoi(argv[4]) : 1;

    kelm::KelmDualBot bot(ip, port, 1.0, left_index, right_index);
    if (!bot.is_connected()) return fail("no controller at that address");

    // Readies the left arm, then the right one; 1 only if both became ready.
    if (bot.set_ready() != 1) return fail("the arms did not become ready");

    const std::vector<double> left_start = bot.get_left_joint_pos();
    const std::vector<double> right_start = bot.get_right_joint_pos();
    if (left_start.empty() || right_start.empty()) return fail("no joint position reported");

    // Each move blocks until that arm has arrived; the arms move one after
    // the other.
    if (bot.move_left_joint(turned_wrist(left_start, 0.1), -1.0, true) != 1) return fail("left move failed");
    if (bot.move_right_joint(turned_wrist(right_start, -0.1), -1.0, true) != 1) return fail("right move failed");
    print_pose("left pose: ", bot.get_left_cart_pose());
    print_pose("right pose:", bot.get_right_cart_pose());

    // Both back at once as far as the interface allows: start the left move
    // without waiting, then wait for the right one.
    if (bot.move_left_joint(left_start, 1.0, false) != 1) return fail("left return refused");
    if (bot.move_right_joint(right_start, 1.0, true) != 1) return fail("right return failed");

    const kelm::ArmStatus left = bot.get_left_status();
    const kelm::ArmStatus right = bot.get_right_status();
    std::printf("left arm %d: %d joints; right arm %d: %d joints\n", left.arm_index, left.dof, right.arm_index,
                right.dof);
    return 0;
}
