// SimArm: the state machine and motion of one simulated arm.
//
// It holds what a controller knows of one arm: servo power, control mode,
// teleoperation role, error, the queue of tasks it runs in order, the latest
// streamed target, the gripper, tool and user coordinates and recorded
// trajectories. step() advances it by one cycle and refreshes the
// telemetry record that the state frames report.
//
// Not synchronised: the owning SimController calls every member with its
// model lock held (request threads for commands, the frame loop for step()).
// Commands return an empty text when taken and the reason when refused.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "arm_kinematics.h"
#include "motion_planner.h"
#include "physics_world.h"
#include "pick_place_hand.h"
#include "planned_motion.h"
#include "sim_environment.h"

namespace kelm {
namespace sim {

// Control modes as the state frames name them.
enum class ArmMode { Error = -1, Idle = 0, Position = 1, Mit = 2, Current = 3, ForcePosition = 4, Teleoperation = 5 };
const char* armModeName(ArmMode mode);

enum class TeleRole { None, Master, Slave };

constexpr int kCoordinateSlots = 16;
constexpr int kWarningCode = 3001;
// The physics went unstable and was reset: the arm stops as on any error.
constexpr int kPhysicsResetCode = 9001;

// What the arm made of the streams it was sent, since it was built.
struct StreamStats {
    std::uint64_t targets = 0;          // streamed joint targets taken
    std::uint64_t error_samples = 0;    // cycles spent following them
    double error_sum = 0.0;             // of each cycle's largest |target - joint| [rad]
    double error_max = 0.0;             // [rad]
    std::uint64_t torque_messages = 0;  // redundancy torques received
    double torque_max = 0.0;            // largest |torque| among them

    double meanError() const { return error_samples == 0 ? 0.0 : error_sum / static_cast<double>(error_samples); }
};

// Everything a state frame reports about one arm, refreshed by step().
struct ArmTelemetry {
    int index = 0;
    std::string name;
    int dof = 0;
    std::vector<double> joints, joint_vel, joint_tau;
    std::vector<double> plan_joints, plan_vel, plan_tau;
    std::vector<double> external_tau;  // one per joint [Nm]
    std::vector<double> cart_force;    // fx, fy, fz, tx, ty, tz [N, Nm]
    Pose pose{}, pose_tool{}, pose_user{};
    bool servo = false;
    int motion_state = 0;          // -1 error, 0 standby, 1 running
    ArmMode mode = ArmMode::Idle;  // as reported: Error while in error
    double vel_per = 100.0;        // speed level in percent
    int tool = 0, user = 0;
    double gripper_pos = 0.0, gripper_vel = 0.0, gripper_tau = 0.0;
    int gripper_state = 0;  // 0 at rest, 1 moving
    bool gripper_connected = true;
    bool exe_flag = false;
    std::string last_task_key, exe_task_key;
    int error_code = 0;  // an error, or kWarningCode, or 0
    std::string error_msg;
};

// One recorded trajectory: joint samples with their times [s].
struct Recording {
    std::vector<double> times;
    std::vector<std::vector<double>> joints;
};

class SimArm {
public:
    SimArm(int index, int dof, const OperatorSettings& hand, const WallSettings& wall);

    const ArmTelemetry& telemetry() const { return telemetry_; }
    const ArmKinematics& kinematics() const { return *kinematics_; }
    const JointLimits& limits() const { return limits_; }
    bool inError() const { return error_code_ != 0 && error_code_ != kWarningCode; }

    // ---- modes and signals ----
    std::string setServo(bool enable);
    std::string setControlMode(int mode);
    std::string setTeleoperation(int role);
    void setSpeedLevel(double level);
    void disable();
    void emergencyStop();
    void taskStop(bool at_once);
    void stop();
    void pause();
    void recover();
    void raiseError(int code, const std::string& message);
    void resetError();

    // ---- tasks ----
    // Why a new task cannot be taken now, or empty.
    std::string taskRefusal() const;
    // The plan's starting point: where the last queued task ends.
    PlanContext planContext() const;
    // Where the last queued task ends, or the joints when none is queued.
    const std::vector<double>& queueEnd() const;
    void enqueue(const std::string& key, PlannedMotion motion);
    size_t queuedTasks() const { return tasks_.size(); }

