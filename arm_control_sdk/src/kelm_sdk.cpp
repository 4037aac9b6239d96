// KelmKernelImpl: construction and destruction, the callback registries, the
// getters of the cached state, and the two ways a request leaves the kernel.
#include <utility>

#include "kelm_kernel.h"
#include "log_manager.h"

namespace kelm {

namespace {

constexpr int kCommandTimeoutMs = 1000;
constexpr size_t kReservedIntCount = 16;
const char* const kTaskReceived = "Task_Recieve";

}  // namespace

std::string KelmKernelImpl::SharedStatus::arm_name() const {
    std::lock_guard<std::mutex> lock(name_mutex_);
    return arm_name_;
}

void KelmKernelImpl::SharedStatus::set_arm_name(const std::string& name) {
    // The one writer may compare without the lock: readers only read.
    if (arm_name_ == name) return;
    std::lock_guard<std::mutex> lock(name_mutex_);
    arm_name_ = name;
}

ArmStatus KelmKernelImpl::SharedStatus::load() const {
    ArmStatus copy;
    copy.arm_index = arm_index.load();
    copy.arm_name = arm_name();
    copy.connected = connected.load();
    copy.dof = dof.load();
    copy.servo = servo.load();
    copy.motion_state = motion_state.load();
    copy.fsm_mode = fsm_mode.load();
    copy.vel_per = vel_per.load();
    copy.debug = debug.load();
    return copy;
}

KelmKernelImpl::KelmKernelImpl(const std::string& ip, int port, double timeout, int arm_index) {
    initData();
    register_update_robot_state_callback("parseRecieveData", [this](std::string msg) { parseRecieveData(msg); });
    register_error_catch_callback("onKelmError",
                                  [this](int code, std::string msg) { onKelmError(code, std::move(msg)); });
    // A kernel exists whether or not the controller answered; its requests
    // fail later instead.
    connect_kelm(ip, port, timeout);
    // Set only now: a frame that arrives during the connect must not be
    // taken for this arm yet.
    status.arm_index.store(arm_index);
}

KelmKernelImpl::~KelmKernelImpl() {
    disconnect_kelm();
    release_update_robot_state_callback("parseRecieveData");
    KELM_LOG(LOG_INFO, "KelmSingleCol destory...");
}

void KelmKernelImpl::initData() {
    std::lock_guard<std::mutex> lock(state_mutex);
    status.servo.store(false);
    status.motion_state.store(0);
    status.fsm_mode.store(0);
    status.connected.store(false);
    status.debug.store(false);
    for (auto* values : {&joint_pos, &joint_vel, &joint_tau, &plan_joint_pos, &plan_joint_vel, &plan_joint_tau,
                         &joint_external_tau, &cart_external_force}) {
        values->clear();
    }
    for (auto* pose : {&cart_pose, &pose_tool, &pose_user, &pose_aut}) pose->fill(0.0);
    reserved_code = 0;
    time_stamp = 0.0;
    reserved_text.clear();
    reserved_ints_a.resize(kReservedIntCount);
    reserved_ints_b.resize(kReservedIntCount);
}

// ---- requests ----

int KelmKernelImpl::sendCommand(const Json::Value& body) {
    std::string task_key;
    const Json::Value reply = cmd_server(body, task_key, kCommandTimeoutMs);
    // A null reply (failed send, time-out) is no object either.
    return reply.isObject() && reply["recv"] == kTaskReceived ? 1 : -1;
}

int KelmKernelImpl::publishStream(const Json::Value& body) {
    std::string task_key;
    return cmd_publish(body, task_key) ? 1 : -1;
}

// ---- registries ----

int KelmKernelImpl::register_error_catch_callback(const std::string& name, ErrorCallback cb) {
    error_catch_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_error_catch_callback(const std::string& name) {
    error_catch_callbacks.erase(name);
    return 0;
}

int KelmKernelImpl::release_error_catch_callback() {
    error_catch_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_get_joint_callback(const std::string& name, JointCallback cb) {
    get_joint_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_joint_callback(const std::string& name) {
    get_joint_callbacks.erase(name);
    return 0;
}

int KelmKernelImpl::release_get_joint_callback() {
    get_joint_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_get_pose_callback(const std::string& name, PoseCallback cb) {
    get_pose_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_pose_callback(const std::string& name) {
    get_pose_callbacks.erase(name);
    return 0;
}

int KelmKernelImpl::release_get_pose_callback() {
    get_pose_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_get_plan_joint_callback(const std::string& name, JointCallback cb) {
    get_plan_joint_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_plan_joint_callback(const std::string& name) {
    get_plan_joint_callbacks.erase(name);
    return 0;
}

int KelmKernelImpl::release_get_plan_joint_callback() {
    get_plan_joint_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_get_tele_master_data_callback(const std::string& name, TeleDataCallback cb) {
    get_tele_master_data_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_tele_master_data_callback(const std::string& name) {
    get_tele_master_data_callbacks.erase(name);
    return 0;
}

int KelmKernelImpl::release_get_tele_master_data_callback() {
    get_tele_master_data_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_get_tele_slave_data_callback(const std::string& name, TeleDataCallback cb) {
    get_tele_slave_data_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_tele_slave_data_callback(const std::string& name) {
    get_tele_slave_data_callbacks.erase(name);
    return 0;
}

int KelmKernelImpl::release_get_tele_slave_data_callback() {
    get_tele_slave_data_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_get_external_force_callback(const std::string& name, ExternalForceCallback cb) {
    get_external_force_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_external_force_callback(const std::string& name) {
    get_external_force_callbacks.erase(name);
    return 0;
}

int KelmKernelImpl::release_get_external_force_callback() {
    get_external_force_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_fsm_mode_changed_callback(const std::string& name, AxisValueCallback cb) {
    fsm_mode_changed_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_fsm_mode_changed_callback() {
    fsm_mode_changed_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_servo_status_changed_callback(const std::string& name, AxisServoCallback cb) {
    servo_status_changed_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_servo_status_changed_callback() {
    servo_status_changed_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_motor_code_changed_callback(const std::string& name, AxisCodeCallback cb) {
    motor_code_changed_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_motor_code_changed_callback() {
    motor_code_changed_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_motor_run_state_changed_callback(const std::string& name, AxisValueCallback cb) {
    motor_run_state_changed_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_motor_run_state_changed_callback() {
    motor_run_state_changed_callbacks.clear();
    return 0;
}

int KelmKernelImpl::register_state_changed_callback(const std::string& name, StateCallback cb) {
    state_changed_callbacks.set(name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_state_changed_callback() {
    state_changed_callbacks.clear();
    return 0;
}

// ---- getters ----

ArmStatus KelmKernelImpl::get_status() {
    status.connected.store(is_connected());
    return status.load();
}

std::vector<double> KelmKernelImpl::get_joint_pos() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return joint_pos;
}

std::vector<double> KelmKernelImpl::get_joint_vel() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return joint_vel;
}

std::vector<double> KelmKernelImpl::get_joint_tau() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return joint_tau;
}

std::vector<double> KelmKernelImpl::get_plan_joint_pos() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return plan_joint_pos;
}

std::vector<double> KelmKernelImpl::get_plan_joint_vel() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return plan_joint_vel;
}

std::vector<double> KelmKernelImpl::get_plan_joint_tau() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return plan_joint_tau;
}

std::vector<double> KelmKernelImpl::get_joint_external_tau() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return joint_external_tau;
}

Pose KelmKernelImpl::get_cart_pose() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return cart_pose;
}

std::vector<double> KelmKernelImpl::get_cart_external_force() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return cart_external_force;
}

int KelmKernelImpl::get_end_effector_state() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return end_effector.state;
}

double KelmKernelImpl::get_end_effector_pos() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return end_effector.pos;
}

double KelmKernelImpl::get_end_effector_vel() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return end_effector.vel;
}

double KelmKernelImpl::get_end_effector_tau() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return end_effector.tau;
}

bool KelmKernelImpl::get_end_effector_connect() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return end_effector.connected;
}

}  // namespace kelm
