#include "sim_controller.h"

#include <algorithm>
#include <stdexcept>

#include "log_manager.h"
#include "sim_json.h"

namespace kelm {
namespace sim {
namespace {

// Far behind its deadlines (the process was stopped, the machine swapped):
// start afresh instead of sending the missed frames in a burst.
constexpr int kResyncPeriods = 50;
// A client whose socket holds more unacknowledged bytes than this reads too
// slowly: it misses frames instead of being sent ever older ones. They pile
// up when the client's program falls behind; this is about 20 two-arm frames
// (20 ms at 1000 Hz), so a client that a busy machine holds up for a few
// milliseconds misses nothing, and a stuck one gets no stale backlog.
constexpr std::size_t kMaxFrameBacklogBytes = 64 * 1024;

std::string compactText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

bool parseObject(const std::string& text, Json::Value& value) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &value, &errors) && value.isObject();
}

std::unique_ptr<PhysicsWorld> loadPhysics(const SimOptions& options) {
    if (options.scene.empty()) return nullptr;
    return std::make_unique<PhysicsWorld>(resolveScenePath(options.scene), armModel().path, options.arms, options.dof,
                                          options.seed);
}

std::unique_ptr<CameraRig> loadCameras(const SimOptions& options, const PhysicsWorld* physics) {
    if (options.cameras.empty()) return nullptr;
    if (!physics) throw std::runtime_error("cameras need a physics scene");
    return std::make_unique<CameraRig>(*physics, options.cameras);
}

double unixNow() {
    const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(since_epoch).count();
}

}  // namespace

SimController::SimController(SimOptions options)
    : options_(std::move(options)),
      physics_(loadPhysics(options_)),
      cameras_(loadCameras(options_, physics_.get())),
      model_(options_.arms, options_.dof, options_.hand, options_.wall),
      server_(options_.ip, options_.port,
              WebSocketServer::Handlers{
                  nullptr, [this](WebSocketServer::ConnectionId id, const std::string& text) { onText(id, text); },
                  nullptr}) {
    for (const auto& command : options_.drop_replies) faults_.dropReplies(command);
    for (const auto& command : options_.refuse) faults_.refuse(command);
    if (options_.reply_delay_ms > 0)
        faults_.delayReplies(FaultInjector::kAnyCommand, std::chrono::milliseconds(options_.reply_delay_ms));
    for (const auto& error : options_.errors) model_.raiseError(error.arm, error.code, error.message);
    faults_.setNetworkDelay(std::chrono::microseconds(options_.net_latency_us),
                            std::chrono::microseconds(options_.net_jitter_us));
    if (physics_) {
        physics_->placeArms(model_.telemetry(0).joints);
        model_.usePhysics(physics_.get());
    }
    if (options_.hand.pick_place && !options_.task_scene.empty() && options_.task_scene != options_.scene) {
        model_.useTaskScene(std::make_unique<PhysicsScene>(resolveScenePath(options_.task_scene), armModel().path,
                                                           options_.arms, options_.dof, options_.seed));
    }
}

SimController::~SimController() { stop(); }

void SimController::start() {
    if (running_) return;
    try {
        server_.start();
    } catch (const std::exception& error) {
        throw std::runtime_error("cannot listen on " + options_.ip + ":" + std::to_string(options_.port) + ": " +
                                 error.what());
    }
    {
        std::lock_guard<std::mutex> lock(reply_mutex_);
        reply_thread_stop_ = false;
    }
    reply_thread_ = std::thread([this] { senderLoop(); });
    if (physics_) physics_->start();
    if (cameras_) {
        cameras_->start();
        camera_server_ = std::make_unique<CameraHttpServer>(options_.ip, options_.camera_port, cameras_->channels());
        camera_server_->start();
    }
    running_ = true;
    frame_thread_ = std::thread([this] { frameLoop(); });
}

