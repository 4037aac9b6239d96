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
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
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
using Comm = KelmCommManager;
using Kernel = KelmKernelImpl;

// True when every listed member of `Class` is declared with exactly `Type`:
// a data member's type, or an operation's signature (with overloads, one of
// them has it). A member that differs fails to compile where it is listed.
template <typename Class, typename Type>
constexpr bool declaredAs(std::initializer_list<Type Class::*>) {
    return true;
}

#define KELM_OPERATION(Class, name, ...) static_assert(declaredAs<Class, __VA_ARGS__>({&Class::name}), #name)
#define KELM_GLOBAL(name, ...) static_assert(std::is_same_v<decltype(name), __VA_ARGS__>, #name " has another type")

// ---- the class tree and the transport and log libraries ----

static_assert(std::is_abstract_v<iRecieveListener> && std::has_virtual_destructor_v<iRecieveListener>);
KELM_OPERATION(iRecieveListener, onReceive, void(const std::string&));
static_assert(std::is_convertible_v<Comm*, iRecieveListener*> && std::is_convertible_v<Kernel*, Comm*>);
static_assert(std::is_abstract_v<BasicClientInterface>);
static_assert(std::is_convertible_v<std::shared_ptr<WebSocketClient>, std::shared_ptr<BasicClientInterface>>);
static_assert(std::is_constructible_v<WebSocketClient, std::string, unsigned short>);

using Client = CommunicationClient;
static_assert(std::is_default_constructible_v<Client>);
static_assert(declaredAs<Client, void(iRecieveListener*)>({&Client::attachListener, &Client::releaseListener}));
static_assert(declaredAs<Client, void(double)>({&Client::setSendRate, &Client::setRecvRate}));
KELM_OPERATION(Client, setClientHandle, void(std::shared_ptr<BasicClientInterface>));
KELM_OPERATION(Client, connect, int(const std::string&, int, double));
KELM_OPERATION(Client, isConnected, bool());
KELM_OPERATION(Client, disConnect, void());
KELM_OPERATION(Client, sendRequest, int(const Json::Value&));
static_assert(declaredAs<Client, std::function<void(bool)>>({&Client::connect_callback}));

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

static_assert(declaredAs<ArmStatus, std::int32_t>({&ArmStatus::arm_index, &ArmStatus::dof, &ArmStatus::motion_state,
                                                   &ArmStatus::fsm_mode}));
static_assert(declaredAs<ArmStatus, bool>({&ArmStatus::connected, &ArmStatus::servo, &ArmStatus::debug}));
static_assert(declaredAs<ArmStatus, std::string>({&ArmStatus::arm_name}));
static_assert(declaredAs<ArmStatus, double>({&ArmStatus::vel_per}));

static_assert(std::is_copy_constructible_v<ArmConfig> && std::is_move_constructible_v<ArmConfig> &&
              !std::is_polymorphic_v<ArmConfig>);
static_assert(declaredAs<ArmConfig, std::int32_t>({&ArmConfig::dof}));
static_assert(declaredAs<ArmConfig, Joints>({&ArmConfig::limit_upper, &ArmConfig::limit_lower, &ArmConfig::joint_vel,
                                             &ArmConfig::joint_acc, &ArmConfig::joint_dec, &ArmConfig::joint_jerk}));

using Header = Comm::MsgHeader;
static_assert(declaredAs<Header, std::string>({&Header::command, &Header::task_key}));
static_assert(declaredAs<Header, Json::Value>({&Header::data}));

using Unit = Kernel::IOUnit;
using Value = Kernel::IOValueInfo;
static_assert(declaredAs<Kernel::RtuInfo, std::vector<Unit>>({&Kernel::RtuInfo::units}));
static_assert(declaredAs<Unit, std::vector<int>>({&Unit::di_value, &Unit::do_value}));
static_assert(declaredAs<Unit, std::vector<Value>>({&Unit::ad_value, &Unit::da_value, &Unit::status_value,
                                                    &Unit::ctrl_value}));
static_assert(declaredAs<Value, std::uint64_t>({&Value::value}));
static_assert(declaredAs<Value, std::uint8_t>({&Value::bits}));

using Gripper = decltype(Kernel::end_effector);
static_assert(declaredAs<Gripper, std::int8_t>({&Gripper::state}));
static_assert(declaredAs<Gripper, bool>({&Gripper::connected}));
static_assert(declaredAs<Gripper, double>({&Gripper::pos, &Gripper::vel, &Gripper::tau}));

