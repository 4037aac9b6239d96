#include "sim_arm.h"

#include <algorithm>
#include <cmath>

namespace kelm {
namespace sim {
namespace {

// Where an arm rests when the simulator starts: away from home, so that the
// first homing move really moves, and clear of the wrist singularity.
constexpr double kParkedJoints[kMaxDof] = {0.0, -0.2, 0.3, 0.0, -1.2, 0.0, 0.0};
constexpr int kEmergencyStopCode = 6;

std::string indexRefusal(int index) {
    if (index < 0 || index >= kCoordinateSlots)
        return "coordinate index " + std::to_string(index) + " is outside 0 to " + std::to_string(kCoordinateSlots - 1);
    return std::string();
}

}  // namespace

const char* armModeName(ArmMode mode) {
    switch (mode) {
        case ArmMode::Error: return "ERROR";
        case ArmMode::Idle: return "IDLE";
        case ArmMode::Position: return "POSITION";
        case ArmMode::Mit: return "MIT";
        case ArmMode::Current: return "CURRENT";
        case ArmMode::ForcePosition: return "PF";
        case ArmMode::Teleoperation: return "TELEOPERATION";
    }
    return "IDLE";
}

SimArm::SimArm(int index, int dof, const OperatorSettings& hand, const WallSettings& wall)
    : kinematics_(std::make_shared<const ArmKinematics>(dof)),
      limits_(defaultJointLimits(dof)),
      hand_(hand),
      wall_(wall),
      joints_(kParkedJoints, kParkedJoints + dof),
      previous_joints_(joints_),
      tracking_velocity_(dof, 0.0),
      redundancy_tau_(dof, 0.0),
      tools_(kCoordinateSlots, std::vector<double>(6, 0.0)),
      users_(kCoordinateSlots, std::vector<double>(6, 0.0)) {
    telemetry_.index = index;
    telemetry_.name = "arm" + std::to_string(index);
    telemetry_.dof = dof;
    refreshTelemetry(0.0);
}

std::string SimArm::setServo(bool enable) {
    if (enable && error_code_ == kEmergencyStopCode) return "emergency stop: reset the error first";
    if (!enable) {
        abortTasks();
        tracking_ = false;
        mode_ = ArmMode::Idle;
        role_ = TeleRole::None;
    }
    servo_ = enable;
    return std::string();
}

std::string SimArm::setControlMode(int mode) {
    if (inError()) return "the arm is in error";
    if (!servo_) return "servo is off";
    if (!tasks_.empty()) return "the arm is running a task";
    static const ArmMode kModes[] = {ArmMode::Position, ArmMode::Position, ArmMode::Mit, ArmMode::Current,
                                     ArmMode::ForcePosition};
    if (mode < 0 || mode > 4) return "control mode " + std::to_string(mode) + " is outside 0 to 4";
    mode_ = kModes[mode];
    role_ = TeleRole::None;
    tracking_ = false;
    if (mode_ == ArmMode::Current) takeOperatorAnchor();
    return std::string();
}

std::string SimArm::setTeleoperation(int role) {
    if (inError()) return "the arm is in error";
    if (!servo_) return "servo is off";
    if (!tasks_.empty()) return "the arm is running a task";
    tracking_ = false;
    switch (role) {
        case 0:
            mode_ = ArmMode::Position;
            role_ = TeleRole::None;
            return std::string();
        case 1:
            mode_ = ArmMode::Teleoperation;
            role_ = TeleRole::Master;
            std::fill(redundancy_tau_.begin(), redundancy_tau_.end(), 0.0);
            takeOperatorAnchor();
            return std::string();
        case 2:
            mode_ = ArmMode::Teleoperation;
            role_ = TeleRole::Slave;
            return std::string();
        default: return "teleoperation role " + std::to_string(role) + " is none of 0, 1, 2";
    }
}

void SimArm::setSpeedLevel(double level) { speed_level_ = std::clamp(level, 0.0, 10.0); }

void SimArm::disable() { setServo(false); }

void SimArm::emergencyStop() {
    setServo(false);
    raiseError(kEmergencyStopCode, "emergency stop");
}

void SimArm::taskStop(bool at_once) {
    if (at_once || tasks_.empty()) {
        abortTasks();
        return;
    }
    while (tasks_.size() > 1) {
        finishTask(tasks_.back().key);
        tasks_.pop_back();
    }
}

void SimArm::stop() {
    if (tasks_.empty()) return;
    stopping_ = true;
    task_rate_target_ = 0.0;
}

void SimArm::pause() { task_rate_target_ = 0.0; }

void SimArm::recover() {
    if (!stopping_) task_rate_target_ = 1.0;
}

void SimArm::raiseError(int code, const std::string& message) {
    if (code == 0) {
        resetError();
        return;
    }
    if (inError() && code == kWarningCode) return;  // an error outranks a warning
    error_code_ = code;
    error_msg_ = message;
    if (code == kWarningCode) return;
    abortTasks();
    tracking_ = false;
}

void SimArm::resetError() {
    error_code_ = 0;
    error_msg_.clear();
}

std::string SimArm::taskRefusal() const {
    if (inError()) return "the arm is in error";
    if (!servo_) return "servo is off";
    if (mode_ != ArmMode::Position && mode_ != ArmMode::ForcePosition)
        return std::string("control mode ") + armModeName(mode_) + " takes no tasks";
    if (stopping_) return "the arm is stopping";
    return std::string();
}

PlanContext SimArm::planContext() const {
    PlanContext context;
    context.kinematics = kinematics_.get();
    context.limits = limits_;
    context.start_joints = queueEnd();
    context.start_gripper = gripper_target_;
    context.speed_scale = std::max(0.01, speed_level_ / 10.0);
    for (const auto& tool : tools_) context.tools.push_back(ArmKinematics::fromCoordinate(tool));
    for (const auto& user : users_) context.users.push_back(ArmKinematics::fromCoordinate(user));
    return context;
}

const std::vector<double>& SimArm::queueEnd() const {
    return tasks_.empty() ? joints_ : tasks_.back().motion.finalJoints();
}

void SimArm::enqueue(const std::string& key, PlannedMotion motion) {
    // A planned motion supersedes any streamed target: when it ends, the arm
    // holds where it ended until a new target is streamed.
    tracking_ = false;
    tasks_.push_back(Task{key, std::move(motion), 0.0});
}

bool SimArm::takesStream() const {
    if (!servo_ || inError() || !tasks_.empty()) return false;
    if (mode_ == ArmMode::Teleoperation) return role_ == TeleRole::Slave;
    return mode_ == ArmMode::Position || mode_ == ArmMode::Mit || mode_ == ArmMode::ForcePosition;
}

bool SimArm::track(std::vector<double> joints, double gripper) {
    if (!takesStream() || static_cast<int>(joints.size()) != telemetry_.dof) return false;
    for (size_t i = 0; i < joints.size(); ++i) joints[i] = std::clamp(joints[i], limits_.lower[i], limits_.upper[i]);
    if (!tracking_) std::fill(tracking_velocity_.begin(), tracking_velocity_.end(), 0.0);
    tracking_target_ = std::move(joints);
    tracking_ = true;
    ++stream_stats_.targets;
    if (gripper >= 0.0) gripper_target_ = std::min(gripper, 0.08);
    return true;
}

KDL::Frame SimArm::streamedFlange(const Pose& pose) const {
    return ArmKinematics::fromCoordinate(users_[0]) * ArmKinematics::toFrame(pose.data()) *
           ArmKinematics::fromCoordinate(tools_[0]).Inverse();
}

void SimArm::setRedundancyTau(std::vector<double> tau, double effector_tau) {
    redundancy_tau_ = std::move(tau);
    redundancy_tau_.resize(telemetry_.dof, 0.0);
    effector_tau_ = effector_tau;
    ++stream_stats_.torque_messages;
    for (double value : redundancy_tau_)
        stream_stats_.torque_max = std::max(stream_stats_.torque_max, std::fabs(value));
}

void SimArm::setGripper(double position, double force) {
    gripper_target_ = std::clamp(position, 0.0, 0.08);
    gripper_force_ = std::clamp(force, 0.0, 20.0);
}

std::string SimArm::selectTool(int index) {
    std::string refusal = indexRefusal(index);
    if (refusal.empty()) tool_index_ = index;
    return refusal;
}

std::string SimArm::selectUser(int index) {
    std::string refusal = indexRefusal(index);
    if (refusal.empty()) user_index_ = index;
    return refusal;
}

std::string SimArm::updateTool(int index, const std::vector<double>& coordinate) {
    std::string refusal = indexRefusal(index);
    if (refusal.empty()) tools_[index] = coordinate;
    return refusal;
}

std::string SimArm::updateUser(int index, const std::vector<double>& coordinate) {
    std::string refusal = indexRefusal(index);
    if (refusal.empty()) users_[index] = coordinate;
    return refusal;
}

bool SimArm::toolPose(int index, Pose& pose) const {
    if (!indexRefusal(index).empty()) return false;
    pose = ArmKinematics::toPose(ArmKinematics::fromCoordinate(tools_[index]));
    return true;
}

bool SimArm::userPose(int index, Pose& pose) const {
    if (!indexRefusal(index).empty()) return false;
    pose = ArmKinematics::toPose(ArmKinematics::fromCoordinate(users_[index]));
    return true;
}

void SimArm::startRecording(const std::string& name) {
    recording_active_ = true;
    recording_name_ = name;
    recording_ = Recording{};
    recording_clock_ = 0.0;
}

void SimArm::stopRecording(const std::string& name) {
    if (!recording_active_) return;
    recording_active_ = false;
    recordings_[name.empty() ? recording_name_ : name] = std::move(recording_);
    recording_ = Recording{};
}

}  // namespace sim
}  // namespace kelm
