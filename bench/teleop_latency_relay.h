// The two baseline relays of the teleoperation latency bench, run as a child
// process of the bench (teleop_latency --relay raw|parse) in place of the
// tool, over the same WebSocket client as the tool.
//
// Each connects to the master controller (127.0.0.2:8090) and the slave
// controller (127.0.0.1:8090) and relays on the master connection's receive
// thread:
// - raw: for each master message, one fixed small text to the slave; no JSON.
// - parse: parses each master frame once with jsoncpp, reads the joints and
//   the gripper, and sends one tracking message built from them.
// Messages from the slave are read and dropped on a second thread. Prints
// "relay ready" once both connections stand and runs until SIGINT.
#pragma once

#include <string>

namespace kelm {
namespace bench {

constexpr const char* kMasterHost = "127.0.0.2";
constexpr const char* kSlaveHost = "127.0.0.1";
constexpr unsigned short kControllerPort = 8090;

// The tool's joint-mode gripper divisor; the parse-once relay maps alike.
constexpr double kJointGripperDivisor = 0.6;

// Returns the process's exit code.
int runRelay(const std::string& kind);

}  // namespace bench
}  // namespace kelm
