#include "kelm_single_col.h"

#include <utility>

#include "arm_facade.h"

namespace kelm {
namespace {

// The controller's only arm, for a machine with one.
constexpr int kSingleArmIndex = 0;

}  // namespace

KelmSingleCol::KelmSingleCol(const std::string& ip, int port, double timeout)
    : kernel_(new KelmKernelImpl(ip, port, timeout, kSingleArmIndex)) {}

KelmSingleCol::~KelmSingleCol() { delete kernel_; }

int KelmSingleCol::connect(const std::string& ip, int port, double timeout) {
    return kernel_->connect_kelm(ip, port, timeout);
}
int KelmSingleCol::disconnect() { return kernel_->disconnect_kelm(); }
bool KelmSingleCol::is_connected() { return kernel_->is_connected(); }

int KelmSingleCol::set_ready() { return kernel_->set_kelm_ready(true, arm_facade::kReadyBudgetMs); }
int KelmSingleCol::set_servo_enable(bool enable) { return kernel_->set_servo_enable(enable); }
int KelmSingleCol::set_control_mode(int mode) { return kernel_->set_control_mode(mode); }
int KelmSingleCol::set_speed_level(double level, int response_level) {
    return kernel_->set_speed_level(level, response_level);
}
int KelmSingleCol::set_collision_config(bool flag, int level) { return kernel_->set_collision_config(flag, level); }
int KelmSingleCol::emergency_stop() { return kernel_->emergency_stop(); }
int KelmSingleCol::set_gripper(double pos, double tau) { return kernel_->set_end_effector(pos, tau); }

std::string KelmSingleCol::get_version() { return kernel_->get_version(); }
ArmConfig KelmSingleCol::get_config() { return kernel_->get_config(); }
int KelmSingleCol::set_tool_index(int index) { return kernel_->set_tool_index(index); }
int KelmSingleCol::get_tool_index() { return kernel_->get_tool_index(); }
std::array<double, 7> KelmSingleCol::get_tool_coordinate(int index) { return kernel_->get_tool_coordinate(index); }

int KelmSingleCol::trajectory_teach(bool flag, std::string name) {
    return kernel_->trajectory_teach(flag, std::move(name));
}
int KelmSingleCol::trajectory_recorder(std::string name) { return kernel_->trajectory_recorder(std::move(name)); }
int KelmSingleCol::check_teach(std::vector<std::string>& teach_list) { return kernel_->check_teach(teach_list); }

Refusal KelmSingleCol::get_last_refusal() { return kernel_->get_last_refusal(); }
std::string KelmSingleCol::get_submitted_task_key() { return kernel_->get_submitted_task_key(); }

ArmStatus KelmSingleCol::get_status() { return kernel_->get_status(); }
std::vector<double> KelmSingleCol::get_joint_pos() { return kernel_->get_joint_pos(); }
std::vector<double> KelmSingleCol::get_joint_vel() { return kernel_->get_joint_vel(); }
std::vector<double> KelmSingleCol::get_joint_tau() { return kernel_->get_joint_tau(); }
std::vector<double> KelmSingleCol::get_plan_joint_pos() { return kernel_->get_plan_joint_pos(); }
std::vector<double> KelmSingleCol::get_plan_joint_vel() { return kernel_->get_plan_joint_vel(); }
std::vector<double> KelmSingleCol::get_plan_joint_tau() { return kernel_->get_plan_joint_tau(); }
std::array<double, 7> KelmSingleCol::get_cart_pose() { return kernel_->get_cart_pose(); }
std::vector<double> KelmSingleCol::get_joint_external_tau() { return kernel_->get_joint_external_tau(); }
std::vector<double> KelmSingleCol::get_cart_external_force() { return kernel_->get_cart_external_force(); }
int KelmSingleCol::get_gripper_state() { return arm_facade::gripper_state(*kernel_); }
double KelmSingleCol::get_gripper_pos() { return kernel_->get_end_effector_pos(); }
double KelmSingleCol::get_gripper_vel() { return kernel_->get_end_effector_vel(); }
double KelmSingleCol::get_gripper_tau() { return kernel_->get_end_effector_tau(); }

void KelmSingleCol::register_joint_cbk(JointCallback fn) { kernel_->register_get_joint_callback("get_joint", fn); }
int KelmSingleCol::release_joint_cbk() { return kernel_->release_get_joint_callback(); }
void KelmSingleCol::register_pose_cbk(PoseCallback fn) { kernel_->register_get_pose_callback("get_pose", fn); }
int KelmSingleCol::release_pose_cbk() { return kernel_->release_get_pose_callback(); }
void KelmSingleCol::register_plan_joint_cbk(JointCallback fn) {
    kernel_->register_get_plan_joint_callback("get_cmd_joint", fn);
}
int KelmSingleCol::release_plan_joint_cbk() { return kernel_->release_get_plan_joint_callback(); }
void KelmSingleCol::register_external_force_cbk(ExternalForceCallback fn) {
    kernel_->register_get_external_force_callback("get_external_force", fn);
}
int KelmSingleCol::release_external_force_cbk() { return kernel_->release_get_external_force_callback(); }

void KelmSingleCol::register_error_cbk(const std::string& name, ErrorCallback fn) {
    kernel_->register_error_catch_callback(name, fn);
}
int KelmSingleCol::release_error_cbk(const std::string& name) { return kernel_->release_error_catch_callback(name); }
void KelmSingleCol::register_completion_cbk(const std::string& name, CompletionCallback fn) {
    kernel_->register_task_completion_callback(name, fn);
}
int KelmSingleCol::release_completion_cbk(const std::string& name) {
    return kernel_->release_task_completion_callback(name);
}

int KelmSingleCol::forward_kine(int tool, const std::vector<double>& joint, std::array<double, 7>& pose) {
    return kernel_->forwardKine(tool, arm_facade::kBaseUser, joint, pose);
}
int KelmSingleCol::forward_kine_array(int tool, const std::vector<std::vector<double>>& joints,
                                      std::vector<std::array<double, 7>>& poses) {
    return kernel_->forwardKine(tool, arm_facade::kBaseUser, joints, poses);
}
int KelmSingleCol::inverse_kine(int tool, const std::array<double, 7>& pose, const std::vector<double>& ref_joint,
                                std::vector<double>& joint) {
    return kernel_->inverseKine(tool, arm_facade::kBaseUser, pose, ref_joint, joint);
}
int KelmSingleCol::inverse_kine_array(int tool, const std::vector<std::array<double, 7>>& poses,
                                      const std::vector<std::vector<double>>& ref_joints,
                                      std::vector<std::vector<double>>& joints) {
    return kernel_->inverseKine(tool, arm_facade::kBaseUser, poses, ref_joints, joints);
}

int KelmSingleCol::move_joint(const std::vector<double>& target, double time, bool block) {
    return arm_facade::move_timed(*kernel_, target, time, true, block);
}
int KelmSingleCol::move_pose(const std::array<double, 7>& pose, double time, bool block) {
    return arm_facade::move_timed(*kernel_, arm_facade::pose_values(pose), time, false, block);
}
int KelmSingleCol::move_line_joint(const std::vector<double>& target, bool block) {
    return arm_facade::move_line(*kernel_, target, true, block);
}
int KelmSingleCol::move_line_pose(const std::array<double, 7>& pose, bool block) {
    return arm_facade::move_line(*kernel_, arm_facade::pose_values(pose), false, block);
}
int KelmSingleCol::move_joint_traj(const std::vector<std::vector<double>>& traj, std::vector<double> gripper,
                                   std::vector<double> times, bool block) {
    return arm_facade::move_traj(*kernel_, traj, gripper, times, true, block);
}
int KelmSingleCol::move_pose_traj(const std::vector<std::array<double, 7>>& poses, std::vector<double> gripper,
                                  std::vector<double> times, bool block) {
    return arm_facade::move_traj(*kernel_, arm_facade::pose_values(poses), gripper, times, false, block);
}

int KelmSingleCol::track_joint(const std::vector<double>& target, double gripper) {
    return arm_facade::track_joint(*kernel_, target, gripper);
}
int KelmSingleCol::track_pose(const std::array<double, 7>& pose, double gripper) {
    return arm_facade::track_pose(*kernel_, pose, gripper);
}

}  // namespace kelm
