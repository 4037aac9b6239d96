// SimModel: dispatch, arm-wide commands, stop signals, streaming and frames.
#include "sim_model.h"

#include <algorithm>
#include <cmath>

#include "sim_json.h"

namespace kelm {
namespace sim {

SimModel::SimModel(int arms, int dof, const OperatorSettings& hand, const WallSettings& wall) {
    arms_.reserve(arms);
    for (int i = 0; i < arms; ++i) arms_.emplace_back(i, dof, hand, wall);
    for (const auto& arm : arms_) frame_arms_.push_back(&arm.telemetry());
}

const std::vector<std::pair<std::string, SimModel::Route>>& SimModel::routes() {
    static const std::vector<std::pair<std::string, Route>> table = {
        {"setServoEnable", {&SimModel::onServo, false}},
        {"setControlMode", {&SimModel::onControlMode, false}},
        {"setEffectorCtr", {&SimModel::onEffector, false}},
        {"setCollisionConfig", {&SimModel::onCollision, false}},
        {"setTeleoperationMode", {&SimModel::onTeleoperation, false}},
        {"stopSignals", {&SimModel::onStopSignal, false}},
        {"setControllerErrorReset", {&SimModel::onErrorReset, false}},
        {"setSpeedLevel", {&SimModel::onSpeedLevel, false}},
        {"setDebugMode", {&SimModel::onDebug, false}},
        {"getArmIntrinsicProperties", {&SimModel::onProperties, false}},
        {"getJointParams", {&SimModel::onJointParams, false}},
        {"trajectoryTrackingTasks", {&SimModel::onTracking, true}},
        {"setRedundancyTau", {&SimModel::onRedundancyTau, false}},
        {"webRecieveTasks", {&SimModel::onTask, true}},
        {"getKinematics", {&SimModel::onKinematics, true}},
        {"getCoordinate", {&SimModel::onGetCoordinate, false}},
        {"setToolData", {&SimModel::onToolData, false}},
        {"setUserData", {&SimModel::onUserData, false}},
        {"userCalibration", {&SimModel::onUserCalibration, false}},
        {"toolCalibrate", {&SimModel::onToolCalibration, false}},
        {"setTrajRecorder", {&SimModel::onTrajRecorder, false}},
        {"teachRecorder", {&SimModel::onTeachRecorder, false}},
        {"setZeroPosition", {&SimModel::onZeroPosition, false}},
        {"dynamicsCalibration", {&SimModel::onDynamicsCalibration, false}},
        {"getSceneState", {&SimModel::onSceneState, false}},
        {"resetScene", {&SimModel::onResetScene, false}},
    };
    return table;
}

bool SimModel::isStreaming(const std::string& command) {
    return command == "trajectoryTrackingTasks" || command == "setRedundancyTau" || command == "setEffectorCtr";
}

Json::Value SimModel::refusal(const Json::Value& request, const std::string& reason) {
    Json::Value reply(Json::objectValue);
    reply["command"] = request.get("command", Json::Value(""));
    reply["task_key"] = request.get("task_key", Json::Value(""));
    reply["recv"] = kRecvRefused;
    reply["err_msg"] = reason;
    return reply;
}

std::optional<Json::Value> SimModel::handle(const Json::Value& request) {
    const std::string command = readString(request, "command");
    const auto& table = routes();
    const auto route =
        std::find_if(table.begin(), table.end(), [&](const auto& entry) { return entry.first == command; });
    if (route == table.end()) return refusal(request, "unknown command '" + command + "'");

    Json::Value reply(Json::objectValue);
    reply["command"] = command;
    reply["task_key"] = request.get("task_key", Json::Value(""));
    std::string refused;
    if (route->second.locks_itself) {
        refused = (this->*route->second.handler)(request, reply);
    } else {
        std::lock_guard<std::mutex> lock(mutex_);
        refused = (this->*route->second.handler)(request, reply);
    }
    if (isStreaming(command)) {
        if (!refused.empty()) ++refused_stream_messages_;
        return std::nullopt;
    }
    if (!refused.empty()) return refusal(request, refused);
    reply["recv"] = kRecvTaken;
    return reply;
}

SimArm* SimModel::armOf(const Json::Value& request, std::string& refusal) {
    const int index = readInt(request, "arm_index", 0);
    if (index < 0 || index >= armCount()) {
        refusal = "arm_index " + std::to_string(index) + " is not an arm of this controller";
        return nullptr;
    }
    return &arms_[index];
}

void SimModel::step(double dt) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int i = 0; i < armCount(); ++i) {
        if (physics_) arms_[i].sense(physics_->sensed(i));
        arms_[i].step(dt);
        if (physics_) physics_->command(i, arms_[i].bodyCommand());
    }
}

const std::string& SimModel::writeFrame(StateFrameWriter& writer, std::uint64_t count, double unix_time) {
    std::lock_guard<std::mutex> lock(mutex_);
    FrameHeader header;
    header.count = count;
    header.unix_time = unix_time;
    header.debug = debug_;
    for (const auto& arm : arms_) {
        const ArmTelemetry& t = arm.telemetry();
        if (t.error_code == 0) continue;
        header.error = t.error_code;
        header.error_arm_index = t.index;
        header.error_msg = &t.error_msg;
        break;
    }
    return writer.write(header, frame_arms_);
}

void SimModel::raiseError(int arm, int code, const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (arm >= 0 && arm < armCount()) arms_[arm].raiseError(code, message);
}

void SimModel::resetError(int arm) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (arm >= 0 && arm < armCount()) arms_[arm].resetError();
}

ArmTelemetry SimModel::telemetry(int arm) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return arms_.at(arm).telemetry();
}

