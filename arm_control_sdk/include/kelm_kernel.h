// KelmKernelImpl: one arm of one controller.
//
// A kernel is a connection (KelmCommManager) plus the cached state of its arm.
// Operations check their input, send one request and read the reply's `recv`;
// the state frames the controller pushes are the only source of state and
// reach the application through named callback registries.
//
// Threads:
// - Operations run on the caller's thread. Requests that wait for a reply
//   (everything but tracking, set_redundancy_tau and set_end_effector) must
//   never be called from a callback of the same kernel: the reply would have to
//   come through the thread that is waiting.
// - parseRecieveData and every registry callback run on the transport's
//   receive thread, one frame after the other. The error, axis, external
//   force, tele slave and state-changed callbacks run while `state_mutex` is
//   held: they must not call the locking getters (get_joint_pos ...,
//   get_tool_index, get_user_index) of the same kernel. get_status takes no
//   lock and is always allowed. Joint, pose, plan joint and tele master
//   callbacks run after the lock is released.
// - Any callback may drop the last owner of its own kernel: the kernel is
//   destroyed there, on the receive thread, its connection's loss is reported,
//   and no later callback of that frame runs.
// - Registering and releasing callbacks is safe from any thread, also from a
//   callback; a walk that is under way keeps calling the entries it started
//   with. The registries are plain public maps: a program that reads or
//   changes one directly does so unsynchronised with the receive thread.
// - The fields of `status` are written by the receive thread and read by
//   get_status from any thread without state_mutex; the library's own reads
//   and writes of them are atomic. A program that reads `status` directly
//   reads it unsynchronised; get_status gives a consistent copy per field.
#pragma once

#include <json/json.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kelm_comm.h"
#include "kelm_tables.h"
#include "log_manager.h"

namespace kelm {

// Snapshot of an arm's state as the state frames last reported it.
struct ArmStatus {
    int arm_index = 0;  // element of the controller's `arm` array this kernel follows
    std::string arm_name;
    bool connected = false;  // connection state as of the call of get_status
    int dof = 0;             // number of joints reported by the frames
    bool servo = false;      // servo power on
    int motion_state = 0;    // a KelmState
    int fsm_mode = 0;        // an FsmMode
    double vel_per = 0.0;    // speed percentage reported by the controller
    bool debug = false;
};

// Joint configuration reported by the controller ("getJointParams"). A
// failed request gives dof 0 and empty vectors.
struct ArmConfig {
    int dof = 0;
    std::vector<double> limit_upper;  // upper position limit per joint
    std::vector<double> limit_lower;  // lower position limit per joint
    std::vector<double> joint_vel;
    std::vector<double> joint_acc;
    std::vector<double> joint_dec;
    std::vector<double> joint_jerk;
};

// Pose: x, y, z and a quaternion x, y, z, w.
using Pose = std::array<double, 7>;

// Why an operation returned a refusal.
enum class RefusalKind {
    none = 0,           // no refusal yet
    invalid_input = 1,  // the operation's own check refused the arguments; nothing was sent
    timeout = 2,        // no reply within the request's time-out
    no_connection = 3,  // no connection to the controller
    controller = 4,     // the controller answered with a refusal, or with no usable result
};

// The last refusal of a kernel. `serial` counts the kernel's refusals, so a
// caller that reads it before and after its own call can tell whether that
// call left this record.
struct Refusal {
    std::uint64_t serial = 0;
    std::string operation;  // the kernel operation, e.g. "set_control_mode"
    RefusalKind kind = RefusalKind::none;
    std::string reason;  // the line the refusal logged, the controller's `err_msg`, or what failed
};

class KelmKernelImpl : public KelmCommManager {
public:
    // One value of a remote IO station.
    struct IOValueInfo {
        uint64_t value = 0;
        uint8_t bits = 0;  // width in bits: the byte count of `..._type_size` times 8
    };

    // One IO unit: digital channels as 0/1, analog values with their widths.
    struct IOUnit {
        std::vector<int> di_value;
        std::vector<int> do_value;
        std::vector<IOValueInfo> ad_value;
        std::vector<IOValueInfo> da_value;
        std::vector<IOValueInfo> status_value;
        std::vector<IOValueInfo> ctrl_value;
    };

