// What surrounds a simulated arm: the operator's hand that moves an arm in
// drag mode or as teleoperation master, and a virtual wall that an arm can
// press into, which produces external forces for force feedback.
//
// Plain settings records plus pure functions; the frame loop calls them.
#pragma once

#include <vector>

#include "arm_kinematics.h"

namespace kelm {
namespace sim {

// A smooth, bounded and repeatable hand motion about the pose the arm had
// when the operator took it, or the pick-and-place task of the scene
// (pick_place_hand.h).
struct OperatorSettings {
    bool enabled = true;
    bool pick_place = false;  // the task instead of the smooth motion
    double amplitude = 0.2;   // largest joint excursion [rad]
    double period = 4.0;      // [s]
};

// A horizontal plane in the base frame: below `height` the tool tip meets a
// spring of `stiffness`.
struct WallSettings {
    bool enabled = false;
    double height = 0.3;        // [m]
    double stiffness = 2000.0;  // [N/m]
};

// Joint values of the operator's hand `seconds` after taking the arm at
// `anchor`, and the gripper opening it holds; joints stay inside the limits.
void operatorHand(const OperatorSettings& settings, double seconds, const std::vector<double>& anchor,
                  const JointLimits& limits, std::vector<double>& joints, double& gripper);

// Force of the wall on the tool tip at `tip` (fx, fy, fz, tx, ty, tz in the
// base frame, torque about the tip) and the joint torques it causes.
void wallContact(const WallSettings& settings, const ArmKinematics& kinematics, const std::vector<double>& joints,
                 const KDL::Frame& tip, std::vector<double>& cart_force, std::vector<double>& joint_tau,
                 std::vector<double>& jacobian_scratch);

}  // namespace sim
}  // namespace kelm