StreamStats SimModel::streamStats(int arm) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return arms_.at(arm).streamStats();
}

std::vector<double> SimModel::redundancyTau(int arm) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return arms_.at(arm).redundancyTau();
}

double SimModel::effectorTau(int arm) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return arms_.at(arm).effectorTau();
}

std::string SimModel::onServo(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    return arm ? arm->setServo(readBool(request, "enable", false)) : refused;
}

std::string SimModel::onControlMode(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    if (!request.isMember("mode") || !request["mode"].isIntegral()) return "mode must be an integer";
    return arm->setControlMode(request["mode"].asInt());
}

std::string SimModel::onEffector(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const double position = readDouble(request, "pos", NAN);
    const double force = readDouble(request, "tau", NAN);
    if (!std::isfinite(position) || !std::isfinite(force)) return "pos and tau must be finite numbers";
    arm->setGripper(position, force);
    return std::string();
}

// Taken and kept nowhere: the simulated arms meet nothing to collide with.
std::string SimModel::onCollision(const Json::Value& request, Json::Value&) {
    std::string refused;
    armOf(request, refused);
    return refused;
}

std::string SimModel::onTeleoperation(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    return arm ? arm->setTeleoperation(readInt(request, "is_master", -1)) : refused;
}

std::string SimModel::onStopSignal(const Json::Value& request, Json::Value&) {
    const std::string signal = readString(request, "stop_id");
    // These two address the whole controller.
    if (signal == "SIG_ARM_DISABLE") {
        for (auto& arm : arms_) arm.disable();
        return std::string();
    }
    if (signal == "SIG_EMERGENCY_STOP") {
        for (auto& arm : arms_) arm.emergencyStop();
        return std::string();
    }
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    if (signal == "SIG_TASK_STOP")
        arm->taskStop(readBool(request, "stop_at_once", true));
    else if (signal == "SIG_ARM_STOP")
        arm->stop();
    else if (signal == "SIG_ARM_PAUSE")
        arm->pause();
    else if (signal == "SIG_ARM_RECOVER")
        arm->recover();
    else
        return "unknown stop_id '" + signal + "'";
    return std::string();
}

std::string SimModel::onErrorReset(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (arm) arm->resetError();
    return refused;
}

std::string SimModel::onSpeedLevel(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const double level = readDouble(request, "level", NAN);
    if (!std::isfinite(level)) return "level must be a finite number";
    arm->setSpeedLevel(level);  // response_level tunes a real servo loop; the model has none
    return std::string();
}

std::string SimModel::onDebug(const Json::Value& request, Json::Value&) {
    debug_ = readBool(request, "trigger", false);
    return std::string();
}

std::string SimModel::onProperties(const Json::Value& request, Json::Value& reply) {
    std::string refused;
    if (!armOf(request, refused)) return refused;
    const std::string type = readString(request, "type");
    if (type != "version") return "unknown property type '" + type + "'";
    reply["version"] = kSimVersion;
    return std::string();
}

std::string SimModel::onJointParams(const Json::Value& request, Json::Value& reply) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    const JointLimits& limits = arm->limits();
    Json::Value params(Json::objectValue);
    params["dof"] = arm->telemetry().dof;
    const std::pair<const char*, const std::vector<double>*> vectors[] = {
        {"limit_upper", &limits.upper}, {"limit_lower", &limits.lower}, {"joint_vel", &limits.vel},
        {"joint_acc", &limits.acc},     {"joint_dec", &limits.dec},     {"joint_jerk", &limits.jerk},
    };
    for (const auto& [name, values] : vectors) {
        Json::Value list(Json::arrayValue);
        for (double value : *values) list.append(value);
        params[name] = list;
    }
    reply["params"] = params;
    return std::string();
}

// Locks itself: the inverse kinematics of a pose runs outside the lock.
std::string SimModel::onTracking(const Json::Value& request, Json::Value&) {
    const Json::Value& data = request["data"];
    std::vector<double> target;
    if (!readNumbers(data["way_point"], target)) return "way_point must hold finite numbers";
    const double gripper = readDouble(data, "grp_point", -1.0);
    const bool cartesian = readInt(request["point_type"], "space", 0) == 1;
    if (cartesian && target.size() != 7) return "a Cartesian way_point holds 7 values";
    std::string refused;
    SimArm* arm = nullptr;
    if (cartesian) {
        KDL::Frame flange;
        std::vector<double> seed;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            arm = armOf(request, refused);
            if (!arm) return refused;
            if (!arm->takesStream()) return "way_point not taken";
            Pose pose;
            std::copy(target.begin(), target.end(), pose.begin());
            flange = arm->streamedFlange(pose);
            seed = arm->trackingSeed();
        }
        // The model and the limits of an arm never change: no lock needed.
        if (!arm->kinematics().inverseNear(flange, seed, arm->limits(), target))
            return "no inverse solution for way_point";
    }
    std::lock_guard<std::mutex> lock(mutex_);
    arm = armOf(request, refused);
    if (!arm) return refused;
    return arm->track(std::move(target), gripper) ? std::string() : "way_point not taken";
}

std::string SimModel::onRedundancyTau(const Json::Value& request, Json::Value&) {
    std::string refused;
    SimArm* arm = armOf(request, refused);
    if (!arm) return refused;
    std::vector<double> tau;
    if (!readNumbers(request["redundancy_tau"], tau)) return "redundancy_tau must hold finite numbers";
    arm->setRedundancyTau(std::move(tau), readDouble(request, "eeff_tau", 0.0));
    return std::string();
}

}  // namespace sim
}  // namespace kelm
