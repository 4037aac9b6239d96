// The simulated operator's hand doing a pick-and-place task on a master
// arm: it opens the gripper over the task's cube, goes down, closes, lifts,
// carries the cube over the target area, sets it down, opens and rises. A
// slave that follows the master in joint space does the same with its own
// cube, which lies where the master's task layout says (same scene, same
// seed).
//
// Plain data and pure functions; the frame loop samples a path each cycle.
#pragma once

#include <vector>

#include "arm_kinematics.h"
#include "task_layout.h"

namespace kelm {
namespace sim {

// The master's gripper readings the hand holds: open maps onto the slave's
// widest opening through the tool's gripper scaling, closed onto zero.
constexpr double kHandGripperOpen = 0.06;   // [m]
constexpr double kHandGripperClosed = 0.0;  // [m]

// Reach `joints` and `gripper` in `duration` seconds, from where the
// previous waypoint left the hand.
struct HandWaypoint {
    double duration = 0.0;       // [s]
    std::vector<double> joints;  // [rad]
    double gripper = 0.0;        // [m]
};

class HandPath {
public:
    HandPath() = default;
    HandPath(std::vector<double> start_joints, double start_gripper, std::vector<HandWaypoint> waypoints);

    // Where the hand is `seconds` after the path began: smooth (minimum
    // jerk) between waypoints, at the last one after the end.
    void sample(double seconds, std::vector<double>& joints, double& gripper) const;
    double duration() const;
    bool empty() const { return waypoints_.empty(); }

private:
    std::vector<double> start_joints_;
    double start_gripper_ = 0.0;
    std::vector<HandWaypoint> waypoints_;
};

// The hand's path for an arm that stands at `anchor` with the gripper at
// `anchor_gripper`. Empty (the hand holds still) when the layout has no
// task or a pose of the task is out of the arm's reach; the second case is
// logged.
HandPath planPickPlace(const TaskLayout& layout, const std::vector<double>& anchor, double anchor_gripper,
                       const ArmKinematics& kinematics, const JointLimits& limits);

}  // namespace sim
}  // namespace kelm
