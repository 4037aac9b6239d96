// KelmSingleCol: the client of one robot arm, for programs that drive an arm
// without knowing the controller's wire protocol.
//
// An object owns one KelmKernelImpl for arm index 0 of the controller at the
// given address, and connects while it is constructed (a failed connection is
// not reported: is_connected() tells). It sends no request of its own: it
// forwards to the kernel with fixed arguments (speed percentage 100, tool and
// user coordinate system 0) and adds an optional wait for a motion's end.
//
// Units are the controller's, passed through unchanged: joint positions in
// radians, a pose as x, y, z followed by the unit quaternion x, y, z, w, and
// every wait or time-out in milliseconds unless a member says otherwise.
//
// Results of the int members: 1 when the controller took the request (or a
// streamed message went out), -1 for refused input, a failed send, no reply
// within the time-out or a refusal by the controller. A refused input is
// logged at level 1 with the reason.
//
// Threads: the members may be called from any thread; a blocking member
// blocks its caller. Registered callbacks run on the connection's receive
// thread, one state frame after the other. A callback must not call a member
// that waits for a reply (any request, set_ready, a motion with block true);
// the reply would have to come through the very thread that waits. Callbacks
// that run while the arm's state lock is held (error, external force) must
// not call the state getters either, except get_status().
#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "kelm_kernel.h"

namespace kelm {

class KelmSingleCol {
public:
    // Fired with (time stamp [s], positions, velocities, torques); the time
    // stamp is the controller's Unix time of the state frame.
    using JointCallback = KelmKernelImpl::JointCallback;
    // Fired with (time stamp [s], Cartesian pose x, y, z, qx, qy, qz, qw).
    using PoseCallback = KelmKernelImpl::PoseCallback;
    // Fired with (time stamp [s], external joint torques, external Cartesian force).
    using ExternalForceCallback = KelmKernelImpl::ExternalForceCallback;
    // Fired with (error code, error text) on every frame that reports an error.
    using ErrorCallback = KelmKernelImpl::ErrorCallback;
    // Fired with the task key of every task that the controller reports done.
    using CompletionCallback = KelmCommManager::TextCallback;

    // Makes the arm's kernel and connects to ip:port, waiting at most
    // `timeout` seconds for the connection to stand.
    KelmSingleCol(const std::string& ip, int port, double timeout);
    // Disconnects and destroys the kernel.
    ~KelmSingleCol();
    KelmSingleCol(const KelmSingleCol&) = delete;
    KelmSingleCol& operator=(const KelmSingleCol&) = delete;

    // ---- connection ----

    // Connects again (closing an existing connection first, with a one-second
    // pause). 1 once connected, 0 on failure.
    int connect(const std::string& ip, int port, double timeout);
    // 1 after disconnecting, -1 if the arm has no transport.
    int disconnect();
    bool is_connected();

    // ---- control ----

    // Brings the arm to servo on, position mode and no error, and fetches its
    // joint limits, retrying for up to 3000 ms. 1 when ready, -1 otherwise.
    int set_ready();
    // Switches servo power on or off.
    int set_servo_enable(bool enable);
    // Sends control mode `mode`, 0 to 4 (set_ready sends 0, after which the
    // arm reports POSITION); other values are refused.
    int set_control_mode(int mode);
    // Speed level, clamped silently to 0 to 10.0, and response level,
    // clamped to 1 to 10000. A NaN level is refused.
    int set_speed_level(double level, int response_level);
    // Collision detection on or off, with its sensitivity level.
    int set_collision_config(bool flag, int level);
    // Emergency stop of the controller (all of its arms).
    int emergency_stop();
    // Streams a gripper target: position [m] clamped to 0 to 0.08, torque to
    // 0 to 20.0. No reply is awaited; 1 when the message went out. NaN is refused.
    int set_gripper(double pos, double tau);

    // ---- configuration ----

    // The controller's software version, empty without a reply.
    std::string get_version();
    // Joint limits and dynamics parameters as the controller reports them
    // now; dof 0 and empty vectors without a reply.
    ArmConfig get_config();
    // Selects the tool coordinate system; get_tool_index() shows it once a
    // state frame carries the new value.
    int set_tool_index(int index);
    // The current tool coordinate index, as the last state frame said.
    int get_tool_index();
    // The tool coordinate system `index` as a pose (x, y, z, qx, qy, qz, qw);
    // zeros when the controller's answer is missing or unusable.
    std::array<double, 7> get_tool_coordinate(int index);

    // ---- recording and teaching ----

    // Starts (true) or ends (false) teaching of the trajectory `name`.
    int trajectory_teach(bool flag, std::string name);
    // Sends the recorder request (teach task 2) for the trajectory `name`.
    int trajectory_recorder(std::string name);
    // Replaces `teach_list` with the names of the recorded trajectories; on
    // failure (-1) the list is left as it was. Waits up to 3000 ms.
    int check_teach(std::vector<std::string>& teach_list);

    // ---- why the last refusal ----

    // The record of the arm's last refused operation (see Refusal): what
    // was refused and why, for callers that want more than -1.
    Refusal get_last_refusal();
    // Key of the last task the controller took from this arm.
    std::string get_submitted_task_key();

    // ---- cached state, as the last state frame reported it ----

