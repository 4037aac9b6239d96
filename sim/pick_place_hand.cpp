#include "pick_place_hand.h"

#include <algorithm>
#include <cmath>

#include "log_manager.h"

namespace kelm {
namespace sim {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kApproachHeight = 0.10;     // [m] above the cube before going down
constexpr double kGraspAboveCentre = 0.012;  // [m] keeps the fingertips off the table
constexpr double kPlaceClearance = 0.003;    // [m] above the area when the cube is let go
constexpr double kLiftHeight = 0.15;         // [m]
constexpr double kRetreatHeight = 0.12;      // [m]

// Each step of the task: where the holding point goes and for how long.
struct Step {
    const char* what;
    KDL::Vector point;
    double gripper;
    double duration;  // [s]
};

double minimumJerk(double share) {
    const double s = std::clamp(share, 0.0, 1.0);
    return s * s * s * (10.0 - 15.0 * s + 6.0 * s * s);
}

// The cube's turn about the vertical, folded into a quarter turn: a square
// is gripped the same across either pair of faces.
double graspYaw(const KDL::Frame& cube) {
    const double yaw = std::atan2(cube.M(1, 0), cube.M(0, 0));
    return std::remainder(yaw, kPi / 2.0);
}

}  // namespace

HandPath::HandPath(std::vector<double> start_joints, double start_gripper, std::vector<HandWaypoint> waypoints)
    : start_joints_(std::move(start_joints)), start_gripper_(start_gripper), waypoints_(std::move(waypoints)) {}

double HandPath::duration() const {
    double total = 0.0;
    for (const auto& waypoint : waypoints_) total += waypoint.duration;
    return total;
}

void HandPath::sample(double seconds, std::vector<double>& joints, double& gripper) const {
    const std::vector<double>* from = &start_joints_;
    double from_gripper = start_gripper_;
    for (const auto& waypoint : waypoints_) {
        if (seconds < waypoint.duration) {
            const double s = minimumJerk(seconds / waypoint.duration);
            joints.resize(from->size());
            for (std::size_t i = 0; i < joints.size(); ++i)
                joints[i] = (*from)[i] + s * (waypoint.joints[i] - (*from)[i]);
            gripper = from_gripper + s * (waypoint.gripper - from_gripper);
            return;
        }
        seconds -= waypoint.duration;
        from = &waypoint.joints;
        from_gripper = waypoint.gripper;
    }
    joints = *from;
    gripper = from_gripper;
}

HandPath planPickPlace(const TaskLayout& layout, const std::vector<double>& anchor, double anchor_gripper,
                       const ArmKinematics& kinematics, const JointLimits& limits) {
    if (!layout.present) return HandPath();
    // Gripper pointing down, fingers closing across two faces of the cube.
    const KDL::Rotation grip = KDL::Rotation::RotZ(graspYaw(layout.cube)) * KDL::Rotation::RotX(kPi);
    const KDL::Vector up(0.0, 0.0, 1.0);
    const KDL::Vector grasp = layout.cube.p + kGraspAboveCentre * up;
    const KDL::Vector place = layout.target.p + (layout.cube_half + kGraspAboveCentre + kPlaceClearance) * up;
    const Step steps[] = {
        {"over the cube", grasp + kApproachHeight * up, kHandGripperOpen, 2.0},
        {"at the cube", grasp, kHandGripperOpen, 1.5},
        {"gripping", grasp, kHandGripperClosed, 1.0},
        {"lifting", grasp + kLiftHeight * up, kHandGripperClosed, 1.5},
        {"over the area", place + kLiftHeight * up, kHandGripperClosed, 2.5},
        {"setting down", place, kHandGripperClosed, 1.5},
        {"letting go", place, kHandGripperOpen, 0.8},
        {"rising", place + kRetreatHeight * up, kHandGripperOpen, 1.2},
    };
    std::vector<HandWaypoint> waypoints;
    std::vector<double> seed = anchor;
    for (const Step& step : steps) {
        const KDL::Frame flange = KDL::Frame(grip, step.point) * layout.grasp_in_flange.Inverse();
        HandWaypoint waypoint;
        waypoint.duration = step.duration;
        waypoint.gripper = step.gripper;
        if (!kinematics.inverse(flange, seed, limits, waypoint.joints)) {
            KELM_LOG(LOG_ERROR, "operator: pick-and-place pose '%s' (%.3f, %.3f, %.3f) is out of reach; the hand holds",
                     step.what, step.point.x(), step.point.y(), step.point.z());
            return HandPath();
        }
        seed = waypoint.joints;
        waypoints.push_back(std::move(waypoint));
    }
    return HandPath(anchor, anchor_gripper, std::move(waypoints));
}

}  // namespace sim
}  // namespace kelm
