#include "arm_kinematics.h"

#include <Eigen/Dense>
#include <kdl/chainiksolverpos_lma.hpp>
#include <kdl/jntarray.hpp>
#include <kdl/segment.hpp>

#include <cmath>
#include <stdexcept>
#include <string>

namespace kelm {
namespace sim {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kTwoPi = 2.0 * kPi;
constexpr double kPositionTolerance = 1e-9;  // [m]
constexpr double kRotationTolerance = 1e-8;  // [rad]

// Seeds tried after the caller's own, for targets far from it.
const std::array<std::array<double, kMaxDof>, 3> kFallbackSeeds = {{
    {0.0, 0.0, 0.0, 0.0, -1.57, 0.0, 0.0},
    {0.5, 0.4, -0.6, 0.5, -1.0, 0.5, 0.0},
    {-0.5, -0.4, 0.6, -0.5, 1.0, -0.5, 0.0},
}};

bool wrapIntoLimits(std::vector<double>& joints, const JointLimits& limits) {
    for (size_t i = 0; i < joints.size(); ++i) {
        double& q = joints[i];
        while (q > limits.upper[i] && q - kTwoPi >= limits.lower[i]) q -= kTwoPi;
        while (q < limits.lower[i] && q + kTwoPi <= limits.upper[i]) q += kTwoPi;
        if (q < limits.lower[i] || q > limits.upper[i]) return false;
    }
    return true;
}

// Rotation from `from` to `to` as a vector in the base frame. KDL's own
// difference reads angles below 1e-6 as zero, too coarse for a solver.
KDL::Vector rotationError(const KDL::Rotation& from, const KDL::Rotation& to) {
    const KDL::Rotation turn = to * from.Inverse();
    const KDL::Vector sine(turn(2, 1) - turn(1, 2), turn(0, 2) - turn(2, 0), turn(1, 0) - turn(0, 1));
    const double cosine = 0.5 * (turn(0, 0) + turn(1, 1) + turn(2, 2) - 1.0);
    if (cosine < 0.9) return turn.GetRot();
    const double sine_norm = 0.5 * length(sine);
    if (sine_norm < 1e-300) return KDL::Vector::Zero();
    return sine * (0.5 * std::atan2(sine_norm, cosine) / sine_norm);
}

bool reaches(const KDL::Frame& reached, const KDL::Frame& target) {
    return length(target.p - reached.p) < kPositionTolerance &&
           length(rotationError(reached.M, target.M)) < kRotationTolerance;
}

// A rotation that takes the z axis onto `axis` (a unit vector).
KDL::Rotation zOnto(const KDL::Vector& axis) {
    const KDL::Vector z(0.0, 0.0, 1.0);
    const KDL::Vector normal = z * axis;
    const double sine = length(normal), cosine = KDL::dot(z, axis);
    if (sine < 1e-12) return cosine > 0.0 ? KDL::Rotation::Identity() : KDL::Rotation::RotX(kPi);
    return KDL::Rotation::Rot2(normal / sine, std::atan2(sine, cosine));
}

}  // namespace

ArmKinematics::ArmKinematics(int dof, const ArmModel& model) : dof_(dof) {
    if (dof < 1 || dof > kMaxDof || dof > static_cast<int>(model.joints.size()))
        throw std::invalid_argument("arm dof must be 1 to 7 and at most the model's " +
                                    std::to_string(model.joints.size()) + " joints");
    std::vector<KDL::Frame> to_z(dof + 1, KDL::Frame::Identity());
    for (int i = 0; i < dof; ++i) to_z[i] = KDL::Frame(zOnto(model.joints[i].axis));
    // An arm of fewer joints than the model ends where the next joint sits.
    const KDL::Frame flange = dof < static_cast<int>(model.joints.size()) ? model.joints[dof].origin : model.tool;
    base_ = model.joints[0].origin * to_z[0];
    for (int i = 0; i < dof; ++i) {
        const KDL::Frame next = i + 1 < dof ? model.joints[i + 1].origin * to_z[i + 1] : flange;
        tips_.push_back(to_z[i].Inverse() * next);
    }
    chain_.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::Fixed), base_));
    for (const KDL::Frame& tip : tips_) chain_.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::RotZ), tip));
}

KDL::Frame ArmKinematics::turned(int joint, double angle) const {
    return KDL::Frame(KDL::Rotation::RotZ(angle)) * tips_[joint];
}

KDL::Frame ArmKinematics::flange(const std::vector<double>& joints) const {
    KDL::Frame frame = base_;
    for (int i = 0; i < dof_; ++i) frame = frame * turned(i, joints[i]);
    return frame;
}

