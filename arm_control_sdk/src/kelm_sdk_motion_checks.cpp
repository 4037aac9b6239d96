// Input checks shared by the motion family of KelmKernelImpl.
#include "motion_checks.h"
#include "protocol.h"

#include "log_manager.h"

namespace kelm {
namespace motion_checks {

void logIllegalValue() { KELM_LOG(LOG_ERROR, "error: 输入含有非法值，请检查输入！！！"); }

bool acceptKnownLimits(const char* operation, const JointBounds& bounds) {
    const std::size_t joints = bounds.dof > 0 ? static_cast<std::size_t>(bounds.dof) : 0;
    if (bounds.lower.size() >= joints && bounds.upper.size() >= joints) return true;
    KELM_LOG(LOG_ERROR,
             "%s: joint limits unknown (%d lower and %d upper bounds for %d joints); "
             "run set_kelm_ready to read the arm configuration first",
             operation, static_cast<int>(bounds.lower.size()), static_cast<int>(bounds.upper.size()), bounds.dof);
    return false;
}

bool acceptJointTarget(const char* operation, const std::vector<double>& target, const JointBounds& bounds,
                       Json::Value& out) {
    if (static_cast<long long>(target.size()) != bounds.dof) {
        KELM_LOG(LOG_ERROR, "%s: 输入目标维度与臂维度不一致，输入维度: %d, 臂维度: %d", operation,
                 static_cast<int>(target.size()), bounds.dof);
        return false;
    }
    if (!acceptKnownLimits(operation, bounds)) return false;
    out = Json::Value(Json::arrayValue);
    for (std::size_t joint = 0; joint < target.size(); ++joint) {
        const double value = target[joint];
        const double lower = bounds.lower[joint];
        const double upper = bounds.upper[joint];
        if (!(value >= lower && value <= upper)) {
            KELM_LOG(LOG_ERROR, "关节[%d]数据超出限位. limit = [%f, %f], value = %f", static_cast<int>(joint), lower,
                     upper, value);
            return false;
        }
        out.append(value);
    }
    return true;
}

bool acceptUnitQuaternion(double norm_squared) {
    if (isUnitQuaternion(norm_squared)) return true;
    KELM_LOG(LOG_ERROR, "error: 输入四元数模不为1, 请检查目标输入, magnitude_squared = %f", norm_squared);
    return false;
}

bool acceptPoseTarget(const char* operation, const std::vector<double>& target, Json::Value& out) {
    if (target.size() != kPoseSize) {
        KELM_LOG(LOG_ERROR, "%s: 输入目标位姿维度不正确, 姿态默认四元数描述(xyzw), 输入维度: %d, 合理维度: 7",
                 operation, static_cast<int>(target.size()));
        return false;
    }
    if (!acceptUnitQuaternion(quaternionNormSquared(target))) return false;
    writeReals(target, out);
    return true;
}

bool acceptTarget(const char* operation, const std::vector<double>& target, bool is_joint, const JointBounds& bounds,
                  Json::Value& out) {
    return is_joint ? acceptJointTarget(operation, target, bounds, out) : acceptPoseTarget(operation, target, out);
}

bool isTaskReceived(const Json::Value& reply) {
    if (!reply.isObject()) return false;
    const Json::Value& recv = reply[protocol::key::kRecv];
    return recv.isString() && recv.asString() == protocol::kTaskReceived;
}

Json::Value motionRequest(const char* task_id, bool with_level) {
    Json::Value request;
    request[protocol::key::kCommand] = protocol::kTaskCommand;
    request[protocol::key::kTaskId] = task_id;
    if (with_level) request[protocol::key::kTaskLevel] = protocol::value::kTaskGeneral;
    return request;
}

Json::Value askController(KelmKernelImpl& kernel, Json::Value& request, int timeout_ms) {
    request[protocol::key::kArmIndex] = status_field::load(kernel.status.arm_index);
    std::string dropped_key;
    return kernel.cmd_server(request, dropped_key, timeout_ms);
}

int submitTask(KelmKernelImpl& kernel, const char* operation, Json::Value& request, std::string& task_key) {
    request[protocol::key::kArmIndex] = status_field::load(kernel.status.arm_index);
    const int result = kernel.read_reply(operation, kernel.cmd_server(request, task_key, protocol::kReplyTimeoutMs));
    if (result == 1) kernel.note_task_key(task_key);
    return result;
}

int submitTask(KelmKernelImpl& kernel, const char* operation, Json::Value& request) {
    return kernel.read_reply(operation, askController(kernel, request));
}

}  // namespace motion_checks
}  // namespace kelm