    // One remote IO station.
    struct RtuInfo {
        std::vector<IOUnit> units;
    };

    // The gripper as the frames report it.
    struct EndEffector {
        int8_t state = 0;  // low byte of `gripper_state`
        double pos = 0.0;
        double vel = 0.0;
        double tau = 0.0;
        bool connected = false;
    };

    using ErrorCallback = std::function<void(int, std::string)>;
    using JointCallback = std::function<void(double, std::vector<double>, std::vector<double>, std::vector<double>)>;
    using PoseCallback = std::function<void(double, Pose)>;
    using TeleDataCallback = std::function<void(double, std::vector<double>, double)>;
    using ScalarCallback = std::function<void(double, double, double)>;
    using ExternalForceCallback = std::function<void(double, std::vector<double>, std::vector<double>)>;
    using AxisValueCallback = std::function<void(int, int)>;
    using AxisServoCallback = std::function<void(int, bool)>;
    using AxisCodeCallback = std::function<void(int, int, const std::string&)>;
    using StateCallback = std::function<void(int)>;

    // Connects to ip:port within `timeout` seconds; a failed connect is
    // logged and leaves a kernel without a connection, whose requests then
    // fail. `arm_index` is stored after the connect.
    KelmKernelImpl(const std::string& ip, int port, double timeout, int arm_index);
    ~KelmKernelImpl() override;

    // Empties the cached state; called by the constructor.
    void initData();

    // ---- callback registries ----
    // Registering a name again replaces its entry; releasing an absent name
    // does nothing. All return 0.
    int register_error_catch_callback(const std::string& name, ErrorCallback cb);
    int release_error_catch_callback(const std::string& name);
    int release_error_catch_callback();
    int register_get_joint_callback(const std::string& name, JointCallback cb);
    int release_get_joint_callback(const std::string& name);
    int release_get_joint_callback();
    int register_get_pose_callback(const std::string& name, PoseCallback cb);
    int release_get_pose_callback(const std::string& name);
    int release_get_pose_callback();
    int register_get_plan_joint_callback(const std::string& name, JointCallback cb);
    int release_get_plan_joint_callback(const std::string& name);
    int release_get_plan_joint_callback();
    int register_get_tele_master_data_callback(const std::string& name, TeleDataCallback cb);
    int release_get_tele_master_data_callback(const std::string& name);
    int release_get_tele_master_data_callback();
    int register_get_tele_slave_data_callback(const std::string& name, TeleDataCallback cb);
    int release_get_tele_slave_data_callback(const std::string& name);
    int release_get_tele_slave_data_callback();
    int register_get_external_force_callback(const std::string& name, ExternalForceCallback cb);
    int release_get_external_force_callback(const std::string& name);
    int release_get_external_force_callback();
    // The change registries have no release by name.
    int register_fsm_mode_changed_callback(const std::string& name, AxisValueCallback cb);
    int release_fsm_mode_changed_callback();
    int register_servo_status_changed_callback(const std::string& name, AxisServoCallback cb);
    int release_servo_status_changed_callback();
    int register_motor_code_changed_callback(const std::string& name, AxisCodeCallback cb);
    int release_motor_code_changed_callback();
    int register_motor_run_state_changed_callback(const std::string& name, AxisValueCallback cb);
    int release_motor_run_state_changed_callback();
    int register_state_changed_callback(const std::string& name, StateCallback cb);
    int release_state_changed_callback();

    // ---- state frames ----
    // Entry of the receive thread for every message that is no reply; parses
    // it and takes a "webSendRobotState" frame over. Never throws: a failure
    // is logged and the rest of the frame is skipped.
    void parseRecieveData(const std::string& msg);
    // Takes this arm's part of a parsed frame into the cached state under
    // state_mutex and fires the registries that run inside the lock.
    void webSendRobotStateData(const Json::Value& root);
    // Fills `out` from the top-level `rtu` block of a message. Always 1; bad
    // word counts are logged, a bad analog value throws.
    int parseIOInfo(const Json::Value& root, std::vector<RtuInfo>& out);

