// The public interface as a user program sees it: the type of every public
// data member and record field, the signature of every operation (result,
// parameter types, by value or by reference), the tables and the free
// functions of the log library. Everything here is checked while this file
// compiles; a header that drifts from the interface breaks the build of this
// test. The one runtime case only lets CTest count it.
#include <gtest/gtest.h>
#include <json/json.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "communication_client.h"
#include "kelm_dual_bot.h"
#include "kelm_single_col.h"
#include "websocket_client.h"

namespace kelm {
namespace {

using Pose = std::array<double, 7>;
using Joints = std::vector<double>;
using Points = std::vector<std::vector<double>>;
using Poses = std::vector<std::array<double, 7>>;
template <typename Signature>
using Registry = std::map<std::string, std::function<Signature>>;

// True when `&Class::name` converts to a pointer to a member function of
// exactly `Signature`; with overloads, when one of them has it.
template <typename Class, typename Signature>
constexpr bool hasOperation(Signature Class::*) {
    return true;
}

#define KELM_MEMBER(Class, name, ...) \
    static_assert(std::is_same_v<decltype(Class::name), __VA_ARGS__>, #Class "::" #name " has another type")
#define KELM_FIELD(object, field, ...) \
    static_assert(std::is_same_v<decltype(std::declval<object&>().field), __VA_ARGS__>, #object "." #field)
#define KELM_OPERATION(Class, name, ...) static_assert(hasOperation<Class, __VA_ARGS__>(&Class::name), #name)
#define KELM_GLOBAL(name, ...) static_assert(std::is_same_v<decltype(name), __VA_ARGS__>, #name " has another type")

// ---- the class tree and the transport and log libraries ----

static_assert(std::is_abstract_v<iRecieveListener> && std::has_virtual_destructor_v<iRecieveListener>);
KELM_OPERATION(iRecieveListener, onReceive, void(const std::string&));
static_assert(std::is_convertible_v<KelmCommManager*, iRecieveListener*>);
static_assert(std::is_convertible_v<KelmKernelImpl*, KelmCommManager*>);
static_assert(std::is_abstract_v<BasicClientInterface>);
static_assert(std::is_convertible_v<std::shared_ptr<WebSocketClient>, std::shared_ptr<BasicClientInterface>>);
static_assert(std::is_constructible_v<WebSocketClient, std::string, unsigned short>);

static_assert(std::is_default_constructible_v<CommunicationClient>);
KELM_OPERATION(CommunicationClient, attachListener, void(iRecieveListener*));
KELM_OPERATION(CommunicationClient, releaseListener, void(iRecieveListener*));
KELM_OPERATION(CommunicationClient, setClientHandle, void(std::shared_ptr<BasicClientInterface>));
KELM_OPERATION(CommunicationClient, setSendRate, void(double));
KELM_OPERATION(CommunicationClient, setRecvRate, void(double));
KELM_OPERATION(CommunicationClient, connect, int(const std::string&, int, double));
KELM_OPERATION(CommunicationClient, isConnected, bool());
KELM_OPERATION(CommunicationClient, disConnect, void());
KELM_OPERATION(CommunicationClient, sendRequest, int(const Json::Value&));
KELM_MEMBER(CommunicationClient, connect_callback, std::function<void(bool)>);

static_assert(std::is_enum_v<LogLevel>);
KELM_GLOBAL(&getLogInstance, LogManager* (*)());
KELM_OPERATION(LogManager, log, void(const char*, int, LogLevel, const char*, ...));
KELM_OPERATION(LogManager, reset, void());
KELM_OPERATION(LogManager, printArray<Pose>,
               void(const char*, int, LogLevel, const char*, const Pose&, int, const char*));
static_assert(std::is_default_constructible_v<log_time::TimerUnit>);
KELM_GLOBAL(&log_time::getTimeStamp, std::string (*)(int));
KELM_GLOBAL(&log_time::timer_start, void (*)(log_time::TimerUnit&));
KELM_GLOBAL(&log_time::timer_end, void (*)(log_time::TimerUnit&));

// ---- tables ----

static_assert(std::is_signed_v<std::underlying_type_t<FsmMode>> &&
              std::is_signed_v<std::underlying_type_t<KelmState>> &&
              std::is_signed_v<std::underlying_type_t<KelmErrorCode>> && std::is_enum_v<LogColor>);
KELM_GLOBAL(fsm_mode_str_map, std::map<FsmMode, std::string>);
KELM_GLOBAL(str_map_fsm_mode, std::map<std::string, FsmMode>);
KELM_GLOBAL(kelm_state_str, std::map<KelmState, std::string>);
KELM_GLOBAL(enum_color_map, std::map<LogColor, std::string>);
KELM_GLOBAL(color_str_map, std::map<std::string, std::string>);
KELM_GLOBAL(::kelm_err_code_map, std::map<KelmErrorCode, std::string>);

// ---- records ----

KELM_FIELD(ArmStatus, arm_index, std::int32_t);
KELM_FIELD(ArmStatus, arm_name, std::string);
KELM_FIELD(ArmStatus, connected, bool);
KELM_FIELD(ArmStatus, dof, std::int32_t);
KELM_FIELD(ArmStatus, servo, bool);
KELM_FIELD(ArmStatus, motion_state, std::int32_t);
KELM_FIELD(ArmStatus, fsm_mode, std::int32_t);
KELM_FIELD(ArmStatus, vel_per, double);
KELM_FIELD(ArmStatus, debug, bool);

static_assert(std::is_copy_constructible_v<ArmConfig> && std::is_move_constructible_v<ArmConfig> &&
              !std::is_polymorphic_v<ArmConfig>);
KELM_FIELD(ArmConfig, dof, std::int32_t);
KELM_FIELD(ArmConfig, limit_upper, Joints);
KELM_FIELD(ArmConfig, limit_lower, Joints);
KELM_FIELD(ArmConfig, joint_vel, Joints);
KELM_FIELD(ArmConfig, joint_acc, Joints);
KELM_FIELD(ArmConfig, joint_dec, Joints);
KELM_FIELD(ArmConfig, joint_jerk, Joints);

KELM_FIELD(KelmCommManager::MsgHeader, command, std::string);
KELM_FIELD(KelmCommManager::MsgHeader, task_key, std::string);
KELM_FIELD(KelmCommManager::MsgHeader, data, Json::Value);

KELM_FIELD(KelmKernelImpl::RtuInfo, units, std::vector<KelmKernelImpl::IOUnit>);
KELM_FIELD(KelmKernelImpl::IOUnit, di_value, std::vector<int>);
KELM_FIELD(KelmKernelImpl::IOUnit, do_value, std::vector<int>);
KELM_FIELD(KelmKernelImpl::IOUnit, ad_value, std::vector<KelmKernelImpl::IOValueInfo>);
KELM_FIELD(KelmKernelImpl::IOUnit, da_value, std::vector<KelmKernelImpl::IOValueInfo>);
KELM_FIELD(KelmKernelImpl::IOUnit, status_value, std::vector<KelmKernelImpl::IOValueInfo>);
KELM_FIELD(KelmKernelImpl::IOUnit, ctrl_value, std::vector<KelmKernelImpl::IOValueInfo>);
KELM_FIELD(KelmKernelImpl::IOValueInfo, value, std::uint64_t);
KELM_FIELD(KelmKernelImpl::IOValueInfo, bits, std::uint8_t);

// ---- KelmCommManager ----

static_assert(std::is_enum_v<KelmCommManager::ComMode>);
KELM_MEMBER(KelmCommManager, comm_client, std::shared_ptr<CommunicationClient>);
KELM_MEMBER(KelmCommManager, send_rate, double);
KELM_MEMBER(KelmCommManager, recv_rate, double);
KELM_MEMBER(KelmCommManager, pending_msgs, std::deque<KelmCommManager::MsgHeader>);
KELM_MEMBER(KelmCommManager, pending_mutex, std::mutex);
KELM_MEMBER(KelmCommManager, subscriptions, Registry<void(std::string)>);
KELM_MEMBER(KelmCommManager, task_completion_callbacks, Registry<void(std::string)>);
KELM_MEMBER(KelmCommManager, update_robot_state_callbacks, Registry<void(std::string)>);
KELM_MEMBER(KelmCommManager, connect_changed_callbacks, Registry<void(bool)>);
KELM_MEMBER(KelmCommManager, com_mode_names, std::map<KelmCommManager::ComMode, std::string>);

static_assert(std::is_default_constructible_v<KelmCommManager> && std::has_virtual_destructor_v<KelmCommManager>);
KELM_OPERATION(KelmCommManager, connect_kelm, int(const std::string&, int, double));
KELM_OPERATION(KelmCommManager, disconnect_kelm, int());
KELM_OPERATION(KelmCommManager, is_connected, bool());
KELM_OPERATION(KelmCommManager, setSendRate, void(double));
KELM_OPERATION(KelmCommManager, setRecvRate, void(double));
KELM_OPERATION(KelmCommManager, connectChanged, void(bool));
KELM_OPERATION(KelmCommManager, onReceive, void(const std::string&));
KELM_OPERATION(KelmCommManager, cmd_publish, bool(const Json::Value&, std::string&));
KELM_OPERATION(KelmCommManager, cmd_server, Json::Value(const Json::Value&, std::string&, int));
KELM_OPERATION(KelmCommManager, cmd_recv, bool(const std::string&));
KELM_OPERATION(KelmCommManager, register_subscription, void(std::string, std::function<void(std::string)>));
KELM_OPERATION(KelmCommManager, deregister_subscription, void(std::string));
KELM_OPERATION(KelmCommManager, clear_subscription, void());

// A named callback map of the connection: register, release by name, release all.
#define KELM_COMM_MAP(kind, ...)                                                                                      \
    KELM_OPERATION(KelmCommManager, register_##kind##_callback, int(const std::string&, std::function<__VA_ARGS__>)); \
    KELM_OPERATION(KelmCommManager, release_##kind##_callback, int(const std::string&));                              \
    KELM_OPERATION(KelmCommManager, release_##kind##_callback, int())
KELM_COMM_MAP(task_completion, void(std::string));
KELM_COMM_MAP(update_robot_state, void(std::string));
KELM_COMM_MAP(connect_changed, void(bool));

// ---- KelmKernelImpl: data members ----

static_assert(std::is_constructible_v<KelmKernelImpl, const std::string&, int, double, int> &&
              !std::is_constructible_v<KelmKernelImpl, const std::string&, int, double>);
static_assert(std::has_virtual_destructor_v<KelmKernelImpl>);
KELM_MEMBER(KelmKernelImpl, state_mutex, std::mutex);
KELM_MEMBER(KelmKernelImpl, arm_count, std::int32_t);
KELM_MEMBER(KelmKernelImpl, msg_count, std::uint64_t);
KELM_MEMBER(KelmKernelImpl, status, ArmStatus);
KELM_MEMBER(KelmKernelImpl, config, ArmConfig);
KELM_MEMBER(KelmKernelImpl, tool_index, std::int32_t);
KELM_MEMBER(KelmKernelImpl, user_index, std::int32_t);
KELM_MEMBER(KelmKernelImpl, time_stamp, double);
KELM_MEMBER(KelmKernelImpl, joint_pos, Joints);
KELM_MEMBER(KelmKernelImpl, joint_vel, Joints);
KELM_MEMBER(KelmKernelImpl, joint_tau, Joints);
KELM_MEMBER(KelmKernelImpl, joint_external_tau, Joints);
KELM_MEMBER(KelmKernelImpl, plan_joint_pos, Joints);
KELM_MEMBER(KelmKernelImpl, plan_joint_vel, Joints);
KELM_MEMBER(KelmKernelImpl, plan_joint_tau, Joints);
KELM_FIELD(KelmKernelImpl, end_effector.state, std::int8_t);
KELM_FIELD(KelmKernelImpl, end_effector.pos, double);
KELM_FIELD(KelmKernelImpl, end_effector.vel, double);
KELM_FIELD(KelmKernelImpl, end_effector.tau, double);
KELM_FIELD(KelmKernelImpl, end_effector.connected, bool);
KELM_MEMBER(KelmKernelImpl, cart_pose, Pose);
KELM_MEMBER(KelmKernelImpl, pose_tool, Pose);
KELM_MEMBER(KelmKernelImpl, pose_user, Pose);
KELM_MEMBER(KelmKernelImpl, pose_aut, Pose);
KELM_MEMBER(KelmKernelImpl, cart_external_force, Joints);
KELM_MEMBER(KelmKernelImpl, exe_flag, bool);
KELM_MEMBER(KelmKernelImpl, task_wait_cv, std::condition_variable);
KELM_MEMBER(KelmKernelImpl, task_wait_mutex, std::mutex);
KELM_MEMBER(KelmKernelImpl, task_wait_flag, std::atomic<int>);
KELM_MEMBER(KelmKernelImpl, last_task_key, std::string);
KELM_MEMBER(KelmKernelImpl, exe_task_key, std::string);
KELM_MEMBER(KelmKernelImpl, rtu_info, std::vector<KelmKernelImpl::RtuInfo>);
KELM_MEMBER(KelmKernelImpl, io_mutex, std::mutex);
KELM_MEMBER(KelmKernelImpl, reserved_ints_a, std::vector<int>);
KELM_MEMBER(KelmKernelImpl, reserved_ints_b, std::vector<int>);
KELM_MEMBER(KelmKernelImpl, reserved_code, std::int32_t);
KELM_MEMBER(KelmKernelImpl, reserved_text, std::string);

// ---- KelmKernelImpl: the thirteen registries with their operations ----

// A registry with its register operation and its release of everything; the
// `_BY_NAME` form adds the release of one name.
#define KELM_REGISTRY(kind, ...)                                                                                     \
    KELM_MEMBER(KelmKernelImpl, kind##_callbacks, Registry<__VA_ARGS__>);                                            \
    KELM_OPERATION(KelmKernelImpl, register_##kind##_callback, int(const std::string&, std::function<__VA_ARGS__>)); \
    KELM_OPERATION(KelmKernelImpl, release_##kind##_callback, int())
#define KELM_REGISTRY_BY_NAME(kind, ...) \
    KELM_REGISTRY(kind, __VA_ARGS__);    \
    KELM_OPERATION(KelmKernelImpl, release_##kind##_callback, int(const std::string&))

KELM_REGISTRY_BY_NAME(error_catch, void(int, std::string));
KELM_REGISTRY_BY_NAME(get_joint, void(double, Joints, Joints, Joints));
KELM_REGISTRY_BY_NAME(get_pose, void(double, Pose));
KELM_REGISTRY_BY_NAME(get_plan_joint, void(double, Joints, Joints, Joints));
KELM_REGISTRY_BY_NAME(get_tele_master_data, void(double, Joints, double));
KELM_REGISTRY_BY_NAME(get_tele_slave_data, void(double, Joints, double));
KELM_MEMBER(KelmKernelImpl, scalar_data_callbacks, Registry<void(double, double, double)>);
KELM_REGISTRY_BY_NAME(get_external_force, void(double, Joints, Joints));
KELM_REGISTRY(fsm_mode_changed, void(int, int));
KELM_REGISTRY(servo_status_changed, void(int, bool));
KELM_REGISTRY(motor_code_changed, void(int, int, const std::string&));
KELM_REGISTRY(motor_run_state_changed, void(int, int));
KELM_REGISTRY(state_changed, void(int));

// ---- KelmKernelImpl: operations ----

KELM_OPERATION(KelmKernelImpl, initData, void());
KELM_OPERATION(KelmKernelImpl, parseRecieveData, void(const std::string&));
KELM_OPERATION(KelmKernelImpl, webSendRobotStateData, void(const Json::Value&));
KELM_OPERATION(KelmKernelImpl, parseIOInfo, int(const Json::Value&, std::vector<KelmKernelImpl::RtuInfo>&));

KELM_OPERATION(KelmKernelImpl, get_status, ArmStatus());
KELM_OPERATION(KelmKernelImpl, get_joint_pos, Joints());
KELM_OPERATION(KelmKernelImpl, get_joint_vel, Joints());
KELM_OPERATION(KelmKernelImpl, get_joint_tau, Joints());
KELM_OPERATION(KelmKernelImpl, get_plan_joint_pos, Joints());
KELM_OPERATION(KelmKernelImpl, get_plan_joint_vel, Joints());
KELM_OPERATION(KelmKernelImpl, get_plan_joint_tau, Joints());
KELM_OPERATION(KelmKernelImpl, get_joint_external_tau, Joints());
KELM_OPERATION(KelmKernelImpl, get_cart_pose, Pose());
KELM_OPERATION(KelmKernelImpl, get_cart_external_force, Joints());
KELM_OPERATION(KelmKernelImpl, get_end_effector_state, int());
KELM_OPERATION(KelmKernelImpl, get_end_effector_pos, double());
KELM_OPERATION(KelmKernelImpl, get_end_effector_vel, double());
KELM_OPERATION(KelmKernelImpl, get_end_effector_tau, double());
KELM_OPERATION(KelmKernelImpl, get_end_effector_connect, bool());

KELM_OPERATION(KelmKernelImpl, set_servo_enable, int(bool));
KELM_OPERATION(KelmKernelImpl, set_control_mode, int(int));
KELM_OPERATION(KelmKernelImpl, set_end_effector, int(double, double));
KELM_OPERATION(KelmKernelImpl, set_collision_config, int(bool, int));
KELM_OPERATION(KelmKernelImpl, set_teleoperation_mode, int(int));
KELM_OPERATION(KelmKernelImpl, disable_stop, int());
KELM_OPERATION(KelmKernelImpl, emergency_stop, int());
KELM_OPERATION(KelmKernelImpl, task_stop, int(bool));
KELM_OPERATION(KelmKernelImpl, stop, int());
KELM_OPERATION(KelmKernelImpl, pause, int());
KELM_OPERATION(KelmKernelImpl, recover, int());
KELM_OPERATION(KelmKernelImpl, clean_kelm_error, int());
KELM_OPERATION(KelmKernelImpl, set_speed_level, int(double, int));
KELM_OPERATION(KelmKernelImpl, set_debug, int(bool));

KELM_OPERATION(KelmKernelImpl, task_blocking_wait, int(const std::string&, int));
KELM_OPERATION(KelmKernelImpl, onKelmError, void(int, std::string));
KELM_OPERATION(KelmKernelImpl, set_kelm_ready, int(bool, double));
KELM_OPERATION(KelmKernelImpl, tracking, int(const Joints&, bool, const double&));
KELM_OPERATION(KelmKernelImpl, set_redundancy_tau, int(const Joints&, const double&));

KELM_OPERATION(KelmKernelImpl, move_joint_jog, int(int, int, double));
KELM_OPERATION(KelmKernelImpl, move_line_jog, int(int, int, double, int, int));
KELM_OPERATION(KelmKernelImpl, move_joint, int(const Joints&, std::string&, double, int, int, bool));
KELM_OPERATION(KelmKernelImpl, move_line, int(Joints, std::string&, double, int, int, bool));
KELM_OPERATION(KelmKernelImpl, move_directly, int(const Points&, std::string&, const Joints&));
KELM_OPERATION(KelmKernelImpl, move_toppra, int(const Points&, std::string&, double, int, int, bool));
KELM_OPERATION(KelmKernelImpl, move_pvt, int(const Points&, const Joints&, const Joints&, std::string&, bool));
using ArcPoints = std::array<std::vector<double>, 3>;
KELM_OPERATION(KelmKernelImpl, move_3p_arc, int(const ArcPoints&, std::string&, double, bool, double, int, int, bool));
KELM_OPERATION(KelmKernelImpl, move_center_arc,
               int(const ArcPoints&, std::string&, double, bool, double, int, int, bool));
KELM_OPERATION(KelmKernelImpl, move_jump,
               int(Pose, std::array<double, 3>, std::array<double, 3>, std::string&, double, int, int));
KELM_OPERATION(KelmKernelImpl, move_delay, int(double, int));

KELM_OPERATION(KelmKernelImpl, get_tool_index, int());
KELM_OPERATION(KelmKernelImpl, get_user_index, int());
KELM_OPERATION(KelmKernelImpl, get_tool_coordinate, Pose(int));
KELM_OPERATION(KelmKernelImpl, get_user_coordinate, Joints(int));
KELM_OPERATION(KelmKernelImpl, set_tool_index, int(int));
KELM_OPERATION(KelmKernelImpl, set_user_index, int(int));
KELM_OPERATION(KelmKernelImpl, set_tool_coordinate, int(int, Joints));
KELM_OPERATION(KelmKernelImpl, set_user_coordinate, int(int, Joints));
KELM_OPERATION(KelmKernelImpl, user_calibrate, int(int, const Points&));
KELM_OPERATION(KelmKernelImpl, tool_calibtate, int(int, const Points&));

KELM_OPERATION(KelmKernelImpl, forwardKine, int(int, int, const Points&, Poses&));
KELM_OPERATION(KelmKernelImpl, forwardKine, int(int, int, const Joints&, Pose&));
KELM_OPERATION(KelmKernelImpl, inverseKine, int(int, int, const Poses&, const Points&, Points&));
KELM_OPERATION(KelmKernelImpl, inverseKine, int(int, int, const Pose&, const Joints&, Joints&));

KELM_OPERATION(KelmKernelImpl, set_traj_recorder, int(int));
KELM_OPERATION(KelmKernelImpl, trajectory_teach, int(bool, std::string));
KELM_OPERATION(KelmKernelImpl, trajectory_recorder, int(std::string));
KELM_OPERATION(KelmKernelImpl, check_teach, int(std::vector<std::string>&));
KELM_OPERATION(KelmKernelImpl, set_zero_position, int(int));
KELM_OPERATION(KelmKernelImpl, set_dynamics_cali_record_flag, int());
KELM_OPERATION(KelmKernelImpl, set_dynamics_cali_calcu, int(bool));
KELM_OPERATION(KelmKernelImpl, get_config, ArmConfig());
KELM_OPERATION(KelmKernelImpl, get_version, std::string());

// ---- KelmSingleCol and KelmDualBot: owning pointers to their kernels, no base, nothing virtual ----

using JointFn = std::function<void(double, Joints, Joints, Joints)>;
using PoseFn = std::function<void(double, Pose)>;
using ForceFn = std::function<void(double, Joints, Joints)>;
using ErrorFn = std::function<void(int, std::string)>;
using CompletionFn = std::function<void(std::string)>;

static_assert(!std::is_polymorphic_v<KelmSingleCol> && sizeof(KelmSingleCol) == sizeof(KelmKernelImpl*));
static_assert(!std::is_polymorphic_v<KelmDualBot> && sizeof(KelmDualBot) == 2 * sizeof(KelmKernelImpl*));
static_assert(std::is_constructible_v<KelmSingleCol, const std::string&, int, double>);
static_assert(std::is_constructible_v<KelmDualBot, const std::string&, int, double, int, int>);

// A member that both classes have, with one name and signature.
#define KELM_BOTH_CLASSES(name, ...)                  \
    KELM_OPERATION(KelmSingleCol, name, __VA_ARGS__); \
    KELM_OPERATION(KelmDualBot, name, __VA_ARGS__)
KELM_BOTH_CLASSES(connect, int(const std::string&, int, double));
KELM_BOTH_CLASSES(disconnect, int());
KELM_BOTH_CLASSES(is_connected, bool());
KELM_BOTH_CLASSES(set_ready, int());
KELM_BOTH_CLASSES(set_servo_enable, int(bool));
KELM_BOTH_CLASSES(set_control_mode, int(int));
KELM_BOTH_CLASSES(set_speed_level, int(double, int));
KELM_BOTH_CLASSES(set_collision_config, int(bool, int));
KELM_BOTH_CLASSES(emergency_stop, int());
KELM_BOTH_CLASSES(get_version, std::string());
KELM_BOTH_CLASSES(trajectory_teach, int(bool, std::string));
KELM_BOTH_CLASSES(trajectory_recorder, int(std::string));
KELM_BOTH_CLASSES(check_teach, int(std::vector<std::string>&));
KELM_BOTH_CLASSES(register_error_cbk, void(const std::string&, ErrorFn));
KELM_BOTH_CLASSES(release_error_cbk, int(const std::string&));
KELM_BOTH_CLASSES(register_completion_cbk, void(const std::string&, CompletionFn));
KELM_BOTH_CLASSES(release_completion_cbk, int(const std::string&));

// A one-arm member of KelmSingleCol with its left and right twins in KelmDualBot.
#define KELM_ONE_ARM(single, left, right, ...)          \
    KELM_OPERATION(KelmSingleCol, single, __VA_ARGS__); \
    KELM_OPERATION(KelmDualBot, left, __VA_ARGS__);     \
    KELM_OPERATION(KelmDualBot, right, __VA_ARGS__)
KELM_ONE_ARM(get_status, get_left_status, get_right_status, ArmStatus());
KELM_ONE_ARM(get_config, get_left_config, get_right_config, ArmConfig());
KELM_ONE_ARM(get_joint_pos, get_left_joint_pos, get_right_joint_pos, Joints());
KELM_ONE_ARM(get_joint_vel, get_left_joint_vel, get_right_joint_vel, Joints());
KELM_ONE_ARM(get_joint_tau, get_left_joint_tau, get_right_joint_tau, Joints());
KELM_ONE_ARM(get_plan_joint_pos, get_left_plan_joint_pos, get_right_plan_joint_pos, Joints());
KELM_ONE_ARM(get_plan_joint_vel, get_left_plan_joint_vel, get_right_plan_joint_vel, Joints());
KELM_ONE_ARM(get_plan_joint_tau, get_left_plan_joint_tau, get_right_plan_joint_tau, Joints());
KELM_ONE_ARM(get_cart_pose, get_left_cart_pose, get_right_cart_pose, Pose());
KELM_ONE_ARM(get_joint_external_tau, get_left_joint_external_tau, get_right_joint_external_tau, Joints());
KELM_ONE_ARM(get_cart_external_force, get_left_cart_external_force, get_right_cart_external_force, Joints());
KELM_ONE_ARM(get_gripper_state, get_left_gripper_state, get_right_gripper_state, int());
KELM_ONE_ARM(get_gripper_pos, get_left_gripper_pos, get_right_gripper_pos, double());
KELM_ONE_ARM(get_gripper_vel, get_left_gripper_vel, get_right_gripper_vel, double());
KELM_ONE_ARM(get_gripper_tau, get_left_gripper_tau, get_right_gripper_tau, double());
KELM_ONE_ARM(set_gripper, set_left_gripper, set_right_gripper, int(double, double));
KELM_ONE_ARM(set_tool_index, set_left_tool_index, set_right_tool_index, int(int));
KELM_ONE_ARM(get_tool_index, get_left_tool_index, get_right_tool_index, int());
KELM_ONE_ARM(get_tool_coordinate, get_left_tool_coordinate, get_right_tool_coordinate, Pose(int));
KELM_ONE_ARM(track_joint, track_left_joint, track_right_joint, int(const Joints&, double));
KELM_ONE_ARM(track_pose, track_left_pose, track_right_pose, int(const Pose&, double));
KELM_ONE_ARM(move_joint, move_left_joint, move_right_joint, int(const Joints&, double, bool));
KELM_ONE_ARM(move_pose, move_left_pose, move_right_pose, int(const Pose&, double, bool));
KELM_ONE_ARM(move_line_joint, move_left_line_joint, move_right_line_joint, int(const Joints&, bool));
KELM_ONE_ARM(move_line_pose, move_left_line_pose, move_right_line_pose, int(const Pose&, bool));
KELM_ONE_ARM(move_joint_traj, move_left_joint_traj, move_right_joint_traj, int(const Points&, Joints, Joints, bool));
KELM_ONE_ARM(move_pose_traj, move_left_pose_traj, move_right_pose_traj, int(const Poses&, Joints, Joints, bool));
KELM_ONE_ARM(forward_kine, forward_kine_left, forward_kine_right, int(int, const Joints&, Pose&));
KELM_ONE_ARM(forward_kine_array, forward_kine_left_array, forward_kine_right_array, int(int, const Points&, Poses&));
KELM_ONE_ARM(inverse_kine, inverse_kine_left, inverse_kine_right, int(int, const Pose&, const Joints&, Joints&));
KELM_ONE_ARM(inverse_kine_array, inverse_kine_left_array, inverse_kine_right_array,
             int(int, const Poses&, const Points&, Points&));
KELM_ONE_ARM(register_joint_cbk, register_left_joint_cbk, register_right_joint_cbk, void(JointFn));
KELM_ONE_ARM(release_joint_cbk, release_left_joint_cbk, release_right_joint_cbk, int());
KELM_ONE_ARM(register_pose_cbk, register_left_pose_cbk, register_right_pose_cbk, void(PoseFn));
KELM_ONE_ARM(release_pose_cbk, release_left_pose_cbk, release_right_pose_cbk, int());
KELM_ONE_ARM(register_plan_joint_cbk, register_left_plan_joint_cbk, register_right_plan_joint_cbk, void(JointFn));
KELM_ONE_ARM(release_plan_joint_cbk, release_left_plan_joint_cbk, release_right_plan_joint_cbk, int());
KELM_ONE_ARM(register_external_force_cbk, register_left_external_force_cbk, register_right_external_force_cbk,
             void(ForceFn));
KELM_ONE_ARM(release_external_force_cbk, release_left_external_force_cbk, release_right_external_force_cbk, int());

// A value-initialised configuration is what a failed request gives.
TEST(PublicInterface, ValueInitialisedConfigurationIsEmpty) {
    const ArmConfig config{};
    EXPECT_EQ(config.dof, 0);
    for (const auto* values : {&config.limit_upper, &config.limit_lower, &config.joint_vel, &config.joint_acc,
                               &config.joint_dec, &config.joint_jerk}) {
        EXPECT_TRUE(values->empty());
    }
}

}  // namespace
}  // namespace kelm
