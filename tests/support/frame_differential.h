// FrameDifferential: feeds the same messages to two arm kernels through
// onReceive, one with the fast reader where it can and one through the
// jsoncpp path alone (the thread's fast reader is held meanwhile, which sends
// every message the jsoncpp way), and compares all that can be observed: the
// cached state after each message, every callback with its arguments in
// order, and the log lines written.
//
// Used by the differential test and the differential fuzz target, on one
// thread. It installs the logger's line observer and silences the logger's
// output while it lives.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "direct_kernel.h"
#include "fast_frame.h"
#include "log_manager.h"

namespace kelm {
namespace test {

class FrameDifferential {
public:
    FrameDifferential() {
        getLogInstance()->setLevel(LOG_ERROR + 1);
        getLogInstance()->setLineObserver([this](LogLevel level, const std::string& line) {
            if (recording_ != nullptr) recording_->push_back("log " + std::to_string(level) + " " + line);
        });
        watch(fast_, fast_trace_);
        watch(reference_, reference_trace_);
    }
    ~FrameDifferential() {
        getLogInstance()->setLineObserver(nullptr);
        getLogInstance()->setLevel(LOG_INFO);
    }
    FrameDifferential(const FrameDifferential&) = delete;
    FrameDifferential& operator=(const FrameDifferential&) = delete;

    // Runs `message` through both kernels; an empty result when they agree,
    // otherwise what differs.
    std::string feed(const std::string& message) {
        fast_trace_.clear();
        reference_trace_.clear();
        subscribe(fast_, fast_trace_);
        subscribe(reference_, reference_trace_);
        recording_ = &fast_trace_;
        fast_.onReceive(message);
        recording_ = &reference_trace_;
        {
            const fast_frame::Lease fast_reader_held = fast_frame::read("{}");
            if (fast_reader_held.message() == nullptr) return "the fast reader could not be held";
            reference_.onReceive(message);
        }
        recording_ = nullptr;
        fast_trace_.push_back(stateOf(fast_));
        reference_trace_.push_back(stateOf(reference_));
        return difference();
    }

private:
    // Reals as their bit patterns in hex, so that -0.0 and NaNs compare too.
    static std::string text(double value) {
        uint64_t raw = 0;
        std::memcpy(&raw, &value, sizeof raw);
        char hex[17];
        const auto end = std::to_chars(hex, hex + sizeof hex, raw, 16).ptr;
        return std::string(hex, end);
    }
    template <typename Reals>
    static std::string text(const Reals& values) {
        std::string out = "[";
        for (double value : values) out += text(value) + ",";
        return out + "]";
    }
    static std::string text(int value) { return std::to_string(value); }
    static std::string text(bool value) { return value ? "true" : "false"; }
    static std::string text(const std::string& value) { return value; }

    // A callback that adds `what` and its arguments to `t` as one line.
    static auto tracer(std::vector<std::string>& t, const char* what) {
        return [&t, what](const auto&... values) { t.push_back((std::string(what) + ... + (" " + text(values)))); };
    }

    static std::string stateOf(KelmKernelImpl& k) {
        const ArmStatus& s = k.status;
        const KelmKernelImpl::EndEffector& e = k.end_effector;
        std::ostringstream out;
        out << "state count " << k.msg_count << " arms " << k.arm_count << " status " << s.arm_name << "|" << s.dof
            << "|" << s.servo << "|" << s.motion_state << "|" << s.fsm_mode << "|" << text(s.vel_per) << "|" << s.debug
            << " tool " << k.tool_index << " user " << k.user_index << " stamp " << text(k.time_stamp) << " joints "
            << text(k.joint_pos) << text(k.joint_vel) << text(k.joint_tau) << " plan " << text(k.plan_joint_pos)
            << text(k.plan_joint_vel) << text(k.plan_joint_tau) << " external " << text(k.joint_external_tau)
            << text(k.cart_external_force) << " poses " << text(k.cart_pose) << text(k.pose_tool) << text(k.pose_user)
            << text(k.pose_aut) << " gripper " << int(e.state) << "|" << text(e.pos) << "|" << text(e.vel) << "|"
            << text(e.tau) << "|" << e.connected << " task " << k.exe_flag << "|" << k.last_task_key << "|"
            << k.exe_task_key;
        return out.str();
    }

    // One-shot subscriptions under keys that the seed frames report.
    static void subscribe(KelmKernelImpl& k, std::vector<std::string>& t) {
        for (const char* key : {"", "1700000000123456", "last-1"}) {
            k.register_subscription(key, tracer(t, "subscription"));
        }
    }

    // Registers a recorder on every registry; some throw, so that the paths
    // an exception takes are compared too.
    static void watch(KelmKernelImpl& k, std::vector<std::string>& t) {
        k.register_update_robot_state_callback(
            "trace", [&t](std::string message) { t.push_back("state text " + std::to_string(message.size())); });
        k.register_task_completion_callback("trace", tracer(t, "task"));
        k.register_error_catch_callback("trace", [&t](int code, std::string msg) {
            tracer(t, "error")(code, msg);
            if (code % 3 == 0) throw std::runtime_error("error callback threw");
        });
        k.register_get_joint_callback("trace", tracer(t, "joint"));
        k.register_get_pose_callback("trace", tracer(t, "pose"));
        k.register_get_plan_joint_callback("trace", tracer(t, "plan"));
        k.register_get_tele_master_data_callback("trace", [&t](double s, std::vector<double> p, double g) {
            tracer(t, "master")(s, p, g);
            if (g == 0.5) throw std::runtime_error("master callback threw");
        });
        k.register_get_tele_slave_data_callback("trace", tracer(t, "slave"));
        k.register_get_external_force_callback("trace", tracer(t, "force"));
        k.register_fsm_mode_changed_callback("trace", tracer(t, "mode"));
        k.register_servo_status_changed_callback("trace", tracer(t, "servo"));
        k.register_motor_code_changed_callback("trace", tracer(t, "code"));
        k.register_motor_run_state_changed_callback("trace", tracer(t, "run"));
        k.register_state_changed_callback("trace", tracer(t, "changed"));
    }

    std::string difference() const {
        const size_t n = std::max(fast_trace_.size(), reference_trace_.size());
        for (size_t i = 0; i < n; ++i) {
            const std::string fast = i < fast_trace_.size() ? fast_trace_[i] : "(nothing)";
            const std::string reference = i < reference_trace_.size() ? reference_trace_[i] : "(nothing)";
            if (fast != reference)
                return "event " + std::to_string(i) + "\n  onReceive: " + fast + "\n  jsoncpp:   " + reference;
        }
        return std::string();
    }

    DirectKernel fast_;
    DirectKernel reference_;
    std::vector<std::string> fast_trace_;
    std::vector<std::string> reference_trace_;
    std::vector<std::string>* recording_ = nullptr;
};

}  // namespace test
}  // namespace kelm
