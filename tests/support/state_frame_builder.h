// Builders of realistic controller state frames ("webSendRobotState") for
// tests and benchmarks.
//
// ArmFrame holds one arm's part of a frame with plausible values that differ
// from arm to arm and from joint to joint, so that a kernel reading the wrong
// arm or the wrong key is caught. stateFrame() puts the arms together with
// the top-level members. Tests that need an odd frame build the regular one
// and then edit the Json::Value.
#pragma once

#include <json/json.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kelm {
namespace test {

// One entry of `axises`.
struct AxisFrame {
    int index = 0;
    int mode = 1;
    int servo = 1;
    int code = 0;
    std::string msg;
    int run_state = 1;
};

// One entry of `arm`.
struct ArmFrame {
    int arm_index = 0;
    std::string arm_name;
    int dof = 6;
    bool servo = true;
    int motion_state = 0;
    std::string fsm_state = "POSITION";
    double vel_per = 50.0;
    int tool = 0;
    int user = 0;
    std::vector<double> joint_pos;
    std::vector<double> joint_vel;
    std::vector<double> joint_tau;
    std::vector<double> plan_joint_pos;
    std::vector<double> plan_joint_vel;
    std::vector<double> plan_joint_tau;
    std::vector<double> joint_external_tau;
    std::vector<double> cart_external_force;
    std::array<double, 7> pose{};
    double gripper_pos = 0.04;
    double gripper_vel = 0.0;
    double gripper_tau = 1.5;
    int gripper_state = 1;
    bool gripper_connected = true;
    bool exe_flag = false;
    std::string last_task_key;
    std::string exe_task_key;
    std::vector<AxisFrame> axises;

    Json::Value toJson() const;
};

// An arm at rest in POSITION mode with servo on; every value is distinct per
// arm and joint (joint i of arm a sits at 0.1 * (i + 1) + a, and so on).
ArmFrame realisticArm(int arm_index, int dof = 6);

// A whole frame: `command`, `count` (as decimal text), `Unix_time_stamp`,
// `debug` false, `error` 0, and the arms in the given order.
Json::Value stateFrame(uint64_t count, const std::vector<ArmFrame>& arms, double unix_time_stamp = 1700000000.25);

// stateFrame() with realisticArm(0) and realisticArm(1).
Json::Value twoArmFrame(uint64_t count);

}  // namespace test
}  // namespace kelm