    // ---- streaming ----
    // Whether streamed targets are followed now (servo on, no error, no
    // task, a mode that takes them).
    bool takesStream() const;
    // Follow `joints` (clamped to the limits); false when the mode takes no
    // stream, which the caller counts.
    bool track(std::vector<double> joints, double gripper);
    // Seed for the inverse kinematics of the next streamed pose.
    const std::vector<double>& trackingSeed() const { return tracking_ ? tracking_target_ : joints_; }
    // Flange frame for a streamed tool-tip pose, in tool 0 and user 0.
    KDL::Frame streamedFlange(const Pose& pose) const;
    void setRedundancyTau(std::vector<double> tau, double effector_tau);
    const std::vector<double>& redundancyTau() const { return redundancy_tau_; }
    double effectorTau() const { return effector_tau_; }
    const StreamStats& streamStats() const { return stream_stats_; }
    void setGripper(double position, double force);

    // ---- coordinates, recordings ----
    std::string selectTool(int index);
    std::string selectUser(int index);
    std::string updateTool(int index, const std::vector<double>& coordinate);
    std::string updateUser(int index, const std::vector<double>& coordinate);
    bool toolPose(int index, Pose& pose) const;
    bool userPose(int index, Pose& pose) const;
    void startRecording(const std::string& name);
    void stopRecording(const std::string& name);
    const std::map<std::string, Recording>& recordings() const { return recordings_; }

    // Advances the arm by `dt` seconds.
    void step(double dt);

    // ---- a body in a physics scene ----
    // What the body's motors and the operator's hand are to do now.
    BodyCommand bodyCommand() const;
    // Takes the body's latest readings: from now on the telemetry reports
    // them, and the arm's plan starts from them where the hand moved it.
    void sense(const BodySensed& body);
    // The pick-and-place task for the operator's hand (when the hand does
    // tasks); a hand holding the arm starts it afresh.
    void setHandTask(const TaskLayout& layout);

private:
    struct Task {
        std::string key;
        PlannedMotion motion;
        double elapsed = 0.0;
    };

    bool operatorHolds() const;
    void abortTasks();
    void finishTask(const std::string& key);
    void stepTasks(double dt);
    void stepTracking(double dt);
    void recordTrackingError();
    void stepOperator(double dt);
    void stepGripper(double dt);
    void stepRecording(double dt);
    void refreshTelemetry(double dt);
    void takeOperatorAnchor();

    std::shared_ptr<const ArmKinematics> kinematics_;
    JointLimits limits_;
    OperatorSettings hand_;
    WallSettings wall_;
    ArmTelemetry telemetry_;

    std::vector<double> joints_, previous_joints_;
    bool servo_ = false;
    ArmMode mode_ = ArmMode::Idle;  // never Error: the error is error_code_
    TeleRole role_ = TeleRole::None;
    int error_code_ = 0;
    std::string error_msg_;
    double speed_level_ = 10.0;

    std::deque<Task> tasks_;
    std::deque<std::string> finished_keys_;  // reported one per frame
    double task_rate_ = 1.0;                 // 0 paused .. 1 full speed
    double task_rate_target_ = 1.0;
    bool stopping_ = false;

    bool tracking_ = false;
    std::vector<double> tracking_target_, tracking_velocity_;

    double operator_time_ = 0.0;
    std::vector<double> operator_anchor_;
    std::vector<double> redundancy_tau_;
    double effector_tau_ = 0.0;
    StreamStats stream_stats_;

    double gripper_pos_ = 0.0, gripper_target_ = 0.0, gripper_force_ = 0.0, gripper_vel_ = 0.0;
    bool gripper_in_task_ = false;

    std::vector<std::vector<double>> tools_, users_;  // x, y, z, roll, pitch, yaw
    int tool_index_ = 0, user_index_ = 0;

    bool recording_active_ = false;
    std::string recording_name_;
    Recording recording_;
    double recording_clock_ = 0.0;
    std::map<std::string, Recording> recordings_;

    std::vector<double> jacobian_scratch_;

    TaskLayout hand_task_;
    HandPath hand_path_;               // the operator's way through hand_task_
    std::vector<double> hand_target_;  // where the hand pulls a body held in drag
    BodySensed body_;                  // valid in a physics scene
};

}  // namespace sim
}  // namespace kelm
