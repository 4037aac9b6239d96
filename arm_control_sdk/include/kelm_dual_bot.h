// KelmDualBot: the client of a machine with two arms behind one controller
// address, for programs that drive both.
//
// An object owns two KelmKernelImpl, the left arm's and then the right arm's,
// each with a connection of its own to the same address; the arm index alone
// tells them apart on the wire. Both connect while the object is constructed
// (a failed connection is not reported: is_connected() tells).
//
// Every one-arm member of KelmSingleCol is here twice, as a left and a right
// twin that behaves as told there, on that arm. Two twins differ:
// move_left_line_pose and move_right_line_pose hand the seven pose values to
// the arm as a joint target (checked against the joint count and limits,
// sent as joint space), and the callback twins register under names of their
// own. Units, results and callback threads are those of KelmSingleCol.
//
// Members that act on both arms call the left arm, then the right one, on the
// caller's thread, whatever the left result was; nothing starts the two arms
// at the same moment, and nothing undoes the left arm's change when the
// right one fails. Unless a member says otherwise they fold the two results:
// 1 when both arms answered 1, otherwise -1.
//
// Threads: as KelmSingleCol. Two threads may drive the left and the right
// twins at once; the arms share nothing. The callbacks of each arm run on
// that arm's receive thread.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "kelm_single_col.h"

namespace kelm {

class KelmDualBot {
public:
    using JointCallback = KelmSingleCol::JointCallback;
    using PoseCallback = KelmSingleCol::PoseCallback;
    using ExternalForceCallback = KelmSingleCol::ExternalForceCallback;
    using ErrorCallback = KelmSingleCol::ErrorCallback;
    using CompletionCallback = KelmSingleCol::CompletionCallback;

    // Makes the left arm's kernel and then the right arm's, both connecting
    // to ip:port within `timeout` seconds. The indices are not checked.
    KelmDualBot(const std::string& ip, int port, double timeout, int left_arm_index, int right_arm_index);
    // Disconnects and destroys the left kernel, then the right one.
    ~KelmDualBot();
    KelmDualBot(const KelmDualBot&) = delete;
    KelmDualBot& operator=(const KelmDualBot&) = delete;

    // ---- both arms ----

    // Reconnects both arms; -1 if either fails (the other stays connected).
    int connect(const std::string& ip, int port, double timeout);
    int disconnect();
    // True when both arms are connected.
    bool is_connected();
    // Readies the left arm and then the right one, each with up to 3000 ms.
    int set_ready();
    // Switches both arms' servo power. Always answers 1 whatever the arms
    // did; get_left_status() and get_right_status() show the servo state.
    int set_servo_enable(bool enable);
    int set_control_mode(int mode);
    int set_speed_level(double level, int response_level);
    int set_collision_config(bool flag, int level);
    // Reaches the right arm only after the left arm's reply or its 1000 ms
    // time-out.
    int emergency_stop();
    // The left arm's version text followed directly by the right arm's.
    std::string get_version();
    int trajectory_teach(bool flag, std::string name);
    int trajectory_recorder(std::string name);
    // Fills `teach_list` with the left arm's names (left as it was if that
    // request fails) and appends the right arm's; the names do not say which
    // arm they came from.
    int check_teach(std::vector<std::string>& teach_list);

    // The same function on both arms under `name`; it does not learn which
    // arm fired it and may run on either arm's receive thread.
    void register_error_cbk(const std::string& name, ErrorCallback fn);
    void register_completion_cbk(const std::string& name, CompletionCallback fn);
    // Remove `name` from both arms; return the right arm's result (0).
    int release_error_cbk(const std::string& name);
    int release_completion_cbk(const std::string& name);

    // ---- left arm ----

    ArmStatus get_left_status();
    // The left arm's last refusal and its last task key (as KelmSingleCol).
    Refusal get_left_last_refusal();
    std::string get_left_submitted_task_key();
    ArmConfig get_left_config();
    std::vector<double> get_left_joint_pos();
    std::vector<double> get_left_joint_vel();
    std::vector<double> get_left_joint_tau();
    std::vector<double> get_left_plan_joint_pos();
    std::vector<double> get_left_plan_joint_vel();
    std::vector<double> get_left_plan_joint_tau();
    std::array<double, 7> get_left_cart_pose();
    std::vector<double> get_left_joint_external_tau();
    std::vector<double> get_left_cart_external_force();
    int get_left_gripper_state();
    double get_left_gripper_pos();
    double get_left_gripper_vel();
    double get_left_gripper_tau();
    int set_left_gripper(double pos, double tau);
    int set_left_tool_index(int index);
    int get_left_tool_index();
    std::array<double, 7> get_left_tool_coordinate(int index);

