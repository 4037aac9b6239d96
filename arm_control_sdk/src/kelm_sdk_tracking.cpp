// KelmKernelImpl: the two streaming requests of teleoperation, the next
// way-point of a following arm (tracking) and the joint torques fed back to a
// leading arm (set_redundancy_tau).
//
// Both run at the frame rate of the other arm, usually on that arm's receive
// thread: they publish one message without waiting for an answer, write no
// log line on the good path, and repair what they can (clamp, normalise)
// instead of refusing. Their bodies are written straight into text
// (JsonText), without a Json::Value, members in key order.
#include <cmath>

#include "json_text.h"
#include "kelm_kernel.h"
#include "log_manager.h"
#include "motion_checks.h"
#include "protocol.h"
#include "status_field.h"

namespace kelm {

namespace {

constexpr double kMinQuaternionNorm = 1e-6;
constexpr int kJointSpace = 0;
constexpr int kCartesianSpace = 1;

// The receive thread's body under construction, reused message by message.
JsonText& streamBody() {
    thread_local JsonText body;
    return body;
}

// Stamps a fresh task key on `body`, whose members all sort before that key,
// and sends it as cmd_publish sends a streaming request: without a log line,
// and dropped rather than queued behind a controller that stops reading.
// 1 if it went out.
int publishStreamText(KelmCommManager& connection, JsonText& body) {
    if (!connection.comm_client) return -1;
    body.member(protocol::key::kTaskKey).string(log_time::getTimeStamp(0));
    body.endObject();
    return connection.comm_client->sendLatestText(body.text()) == 1 ? 1 : -1;
}

// The joint target pulled into [lower, upper] joint by joint.
void appendClampedJoints(const std::vector<double>& target, const ArmConfig& limits, JsonText& out) {
    for (size_t joint = 0; joint < target.size(); ++joint) {
        const double lower = limits.limit_lower[joint];
        out.real(lower > target[joint] ? lower : std::min(limits.limit_upper[joint], target[joint]));
    }
}

// The pose with its quaternion brought to unit length: unchanged within the
// tolerance, divided by its norm otherwise, and the identity when the norm is
// too small to divide by.
void appendNormalisedPose(const std::vector<double>& pose, JsonText& out) {
    for (size_t i = 0; i < 3; ++i) out.real(pose[i]);
    const double norm_squared = motion_checks::quaternionNormSquared(pose);
    if (std::fabs(norm_squared - 1.0) <= motion_checks::kQuaternionTolerance) {
        for (size_t i = 3; i < 7; ++i) out.real(pose[i]);
        return;
    }
    const double norm = std::sqrt(norm_squared);
    if (norm > kMinQuaternionNorm) {
        for (size_t i = 3; i < 7; ++i) out.real(pose[i] / norm);
        return;
    }
    for (double value : {0.0, 0.0, 0.0, 1.0}) out.real(value);
}

}  // namespace

int KelmKernelImpl::tracking(const std::vector<double>& target, bool is_joint, const double& gripper) {
    if (!motion_checks::acceptLegalValues(target)) return refuse_input(__func__);
    if (is_joint) {
        const int dof = status_field::load(status.dof);
        if (static_cast<long long>(target.size()) != dof) {
            KELM_LOG(LOG_ERROR, "move_tracking: 输入目标维度与臂维度不一致，输入维度: %d, 臂维度: %d",
                     static_cast<int>(target.size()), dof);
            return refuse_input(__func__);
        }
        // Until the ready sequence has read the limits there is nothing to
        // clamp against.
        if (!motion_checks::acceptKnownLimits("move_tracking", {dof, config.limit_lower, config.limit_upper})) {
            return refuse_input(__func__);
        }
    } else if (target.size() != motion_checks::kPoseSize) {
        KELM_LOG(LOG_ERROR,
                 "move_tracking: 输入目标位姿维度不正确, 姿态默认四元数描述(xyzw), 输入维度: %d, 合理维度: 7",
                 static_cast<int>(target.size()));
        return refuse_input(__func__);
    }

    JsonText& body = streamBody();
    body.beginRoot();
    body.member(protocol::key::kArmIndex).integer(status_field::load(status.arm_index));
    body.member(protocol::key::kCommand).string(protocol::kTrackingCommand);
    body.member(protocol::key::kData).beginObject();
    // A negative (or NaN) gripper position means the frame has none.
    if (gripper >= 0.0) body.member(protocol::key::kGrpPoint).real(std::min(gripper, protocol::kGripperMaxPos));
    body.member(protocol::key::kWayPoint).beginArray();
    if (is_joint) {
        appendClampedJoints(target, config, body);
    } else {
        appendNormalisedPose(target, body);
    }
    body.endArray().endObject();
    body.member(protocol::key::kPointType)
        .beginObject()
        .member(protocol::key::kSpace)
        .integer(is_joint ? kJointSpace : kCartesianSpace)
        .endObject();
    body.member(protocol::key::kTaskId).string(protocol::kTrackingTaskId);
    return publishStreamText(*this, body);
}

int KelmKernelImpl::set_redundancy_tau(const std::vector<double>& redundancy_tau, const double& eeff_tau) {
    // Length first, values second: the other order from tracking.
    const int dof = status_field::load(status.dof);
    if (static_cast<long long>(redundancy_tau.size()) != dof) {
        KELM_LOG(LOG_ERROR, "输入冗余关节力矩维度与臂维度不一致，输入维度: %d, 臂维度: %d",
                 static_cast<int>(redundancy_tau.size()), dof);
        return refuse_input(__func__);
    }
    if (!motion_checks::acceptLegalValues(redundancy_tau)) return refuse_input(__func__);
    // Only NaN is refused for the end-effector torque; an infinity goes out.
    if (std::isnan(eeff_tau)) {
        motion_checks::logIllegalValue();
        return refuse_input(__func__);
    }
    JsonText& body = streamBody();
    body.beginRoot();
    body.member(protocol::key::kArmIndex).integer(status_field::load(status.arm_index));
    body.member(protocol::key::kCommand).string(protocol::kRedundancyTauCommand);
    body.member(protocol::key::kEeffTau).real(eeff_tau);
    body.member(protocol::key::kIsMaster).boolean(true);
    body.member(protocol::key::kRedundancyTau).beginArray();
    for (double torque : redundancy_tau) body.real(torque);
    body.endArray();
    return publishStreamText(*this, body);
}

}  // namespace kelm