// ---- KelmCommManager ----

static_assert(std::is_enum_v<Comm::ComMode>);
static_assert(declaredAs<Comm, std::shared_ptr<CommunicationClient>>({&Comm::comm_client}));
static_assert(declaredAs<Comm, double>({&Comm::send_rate, &Comm::recv_rate}));
static_assert(declaredAs<Comm, std::deque<Comm::MsgHeader>>({&Comm::pending_msgs}));
static_assert(declaredAs<Comm, std::mutex>({&Comm::pending_mutex}));
static_assert(declaredAs<Comm, Registry<void(std::string)>>({&Comm::subscriptions, &Comm::task_completion_callbacks,
                                                             &Comm::update_robot_state_callbacks}));
static_assert(declaredAs<Comm, Registry<void(bool)>>({&Comm::connect_changed_callbacks}));
static_assert(declaredAs<Comm, std::map<Comm::ComMode, std::string>>({&Comm::com_mode_names}));

static_assert(std::is_default_constructible_v<Comm> && std::has_virtual_destructor_v<Comm>);
KELM_OPERATION(Comm, connect_kelm, int(const std::string&, int, double));
KELM_OPERATION(Comm, disconnect_kelm, int());
KELM_OPERATION(Comm, is_connected, bool());
static_assert(declaredAs<Comm, void(double)>({&Comm::setSendRate, &Comm::setRecvRate}));
KELM_OPERATION(Comm, connectChanged, void(bool));
KELM_OPERATION(Comm, onReceive, void(const std::string&));
KELM_OPERATION(Comm, cmd_publish, bool(const Json::Value&, std::string&));
KELM_OPERATION(Comm, cmd_server, Json::Value(const Json::Value&, std::string&, int));
KELM_OPERATION(Comm, cmd_recv, bool(const std::string&));
KELM_OPERATION(Comm, register_subscription, void(std::string, std::function<void(std::string)>));
KELM_OPERATION(Comm, deregister_subscription, void(std::string));
KELM_OPERATION(Comm, clear_subscription, void());

