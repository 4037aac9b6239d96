// Vocabulary of the controller protocol: its finite-state modes, arm run
// states, fault numbers and the terminal colours of the log, with the lookup
// tables between numbers and names.
//
// The numbers are those of the controller and must not change. The tables are
// built during static initialisation and read without a lock. Looking a key up
// by subscript inserts a row for an unknown key; the kernel does its own
// subscripts through the lookup functions at the end of this file, which
// serialise those insertions between kernels.
#pragma once

#include <map>
#include <mutex>
#include <string>

// The log line of a whole pose comes with the vocabulary, so that every
// program that uses the arm's headers has the definition of
// LogManager::printArray and not only its declaration.
#include "print_array.h"

namespace kelm {

// The widest gripper opening the controller takes [m]; gripper settings and
// streamed gripper targets are clamped to 0 .. this.
constexpr double kGripperMaxPos = 0.08;

// The controller's finite-state mode, as reported in the state frames.
enum FsmMode : int {
    ERROR = -1,
    IDLE = 0,
    POSITION = 1,
    MIT = 2,
    CURRENT = 3,
    PF = 4,
    TELEOPERATION = 5,
};

// The arm's run state (`motion_state` of the state frames).
enum KelmState : int {
    Kelm_Error = -1,
    Kelm_Standby = 0,
    Kelm_Running = 1,
};

// Text colours of the log library; the values index enum_color_map.
enum LogColor : int {
    COLOR_NONE = 0,
    COLOR_BOLD,
    COLOR_BLACK,
    COLOR_RED,
    COLOR_GREEN,
    COLOR_YELLOW,
    COLOR_BLUE,
    COLOR_PURPLE,
    COLOR_CYAN,
    COLOR_WHITE,
    COLOR_BLACK_BACKGROUND,
    COLOR_RED_BACKGROUND,
    COLOR_GREEN_BACKGROUND,
    COLOR_YELLOW_BACKGROUND,
    COLOR_BLUE_BACKGROUND,
    COLOR_PURPLE_BACKGROUND,
    COLOR_CYAN_BACKGROUND,
    COLOR_WHITE_BACKGROUND,
    COLOR_GOLDENROD,  // 256-colour 136; has no plain name in color_str_map
};

// The controller's fault numbers. The gaps and the odd neighbours are the
// controller's: 19 is no code, ERR_TASK_EXECUTION is 13 while ERR_TASK_PLAN and
// ERR_TASK_BROADCAST sit at 3504 and 3506, and WARN_MESSAGE (3001) is the one
// code that reports a warning rather than a fault.
enum KelmErrorCode : int {
    ERR_NONE = 0,
    ERR_ENCRYPTION = 1,
    ERR_PROGRAM_CODE = 2,
    ERR_SYSTEM_CONFIG = 3,
    ERR_SYSTEM_EXECUTION = 4,
    ERR_COMMUNICATION = 5,
    ERR_EMERGENCY_STOP = 6,
    ERR_MODE_REQUEST = 7,
    ERR_MOTION_SPEED_EXCEED = 8,
    ERR_JOINT_LIMIT_EXCEED = 9,
    ERR_CMD_UNMATCH = 10,
    ERR_KELM_REMOTE_REQUEST = 11,
    ERR_KELM_TASK_BROADCAST = 12,
    ERR_TASK_EXECUTION = 13,
    ERR_COMPENSATOR_EXECUTION = 14,
    ERR_INTERPOLATOR_PLAN = 15,
    ERR_INTERPOLATOR_EXECUTION = 16,
    ERR_KINEMATICS_ERROR = 17,
    ERR_DYNAMICS_ERROR = 18,
    ERR_FORCE_SENSOR_OPERATION = 20,
    ERR_FORCE_SENSOR_THRESHOLD_EXCEED = 21,
    ERR_EXTRA_ARM_COMMUNICATION = 200,
    ERR_EXTRA_ARM_OPERATION = 201,
    ERR_EXTRA_ARM_STATE = 202,
    ERR_EXTRA_ARM_COLLISION = 206,
    WARN_MESSAGE = 3001,
    ERR_AUTO_PLAN_FAILED = 3201,
    ERR_COMPUTE_JACOBIAN = 3202,
    ERR_PLAN_SCENCE_ERROR = 3203,
    ERR_CHOMP_ERROR = 3204,
    ERR_OMPL_ERROR = 3205,
    ERR_COLLISION_DETECT = 3206,
    ERR_DISTANCE_FIELD = 3207,
    ERR_ROBOT_MODEL_CONFIG_ERROR = 3208,
    ERR_ROBOT_MODEL = 3209,
    ERR_ROBOT_STATE = 3210,
    ERR_TRANSFORMS = 3211,
    ERR_MOTION_PLANNING_CONTEXT = 3212,
    ERR_KINEMATIC_CONSTRAINTS = 3213,
    ERR_TASK_JSON_FILE = 3501,
    ERR_DATA_JSON_FILE = 3502,
    ERR_DATA_MATCH = 3503,
    ERR_TASK_PLAN = 3504,
    ERR_REMOTE_REQUEST = 3505,
    ERR_TASK_BROADCAST = 3506,
    ERR_MATCH_ONLINE = 3507,
    ERR_CM_UPDATE_ENV = 3508,
};

// Mode to name, for the log.
inline std::map<FsmMode, std::string> fsm_mode_str_map = {
    {ERROR, "ERROR"},     {IDLE, "IDLE"}, {POSITION, "POSITION"},           {MIT, "MIT"},
    {CURRENT, "CURRENT"}, {PF, "PF"},     {TELEOPERATION, "TELEOPERATION"},
};

// Name to mode, for the `fsm_state` text of the state frames.
inline std::map<std::string, FsmMode> str_map_fsm_mode = {
    {"ERROR", ERROR},     {"IDLE", IDLE}, {"POSITION", POSITION},           {"MIT", MIT},
    {"CURRENT", CURRENT}, {"PF", PF},     {"TELEOPERATION", TELEOPERATION},
};

// Run state to name, for the log.
inline std::map<KelmState, std::string> kelm_state_str = {
    {Kelm_Error, "Kelm_Error"},
    {Kelm_Standby, "Kelm_Standby"},
    {Kelm_Running, "Kelm_Running"},
};

// Colour to terminal escape sequence.
inline std::map<LogColor, std::string> enum_color_map = {
    {COLOR_NONE, "\033[0m"},
    {COLOR_BOLD, "\033[1m"},
    {COLOR_BLACK, "\033[30m"},
    {COLOR_RED, "\033[31m"},
    {COLOR_GREEN, "\033[32m"},
    {COLOR_YELLOW, "\033[33m"},
    {COLOR_BLUE, "\033[34m"},
    {COLOR_PURPLE, "\033[35m"},
    {COLOR_CYAN, "\033[36m"},
    {COLOR_WHITE, "\033[37m"},
    {COLOR_BLACK_BACKGROUND, "\033[40m"},
    {COLOR_RED_BACKGROUND, "\033[41m"},
    {COLOR_GREEN_BACKGROUND, "\033[42m"},
    {COLOR_YELLOW_BACKGROUND, "\033[43m"},
    {COLOR_BLUE_BACKGROUND, "\033[44m"},
    {COLOR_PURPLE_BACKGROUND, "\033[45m"},
    {COLOR_CYAN_BACKGROUND, "\033[46m"},
    {COLOR_WHITE_BACKGROUND, "\033[47m"},
    {COLOR_GOLDENROD, "\033[38;5;136m"},
};

// Mixed-direction table of the log library: "none" and "bold" map a name to
// its sequence, every other row maps a sequence to its name. The bold
// sequence is no key, and the 256-colour sequence is not in it at all.
inline std::map<std::string, std::string> color_str_map = {
    {"none", "\033[0m"},
    {"bold", "\033[1m"},
    {"\033[0m", "none"},
    {"\033[30m", "black"},
    {"\033[31m", "red"},
    {"\033[32m", "green"},
    {"\033[33m", "yellow"},
    {"\033[34m", "blue"},
    {"\033[35m", "purple"},
    {"\033[36m", "cyan"},
    {"\033[37m", "white"},
    {"\033[40m", "black_background"},
    {"\033[41m", "red_background"},
    {"\033[42m", "green_background"},
    {"\033[43m", "yellow_background"},
    {"\033[44m", "blue_background"},
    {"\033[45m", "purple_background"},
    {"\033[46m", "cyan_background"},
    {"\033[47m", "white_background"},
};

}  // namespace kelm