    int track_left_joint(const std::vector<double>& target, double gripper);
    int track_left_pose(const std::array<double, 7>& pose, double gripper);
    int move_left_joint(const std::vector<double>& target, double time, bool block);
    int move_left_pose(const std::array<double, 7>& pose, double time, bool block);
    int move_left_line_joint(const std::vector<double>& target, bool block);
    // The pose goes to the arm as a seven-value joint target: refused unless
    // the arm has seven joints, and then sent and checked as joints.
    int move_left_line_pose(const std::array<double, 7>& pose, bool block);
    int move_left_joint_traj(const std::vector<std::vector<double>>& traj, std::vector<double> gripper,
                             std::vector<double> times, bool block);
    int move_left_pose_traj(const std::vector<std::array<double, 7>>& poses, std::vector<double> gripper,
                            std::vector<double> times, bool block);

    int forward_kine_left(int tool, const std::vector<double>& joint, std::array<double, 7>& pose);
    int forward_kine_left_array(int tool, const std::vector<std::vector<double>>& joints,
                                std::vector<std::array<double, 7>>& poses);
    int inverse_kine_left(int tool, const std::array<double, 7>& pose, const std::vector<double>& ref_joint,
                          std::vector<double>& joint);
    int inverse_kine_left_array(int tool, const std::vector<std::array<double, 7>>& poses,
                                const std::vector<std::vector<double>>& ref_joints,
                                std::vector<std::vector<double>>& joints);

    // Registered as "get_left_joint", "get_left_pose", "get_left_plan_joint"
    // and "get_left_external_force"; each release removes every callback of
    // its kind from the left arm.
    void register_left_joint_cbk(JointCallback fn);
    int release_left_joint_cbk();
    void register_left_pose_cbk(PoseCallback fn);
    int release_left_pose_cbk();
    void register_left_plan_joint_cbk(JointCallback fn);
    int release_left_plan_joint_cbk();
    void register_left_external_force_cbk(ExternalForceCallback fn);
    int release_left_external_force_cbk();

    // ---- right arm ----

    ArmStatus get_right_status();
    Refusal get_right_last_refusal();
    std::string get_right_submitted_task_key();
    ArmConfig get_right_config();
    std::vector<double> get_right_joint_pos();
    std::vector<double> get_right_joint_vel();
    std::vector<double> get_right_joint_tau();
    std::vector<double> get_right_plan_joint_pos();
    std::vector<double> get_right_plan_joint_vel();
    std::vector<double> get_right_plan_joint_tau();
    std::array<double, 7> get_right_cart_pose();
    std::vector<double> get_right_joint_external_tau();
    std::vector<double> get_right_cart_external_force();
    int get_right_gripper_state();
    double get_right_gripper_pos();
    double get_right_gripper_vel();
    double get_right_gripper_tau();
    int set_right_gripper(double pos, double tau);
    int set_right_tool_index(int index);
    int get_right_tool_index();
    std::array<double, 7> get_right_tool_coordinate(int index);

    int track_right_joint(const std::vector<double>& target, double gripper);
    int track_right_pose(const std::array<double, 7>& pose, double gripper);
    int move_right_joint(const std::vector<double>& target, double time, bool block);
    int move_right_pose(const std::array<double, 7>& pose, double time, bool block);
    int move_right_line_joint(const std::vector<double>& target, bool block);
    // As move_left_line_pose: the pose goes out as a seven-value joint target.
    int move_right_line_pose(const std::array<double, 7>& pose, bool block);
    int move_right_joint_traj(const std::vector<std::vector<double>>& traj, std::vector<double> gripper,
                              std::vector<double> times, bool block);
    int move_right_pose_traj(const std::vector<std::array<double, 7>>& poses, std::vector<double> gripper,
                             std::vector<double> times, bool block);

    int forward_kine_right(int tool, const std::vector<double>& joint, std::array<double, 7>& pose);
    int forward_kine_right_array(int tool, const std::vector<std::vector<double>>& joints,
                                 std::vector<std::array<double, 7>>& poses);
    int inverse_kine_right(int tool, const std::array<double, 7>& pose, const std::vector<double>& ref_joint,
                           std::vector<double>& joint);
    int inverse_kine_right_array(int tool, const std::vector<std::array<double, 7>>& poses,
                                 const std::vector<std::vector<double>>& ref_joints,
                                 std::vector<std::vector<double>>& joints);

    // Registered as "get_right_joint", "get_rigth_pose" (spelt so),
    // "get_right_plan_joint" and "get_right_external_force"; each release
    // removes every callback of its kind from the right arm.
    void register_right_joint_cbk(JointCallback fn);
    int release_right_joint_cbk();
    void register_right_pose_cbk(PoseCallback fn);
    int release_right_pose_cbk();
    void register_right_plan_joint_cbk(JointCallback fn);
    int release_right_plan_joint_cbk();
    void register_right_external_force_cbk(ExternalForceCallback fn);
    int release_right_external_force_cbk();

private:
    KelmKernelImpl* left_;
    KelmKernelImpl* right_;
};

}  // namespace kelm
