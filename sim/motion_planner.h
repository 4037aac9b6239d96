// Turns one task request ("webRecieveTasks") into a PlannedMotion, or into
// the reason why the arm cannot carry it out (a target outside the limits,
// a pose without an inverse solution, a malformed member).
//
// Pure functions of their arguments: callers run them on any thread, without
// holding the controller's lock, on a PlanContext copied under it.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "arm_kinematics.h"
#include "planned_motion.h"

namespace kelm {
namespace sim {

struct PlanContext {
    const ArmKinematics* kinematics = nullptr;
    JointLimits limits;
    std::vector<double> start_joints;  // where the task begins: the end of the queue
    double start_gripper = 0.0;        // [m]
    double speed_scale = 1.0;          // speed level over its maximum, (0, 1]
    std::vector<KDL::Frame> tools;     // tool frames by index, relative to the flange
    std::vector<KDL::Frame> users;     // user frames by index, relative to the base
};

struct PlanOutcome {
    std::string error;  // empty when planned
    PlannedMotion motion;
    bool ok() const { return error.empty(); }
};

PlanOutcome planTask(const Json::Value& request, const PlanContext& context);

// Tool-tip pose, in user frame `user`, of joints `joints` with tool `tool`;
// false when an index is unknown.
bool forwardPose(const PlanContext& context, int tool, int user, const std::vector<double>& joints, Pose& pose);
// Joints that put the tool tip at `pose` in user frame `user`, seeded by
// `seed`; false when there is no solution within the limits.
bool inversePose(const PlanContext& context, int tool, int user, const Pose& pose, const std::vector<double>& seed,
                 std::vector<double>& joints);

}  // namespace sim
}  // namespace kelm
