// Single-target motions of KelmKernelImpl: jogs, joint and line moves, the
// pass-through move_directly, arcs, the jump and the delay. Each checks its
// input, builds one "webRecieveTasks" request and reads whether the
// controller took it; none waits for the motion itself.
#include <json/json.h>

#include <array>
#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "motion_checks.h"
#include "print_array.h"

namespace kelm {

using namespace motion_checks;

namespace {

Json::Value jogRequest(const char* task_id, int index, int dir, double speed) {
    Json::Value request = motionRequest(task_id, kWithoutLevel);
    request[protocol::key::kIndex] = index;
    request[protocol::key::kDir] = dir;
    request[protocol::key::kData][protocol::key::kSpeed] = speed;
    return request;
}

// How move_joint and move_line differ: their name in messages, task kind,
// target key, and whether the acceleration goes out.
struct SingleTargetMove {
    const char* operation;
    const char* task_id;
    const char* target_key;
    bool sends_acc;
};

constexpr SingleTargetMove kMoveJoint{"move_joint", protocol::task_id::kMovj, protocol::key::kTargetPos, false};
constexpr SingleTargetMove kMoveLine{"move_line", protocol::task_id::kMovl, protocol::key::kPoint, true};

// The two arc operations differ in their arc type and their name.
struct ArcMove {
    const char* operation;
    int type;
};

constexpr ArcMove kThreePointArc{"move_3p_arc", 0};
constexpr ArcMove kCenterArc{"move_center_arc", 1};

// Gripper positions of move_directly: anything below 0, and NaN, becomes the
// integer 0; there is no upper clamp.
Json::Value directGripperPoints(const std::vector<double>& gripper) {
    Json::Value points(Json::arrayValue);
    for (double value : gripper) {
        if (value >= 0.0) {
            points.append(value);
        } else {
            points.append(0);
        }
    }
    return points;
}

Pose offsetPosition(const Pose& pose, const std::array<double, 3>& offset) {
    Pose moved = pose;
    for (std::size_t axis = 0; axis < offset.size(); ++axis) moved[axis] += offset[axis];
    return moved;
}

void logPose(const char* title, const Pose& pose) {
    getLogInstance()->printArray(__FILE__, __LINE__, LOG_INFO, title, pose, 6, ", ");
}

int sendSingleTargetMove(KelmKernelImpl& kernel, const SingleTargetMove& move, const std::vector<double>& target,
                         std::string& task_key, double speed, int tool, int user, bool is_joint) {
    Json::Value request = motionRequest(move.task_id, kWithLevel);
    Json::Value& data = request[protocol::key::kData];
    data[protocol::key::kSpeed] = speed;
    if (move.sends_acc) data[protocol::key::kAcc] = speed;
    data[protocol::key::kUser] = user;
    data[protocol::key::kTool] = tool;
    if (!acceptLegalValues(target) ||
        !acceptTarget(move.operation, target, is_joint, jointBoundsOf(kernel), data[move.target_key])) {
        return kernel.refuse_input(move.operation);
    }
    request[protocol::key::kPointType][protocol::key::kSpace] = is_joint ? 0 : 1;
    return submitTask(kernel, move.operation, request, task_key);
}

int sendArcMove(KelmKernelImpl& kernel, const ArcMove& arc, const std::array<std::vector<double>, 3>& points,
                std::string& task_key, double speed, bool dir, double radian, int tool, int user, bool is_joint) {
    Json::Value request = motionRequest(protocol::task_id::kMovc, kWithoutLevel);
    request[protocol::key::kPointType][protocol::key::kSpace] = is_joint ? 0 : 1;
    Json::Value& data = request[protocol::key::kData];
    data[protocol::key::kSpeed] = speed;
    data[protocol::key::kAcc] = speed;
    data[protocol::key::kType] = arc.type;
    data[protocol::key::kDir] = dir ? 0 : 1;
    if (radian > 0.0) data[protocol::key::kRadian] = radian;
    data[protocol::key::kUser] = user;
    data[protocol::key::kTool] = tool;
    const JointBounds bounds = jointBoundsOf(kernel);
    Json::Value& sent_points = data[protocol::key::kPoints];
    sent_points = Json::Value(Json::arrayValue);
    for (Json::ArrayIndex k = 0; k < points.size(); ++k) {
        if (!acceptLegalValues(points[k]) ||
            !acceptTarget(arc.operation, points[k], is_joint, bounds, sent_points[k])) {
            return kernel.refuse_input(arc.operation);
        }
    }
    return submitTask(kernel, arc.operation, request, task_key);
}

}  // namespace

int KelmKernelImpl::move_joint_jog(int index, int dir, double speed) {
    Json::Value request = jogRequest(protocol::task_id::kMovjJog, index, dir, speed);
    return submitTask(*this, __func__, request);
}

int KelmKernelImpl::move_line_jog(int index, int dir, double speed, int tool, int user) {
    Json::Value request = jogRequest(protocol::task_id::kMovlJog, index, dir, speed);
    Json::Value& data = request[protocol::key::kData];
    data[protocol::key::kAcc] = speed;
    data[protocol::key::kUser] = user;
    data[protocol::key::kTool] = tool;
    return submitTask(*this, __func__, request);
}

int KelmKernelImpl::move_joint(const std::vector<double>& target, std::string& task_key, double speed, int tool,
                               int user, bool is_joint) {
    return sendSingleTargetMove(*this, kMoveJoint, target, task_key, speed, tool, user, is_joint);
}

int KelmKernelImpl::move_line(std::vector<double> target, std::string& task_key, double speed, int tool, int user,
                              bool is_joint) {
    return sendSingleTargetMove(*this, kMoveLine, target, task_key, speed, tool, user, is_joint);
}

int KelmKernelImpl::move_directly(const std::vector<std::vector<double>>& targets, std::string& task_key,
                                  const std::vector<double>& gripper) {
    Json::Value request = motionRequest(protocol::task_id::kMovd, kWithLevel);
    if (!targets.empty()) {
        Json::Value& target_points = request[protocol::key::kTargetPoints];
        target_points = Json::Value(Json::arrayValue);
        for (const std::vector<double>& point : targets) writeReals(point, target_points.append(Json::Value()));
    }
    Json::Value& gripper_part = request[protocol::key::kGripper];
    if (gripper.empty()) {
        gripper_part[protocol::key::kGripperLinkage] = 0;
    } else if (gripper.size() != targets.size()) {
        KELM_LOG(LOG_ERROR, "点位与夹爪维度不一致,请检查数据.");
        return refuse_input(__func__);
    } else if (end_effector.connected) {
        gripper_part[protocol::key::kGripperLinkage] = 1;
        gripper_part[protocol::key::kEeffePoint] = directGripperPoints(gripper);
    } else {
        gripper_part[protocol::key::kGripperLinkage] = 0;
        KELM_LOG(LOG_ERROR, "夹抓未连接，无法联动控制夹抓");
    }
    return submitTask(*this, __func__, request, task_key);
}

int KelmKernelImpl::move_3p_arc(const std::array<std::vector<double>, 3>& points, std::string& task_key, double speed,
                                bool dir, double radian, int tool, int user, bool is_joint) {
    return sendArcMove(*this, kThreePointArc, points, task_key, speed, dir, radian, tool, user, is_joint);
}

int KelmKernelImpl::move_center_arc(const std::array<std::vector<double>, 3>& points, std::string& task_key,
                                    double speed, bool dir, double radian, int tool, int user, bool is_joint) {
    return sendArcMove(*this, kCenterArc, points, task_key, speed, dir, radian, tool, user, is_joint);
}

int KelmKernelImpl::move_jump(std::array<double, 7> target, std::array<double, 3> up, std::array<double, 3> down,
                              std::string& task_key, double speed, int tool, int user) {
    if (!acceptLegalValues(target) || !acceptLegalValues(up) || !acceptLegalValues(down) ||
        !acceptUnitQuaternion(quaternionNormSquared(target))) {
        return refuse_input(__func__);
    }

    const std::vector<double> start_joints = plan_joint_pos.empty() ? joint_pos : plan_joint_pos;
    Pose start{};
    // forwardKine logs its own failure.
    if (forwardKine(tool, user, start_joints, start) != 1) return -1;

    const Pose jump_up = offsetPosition(start, up);
    const Pose jump_down = offsetPosition(target, down);
    logPose("start Pos", start);
    logPose("jump up Pos", jump_up);
    logPose("jump down Pos", jump_down);
    logPose("target Pos", target);

    std::vector<std::vector<double>> path;
    for (const Pose& pose : {start, jump_up, jump_down, target}) path.emplace_back(pose.begin(), pose.end());
    return move_toppra(path, task_key, speed, tool, user, false);
}

// The controller's timer task has no level: a delay is always queued like any
// other task, so `override_level` does not reach the request.
int KelmKernelImpl::move_delay(double time, int /*override_level*/) {
    Json::Value request = motionRequest(protocol::task_id::kTimer, kWithoutLevel);
    request[protocol::key::kData][protocol::key::kTime] = time;
    return submitTask(*this, __func__, request);
}

}  // namespace kelm
