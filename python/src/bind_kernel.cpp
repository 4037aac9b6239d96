// KelmKernelImpl for Python: every operation of the arm kernel and of its
// connection, with its callback registries reached through their register
// and release operations.
#include <chrono>

#include "bind_util.h"
#include "kelm_kernel.h"

namespace kelm_py {

using kelm::KelmKernelImpl;
using Kernel = Handle<KelmKernelImpl>;
using Vec = std::vector<double>;
using Points = std::vector<std::vector<double>>;
using Pose = std::array<double, 7>;

namespace {

// One registry of the kernel as seen from Python: its register operation,
// its release by name (if any) and its release of everything.
template <typename Fn, typename Trampoline>
void bindRegistry(py::class_<Kernel>& cls, const std::string& kind, Trampoline trampoline,
                  int (KelmKernelImpl::*reg)(const std::string&, Fn),
                  int (KelmKernelImpl::*release_one)(const std::string&), int (KelmKernelImpl::*release_all)(),
                  const char* signature) {
    const std::string doc = std::string(
                                "Registers `fn` under `name` (a name registered again is replaced); `fn` is "
                                "called on the receive thread as fn") +
                            signature +
                            ". An exception in it is printed and does not reach the receive thread. Returns 0.";
    cls.def(
        ("register_" + kind + "_callback").c_str(),
        [reg, release_one, release_all, kind, trampoline](Kernel& handle, const std::string& name, py::function fn) {
            KelmKernelImpl& kernel = handle.get();
            auto cb = holdCallback(std::move(fn), handle.tag());
            if (release_one) {
                handle.rememberRelease(kind + ":" + name,
                                       [release_one, name](KelmKernelImpl& k) { (k.*release_one)(name); });
            } else {
                handle.rememberRelease(kind, [release_all](KelmKernelImpl& k) { (k.*release_all)(); });
            }
            return (kernel.*reg)(name, trampoline(cb));
        },
        py::arg("name"), py::arg("fn"), doc.c_str());
    if (release_one) {
        cls.def(("release_" + kind + "_callback").c_str(),
                [release_one](Kernel& handle, const std::string& name) { return (handle.get().*release_one)(name); },
                py::arg("name"), "Removes the callback under `name`; an absent name changes nothing. Returns 0.");
    }
    cls.def(("release_" + kind + "_callback").c_str(),
            [release_all](Kernel& handle) { return (handle.get().*release_all)(); },
            "Removes every callback of this registry, the kernel's own ones included. Returns 0.");
}

// task_blocking_wait in slices of 50 ms so that Ctrl+C is seen; each slice
// is a complete wait of the kernel, which leaves no subscription or callback
// behind when it times out. A disconnect between two slices, which a slice
// would not see, ends the wait as the kernel's own wait would.
int slicedTaskWait(Kernel& handle, const std::string& task_key, int timeout_ms) {
    KelmKernelImpl& kernel = handle.get();
    handle.refuseInOwnCallback("task_blocking_wait");
    HandleBase::Lease lease(handle);
    if (task_key.empty()) return 0;
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(std::max(timeout_ms, 0)));
    bool was_connected = false;
    {
        py::gil_scoped_release release;
        was_connected = kernel.is_connected();
    }
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int slice = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left, kSignalPollMs)));
        int result = 0;
        bool connected = false;
        {
            py::gil_scoped_release release;
            result = kernel.task_blocking_wait(task_key, slice);
            connected = result == 0 && kernel.is_connected();
        }
        if (result != 0) return result;
        if (was_connected && !connected) return 1;
        if (Clock::now() >= deadline) return 0;
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    }
}

// A motion with the task key as its output: (result, task_key).
template <typename Call>
py::tuple keyed(Kernel& handle, const char* name, Call call) {
    KelmKernelImpl& kernel = handle.get();
    handle.refuseInOwnCallback(name);
    HandleBase::Lease lease(handle);
    std::string key;
    int result = 0;
    {
        py::gil_scoped_release release;
        result = call(kernel, key);
    }
    return py::make_tuple(result, key);
}

constexpr const char* kKeyedMotion =
    "Returns (result, task_key): result 1 when the controller took the task, -1 for refused input (logged, "
    "nothing sent; task_key ''), a failed send, no reply within 1000 ms or a refusal. Wait for the motion's "
    "end with task_blocking_wait(task_key, timeout_ms).";

}  // namespace

