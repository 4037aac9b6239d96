#include "teleop_latency_controller.h"

#include <json/json.h>

#include <cmath>
#include <cstdlib>
#include <memory>

namespace kelm {
namespace bench {

namespace {

constexpr double kModelRate = 500.0;
constexpr double kModelStep = 1.0 / kModelRate;
// A reply waits this long, so that it cannot overtake the requester's
// bookkeeping on loopback (as a real controller's would not).
constexpr auto kReplyDelay = std::chrono::microseconds(300);
constexpr char kTrackingCommand[] = "trajectoryTrackingTasks";
constexpr char kRedundancyTauCommand[] = "setRedundancyTau";
constexpr char kGripperKey[] = "\"grp_point\":";

double unixTime() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

bool parseJson(const std::string& text, Json::Value& root) {
    thread_local std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    return reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
}

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace

BenchController::BenchController(const std::string& host, unsigned short port)
    : model_(1, 6, sim::OperatorSettings{}, sim::WallSettings{}),
      server_(
          host, port,
          {nullptr, [this](WebSocketServer::ConnectionId id, const std::string& text) { onText(id, text); }, nullptr}) {
    server_.start();
}

BenchController::~BenchController() {
    stopModelStream();
    server_.stop();
}

void BenchController::startModelStream() {
    if (model_streaming_.exchange(true)) return;
    model_thread_ = std::thread([this] { modelLoop(); });
}

void BenchController::stopModelStream() {
    model_streaming_ = false;
    if (model_thread_.joinable()) model_thread_.join();
}

void BenchController::modelLoop() {
    const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kModelStep));
    auto deadline = Clock::now();
    while (model_streaming_) {
        model_.step(kModelStep);
        {
            std::lock_guard<std::mutex> lock(writer_mutex_);
            server_.broadcastText(model_.writeFrame(writer_, ++model_count_, unixTime()));
        }
        deadline += period;
        std::this_thread::sleep_until(deadline);
    }
}

std::vector<Clock::time_point> BenchController::streamFrames(std::int64_t first, double rate, double seconds) {
    const auto frames = static_cast<std::int64_t>(std::llround(rate * seconds));
    const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / rate));
    sim::ArmTelemetry arm = model_.telemetry(0);
    const std::vector<const sim::ArmTelemetry*> arms{&arm};
    std::vector<Clock::time_point> sent;
    sent.reserve(static_cast<size_t>(frames));

    std::lock_guard<std::mutex> lock(writer_mutex_);
    auto deadline = Clock::now();
    for (std::int64_t n = 0; n < frames; ++n) {
        const std::int64_t sequence = first + n;
        arm.gripper_pos = static_cast<double>(sequence) * kSequenceStep;
        sim::FrameHeader header;
        header.count = static_cast<std::uint64_t>(sequence);
        header.unix_time = unixTime();
        const std::string& text = writer_.write(header, arms);
        std::this_thread::sleep_until(deadline);
        sent.push_back(Clock::now());
        server_.broadcastText(text);
        deadline += period;
    }
    return sent;
}

void BenchController::startRecording(double gripper_divisor) {
    std::lock_guard<std::mutex> lock(record_mutex_);
    arrivals_.clear();
    gripper_divisor_ = gripper_divisor;
    recording_ = true;
}

std::vector<Arrival> BenchController::stopRecording() {
    std::lock_guard<std::mutex> lock(record_mutex_);
    recording_ = false;
    return std::move(arrivals_);
}

void BenchController::onText(WebSocketServer::ConnectionId connection, const std::string& text) {
    const Clock::time_point at = Clock::now();
    if (text.find(kRedundancyTauCommand) != std::string::npos) {
        ++redundancy_tau_count_;
        return;
    }
    if (text.find("task_key") != std::string::npos && text.find(kTrackingCommand) == std::string::npos) {
        answer(connection, text);
        return;
    }
    record(text, at);
}

// Stream messages are recorded, not applied to the model: the arm stands
// still while it is measured, and the receive path stays short.
void BenchController::record(const std::string& text, Clock::time_point at) {
    std::lock_guard<std::mutex> lock(record_mutex_);
    if (!recording_) return;
    Arrival arrival{at, -1};
    const size_t key = text.find(kGripperKey);
    if (key != std::string::npos) {
        const double gripper = std::strtod(text.c_str() + key + sizeof(kGripperKey) - 1, nullptr);
        arrival.sequence = std::llround(gripper * gripper_divisor_ / kSequenceStep);
    }
    arrivals_.push_back(arrival);
}

void BenchController::answer(WebSocketServer::ConnectionId connection, const std::string& text) {
    Json::Value request;
    if (!parseJson(text, request) || !request.isObject()) return;
    const auto reply = model_.handle(request);
    if (!reply) return;
    std::this_thread::sleep_for(kReplyDelay);
    server_.sendText(connection, compact(*reply));
}

}  // namespace bench
}  // namespace kelm