void ArmKinematics::jacobian(const std::vector<double>& joints, std::vector<double>& jacobian) const {
    // Joint i turns about the z axis of the frame before its own tip.
    std::array<KDL::Vector, kMaxDof> axis;
    std::array<KDL::Vector, kMaxDof> origin;
    KDL::Frame frame = base_;
    for (int i = 0; i < dof_; ++i) {
        axis[i] = frame.M.UnitZ();
        origin[i] = frame.p;
        frame = frame * turned(i, joints[i]);
    }
    jacobian.assign(6 * dof_, 0.0);
    for (int i = 0; i < dof_; ++i) {
        const KDL::Vector linear = axis[i] * (frame.p - origin[i]);
        for (int row = 0; row < 3; ++row) {
            jacobian[row * dof_ + i] = linear[row];
            jacobian[(row + 3) * dof_ + i] = axis[i][row];
        }
    }
}

bool ArmKinematics::inverse(const KDL::Frame& target, const std::vector<double>& seed, const JointLimits& limits,
                            std::vector<double>& joints) const {
    if (inverseNear(target, seed, limits, joints)) return true;
    for (const auto& fallback : kFallbackSeeds) {
        const std::vector<double> other(fallback.begin(), fallback.begin() + dof_);
        if (inverseNear(target, other, limits, joints)) return true;
    }
    return false;
}

bool ArmKinematics::inverseNear(const KDL::Frame& target, const std::vector<double>& seed, const JointLimits& limits,
                                std::vector<double>& joints) const {
    KDL::ChainIkSolverPos_LMA solver(chain_, 1e-10, 150, 1e-15);
    KDL::JntArray initial(dof_);
    KDL::JntArray solution(dof_);
    for (int i = 0; i < dof_; ++i) initial(i) = seed[i];
    solver.CartToJnt(initial, target, solution);
    std::vector<double> candidate(dof_);
    for (int i = 0; i < dof_; ++i) candidate[i] = solution(i);
    refine(target, candidate);
    if (!wrapIntoLimits(candidate, limits)) return false;
    if (!reaches(flange(candidate), target)) return false;
    joints = std::move(candidate);
    return true;
}

// A few Gauss-Newton steps from the solver's answer to full precision.
void ArmKinematics::refine(const KDL::Frame& target, std::vector<double>& joints) const {
    constexpr int kSteps = 4;
    std::vector<double> jacobian_values;
    for (int step = 0; step < kSteps; ++step) {
        const KDL::Frame reached = flange(joints);
        const KDL::Vector position_error = target.p - reached.p;
        const KDL::Vector rotation_error = rotationError(reached.M, target.M);
        Eigen::Matrix<double, 6, 1> error;
        error << position_error.x(), position_error.y(), position_error.z(), rotation_error.x(), rotation_error.y(),
            rotation_error.z();
        if (error.norm() < 1e-14) return;
        jacobian(joints, jacobian_values);
        const Eigen::Map<const Eigen::Matrix<double, 6, Eigen::Dynamic, Eigen::RowMajor>> matrix(jacobian_values.data(),
                                                                                                 6, dof_);
        const Eigen::VectorXd delta = matrix.jacobiSvd(Eigen::ComputeThinU | Eigen::ComputeThinV).solve(error);
        for (int i = 0; i < dof_; ++i) joints[i] += delta(i);
    }
}

Pose ArmKinematics::toPose(const KDL::Frame& frame) {
    Pose pose{};
    pose[0] = frame.p.x();
    pose[1] = frame.p.y();
    pose[2] = frame.p.z();
    frame.M.GetQuaternion(pose[3], pose[4], pose[5], pose[6]);
    return pose;
}

KDL::Frame ArmKinematics::toFrame(const double* values) {
    double qx = values[3], qy = values[4], qz = values[5], qw = values[6];
    const double norm = std::sqrt(qx * qx + qy * qy + qz * qz + qw * qw);
    if (norm > 1e-12) {
        qx /= norm;
        qy /= norm;
        qz /= norm;
        qw /= norm;
    } else {
        qx = qy = qz = 0.0;
        qw = 1.0;
    }
    return KDL::Frame(KDL::Rotation::Quaternion(qx, qy, qz, qw), KDL::Vector(values[0], values[1], values[2]));
}

KDL::Frame ArmKinematics::fromCoordinate(const std::vector<double>& coordinate) {
    return KDL::Frame(KDL::Rotation::RPY(coordinate[3], coordinate[4], coordinate[5]),
                      KDL::Vector(coordinate[0], coordinate[1], coordinate[2]));
}

}  // namespace sim
}  // namespace kelm
