// The extension module kelm._kelm: records, tables and enums, the logger's
// level, the arm classes, and StateLog, the per-frame capture that the
// episode recorder drains.
#include <chrono>
#include <limits>

#include "bind_util.h"
#include "kelm_kernel.h"
#include "kelm_tables.h"
#include "log_manager.h"

namespace kelm_py {

void bindKernel(py::module_& m);
void bindArms(py::module_& m);
void bindLogBridge(py::module_& m);

namespace {

using kelm::KelmKernelImpl;
using Kernel = Handle<KelmKernelImpl>;

// Every state frame of one kernel, captured on its receive thread without
// the GIL and handed to Python in batches.
class StateLog {
public:
    struct Row {
        std::uint64_t count;
        double stamp;
        double received;
        std::vector<double> pos, vel, tau;
        double gripper_pos, gripper_vel, gripper_tau;
    };
    struct Buffer {
        std::mutex mutex;
        std::vector<Row> rows;
        std::size_t capacity = 0;
        std::uint64_t overflow = 0;
        std::uint64_t frames = 0;
    };

    StateLog(Kernel& kernel, std::string name, std::size_t capacity)
        : kernel_(kernel), name_(std::move(name)), buffer_(std::make_shared<Buffer>()) {
        buffer_->capacity = capacity;
        KelmKernelImpl& k = kernel.get();
        KelmKernelImpl* arm = &k;
        auto buffer = buffer_;
        // Joint callbacks run after the state lock is released, on the
        // thread that alone writes the frame count.
        auto capture = [arm, buffer](double stamp, std::vector<double> pos, std::vector<double> vel,
                                     std::vector<double> tau) {
            Row row{arm->msg_count,
                    stamp,
                    std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(),
                    std::move(pos),
                    std::move(vel),
                    std::move(tau),
                    arm->get_end_effector_pos(),
                    arm->get_end_effector_vel(),
                    arm->get_end_effector_tau()};
            std::lock_guard<std::mutex> lock(buffer->mutex);
            ++buffer->frames;
            if (buffer->rows.size() >= buffer->capacity) {
                ++buffer->overflow;
                return;
            }
            buffer->rows.push_back(std::move(row));
        };
        const std::string key = "statelog:" + name_;
        const std::string registry_name = name_;
        kernel.rememberRelease(key,
                               [registry_name](KelmKernelImpl& a) { a.release_get_joint_callback(registry_name); });
        py::gil_scoped_release release;
        k.register_get_joint_callback(name_, capture);
    }

    // The rows captured since the last drain, as numpy arrays.
    py::dict drain() {
        std::vector<Row> rows;
        {
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> lock(buffer_->mutex);
            rows.swap(buffer_->rows);
            buffer_->rows.reserve(std::min<std::size_t>(rows.size(), buffer_->capacity));
        }
        std::size_t dof = 0;
        for (const Row& row : rows) dof = std::max({dof, row.pos.size(), row.vel.size(), row.tau.size()});
        const auto n = static_cast<py::ssize_t>(rows.size());
        const auto d = static_cast<py::ssize_t>(dof);
        py::array_t<std::uint64_t> count(n);
        py::array_t<double> stamp(n), received(n), qpos({n, d}), qvel({n, d}), effort({n, d}),
            gripper({n, py::ssize_t(3)});
        const double nan = std::numeric_limits<double>::quiet_NaN();
        auto fill = [&](double* out, const std::vector<double>& values) {
            for (std::size_t j = 0; j < dof; ++j) out[j] = j < values.size() ? values[j] : nan;
        };
        for (py::ssize_t i = 0; i < n; ++i) {
            const Row& row = rows[static_cast<std::size_t>(i)];
            count.mutable_data()[i] = row.count;
            stamp.mutable_data()[i] = row.stamp;
            received.mutable_data()[i] = row.received;
            fill(qpos.mutable_data() + i * d, row.pos);
            fill(qvel.mutable_data() + i * d, row.vel);
            fill(effort.mutable_data() + i * d, row.tau);
            double* g = gripper.mutable_data() + i * 3;
            g[0] = row.gripper_pos;
            g[1] = row.gripper_vel;
            g[2] = row.gripper_tau;
        }
        py::dict out;
        out["count"] = count;
        out["stamp"] = stamp;
        out["received"] = received;
        out["qpos"] = qpos;
        out["qvel"] = qvel;
        out["effort"] = effort;
        out["gripper"] = gripper;
        return out;
    }

