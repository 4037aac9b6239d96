// ArmKinematics: the kinematic model of one simulated arm.
//
// The arm comes from a URDF file (sim/models/): its chain from the root link
// to `tool0` and its joint limits. An arm of N joints uses the first N
// movable joints of the chain and ends where joint N+1 sits (the default
// model has six joints and a seventh, a flange roll, for seven-joint arms).
// Forward kinematics and the Jacobian walk the chain without allocation, so
// the frame loop may call them every cycle; inverse kinematics uses KDL's
// Levenberg-Marquardt solver with a fresh solver per call. Every member is
// const and safe to call from several threads at once.
//
// Units: metres and radians. A pose is x, y, z and a quaternion x, y, z, w.
#pragma once

#include <kdl/chain.hpp>
#include <kdl/frames.hpp>

#include <array>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace kelm {
namespace sim {

using Pose = std::array<double, 7>;

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

// The most joints a simulated arm has.
constexpr int kMaxDof = 7;

// One revolute joint of an arm model.
struct ArmJoint {
    std::string name;
    KDL::Frame origin;  // joint frame in the previous joint's turned frame (the root's for the first)
    KDL::Vector axis;   // unit axis of rotation in the joint frame
};

// One arm read from a URDF file: the revolute joints on the way from the
// root link to `tool0`, fixed joints folded into the next origin.
struct ArmModel {
    std::string path;              // the file it came from
    std::vector<ArmJoint> joints;  // root first
    KDL::Frame tool;               // tool0 in the last joint's turned frame
    JointLimits limits;            // one entry per joint
    std::vector<double> effort;    // [Nm] per joint: the most its motor gives
};

// The text of the arm model file `path`; throws std::runtime_error when it
// cannot be read.
std::string readArmModelFile(const std::string& path);
// Reads `urdf_path`; throws std::runtime_error saying what is wrong.
// Acceleration and jerk limits are attributes `acceleration` and `jerk` of a
// joint's <limit> (deceleration equals acceleration).
std::shared_ptr<const ArmModel> loadArmModel(const std::string& urdf_path);
// Where the default model lies: <program dir>/../share/kelm/models, which
// holds for the build tree and for an install, else the source tree.
std::string defaultArmModelPath();
// The model every arm of this process is built from: the default model
// unless useArmModel() chose another one. Call useArmModel() at start-up,
// before any arm exists; it throws like loadArmModel().
void useArmModel(const std::string& urdf_path);
const ArmModel& armModel();
// The first `dof` joints' limits of the model in use.
JointLimits defaultJointLimits(int dof);

class ArmKinematics {
public:
    // `dof` must be 1 to kMaxDof and at most the model's joint count.
    explicit ArmKinematics(int dof, const ArmModel& model = armModel());

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

    KDL::Frame turned(int joint, double angle) const;

    int dof_;
    // Every joint turns about z of its own frame: base_ places the first,
    // tips_[i] leads from joint i's turned frame to the next joint or the flange.
    KDL::Frame base_;
    std::vector<KDL::Frame> tips_;
    KDL::Chain chain_;  // the same for KDL's solver
};

}  // namespace sim
}  // namespace kelm
