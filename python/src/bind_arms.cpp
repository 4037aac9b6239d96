// KelmSingleCol and KelmDualBot for Python.
#include "bind_util.h"
#include "kelm_dual_bot.h"
#include "kelm_single_col.h"

namespace kelm_py {

using kelm::KelmDualBot;
using kelm::KelmSingleCol;
using Single = Handle<KelmSingleCol>;
using Dual = Handle<KelmDualBot>;
using Vec = std::vector<double>;
using Points = std::vector<std::vector<double>>;
using Pose = std::array<double, 7>;
using Poses = std::vector<Pose>;

namespace {

constexpr const char* kLastRefusalDoc =
    "The record of the arm's last refused operation (Refusal): its operation, kind and reason; serial counts "
    "the refusals, so reading it before and after a call tells whether that call was refused.";
constexpr const char* kSubmittedKeyDoc =
    "Key of the last task the controller took from this arm ('' before the first); a motion with block=False "
    "can be waited for on it.";

constexpr const char* kStateGetter = "As the last state frame reported it (copied under the state lock).";

// Registers a Python callback through `reg` and remembers `release` for close.
template <typename T, typename Trampoline, typename Reg, typename Release>
void registerPy(Handle<T>& handle, const std::string& key, py::function fn, Trampoline trampoline, Reg reg,
                Release release) {
    auto cb = holdCallback(std::move(fn), handle.tag());
    handle.rememberRelease(key, release);
    reg(handle.get(), trampoline(cb));
}

// Kinematics with an output argument, returned as (result, output).
template <typename T, typename Out, typename Call>
py::tuple withOutput(Handle<T>& handle, const char* name, Call call) {
    T& object = handle.get();
    handle.refuseInOwnCallback(name);
    HandleBase::Lease lease(handle);
    Out out{};
    int result = 0;
    {
        py::gil_scoped_release release;
        result = call(object, out);
    }
    return py::make_tuple(result, toPy(out));
}

constexpr const char* kFkDoc =
    "Pose of `joint` [rad] in tool `tool`, user frame 0, computed by the controller (3000 ms). Returns "
    "(result, pose): 1 on success, -1 otherwise (pose then zeros).";
constexpr const char* kFkArrayDoc = "Batch form: (result, (n, 7) array of poses).";
constexpr const char* kIkDoc =
    "Joint solution [rad] of `pose` near `ref_joint` (3000 ms). Returns (result, joints): 1 on success, -1 "
    "otherwise (joints then empty).";
constexpr const char* kIkArrayDoc = "Batch form: (result, joints); a pose without a solution gives an empty row.";
constexpr const char* kMoveJointDoc =
    "Joint move to `target` [rad]. time < 0: timed by the controller at 100 %; otherwise the move takes `time` "
    "[s] (0 is refused). ";
constexpr const char* kMovePoseDoc = "Joint-interpolated move to pose x, y, z, qx, qy, qz, qw; `time` as move_joint. ";
constexpr const char* kTrajDoc =
    "With one time stamp [s] per point in `times` the points are timed by them and `gripper` [m] moves along "
    "(empty for none); otherwise the controller times the path at 100 % and both are ignored. ";
constexpr const char* kTrackJointDoc =
    "Streams one joint target [rad] (clamped to the limits); `gripper` [m] < 0 sends none. -1 with 'targets "
    "size error' on stdout for a wrong length. Published without waiting; may be called from a callback.";
constexpr const char* kTrackPoseDoc =
    "Streams one pose target (quaternion normalised); `gripper` [m] < 0 sends none. Published without waiting; "
    "may be called from a callback.";

// The one-arm members of KelmSingleCol, and the twins of KelmDualBot, share
// their shapes; these macros write one arm's set.
#define KELM_ARM_GETTERS(cls, H, T, get_status, last_refusal, submitted_key, get_config, jp, jv, jt, pjp, pjv, pjt, \
                         cart, jext, cext, gs, gp, gv, gt, set_gripper, set_tool, get_tool, tool_coord)             \
    cls.def(#get_status, forward<T>(&T::get_status, #get_status, Waits::no),                                        \
            "The arm's ArmStatus; `connected` is asked now. Allowed in every callback.");                           \
    cls.def(#last_refusal, forward<T>(&T::last_refusal, #last_refusal, Waits::no), kLastRefusalDoc);                \
    cls.def(#submitted_key, forward<T>(&T::submitted_key, #submitted_key, Waits::no), kSubmittedKeyDoc);            \
    cls.def(#get_config, forward<T>(&T::get_config, #get_config, Waits::yes),                                       \
            "Joint limits and dynamics parameters asked of the controller now (ArmConfig; dof 0 without reply).");  \
    cls.def(#jp, forward<T>(&T::jp, #jp, Waits::no), "Measured joint positions [rad]. ");                           \
    cls.def(#jv, forward<T>(&T::jv, #jv, Waits::no), "Measured joint velocities [rad/s].");                         \
    cls.def(#jt, forward<T>(&T::jt, #jt, Waits::no), "Measured joint torques [Nm].");                               \
    cls.def(#pjp, forward<T>(&T::pjp, #pjp, Waits::no), "Planned joint positions [rad].");                          \
    cls.def(#pjv, forward<T>(&T::pjv, #pjv, Waits::no), "Planned joint velocities.");                               \
    cls.def(#pjt, forward<T>(&T::pjt, #pjt, Waits::no), "Planned joint torques.");                                  \
    cls.def(#cart, forward<T>(&T::cart, #cart, Waits::no), "Cartesian pose x, y, z [m], qx, qy, qz, qw.");          \
    cls.def(#jext, forward<T>(&T::jext, #jext, Waits::no), "External joint torques.");                              \
    cls.def(#cext, forward<T>(&T::cext, #cext, Waits::no), "External Cartesian force.");                            \
    cls.def(#gs, forward<T>(&T::gs, #gs, Waits::no), "The gripper's state code, -1 without a connected gripper.");  \
    cls.def(#gp, forward<T>(&T::gp, #gp, Waits::no), "Gripper position [m].");                                      \
    cls.def(#gv, forward<T>(&T::gv, #gv, Waits::no), "Gripper velocity.");                                          \
    cls.def(#gt, forward<T>(&T::gt, #gt, Waits::no), "Gripper torque.");                                            \
    cls.def(#set_gripper, forward<T>(&T::set_gripper, #set_gripper, Waits::no), py::arg("pos"), py::arg("tau"),     \
            "Gripper target: `pos` [m] clamped to 0..0.08, `tau` to 0..20.0, NaN refused. Published without "       \
            "waiting: 1 when sent.");                                                                               \
    cls.def(#set_tool, forward<T>(&T::set_tool, #set_tool, Waits::yes), py::arg("index"), kRequestResult);          \
    cls.def(#get_tool, forward<T>(&T::get_tool, #get_tool, Waits::no), "Tool index of the last state frame.");      \
    cls.def(#tool_coord, forward<T>(&T::tool_coord, #tool_coord, Waits::yes), py::arg("index"),                     \
            "Tool system `index` as a pose (zeros when the reply is unusable).")

#define KELM_ARM_MOTIONS(cls, T, track_joint, track_pose, mj, mp, mlj, mlp, mjt, mpt, fk, fka, ik, ika)                \
    cls.def(#track_joint, forward<T>(&T::track_joint, #track_joint, Waits::no), py::arg("target"), py::arg("gripper"), \
            kTrackJointDoc);                                                                                           \
    cls.def(#track_pose, forward<T>(&T::track_pose, #track_pose, Waits::no), py::arg("pose"), py::arg("gripper"),      \
            kTrackPoseDoc);                                                                                            \
    cls.def(#mj, motion(&T::mj, #mj), py::arg("target"), py::arg("time") = -1.0, py::arg("block") = false,             \
            (std::string(kMoveJointDoc) + kMotionResult).c_str());                                                     \
    cls.def(#mp, motion(&T::mp, #mp), py::arg("pose"), py::arg("time") = -1.0, py::arg("block") = false,               \
            (std::string(kMovePoseDoc) + kMotionResult).c_str());                                                      \
    cls.def(#mlj, motion(&T::mlj, #mlj), py::arg("target"), py::arg("block") = false,                                  \
            (std::string("Straight-line move to a joint target [rad]. ") + kMotionResult).c_str());                    \
    cls.def(#mlp, motion(&T::mlp, #mlp), py::arg("pose"), py::arg("block") = false,                                    \
            (std::string("Straight-line move to a pose. ") + kMotionResult).c_str());                                  \
    cls.def(#mjt, motion(&T::mjt, #mjt), py::arg("traj"), py::arg("gripper") = Vec{}, py::arg("times") = Vec{},        \
            py::arg("block") = false,                                                                                  \
            (std::string("Moves through joint points. ") + kTrajDoc + kMotionResult).c_str());                         \
    cls.def(#mpt, motion(&T::mpt, #mpt), py::arg("poses"), py::arg("gripper") = Vec{}, py::arg("times") = Vec{},       \
            py::arg("block") = false, (std::string("Moves through poses. ") + kTrajDoc + kMotionResult).c_str());      \
    cls.def(                                                                                                           \
        #fk,                                                                                                           \
        [](Handle<T>& h, int tool, Vec joint) {                                                                        \
            return withOutput<T, Pose>(h, #fk, [&](T& o, Pose& out) { return o.fk(tool, joint, out); });               \
        },                                                                                                             \
        py::arg("tool"), py::arg("joint"), kFkDoc);                                                                    \
    cls.def(                                                                                                           \
        #fka,                                                                                                          \
        [](Handle<T>& h, int tool, Points joints) {                                                                    \
            return withOutput<T, Poses>(h, #fka, [&](T& o, Poses& out) { return o.fka(tool, joints, out); });          \
        },                                                                                                             \
        py::arg("tool"), py::arg("joints"), kFkArrayDoc);                                                              \
    cls.def(                                                                                                           \
        #ik,                                                                                                           \
        [](Handle<T>& h, int tool, Pose pose, Vec ref_joint) {                                                         \
            return withOutput<T, Vec>(h, #ik, [&](T& o, Vec& out) { return o.ik(tool, pose, ref_joint, out); });       \
        },                                                                                                             \
        py::arg("tool"), py::arg("pose"), py::arg("ref_joint"), kIkDoc);                                               \
    cls.def(                                                                                                           \
        #ika,                                                                                                          \
        [](Handle<T>& h, int tool, Poses poses, Points ref_joints) {                                                   \
            return withOutput<T, Points>(h, #ika,                                                                      \
                                         [&](T& o, Points& out) { return o.ika(tool, poses, ref_joints, out); });      \
        },                                                                                                             \
        py::arg("tool"), py::arg("poses"), py::arg("ref_joints"), kIkArrayDoc)

// Joint, pose, planned-joint and external-force callbacks of one arm.
#define KELM_ARM_CALLBACKS(cls, T, rj, lj, rp, lp, rpj, lpj, rf, lf)                                                  \
    cls.def(                                                                                                          \
        #rj,                                                                                                          \
        [](Handle<T>& h, py::function fn) {                                                                           \
            registerPy(                                                                                               \
                h, #rj, std::move(fn), jointTrampoline, [](T& o, T::JointCallback c) { o.rj(std::move(c)); },         \
                [](T& o) { o.lj(); });                                                                                \
        },                                                                                                            \
        py::arg("fn"),                                                                                                \
        "Calls fn(stamp [s], positions [rad], velocities, torques) on the receive thread for every state frame; "     \
        "registering again replaces it. An exception in fn is printed and does not stop the stream.");                \
    cls.def(#lj, forward<T>(&T::lj, #lj, Waits::no), "Removes every joint callback of the arm. Returns 0.");          \
    cls.def(                                                                                                          \
        #rp,                                                                                                          \
        [](Handle<T>& h, py::function fn) {                                                                           \
            registerPy(                                                                                               \
                h, #rp, std::move(fn), poseTrampoline, [](T& o, T::PoseCallback c) { o.rp(std::move(c)); },           \
                [](T& o) { o.lp(); });                                                                                \
        },                                                                                                            \
        py::arg("fn"), "Calls fn(stamp [s], pose x, y, z, qx, qy, qz, qw) for every state frame.");                   \
    cls.def(#lp, forward<T>(&T::lp, #lp, Waits::no), "Removes every pose callback of the arm. Returns 0.");           \
    cls.def(                                                                                                          \
        #rpj,                                                                                                         \
        [](Handle<T>& h, py::function fn) {                                                                           \
            registerPy(                                                                                               \
                h, #rpj, std::move(fn), jointTrampoline, [](T& o, T::JointCallback c) { o.rpj(std::move(c)); },       \
                [](T& o) { o.lpj(); });                                                                               \
        },                                                                                                            \
        py::arg("fn"), "Calls fn(stamp [s], planned positions, velocities, torques) for every state frame.");         \
    cls.def(#lpj, forward<T>(&T::lpj, #lpj, Waits::no), "Removes every planned-joint callback of the arm.");          \
    cls.def(                                                                                                          \
        #rf,                                                                                                          \
        [](Handle<T>& h, py::function fn) {                                                                           \
            registerPy(                                                                                               \
                h, #rf, std::move(fn), forceTrampoline, [](T& o, T::ExternalForceCallback c) { o.rf(std::move(c)); }, \
                [](T& o) { o.lf(); });                                                                                \
        },                                                                                                            \
        py::arg("fn"),                                                                                                \
        "Calls fn(stamp [s], external joint torques, external Cartesian force) for frames that carry them, "          \
        "with the state lock held (use no getter but get_status in it).");                                            \
    cls.def(#lf, forward<T>(&T::lf, #lf, Waits::no), "Removes every external-force callback of the arm.")

// Members shared by both classes that act on the whole object.
template <typename T>
void bindCommon(py::class_<Handle<T>>& cls) {
    cls.def("close", &Handle<T>::close,
            "Releases the Python callbacks, disconnects and destroys the object; later calls raise RuntimeError.");
    cls.def(
        "__enter__", [](Handle<T>& h) -> Handle<T>& { return h; }, py::return_value_policy::reference);
    cls.def("__exit__", [](Handle<T>& h, py::args) { h.close(); });
    cls.def("connect", forward<T>(&T::connect, "connect", Waits::yes), py::arg("ip"), py::arg("port"),
            py::arg("timeout"), "Connects again (closing an existing connection first, then 1 s). 1 once connected.");
    cls.def("disconnect", forward<T>(&T::disconnect, "disconnect", Waits::no), "1 after disconnecting.");
    cls.def("is_connected", forward<T>(&T::is_connected, "is_connected", Waits::no));
    cls.def("set_ready", interruptible(&T::set_ready, "set_ready"),
            "Brings the arm(s) to servo on, position mode and no error and fetches the joint limits, retrying "
            "up to 3000 ms per arm. 1 when ready, -1 otherwise. Ctrl+C raises KeyboardInterrupt at once (the "
            "sequence ends on its own).");
    cls.def("set_servo_enable", forward<T>(&T::set_servo_enable, "set_servo_enable", Waits::yes), py::arg("enable"),
            kRequestResult);
    cls.def("set_control_mode", forward<T>(&T::set_control_mode, "set_control_mode", Waits::yes), py::arg("mode"),
            (std::string("`mode` 0 to 4. ") + kRequestResult).c_str());
    cls.def("set_speed_level", forward<T>(&T::set_speed_level, "set_speed_level", Waits::yes), py::arg("level"),
            py::arg("response_level"),
            (std::string("`level` clamped to 0..10.0 (NaN refused), `response_level` to 1..10000. ") + kRequestResult)
                .c_str());
    cls.def("set_collision_config", forward<T>(&T::set_collision_config, "set_collision_config", Waits::yes),
            py::arg("flag"), py::arg("level"), kRequestResult);
    cls.def("emergency_stop", forward<T>(&T::emergency_stop, "emergency_stop", Waits::yes), kRequestResult);
    cls.def("get_version", forward<T>(&T::get_version, "get_version", Waits::yes),
            "The controller's version text, '' without a reply.");
    cls.def("trajectory_teach", forward<T>(&T::trajectory_teach, "trajectory_teach", Waits::yes), py::arg("flag"),
            py::arg("name"), kRequestResult);
    cls.def("trajectory_recorder", forward<T>(&T::trajectory_recorder, "trajectory_recorder", Waits::yes),
            py::arg("name"), kRequestResult);
    cls.def(
        "check_teach",
        [](Handle<T>& h) {
            return withOutput<T, std::vector<std::string>>(
                h, "check_teach", [](T& o, std::vector<std::string>& names) { return o.check_teach(names); });
        },
        "Names of the recorded trajectories (3000 ms). Returns (result, names).");
    cls.def(
        "register_error_cbk",
        [](Handle<T>& h, const std::string& name, py::function fn) {
            registerPy(
                h, "error:" + name, std::move(fn), errorTrampoline,
                [name](T& o, typename T::ErrorCallback c) { o.register_error_cbk(name, std::move(c)); },
                [name](T& o) { o.release_error_cbk(name); });
        },
        py::arg("name"), py::arg("fn"),
        "Calls fn(code, text) under `name` on every frame that reports an error, with the state lock held (use "
        "no getter but get_status in it).");
    cls.def("release_error_cbk", forward<T>(&T::release_error_cbk, "release_error_cbk", Waits::no), py::arg("name"));
    cls.def(
        "register_completion_cbk",
        [](Handle<T>& h, const std::string& name, py::function fn) {
            registerPy(
                h, "completion:" + name, std::move(fn), textTrampoline,
                [name](T& o, typename T::CompletionCallback c) { o.register_completion_cbk(name, std::move(c)); },
                [name](T& o) { o.release_completion_cbk(name); });
        },
        py::arg("name"), py::arg("fn"), "Calls fn(task_key) under `name` for every task reported finished.");
    cls.def("release_completion_cbk", forward<T>(&T::release_completion_cbk, "release_completion_cbk", Waits::no),
            py::arg("name"));
}

}  // namespace

void bindArms(py::module_& m) {
    py::class_<Single> single(m, "KelmSingleCol", R"doc(The client of one robot arm (arm index 0 of the controller).

KelmSingleCol(ip, port=8090, timeout=1.0) connects while it is constructed
(a failed connection is not reported: is_connected() tells). Joint values in
rad, poses as x, y, z [m], qx, qy, qz, qw, times in s. Motions run at 100 %
speed in tool and user frame 0; block=True waits for the motion's end.
Callbacks run on the receive thread with the GIL; a call that waits for a
reply raises RuntimeError inside a callback of the same object. Use it as a
context manager (`with kelm.KelmSingleCol(ip) as arm:`) to disconnect on exit.)doc");
    single.def(py::init([](const std::string& ip, int port, double timeout) {
                   std::unique_ptr<KelmSingleCol> arm;
                   {
                       py::gil_scoped_release release;
                       arm = std::make_unique<KelmSingleCol>(ip, port, timeout);
                   }
                   auto handle = std::make_unique<Single>(std::move(arm));
                   handle->disconnect_on_close = [](KelmSingleCol& a) { a.disconnect(); };
                   return handle;
               }),
               py::arg("ip"), py::arg("port") = kelm::kControllerPort, py::arg("timeout") = 1.0);
    bindCommon(single);
    KELM_ARM_GETTERS(single, Single, KelmSingleCol, get_status, get_last_refusal, get_submitted_task_key, get_config,
                     get_joint_pos, get_joint_vel, get_joint_tau, get_plan_joint_pos, get_plan_joint_vel,
                     get_plan_joint_tau, get_cart_pose, get_joint_external_tau, get_cart_external_force,
                     get_gripper_state, get_gripper_pos, get_gripper_vel, get_gripper_tau, set_gripper, set_tool_index,
                     get_tool_index, get_tool_coordinate);
    KELM_ARM_MOTIONS(single, KelmSingleCol, track_joint, track_pose, move_joint, move_pose, move_line_joint,
                     move_line_pose, move_joint_traj, move_pose_traj, forward_kine, forward_kine_array, inverse_kine,
                     inverse_kine_array);
    KELM_ARM_CALLBACKS(single, KelmSingleCol, register_joint_cbk, release_joint_cbk, register_pose_cbk,
                       release_pose_cbk, register_plan_joint_cbk, release_plan_joint_cbk, register_external_force_cbk,
                       release_external_force_cbk);

    py::class_<Dual> dual(m, "KelmDualBot", R"doc(The client of two arms behind one controller address.

KelmDualBot(ip, port=8090, timeout=1.0, left_arm_index=0, right_arm_index=1)
makes the left arm's kernel, then the right one's, each with its own
connection. Every one-arm member of KelmSingleCol is here as a left and a
right twin; members that act on both arms call the left, then the right arm
and give 1 only when both gave 1 (set_servo_enable always gives 1).
move_left_line_pose / move_right_line_pose send the 7 pose values as a joint
target, as the C++ class does.)doc");
    dual.def(py::init([](const std::string& ip, int port, double timeout, int left_arm_index, int right_arm_index) {
                 std::unique_ptr<KelmDualBot> bot;
                 {
                     py::gil_scoped_release release;
                     bot = std::make_unique<KelmDualBot>(ip, port, timeout, left_arm_index, right_arm_index);
                 }
                 auto handle = std::make_unique<Dual>(std::move(bot));
                 handle->disconnect_on_close = [](KelmDualBot& b) { b.disconnect(); };
                 return handle;
             }),
             py::arg("ip"), py::arg("port") = kelm::kControllerPort, py::arg("timeout") = 1.0,
             py::arg("left_arm_index") = 0, py::arg("right_arm_index") = 1);
    bindCommon(dual);
    KELM_ARM_GETTERS(dual, Dual, KelmDualBot, get_left_status, get_left_last_refusal, get_left_submitted_task_key,
                     get_left_config, get_left_joint_pos, get_left_joint_vel, get_left_joint_tau,
                     get_left_plan_joint_pos, get_left_plan_joint_vel, get_left_plan_joint_tau, get_left_cart_pose,
                     get_left_joint_external_tau, get_left_cart_external_force, get_left_gripper_state,
                     get_left_gripper_pos, get_left_gripper_vel, get_left_gripper_tau, set_left_gripper,
                     set_left_tool_index, get_left_tool_index, get_left_tool_coordinate);
    KELM_ARM_GETTERS(dual, Dual, KelmDualBot, get_right_status, get_right_last_refusal, get_right_submitted_task_key,
                     get_right_config, get_right_joint_pos, get_right_joint_vel, get_right_joint_tau,
                     get_right_plan_joint_pos, get_right_plan_joint_vel, get_right_plan_joint_tau, get_right_cart_pose,
                     get_right_joint_external_tau, get_right_cart_external_force, get_right_gripper_state,
                     get_right_gripper_pos, get_right_gripper_vel, get_right_gripper_tau, set_right_gripper,
                     set_right_tool_index, get_right_tool_index, get_right_tool_coordinate);
    KELM_ARM_MOTIONS(dual, KelmDualBot, track_left_joint, track_left_pose, move_left_joint, move_left_pose,
                     move_left_line_joint, move_left_line_pose, move_left_joint_traj, move_left_pose_traj,
                     forward_kine_left, forward_kine_left_array, inverse_kine_left, inverse_kine_left_array);
    KELM_ARM_MOTIONS(dual, KelmDualBot, track_right_joint, track_right_pose, move_right_joint, move_right_pose,
                     move_right_line_joint, move_right_line_pose, move_right_joint_traj, move_right_pose_traj,
                     forward_kine_right, forward_kine_right_array, inverse_kine_right, inverse_kine_right_array);
    KELM_ARM_CALLBACKS(dual, KelmDualBot, register_left_joint_cbk, release_left_joint_cbk, register_left_pose_cbk,
                       release_left_pose_cbk, register_left_plan_joint_cbk, release_left_plan_joint_cbk,
                       register_left_external_force_cbk, release_left_external_force_cbk);
    KELM_ARM_CALLBACKS(dual, KelmDualBot, register_right_joint_cbk, release_right_joint_cbk, register_right_pose_cbk,
                       release_right_pose_cbk, register_right_plan_joint_cbk, release_right_plan_joint_cbk,
                       register_right_external_force_cbk, release_right_external_force_cbk);
}

}  // namespace kelm_py