    void stop() {
        if (stopped_) return;
        stopped_ = true;
        try {
            KelmKernelImpl& k = kernel_.get();
            py::gil_scoped_release release;
            k.release_get_joint_callback(name_);
        } catch (const std::runtime_error&) {
            // the kernel is closed already, and its callbacks with it
        }
    }

    std::uint64_t frames() const {
        std::lock_guard<std::mutex> lock(buffer_->mutex);
        return buffer_->frames;
    }
    std::uint64_t overflow() const {
        std::lock_guard<std::mutex> lock(buffer_->mutex);
        return buffer_->overflow;
    }

private:
    Kernel& kernel_;
    std::string name_;
    std::shared_ptr<Buffer> buffer_;
    bool stopped_ = false;
};

template <typename Map>
py::dict tableToDict(const Map& table) {
    py::dict out;
    for (const auto& entry : table) out[py::cast(entry.first)] = py::cast(entry.second);
    return out;
}

void bindRecords(py::module_& m) {
    py::class_<kelm::ArmStatus>(m, "ArmStatus", "The arm's status as the state frames last reported it.")
        .def(py::init<>())
        .def_readwrite("arm_index", &kelm::ArmStatus::arm_index, "Element of the controller's `arm` array.")
        .def_readwrite("arm_name", &kelm::ArmStatus::arm_name)
        .def_readwrite("connected", &kelm::ArmStatus::connected, "Connection state at the call of get_status.")
        .def_readwrite("dof", &kelm::ArmStatus::dof, "Number of joints the frames report.")
        .def_readwrite("servo", &kelm::ArmStatus::servo, "Servo power on.")
        .def_readwrite("motion_state", &kelm::ArmStatus::motion_state, "A KelmState: -1 error, 0 standby, 1 running.")
        .def_readwrite("fsm_mode", &kelm::ArmStatus::fsm_mode, "An FsmMode value.")
        .def_readwrite("vel_per", &kelm::ArmStatus::vel_per, "Speed percentage the controller reports.")
        .def_readwrite("debug", &kelm::ArmStatus::debug)
        .def("__repr__", [](const kelm::ArmStatus& s) {
            return "ArmStatus(arm_index=" + std::to_string(s.arm_index) + ", arm_name='" + s.arm_name +
                   "', connected=" + (s.connected ? "True" : "False") + ", dof=" + std::to_string(s.dof) +
                   ", servo=" + (s.servo ? "True" : "False") + ", motion_state=" + std::to_string(s.motion_state) +
                   ", fsm_mode=" + std::to_string(s.fsm_mode) + ", vel_per=" + std::to_string(s.vel_per) +
                   ", debug=" + (s.debug ? "True" : "False") + ")";
        });

    py::enum_<kelm::RefusalKind>(m, "RefusalKind", "Why an operation was refused.")
        .value("none", kelm::RefusalKind::none)
        .value("invalid_input", kelm::RefusalKind::invalid_input)
        .value("timeout", kelm::RefusalKind::timeout)
        .value("no_connection", kelm::RefusalKind::no_connection)
        .value("controller", kelm::RefusalKind::controller);
    py::class_<kelm::Refusal>(m, "Refusal", "The record of an arm's last refused operation.")
        .def(py::init<>())
        .def_readonly("serial", &kelm::Refusal::serial, "Number of refusals of the arm so far.")
        .def_readonly("operation", &kelm::Refusal::operation, "The kernel operation that refused.")
        .def_readonly("kind", &kelm::Refusal::kind)
        .def_readonly("reason", &kelm::Refusal::reason,
                      "The line the refusal logged, the controller's err_msg, or what failed.")
        .def("__repr__", [](const kelm::Refusal& r) {
            return "Refusal(serial=" + std::to_string(r.serial) + ", operation='" + r.operation +
                   "', kind=" + py::repr(py::cast(r.kind)).cast<std::string>() +
                   ", reason=" + py::repr(py::str(r.reason)).cast<std::string>() + ")";
        });

    using kelm::ArmConfig;
    auto vector_field = [](std::vector<double> ArmConfig::*field) {
        return std::make_pair([field](const ArmConfig& c) { return toPy(c.*field); },
                              [field](ArmConfig& c, std::vector<double> values) { c.*field = std::move(values); });
    };
    py::class_<ArmConfig> config(m, "ArmConfig", "Joint limits [rad] and dynamics parameters per joint.");
    config.def(py::init<>()).def_readwrite("dof", &ArmConfig::dof);
    const std::pair<const char*, std::vector<double> ArmConfig::*> fields[] = {
        {"limit_upper", &ArmConfig::limit_upper}, {"limit_lower", &ArmConfig::limit_lower},
        {"joint_vel", &ArmConfig::joint_vel},     {"joint_acc", &ArmConfig::joint_acc},
        {"joint_dec", &ArmConfig::joint_dec},     {"joint_jerk", &ArmConfig::joint_jerk}};
    for (const auto& field : fields) {
        auto accessors = vector_field(field.second);
        config.def_property(field.first, accessors.first, accessors.second);
    }
    config.def("__repr__", [](const ArmConfig& c) { return "ArmConfig(dof=" + std::to_string(c.dof) + ")"; });
}

void bindTables(py::module_& m) {
    py::enum_<kelm::FsmMode>(m, "FsmMode", "The controller's finite-state mode.")
        .value("ERROR", kelm::ERROR)
        .value("IDLE", kelm::IDLE)
        .value("POSITION", kelm::POSITION)
        .value("MIT", kelm::MIT)
        .value("CURRENT", kelm::CURRENT)
        .value("PF", kelm::PF)
        .value("TELEOPERATION", kelm::TELEOPERATION)
        .export_values();
    py::enum_<kelm::KelmState>(m, "KelmState", "The arm's run state (ArmStatus.motion_state).")
        .value("Kelm_Error", kelm::Kelm_Error)
        .value("Kelm_Standby", kelm::Kelm_Standby)
        .value("Kelm_Running", kelm::Kelm_Running)
        .export_values();
    py::enum_<kelm::KelmErrorCode> codes(m, "KelmErrorCode", "The controller's fault numbers; 3001 is a warning.");
    for (const auto& entry : kelm_err_code_map) codes.value(entry.second.c_str(), entry.first);
    codes.export_values();
    py::enum_<kelm::LogColor> colors(m, "LogColor", "Text colours of the log.");
    const std::pair<const char*, kelm::LogColor> color_names[] = {
        {"COLOR_NONE", kelm::COLOR_NONE},
        {"COLOR_BOLD", kelm::COLOR_BOLD},
        {"COLOR_BLACK", kelm::COLOR_BLACK},
        {"COLOR_RED", kelm::COLOR_RED},
        {"COLOR_GREEN", kelm::COLOR_GREEN},
        {"COLOR_YELLOW", kelm::COLOR_YELLOW},
        {"COLOR_BLUE", kelm::COLOR_BLUE},
        {"COLOR_PURPLE", kelm::COLOR_PURPLE},
        {"COLOR_CYAN", kelm::COLOR_CYAN},
        {"COLOR_WHITE", kelm::COLOR_WHITE},
        {"COLOR_BLACK_BACKGROUND", kelm::COLOR_BLACK_BACKGROUND},
        {"COLOR_RED_BACKGROUND", kelm::COLOR_RED_BACKGROUND},
        {"COLOR_GREEN_BACKGROUND", kelm::COLOR_GREEN_BACKGROUND},
        {"COLOR_YELLOW_BACKGROUND", kelm::COLOR_YELLOW_BACKGROUND},
        {"COLOR_BLUE_BACKGROUND", kelm::COLOR_BLUE_BACKGROUND},
        {"COLOR_PURPLE_BACKGROUND", kelm::COLOR_PURPLE_BACKGROUND},
        {"COLOR_CYAN_BACKGROUND", kelm::COLOR_CYAN_BACKGROUND},
        {"COLOR_WHITE_BACKGROUND", kelm::COLOR_WHITE_BACKGROUND},
        {"COLOR_GOLDENROD", kelm::COLOR_GOLDENROD},
    };
    for (const auto& entry : color_names) colors.value(entry.first, entry.second);
    colors.export_values();

    // Copies of the tables as they stand at import.
    std::map<int, std::string> err_names;
    for (const auto& entry : kelm_err_code_map) err_names[entry.first] = entry.second;
    m.attr("CONTROLLER_PORT") = kelm::kControllerPort;
    m.attr("fsm_mode_str_map") = tableToDict(kelm::fsm_mode_str_map);
    m.attr("str_map_fsm_mode") = tableToDict(kelm::str_map_fsm_mode);
    m.attr("kelm_state_str") = tableToDict(kelm::kelm_state_str);
    m.attr("enum_color_map") = tableToDict(kelm::enum_color_map);
    m.attr("color_str_map") = tableToDict(kelm::color_str_map);
    m.attr("kelm_err_code_map") = tableToDict(err_names);
}

void bindLog(py::module_& m) {
    py::enum_<kelm::LogLevel>(m, "LogLevel", "Level of a log line: 0 progress, 1 refused input and failures.")
        .value("LOG_INFO", kelm::LOG_INFO)
        .value("LOG_ERROR", kelm::LOG_ERROR)
        .export_values();
    m.def(
        "set_log_level", [](int level) { kelm::getLogInstance()->setLevel(level); }, py::arg("level"),
        "Writes only log lines of `level` and above to standard error: LOG_INFO (0) everything, LOG_ERROR (1) "
        "failures only, 2 nothing.");
    m.def(
        "log", [](int level, const std::string& text) { KELM_LOG(level, "%s", text.c_str()); }, py::arg("level"),
        py::arg("text"), "Writes one line through the library's logger.");
}

}  // namespace

}  // namespace kelm_py