void SimController::stop() {
    running_ = false;
    if (frame_thread_.joinable()) frame_thread_.join();
    if (camera_server_) camera_server_->stop();
    if (cameras_) cameras_->stop();
    if (physics_) physics_->stop();
    server_.stop();
    {
        std::lock_guard<std::mutex> lock(reply_mutex_);
        reply_thread_stop_ = true;
        pending_replies_ = {};
        wire_.clear();
    }
    reply_cv_.notify_all();
    if (reply_thread_.joinable()) reply_thread_.join();
}

SimStats SimController::stats() const {
    SimStats stats;
    stats.frames_sent = frames_sent_.load();
    stats.frames_skipped = frames_skipped_.load();
    stats.requests = requests_.load();
    stats.replies_sent = replies_sent_.load();
    stats.replies_dropped = replies_dropped_.load();
    stats.bad_messages = bad_messages_.load();
    stats.refused_streams = model_.refusedStreamMessages();
    stats.late_frames = late_frames_.load();
    stats.connections = server_.connectionCount();
    return stats;
}

void SimController::closeConnections(bool clean) {
    for (const auto id : server_.connectionIds()) {
        if (clean)
            server_.closeConnection(id);
        else
            server_.dropConnection(id);
    }
}

void SimController::stallReading(std::chrono::milliseconds duration) {
    for (const auto id : server_.connectionIds()) server_.stallReading(id, duration);
}

void SimController::goHalfOpen() {
    for (const auto id : server_.connectionIds()) server_.silence(id);
}

void SimController::resetConnections() {
    for (const auto id : server_.connectionIds()) server_.resetMidMessage(id);
}

void SimController::onText(WebSocketServer::ConnectionId connection, const std::string& text) {
    const Clock::time_point received = Clock::now();
    if (!received_message_observers.empty()) received_message_observers.callEach(text, received);
    ++requests_;
    Json::Value request;
    if (!parseObject(text, request)) {
        ++bad_messages_;
        KELM_LOG(LOG_ERROR, "simulator: a message that is no JSON object: %s", text.c_str());
        reply(connection, SimModel::refusal(Json::Value(Json::objectValue), "not a JSON object"), received);
        return;
    }
    const std::string command = readString(request, "command");
    if (!SimModel::isStreaming(command)) {
        if (auto reason = faults_.takeRefusal(command)) {
            reply(connection, SimModel::refusal(request, *reason), received);
            return;
        }
    }
    const std::optional<Json::Value> answer = model_.handle(request);
    if (answer) reply(connection, *answer, received);
}

void SimController::reply(WebSocketServer::ConnectionId connection, const Json::Value& reply,
                          Clock::time_point received) {
    const std::string command = reply["command"].asString();
    if (faults_.takeDrop(command)) {
        ++replies_dropped_;
        return;
    }
    const Clock::time_point due =
        received + std::chrono::microseconds(options_.reply_latency_us) + faults_.delayFor(command);
    std::string text = compactText(reply);
    if (Clock::now() >= due) {
        transmit(connection, text);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(reply_mutex_);
        pending_replies_.push(PendingReply{due, reply_order_++, connection, std::move(text)});
    }
    reply_cv_.notify_all();
}

// Sends now, or hands the text to the slowed network. Connection 0 is a
// frame for everyone; an injected fault frame reaches even a slow client.
// False when a frame was skipped for a client that reads too slowly.
bool SimController::transmit(WebSocketServer::ConnectionId connection, const std::string& text, bool fault_frame) {
    if (faults_.networkDelayed()) {
        putOnWire(connection, text, fault_frame);
        return true;
    }
    return send(connection, text, fault_frame);
}

bool SimController::send(WebSocketServer::ConnectionId connection, const std::string& text, bool fault_frame) {
    if (connection != 0) {
        if (server_.sendText(connection, text)) ++replies_sent_;
        return true;
    }
    if (fault_frame) {
        server_.broadcastText(text);
        return true;
    }
    std::size_t skipped = 0;
    server_.broadcastLatest(text, kMaxFrameBacklogBytes, &skipped);
    frames_skipped_ += skipped;
    return skipped == 0;
}

