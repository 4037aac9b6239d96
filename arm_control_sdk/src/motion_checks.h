// Input checks, request building and reply reading shared by the motion,
// trajectory, kinematics, coordinate and recording operations of
// KelmKernelImpl.
//
// Every check that refuses logs its one message at level 1 and returns false;
// the caller then returns -1 and sends nothing. The checks that pass write the
// values they have looked at into the request under construction, so a
// target is walked once. All functions are free of state and may run on any
// thread.
#pragma once

#include <json/json.h>

#include <cmath>
#include <cstddef>
#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "protocol.h"
#include "status_field.h"

namespace kelm {
namespace motion_checks {

// Largest finite double; anything beyond it (an infinity) is illegal.
constexpr double kLargestLegalMagnitude = 1.7976931348623157e308;
// Allowed distance of a pose's squared quaternion length from 1.
constexpr double kQuaternionTolerance = 0.0001;
constexpr std::size_t kPoseSize = 7;

// NaN, or a magnitude above the largest finite double.
inline bool isIllegalValue(double value) { return std::isnan(value) || std::fabs(value) > kLargestLegalMagnitude; }

template <typename Values>
bool holdsIllegalValue(const Values& values) {
    for (double value : values) {
        if (isIllegalValue(value)) return true;
    }
    return false;
}

// Logs "error: 输入含有非法值，请检查输入！！！" at level 1.
void logIllegalValue();

// Logs the illegal-value message when `values` holds an illegal value.
template <typename Values>
bool acceptLegalValues(const Values& values) {
    if (!holdsIllegalValue(values)) return true;
    logIllegalValue();
    return false;
}

// Sum of the squares of pose values 3 to 6 (the quaternion x, y, z, w).
template <typename Pose>
double quaternionNormSquared(const Pose& pose) {
    return pose[3] * pose[3] + pose[4] * pose[4] + pose[5] * pose[5] + pose[6] * pose[6];
}

inline bool isUnitQuaternion(double norm_squared) { return !(std::fabs(norm_squared - 1.0) > kQuaternionTolerance); }

// Copies `values` into `out` as a JSON array of reals (an empty list gives []).
template <typename Values>
void writeReals(const Values& values, Json::Value& out) {
    out = Json::Value(Json::arrayValue);
    for (double value : values) out.append(value);
}

// What a joint target is judged against: the arm's joint count from the state
// frames and the position limits from the arm configuration.
struct JointBounds {
    int dof;
    const std::vector<double>& lower;
    const std::vector<double>& upper;
};

inline JointBounds jointBoundsOf(const KelmKernelImpl& kernel) {
    return JointBounds{status_field::load(kernel.status.dof), kernel.config.limit_lower, kernel.config.limit_upper};
}

// Refuses with a message naming the missing bounds unless both limit lists
// hold a bound for each joint. Until the ready sequence has read the arm's
// configuration no joint target can be judged.
bool acceptKnownLimits(const char* operation, const JointBounds& bounds);

// Joint target of a move: its length must be `dof` ("<operation>: 输入目标维度
// 与臂维度不一致..."), the limits must be known, and each value from joint 0 up
// must lie within its bounds, bounds included. Values are written to `out` as
// they pass; nothing is clamped.
bool acceptJointTarget(const char* operation, const std::vector<double>& target, const JointBounds& bounds,
                       Json::Value& out);

// Cartesian target of a move: 7 values ("<operation>: 输入目标位姿维度不正确...")
// and a unit quaternion within the tolerance. Written to `out` unchanged.
bool acceptPoseTarget(const char* operation, const std::vector<double>& target, Json::Value& out);

// One target of a joint or Cartesian move, after its illegal-value check:
// the joint checks when `is_joint`, otherwise the pose checks.
bool acceptTarget(const char* operation, const std::vector<double>& target, bool is_joint, const JointBounds& bounds,
                  Json::Value& out);

// Quaternion check alone, for poses whose length is already known to be 7.
bool acceptUnitQuaternion(double norm_squared);

// The reading of a command reply: true only for a reply whose `recv` is
// "Task_Recieve"; a null reply (time-out, failed send) is false.
bool isTaskReceived(const Json::Value& reply);

constexpr bool kWithLevel = true;
constexpr bool kWithoutLevel = false;

// The body shared by all motion tasks: "webRecieveTasks" with `task_id`;
// `with_level` adds the fixed task_level word "Task_General" that joint,
// line, pass-through and trajectory tasks carry.
Json::Value motionRequest(const char* task_id, bool with_level);

// Adds the kernel's `arm_index` and sends `request` with cmd_server: the
// reply, or null after a failed send or a time-out. The key is dropped.
Json::Value askController(KelmKernelImpl& kernel, Json::Value& request, int timeout_ms = protocol::kReplyTimeoutMs);

// Adds the kernel's `arm_index`, sends `request` with cmd_server and reads the
// reply: 1 for "Task_Recieve" (the kernel keeps the key as its submitted
// task), -1 otherwise, recorded as a refusal of `operation`. `task_key`
// receives the key.
int submitTask(KelmKernelImpl& kernel, const char* operation, Json::Value& request, std::string& task_key);
// The same for a request whose key nobody waits for.
int submitTask(KelmKernelImpl& kernel, const char* operation, Json::Value& request);

}  // namespace motion_checks
}  // namespace kelm
