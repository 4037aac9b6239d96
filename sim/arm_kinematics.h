// ArmKinematics: the kinematic model of one simulated arm.
//
// The arm is a serial chain of revolute joints described by one
// Denavit-Hartenberg table (the default six rows are a typical six-joint
// industrial arm; a seventh row, a flange roll, serves seven-joint arms).
// Forward kinematics and the Jacobian are computed directly from the table,
// without allocation, so the frame loop may call them every cycle; inverse
// kinematics uses KDL's Levenberg-Marquardt solver with a fresh solver per
// call. Every member is const and safe to call from several threads at once.
//
// Units: metres and radians. A pose is x, y, z and a quaternion x, y, z, w.
#pragma once

#include <kdl/chain.hpp>
#include <kdl/frames.hpp>

#include <array>
#include <cmath>
#include <vector>

namespace kelm {
namespace sim {

using Pose = std::array<double, 7>;

// One row of a standard Denavit-Hartenberg table.
struct DhRow {
    double a;             // link length [m]
    double alpha;         // link twist [rad]
    double d;             // link offset [m]
    double theta_offset;  // joint angle at which the joint reads 0 [rad]
};

// Per-joint limits of an arm, as served to clients.
struct JointLimits {
    std::vector<double> lower;  // position [rad]
    std::vector<double> upper;  // position [rad]
    std::vector<double> vel;    // [rad/s]
    std::vector<double> acc;    // [rad/s^2]
    std::vector<double> dec;    // [rad/s^2]
    std::vector<double> jerk;   // [rad/s^3]
};

// Euclidean length. KDL's Vector::Norm() reads lengths below 1e-6 as 0,
// too coarse for solver tolerances.
inline double length(const KDL::Vector& v) { return std::sqrt(KDL::dot(v, v)); }

// The longest chain the model offers.
constexpr int kMaxDof = 7;

// The arm's geometry: the first `dof` rows are used.
const std::array<DhRow, kMaxDof>& dhTable();
JointLimits defaultJointLimits(int dof);

class ArmKinematics {
public:
    // `dof` must be 1 to kMaxDof.
    explicit ArmKinematics(int dof);

    int dof() const { return dof_; }

    // Pose of the flange in the base frame.
    KDL::Frame flange(const std::vector<double>& joints) const;

    // Geometric Jacobian of the flange (rows: vx, vy, vz, wx, wy, wz in the
    // base frame), written row-major into `jacobian` (6 x dof values).
    void jacobian(const std::vector<double>& joints, std::vector<double>& jacobian) const;

    // Joint values that put the flange at `target`, starting from `seed`.
    // Angles are wrapped into the limits where a turn of 2 pi allows it.
    // False when no solution within the limits reaches the target to 1e-9.
    bool inverse(const KDL::Frame& target, const std::vector<double>& seed, const JointLimits& limits,
                 std::vector<double>& joints) const;
    // The same from `seed` alone, without the fallback seeds: quicker to
    // give up, for streamed targets that come every few milliseconds.
    bool inverseNear(const KDL::Frame& target, const std::vector<double>& seed, const JointLimits& limits,
                     std::vector<double>& joints) const;

    static Pose toPose(const KDL::Frame& frame);
    // `values` holds at least 7 entries; the quaternion is normalised.
    static KDL::Frame toFrame(const double* values);
    // Six values x, y, z, roll, pitch, yaw, as tool and user coordinates are written.
    static KDL::Frame fromCoordinate(const std::vector<double>& coordinate);

private:
    void refine(const KDL::Frame& target, std::vector<double>& joints) const;

    int dof_;
    KDL::Chain chain_;
};

}  // namespace sim
}  // namespace kelm
