// SimModel: tasks, kinematics, coordinates, calibrations and recordings.
#include <Eigen/Dense>

#include <algorithm>
#include <cmath>

#include "sim_json.h"
#include "sim_model.h"

namespace kelm {
namespace sim {
namespace {

constexpr int kPlanAttempts = 3;
constexpr double kToolCalibrationTolerance = 0.002;  // [m] RMS residual
constexpr double kReplayApproachShare = 0.5;         // of joint speed on the way to a replay's start

Json::Value numberList(const double* values, size_t count) {
    Json::Value list(Json::arrayValue);
    for (size_t i = 0; i < count; ++i) list.append(values[i]);
    return list;
}

std::vector<double> coordinateOf(const KDL::Frame& frame) {
    double roll = 0.0, pitch = 0.0, yaw = 0.0;
    frame.M.GetRPY(roll, pitch, yaw);
    return {frame.p.x(), frame.p.y(), frame.p.z(), roll, pitch, yaw};
}

// Joint vector of the arm's length from a calibration point: the client
// sends six values whatever the arm has.
std::vector<double> calibrationJoints(const std::vector<double>& values, int dof) {
    std::vector<double> joints(values);
    joints.resize(dof, 0.0);
    return joints;
}

}  // namespace

std::string SimModel::onTask(const Json::Value& request, Json::Value&) {
    const std::string key = readString(request, "task_key");
    for (int attempt = 0; attempt < kPlanAttempts; ++attempt) {
        std::string refused;
        SimArm* arm = nullptr;
        PlanContext context;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            arm = armOf(request, refused);
            if (!arm) return refused;
            refused = arm->taskRefusal();
            if (!refused.empty()) return refused;
            context = arm->planContext();
        }
        PlanOutcome outcome = planTask(request, context);
        if (!outcome.ok()) return outcome.error;
        std::lock_guard<std::mutex> lock(mutex_);
        refused = arm->taskRefusal();
        if (!refused.empty()) return refused;
        // The arm may have moved on while the plan was made: plan again.
        if (arm->queueEnd() != context.start_joints) continue;
        arm->enqueue(key, std::move(outcome.motion));
        return std::string();
    }
    return "the arm kept moving while the task was planned";
}

std::string SimModel::onKinematics(const Json::Value& request, Json::Value& reply) {
    PlanContext context;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string refused;
        SimArm* arm = armOf(request, refused);
        if (!arm) return refused;
        context = arm->planContext();
    }
    const Json::Value& data = request["data"];
    const std::string direction = readString(request, "task_id");
    const int tool = readInt(data, "tool", 0);
    const int user = readInt(data, "user", 0);
    const int count = readInt(data, "point_cnt", 0);
    if (direction != "forward" && direction != "inverse") return "task_id must be forward or inverse";
    if (count < 0) return "point_cnt must not be negative";
    const size_t dof = context.start_joints.size();
    Json::Value result(Json::objectValue);
    result["point_cnt"] = count;
    for (int k = 1; k <= count; ++k) {
        const std::string index = std::to_string(k);
        if (direction == "forward") {
            std::vector<double> joints;
            Pose pose;
            if (!readNumbers(data["joint" + index], joints) || joints.size() != dof)
                return "joint" + index + " must hold " + std::to_string(dof) + " finite values";
            if (!forwardPose(context, tool, user, joints, pose)) return "unknown tool or user index";
            result["point" + index] = numberList(pose.data(), pose.size());
        } else {
            std::vector<double> values, seed;
            if (!readNumbers(data["point" + index], values) || values.size() != 7)
                return "point" + index + " must hold 7 finite values";
            if (!readNumbers(data["refer" + index], seed) || seed.size() != dof) seed = context.start_joints;
            Pose pose;
            std::copy(values.begin(), values.end(), pose.begin());
            std::vector<double> joints;
            if (!inversePose(context, tool, user, pose, seed, joints)) joints.clear();
            result["joint" + index] = numberList(joints.data(), joints.size());
        }
    }
    reply["task_id"] = direction;
    reply["data"] = result;
    return std::string();
}

std::string SimModel::onGetCoordinate(const Json::Value& request, Json::Value& reply) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const std::string type = readString(request, "type");
    const int index = readInt(request, "index", -1);
    Pose pose;
    bool found = false;
    if (type == "tool")
        found = arm->toolPose(index, pose);
    else if (type == "user")
        found = arm->userPose(index, pose);
    else
        return "type must be tool or user";
    if (!found) return "no " + type + " coordinate " + std::to_string(index);
    reply["coordinate"] = numberList(pose.data(), pose.size());
    return std::string();
}

std::string SimModel::onToolData(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const std::string operation = readString(request, "operation");
    const int index = readInt(request, "index", -1);
    if (operation == "change") return arm->selectTool(index);
    std::vector<double> coordinate;
    if (operation != "update") return "operation must be change or update";
    if (!readNumbers(request["data"]["coord"], coordinate) || coordinate.size() != 6)
        return "data.coord must hold 6 finite values";
    return arm->updateTool(index, coordinate);
}

std::string SimModel::onUserData(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const std::string operation = readString(request, "operation");
    const int index = readInt(request, "index", -1);
    if (operation == "change") return arm->selectUser(index);
    std::vector<double> coordinate;
    if (operation != "update") return "operation must be change or update";
    if (!readNumbers(request["data"]["coord"], coordinate) || coordinate.size() != 6)
        return "data.coord must hold 6 finite values";
    return arm->updateUser(index, coordinate);
}

