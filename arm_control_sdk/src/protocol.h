// Every word of the controller protocol that the arm client sends or reads
// in its requests and replies (command names, task and stop ids, keys and
// fixed values), and its limits and time-outs: a new command is a row here
// and an operation in the kernel source of its family. The words of the
// state frames live with the frame reader (frame_keys.h).
//
// The simulator (sim/) keeps its own copies of the wire words on purpose: it
// is the tests' model of a controller and must check the client, not agree
// with it by construction.
#pragma once

#include "kelm_tables.h"

namespace kelm {
namespace protocol {

// ---- time-outs of the requests that wait for their reply [ms] ----
constexpr int kReplyTimeoutMs = 1000;      // every request but the two below
constexpr int kLongReplyTimeoutMs = 3000;  // kinematics batches, the list of taught trajectories

// ---- commands and answers ----
constexpr char kStateFrameCommand[] = "webSendRobotState";  // the controller's state stream
constexpr char kTaskCommand[] = "webRecieveTasks";          // every motion task
constexpr char kTrackingCommand[] = "trajectoryTrackingTasks";
constexpr char kTrackingTaskId[] = "TASK_TRACKING";
constexpr char kRedundancyTauCommand[] = "setRedundancyTau";
constexpr char kEndEffectorCommand[] = "setEffectorCtr";
constexpr char kTaskReceived[] = "Task_Recieve";  // `recv` of a request the controller took

// ---- command names (the `command` of each request) ----
namespace command {
constexpr char kDynamicsCalibration[] = "dynamicsCalibration";
constexpr char kGetArmIntrinsicProperties[] = "getArmIntrinsicProperties";
constexpr char kGetCoordinate[] = "getCoordinate";
constexpr char kGetJointParams[] = "getJointParams";
constexpr char kGetKinematics[] = "getKinematics";
constexpr char kSetCollisionConfig[] = "setCollisionConfig";
constexpr char kSetControlMode[] = "setControlMode";
constexpr char kSetControllerErrorReset[] = "setControllerErrorReset";
constexpr char kSetDebugMode[] = "setDebugMode";
constexpr char kSetServoEnable[] = "setServoEnable";
constexpr char kSetSpeedLevel[] = "setSpeedLevel";
constexpr char kSetTeleoperationMode[] = "setTeleoperationMode";
constexpr char kSetToolData[] = "setToolData";
constexpr char kSetTrajRecorder[] = "setTrajRecorder";
constexpr char kSetUserData[] = "setUserData";
constexpr char kSetZeroPosition[] = "setZeroPosition";
constexpr char kStopSignals[] = "stopSignals";
constexpr char kTeachRecorder[] = "teachRecorder";
constexpr char kToolCalibrate[] = "toolCalibrate";
constexpr char kUserCalibration[] = "userCalibration";
}  // namespace command

// ---- `task_id` of the motion tasks ----
namespace task_id {
constexpr char kMovc[] = "TASK_MOVC";
constexpr char kMovd[] = "TASK_MOVD";
constexpr char kMovj[] = "TASK_MOVJ";
constexpr char kMovjJog[] = "TASK_MOVJ_JOG";
constexpr char kMovl[] = "TASK_MOVL";
constexpr char kMovlJog[] = "TASK_MOVL_JOG";
constexpr char kMovt[] = "TASK_MOVT";
constexpr char kPvt[] = "TASK_PVT";
constexpr char kTimer[] = "TASK_TIMER";
}  // namespace task_id

// ---- `stop_id` of the stop signals ----
namespace stop_id {
constexpr char kArmDisable[] = "SIG_ARM_DISABLE";
constexpr char kArmPause[] = "SIG_ARM_PAUSE";
constexpr char kArmRecover[] = "SIG_ARM_RECOVER";
constexpr char kArmStop[] = "SIG_ARM_STOP";
constexpr char kEmergencyStop[] = "SIG_EMERGENCY_STOP";
constexpr char kTaskStop[] = "SIG_TASK_STOP";
}  // namespace stop_id

// ---- keys of requests and replies ----
namespace key {
constexpr char kAcc[] = "acc";
constexpr char kArm[] = "arm";
constexpr char kArmIndex[] = "arm_index";
constexpr char kAxisId[] = "axis_id";
constexpr char kCalibrate[] = "calibrate";
constexpr char kCommand[] = "command";
constexpr char kCoord[] = "coord";
constexpr char kCoordinate[] = "coordinate";
constexpr char kCount[] = "count";
constexpr char kData[] = "data";
constexpr char kDir[] = "dir";
constexpr char kDof[] = "dof";
constexpr char kEeffTau[] = "eeff_tau";
constexpr char kEeffePoint[] = "eeffe_point";
constexpr char kEnable[] = "enable";
constexpr char kErrMsg[] = "err_msg";
constexpr char kFlag[] = "flag";
constexpr char kGripper[] = "gripper";
constexpr char kGripperLinkage[] = "gripper_linkage";
constexpr char kGrpPoint[] = "grp_point";
constexpr char kIndex[] = "index";
constexpr char kIsMaster[] = "is_master";
constexpr char kJoint[] = "joint";
constexpr char kJointAcc[] = "joint_acc";
constexpr char kJointDec[] = "joint_dec";
constexpr char kJointJerk[] = "joint_jerk";
constexpr char kJointVel[] = "joint_vel";
constexpr char kLevel[] = "level";
constexpr char kLimitLower[] = "limit_lower";
constexpr char kLimitUpper[] = "limit_upper";
constexpr char kMode[] = "mode";
constexpr char kName[] = "name";
constexpr char kOperation[] = "operation";
constexpr char kParams[] = "params";
constexpr char kPayload[] = "payload";
constexpr char kPoint[] = "point";
constexpr char kPointCnt[] = "point_cnt";
constexpr char kPointNum[] = "point_num";
constexpr char kPointType[] = "point_type";
constexpr char kPoints[] = "points";
constexpr char kPos[] = "pos";
constexpr char kRadian[] = "radian";
constexpr char kRecv[] = "recv";
constexpr char kRedundancyTau[] = "redundancy_tau";
constexpr char kRefer[] = "refer";
constexpr char kResponseLevel[] = "response_level";
constexpr char kResult[] = "result";
constexpr char kRet[] = "ret";
constexpr char kSpace[] = "space";
constexpr char kSpeed[] = "speed";
constexpr char kStepCnt[] = "step_cnt";
constexpr char kStopAtOnce[] = "stop_at_once";
constexpr char kStopId[] = "stop_id";
constexpr char kTargetPoints[] = "target_points";
constexpr char kTargetPos[] = "target_pos";
constexpr char kTaskId[] = "task_id";
constexpr char kTaskKey[] = "task_key";
constexpr char kTaskLevel[] = "task_level";
constexpr char kTau[] = "tau";
constexpr char kTeachList[] = "teach_list";
constexpr char kTime[] = "time";
constexpr char kTool[] = "tool";
constexpr char kToolIndex[] = "tool_index";
constexpr char kToRecord[] = "toRecord";
constexpr char kTrigger[] = "trigger";
constexpr char kType[] = "type";
constexpr char kUser[] = "user";
constexpr char kVersion[] = "version";
constexpr char kWayPoint[] = "way_point";
}  // namespace key

// ---- fixed values of request and reply members ----
namespace value {
constexpr char kTaskGeneral[] = "Task_General";
constexpr char kChange[] = "change";
constexpr char kForward[] = "forward";
constexpr char kInverse[] = "inverse";
constexpr char kOk[] = "ok";
constexpr char kRecord[] = "record";
constexpr char kUpdate[] = "update";
}  // namespace value

// ---- limits that settings and streamed targets are clamped to ----
using kelm::kGripperMaxPos;              // gripper opening [m]; the lower limit is 0
constexpr double kGripperMaxTau = 20.0;  // gripper torque; the lower limit is 0
constexpr double kSpeedLevelMax = 10.0;  // speed level; the lower limit is 0
constexpr int kResponseLevelMin = 1;
constexpr int kResponseLevelMax = 10000;

}  // namespace protocol
}  // namespace kelm
