// BenchController: an arm controller for the teleoperation latency bench, on
// a WebSocket port of a loopback address.
//
// Requests are answered by the controller simulator's model, so a real
// teleoperation tool can bring the arm up and home it. The state stream has
// two forms: the model's own frames at 500 Hz while the tool starts
// (startModelStream), and measured streams (streamFrames) in which the frame
// of sequence number n carries n in its gripper position, so that each
// tracking message the peer controller receives can be traced back to the
// frame it came from. A measured frame is the model's frame with every key
// the simulator sends.
//
// On the receiving side it records, while recording is on, the arrival time
// of every tracking message and, for relays that send no content, of every
// other message that is no request.
//
// Threads: the server runs one thread per connection (requests, recording);
// startModelStream adds one frame thread; streamFrames runs on its caller.
// Every public member is safe from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim_model.h"
#include "state_frame_writer.h"
#include "websocket_server.h"

namespace kelm {
namespace bench {

using Clock = std::chrono::steady_clock;

// Gripper position of master frame n is n times this step: small enough that
// a million frames stay below the tool's gripper clamp.
constexpr double kSequenceStep = 1e-8;

// One message the controller received while recording.
struct Arrival {
    Clock::time_point at;
    std::int64_t sequence = -1;  // decoded from a tracking message's grp_point, -1 otherwise
};

class BenchController {
public:
    BenchController(const std::string& host, unsigned short port);
    ~BenchController();
    BenchController(const BenchController&) = delete;
    BenchController& operator=(const BenchController&) = delete;

    // The model's frames, at 500 Hz, until stopModelStream().
    void startModelStream();
    void stopModelStream();

    // Sends frames with sequence numbers first, first + 1, ... at `rate` per
    // second for `seconds`, pacing by absolute deadlines (a late frame goes
    // at once). Returns the send time of each, indexed from `first`.
    std::vector<Clock::time_point> streamFrames(std::int64_t first, double rate, double seconds);

    // Recording of received stream messages; `gripper_divisor` undoes the
    // tool's gripper mapping so the frame's sequence number comes back.
    void startRecording(double gripper_divisor);
    std::vector<Arrival> stopRecording();
    std::uint64_t redundancyTauCount() const { return redundancy_tau_count_.load(); }

private:
    void onText(WebSocketServer::ConnectionId connection, const std::string& text);
    void answer(WebSocketServer::ConnectionId connection, const std::string& text);
    void record(const std::string& text, Clock::time_point at);
    void modelLoop();

    sim::SimModel model_;
    WebSocketServer server_;
    std::mutex writer_mutex_;  // one frame writer for both stream forms
    sim::StateFrameWriter writer_;
    std::uint64_t model_count_ = 0;  // under writer_mutex_

    std::atomic<bool> model_streaming_{false};
    std::thread model_thread_;

    std::mutex record_mutex_;
    bool recording_ = false;
    double gripper_divisor_ = 1.0;
    std::vector<Arrival> arrivals_;
    std::atomic<std::uint64_t> redundancy_tau_count_{0};
};

}  // namespace bench
}  // namespace kelm
