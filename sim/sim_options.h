// SimOptions: every setting of the controller simulator, and the parser of
// its command line. Plain data; parseSimOptions is not re-entrant (getopt).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelm_comm.h"
#include "sim_environment.h"

namespace kelm {
namespace sim {

// An error or warning that an arm reports from the start.
struct InjectedError {
    int arm = 0;
    int code = 0;
    std::string message;
};

// A scene camera to render and serve: --camera NAME[:WIDTHxHEIGHT][@FPS].
struct CameraRequest {
    std::string name;  // as the scene names it
    int width = 640;   // [px]
    int height = 480;  // [px]
    double fps = 15.0;
};

struct SimOptions {
    std::string ip = "127.0.0.1";
    unsigned short port = kControllerPort;  // 0 picks a free port
    int arms = 1;                           // 1 or 2
    int dof = 6;                            // 1 to 7
    double rate = 500.0;                    // state frames per second
    std::string model;                      // URDF file of the arm; empty: the default model
    std::string scene;                      // MuJoCo scene of the arms' bodies; empty: kinematic arms
    std::string task_scene;                 // where the operator's task lies; empty: `scene`
    std::uint32_t seed = 1;                 // places the task's objects

    // Rendered offscreen and served over HTTP; needs a scene.
    std::vector<CameraRequest> cameras;
    unsigned short camera_port = 8091;  // of the cameras' HTTP server; 0 picks a free port

    // Least time between a request and its reply. A real controller takes
    // milliseconds; a client that files its request only after sending it
    // loses a reply that comes back sooner, which a loaded machine with a
    // preempted client thread makes likely at sub-millisecond latencies.
    int reply_latency_us = 10000;
    OperatorSettings hand;
    WallSettings wall;
    bool quiet = false;  // no status line
    // SCHED_FIFO priority of every thread of the simulator, with its memory
    // locked, as a real controller runs; 0: normal scheduling.
    int rt_priority = 0;

    // Faults from the start.
    std::vector<std::string> drop_replies;  // commands whose replies are dropped; "all" for any
    int reply_delay_ms = 0;                 // added to every reply
    std::vector<std::string> refuse;        // commands always refused; "all" for any
    std::vector<InjectedError> errors;
    int count_gap_every = 0;            // every Nth frame skips a count
    int malformed_every = 0;            // every Nth frame is malformed
    double stop_streaming_after = 0.0;  // [s], 0: never
    double close_after = 0.0;           // [s] until all connections are closed, 0: never
    int net_latency_us = 0;             // added to every frame and reply on the wire
    int net_jitter_us = 0;              // plus or minus, uniformly; order is kept
    double stall_after = 0.0;           // [s] until reading stops, 0: never
    int stall_ms = 1000;                // how long reading stops
    double half_open_after = 0.0;       // [s] until the controller goes silent, 0: never
    double reset_after = 0.0;           // [s] until every connection is reset, 0: never
};

enum class ParseResult { Run, Help, Error };

// Reads argv into `options`; on Error, `error` says what was wrong.
ParseResult parseSimOptions(int argc, char** argv, SimOptions& options, std::string& error);
// The --help text.
std::string simUsage(const char* program);

}  // namespace sim
}  // namespace kelm