void SimController::putOnWire(WebSocketServer::ConnectionId connection, std::string text, bool fault_frame) {
    {
        std::lock_guard<std::mutex> lock(reply_mutex_);
        Clock::time_point due = Clock::now() + faults_.sampleNetworkDelay();
        if (!wire_.empty()) due = std::max(due, wire_.back().due);
        wire_.push_back(InFlight{due, connection, std::move(text), fault_frame});
    }
    reply_cv_.notify_all();
}

// Sends delayed replies when they are due, and what is on the slowed
// network when it arrives.
void SimController::senderLoop() {
    std::unique_lock<std::mutex> lock(reply_mutex_);
    while (!reply_thread_stop_) {
        const bool reply_first =
            !pending_replies_.empty() && (wire_.empty() || pending_replies_.top().due <= wire_.front().due);
        if (!reply_first && wire_.empty()) {
            reply_cv_.wait(lock);
            continue;
        }
        const Clock::time_point due = reply_first ? pending_replies_.top().due : wire_.front().due;
        if (Clock::now() < due) {
            reply_cv_.wait_until(lock, due);
            continue;
        }
        if (reply_first) {
            PendingReply next = pending_replies_.top();
            pending_replies_.pop();
            lock.unlock();
            transmit(next.connection, next.text);
        } else {
            InFlight next = std::move(wire_.front());
            wire_.pop_front();
            lock.unlock();
            send(next.connection, next.text, next.fault_frame);
        }
        lock.lock();
    }
}

void SimController::frameLoop() {
    const double period_seconds = 1.0 / options_.rate;
    const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(period_seconds));
    const Clock::time_point started = Clock::now();
    Clock::time_point deadline = started;
    std::uint64_t frame_number = 0;
    while (running_) {
        deadline += period;
        const Clock::time_point now = Clock::now();
        if (now > deadline + period) {
            ++late_frames_;
            if (now > deadline + kResyncPeriods * period) deadline = now;
        }
        std::this_thread::sleep_until(deadline);
        model_.step(period_seconds);
        applyTimedFaults(std::chrono::duration<double>(Clock::now() - started).count());
        if (faults_.streaming()) sendFrame(++frame_number);
    }
}

void SimController::sendFrame(std::uint64_t frame_number) {
    count_ += 1 + faults_.takeCountSkip();
    if (options_.count_gap_every > 0 && frame_number % options_.count_gap_every == 0) ++count_;
    const std::string& text = model_.writeFrame(writer_, count_, unixNow());
    const bool malformed =
        faults_.takeMalformedFrame() || (options_.malformed_every > 0 && frame_number % options_.malformed_every == 0);
    // Taken before the send, so that it precedes anything a client does
    // in answer to the frame, even when this thread is preempted.
    const Clock::time_point sent = Clock::now();
    const bool reached_all = malformed ? transmit(0, text.substr(0, text.size() / 2), true) : transmit(0, text);
    ++frames_sent_;
    if (reached_all && !sent_frame_observers.empty()) sent_frame_observers.callEach(count_, sent);
}

void SimController::applyTimedFaults(double seconds_running) {
    // Each timed fault fires once, at the first cycle at or after its time.
    const auto due = [seconds_running](double at, bool& done) {
        if (at <= 0.0 || seconds_running < at || done) return false;
        done = true;
        return true;
    };
    if (due(options_.stop_streaming_after, timed_silence_done_)) faults_.setStreaming(false);
    if (due(options_.close_after, timed_close_done_)) closeConnections(true);
    if (due(options_.stall_after, timed_stall_done_)) stallReading(std::chrono::milliseconds(options_.stall_ms));
    if (due(options_.half_open_after, timed_half_open_done_)) goHalfOpen();
    if (due(options_.reset_after, timed_reset_done_)) resetConnections();
}

}  // namespace sim
}  // namespace kelm
