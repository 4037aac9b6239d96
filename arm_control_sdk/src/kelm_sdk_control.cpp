// KelmKernelImpl: control commands (servo, modes, gripper, stop signals,
// speed, debug) and the two questions about the arm itself, its joint
// configuration and its version.
//
// Everything here runs on the caller's thread and, except set_end_effector,
// blocks it for up to 1000 ms waiting for the reply.
#include <algorithm>
#include <cmath>
#include <utility>

#include "kelm_kernel.h"
#include "log_manager.h"
#include "motion_checks.h"
#include "protocol.h"
#include "status_field.h"

namespace kelm {

namespace {

constexpr unsigned kHighestControlMode = 4;
constexpr int kStopStepCount = 5;
// More joints than any arm has: a reply that claims them is not believed
// (six columns of that length could take gigabytes).
constexpr int kMostJoints = 64;

Json::Value commandBody(const char* command) {
    Json::Value body(Json::objectValue);
    body[protocol::key::kCommand] = command;
    return body;
}

// 0 below the range, otherwise the smaller of `value` and `upper`.
double clampFromZero(double value, double upper) { return value < 0.0 ? 0.0 : std::min(value, upper); }

}  // namespace

int KelmKernelImpl::set_servo_enable(bool enable) {
    Json::Value body = commandBody(protocol::command::kSetServoEnable);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kEnable] = enable;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::set_control_mode(int mode) {
    // Compared unsigned: negative modes fail too. Mode 0 is accepted although
    // the message does not list it.
    if (static_cast<unsigned>(mode) > kHighestControlMode) {
        KELM_LOG(LOG_ERROR, "请输入： 1 PV模式，2 MIT模式，3拖动模式，4力位混合模式");
        return refuse_input(__func__);
    }
    Json::Value body = commandBody(protocol::command::kSetControlMode);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kMode] = mode;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::set_end_effector(double pos, double tau) {
    if (std::isnan(pos) || std::isnan(tau)) {
        motion_checks::logIllegalValue();
        return refuse_input(__func__);
    }
    Json::Value body = commandBody(protocol::kEndEffectorCommand);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kPos] = clampFromZero(pos, protocol::kGripperMaxPos);
    body[protocol::key::kTau] = clampFromZero(tau, protocol::kGripperMaxTau);
    return publishStream(body);
}

int KelmKernelImpl::set_collision_config(bool flag, int level) {
    Json::Value body = commandBody(protocol::command::kSetCollisionConfig);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kFlag] = flag;
    body[protocol::key::kLevel] = level;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::set_teleoperation_mode(int is_master) {
    Json::Value body = commandBody(protocol::command::kSetTeleoperationMode);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kIsMaster] = is_master;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::disable_stop() {
    // Addressed to the whole controller: no arm_index.
    Json::Value body = commandBody(protocol::command::kStopSignals);
    body[protocol::key::kStopId] = protocol::stop_id::kArmDisable;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::emergency_stop() {
    // Addressed to the whole controller: no arm_index.
    Json::Value body = commandBody(protocol::command::kStopSignals);
    body[protocol::key::kStopId] = protocol::stop_id::kEmergencyStop;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::task_stop(bool stop_at_once) {
    Json::Value body = commandBody(protocol::command::kStopSignals);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kStopId] = protocol::stop_id::kTaskStop;
    body[protocol::key::kStopAtOnce] = stop_at_once;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::stop() {
    Json::Value body = commandBody(protocol::command::kStopSignals);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kStopId] = protocol::stop_id::kArmStop;
    body[protocol::key::kStepCnt] = kStopStepCount;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::pause() {
    Json::Value body = commandBody(protocol::command::kStopSignals);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kStopId] = protocol::stop_id::kArmPause;
    body[protocol::key::kStepCnt] = kStopStepCount;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::recover() {
    Json::Value body = commandBody(protocol::command::kStopSignals);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kStopId] = protocol::stop_id::kArmRecover;
    body[protocol::key::kStepCnt] = kStopStepCount;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::clean_kelm_error() {
    getLogInstance()->reset();
    Json::Value body = commandBody(protocol::command::kSetControllerErrorReset);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    return sendCommand(__func__, body);
}

int KelmKernelImpl::set_speed_level(double level, int response_level) {
    if (std::isnan(level)) {
        motion_checks::logIllegalValue();
        return refuse_input(__func__);
    }
    const int clamped_response = std::min(response_level, protocol::kResponseLevelMax);
    Json::Value body = commandBody(protocol::command::kSetSpeedLevel);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    body[protocol::key::kLevel] = clampFromZero(level, protocol::kSpeedLevelMax);
    body[protocol::key::kResponseLevel] = clamped_response <= 0 ? protocol::kResponseLevelMin : clamped_response;
    return sendCommand(__func__, body);
}

int KelmKernelImpl::set_debug(bool trigger) {
    // Addressed to the whole controller: no arm_index.
    Json::Value body = commandBody(protocol::command::kSetDebugMode);
    body[protocol::key::kTrigger] = trigger;
    return sendCommand(__func__, body);
}

ArmConfig KelmKernelImpl::get_config() {
    Json::Value body = commandBody(protocol::command::kGetJointParams);
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    std::string task_key;
    const Json::Value reply = cmd_server(body, task_key, protocol::kReplyTimeoutMs);
    if (reply == Json::Value()) {
        KELM_LOG(LOG_ERROR, "get config result null");
        return ArmConfig();
    }
    const Json::Value& params = reply[protocol::key::kParams];
    ArmConfig result;
    const int dof = params[protocol::key::kDof].asInt();
    if (dof < 0) {
        KELM_LOG(LOG_ERROR, "get config: negative dof %d, taken as 0", dof);
        return result;
    }
    if (dof > kMostJoints) {
        KELM_LOG(LOG_ERROR, "get config: dof %d is more than any arm has (%d), taken as 0", dof, kMostJoints);
        return result;
    }
    result.dof = dof;
    const std::pair<const char*, std::vector<double>*> columns[] = {
        {protocol::key::kLimitUpper, &result.limit_upper}, {protocol::key::kLimitLower, &result.limit_lower},
        {protocol::key::kJointVel, &result.joint_vel},     {protocol::key::kJointAcc, &result.joint_acc},
        {protocol::key::kJointDec, &result.joint_dec},     {protocol::key::kJointJerk, &result.joint_jerk},
    };
    for (const auto& column : columns) column.second->assign(static_cast<size_t>(dof), 0.0);
    // Joint by joint; an array shorter than dof reads 0 for the joints it lacks.
    for (int joint = 0; joint < dof; ++joint) {
        for (const auto& column : columns) {
            (*column.second)[static_cast<size_t>(joint)] =
                params[column.first][static_cast<Json::ArrayIndex>(joint)].asDouble();
        }
    }
    return result;
}

std::string KelmKernelImpl::get_version() {
    Json::Value body = commandBody(protocol::command::kGetArmIntrinsicProperties);
    body[protocol::key::kType] = protocol::key::kVersion;
    body[protocol::key::kArmIndex] = status_field::load(status.arm_index);
    std::string task_key;
    const Json::Value reply = cmd_server(body, task_key, protocol::kReplyTimeoutMs);
    if (reply == Json::Value()) return std::string();
    return reply[protocol::key::kVersion].asString();
}

}  // namespace kelm