    // ---- getters ----
    // Copy of the status, with `connected` asked of the transport now. No lock.
    ArmStatus get_status();
    // The rest copy under state_mutex.
    std::vector<double> get_joint_pos();
    std::vector<double> get_joint_vel();
    std::vector<double> get_joint_tau();
    std::vector<double> get_plan_joint_pos();
    std::vector<double> get_plan_joint_vel();
    std::vector<double> get_plan_joint_tau();
    std::vector<double> get_joint_external_tau();
    Pose get_cart_pose();
    std::vector<double> get_cart_external_force();
    int get_end_effector_state();
    double get_end_effector_pos();
    double get_end_effector_vel();
    double get_end_effector_tau();
    bool get_end_effector_connect();

    // ---- control commands ----
    // 1 when the controller answered "Task_Recieve", -1 for a refused
    // argument (logged, nothing sent), a failed send, a time-out (1000 ms) or
    // another answer.
    int set_servo_enable(bool enable);
    // `mode` 0 to 4 (1 PV, 2 MIT, 3 drag, 4 force-position hybrid).
    int set_control_mode(int mode);
    // Published without waiting: `pos` clamped to 0..0.08, `tau` to 0..20.0;
    // NaN is refused. 1 when the message went out; never dropped for a
    // controller that reads slowly (it waits for room in the socket, as a
    // request does).
    int set_end_effector(double pos, double tau);
    int set_collision_config(bool flag, int level);
    // `is_master`: 1 for a master arm, 2 for a slave arm.
    int set_teleoperation_mode(int is_master);
    int disable_stop();
    int emergency_stop();
    int task_stop(bool stop_at_once);
    int stop();
    int pause();
    int recover();
    // Resets the log, then asks the controller to clear its error.
    int clean_kelm_error();
    // `level` clamped to 0..10.0 (NaN refused), `response_level` to 1..10000.
    int set_speed_level(double level, int response_level);
    int set_debug(bool trigger);

    // ---- configuration and version ----
    // Asks for the joint configuration; empty record on no answer.
    ArmConfig get_config();
    // The controller's version text, empty on no answer.
    std::string get_version();

    // ---- ready sequence ----
    // Brings the arm to no error, servo on and POSITION mode, then reads the
    // configuration into `config`. `blocking` retries within `delay_time` ms;
    // otherwise each step is tried once. 1 if the frames show the arm ready.
    int set_kelm_ready(bool blocking, double delay_time);

    // ---- streaming ----
    // Publishes the next way-point without waiting or logging. A joint target
    // (`dof` values, controller units) is clamped to the limits in `config`,
    // and refused while those are unknown (before set_kelm_ready); a pose
    // (x, y, z, quaternion x, y, z, w) gets its quaternion normalised.
    // `gripper` < 0 means no gripper data; it is clamped to 0.08. -1 for an
    // illegal value, a wrong length or a failed send; refusals are logged.
    // While more than WebSocketClient::kStreamBacklogBytes sent to the
    // controller stay unread, the target is dropped (-1) instead of queued:
    // the next one supersedes it. The transport logs when that starts and
    // when it ends, with the count.
    int tracking(const std::vector<double>& target, bool is_joint, const double& gripper);
    // Publishes one torque per joint and the end-effector torque unchanged;
    // dropped like a tracking target while the controller does not read.
    int set_redundancy_tau(const std::vector<double>& redundancy_tau, const double& eeff_tau);

    // ---- task waiting and errors ----
    // Blocks until the task `task_key` is reported finished, an error (other
    // than the warning 3001) is reported for this arm, the connection drops,
    // or `timeout_ms` passes. 1 for any of the events, 0 on time-out or an
    // empty key. One wait per kernel at a time.
    int task_blocking_wait(const std::string& task_key, int timeout_ms);
    // The kernel's own error listener: logs warnings and errors.
    void onKelmError(int code, std::string msg);

