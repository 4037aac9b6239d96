// Forward and inverse kinematics of KelmKernelImpl, asked of the controller:
// a whole batch of points travels in one "getKinematics" request (3000 ms),
// and the reply's own point count sizes the answer.
#include <json/json.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "motion_checks.h"
#include "print_array.h"
#include "protocol.h"
#include "status_field.h"

namespace kelm {

using namespace motion_checks;

namespace {

// "joint1", "point3", "refer3": the numbered point keys, counted from 1.
std::string pointKey(const char* word, std::size_t number) {
    char key[48];
    std::snprintf(key, sizeof key, "%s%lu", word, static_cast<unsigned long>(number));
    return key;
}

Json::Value kinematicsRequest(const char* direction, int tool, int user, std::size_t point_count) {
    Json::Value request;
    request[protocol::key::kCommand] = protocol::command::kGetKinematics;
    request[protocol::key::kTaskId] = direction;
    Json::Value& data = request[protocol::key::kData];
    data[protocol::key::kUser] = user;
    data[protocol::key::kTool] = tool;
    data[protocol::key::kPointCnt] = static_cast<int>(point_count);
    return request;
}

// Records a reply the controller took but whose content is unusable; the
// reason is the level-1 line just logged. Returns -1.
int refuseReplyContent(KelmKernelImpl& kernel, const char* operation) {
    kernel.note_refusal(operation, RefusalKind::controller, LogManager::lastErrorLineOfThisThread());
    return -1;
}

// The `data` object of a reply, or null when the reply has none.
const Json::Value& replyData(const Json::Value& reply) {
    const Json::Value& data = reply[protocol::key::kData];
    return data.isObject() ? data : Json::Value::nullSingleton();
}

// The number of points an accepted reply holds, or -1 when the reply was not
// accepted or its count is unusable, recorded as the kernel's refusal. A null
// reply is logged by cmd_server.
int acceptedPointCount(KelmKernelImpl& kernel, const Json::Value& reply, const char* operation) {
    if (!reply.isObject()) return kernel.read_reply(operation, reply);
    if (!isTaskReceived(reply)) {
        KELM_LOG(LOG_INFO, "%s error", operation);
        return kernel.read_reply(operation, reply);
    }
    const Json::Value& count = replyData(reply)[protocol::key::kPointCnt];
    if (!count.isConvertibleTo(Json::intValue) || count.asInt() < 0) {
        KELM_LOG(LOG_ERROR, "%s error, unusable point_cnt in the reply", operation);
        return refuseReplyContent(kernel, operation);
    }
    return count.asInt();
}

void logIllegalQuaternion(std::size_t index, double norm_squared, const Pose& pose) {
    KELM_LOG(LOG_ERROR, "error: 输入四元数模不为1, 请检查quat_poses[%d], magnitude_squared =%f",
             static_cast<int>(index), norm_squared);
    getLogInstance()->printArray(__FILE__, __LINE__, LOG_INFO, "quat_pose: ", pose, 6, ", ");
}

}  // namespace

int KelmKernelImpl::forwardKine(int tool, int user, const std::vector<std::vector<double>>& jnt_values,
                                std::vector<Pose>& out_poses) {
    KELM_LOG(LOG_INFO, "forwardKine");
    Json::Value request = kinematicsRequest(protocol::value::kForward, tool, user, jnt_values.size());
    if (jnt_values.empty()) {
        KELM_LOG(LOG_ERROR, "error: jnt_values empty");
        return refuse_input(__func__);
    }
    const int dof = status_field::load(status.dof);
    Json::Value& data = request[protocol::key::kData];
    for (std::size_t i = 0; i < jnt_values.size(); ++i) {
        const std::vector<double>& joints = jnt_values[i];
        if (!acceptLegalValues(joints)) return refuse_input(__func__);
        if (static_cast<long long>(joints.size()) != dof) {
            KELM_LOG(LOG_ERROR, "error: jnt_values[%d] size is unreasonable, %d / %d", static_cast<int>(i),
                     static_cast<int>(joints.size()), dof);
            return refuse_input(__func__);
        }
        writeReals(joints, data[pointKey(protocol::key::kJoint, i + 1)]);
    }
    const Json::Value reply = askController(*this, request, protocol::kLongReplyTimeoutMs);

    const int count = acceptedPointCount(*this, reply, __func__);
    if (count < 0) return -1;
    out_poses.assign(static_cast<std::size_t>(count), Pose{});
    const Json::Value& reply_data = replyData(reply);
    for (int k = 1; k <= count; ++k) {
        const Json::Value& pose = reply_data[pointKey(protocol::key::kPoint, k)];
        if (!pose.isArray() || pose.size() != kPoseSize) {
            KELM_LOG(LOG_ERROR, "forwardKine error, 返回位姿维度不为7");
            return refuseReplyContent(*this, __func__);
        }
        for (Json::ArrayIndex j = 0; j < kPoseSize; ++j) out_poses[k - 1][j] = pose[j].asDouble();
    }
    return 1;
}

int KelmKernelImpl::forwardKine(int tool, int user, const std::vector<double>& jnt_value, Pose& out_pose) {
    std::vector<Pose> poses;
    const int result = forwardKine(tool, user, std::vector<std::vector<double>>{jnt_value}, poses);
    if (result != 1) return result;
    if (poses.empty()) {
        KELM_LOG(LOG_ERROR, "forwardKine error, the reply holds no pose");
        return refuseReplyContent(*this, __func__);
    }
    out_pose = poses[0];
    return 1;
}

int KelmKernelImpl::inverseKine(int tool, int user, const std::vector<Pose>& quat_poses,
                                const std::vector<std::vector<double>>& ref_joints,
                                std::vector<std::vector<double>>& out_joints) {
    KELM_LOG(LOG_INFO, "inverseKine");
    Json::Value request = kinematicsRequest(protocol::value::kInverse, tool, user, quat_poses.size());
    if (ref_joints.size() != quat_poses.size()) {
        KELM_LOG(LOG_ERROR, "error: quat_poses size != ref_joints size");
        return refuse_input(__func__);
    }
    if (quat_poses.empty()) {
        KELM_LOG(LOG_ERROR, "error: quat_poses empty");
        return refuse_input(__func__);
    }
    // The whole batch is searched for illegal values before anything else.
    for (std::size_t i = 0; i < quat_poses.size(); ++i) {
        if (!acceptLegalValues(quat_poses[i]) || !acceptLegalValues(ref_joints[i])) {
            return refuse_input(__func__);
        }
    }
    const int dof = status_field::load(status.dof);
    Json::Value& data = request[protocol::key::kData];
    for (std::size_t i = 0; i < quat_poses.size(); ++i) {
        const std::vector<double>& reference = ref_joints[i];
        if (static_cast<long long>(reference.size()) != dof) {
            KELM_LOG(LOG_ERROR, "error: ref_joints[%d] size is unreasonable, %d / %d", static_cast<int>(i),
                     static_cast<int>(reference.size()), dof);
            return refuse_input(__func__);
        }
        const double norm_squared = quaternionNormSquared(quat_poses[i]);
        if (!isUnitQuaternion(norm_squared)) {
            logIllegalQuaternion(i, norm_squared, quat_poses[i]);
            return refuse_input(__func__);
        }
        writeReals(quat_poses[i], data[pointKey(protocol::key::kPoint, i + 1)]);
        writeReals(reference, data[pointKey(protocol::key::kRefer, i + 1)]);
    }
    const Json::Value reply = askController(*this, request, protocol::kLongReplyTimeoutMs);

    const int count = acceptedPointCount(*this, reply, __func__);
    if (count < 0) return -1;
    out_joints.assign(static_cast<std::size_t>(count), std::vector<double>());
    const Json::Value& reply_data = replyData(reply);
    int unsolved = 0;  // the first pose without a solution, counted from 1
    for (int k = 1; k <= count; ++k) {
        const Json::Value& joints = reply_data[pointKey(protocol::key::kJoint, k)];
        std::vector<double>& solution = out_joints[k - 1];
        if (joints.isArray()) {
            for (const Json::Value& value : joints) solution.push_back(value.asDouble());
        }
        // A pose the controller found no solution for comes back empty.
        if (solution.empty() && unsolved == 0) unsolved = k;
    }
    if (unsolved == 0) return 1;
    note_refusal(__func__, RefusalKind::controller,
                 "the controller found no joint solution for pose " + std::to_string(unsolved));
    return -1;
}

int KelmKernelImpl::inverseKine(int tool, int user, const Pose& quat_pose, const std::vector<double>& ref_joint,
                                std::vector<double>& out_joint) {
    std::vector<std::vector<double>> solutions;
    const int result =
        inverseKine(tool, user, std::vector<Pose>{quat_pose}, std::vector<std::vector<double>>{ref_joint}, solutions);
    if (result != 1) return result;
    if (solutions.empty()) {
        KELM_LOG(LOG_ERROR, "inverseKine error, the reply holds no joint position");
        return refuseReplyContent(*this, __func__);
    }
    out_joint = solutions[0];
    return 1;
}

}  // namespace kelm