PYBIND11_MODULE(_kelm, m) {
    namespace py = pybind11;
    using namespace kelm_py;
    m.doc() = "Bindings of the Kelm arm client library (see the package kelm).";
    // numpy's C API is set up here, on the importing thread: set up lazily by
    // the first callback, two receive threads could wait for each other (one
    // in the one-time set-up, which lets the GIL go while numpy imports, the
    // other holding the GIL while it waits for that set-up).
    py::module_::import("numpy");
    (void)py::array_t<double>(0);
    (void)py::array_t<std::uint64_t>(0);
    bindRecords(m);
    bindTables(m);
    bindLog(m);
    bindLogBridge(m);
    bindKernel(m);
    bindArms(m);

    py::class_<StateLog>(m, "StateLog", R"doc(Every state frame of one kernel, kept in C++ until drained.

StateLog(kernel, name="kelm.StateLog", capacity=10_000_000) registers a joint
callback under `name` that copies each frame's count, controller time stamp,
receive time (Unix s), joints and gripper without taking the GIL. drain()
returns what came since the last drain as numpy arrays: count (uint64),
stamp, received (n), qpos, qvel, effort (n, dof), gripper (n, 3: position,
velocity, torque). Frames beyond `capacity` undrained rows are counted in
overflow and dropped.)doc")
        .def(py::init([](Kernel& kernel, const std::string& name, std::size_t capacity) {
                 return std::make_unique<StateLog>(kernel, name, capacity);
             }),
             py::arg("kernel"), py::arg("name") = "kelm.StateLog", py::arg("capacity") = 10000000,
             py::keep_alive<1, 2>())
        .def("drain", &StateLog::drain)
        .def("stop", &StateLog::stop, "Releases the capture's callback; drain() still returns what is left.")
        .def_property_readonly("frames", &StateLog::frames, "Frames seen so far.")
        .def_property_readonly("overflow", &StateLog::overflow, "Frames dropped for want of room.");

    installExitHook(m);
}
