#include "state_frame_writer.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace kelm {
namespace sim {

const std::string& StateFrameWriter::write(const FrameHeader& header, const std::vector<const ArmTelemetry*>& arms) {
    out_.clear();
    out_ += '{';
    key("command");
    text("webSendRobotState");
    key("count");
    out_ += '"';
    integer(static_cast<long long>(header.count));
    out_ += '"';
    key("Unix_time_stamp");
    char stamp[32];
    const int length = std::snprintf(stamp, sizeof stamp, "%.6f", header.unix_time);
    out_ += '"';
    out_.append(stamp, length > 0 ? static_cast<size_t>(length) : 0);
    out_ += '"';
    key("debug");
    boolean(header.debug);
    key("error");
    integer(header.error);
    key("error_arm_index");
    integer(header.error_arm_index);
    key("errMsg");
    text(header.error_msg ? *header.error_msg : std::string());
    key("arm");
    out_ += '[';
    for (size_t i = 0; i < arms.size(); ++i) {
        if (i > 0) out_ += ',';
        writeArm(*arms[i]);
    }
    out_ += "]}";
    return out_;
}

void StateFrameWriter::writeArm(const ArmTelemetry& arm) {
    const int mode_number = static_cast<int>(arm.mode);
    out_ += '{';
    key("arm_index");
    integer(arm.index);
    key("arm_name");
    text(arm.name);
    key("arm_dof");
    integer(arm.dof);
    key("axises");
    out_ += '[';
    for (int i = 0; i < arm.dof; ++i) {
        if (i > 0) out_ += ',';
        out_ += '{';
        key("index");
        integer(i);
        key("mode");
        integer(mode_number);
        key("servo");
        integer(arm.servo ? 1 : 0);
        key("code");
        integer(arm.motion_state == -1 ? arm.error_code : 0);
        key("msg");
        text(arm.motion_state == -1 ? arm.error_msg : std::string());
        key("run_state");
        integer(arm.motion_state);
        out_ += '}';
    }
    out_ += ']';
    key("gripper");
    out_ += '{';
    key("gripper_pos");
    number(arm.gripper_pos);
    key("gripper_vel");
    number(arm.gripper_vel);
    key("gripper_tau");
    number(arm.gripper_tau);
    key("gripper_state");
    integer(arm.gripper_state);
    key("is_connect");
    boolean(arm.gripper_connected);
    out_ += '}';
    key("reality");
    out_ += '{';
    key("pose");
    numbers(arm.joints);
    key("vel");
    numbers(arm.joint_vel);
    key("torque");
    numbers(arm.joint_tau);
    out_ += '}';
    key("plan");
    out_ += '{';
    key("pose");
    numbers(arm.plan_joints);
    key("vel");
    numbers(arm.plan_vel);
    key("torque");
    numbers(arm.plan_tau);
    out_ += '}';
    key("cart_external_force");
    numbers(arm.cart_force);
    key("joint_external_tau");
    numbers(arm.external_tau);
    key("pose");
    numbers(arm.pose.data(), arm.pose.size());
    key("pose_tool");
    numbers(arm.pose_tool.data(), arm.pose_tool.size());
    key("pose_user");
    numbers(arm.pose_user.data(), arm.pose_user.size());
    key("pose_aut");
    numbers(arm.pose_tool.data(), arm.pose_tool.size());
    key("servo");
    boolean(arm.servo);
    key("motion_state");
    integer(arm.motion_state);
    key("fsm_state");
    text(armModeName(arm.mode));
    key("vel_per");
    number(arm.vel_per);
    key("tool");
    integer(arm.tool);
    key("user");
    integer(arm.user);
    key("task");
    out_ += '{';
    key("exe_flag");
    boolean(arm.exe_flag);
    key("last_task_key");
    text(arm.last_task_key);
    key("exe_task_key");
    text(arm.exe_task_key);
    out_ += "}}";
}

void StateFrameWriter::key(const char* name) {
    const char last = out_.back();
    if (last != '{' && last != '[') out_ += ',';
    out_ += '"';
    out_ += name;
    out_ += "\":";
}

void StateFrameWriter::text(const std::string& value) {
    out_ += '"';
    for (const char c : value) {
        switch (c) {
            case '"': out_ += "\\\""; break;
            case '\\': out_ += "\\\\"; break;
            case '\n': out_ += "\\n"; break;
            case '\r': out_ += "\\r"; break;
            case '\t': out_ += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out_ += escaped;
                } else {
                    out_ += c;
                }
        }
    }
    out_ += '"';
}

void StateFrameWriter::number(double value) {
    if (!std::isfinite(value)) value = 0.0;  // JSON has no NaN; the model never makes one
    char digits[32];
    const auto result = std::to_chars(digits, digits + sizeof digits, value);
    out_.append(digits, result.ptr);
}

void StateFrameWriter::integer(long long value) {
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof digits, value);
    out_.append(digits, result.ptr);
}

void StateFrameWriter::boolean(bool value) { out_ += value ? "true" : "false"; }

void StateFrameWriter::numbers(const double* values, size_t count) {
    out_ += '[';
    for (size_t i = 0; i < count; ++i) {
        if (i > 0) out_ += ',';
        number(values[i]);
    }
    out_ += ']';
}

}  // namespace sim
}  // namespace kelm
