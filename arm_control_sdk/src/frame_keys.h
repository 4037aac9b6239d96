// The keys of a state frame ("webSendRobotState") that the receive path
// reads, object by object: their wire text and their slot, the position of
// the key in its object's list. The frame reader names keys by these
// constants; the fast reader's certainty check lists them with the types it
// accepts and files each value it finds under its slot.
#pragma once

#include <cstdint>
#include <string_view>

namespace kelm {
namespace frame_keys {

struct Key {
    std::string_view text;
    std::uint8_t slot;
};

// Top level. `task_key` beside `command` makes a message a reply.
namespace root {
constexpr Key command{"command", 0};
constexpr Key task_key{"task_key", 1};
constexpr Key count{"count", 2};
constexpr Key debug{"debug", 3};
constexpr Key unix_time_stamp{"Unix_time_stamp", 4};
constexpr Key error{"error", 5};
constexpr Key error_arm_index{"error_arm_index", 6};
constexpr Key err_msg{"errMsg", 7};
constexpr Key arm{"arm", 8};
}  // namespace root

// An entry of `arm`.
namespace arm {
constexpr Key arm_index{"arm_index", 0};
constexpr Key arm_name{"arm_name", 1};
constexpr Key arm_dof{"arm_dof", 2};
constexpr Key axises{"axises", 3};
constexpr Key gripper{"gripper", 4};
constexpr Key reality{"reality", 5};
constexpr Key plan{"plan", 6};
constexpr Key cart_external_force{"cart_external_force", 7};
constexpr Key joint_external_tau{"joint_external_tau", 8};
constexpr Key pose{"pose", 9};
constexpr Key pose_tool{"pose_tool", 10};
constexpr Key pose_user{"pose_user", 11};
constexpr Key pose_aut{"pose_aut", 12};
constexpr Key servo{"servo", 13};
constexpr Key motion_state{"motion_state", 14};
constexpr Key fsm_state{"fsm_state", 15};
constexpr Key vel_per{"vel_per", 16};
constexpr Key tool{"tool", 17};
constexpr Key user{"user", 18};
constexpr Key task{"task", 19};
}  // namespace arm

// An entry of `axises`.
namespace axis {
constexpr Key index{"index", 0};
constexpr Key mode{"mode", 1};
constexpr Key servo{"servo", 2};
constexpr Key code{"code", 3};
constexpr Key msg{"msg", 4};
constexpr Key run_state{"run_state", 5};
}  // namespace axis

namespace gripper {
constexpr Key pos{"gripper_pos", 0};
constexpr Key vel{"gripper_vel", 1};
constexpr Key tau{"gripper_tau", 2};
constexpr Key state{"gripper_state", 3};
constexpr Key is_connect{"is_connect", 4};
}  // namespace gripper

// `reality` and `plan`.
namespace joint_block {
constexpr Key pose{"pose", 0};
constexpr Key vel{"vel", 1};
constexpr Key torque{"torque", 2};
}  // namespace joint_block

namespace task {
constexpr Key exe_flag{"exe_flag", 0};
constexpr Key last_task_key{"last_task_key", 1};
constexpr Key exe_task_key{"exe_task_key", 2};
}  // namespace task

}  // namespace frame_keys
}  // namespace kelm
