#include "sim_environment.h"

#include <algorithm>
#include <cmath>

namespace kelm {
namespace sim {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kRampTime = 1.0;  // [s] before the hand moves at full excursion
// Share of the excursion per joint: the wrist moves more than the shoulder.
constexpr double kJointWeight[kMaxDof] = {1.0, 0.6, 0.6, 1.0, 0.8, 1.0, 1.0};
constexpr double kJointPhase = 0.9;  // [rad] between neighbouring joints

double smoothRamp(double seconds) {
    const double x = std::clamp(seconds / kRampTime, 0.0, 1.0);
    return x * x * (3.0 - 2.0 * x);
}

}  // namespace

void operatorHand(const OperatorSettings& settings, double seconds, const std::vector<double>& anchor,
                  const JointLimits& limits, std::vector<double>& joints, double& gripper) {
    const double envelope = smoothRamp(seconds);
    const double phase = 2.0 * kPi * seconds / settings.period;
    joints.resize(anchor.size());
    for (size_t i = 0; i < anchor.size(); ++i) {
        const double offset = settings.amplitude * kJointWeight[i] * envelope * std::sin(phase + kJointPhase * i);
        joints[i] = std::clamp(anchor[i] + offset, limits.lower[i], limits.upper[i]);
    }
    gripper = 0.04 + 0.03 * envelope * std::sin(0.5 * phase);
}

void wallContact(const WallSettings& settings, const ArmKinematics& kinematics, const std::vector<double>& joints,
                 const KDL::Frame& tip, std::vector<double>& cart_force, std::vector<double>& joint_tau,
                 std::vector<double>& jacobian_scratch) {
    const int dof = kinematics.dof();
    cart_force.assign(6, 0.0);
    joint_tau.assign(dof, 0.0);
    if (!settings.enabled) return;
    const double depth = settings.height - tip.p.z();
    if (depth <= 0.0) return;
    const KDL::Vector force(0.0, 0.0, settings.stiffness * depth);
    cart_force[2] = force.z();
    // The Jacobian is the flange's: move the force's torque to the flange.
    const KDL::Vector lever = tip.p - kinematics.flange(joints).p;
    const KDL::Vector torque = lever * force;
    const double wrench[6] = {force.x(), force.y(), force.z(), torque.x(), torque.y(), torque.z()};
    kinematics.jacobian(joints, jacobian_scratch);
    for (int i = 0; i < dof; ++i) {
        double tau = 0.0;
        for (int row = 0; row < 6; ++row) tau += jacobian_scratch[row * dof + i] * wrench[row];
        joint_tau[i] = tau;
    }
}

}  // namespace sim
}  // namespace kelm
