// SimArm's cycle: tasks, streamed targets, the operator's hand, the gripper,
// recording and the telemetry that the next state frame reports.
#include <algorithm>
#include <cmath>

#include "sim_arm.h"

namespace kelm {
namespace sim {
namespace {

constexpr double kStopRampTime = 0.2;           // [s] from full speed to rest on stop or pause
constexpr double kTrackingGain = 60.0;          // [1/s] of the streamed-target follower
constexpr double kFeedbackCompliance = 0.002;   // [rad/Nm] the hand yields to fed-back torque
constexpr double kMaxFeedbackDeflection = 0.3;  // [rad]
constexpr double kGripperSpeed = 0.2;           // [m/s]
constexpr double kRecordingInterval = 0.02;     // [s]

double signOf(double value) { return value < 0.0 ? -1.0 : 1.0; }

}  // namespace

bool SimArm::operatorHolds() const {
    if (!servo_ || inError()) return false;
    return mode_ == ArmMode::Current || (mode_ == ArmMode::Teleoperation && role_ == TeleRole::Master);
}

void SimArm::takeOperatorAnchor() {
    if (body_.valid) joints_ = body_.joints;
    operator_anchor_ = joints_;
    operator_time_ = 0.0;
    if (hand_.pick_place) hand_path_ = planPickPlace(hand_task_, joints_, gripper_pos_, *kinematics_, limits_);
}

void SimArm::setHandTask(const TaskLayout& layout) {
    hand_task_ = layout;
    if (operatorHolds()) takeOperatorAnchor();
}

void SimArm::finishTask(const std::string& key) { finished_keys_.push_back(key); }

void SimArm::abortTasks() {
    for (const auto& task : tasks_) finishTask(task.key);
    tasks_.clear();
    stopping_ = false;
    task_rate_ = 1.0;
    task_rate_target_ = 1.0;
    gripper_in_task_ = false;
}

void SimArm::step(double dt) {
    // A task that ended in an earlier cycle is reported now: the frame that
    // showed the arm at the task's end has gone out before its key does.
    if (!finished_keys_.empty()) {
        telemetry_.last_task_key = finished_keys_.front();
        finished_keys_.pop_front();
    }
    previous_joints_ = joints_;
    if (operatorHolds()) {
        stepOperator(dt);
    } else {
        if (servo_ && !inError()) {
            if (!tasks_.empty())
                stepTasks(dt);
            else if (tracking_)
                stepTracking(dt);
        }
        if (!gripper_in_task_) stepGripper(dt);
    }
    stepRecording(dt);
    refreshTelemetry(dt);
}

void SimArm::stepTasks(double dt) {
    const double ramp = dt / kStopRampTime;
    task_rate_ += std::clamp(task_rate_target_ - task_rate_, -ramp, ramp);
    if (stopping_ && task_rate_ <= 0.0) {
        abortTasks();
        return;
    }
    Task& task = tasks_.front();
    task.elapsed += dt * task_rate_;
    double gripper = gripper_pos_;
    gripper_in_task_ = task.motion.sample(task.elapsed, joints_, gripper);
    if (gripper_in_task_) {
        gripper_vel_ = dt > 0.0 ? (gripper - gripper_pos_) / dt : 0.0;
        gripper_pos_ = gripper;
        gripper_target_ = gripper;
    }
    if (task.elapsed >= task.motion.duration()) {
        finishTask(task.key);
        tasks_.pop_front();
        gripper_in_task_ = false;
    }
}

void SimArm::stepTracking(double dt) {
    for (size_t i = 0; i < joints_.size(); ++i) {
        const double error = tracking_target_[i] - joints_[i];
        const double distance = std::fabs(error);
        const double accel = limits_.acc[i];
        // Fastest speed from which the arm can still stop at the target.
        const double wanted =
            signOf(error) * std::min({limits_.vel[i], std::sqrt(2.0 * accel * distance), kTrackingGain * distance});
        double& velocity = tracking_velocity_[i];
        velocity += std::clamp(wanted - velocity, -accel * dt, accel * dt);
        const double move = velocity * dt;
        if (distance <= std::fabs(move) && signOf(move) == signOf(error)) {
            joints_[i] = tracking_target_[i];
            velocity = 0.0;
        } else {
            joints_[i] = std::clamp(joints_[i] + move, limits_.lower[i], limits_.upper[i]);
        }
    }
    recordTrackingError();
}

void SimArm::recordTrackingError() {
    double largest = 0.0;
    for (size_t i = 0; i < joints_.size(); ++i)
        largest = std::max(largest, std::fabs(tracking_target_[i] - joints_[i]));
    ++stream_stats_.error_samples;
    stream_stats_.error_sum += largest;
    stream_stats_.error_max = std::max(stream_stats_.error_max, largest);
}

void SimArm::stepOperator(double dt) {
    operator_time_ += dt;
    double gripper = gripper_pos_;
    if (!hand_path_.empty())
        hand_path_.sample(operator_time_, joints_, gripper);
    else if (hand_.enabled && !hand_.pick_place)
        operatorHand(hand_, operator_time_, operator_anchor_, limits_, joints_, gripper);
    else
        joints_ = operator_anchor_;
    if (body_.valid) {
        // The hand pulls the body; the plan reports where the body is.
        hand_target_ = joints_;
        joints_ = body_.joints;
    } else if (role_ == TeleRole::Master) {
        // The hand gives way to the torque that the slave's contact feeds back.
        for (size_t i = 0; i < joints_.size(); ++i) {
            const double deflection =
                std::clamp(kFeedbackCompliance * redundancy_tau_[i], -kMaxFeedbackDeflection, kMaxFeedbackDeflection);
            joints_[i] = std::clamp(joints_[i] + deflection, limits_.lower[i], limits_.upper[i]);
        }
    }
    gripper_vel_ = dt > 0.0 ? (gripper - gripper_pos_) / dt : 0.0;
    gripper_pos_ = gripper;
    gripper_target_ = gripper;
}

void SimArm::stepGripper(double dt) {
    const double error = gripper_target_ - gripper_pos_;
    const double move = std::clamp(error, -kGripperSpeed * dt, kGripperSpeed * dt);
    gripper_pos_ += move;
    gripper_vel_ = dt > 0.0 ? move / dt : 0.0;
}

void SimArm::stepRecording(double dt) {
    if (!recording_active_) return;
    recording_clock_ += dt;
    if (!recording_.times.empty() && recording_clock_ - recording_.times.back() < kRecordingInterval) return;
    recording_.times.push_back(recording_clock_);
    recording_.joints.push_back(joints_);
}

void SimArm::refreshTelemetry(double dt) {
    ArmTelemetry& t = telemetry_;
    t.plan_vel.resize(joints_.size());
    for (size_t i = 0; i < joints_.size(); ++i)
        t.plan_vel[i] = dt > 0.0 ? (joints_[i] - previous_joints_[i]) / dt : 0.0;
    t.plan_joints = joints_;
    const bool master = mode_ == ArmMode::Teleoperation && role_ == TeleRole::Master;
    t.plan_tau.resize(joints_.size());
    for (size_t i = 0; i < joints_.size(); ++i) t.plan_tau[i] = master ? redundancy_tau_[i] : 0.0;

    t.joints = body_.valid ? body_.joints : joints_;
    const KDL::Frame flange = kinematics_->flange(t.joints);
    const KDL::Frame tool = ArmKinematics::fromCoordinate(tools_[tool_index_]);
    const KDL::Frame user = ArmKinematics::fromCoordinate(users_[user_index_]);
    const KDL::Frame tip = flange * tool;
    if (body_.valid) {
        t.joint_vel = body_.velocity;
        t.joint_tau = body_.torque;
        t.external_tau = body_.external_tau;
        t.cart_force = body_.flange_wrench;
    } else {
        t.joint_vel = t.plan_vel;
        wallContact(wall_, *kinematics_, joints_, tip, t.cart_force, t.external_tau, jacobian_scratch_);
        // Motor torque: holds against the contact, plus the fed-back torque on a master.
        t.joint_tau.resize(joints_.size());
        for (size_t i = 0; i < joints_.size(); ++i) t.joint_tau[i] = t.plan_tau[i] - t.external_tau[i];
    }

    t.pose = ArmKinematics::toPose(flange);
    t.pose_tool = ArmKinematics::toPose(tip);
    t.pose_user = ArmKinematics::toPose(user.Inverse() * tip);
    t.servo = servo_;
    t.motion_state = inError() ? -1 : (tasks_.empty() ? 0 : 1);
    t.mode = inError() ? ArmMode::Error : mode_;
    t.vel_per = speed_level_ * 10.0;
    t.tool = tool_index_;
    t.user = user_index_;
    if (body_.valid) {
        t.gripper_pos = body_.gripper_opening;
        t.gripper_vel = body_.gripper_velocity;
        t.gripper_tau = body_.gripper_force;
    } else {
        t.gripper_pos = gripper_pos_;
        t.gripper_vel = gripper_vel_;
        const bool holding = std::fabs(gripper_target_ - gripper_pos_) < 1e-4;
        t.gripper_tau = holding ? gripper_force_ : 0.0;
    }
    t.gripper_state = std::fabs(t.gripper_vel) > 1e-4 ? 1 : 0;
    if (master) t.gripper_tau = effector_tau_;
    t.exe_flag = !tasks_.empty() && task_rate_ > 0.0;
    if (tasks_.empty())
        t.exe_task_key.clear();
    else
        t.exe_task_key = tasks_.front().key;
    t.error_code = error_code_;
    t.error_msg = error_msg_;
}

BodyCommand SimArm::bodyCommand() const {
    BodyCommand command;
    command.hand_held = operatorHolds();
    command.compliant = mode_ == ArmMode::Mit || (mode_ == ArmMode::Teleoperation && role_ == TeleRole::Slave);
    command.reference = command.hand_held ? hand_target_ : joints_;
    command.reference_vel = command.hand_held ? std::vector<double>(joints_.size(), 0.0) : telemetry_.plan_vel;
    const bool master = mode_ == ArmMode::Teleoperation && role_ == TeleRole::Master;
    command.feedback_tau = master ? redundancy_tau_ : std::vector<double>(joints_.size(), 0.0);
    command.gripper_opening = gripper_pos_;
    command.gripper_force = gripper_force_;
    return command;
}

void SimArm::sense(const BodySensed& body) {
    if (body_.valid && body.resets > body_.resets)
        raiseError(kPhysicsResetCode, "physics unstable: the scene was reset to its last sound state");
    const bool first = !body_.valid;
    body_ = body;
    if (first) joints_ = previous_joints_ = body_.joints;
    if (hand_target_.empty()) hand_target_ = body_.joints;
}

}  // namespace sim
}  // namespace kelm
