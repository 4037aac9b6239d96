#include "state_frame_builder.h"

#include <string>

namespace kelm {
namespace test {

namespace {

template <typename Values>
Json::Value jsonArray(const Values& values) {
    Json::Value array(Json::arrayValue);
    for (double value : values) array.append(value);
    return array;
}

Json::Value jointBlock(const std::vector<double>& pos, const std::vector<double>& vel, const std::vector<double>& tau) {
    Json::Value block(Json::objectValue);
    block["pose"] = jsonArray(pos);
    block["vel"] = jsonArray(vel);
    block["torque"] = jsonArray(tau);
    return block;
}

// dof values starting at `first`, `step` apart.
std::vector<double> series(int dof, double first, double step) {
    std::vector<double> values;
    for (int i = 0; i < dof; ++i) values.push_back(first + step * i);
    return values;
}

}  // namespace

Json::Value ArmFrame::toJson() const {
    Json::Value arm(Json::objectValue);
    arm["arm_index"] = arm_index;
    arm["arm_name"] = arm_name;
    arm["arm_dof"] = dof;
    Json::Value& axis_list = arm["axises"];
    axis_list = Json::Value(Json::arrayValue);
    for (const AxisFrame& axis : axises) {
        Json::Value entry(Json::objectValue);
        entry["index"] = axis.index;
        entry["mode"] = axis.mode;
        entry["servo"] = axis.servo;
        entry["code"] = axis.code;
        entry["msg"] = axis.msg;
        entry["run_state"] = axis.run_state;
        axis_list.append(entry);
    }
    Json::Value& gripper = arm["gripper"];
    gripper["gripper_pos"] = gripper_pos;
    gripper["gripper_vel"] = gripper_vel;
    gripper["gripper_tau"] = gripper_tau;
    gripper["gripper_state"] = gripper_state;
    gripper["is_connect"] = gripper_connected;
    arm["reality"] = jointBlock(joint_pos, joint_vel, joint_tau);
    arm["plan"] = jointBlock(plan_joint_pos, plan_joint_vel, plan_joint_tau);
    arm["cart_external_force"] = jsonArray(cart_external_force);
    arm["joint_external_tau"] = jsonArray(joint_external_tau);
    arm["pose"] = jsonArray(pose);
    arm["servo"] = servo;
    arm["motion_state"] = motion_state;
    arm["fsm_state"] = fsm_state;
    arm["vel_per"] = vel_per;
    arm["tool"] = tool;
    arm["user"] = user;
    Json::Value& task = arm["task"];
    task["exe_flag"] = exe_flag;
    task["last_task_key"] = last_task_key;
    task["exe_task_key"] = exe_task_key;
    return arm;
}

ArmFrame realisticArm(int arm_index, int dof) {
    ArmFrame arm;
    const double offset = arm_index;
    arm.arm_index = arm_index;
    arm.arm_name = "arm" + std::to_string(arm_index);
    arm.dof = dof;
    arm.joint_pos = series(dof, 0.1 + offset, 0.1);
    arm.joint_vel = series(dof, 0.01 + offset, 0.01);
    arm.joint_tau = series(dof, 1.5 + offset, 0.25);
    arm.plan_joint_pos = series(dof, 0.2 + offset, 0.1);
    arm.plan_joint_vel = series(dof, 0.02 + offset, 0.01);
    arm.plan_joint_tau = series(dof, 2.5 + offset, 0.25);
    arm.joint_external_tau = series(dof, 0.3 + offset, 0.05);
    arm.cart_external_force = series(6, 4.0 + offset, 0.5);
    arm.pose = {0.3 + offset, -0.2, 0.5, 0.0, 0.0, 0.0, 1.0};
    arm.gripper_pos = 0.04 + 0.01 * offset;
    arm.gripper_tau = 1.5 + offset;
    arm.tool = arm_index;
    arm.user = 10 + arm_index;
    arm.last_task_key = "last-" + std::to_string(arm_index);
    arm.exe_task_key = "exe-" + std::to_string(arm_index);
    for (int i = 0; i < dof; ++i) arm.axises.push_back(AxisFrame{i, 1, 1, 0, "", 1});
    return arm;
}

Json::Value stateFrame(uint64_t count, const std::vector<ArmFrame>& arms, double unix_time_stamp) {
    Json::Value frame(Json::objectValue);
    frame["command"] = "webSendRobotState";
    frame["count"] = std::to_string(count);
    frame["Unix_time_stamp"] = unix_time_stamp;
    frame["debug"] = false;
    frame["error"] = 0;
    Json::Value& arm_list = frame["arm"];
    arm_list = Json::Value(Json::arrayValue);
    for (const ArmFrame& arm : arms) arm_list.append(arm.toJson());
    return frame;
}

Json::Value twoArmFrame(uint64_t count) { return stateFrame(count, {realisticArm(0), realisticArm(1)}); }

}  // namespace test
}  // namespace kelm
