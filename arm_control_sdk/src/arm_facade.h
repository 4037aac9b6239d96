// The member bodies that KelmSingleCol and the left and right twins of
// KelmDualBot share: each runs on the kernel it is given, with the fixed
// arguments of the public interfaces (speed percentage 100, tool and user 0).
//
// They run on the caller's thread; with block true a motion blocks it until
// the kernel's task wait ends.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "kelm_kernel.h"

namespace kelm {
namespace arm_facade {

// The public interfaces move at full speed percentage, in the base tool and
// user frames, and ask kinematics questions in the base user frame.
constexpr double kFullSpeed = 100.0;
constexpr int kBaseTool = 0;
constexpr int kBaseUser = 0;
// Retry budget of the ready sequence [ms].
constexpr double kReadyBudgetMs = 3000.0;

// A pose as the seven reals a request carries: x, y, z, qx, qy, qz, qw.
std::vector<double> pose_values(const std::array<double, 7>& pose);
std::vector<std::vector<double>> pose_values(const std::vector<std::array<double, 7>>& poses);

// A negative `time` sends a controller-timed joint move; any other value a
// timed move of that many seconds through the single point `target`.
int move_timed(KelmKernelImpl& arm, const std::vector<double>& target, double time, bool is_joint, bool block);
int move_line(KelmKernelImpl& arm, const std::vector<double>& target, bool is_joint, bool block);
// Timed points when `times` holds one stamp per point, otherwise a path that
// the controller times (then `gripper` and `times` are dropped).
int move_traj(KelmKernelImpl& arm, const std::vector<std::vector<double>>& points, const std::vector<double>& gripper,
              const std::vector<double>& times, bool is_joint, bool block);

// Prints "targets size error" and returns -1 when the target's length is not
// the arm's joint count; otherwise streams it.
int track_joint(KelmKernelImpl& arm, const std::vector<double>& target, double gripper);
int track_pose(KelmKernelImpl& arm, const std::array<double, 7>& pose, double gripper);

// -1 without a connected gripper, otherwise its reported state.
int gripper_state(KelmKernelImpl& arm);

}  // namespace arm_facade
}  // namespace kelm
