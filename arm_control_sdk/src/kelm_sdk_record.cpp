// Recording, teaching and controller calibration of KelmKernelImpl: one
// request and one reply each, no state on this side. In the "teachRecorder"
// family `task_id` is an integer naming the sub-command.
#include <json/json.h>

#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "motion_checks.h"
#include "protocol.h"

namespace kelm {

using namespace motion_checks;

namespace {

constexpr int kTeachStop = 0;
constexpr int kTeachStart = 1;
constexpr int kTeachRecord = 2;
constexpr int kTeachList = 3;

Json::Value teachRequest(int sub_command, const std::string& name) {
    Json::Value request;
    request[protocol::key::kCommand] = protocol::command::kTeachRecorder;
    request[protocol::key::kTaskId] = sub_command;
    request[protocol::key::kName] = name;
    return request;
}

// The controller's `ret` of an accepted reply (0 when absent), -1 for no
// reply or a refused request.
int controllerResult(const Json::Value& reply) {
    if (!isTaskReceived(reply)) return -1;
    return reply.isMember(protocol::key::kRet) ? reply[protocol::key::kRet].asInt() : 0;
}

Json::Value dynamicsCalibrationRequest(const char* operation) {
    Json::Value request;
    request[protocol::key::kCommand] = protocol::command::kDynamicsCalibration;
    request[protocol::key::kOperation] = operation;
    return request;
}

}  // namespace

int KelmKernelImpl::set_traj_recorder(int to_record) {
    Json::Value request;
    request[protocol::key::kCommand] = protocol::command::kSetTrajRecorder;
    request[protocol::key::kToRecord] = to_record;
    return submitTask(*this, __func__, request);
}

int KelmKernelImpl::trajectory_teach(bool flag, std::string name) {
    Json::Value request = teachRequest(flag ? kTeachStart : kTeachStop, name);
    return submitTask(*this, __func__, request);
}

int KelmKernelImpl::trajectory_recorder(std::string name) {
    Json::Value request = teachRequest(kTeachRecord, name);
    return submitTask(*this, __func__, request);
}

int KelmKernelImpl::check_teach(std::vector<std::string>& teach_list) {
    Json::Value request = teachRequest(kTeachList, "");
    const Json::Value reply = askController(*this, request, protocol::kLongReplyTimeoutMs);
    // The list is judged by its count alone; `recv` is not looked at.
    if (!reply.isObject() || !reply.isMember(protocol::key::kCount)) return -1;
    const int count = reply[protocol::key::kCount].asInt();
    if (count < 0) return -1;
    const Json::Value& names = reply[protocol::key::kTeachList];
    teach_list.resize(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        // Names the array lacks read as the empty string.
        const Json::Value& name = names.isArray() ? names[i] : Json::Value::nullSingleton();
        teach_list[i] = name.asString();
    }
    return 1;
}

int KelmKernelImpl::set_zero_position(int axis_id) {
    Json::Value request;
    request[protocol::key::kCommand] = protocol::command::kSetZeroPosition;
    request[protocol::key::kAxisId] = axis_id;
    return controllerResult(askController(*this, request));
}

// Recording for the dynamics calibration concerns the controller as a whole,
// so this request names no arm.
int KelmKernelImpl::set_dynamics_cali_record_flag() {
    const Json::Value request = dynamicsCalibrationRequest(protocol::value::kRecord);
    std::string dropped_key;
    return controllerResult(cmd_server(request, dropped_key, protocol::kReplyTimeoutMs));
}

int KelmKernelImpl::set_dynamics_cali_calcu(bool payload) {
    Json::Value request = dynamicsCalibrationRequest(protocol::key::kCalibrate);
    request[protocol::key::kType] = payload ? protocol::key::kPayload : protocol::key::kArm;
    return controllerResult(askController(*this, request));
}

}  // namespace kelm
