// KelmKernelImpl: construction and destruction, the callback registries, the
// getters of the cached state, and the two ways a request leaves the kernel.
#include <utility>

#include "callback_registry.h"
#include "kelm_kernel.h"
#include "log_manager.h"
#include "motion_checks.h"
#include "protocol.h"
#include "status_field.h"

namespace kelm {

namespace {

constexpr size_t kReservedIntCount = 16;

}  // namespace

KelmKernelImpl::KelmKernelImpl(const std::string& ip, int port, double timeout, int arm_index)
    : KelmKernelImpl(webSocketClientFactory(), ip, port, timeout, arm_index) {}

KelmKernelImpl::KelmKernelImpl(SocketClientFactory factory, const std::string& ip, int port, double timeout,
                               int arm_index)
    : KelmCommManager(std::move(factory)) {
    initData();
    register_update_robot_state_callback("parseRecieveData", [this](std::string msg) { parseRecieveData(msg); });
    register_error_catch_callback("onKelmError",
                                  [this](int code, std::string msg) { onKelmError(code, std::move(msg)); });
    // A kernel exists whether or not the controller answered; its requests
    // fail later instead.
    connect_kelm(ip, port, timeout);
    // Set only now: a frame that arrives during the connect must not be
    // taken for this arm yet.
    status_field::store(status.arm_index, arm_index);
}

KelmKernelImpl::~KelmKernelImpl() {
    disconnect_kelm();
    release_update_robot_state_callback("parseRecieveData");
    KELM_LOG(LOG_INFO, "KelmSingleCol destory...");
}

void KelmKernelImpl::initData() {
    std::lock_guard<std::mutex> lock(state_mutex);
    status_field::store(status.servo, false);
    status_field::store(status.motion_state, 0);
    status_field::store(status.fsm_mode, 0);
    status_field::store(status.connected, false);
    status_field::store(status.debug, false);
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

int KelmKernelImpl::sendCommand(const char* operation, const Json::Value& body) {
    std::string task_key;
    return read_reply(operation, cmd_server(body, task_key, protocol::kReplyTimeoutMs));
}

int KelmKernelImpl::publishStream(const Json::Value& body) {
    std::string task_key;
    return cmd_publish(body, task_key) ? 1 : -1;
}

// ---- the last refusal ----

Refusal KelmKernelImpl::get_last_refusal() {
    std::lock_guard<std::mutex> lock(refusal_mutex_);
    return last_refusal_;
}

std::string KelmKernelImpl::get_submitted_task_key() {
    std::lock_guard<std::mutex> lock(refusal_mutex_);
    return submitted_task_key_;
}

int KelmKernelImpl::refuse_input(const char* operation) {
    note_refusal(operation, RefusalKind::invalid_input, LogManager::lastErrorLineOfThisThread());
    return -1;
}

int KelmKernelImpl::read_reply(const char* operation, const Json::Value& reply) {
    // A null reply (failed send, time-out) is no object either.
    if (!reply.isObject()) {
        if (is_connected()) {
            note_refusal(operation, RefusalKind::timeout, "no reply from the controller in time");
        } else {
            note_refusal(operation, RefusalKind::no_connection, "no connection to the controller");
        }
        return -1;
    }
    if (motion_checks::isTaskReceived(reply)) return 1;
    const Json::Value& recv = reply[protocol::key::kRecv];
    const Json::Value& err_msg = reply[protocol::key::kErrMsg];
    std::string reason = err_msg.isString() ? err_msg.asString() : std::string();
    if (reason.empty()) reason = "the controller answered recv " + recv.toStyledString();
    while (!reason.empty() && reason.back() == '\n') reason.pop_back();
    note_refusal(operation, RefusalKind::controller, std::move(reason));
    return -1;
}

void KelmKernelImpl::note_refusal(const char* operation, RefusalKind kind, std::string reason) {
    std::lock_guard<std::mutex> lock(refusal_mutex_);
    ++last_refusal_.serial;
    last_refusal_.operation = operation;
    last_refusal_.kind = kind;
    last_refusal_.reason = std::move(reason);
}

void KelmKernelImpl::note_task_key(const std::string& task_key) {
    std::lock_guard<std::mutex> lock(refusal_mutex_);
    submitted_task_key_ = task_key;
}

// ---- registries ----

int KelmKernelImpl::register_error_catch_callback(const std::string& name, ErrorCallback cb) {
    registry::set(registry_mutex_, error_catch_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_error_catch_callback(const std::string& name) {
    registry::erase(registry_mutex_, error_catch_callbacks, name);
    return 0;
}

int KelmKernelImpl::release_error_catch_callback() {
    registry::clear(registry_mutex_, error_catch_callbacks);
    return 0;
}

int KelmKernelImpl::register_get_joint_callback(const std::string& name, JointCallback cb) {
    registry::set(registry_mutex_, get_joint_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_joint_callback(const std::string& name) {
    registry::erase(registry_mutex_, get_joint_callbacks, name);
    return 0;
}

int KelmKernelImpl::release_get_joint_callback() {
    registry::clear(registry_mutex_, get_joint_callbacks);
    return 0;
}

int KelmKernelImpl::register_get_pose_callback(const std::string& name, PoseCallback cb) {
    registry::set(registry_mutex_, get_pose_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_pose_callback(const std::string& name) {
    registry::erase(registry_mutex_, get_pose_callbacks, name);
    return 0;
}

int KelmKernelImpl::release_get_pose_callback() {
    registry::clear(registry_mutex_, get_pose_callbacks);
    return 0;
}

int KelmKernelImpl::register_get_plan_joint_callback(const std::string& name, JointCallback cb) {
    registry::set(registry_mutex_, get_plan_joint_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_plan_joint_callback(const std::string& name) {
    registry::erase(registry_mutex_, get_plan_joint_callbacks, name);
    return 0;
}

int KelmKernelImpl::release_get_plan_joint_callback() {
    registry::clear(registry_mutex_, get_plan_joint_callbacks);
    return 0;
}

int KelmKernelImpl::register_get_tele_master_data_callback(const std::string& name, TeleDataCallback cb) {
    registry::set(registry_mutex_, get_tele_master_data_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_tele_master_data_callback(const std::string& name) {
    registry::erase(registry_mutex_, get_tele_master_data_callbacks, name);
    return 0;
}

int KelmKernelImpl::release_get_tele_master_data_callback() {
    registry::clear(registry_mutex_, get_tele_master_data_callbacks);
    return 0;
}

int KelmKernelImpl::register_get_tele_slave_data_callback(const std::string& name, TeleDataCallback cb) {
    registry::set(registry_mutex_, get_tele_slave_data_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_tele_slave_data_callback(const std::string& name) {
    registry::erase(registry_mutex_, get_tele_slave_data_callbacks, name);
    return 0;
}

int KelmKernelImpl::release_get_tele_slave_data_callback() {
    registry::clear(registry_mutex_, get_tele_slave_data_callbacks);
    return 0;
}

int KelmKernelImpl::register_get_external_force_callback(const std::string& name, ExternalForceCallback cb) {
    registry::set(registry_mutex_, get_external_force_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_get_external_force_callback(const std::string& name) {
    registry::erase(registry_mutex_, get_external_force_callbacks, name);
    return 0;
}

int KelmKernelImpl::release_get_external_force_callback() {
    registry::clear(registry_mutex_, get_external_force_callbacks);
    return 0;
}

int KelmKernelImpl::register_fsm_mode_changed_callback(const std::string& name, AxisValueCallback cb) {
    registry::set(registry_mutex_, fsm_mode_changed_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_fsm_mode_changed_callback() {
    registry::clear(registry_mutex_, fsm_mode_changed_callbacks);
    return 0;
}

int KelmKernelImpl::register_servo_status_changed_callback(const std::string& name, AxisServoCallback cb) {
    registry::set(registry_mutex_, servo_status_changed_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_servo_status_changed_callback() {
    registry::clear(registry_mutex_, servo_status_changed_callbacks);
    return 0;
}

int KelmKernelImpl::register_motor_code_changed_callback(const std::string& name, AxisCodeCallback cb) {
    registry::set(registry_mutex_, motor_code_changed_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_motor_code_changed_callback() {
    registry::clear(registry_mutex_, motor_code_changed_callbacks);
    return 0;
}

int KelmKernelImpl::register_motor_run_state_changed_callback(const std::string& name, AxisValueCallback cb) {
    registry::set(registry_mutex_, motor_run_state_changed_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_motor_run_state_changed_callback() {
    registry::clear(registry_mutex_, motor_run_state_changed_callbacks);
    return 0;
}

int KelmKernelImpl::register_state_changed_callback(const std::string& name, StateCallback cb) {
    registry::set(registry_mutex_, state_changed_callbacks, name, std::move(cb));
    return 0;
}

int KelmKernelImpl::release_state_changed_callback() {
    registry::clear(registry_mutex_, state_changed_callbacks);
    return 0;
}

// ---- getters ----

ArmStatus KelmKernelImpl::get_status() {
    status_field::store(status.connected, is_connected());
    ArmStatus copy;
    copy.arm_index = status_field::load(status.arm_index);
    {
        std::lock_guard<std::mutex> lock(arm_name_mutex_);
        copy.arm_name = status.arm_name;
    }
    copy.connected = status_field::load(status.connected);
    copy.dof = status_field::load(status.dof);
    copy.servo = status_field::load(status.servo);
    copy.motion_state = status_field::load(status.motion_state);
    copy.fsm_mode = status_field::load(status.fsm_mode);
    copy.vel_per = status_field::load(status.vel_per);
    copy.debug = status_field::load(status.debug);
    return copy;
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