    // ---- motions and controller services ----
    // A motion is handed to the controller as one "webRecieveTasks" request
    // and waited for 1000 ms. Result: 1 when the controller took it ("Task_
    // Recieve"), -1 for a refused input (one level-1 log line, nothing sent),
    // a failed send, a time-out or another answer. `task_key` receives the
    // request's key as soon as it is sent (also when the reply then fails);
    // wait for the motion's end with task_blocking_wait on it. A refused input
    // leaves `task_key` as it was.
    //
    // Targets: a joint vector of status.dof values [controller units, rad],
    // or a pose x, y, z, qx, qy, qz, qw when `is_joint` is false. Checked in
    // this order: no NaN or infinite value; the length; joint values within
    // the limits of `config` (bounds allowed, never clamped; refused while
    // set_kelm_ready has not read the limits yet); a quaternion whose squared
    // length is within 0.0001 of 1 (never normalised). `speed` goes out as
    // speed and acceleration unchecked; `tool` and `user` are coordinate
    // indices passed on unchecked.

    // Jog of joint or Cartesian axis `index` in direction `dir`; values are
    // sent untouched and unchecked. The key is dropped, so a jog cannot be
    // waited for.
    int move_joint_jog(int index, int dir, double speed);
    int move_line_jog(int index, int dir, double speed, int tool, int user);
    // Point-to-point move planned in joint space to `target`.
    int move_joint(const std::vector<double>& target, std::string& task_key, double speed, int tool, int user,
                   bool is_joint);
    // Straight-line move to `target`.
    int move_line(std::vector<double> target, std::string& task_key, double speed, int tool, int user, bool is_joint);
    // Way-points passed to the controller with no check of their values.
    // `gripper`, if not empty, holds one gripper position [m] per point and
    // moves the gripper along when it is connected (negative values and NaN
    // go out as 0; no upper clamp). Without a connected gripper the points
    // are still sent, with a level-1 line.
    int move_directly(const std::vector<std::vector<double>>& targets, std::string& task_key,
                      const std::vector<double>& gripper);
    // Path through `targets`, timed by the controller at `speed`. Every point
    // is checked for illegal values before any length or limit.
    int move_toppra(const std::vector<std::vector<double>>& targets, std::string& task_key, double speed, int tool,
                    int user, bool is_joint);
    // Points with their own time stamps `times` [s] (each above 0, strictly
    // increasing, steps below 3600) and optional gripper positions, clamped
    // to 0..0.08 m. The lists must match the number of points: `times`, or
    // failing that `gripper`; stamps are needed for every point all the same.
    int move_pvt(const std::vector<std::vector<double>>& targets, const std::vector<double>& gripper,
                 const std::vector<double>& times, std::string& task_key, bool is_joint);
    // Arc through three points (`move_3p_arc`) or given by its centre
    // (`move_center_arc`). `dir` true is sent as direction 0; `radian` [rad]
    // is sent only when above 0. Each point is checked in full before the
    // next.
    int move_3p_arc(const std::array<std::vector<double>, 3>& points, std::string& task_key, double speed, bool dir,
                    double radian, int tool, int user, bool is_joint);
    int move_center_arc(const std::array<std::vector<double>, 3>& points, std::string& task_key, double speed, bool dir,
                        double radian, int tool, int user, bool is_joint);
    // Hop to `target`: from the pose of the current (planned, else measured)
    // joint position, up by `up` [m], over to `target` + `down` [m], and down
    // onto `target`, sent as one move_toppra of four poses. -1 without
    // sending when the start pose cannot be computed (forwardKine fails).
    int move_jump(std::array<double, 7> target, std::array<double, 3> up, std::array<double, 3> down,
                  std::string& task_key, double speed, int tool, int user);
    // Pause of `time` [s] in the controller's task stream, sent unchecked.
    // `override_level` has no effect on the request.
    int move_delay(double time, int override_level);

