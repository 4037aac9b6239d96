#include "kelm_dual_bot.h"

#include <memory>
#include <utility>

#include "arm_facade.h"

namespace kelm {
namespace {

// Folds the results of one request to both arms: 1 only if both took it.
int both_succeeded(int left_result, int right_result) { return left_result + right_result < 2 ? -1 : 1; }

}  // namespace

KelmDualBot::KelmDualBot(const std::string& ip, int port, double timeout, int left_arm_index, int right_arm_index) {
    // The left kernel must not leak if making the right one throws.
    std::unique_ptr<KelmKernelImpl> left(new KelmKernelImpl(ip, port, timeout, left_arm_index));
    right_ = new KelmKernelImpl(ip, port, timeout, right_arm_index);
    left_ = left.release();
}

KelmDualBot::~KelmDualBot() {
    delete left_;
    delete right_;
}

// ---- both arms ----

int KelmDualBot::connect(const std::string& ip, int port, double timeout) {
    int left = left_->connect_kelm(ip, port, timeout);
    return both_succeeded(left, right_->connect_kelm(ip, port, timeout));
}

int KelmDualBot::disconnect() {
    int left = left_->disconnect_kelm();
    return both_succeeded(left, right_->disconnect_kelm());
}

bool KelmDualBot::is_connected() {
    bool left = left_->is_connected();
    bool right = right_->is_connected();
    return left && right;
}

int KelmDualBot::set_ready() {
    int left = left_->set_kelm_ready(true, arm_facade::kReadyBudgetMs);
    return both_succeeded(left, right_->set_kelm_ready(true, arm_facade::kReadyBudgetMs));
}

// Both kernels answer 1 or -1, and both have the lowest bit set: the result
// is 1 whatever the arms did.
int KelmDualBot::set_servo_enable(bool enable) {
    int left = left_->set_servo_enable(enable);
    return left & right_->set_servo_enable(enable) & 1;
}

int KelmDualBot::set_control_mode(int mode) {
    int left = left_->set_control_mode(mode);
    return both_succeeded(left, right_->set_control_mode(mode));
}

int KelmDualBot::set_speed_level(double level, int response_level) {
    int left = left_->set_speed_level(level, response_level);
    return both_succeeded(left, right_->set_speed_level(level, response_level));
}

int KelmDualBot::set_collision_config(bool flag, int level) {
    int left = left_->set_collision_config(flag, level);
    return both_succeeded(left, right_->set_collision_config(flag, level));
}

int KelmDualBot::emergency_stop() {
    int left = left_->emergency_stop();
    return both_succeeded(left, right_->emergency_stop());
}

std::string KelmDualBot::get_version() {
    std::string version = left_->get_version();
    return version + right_->get_version();
}

int KelmDualBot::trajectory_teach(bool flag, std::string name) {
    int left = left_->trajectory_teach(flag, name);
    return both_succeeded(left, right_->trajectory_teach(flag, std::move(name)));
}

int KelmDualBot::trajectory_recorder(std::string name) {
    int left = left_->trajectory_recorder(name);
    return both_succeeded(left, right_->trajectory_recorder(std::move(name)));
}

int KelmDualBot::check_teach(std::vector<std::string>& teach_list) {
    int left = left_->check_teach(teach_list);
    std::vector<std::string> right_names;
    int right = right_->check_teach(right_names);
    teach_list.insert(teach_list.end(), right_names.begin(), right_names.end());
    return both_succeeded(left, right);
}

void KelmDualBot::register_error_cbk(const std::string& name, ErrorCallback fn) {
    left_->register_error_catch_callback(name, fn);
    right_->register_error_catch_callback(name, fn);
}

void KelmDualBot::register_completion_cbk(const std::string& name, CompletionCallback fn) {
    left_->register_task_completion_callback(name, fn);
    right_->register_task_completion_callback(name, fn);
}

int KelmDualBot::release_error_cbk(const std::string& name) {
    left_->release_error_catch_callback(name);
    return right_->release_error_catch_callback(name);
}

int KelmDualBot::release_completion_cbk(const std::string& name) {
    left_->release_task_completion_callback(name);
    return right_->release_task_completion_callback(name);
}

// ---- left arm ----

ArmStatus KelmDualBot::get_left_status() { return left_->get_status(); }
Refusal KelmDualBot::get_left_last_refusal() { return left_->get_last_refusal(); }
std::string KelmDualBot::get_left_submitted_task_key() { return left_->get_submitted_task_key(); }
ArmConfig KelmDualBot::get_left_config() { return left_->get_config(); }
std::vector<double> KelmDualBot::get_left_joint_pos() { return left_->get_joint_pos(); }
std::vector<double> KelmDualBot::get_left_joint_vel() { return left_->get_joint_vel(); }
std::vector<double> KelmDualBot::get_left_joint_tau() { return left_->get_joint_tau(); }
std::vector<double> KelmDualBot::get_left_plan_joint_pos() { return left_->get_plan_joint_pos(); }
std::vector<double> KelmDualBot::get_left_plan_joint_vel() { return left_->get_plan_joint_vel(); }
std::vector<double> KelmDualBot::get_left_plan_joint_tau() { return left_->get_plan_joint_tau(); }
std::array<double, 7> KelmDualBot::get_left_cart_pose() { return left_->get_cart_pose(); }
std::vector<double> KelmDualBot::get_left_joint_external_tau() { return left_->get_joint_external_tau(); }
std::vector<double> KelmDualBot::get_left_cart_external_force() { return left_->get_cart_external_force(); }
int KelmDualBot::get_left_gripper_state() { return arm_facade::gripper_state(*left_); }
double KelmDualBot::get_left_gripper_pos() { return left_->get_end_effector_pos(); }
double KelmDualBot::get_left_gripper_vel() { return left_->get_end_effector_vel(); }
double KelmDualBot::get_left_gripper_tau() { return left_->get_end_effector_tau(); }
int KelmDualBot::set_left_gripper(double pos, double tau) { return left_->set_end_effector(pos, tau); }
int KelmDualBot::set_left_tool_index(int index) { return left_->set_tool_index(index); }
int KelmDualBot::get_left_tool_index() { return left_->get_tool_index(); }
std::array<double, 7> KelmDualBot::get_left_tool_coordinate(int index) { return left_->get_tool_coordinate(index); }

int KelmDualBot::track_left_joint(const std::vector<double>& target, double gripper) {
    return arm_facade::track_joint(*left_, target, gripper);
}
int KelmDualBot::track_left_pose(const std::array<double, 7>& pose, double gripper) {
    return arm_facade::track_pose(*left_, pose, gripper);
}
int KelmDualBot::move_left_joint(const std::vector<double>& target, double time, bool block) {
    return arm_facade::move_timed(*left_, target, time, true, block);
}
int KelmDualBot::move_left_pose(const std::array<double, 7>& pose, double time, bool block) {
    return arm_facade::move_timed(*left_, arm_facade::pose_values(pose), time, false, block);
}
int KelmDualBot::move_left_line_joint(const std::vector<double>& target, bool block) {
    return arm_facade::move_line(*left_, target, true, block);
}
int KelmDualBot::move_left_line_pose(const std::array<double, 7>& pose, bool block) {
    return arm_facade::move_line(*left_, arm_facade::pose_values(pose), true, block);
}
int KelmDualBot::move_left_joint_traj(const std::vector<std::vector<double>>& traj, std::vector<double> gripper,
                                      std::vector<double> times, bool block) {
    return arm_facade::move_traj(*left_, traj, gripper, times, true, block);
}
int KelmDualBot::move_left_pose_traj(const std::vector<std::array<double, 7>>& poses, std::vector<double> gripper,
                                     std::vector<double> times, bool block) {
    return arm_facade::move_traj(*left_, arm_facade::pose_values(poses), gripper, times, false, block);
}

int KelmDualBot::forward_kine_left(int tool, const std::vector<double>& joint, std::array<double, 7>& pose) {
    return left_->forwardKine(tool, arm_facade::kBaseUser, joint, pose);
}
int KelmDualBot::forward_kine_left_array(int tool, const std::vector<std::vector<double>>& joints,
                                         std::vector<std::array<double, 7>>& poses) {
    return left_->forwardKine(tool, arm_facade::kBaseUser, joints, poses);
}
int KelmDualBot::inverse_kine_left(int tool, const std::array<double, 7>& pose, const std::vector<double>& ref_joint,
                                   std::vector<double>& joint) {
    return left_->inverseKine(tool, arm_facade::kBaseUser, pose, ref_joint, joint);
}
int KelmDualBot::inverse_kine_left_array(int tool, const std::vector<std::array<double, 7>>& poses,
                                         const std::vector<std::vector<double>>& ref_joints,
                                         std::vector<std::vector<double>>& joints) {
    return left_->inverseKine(tool, arm_facade::kBaseUser, poses, ref_joints, joints);
}

void KelmDualBot::register_left_joint_cbk(JointCallback fn) {
    left_->register_get_joint_callback("get_left_joint", fn);
}
int KelmDualBot::release_left_joint_cbk() { return left_->release_get_joint_callback(); }
void KelmDualBot::register_left_pose_cbk(PoseCallback fn) { left_->register_get_pose_callback("get_left_pose", fn); }
int KelmDualBot::release_left_pose_cbk() { return left_->release_get_pose_callback(); }
void KelmDualBot::register_left_plan_joint_cbk(JointCallback fn) {
    left_->register_get_plan_joint_callback("get_left_plan_joint", fn);
}
int KelmDualBot::release_left_plan_joint_cbk() { return left_->release_get_plan_joint_callback(); }
void KelmDualBot::register_left_external_force_cbk(ExternalForceCallback fn) {
    left_->register_get_external_force_callback("get_left_external_force", fn);
}
int KelmDualBot::release_left_external_force_cbk() { return left_->release_get_external_force_callback(); }

// ---- right arm ----

ArmStatus KelmDualBot::get_right_status() { return right_->get_status(); }
Refusal KelmDualBot::get_right_last_refusal() { return right_->get_last_refusal(); }
std::string KelmDualBot::get_right_submitted_task_key() { return right_->get_submitted_task_key(); }
ArmConfig KelmDualBot::get_right_config() { return right_->get_config(); }
std::vector<double> KelmDualBot::get_right_joint_pos() { return right_->get_joint_pos(); }
std::vector<double> KelmDualBot::get_right_joint_vel() { return right_->get_joint_vel(); }
std::vector<double> KelmDualBot::get_right_joint_tau() { return right_->get_joint_tau(); }
std::vector<double> KelmDualBot::get_right_plan_joint_pos() { return right_->get_plan_joint_pos(); }
std::vector<double> KelmDualBot::get_right_plan_joint_vel() { return right_->get_plan_joint_vel(); }
std::vector<double> KelmDualBot::get_right_plan_joint_tau() { return right_->get_plan_joint_tau(); }
std::array<double, 7> KelmDualBot::get_right_cart_pose() { return right_->get_cart_pose(); }
std::vector<double> KelmDualBot::get_right_joint_external_tau() { return right_->get_joint_external_tau(); }
std::vector<double> KelmDualBot::get_right_cart_external_force() { return right_->get_cart_external_force(); }
int KelmDualBot::get_right_gripper_state() { return arm_facade::gripper_state(*right_); }
double KelmDualBot::get_right_gripper_pos() { return right_->get_end_effector_pos(); }
double KelmDualBot::get_right_gripper_vel() { return right_->get_end_effector_vel(); }
double KelmDualBot::get_right_gripper_tau() { return right_->get_end_effector_tau(); }
int KelmDualBot::set_right_gripper(double pos, double tau) { return right_->set_end_effector(pos, tau); }
int KelmDualBot::set_right_tool_index(int index) { return right_->set_tool_index(index); }
int KelmDualBot::get_right_tool_index() { return right_->get_tool_index(); }
std::array<double, 7> KelmDualBot::get_right_tool_coordinate(int index) { return right_->get_tool_coordinate(index); }

int KelmDualBot::track_right_joint(const std::vector<double>& target, double gripper) {
    return arm_facade::track_joint(*right_, target, gripper);
}
int KelmDualBot::track_right_pose(const std::array<double, 7>& pose, double gripper) {
    return arm_facade::track_pose(*right_, pose, gripper);
}
int KelmDualBot::move_right_joint(const std::vector<double>& target, double time, bool block) {
    return arm_facade::move_timed(*right_, target, time, true, block);
}
int KelmDualBot::move_right_pose(const std::array<double, 7>& pose, double time, bool block) {
    return arm_facade::move_timed(*right_, arm_facade::pose_values(pose), time, false, block);
}
int KelmDualBot::move_right_line_joint(const std::vector<double>& target, bool block) {
    return arm_facade::move_line(*right_, target, true, block);
}
int KelmDualBot::move_right_line_pose(const std::array<double, 7>& pose, bool block) {
    return arm_facade::move_line(*right_, arm_facade::pose_values(pose), true, block);
}
int KelmDualBot::move_right_joint_traj(const std::vector<std::vector<double>>& traj, std::vector<double> gripper,
                                       std::vector<double> times, bool block) {
    return arm_facade::move_traj(*right_, traj, gripper, times, true, block);
}
int KelmDualBot::move_right_pose_traj(const std::vector<std::array<double, 7>>& poses, std::vector<double> gripper,
                                      std::vector<double> times, bool block) {
    return arm_facade::move_traj(*right_, arm_facade::pose_values(poses), gripper, times, false, block);
}

int KelmDualBot::forward_kine_right(int tool, const std::vector<double>& joint, std::array<double, 7>& pose) {
    return right_->forwardKine(tool, arm_facade::kBaseUser, joint, pose);
}
int KelmDualBot::forward_kine_right_array(int tool, const std::vector<std::vector<double>>& joints,
                                          std::vector<std::array<double, 7>>& poses) {
    return right_->forwardKine(tool, arm_facade::kBaseUser, joints, poses);
}
int KelmDualBot::inverse_kine_right(int tool, const std::array<double, 7>& pose, const std::vector<double>& ref_joint,
                                    std::vector<double>& joint) {
    return right_->inverseKine(tool, arm_facade::kBaseUser, pose, ref_joint, joint);
}
int KelmDualBot::inverse_kine_right_array(int tool, const std::vector<std::array<double, 7>>& poses,
                                          const std::vector<std::vector<double>>& ref_joints,
                                          std::vector<std::vector<double>>& joints) {
    return right_->inverseKine(tool, arm_facade::kBaseUser, poses, ref_joints, joints);
}

void KelmDualBot::register_right_joint_cbk(JointCallback fn) {
    right_->register_get_joint_callback("get_right_joint", fn);
}
int KelmDualBot::release_right_joint_cbk() { return right_->release_get_joint_callback(); }
void KelmDualBot::register_right_pose_cbk(PoseCallback fn) { right_->register_get_pose_callback("get_rigth_pose", fn); }
int KelmDualBot::release_right_pose_cbk() { return right_->release_get_pose_callback(); }
void KelmDualBot::register_right_plan_joint_cbk(JointCallback fn) {
    right_->register_get_plan_joint_callback("get_right_plan_joint", fn);
}
int KelmDualBot::release_right_plan_joint_cbk() { return right_->release_get_plan_joint_callback(); }
void KelmDualBot::register_right_external_force_cbk(ExternalForceCallback fn) {
    right_->register_get_external_force_callback("get_right_external_force", fn);
}
int KelmDualBot::release_right_external_force_cbk() { return right_->release_get_external_force_callback(); }

}  // namespace kelm