// Fault number to name, for users who want a name for a number.
inline std::map<kelm::KelmErrorCode, std::string> kelm_err_code_map = {
    {kelm::ERR_NONE, "ERR_NONE"},
    {kelm::ERR_ENCRYPTION, "ERR_ENCRYPTION"},
    {kelm::ERR_PROGRAM_CODE, "ERR_PROGRAM_CODE"},
    {kelm::ERR_SYSTEM_CONFIG, "ERR_SYSTEM_CONFIG"},
    {kelm::ERR_SYSTEM_EXECUTION, "ERR_SYSTEM_EXECUTION"},
    {kelm::ERR_COMMUNICATION, "ERR_COMMUNICATION"},
    {kelm::ERR_EMERGENCY_STOP, "ERR_EMERGENCY_STOP"},
    {kelm::ERR_MODE_REQUEST, "ERR_MODE_REQUEST"},
    {kelm::ERR_MOTION_SPEED_EXCEED, "ERR_MOTION_SPEED_EXCEED"},
    {kelm::ERR_JOINT_LIMIT_EXCEED, "ERR_JOINT_LIMIT_EXCEED"},
    {kelm::ERR_CMD_UNMATCH, "ERR_CMD_UNMATCH"},
    {kelm::ERR_KELM_REMOTE_REQUEST, "ERR_KELM_REMOTE_REQUEST"},
    {kelm::ERR_KELM_TASK_BROADCAST, "ERR_KELM_TASK_BROADCAST"},
    {kelm::ERR_TASK_EXECUTION, "ERR_TASK_EXECUTION"},
    {kelm::ERR_COMPENSATOR_EXECUTION, "ERR_COMPENSATOR_EXECUTION"},
    {kelm::ERR_INTERPOLATOR_PLAN, "ERR_INTERPOLATOR_PLAN"},
    {kelm::ERR_INTERPOLATOR_EXECUTION, "ERR_INTERPOLATOR_EXECUTION"},
    {kelm::ERR_KINEMATICS_ERROR, "ERR_KINEMATICS_ERROR"},
    {kelm::ERR_DYNAMICS_ERROR, "ERR_DYNAMICS_ERROR"},
    {kelm::ERR_FORCE_SENSOR_OPERATION, "ERR_FORCE_SENSOR_OPERATION"},
    {kelm::ERR_FORCE_SENSOR_THRESHOLD_EXCEED, "ERR_FORCE_SENSOR_THRESHOLD_EXCEED"},
    {kelm::ERR_EXTRA_ARM_COMMUNICATION, "ERR_EXTRA_ARM_COMMUNICATION"},
    {kelm::ERR_EXTRA_ARM_OPERATION, "ERR_EXTRA_ARM_OPERATION"},
    {kelm::ERR_EXTRA_ARM_STATE, "ERR_EXTRA_ARM_STATE"},
    {kelm::ERR_EXTRA_ARM_COLLISION, "ERR_EXTRA_ARM_COLLISION"},
    {kelm::WARN_MESSAGE, "WARN_MESSAGE"},
    {kelm::ERR_AUTO_PLAN_FAILED, "ERR_AUTO_PLAN_FAILED"},
    {kelm::ERR_COMPUTE_JACOBIAN, "ERR_COMPUTE_JACOBIAN"},
    {kelm::ERR_PLAN_SCENCE_ERROR, "ERR_PLAN_SCENCE_ERROR"},
    {kelm::ERR_CHOMP_ERROR, "ERR_CHOMP_ERROR"},
    {kelm::ERR_OMPL_ERROR, "ERR_OMPL_ERROR"},
    {kelm::ERR_COLLISION_DETECT, "ERR_COLLISION_DETECT"},
    {kelm::ERR_DISTANCE_FIELD, "ERR_DISTANCE_FIELD"},
    {kelm::ERR_ROBOT_MODEL_CONFIG_ERROR, "ERR_ROBOT_MODEL_CONFIG_ERROR"},
    {kelm::ERR_ROBOT_MODEL, "ERR_ROBOT_MODEL"},
    {kelm::ERR_ROBOT_STATE, "ERR_ROBOT_STATE"},
    {kelm::ERR_TRANSFORMS, "ERR_TRANSFORMS"},
    {kelm::ERR_MOTION_PLANNING_CONTEXT, "ERR_MOTION_PLANNING_CONTEXT"},
    {kelm::ERR_KINEMATIC_CONSTRAINTS, "ERR_KINEMATIC_CONSTRAINTS"},
    {kelm::ERR_TASK_JSON_FILE, "ERR_TASK_JSON_FILE"},
    {kelm::ERR_DATA_JSON_FILE, "ERR_DATA_JSON_FILE"},
    {kelm::ERR_DATA_MATCH, "ERR_DATA_MATCH"},
    {kelm::ERR_TASK_PLAN, "ERR_TASK_PLAN"},
    {kelm::ERR_REMOTE_REQUEST, "ERR_REMOTE_REQUEST"},
    {kelm::ERR_TASK_BROADCAST, "ERR_TASK_BROADCAST"},
    {kelm::ERR_MATCH_ONLINE, "ERR_MATCH_ONLINE"},
    {kelm::ERR_CM_UPDATE_ENV, "ERR_CM_UPDATE_ENV"},
};

namespace kelm {

// Serialises the kernels' subscript lookups, which may insert rows.
inline std::mutex table_lookup_mutex;

// str_map_fsm_mode[text]: an unknown text is inserted as IDLE and reads IDLE
// from then on.
inline FsmMode lookupFsmMode(const std::string& text) {
    std::lock_guard<std::mutex> lock(table_lookup_mutex);
    return str_map_fsm_mode[text];
}

// fsm_mode_str_map[mode]: an unknown mode is inserted with an empty name.
inline std::string fsmModeName(int mode) {
    std::lock_guard<std::mutex> lock(table_lookup_mutex);
    return fsm_mode_str_map[static_cast<FsmMode>(mode)];
}

// kelm_state_str[state]: an unknown state is inserted with an empty name.
inline std::string kelmStateName(int state) {
    std::lock_guard<std::mutex> lock(table_lookup_mutex);
    return kelm_state_str[static_cast<KelmState>(state)];
}

}  // namespace kelm