    // Coordinate systems. The index reads return the values the state frames
    // last reported (under state_mutex). A tool system reads as a pose (zeros
    // when the reply is unusable, logged); a user system as the controller's
    // array (empty on failure). Writes take 6 values; a shorter `coord` is
    // refused with -1. set_tool_index refuses a negative index silently.
    int get_tool_index();
    int get_user_index();
    std::array<double, 7> get_tool_coordinate(int index);
    std::vector<double> get_user_coordinate(int index);
    int set_tool_index(int index);
    int set_user_index(int index);
    int set_tool_coordinate(int index, std::vector<double> coord);
    int set_user_coordinate(int index, std::vector<double> coord);
    // Calibrations: 1 for `result` "ok", -1 for another result, -2 for no
    // reply or no result. user_calibrate does not send `points`;
    // tool_calibtate sends 6 values of each point and refuses a shorter one
    // with -1.
    int user_calibrate(int user, const std::vector<std::vector<double>>& points);
    int tool_calibtate(int tool, const std::vector<std::vector<double>>& points);

    // Kinematics, computed by the controller (one request per batch, 3000 ms).
    // 1 on success, -1 on a refused input (outputs untouched), no answer, or
    // a bad reply. The reply's point count sizes the output list.
    int forwardKine(int tool, int user, const std::vector<std::vector<double>>& jnt_values,
                    std::vector<std::array<double, 7>>& out_poses);
    // Single form: `out_pose` is written only on success; a reply without a
    // pose gives -1.
    int forwardKine(int tool, int user, const std::vector<double>& jnt_value, std::array<double, 7>& out_pose);
    // One reference joint vector per pose. All values are checked before any
    // length or quaternion. A pose without a solution comes back as an empty
    // element and makes the result -1.
    int inverseKine(int tool, int user, const std::vector<std::array<double, 7>>& quat_poses,
                    const std::vector<std::vector<double>>& ref_joints, std::vector<std::vector<double>>& out_joints);
    // Single form: `out_joint` keeps its content unless a solution came back.
    int inverseKine(int tool, int user, const std::array<double, 7>& quat_pose, const std::vector<double>& ref_joint,
                    std::vector<double>& out_joint);

    // Recording and teaching: 1 or -1 by the reply's `recv`.
    int set_traj_recorder(int to_record);
    int trajectory_teach(bool flag, std::string name);
    int trajectory_recorder(std::string name);
    // Lists the taught trajectories into `teach_list`, sized by the reply's
    // count. -1 (list untouched) for no reply, no count or a negative count.
    int check_teach(std::vector<std::string>& teach_list);
    // Controller calibrations: the reply's `ret` (0 when absent), -1 for no
    // reply or a refused request.
    int set_zero_position(int axis_id);
    int set_dynamics_cali_record_flag();
    int set_dynamics_cali_calcu(bool payload);
    // ---- end of motions and controller services ----

    // ---- the last refusal ----
    // Copy of the record of the last refused operation. Any thread.
    Refusal get_last_refusal();
    // Key of the last task handed to the controller (empty before the
    // first): what a caller waits for with task_blocking_wait after a public
    // class's motion. Any thread.
    std::string get_submitted_task_key();
    // Used by the operations, on the caller's thread, where they refuse:
    // refuse_input records the level-1 line this thread logged last as the
    // reason and returns -1; read_reply returns 1 for a reply whose `recv` is
    // "Task_Recieve" and otherwise records why not (no connection, no reply
    // in time, the controller's `err_msg`) and returns -1; note_task_key
    // keeps the key of a task the controller took. None of them logs.
    int refuse_input(const char* operation);
    int read_reply(const char* operation, const Json::Value& reply);
    void note_refusal(const char* operation, RefusalKind kind, std::string reason);
    void note_task_key(const std::string& task_key);