// A named callback map of the connection: register, release by name, release all.
#define KELM_COMM_MAP(kind, ...)                                                                           \
    KELM_OPERATION(Comm, register_##kind##_callback, int(const std::string&, std::function<__VA_ARGS__>)); \
    KELM_OPERATION(Comm, release_##kind##_callback, int(const std::string&));                              \
    KELM_OPERATION(Comm, release_##kind##_callback, int())
KELM_COMM_MAP(task_completion, void(std::string));
KELM_COMM_MAP(update_robot_state, void(std::string));
KELM_COMM_MAP(connect_changed, void(bool));

// ---- KelmKernelImpl: data members ----

static_assert(std::is_constructible_v<Kernel, const std::string&, int, double, int> &&
              !std::is_constructible_v<Kernel, const std::string&, int, double>);
static_assert(std::has_virtual_destructor_v<Kernel>);
static_assert(declaredAs<Kernel, std::mutex>({&Kernel::state_mutex, &Kernel::task_wait_mutex, &Kernel::io_mutex}));
static_assert(declaredAs<Kernel, std::int32_t>({&Kernel::arm_count, &Kernel::tool_index, &Kernel::user_index,
                                                &Kernel::reserved_code}));
static_assert(declaredAs<Kernel, std::uint64_t>({&Kernel::msg_count}));
static_assert(declaredAs<Kernel, ArmStatus>({&Kernel::status}));
static_assert(declaredAs<Kernel, ArmConfig>({&Kernel::config}));
static_assert(declaredAs<Kernel, double>({&Kernel::time_stamp}));
static_assert(declaredAs<Kernel, Joints>({&Kernel::joint_pos, &Kernel::joint_vel, &Kernel::joint_tau,
                                          &Kernel::joint_external_tau, &Kernel::plan_joint_pos, &Kernel::plan_joint_vel,
                                          &Kernel::plan_joint_tau, &Kernel::cart_external_force}));
static_assert(declaredAs<Kernel, Pose>({&Kernel::cart_pose, &Kernel::pose_tool, &Kernel::pose_user,
                                        &Kernel::pose_aut}));
static_assert(declaredAs<Kernel, bool>({&Kernel::exe_flag}));
static_assert(declaredAs<Kernel, std::condition_variable>({&Kernel::task_wait_cv}));
static_assert(declaredAs<Kernel, std::atomic<int>>({&Kernel::task_wait_flag}));
static_assert(declaredAs<Kernel, std::string>({&Kernel::last_task_key, &Kernel::exe_task_key, &Kernel::reserved_text}));
static_assert(declaredAs<Kernel, std::vector<Kernel::RtuInfo>>({&Kernel::rtu_info}));
static_assert(declaredAs<Kernel, std::vector<int>>({&Kernel::reserved_ints_a, &Kernel::reserved_ints_b}));

// ---- KelmKernelImpl: the thirteen registries with their operations ----

// A registry with its register operation and its release of everything; the
// `_BY_NAME` form adds the release of one name.
#define KELM_REGISTRY(kind, ...)                                                                             \
    static_assert(declaredAs<Kernel, Registry<__VA_ARGS__>>({&Kernel::kind##_callbacks}));                   \
    KELM_OPERATION(Kernel, register_##kind##_callback, int(const std::string&, std::function<__VA_ARGS__>)); \
    KELM_OPERATION(Kernel, release_##kind##_callback, int())
#define KELM_REGISTRY_BY_NAME(kind, ...) \
    KELM_REGISTRY(kind, __VA_ARGS__);    \
    KELM_OPERATION(Kernel, release_##kind##_callback, int(const std::string&))

KELM_REGISTRY_BY_NAME(error_catch, void(int, std::string));
KELM_REGISTRY_BY_NAME(get_joint, void(double, Joints, Joints, Joints));
KELM_REGISTRY_BY_NAME(get_pose, void(double, Pose));
KELM_REGISTRY_BY_NAME(get_plan_joint, void(double, Joints, Joints, Joints));
KELM_REGISTRY_BY_NAME(get_tele_master_data, void(double, Joints, double));
KELM_REGISTRY_BY_NAME(get_tele_slave_data, void(double, Joints, double));
static_assert(declaredAs<Kernel, Registry<void(double, double, double)>>({&Kernel::scalar_data_callbacks}));
KELM_REGISTRY_BY_NAME(get_external_force, void(double, Joints, Joints));
KELM_REGISTRY(fsm_mode_changed, void(int, int));
KELM_REGISTRY(servo_status_changed, void(int, bool));
KELM_REGISTRY(motor_code_changed, void(int, int, const std::string&));
KELM_REGISTRY(motor_run_state_changed, void(int, int));
KELM_REGISTRY(state_changed, void(int));

// ---- KelmKernelImpl: operations, grouped by signature ----

static_assert(declaredAs<Kernel, void()>({&Kernel::initData}));
static_assert(declaredAs<Kernel, void(const std::string&)>({&Kernel::parseRecieveData}));
static_assert(declaredAs<Kernel, void(const Json::Value&)>({&Kernel::webSendRobotStateData}));
KELM_OPERATION(Kernel, parseIOInfo, int(const Json::Value&, std::vector<Kernel::RtuInfo>&));

static_assert(declaredAs<Kernel, ArmStatus()>({&Kernel::get_status}));
static_assert(declaredAs<Kernel, ArmConfig()>({&Kernel::get_config}));
static_assert(declaredAs<Kernel, Joints()>({&Kernel::get_joint_pos, &Kernel::get_joint_vel, &Kernel::get_joint_tau,
                                            &Kernel::get_plan_joint_pos, &Kernel::get_plan_joint_vel,
                                            &Kernel::get_plan_joint_tau, &Kernel::get_joint_external_tau,
                                            &Kernel::get_cart_external_force}));
static_assert(declaredAs<Kernel, Pose()>({&Kernel::get_cart_pose}));
static_assert(declaredAs<Kernel, double()>({&Kernel::get_end_effector_pos, &Kernel::get_end_effector_vel,
                                            &Kernel::get_end_effector_tau}));
static_assert(declaredAs<Kernel, bool()>({&Kernel::get_end_effector_connect}));
static_assert(declaredAs<Kernel, std::string()>({&Kernel::get_version}));
static_assert(declaredAs<Kernel, int()>({&Kernel::get_end_effector_state, &Kernel::disable_stop,
                                         &Kernel::emergency_stop, &Kernel::stop, &Kernel::pause, &Kernel::recover,
                                         &Kernel::clean_kelm_error, &Kernel::get_tool_index, &Kernel::get_user_index,
                                         &Kernel::set_dynamics_cali_record_flag}));
static_assert(declaredAs<Kernel, int(bool)>({&Kernel::set_servo_enable, &Kernel::task_stop, &Kernel::set_debug,
                                             &Kernel::set_dynamics_cali_calcu}));
static_assert(declaredAs<Kernel, int(int)>({&Kernel::set_control_mode, &Kernel::set_teleoperation_mode,
                                            &Kernel::set_tool_index, &Kernel::set_user_index,
                                            &Kernel::set_traj_recorder, &Kernel::set_zero_position}));
KELM_OPERATION(Kernel, set_end_effector, int(double, double));
KELM_OPERATION(Kernel, set_collision_config, int(bool, int));
KELM_OPERATION(Kernel, set_speed_level, int(double, int));

KELM_OPERATION(Kernel, task_blocking_wait, int(const std::string&, int));
KELM_OPERATION(Kernel, onKelmError, void(int, std::string));
KELM_OPERATION(Kernel, set_kelm_ready, int(bool, double));
KELM_OPERATION(Kernel, tracking, int(const Joints&, bool, const double&));
KELM_OPERATION(Kernel, set_redundancy_tau, int(const Joints&, const double&));

KELM_OPERATION(Kernel, move_joint_jog, int(int, int, double));
KELM_OPERATION(Kernel, move_line_jog, int(int, int, double, int, int));
KELM_OPERATION(Kernel, move_joint, int(const Joints&, std::string&, double, int, int, bool));
KELM_OPERATION(Kernel, move_line, int(Joints, std::string&, double, int, int, bool));
KELM_OPERATION(Kernel, move_directly, int(const Points&, std::string&, const Joints&));
KELM_OPERATION(Kernel, move_toppra, int(const Points&, std::string&, double, int, int, bool));
KELM_OPERATION(Kernel, move_pvt, int(const Points&, const Joints&, const Joints&, std::string&, bool));
using ArcPoints = std::array<std::vector<double>, 3>;
static_assert(declaredAs<Kernel, int(const ArcPoints&, std::string&, double, bool, double, int, int, bool)>(
    {&Kernel::move_3p_arc, &Kernel::move_center_arc}));
KELM_OPERATION(Kernel, move_jump,
               int(Pose, std::array<double, 3>, std::array<double, 3>, std::string&, double, int, int));
KELM_OPERATION(Kernel, move_delay, int(double, int));

KELM_OPERATION(Kernel, get_tool_coordinate, Pose(int));
KELM_OPERATION(Kernel, get_user_coordinate, Joints(int));
static_assert(declaredAs<Kernel, int(int, Joints)>({&Kernel::set_tool_coordinate, &Kernel::set_user_coordinate}));
static_assert(declaredAs<Kernel, int(int, const Points&)>({&Kernel::user_calibrate, &Kernel::tool_calibtate}));

KELM_OPERATION(Kernel, forwardKine, int(int, int, const Points&, Poses&));
KELM_OPERATION(Kernel, forwardKine, int(int, int, const Joints&, Pose&));
KELM_OPERATION(Kernel, inverseKine, int(int, int, const Poses&, const Points&, Points&));
KELM_OPERATION(Kernel, inverseKine, int(int, int, const Pose&, const Joints&, Joints&));

KELM_OPERATION(Kernel, trajectory_teach, int(bool, std::string));
KELM_OPERATION(Kernel, trajectory_recorder, int(std::string));
KELM_OPERATION(Kernel, check_teach, int(std::vector<std::string>&));

// ---- KelmSingleCol and KelmDualBot: owning pointers to their kernels, no base, nothing virtual ----

using JointFn = std::function<void(double, Joints, Joints, Joints)>;
using PoseFn = std::function<void(double, Pose)>;
using ForceFn = std::function<void(double, Joints, Joints)>;
using ErrorFn = std::function<void(int, std::string)>;
using CompletionFn = std::function<void(std::string)>;

static_assert(!std::is_polymorphic_v<KelmSingleCol> && sizeof(KelmSingleCol) == sizeof(Kernel*));
static_assert(!std::is_polymorphic_v<KelmDualBot> && sizeof(KelmDualBot) == 2 * sizeof(Kernel*));
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
