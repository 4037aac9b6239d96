// SimController: a simulated arm controller on a WebSocket port.
//
// It serves the controller's side of the wire protocol: it answers each
// request of a client on that client's connection (after the configured
// latency), and broadcasts a state frame to every client at the set rate
// from a frame loop that keeps absolute deadlines on the steady clock. A
// client that reads frames more slowly than they come misses frames (its
// count jumps) rather than receiving ever older ones queued before its
// replies, and never holds up the other clients.
// Faults can be injected through faults() and the members below.
//
// Threads: start() and stop() belong to the owner. The server runs one
// thread per connection (requests), the frame loop one thread, and one
// sender thread sends delayed replies and, while the network is slowed,
// everything that is on the wire. All other members are safe from any
// thread.
//
// Observers, for latency measurement: received_message_observers are called
// on the connection's thread with each received text and its steady-clock
// receive time, before it is handled; sent_frame_observers on the frame
// loop, right after the send, with the count of each frame that reached
// every client (a frame skipped for a slow client is not told) and the time
// the send began. Both cost one look at an empty map when unused.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "camera_http_server.h"
#include "camera_rig.h"
#include "physics_world.h"
#include "sim_faults.h"
#include "sim_model.h"
#include "sim_observers.h"
#include "sim_options.h"
#include "state_frame_writer.h"
#include "websocket_server.h"

namespace kelm {
namespace sim {

// Counters since start(), for the console and tests.
struct SimStats {
    std::uint64_t frames_sent = 0;
    std::uint64_t frames_skipped = 0;  // frames not sent to a client that read too slowly, per client
    std::uint64_t requests = 0;
    std::uint64_t replies_sent = 0;
    std::uint64_t replies_dropped = 0;
    std::uint64_t bad_messages = 0;     // not a JSON object
    std::uint64_t refused_streams = 0;  // streamed targets the arm did not take
    std::uint64_t late_frames = 0;      // cycles that missed their deadline by a whole period
    std::size_t connections = 0;
};

class SimController {
public:
    using Clock = std::chrono::steady_clock;

    explicit SimController(SimOptions options);
    ~SimController();
    SimController(const SimController&) = delete;
    SimController& operator=(const SimController&) = delete;

    // Loads the physics scene if the options name one; throws
    // std::runtime_error naming the file and the problem, or a camera that
    // the scene does not have.
    // Binds, then starts the physics, the cameras and the frame loop. Throws
    // std::runtime_error when an address cannot be bound or the cameras
    // cannot render.
    void start();
    // Stops the frame loop and the server; harmless when stopped.
    void stop();

    unsigned short port() const { return server_.port(); }
    // Of the cameras' HTTP server once started; 0 without cameras.
    unsigned short cameraPort() const { return camera_server_ ? camera_server_->port() : 0; }
    // The cameras' images, or null without cameras.
    const CameraRig* cameras() const { return cameras_.get(); }
    const SimOptions& options() const { return options_; }
    SimModel& model() { return model_; }
    // The physics world, or null for kinematic arms.
    PhysicsWorld* physics() { return physics_.get(); }
    FaultInjector& faults() { return faults_; }
    SimStats stats() const;

    // Closes every client connection: with a close frame when `clean`,
    // otherwise by cutting the TCP connection.
    void closeConnections(bool clean);
    // Network faults on every client connection (see WebSocketServer): no
    // reading for `duration`; half-open silence; a reset in mid-message.
    void stallReading(std::chrono::milliseconds duration);
    void goHalfOpen();
    void resetConnections();

    ObserverMap<void(const std::string&, Clock::time_point)> received_message_observers;
    ObserverMap<void(std::uint64_t, Clock::time_point)> sent_frame_observers;

private:
    struct PendingReply {
        Clock::time_point due;
        std::uint64_t order;
        WebSocketServer::ConnectionId connection;
        std::string text;
        bool operator>(const PendingReply& other) const {
            return due != other.due ? due > other.due : order > other.order;
        }
    };

    void onText(WebSocketServer::ConnectionId connection, const std::string& text);
    void reply(WebSocketServer::ConnectionId connection, const Json::Value& reply, Clock::time_point received);
    void frameLoop();
    void sendFrame(std::uint64_t frame_number);
    void applyTimedFaults(double seconds_running);
    void senderLoop();
    void putOnWire(WebSocketServer::ConnectionId connection, std::string text, bool fault_frame);
    bool transmit(WebSocketServer::ConnectionId connection, const std::string& text, bool fault_frame = false);
    bool send(WebSocketServer::ConnectionId connection, const std::string& text, bool fault_frame);

    SimOptions options_;
    std::unique_ptr<PhysicsWorld> physics_;
    std::unique_ptr<CameraRig> cameras_;
    std::unique_ptr<CameraHttpServer> camera_server_;
    SimModel model_;
    FaultInjector faults_;
    WebSocketServer server_;

    std::atomic<bool> running_{false};
    std::thread frame_thread_;
    StateFrameWriter writer_;            // frame loop only
    std::uint64_t count_ = 0;            // frame loop only
    bool timed_close_done_ = false;      // frame loop only
    bool timed_silence_done_ = false;    // frame loop only
    bool timed_stall_done_ = false;      // frame loop only
    bool timed_half_open_done_ = false;  // frame loop only
    bool timed_reset_done_ = false;      // frame loop only

    std::mutex reply_mutex_;
    std::condition_variable reply_cv_;
    std::priority_queue<PendingReply, std::vector<PendingReply>, std::greater<PendingReply>> pending_replies_;
    std::uint64_t reply_order_ = 0;
    // On the slowed network: what is in flight, oldest first, with the time
    // it arrives (never before its predecessor). Connection 0 is everyone.
    struct InFlight {
        Clock::time_point due;
        WebSocketServer::ConnectionId connection;
        std::string text;
        bool fault_frame;
    };
    std::deque<InFlight> wire_;
    bool reply_thread_stop_ = false;
    std::thread reply_thread_;

    std::atomic<std::uint64_t> frames_sent_{0}, frames_skipped_{0}, requests_{0}, replies_sent_{0}, replies_dropped_{0};
    std::atomic<std::uint64_t> bad_messages_{0}, late_frames_{0};
};

}  // namespace sim
}  // namespace kelm