    // ---- cached state ----
    // Written by the receive thread under state_mutex unless said otherwise.
    std::mutex state_mutex;
    int arm_count = 1;       // size of the last frame's `arm` array; written by the receive thread
    uint64_t msg_count = 0;  // `count` of the last frame
    ArmStatus status;
    ArmConfig config;  // written by set_kelm_ready only, read without a lock
    int tool_index = 0;
    int user_index = 0;
    double time_stamp = 0.0;  // `Unix_time_stamp` of the last frame
    std::vector<double> joint_pos;
    std::vector<double> joint_vel;
    std::vector<double> joint_tau;
    std::vector<double> joint_external_tau;
    std::vector<double> plan_joint_pos;
    std::vector<double> plan_joint_vel;
    std::vector<double> plan_joint_tau;
    EndEffector end_effector;
    Pose cart_pose{};
    Pose pose_tool{};
    Pose pose_user{};
    Pose pose_aut{};
    std::vector<double> cart_external_force;
    bool exe_flag = false;
    std::condition_variable task_wait_cv;
    std::mutex task_wait_mutex;
    std::atomic<int> task_wait_flag{0};
    std::string last_task_key;
    std::string exe_task_key;
    std::vector<RtuInfo> rtu_info;  // reserved for IO information; nothing fills it
    std::mutex io_mutex;            // serialises parseIOInfo
    std::vector<int> reserved_ints_a;
    std::vector<int> reserved_ints_b;
    int reserved_code = 0;
    std::string reserved_text;

    // ---- registries ----
    std::map<std::string, std::function<void(int, std::string)>> error_catch_callbacks;
    std::map<std::string, std::function<void(double, std::vector<double>, std::vector<double>, std::vector<double>)>>
        get_joint_callbacks;
    std::map<std::string, std::function<void(double, std::array<double, 7>)>> get_pose_callbacks;
    std::map<std::string, std::function<void(double, std::vector<double>, std::vector<double>, std::vector<double>)>>
        get_plan_joint_callbacks;
    std::map<std::string, std::function<void(double, std::vector<double>, double)>> get_tele_master_data_callbacks;
    std::map<std::string, std::function<void(double, std::vector<double>, double)>> get_tele_slave_data_callbacks;
    std::map<std::string, std::function<void(double, double, double)>> scalar_data_callbacks;  // never fired
    std::map<std::string, std::function<void(double, std::vector<double>, std::vector<double>)>>
        get_external_force_callbacks;
    std::map<std::string, std::function<void(int, int)>> fsm_mode_changed_callbacks;
    std::map<std::string, std::function<void(int, bool)>> servo_status_changed_callbacks;
    std::map<std::string, std::function<void(int, int, const std::string&)>> motor_code_changed_callbacks;
    std::map<std::string, std::function<void(int, int)>> motor_run_state_changed_callbacks;
    std::map<std::string, std::function<void(int)>> state_changed_callbacks;

protected:
    // A kernel whose connection runs over the socket clients that `factory`
    // makes (see KelmCommManager); otherwise as the public constructor. A
    // class derived from the kernel calls disconnect_kelm in its own
    // destructor, before the kernel's runs, so that no message is delivered
    // while the object is being taken apart.
    KelmKernelImpl(SocketClientFactory factory, const std::string& ip, int port, double timeout, int arm_index);

private:
    // Sends a command with cmd_server (1000 ms) and reads its reply: 1 for
    // `recv` "Task_Recieve", -1 for a null reply or any other answer, whose
    // reason is recorded for `operation`.
    int sendCommand(const char* operation, const Json::Value& body);
    // Publishes a streaming message without waiting: 1 if it went out.
    int publishStream(const Json::Value& body);

    // Takes a frame over from either parser's document (data_parser.cpp).
    template <typename Document>
    friend class FrameReader;
    // Fires the registries that a frame drives after state_mutex.
    void fireFrameDataCallbacks();

    // Steps of the ready sequence.
    bool runSingleReadySteps();
    bool runBlockingReadySteps(log_time::TimerUnit& timer, double delay_time);
    void closeReadySequence();
    int reportReadiness(bool ready, bool blocking, const log_time::TimerUnit& timer, double delay_time);

    // Guards last_refusal_ and submitted_task_key_; taken on the caller's
    // thread only, never on the frame path.
    std::mutex refusal_mutex_;
    Refusal last_refusal_;
    std::string submitted_task_key_;
    // Guards writes of status.arm_name and get_status's copy of it; the
    // receive thread writes the name only when it changes.
    std::mutex arm_name_mutex_;
    // Receive-thread buffers reused from frame to frame.
    std::string arm_name_scratch_;
    std::string fsm_state_scratch_;
};

}  // namespace kelm