void bindKernel(py::module_& m) {
    py::class_<Kernel> cls(m, "KelmKernelImpl",
                           R"doc(One arm of one controller: a connection plus the arm's cached state.

KelmKernelImpl(ip, port=8090, timeout=1.0, arm_index=0) connects while it is
constructed (up to `timeout` seconds; a failed connect is logged and leaves a
kernel without connection, whose requests fail). Joint values are in the
controller's units (rad), poses are 7 floats x, y, z [m], qx, qy, qz, qw.
Callbacks run on the connection's receive thread with the GIL; a call that
waits for a reply raises RuntimeError inside a callback of the same kernel.
Use it as a context manager, or call close(), to disconnect.)doc");

    cls.def(py::init([](const std::string& ip, int port, double timeout, int arm_index) {
                std::unique_ptr<KelmKernelImpl> kernel;
                {
                    py::gil_scoped_release release;
                    kernel = std::make_unique<KelmKernelImpl>(ip, port, timeout, arm_index);
                }
                auto handle = std::make_unique<Kernel>(std::move(kernel));
                handle->disconnect_on_close = [](KelmKernelImpl& k) { k.disconnect_kelm(); };
                return handle;
            }),
            py::arg("ip"), py::arg("port") = kelm::kControllerPort, py::arg("timeout") = 1.0, py::arg("arm_index") = 0);
    cls.def("close", &Kernel::close,
            "Releases the Python callbacks, disconnects and destroys the kernel; later calls raise RuntimeError.");
    cls.def(
        "__enter__", [](Kernel& handle) -> Kernel& { return handle; }, py::return_value_policy::reference);
    cls.def("__exit__", [](Kernel& handle, py::args) { handle.close(); });

    // ---- connection ----
    cls.def("connect_kelm", forward<KelmKernelImpl>(&KelmKernelImpl::connect_kelm, "connect_kelm", Waits::yes),
            py::arg("ip"), py::arg("port"), py::arg("timeout"),
            "Connects to ip:port within `timeout` s, closing an existing connection first (then a 1 s pause). "
            "1 once connected, 0 on failure.");
    cls.def("disconnect_kelm", forward<KelmKernelImpl>(&KelmKernelImpl::disconnect_kelm, "disconnect_kelm", Waits::no),
            "1 after disconnecting, -1 without a transport.");
    cls.def("is_connected", forward<KelmKernelImpl>(&KelmKernelImpl::is_connected, "is_connected", Waits::no));
    cls.def("setSendRate", forward<KelmKernelImpl>(&KelmKernelImpl::setSendRate, "setSendRate", Waits::no),
            py::arg("rate"));
    cls.def("setRecvRate", forward<KelmKernelImpl>(&KelmKernelImpl::setRecvRate, "setRecvRate", Waits::no),
            py::arg("rate"));
    cls.def(
        "cmd_publish",
        [](Kernel& handle, const py::object& request) {
            Json::Value body = toJson(request);
            std::string key;
            bool sent = false;
            KelmKernelImpl& kernel = handle.get();
            HandleBase::Lease lease(handle);
            {
                py::gil_scoped_release release;
                sent = kernel.cmd_publish(body, key);
            }
            return py::make_tuple(sent, key);
        },
        py::arg("request"),
        "Sends the dict `request` with a fresh task_key, without waiting. Returns (sent, task_key).");
    cls.def(
        "cmd_server",
        [](Kernel& handle, const py::object& request, int timeout) {
            KelmKernelImpl& kernel = handle.get();
            handle.refuseInOwnCallback("cmd_server");
            HandleBase::Lease lease(handle);
            Json::Value body = toJson(request);
            std::string key;
            Json::Value reply;
            {
                py::gil_scoped_release release;
                reply = kernel.cmd_server(body, key, timeout);
            }
            return py::make_tuple(fromJson(reply), key);
        },
        py::arg("request"), py::arg("timeout"),
        "Sends the dict `request` and waits up to `timeout` ms for its reply. Returns (reply dict or None, "
        "task_key).");
    cls.def(
        "register_subscription",
        [](Kernel& handle, const std::string& key, py::function fn) {
            auto cb = holdCallback(std::move(fn), handle.tag());
            handle.rememberRelease("subscription:" + key, [key](KelmKernelImpl& k) { k.deregister_subscription(key); });
            handle.get().register_subscription(key, textTrampoline(cb));
        },
        py::arg("key"), py::arg("fn"),
        "One-shot fn(task_key) for the first state frame that reports task `key` finished.");
    cls.def(
        "deregister_subscription",
        [](Kernel& handle, const std::string& key) { handle.get().deregister_subscription(key); }, py::arg("key"));
    cls.def("clear_subscription", [](Kernel& handle) { handle.get().clear_subscription(); });
    bindRegistry<KelmKernelImpl::TextCallback>(
        cls, "task_completion", textTrampoline, &KelmKernelImpl::register_task_completion_callback,
        static_cast<int (KelmKernelImpl::*)(const std::string&)>(&KelmKernelImpl::release_task_completion_callback),
        static_cast<int (KelmKernelImpl::*)()>(&KelmKernelImpl::release_task_completion_callback),
        "(task_key: str) for every task a state frame reports finished");
    bindRegistry<KelmKernelImpl::TextCallback>(
        cls, "update_robot_state", textTrampoline, &KelmKernelImpl::register_update_robot_state_callback,
        static_cast<int (KelmKernelImpl::*)(const std::string&)>(&KelmKernelImpl::release_update_robot_state_callback),
        static_cast<int (KelmKernelImpl::*)()>(&KelmKernelImpl::release_update_robot_state_callback),
        "(message: str) for every message that is no reply (the release without a name also removes the "
        "kernel's own parser)");
    bindRegistry<KelmKernelImpl::ConnectCallback>(
        cls, "connect_changed", connectTrampoline, &KelmKernelImpl::register_connect_changed_callback,
        static_cast<int (KelmKernelImpl::*)(const std::string&)>(&KelmKernelImpl::release_connect_changed_callback),
        static_cast<int (KelmKernelImpl::*)()>(&KelmKernelImpl::release_connect_changed_callback),
        "(connected: bool) on every change of the connection");

    // ---- the kernel's registries ----
    using K = KelmKernelImpl;
    using One = int (K::*)(const std::string&);
    using All = int (K::*)();
    bindRegistry<K::ErrorCallback>(cls, "error_catch", errorTrampoline, &K::register_error_catch_callback,
                                   static_cast<One>(&K::release_error_catch_callback),
                                   static_cast<All>(&K::release_error_catch_callback),
                                   "(code: int, text: str) on every frame that reports an error of this arm "
                                   "(runs with the state lock held: use no getter but get_status)");
    bindRegistry<K::JointCallback>(cls, "get_joint", jointTrampoline, &K::register_get_joint_callback,
                                   static_cast<One>(&K::release_get_joint_callback),
                                   static_cast<All>(&K::release_get_joint_callback),
                                   "(stamp [s], positions [rad], velocities [rad/s], torques [Nm]) per frame");
    bindRegistry<K::PoseCallback>(cls, "get_pose", poseTrampoline, &K::register_get_pose_callback,
                                  static_cast<One>(&K::release_get_pose_callback),
                                  static_cast<All>(&K::release_get_pose_callback),
                                  "(stamp [s], pose x, y, z, qx, qy, qz, qw) per frame");
    bindRegistry<K::JointCallback>(cls, "get_plan_joint", jointTrampoline, &K::register_get_plan_joint_callback,
                                   static_cast<One>(&K::release_get_plan_joint_callback),
                                   static_cast<All>(&K::release_get_plan_joint_callback),
                                   "(stamp [s], planned positions, velocities, torques) per frame");
    bindRegistry<K::TeleDataCallback>(cls, "get_tele_master_data", teleTrampoline,
                                      &K::register_get_tele_master_data_callback,
                                      static_cast<One>(&K::release_get_tele_master_data_callback),
                                      static_cast<All>(&K::release_get_tele_master_data_callback),
                                      "(stamp [s], joint positions [rad], gripper position [m]) per frame");
    bindRegistry<K::TeleDataCallback>(cls, "get_tele_slave_data", teleTrampoline,
                                      &K::register_get_tele_slave_data_callback,
                                      static_cast<One>(&K::release_get_tele_slave_data_callback),
                                      static_cast<All>(&K::release_get_tele_slave_data_callback),
                                      "(stamp [s], external joint torques, gripper torque) per frame, with the "
                                      "state lock held");
    bindRegistry<K::ExternalForceCallback>(cls, "get_external_force", forceTrampoline,
                                           &K::register_get_external_force_callback,
                                           static_cast<One>(&K::release_get_external_force_callback),
                                           static_cast<All>(&K::release_get_external_force_callback),
                                           "(stamp [s], external joint torques, external Cartesian force) for "
                                           "frames that carry them, with the state lock held");
    bindRegistry<K::AxisValueCallback>(cls, "fsm_mode_changed", plainTrampoline<int, int>,
                                       &K::register_fsm_mode_changed_callback, nullptr,
                                       &K::release_fsm_mode_changed_callback, "(axis: int, mode: int)");
    bindRegistry<K::AxisServoCallback>(cls, "servo_status_changed", plainTrampoline<int, bool>,
                                       &K::register_servo_status_changed_callback, nullptr,
                                       &K::release_servo_status_changed_callback, "(axis: int, servo: bool)");
    bindRegistry<K::AxisCodeCallback>(cls, "motor_code_changed", plainTrampoline<int, int, const std::string&>,
                                      &K::register_motor_code_changed_callback, nullptr,
                                      &K::release_motor_code_changed_callback, "(axis: int, code: int, text: str)");
    bindRegistry<K::AxisValueCallback>(cls, "motor_run_state_changed", plainTrampoline<int, int>,
                                       &K::register_motor_run_state_changed_callback, nullptr,
                                       &K::release_motor_run_state_changed_callback, "(axis: int, run_state: int)");
    bindRegistry<K::StateCallback>(cls, "state_changed", plainTrampoline<int>, &K::register_state_changed_callback,
                                   nullptr, &K::release_state_changed_callback, "(motion_state: int)");

    // ---- state ----
    cls.def("onReceive", forward<K>(&K::onReceive, "onReceive", Waits::no), py::arg("message"),
            "Takes one message text as the receive thread would: a reply goes to its waiter, anything else to the "
            "state callbacks, here on this thread.");
    cls.def("cmd_recv", forward<K>(&K::cmd_recv, "cmd_recv", Waits::no), py::arg("message"),
            "Parses one message, reports its finished tasks, files a reply with its waiter. True for a reply.");
    cls.def("connectChanged", forward<K>(&K::connectChanged, "connectChanged", Waits::no), py::arg("connected"),
            "Tells the connect_changed callbacks of a change, as the transport does.");
    cls.def("initData", forward<K>(&K::initData, "initData", Waits::no),
            "Empties the cached state (the constructor's own step).");
    cls.def(
        "webSendRobotStateData",
        [](Kernel& handle, const py::object& frame) {
            Json::Value root = toJson(frame);
            KelmKernelImpl& kernel = handle.get();
            HandleBase::Lease lease(handle);
            py::gil_scoped_release release;
            kernel.webSendRobotStateData(root);
        },
        py::arg("frame"), "Takes a parsed state frame (a dict) over into the cached state and fires the callbacks.");
    cls.def(
        "parseIOInfo",
        [](Kernel& handle, const py::object& message) {
            Json::Value root = toJson(message);
            std::vector<KelmKernelImpl::RtuInfo> stations;
            int result = 0;
            {
                KelmKernelImpl& kernel = handle.get();
                HandleBase::Lease lease(handle);
                py::gil_scoped_release release;
                result = kernel.parseIOInfo(root, stations);
            }
            auto values = [](const std::vector<KelmKernelImpl::IOValueInfo>& list) {
                py::list out;
                for (const auto& v : list) out.append(py::make_tuple(v.value, static_cast<int>(v.bits)));
                return out;
            };
            py::list out;
            for (const auto& station : stations) {
                py::list units;
                for (const auto& unit : station.units) {
                    py::dict d;
                    d["di_value"] = py::cast(unit.di_value);
                    d["do_value"] = py::cast(unit.do_value);
                    d["ad_value"] = values(unit.ad_value);
                    d["da_value"] = values(unit.da_value);
                    d["status_value"] = values(unit.status_value);
                    d["ctrl_value"] = values(unit.ctrl_value);
                    units.append(d);
                }
                py::dict d;
                d["units"] = units;
                out.append(d);
            }
            return py::make_tuple(result, out);
        },
        py::arg("message"),
        "Reads the `rtu` block of a message (a dict) into (1, stations): each station {'units': [...]}, each unit "
        "with di_value/do_value (0/1 lists) and ad/da/status/ctrl values as (value, bits) pairs.");
    cls.def("parseRecieveData", forward<K>(&K::parseRecieveData, "parseRecieveData", Waits::no), py::arg("msg"),
            "Takes one message text as if the controller had sent it (a webSendRobotState frame updates the cached "
            "state and fires the callbacks on this thread).");
    cls.def_property_readonly(
        "msg_count", [](Kernel& self) { return self.get().msg_count; },
        "`count` of the last state frame. Written by the receive thread: read it in a joint, pose, plan joint or tele "
        "master callback of this kernel, where it belongs to the frame being delivered; elsewhere the read is "
        "unsynchronised.");
    cls.def("get_status", forward<K>(&K::get_status, "get_status", Waits::no),
            "The arm's ArmStatus; `connected` is asked of the connection now. Allowed in every callback.");
    cls.def("get_last_refusal", forward<K>(&K::get_last_refusal, "get_last_refusal", Waits::no),
            "The record of the kernel's last refused operation (Refusal); serial counts the refusals.");
    cls.def("get_submitted_task_key", forward<K>(&K::get_submitted_task_key, "get_submitted_task_key", Waits::no),
            "Key of the last task the controller took from this kernel ('' before the first).");
    cls.def("get_joint_pos", forward<K>(&K::get_joint_pos, "get_joint_pos", Waits::no),
            "Measured joint positions [rad].");
    cls.def("get_joint_vel", forward<K>(&K::get_joint_vel, "get_joint_vel", Waits::no), "Measured joint velocities.");
    cls.def("get_joint_tau", forward<K>(&K::get_joint_tau, "get_joint_tau", Waits::no), "Measured joint torques.");
    cls.def("get_plan_joint_pos", forward<K>(&K::get_plan_joint_pos, "get_plan_joint_pos", Waits::no));
    cls.def("get_plan_joint_vel", forward<K>(&K::get_plan_joint_vel, "get_plan_joint_vel", Waits::no));
    cls.def("get_plan_joint_tau", forward<K>(&K::get_plan_joint_tau, "get_plan_joint_tau", Waits::no));
    cls.def("get_joint_external_tau", forward<K>(&K::get_joint_external_tau, "get_joint_external_tau", Waits::no));
    cls.def("get_cart_pose", forward<K>(&K::get_cart_pose, "get_cart_pose", Waits::no),
            "Cartesian pose x, y, z [m], qx, qy, qz, qw.");
    cls.def("get_cart_external_force", forward<K>(&K::get_cart_external_force, "get_cart_external_force", Waits::no));
    cls.def("get_end_effector_state", forward<K>(&K::get_end_effector_state, "get_end_effector_state", Waits::no));
    cls.def("get_end_effector_pos", forward<K>(&K::get_end_effector_pos, "get_end_effector_pos", Waits::no),
            "Gripper position [m].");
    cls.def("get_end_effector_vel", forward<K>(&K::get_end_effector_vel, "get_end_effector_vel", Waits::no));
    cls.def("get_end_effector_tau", forward<K>(&K::get_end_effector_tau, "get_end_effector_tau", Waits::no));
    cls.def("get_end_effector_connect",
            forward<K>(&K::get_end_effector_connect, "get_end_effector_connect", Waits::no));

    // ---- control commands ----
    cls.def("set_servo_enable", forward<K>(&K::set_servo_enable, "set_servo_enable", Waits::yes), py::arg("enable"),
            kRequestResult);
    cls.def("set_control_mode", forward<K>(&K::set_control_mode, "set_control_mode", Waits::yes), py::arg("mode"),
            (std::string("`mode` 0 to 4 (0 position, 1 PV, 2 MIT, 3 drag, 4 force-position hybrid). ") + kRequestResult)
                .c_str());
    cls.def(
        "set_end_effector", forward<K>(&K::set_end_effector, "set_end_effector", Waits::no), py::arg("pos"),
        py::arg("tau"),
        (std::string("Gripper target: `pos` [m] clamped to 0..0.08, `tau` to 0..20.0; NaN refused. ") + kStreamResult)
            .c_str());
    cls.def("set_collision_config", forward<K>(&K::set_collision_config, "set_collision_config", Waits::yes),
            py::arg("flag"), py::arg("level"), kRequestResult);
    cls.def("set_teleoperation_mode", forward<K>(&K::set_teleoperation_mode, "set_teleoperation_mode", Waits::yes),
            py::arg("is_master"),
            (std::string("`is_master` 1 for a master arm, 2 for a slave arm. ") + kRequestResult).c_str());
    cls.def("disable_stop", forward<K>(&K::disable_stop, "disable_stop", Waits::yes), kRequestResult);
    cls.def("emergency_stop", forward<K>(&K::emergency_stop, "emergency_stop", Waits::yes), kRequestResult);
    cls.def("task_stop", forward<K>(&K::task_stop, "task_stop", Waits::yes), py::arg("stop_at_once"), kRequestResult);
    cls.def("stop", forward<K>(&K::stop, "stop", Waits::yes), kRequestResult);
    cls.def("pause", forward<K>(&K::pause, "pause", Waits::yes), kRequestResult);
    cls.def("recover", forward<K>(&K::recover, "recover", Waits::yes), kRequestResult);
    cls.def("clean_kelm_error", forward<K>(&K::clean_kelm_error, "clean_kelm_error", Waits::yes), kRequestResult);
    cls.def("set_speed_level", forward<K>(&K::set_speed_level, "set_speed_level", Waits::yes), py::arg("level"),
            py::arg("response_level"),
            (std::string("`level` clamped to 0..10.0 (NaN refused), `response_level` to 1..10000. ") + kRequestResult)
                .c_str());
    cls.def("set_debug", forward<K>(&K::set_debug, "set_debug", Waits::yes), py::arg("trigger"), kRequestResult);
    cls.def("get_config", forward<K>(&K::get_config, "get_config", Waits::yes),
            "Asks for the joint configuration (ArmConfig); dof 0 and empty lists without a reply.");
    cls.def("get_version", forward<K>(&K::get_version, "get_version", Waits::yes),
            "The controller's version text, '' without a reply.");
    cls.def("set_kelm_ready", interruptible(&K::set_kelm_ready, "set_kelm_ready"), py::arg("blocking"),
            py::arg("delay_time"),
            "Brings the arm to no error, servo on and POSITION mode and reads its limits. `blocking` retries "
            "within `delay_time` [ms]. Returns 1 when the frames show the arm ready, -1 otherwise. Ctrl+C raises "
            "KeyboardInterrupt at once; the sequence then ends on its own and the next waiting call waits for it.");

    // ---- streaming ----
    cls.def("tracking", forward<K>(&K::tracking, "tracking", Waits::no), py::arg("target"), py::arg("is_joint"),
            py::arg("gripper"),
            (std::string("Next way-point: `dof` joint values [rad] clamped to the limits (refused before "
                         "set_kelm_ready read them) or a pose of 7 (quaternion normalised); `gripper` [m] < 0 "
                         "sends none, clamped to 0.08. ") +
             kStreamResult)
                .c_str());
    cls.def("set_redundancy_tau", forward<K>(&K::set_redundancy_tau, "set_redundancy_tau", Waits::no),
            py::arg("redundancy_tau"), py::arg("eeff_tau"),
            (std::string("One torque per joint and the end-effector torque, unchanged. ") + kStreamResult).c_str());

    // ---- task waiting and errors ----
    cls.def("task_blocking_wait", &slicedTaskWait, py::arg("task_key"), py::arg("timeout_ms"),
            "Waits until task `task_key` is reported finished, an error (not the warning 3001) is reported for "
            "this arm, the connection drops, or `timeout_ms` [ms] passes. 1 for any of the events, 0 on time-out "
            "or an empty key. Ctrl+C raises KeyboardInterrupt within 100 ms and leaves the kernel as it was.");
    cls.def("onKelmError", forward<K>(&K::onKelmError, "onKelmError", Waits::no), py::arg("code"), py::arg("msg"),
            "The kernel's own error listener: logs the warning or error.");

    // ---- motions ----
    cls.def("move_joint_jog", forward<K>(&K::move_joint_jog, "move_joint_jog", Waits::yes), py::arg("index"),
            py::arg("dir"), py::arg("speed"), kRequestResult);
    cls.def("move_line_jog", forward<K>(&K::move_line_jog, "move_line_jog", Waits::yes), py::arg("index"),
            py::arg("dir"), py::arg("speed"), py::arg("tool"), py::arg("user"), kRequestResult);
    cls.def(
        "move_joint",
        [](Kernel& h, Vec target, double speed, int tool, int user, bool is_joint) {
            return keyed(h, "move_joint", [&](K& k, std::string& key) {
                return k.move_joint(target, key, speed, tool, user, is_joint);
            });
        },
        py::arg("target"), py::arg("speed"), py::arg("tool"), py::arg("user"), py::arg("is_joint"),
        (std::string("Point-to-point move to joint target [rad] or pose (is_joint False) at `speed` percent. ") +
         kKeyedMotion)
            .c_str());
    cls.def(
        "move_line",
        [](Kernel& h, Vec target, double speed, int tool, int user, bool is_joint) {
            return keyed(h, "move_line",
                         [&](K& k, std::string& key) { return k.move_line(target, key, speed, tool, user, is_joint); });
        },
        py::arg("target"), py::arg("speed"), py::arg("tool"), py::arg("user"), py::arg("is_joint"),
        (std::string("Straight-line move. ") + kKeyedMotion).c_str());
    cls.def(
        "move_directly",
        [](Kernel& h, Points targets, Vec gripper) {
            return keyed(h, "move_directly",
                         [&](K& k, std::string& key) { return k.move_directly(targets, key, gripper); });
        },
        py::arg("targets"), py::arg("gripper"),
        (std::string("Way-points sent unchecked, with one gripper position [m] per point or none. ") + kKeyedMotion)
            .c_str());
    cls.def(
        "move_toppra",
        [](Kernel& h, Points targets, double speed, int tool, int user, bool is_joint) {
            return keyed(h, "move_toppra", [&](K& k, std::string& key) {
                return k.move_toppra(targets, key, speed, tool, user, is_joint);
            });
        },
        py::arg("targets"), py::arg("speed"), py::arg("tool"), py::arg("user"), py::arg("is_joint"),
        (std::string("Path through `targets`, timed by the controller at `speed` percent. ") + kKeyedMotion).c_str());
    cls.def(
        "move_pvt",
        [](Kernel& h, Points targets, Vec gripper, Vec times, bool is_joint) {
            return keyed(h, "move_pvt",
                         [&](K& k, std::string& key) { return k.move_pvt(targets, gripper, times, key, is_joint); });
        },
        py::arg("targets"), py::arg("gripper"), py::arg("times"), py::arg("is_joint"),
        (std::string("Points with time stamps `times` [s] (above 0, increasing, steps below 3600) and optional "
                     "gripper positions [m]. ") +
         kKeyedMotion)
            .c_str());
    cls.def(
        "move_3p_arc",
        [](Kernel& h, std::array<Vec, 3> points, double speed, bool dir, double radian, int tool, int user,
           bool is_joint) {
            return keyed(h, "move_3p_arc", [&](K& k, std::string& key) {
                return k.move_3p_arc(points, key, speed, dir, radian, tool, user, is_joint);
            });
        },
        py::arg("points"), py::arg("speed"), py::arg("dir"), py::arg("radian"), py::arg("tool"), py::arg("user"),
        py::arg("is_joint"),
        (std::string("Arc through three points; `radian` [rad] sent when above 0. ") + kKeyedMotion).c_str());
    cls.def(
        "move_center_arc",
        [](Kernel& h, std::array<Vec, 3> points, double speed, bool dir, double radian, int tool, int user,
           bool is_joint) {
            return keyed(h, "move_center_arc", [&](K& k, std::string& key) {
                return k.move_center_arc(points, key, speed, dir, radian, tool, user, is_joint);
            });
        },
        py::arg("points"), py::arg("speed"), py::arg("dir"), py::arg("radian"), py::arg("tool"), py::arg("user"),
        py::arg("is_joint"), (std::string("Arc given by its centre. ") + kKeyedMotion).c_str());
    cls.def(
        "move_jump",
        [](Kernel& h, Pose target, std::array<double, 3> up, std::array<double, 3> down, double speed, int tool,
           int user) {
            return keyed(h, "move_jump",
                         [&](K& k, std::string& key) { return k.move_jump(target, up, down, key, speed, tool, user); });
        },
        py::arg("target"), py::arg("up"), py::arg("down"), py::arg("speed"), py::arg("tool"), py::arg("user"),
        (std::string("Hop to pose `target`: up by `up` [m], over to target + `down` [m], down onto it. ") +
         kKeyedMotion)
            .c_str());
    cls.def("move_delay", forward<K>(&K::move_delay, "move_delay", Waits::yes), py::arg("time"),
            py::arg("override_level"),
            (std::string("Pause of `time` [s] in the task stream. ") + kRequestResult).c_str());

    // ---- coordinates and calibration ----
    cls.def("get_tool_index", forward<K>(&K::get_tool_index, "get_tool_index", Waits::no));
    cls.def("get_user_index", forward<K>(&K::get_user_index, "get_user_index", Waits::no));
    cls.def("get_tool_coordinate", forward<K>(&K::get_tool_coordinate, "get_tool_coordinate", Waits::yes),
            py::arg("index"), "Tool system `index` as a pose (zeros when the reply is unusable).");
    cls.def("get_user_coordinate", forward<K>(&K::get_user_coordinate, "get_user_coordinate", Waits::yes),
            py::arg("index"), "User system `index` as the controller's array (empty on failure).");
    cls.def("set_tool_index", forward<K>(&K::set_tool_index, "set_tool_index", Waits::yes), py::arg("index"),
            kRequestResult);
    cls.def("set_user_index", forward<K>(&K::set_user_index, "set_user_index", Waits::yes), py::arg("index"),
            kRequestResult);
    cls.def("set_tool_coordinate", forward<K>(&K::set_tool_coordinate, "set_tool_coordinate", Waits::yes),
            py::arg("index"), py::arg("coord"), (std::string("`coord` of 6 values. ") + kRequestResult).c_str());
    cls.def("set_user_coordinate", forward<K>(&K::set_user_coordinate, "set_user_coordinate", Waits::yes),
            py::arg("index"), py::arg("coord"), (std::string("`coord` of 6 values. ") + kRequestResult).c_str());
    cls.def("user_calibrate", forward<K>(&K::user_calibrate, "user_calibrate", Waits::yes), py::arg("user"),
            py::arg("points"), "1 for result 'ok', -1 for another result, -2 for no reply.");
    cls.def("tool_calibtate", forward<K>(&K::tool_calibtate, "tool_calibtate", Waits::yes), py::arg("tool"),
            py::arg("points"), "1 for result 'ok', -1 for another result or a point shorter than 6, -2 for no reply.");

    // ---- kinematics ----
    cls.def(
        "forwardKine",
        [](Kernel& h, int tool, int user, Vec joint) {
            K& k = h.get();
            h.refuseInOwnCallback("forwardKine");
            HandleBase::Lease lease(h);
            Pose pose{};
            int result = 0;
            {
                py::gil_scoped_release release;
                result = k.forwardKine(tool, user, joint, pose);
            }
            return py::make_tuple(result, toPy(pose));
        },
        py::arg("tool"), py::arg("user"), py::arg("jnt_value"),
        "Pose of one joint vector, computed by the controller (3000 ms). Returns (result, pose): 1 on success, "
        "-1 otherwise (pose then zeros).");
    cls.def(
        "forwardKine",
        [](Kernel& h, int tool, int user, Points joints) {
            K& k = h.get();
            h.refuseInOwnCallback("forwardKine");
            HandleBase::Lease lease(h);
            std::vector<Pose> poses;
            int result = 0;
            {
                py::gil_scoped_release release;
                result = k.forwardKine(tool, user, joints, poses);
            }
            return py::make_tuple(result, toPy(poses));
        },
        py::arg("tool"), py::arg("user"), py::arg("jnt_values"), "Batch form: (result, (n, 7) array of poses).");
    cls.def(
        "inverseKine",
        [](Kernel& h, int tool, int user, Pose pose, Vec ref_joint) {
            K& k = h.get();
            h.refuseInOwnCallback("inverseKine");
            HandleBase::Lease lease(h);
            Vec joint;
            int result = 0;
            {
                py::gil_scoped_release release;
                result = k.inverseKine(tool, user, pose, ref_joint, joint);
            }
            return py::make_tuple(result, toPy(joint));
        },
        py::arg("tool"), py::arg("user"), py::arg("quat_pose"), py::arg("ref_joint"),
        "Joint solution near `ref_joint` for one pose (3000 ms). Returns (result, joints): 1 on success, -1 "
        "otherwise (joints then empty).");
    cls.def(
        "inverseKine",
        [](Kernel& h, int tool, int user, std::vector<Pose> poses, Points ref_joints) {
            K& k = h.get();
            h.refuseInOwnCallback("inverseKine");
            HandleBase::Lease lease(h);
            Points joints;
            int result = 0;
            {
                py::gil_scoped_release release;
                result = k.inverseKine(tool, user, poses, ref_joints, joints);
            }
            return py::make_tuple(result, toPy(joints));
        },
        py::arg("tool"), py::arg("user"), py::arg("quat_poses"), py::arg("ref_joints"),
        "Batch form: (result, joints); a pose without a solution gives an empty row and result -1.");

    // ---- recording, teaching, controller calibration ----
    cls.def("set_traj_recorder", forward<K>(&K::set_traj_recorder, "set_traj_recorder", Waits::yes),
            py::arg("to_record"), kRequestResult);
    cls.def("trajectory_teach", forward<K>(&K::trajectory_teach, "trajectory_teach", Waits::yes), py::arg("flag"),
            py::arg("name"), kRequestResult);
    cls.def("trajectory_recorder", forward<K>(&K::trajectory_recorder, "trajectory_recorder", Waits::yes),
            py::arg("name"), kRequestResult);
    cls.def(
        "check_teach",
        [](Kernel& h) {
            K& k = h.get();
            h.refuseInOwnCallback("check_teach");
            HandleBase::Lease lease(h);
            std::vector<std::string> names;
            int result = 0;
            {
                py::gil_scoped_release release;
                result = k.check_teach(names);
            }
            return py::make_tuple(result, toPy(names));
        },
        "Names of the taught trajectories (3000 ms). Returns (result, names); -1 for no usable reply.");
    cls.def("set_zero_position", forward<K>(&K::set_zero_position, "set_zero_position", Waits::yes), py::arg("axis_id"),
            "The reply's `ret` (0 when absent), -1 for no reply or a refusal.");
    cls.def("set_dynamics_cali_record_flag",
            forward<K>(&K::set_dynamics_cali_record_flag, "set_dynamics_cali_record_flag", Waits::yes),
            "The reply's `ret` (0 when absent), -1 for no reply or a refusal.");
    cls.def("set_dynamics_cali_calcu", forward<K>(&K::set_dynamics_cali_calcu, "set_dynamics_cali_calcu", Waits::yes),
            py::arg("payload"), "The reply's `ret` (0 when absent), -1 for no reply or a refusal.");
}

}  // namespace kelm_py
