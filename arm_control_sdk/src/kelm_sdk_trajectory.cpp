// Trajectory motions of KelmKernelImpl: a path timed by the controller
// (move_toppra, "TASK_MOVT") and a path with its own time stamps and gripper
// positions (move_pvt, "TASK_PVT"). Both carry all points in one request.
#include <json/json.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "motion_checks.h"
#include "protocol.h"

namespace kelm {

using namespace motion_checks;

namespace {

// Longest allowed step between two time stamps [s].
constexpr double kMaxStampStep = 3600.0;
// How far a first point stamped 0 may lie from the current position: per
// joint [rad], per pose element.
constexpr double kJointStartTolerance = 0.035;
constexpr double kPoseStartTolerance = 0.004;

const char* const kStampMessage = "请保证时间大于0且时间戳序列递增.";
const char* const kTimeCountMessage = "点位与时间戳维度不一致,请检查数据.";

// The time stamps and gripper positions must fit the points: `times` must
// hold one stamp per point, or, with gripper positions, either list may.
bool acceptPvtListLengths(std::size_t points, const std::vector<double>& gripper, const std::vector<double>& times) {
    if (gripper.empty()) {
        if (times.size() == points) return true;
        KELM_LOG(LOG_ERROR, kTimeCountMessage);
        return false;
    }
    if (times.size() == points || gripper.size() == points) return true;
    KELM_LOG(LOG_ERROR, "点位与时间戳或点位与夹爪维度不一致,请检查数据.");
    return false;
}

// Each of the first `points` stamps must be above 0, above its predecessor
// and less than kMaxStampStep after it. Written to `out` as they pass.
bool acceptTimeStamps(std::size_t points, const std::vector<double>& times, Json::Value& out) {
    if (times.size() < points) {
        KELM_LOG(LOG_ERROR, kTimeCountMessage);
        return false;
    }
    out = Json::Value(Json::arrayValue);
    double previous = 0.0;
    for (std::size_t k = 0; k < points; ++k) {
        const double stamp = times[k];
        if (!(stamp > 0.0 && stamp > previous && stamp - previous < kMaxStampStep)) {
            KELM_LOG(LOG_ERROR, kStampMessage);
            return false;
        }
        out.append(stamp);
        previous = stamp;
    }
    return true;
}

// True if any element that both lists hold differs by more than `tolerance`.
template <typename Current>
bool liesFarFrom(const std::vector<double>& point, const Current& current, std::size_t count, double tolerance) {
    const std::size_t compared = std::min({count, point.size(), static_cast<std::size_t>(current.size())});
    for (std::size_t i = 0; i < compared; ++i) {
        if (std::fabs(point[i] - current[i]) > tolerance) return true;
    }
    return false;
}

void refuseFarStart() { KELM_LOG(LOG_ERROR, "检测到时间戳为0且离当前点较远,请重新设置起始位置."); }

bool acceptPvtJointPoint(std::size_t number, const std::vector<double>& point, const JointBounds& bounds,
                         Json::Value& out) {
    if (static_cast<long long>(point.size()) != bounds.dof) {
        KELM_LOG(LOG_ERROR, "第[%d]组数据只有%d个,请保证关节数据长度为%d.", static_cast<int>(number),
                 static_cast<int>(point.size()), bounds.dof);
        return false;
    }
    if (!acceptKnownLimits("move_pvt", bounds)) return false;
    out = Json::Value(Json::arrayValue);
    for (std::size_t joint = 0; joint < point.size(); ++joint) {
        const double value = point[joint];
        if (!(value >= bounds.lower[joint] && value <= bounds.upper[joint])) {
            KELM_LOG(LOG_ERROR, "给定点[%d][%d]超过关节限位.", static_cast<int>(number), static_cast<int>(joint + 1));
            return false;
        }
        out.append(value);
    }
    return true;
}

bool acceptPvtPosePoint(std::size_t number, const std::vector<double>& point, Json::Value& out) {
    if (point.size() != kPoseSize) {
        KELM_LOG(LOG_ERROR, "第[%d]组数据只有%d个,请保证笛卡尔空间下位置数据长度为7.", static_cast<int>(number),
                 static_cast<int>(point.size()));
        return false;
    }
    if (!acceptUnitQuaternion(quaternionNormSquared(point))) return false;
    writeReals(point, out);
    return true;
}

}  // namespace

int KelmKernelImpl::move_toppra(const std::vector<std::vector<double>>& targets, std::string& task_key, double speed,
                                int tool, int user, bool is_joint) {
    Json::Value request = motionRequest(protocol::task_id::kMovt, kWithLevel);
    Json::Value& data = request[protocol::key::kData];
    data[protocol::key::kPointNum] = static_cast<int>(targets.size());
    for (const std::vector<double>& point : targets) {
        if (!acceptLegalValues(point)) return refuse_input(__func__);
    }
    const JointBounds bounds = jointBoundsOf(*this);
    for (std::size_t i = 0; i < targets.size(); ++i) {
        Json::Value& way_point = data[protocol::key::kWayPoint + std::to_string(i + 1)];
        if (!acceptTarget("move_toppra", targets[i], is_joint, bounds, way_point)) return refuse_input(__func__);
    }
    data[protocol::key::kSpeed] = speed;
    data[protocol::key::kAcc] = speed;
    data[protocol::key::kUser] = user;
    data[protocol::key::kTool] = tool;
    request[protocol::key::kPointType][protocol::key::kSpace] = is_joint ? 0 : 1;
    return submitTask(*this, __func__, request, task_key);
}

int KelmKernelImpl::move_pvt(const std::vector<std::vector<double>>& targets, const std::vector<double>& gripper,
                             const std::vector<double>& times, std::string& task_key, bool is_joint) {
    const std::size_t points = targets.size();
    Json::Value request = motionRequest(protocol::task_id::kPvt, kWithLevel);
    request[protocol::key::kPointType][protocol::key::kSpace] = is_joint ? 0 : 1;
    if (!acceptPvtListLengths(points, gripper, times)) return refuse_input(__func__);

    Json::Value& gripper_part = request[protocol::key::kGripper];
    if (gripper.empty()) {
        gripper_part[protocol::key::kGripperLinkage] = 0;
    } else {
        if (!acceptLegalValues(gripper)) return refuse_input(__func__);
        if (end_effector.connected) {
            gripper_part[protocol::key::kGripperLinkage] = 1;
            Json::Value& eeffe_point = gripper_part[protocol::key::kEeffePoint];
            eeffe_point = Json::Value(Json::arrayValue);
            for (double value : gripper) eeffe_point.append(std::clamp(value, 0.0, protocol::kGripperMaxPos));
        } else {
            gripper_part[protocol::key::kGripperLinkage] = 0;
            KELM_LOG(LOG_ERROR, "夹抓未连接，无法联动控制夹抓");
        }
    }

    if (!acceptLegalValues(times)) return refuse_input(__func__);
    Json::Value& data = request[protocol::key::kData];
    if (!acceptTimeStamps(points, times, data["time"])) return refuse_input(__func__);
    for (const std::vector<double>& point : targets) {
        if (!acceptLegalValues(point)) return refuse_input(__func__);
    }
    if (points == 0) {
        KELM_LOG(LOG_ERROR, "move_pvt: the trajectory holds no point, nothing sent");
        return refuse_input(__func__);
    }

    // A trajectory stamped to start at once must start where the arm stands.
    // The stamp rules above already refuse a first stamp of 0, so this guard
    // holds only if they are ever loosened; the measured state, read without
    // a lock, is looked at only in that case.
    const bool starts_at_once = times[0] == 0.0;
    const JointBounds bounds = jointBoundsOf(*this);
    Json::Value& pos = data[protocol::key::kPos];
    pos = Json::Value(Json::arrayValue);
    if (is_joint) {
        const std::size_t joints = bounds.dof > 0 ? static_cast<std::size_t>(bounds.dof) : 0;
        if (starts_at_once && liesFarFrom(targets[0], joint_pos, joints, kJointStartTolerance)) {
            refuseFarStart();
            return refuse_input(__func__);
        }
        for (std::size_t i = 0; i < points; ++i) {
            if (!acceptPvtJointPoint(i + 1, targets[i], bounds, pos.append(Json::Value())))
                return refuse_input(__func__);
        }
    } else {
        if (starts_at_once && liesFarFrom(targets[0], cart_pose, kPoseSize, kPoseStartTolerance)) {
            refuseFarStart();
            return refuse_input(__func__);
        }
        for (std::size_t i = 0; i < points; ++i) {
            if (!acceptPvtPosePoint(i + 1, targets[i], pos.append(Json::Value()))) return refuse_input(__func__);
        }
    }
    return submitTask(*this, __func__, request, task_key);
}

}  // namespace kelm
