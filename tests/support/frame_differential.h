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
        fast_.register_update_robot_state_callback(
            "trace", [this](std::string text) { fast_trace_.push_back("state text " + std::to_string(text.size())); });
        reference_.register_update_robot_state_callback("trace", [this](std::string text) {
            reference_trace_.push_back("state text " + std::to_string(text.size()));
        });
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
    static std::string bits(double value) {
        uint64_t raw = 0;
        std::memcpy(&raw, &value, sizeof raw);
        char hex[17];
        const auto end = std::to_chars(hex, hex + sizeof hex, raw, 16).ptr;
        return std::string(hex, end);
    }
    template <typename Values>
    static std::string bits(const Values& values) {
        std::string out = "[";
        for (double value : values) out += bits(value) + ",";
        return out + "]";
    }

    static std::string stateOf(KelmKernelImpl& k) {
        const ArmStatus& s = k.status;
        const KelmKernelImpl::EndEffector& e = k.end_effector;
        std::ostringstream out;
        out << "state count " << k.msg_count << " arms " << k.arm_count << " status " << s.arm_name << "|" << s.dof
            << "|" << s.servo << "|" << s.motion_state << "|" << s.fsm_mode << "|" << bits(s.vel_per) << "|" << s.debug
            << " tool " << k.tool_index << " user " << k.user_index << " stamp " << bits(k.time_stamp) << " joints "
            << bits(k.joint_pos) << bits(k.joint_vel) << bits(k.joint_tau) << " plan " << bits(k.plan_joint_pos)
            << bits(k.plan_joint_vel) << bits(k.plan_joint_tau) << " external " << bits(k.joint_external_tau)
            << bits(k.cart_external_force) << " poses " << bits(k.cart_pose) << bits(k.pose_tool) << bits(k.pose_user)
            << bits(k.pose_aut) << " gripper " << int(e.state) << "|" << bits(e.pos) << "|" << bits(e.vel) << "|"
            << bits(e.tau) << "|" << e.connected << " task " << k.exe_flag << "|" << k.last_task_key << "|"
            << k.exe_task_key;
        return out.str();
    }

    // One-shot subscriptions under keys that the seed frames report.
    static void subscribe(KelmKernelImpl& k, std::vector<std::string>& t) {
        for (const char* key : {"", "1700000000123456", "last-1"}) {
            k.register_subscription(key, [&t](std::string fired) { t.push_back("subscription " + fired); });
        }
    }

    // Registers a recorder on every registry; some throw, so that the paths
    // an exception takes are compared too.
    static void watch(KelmKernelImpl& k, std::vector<std::string>& t) {
        using V = std::vector<double>;
        k.register_task_completion_callback("trace", [&t](std::string key) { t.push_back("task " + key); });
        k.register_error_catch_callback("trace", [&t](int code, std::string msg) {
            t.push_back("error " + std::to_string(code) + " " + msg);
            if (code % 3 == 0) throw std::runtime_error("error callback threw");
        });
        k.register_get_joint_callback(
            "trace", [&t](double s, V p, V v, V q) { t.push_back("joint " + bits(s) + bits(p) + bits(v) + bits(q)); });
        k.register_get_pose_callback("trace", [&t](double s, Pose p) { t.push_back("pose " + bits(s) + bits(p)); });
        k.register_get_plan_joint_callback(
            "trace", [&t](double s, V p, V v, V q) { t.push_back("plan " + bits(s) + bits(p) + bits(v) + bits(q)); });
        k.register_get_tele_master_data_callback("trace", [&t](double s, V p, double g) {
            t.push_back("master " + bits(s) + bits(p) + bits(g));
            if (g == 0.5) throw std::runtime_error("master callback threw");
        });
        k.register_get_tele_slave_data_callback(
            "trace", [&t](double s, V p, double g) { t.push_back("slave " + bits(s) + bits(p) + bits(g)); });
        k.register_get_external_force_callback(
            "trace", [&t](double s, V tau, V force) { t.push_back("force " + bits(s) + bits(tau) + bits(force)); });
        k.register_fsm_mode_changed_callback(
            "trace", [&t](int i, int v) { t.push_back("mode " + std::to_string(i) + " " + std::to_string(v)); });
        k.register_servo_status_changed_callback(
            "trace", [&t](int i, bool v) { t.push_back("servo " + std::to_string(i) + " " + std::to_string(v)); });
        k.register_motor_code_changed_callback("trace", [&t](int i, int c, const std::string& m) {
            t.push_back("code " + std::to_string(i) + " " + std::to_string(c) + " " + m);
        });
        k.register_motor_run_state_changed_callback(
            "trace", [&t](int i, int v) { t.push_back("run " + std::to_string(i) + " " + std::to_string(v)); });
        k.register_state_changed_callback("trace", [&t](int v) { t.push_back("changed " + std::to_string(v)); });
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
