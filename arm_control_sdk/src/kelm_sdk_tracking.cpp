// KelmKernelImpl: the two streaming requests of teleoperation, the next
// way-point of a following arm (tracking) and the joint torques fed back to a
// leading arm (set_redundancy_tau).
//
// Both run at the frame rate of the other arm, usually on that arm's receive
// thread: they publish one message without waiting for an answer, write no
// log line on the good path, and repair what they can (clamp, normalise)
// instead of refusing.
#include <cmath>

#include "kelm_kernel.h"
#include "log_manager.h"
#include "motion_checks.h"
#include "status_field.h"

namespace kelm {

namespace {

constexpr double kGripperMaxPos = 0.08;
constexpr double kMinQuaternionNorm = 1e-6;
constexpr int kJointSpace = 0;
constexpr int kCartesianSpace = 1;

// Keys and fixed texts are static strings: jsoncpp keeps a pointer to them
// instead of copying, which spares the stream an allocation per key.
using Key = Json::StaticString;
const Key kCommandKey("command");
const Key kTaskIdKey("task_id");
const Key kDataKey("data");
const Key kWayPointKey("way_point");
const Key kGripperPointKey("grp_point");
const Key kPointTypeKey("point_type");
const Key kSpaceKey("space");
const Key kArmIndexKey("arm_index");
const Key kIsMasterKey("is_master");
const Key kRedundancyTauKey("redundancy_tau");
const Key kEndEffectorTauKey("eeff_tau");
const Key kTrackingCommand("trajectoryTrackingTasks");
const Key kTrackingTaskId("TASK_TRACKING");
const Key kRedundancyTauCommand("setRedundancyTau");

// The joint target pulled into [lower, upper] joint by joint.
void appendClampedJoints(const std::vector<double>& target, const ArmConfig& limits, Json::Value& out) {
    for (size_t joint = 0; joint < target.size(); ++joint) {
        const double lower = limits.limit_lower[joint];
        out.append(lower > target[joint] ? lower : std::min(limits.limit_upper[joint], target[joint]));
    }
}

// The pose with its quaternion brought to unit length: unchanged within the
// tolerance, divided by its norm otherwise, and the identity when the norm is
// too small to divide by.
void appendNormalisedPose(const std::vector<double>& pose, Json::Value& out) {
    for (size_t i = 0; i < 3; ++i) out.append(pose[i]);
    const double norm_squared = motion_checks::quaternionNormSquared(pose);
    if (std::fabs(norm_squared - 1.0) <= motion_checks::kQuaternionTolerance) {
        for (size_t i = 3; i < 7; ++i) out.append(pose[i]);
        return;
    }
    const double norm = std::sqrt(norm_squared);
    if (norm > kMinQuaternionNorm) {
        for (size_t i = 3; i < 7; ++i) out.append(pose[i] / norm);
        return;
    }
    for (double value : {0.0, 0.0, 0.0, 1.0}) out.append(value);
}

}  // namespace

int KelmKernelImpl::tracking(const std::vector<double>& target, bool is_joint, const double& gripper) {
    if (!motion_checks::acceptLegalValues(target)) return -1;

    Json::Value body(Json::objectValue);
    body[kCommandKey] = kTrackingCommand;
    body[kTaskIdKey] = kTrackingTaskId;
    Json::Value& data = body[kDataKey];
    Json::Value& way_point = data[kWayPointKey];
    way_point = Json::Value(Json::arrayValue);
    if (is_joint) {
        const int dof = status_field::load(status.dof);
        if (static_cast<long long>(target.size()) != dof) {
            KELM_LOG(LOG_ERROR, "move_tracking: 输入目标维度与臂维度不一致，输入维度: %d, 臂维度: %d",
                     static_cast<int>(target.size()), dof);
            return -1;
        }
        // Until the ready sequence has read the limits there is nothing to
        // clamp against.
        if (!motion_checks::acceptKnownLimits("move_tracking", {dof, config.limit_lower, config.limit_upper})) {
            return -1;
        }
        appendClampedJoints(target, config, way_point);
    } else {
        if (target.size() != motion_checks::kPoseSize) {
            KELM_LOG(LOG_ERROR, "move_tracking: 输入目标位姿维度不正确, 姿态默认四元数描述(xyzw), 输入维度: %d, 合理维度: 7",
                     static_cast<int>(target.size()));
            return -1;
        }
        appendNormalisedPose(target, way_point);
    }
    // A negative (or NaN) gripper position means the frame has none.
    if (gripper >= 0.0) data[kGripperPointKey] = std::min(gripper, kGripperMaxPos);
    body[kPointTypeKey][kSpaceKey] = is_joint ? kJointSpace : kCartesianSpace;
    body[kArmIndexKey] = status_field::load(status.arm_index);
    return publishStream(body);
}

int KelmKernelImpl::set_redundancy_tau(const std::vector<double>& redundancy_tau, const double& eeff_tau) {
    // Length first, values second: the other order from tracking.
    const int dof = status_field::load(status.dof);
    if (static_cast<long long>(redundancy_tau.size()) != dof) {
        KELM_LOG(LOG_ERROR, "输入冗余关节力矩维度与臂维度不一致，输入维度: %d, 臂维度: %d",
                 static_cast<int>(redundancy_tau.size()), dof);
        return -1;
    }
    if (!motion_checks::acceptLegalValues(redundancy_tau)) return -1;
    // Only NaN is refused for the end-effector torque; an infinity goes out.
    if (std::isnan(eeff_tau)) {
        motion_checks::logIllegalValue();
        return -1;
    }
    Json::Value body(Json::objectValue);
    body[kCommandKey] = kRedundancyTauCommand;
    body[kArmIndexKey] = status_field::load(status.arm_index);
    body[kIsMasterKey] = true;
    Json::Value& torques = body[kRedundancyTauKey];
    torques = Json::Value(Json::arrayValue);
    for (double torque : redundancy_tau) torques.append(torque);
    body[kEndEffectorTauKey] = eeff_tau;
    return publishStream(body);
}

}  // namespace kelm
