// The controller protocol's words, limits and time-outs that the arm client
// uses in more than one place, each with its one home here.
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

// ---- limits that settings and streamed targets are clamped to ----
using kelm::kGripperMaxPos;              // gripper opening [m]; the lower limit is 0
constexpr double kGripperMaxTau = 20.0;  // gripper torque; the lower limit is 0
constexpr double kSpeedLevelMax = 10.0;  // speed level; the lower limit is 0
constexpr int kResponseLevelMin = 1;
constexpr int kResponseLevelMax = 10000;

}  // namespace protocol
}  // namespace kelm