    // The arm's status record; `connected` is refreshed by this call. Takes
    // no lock, so it may be called from any callback.
    ArmStatus get_status();
    std::vector<double> get_joint_pos();
    std::vector<double> get_joint_vel();
    std::vector<double> get_joint_tau();
    // The controller's planned (commanded) joint position, velocity, torque.
    std::vector<double> get_plan_joint_pos();
    std::vector<double> get_plan_joint_vel();
    std::vector<double> get_plan_joint_tau();
    // x, y, z, qx, qy, qz, qw.
    std::array<double, 7> get_cart_pose();
    std::vector<double> get_joint_external_tau();
    std::vector<double> get_cart_external_force();
    // The gripper's reported state code, or -1 when no gripper is connected.
    int get_gripper_state();
    double get_gripper_pos();
    double get_gripper_vel();
    double get_gripper_tau();

    // ---- state callbacks ----
    //
    // Each kind has one fixed name, so registering again replaces the
    // earlier function. A release removes every callback of that kind from
    // the arm, including ones registered on the kernel under other names, and
    // returns 0. The joint, pose and planned-joint callbacks run after the
    // state lock is released; the external force callback runs with it held.

    void register_joint_cbk(JointCallback fn);
    int release_joint_cbk();
    void register_pose_cbk(PoseCallback fn);
    int release_pose_cbk();
    void register_plan_joint_cbk(JointCallback fn);
    int release_plan_joint_cbk();
    // Fired only by frames that carry external joint torques.
    void register_external_force_cbk(ExternalForceCallback fn);
    int release_external_force_cbk();

    // Error callback under the caller's `name`; it runs with the state lock
    // held and fires on every frame for as long as the error is reported.
    void register_error_cbk(const std::string& name, ErrorCallback fn);
    // Removes that name only; returns 0.
    int release_error_cbk(const std::string& name);
    // Task completion callback under the caller's `name`.
    void register_completion_cbk(const std::string& name, CompletionCallback fn);
    // Removes that name only; returns 0.
    int release_completion_cbk(const std::string& name);

    // ---- kinematics, computed by the controller (user coordinate system 0) ----
    //
    // 1 on success with the output filled, -1 otherwise with the output left
    // alone. Each waits up to 3000 ms for the answer.

    int forward_kine(int tool, const std::vector<double>& joint, std::array<double, 7>& pose);
    int forward_kine_array(int tool, const std::vector<std::vector<double>>& joints,
                           std::vector<std::array<double, 7>>& poses);
    // `ref_joint` is the joint position the solution should stay close to.
    int inverse_kine(int tool, const std::array<double, 7>& pose, const std::vector<double>& ref_joint,
                     std::vector<double>& joint);
    int inverse_kine_array(int tool, const std::vector<std::array<double, 7>>& poses,
                           const std::vector<std::vector<double>>& ref_joints,
                           std::vector<std::vector<double>>& joints);

    // ---- motions ----
    //
    // Each motion hands one task to the controller at speed percentage 100.
    // With block false the result is the controller's answer (1 or -1). With
    // block true and a task taken, the member then waits without limit for
    // the task's end, an arm error or a lost connection, whichever comes
    // first, and returns 1; get_status() tells which. A refused motion
    // returns -1 at once and does not wait. Targets are checked against the
    // arm's joint count and limits (read by set_ready, so call it first);
    // NaN or infinite values are refused. An arm serves one blocking wait at
    // a time: two threads blocking on the same arm wake each other.
    //
    // Timed points: stamps in seconds from the start of the motion, each
    // above 0, increasing, less than 3600 s apart; gripper positions [m]
    // are clamped to 0 to 0.08.

    // Joint move to `target`. A negative `time` lets the controller time the
    // move; otherwise the move takes `time` seconds (0 is refused).
    int move_joint(const std::vector<double>& target, double time, bool block);
    // Joint-interpolated move to a Cartesian pose, timed as in move_joint.
    int move_pose(const std::array<double, 7>& pose, double time, bool block);
    // Straight-line move to a joint target.
    int move_line_joint(const std::vector<double>& target, bool block);
    // Straight-line move to a Cartesian pose.
    int move_line_pose(const std::array<double, 7>& pose, bool block);
    // Moves through the joint points of `traj`. With one time stamp per
    // point the points are timed by `times` and `gripper` gives gripper
    // positions along the way (empty for none); otherwise the controller
    // times the path at full speed and `gripper` and `times` are ignored.
    int move_joint_traj(const std::vector<std::vector<double>>& traj, std::vector<double> gripper,
                        std::vector<double> times, bool block);
    // As move_joint_traj, through Cartesian poses.
    int move_pose_traj(const std::vector<std::array<double, 7>>& poses, std::vector<double> gripper,
                       std::vector<double> times, bool block);

    // ---- streaming ----
    //
    // One target per call, published without waiting for a reply; meant to
    // be called at the state frame rate. Joint targets are clamped to the
    // limits. A negative `gripper` sends no gripper target. 1 when sent.

    // Refused (-1, with "targets size error" on standard output) when the
    // target's length differs from the arm's joint count.
    int track_joint(const std::vector<double>& target, double gripper);
    // The quaternion is normalised before sending.
    int track_pose(const std::array<double, 7>& pose, double gripper);

private:
    KelmKernelImpl* kernel_;
};

}  // namespace kelm