// The user frame becomes the tool tip's present frame.
std::string SimModel::onUserCalibration(const Json::Value& request, Json::Value& reply) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const Pose& tip = arm->telemetry().pose_tool;
    const std::string failed =
        arm->updateUser(readInt(request, "user", -1), coordinateOf(ArmKinematics::toFrame(tip.data())));
    reply["result"] = failed.empty() ? "ok" : "fail";
    if (!failed.empty()) reply["reason"] = failed;
    return std::string();
}

// Four-point method: the flange poses of the points hold the tool tip on
// one fixed spot; a least-squares fit gives the tip's offset.
std::string SimModel::onToolCalibration(const Json::Value& request, Json::Value& reply) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const Json::Value& data = request["data"];
    const Json::Value& points = data["pos"];
    const int dof = arm->telemetry().dof;
    reply["result"] = "fail";
    if (!points.isArray() || points.size() < 3) return std::string();
    const Eigen::Index rows = 3 * static_cast<Eigen::Index>(points.size());
    Eigen::MatrixXd system(rows, 6);
    Eigen::VectorXd rhs(rows);
    for (Json::ArrayIndex i = 0; i < points.size(); ++i) {
        std::vector<double> values;
        if (!readNumbers(points[i], values)) return std::string();
        const KDL::Frame flange = arm->kinematics().flange(calibrationJoints(values, dof));
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) system(3 * i + r, c) = flange.M(r, c);
            for (int c = 0; c < 3; ++c) system(3 * i + r, 3 + c) = r == c ? -1.0 : 0.0;
            rhs(3 * i + r) = -flange.p[r];
        }
    }
    const Eigen::VectorXd solution = system.colPivHouseholderQr().solve(rhs);
    const double residual = (system * solution - rhs).norm() / std::sqrt(static_cast<double>(points.size()));
    if (!std::isfinite(residual) || residual > kToolCalibrationTolerance) return std::string();
    const std::vector<double> coordinate = {solution(0), solution(1), solution(2), 0.0, 0.0, 0.0};
    if (!arm->updateTool(readInt(data, "tool_index", -1), coordinate).empty()) return std::string();
    reply["result"] = "ok";
    return std::string();
}

std::string SimModel::onTrajRecorder(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    if (readInt(request, "toRecord", 0) != 0)
        arm->startRecording("trajectory");
    else
        arm->stopRecording("trajectory");
    return std::string();
}

// task_id 1 starts teaching under a name, 0 ends it and keeps the samples,
// 2 plays a kept trajectory back as a task, 3 lists the kept names.
std::string SimModel::onTeachRecorder(const Json::Value& request, Json::Value& reply) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const std::string name = readString(request, "name");
    switch (readInt(request, "task_id", -1)) {
        case 0: arm->stopRecording(name); return std::string();
        case 1: arm->startRecording(name); return std::string();
        case 2: return onReplay(*arm, readString(request, "task_key"), name);
        case 3: {
            Json::Value names(Json::arrayValue);
            for (const auto& entry : arm->recordings()) names.append(entry.first);
            reply["count"] = names.size();
            reply["teach_list"] = names;
            return std::string();
        }
        default: return "task_id must be 0 to 3";
    }
}

std::string SimModel::onReplay(SimArm& arm, const std::string& key, const std::string& name) {
    const auto found = arm.recordings().find(name);
    if (found == arm.recordings().end() || found->second.times.empty()) return "no recording named '" + name + "'";
    std::string refused = arm.taskRefusal();
    if (!refused.empty()) return refused;
    const Recording& recording = found->second;
    const std::vector<double>& start = arm.queueEnd();
    // Time to reach the first sample at a moderate speed.
    double approach = 0.5;
    for (size_t i = 0; i < start.size(); ++i)
        approach = std::max(
            approach, std::fabs(recording.joints[0][i] - start[i]) / (kReplayApproachShare * arm.limits().vel[i]));
    std::vector<double> times{0.0};
    std::vector<std::vector<double>> points{start};
    for (size_t k = 0; k < recording.times.size(); ++k) {
        times.push_back(approach + recording.times[k] - recording.times[0]);
        if (times.back() <= times[times.size() - 2]) times.back() = times[times.size() - 2] + 1e-3;
        points.push_back(recording.joints[k]);
    }
    arm.enqueue(key, timedMotion(times, points, {}));
    return std::string();
}

std::string SimModel::onZeroPosition(const Json::Value& request, Json::Value& reply) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const int axis = readInt(request, "axis_id", -1);
    reply["ret"] = axis >= 0 && axis <= arm->telemetry().dof ? 0 : -1;
    return std::string();
}

std::string SimModel::onDynamicsCalibration(const Json::Value& request, Json::Value& reply) {
    const std::string operation = readString(request, "operation");
    if (operation == "record") {
        dynamics_recorded_ = true;
        reply["ret"] = 0;
        return std::string();
    }
    if (operation != "calibrate") return "operation must be record or calibrate";
    std::string refused;
    if (!armOf(request, refused)) return refused;
    const std::string type = readString(request, "type");
    if (type != "payload" && type != "arm") return "type must be payload or arm";
    reply["ret"] = dynamics_recorded_ ? 0 : -1;
    return std::string();
}

}  // namespace sim
}  // namespace kelm
