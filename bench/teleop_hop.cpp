// teleop_hop: how long one teleoperation hop takes through the built tool.
//
// Two simulated controllers run in this process at 500 frames per second, the
// master on 127.0.0.2:8090 with its simulated operator moving the arm, the
// slave on 127.0.0.1:8090; kelm_teleop runs against them as a child process
// in joint mode. The hop is measured on this process's steady clock, from the
// moment the master controller's send of a state frame returned to the moment
// the slave controller received the tracking message made from it. A message
// is traced back to its frame by the joint values it carries (the tool passes
// them on at float precision); messages whose values more than one frame
// carried, while the arm stood still, are left out.
//
// It also reports how closely the slave follows: on each slave frame sent
// while the tool streams, the largest joint difference between the slave and
// the master's latest frame.
//
// Usage: teleop_hop [seconds of streaming, default 10]
// Needs port 8090 on 127.0.0.1 and 127.0.0.2; not to be run beside the
// end-to-end tests.
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim_controller.h"
#include "teleop_process.h"

namespace {

using Clock = std::chrono::steady_clock;
using kelm::sim::SimController;
using kelm::sim::SimOptions;

constexpr double kFrameRate = 500.0;
constexpr auto kBringUpLimit = std::chrono::seconds(60);
constexpr auto kExitLimit = std::chrono::seconds(20);

constexpr auto kStillWindow = std::chrono::seconds(1);

using JointKey = std::vector<float>;

// The send times of the master's frames, by the joint values they carried,
// and the receive times of the slave's tracking messages.
class HopRecorder {
public:
    void frameSent(const std::vector<double>& joints, Clock::time_point at) {
        JointKey key(joints.begin(), joints.end());
        std::lock_guard<std::mutex> lock(mutex_);
        sent_[key].push_back(at);
    }

    // The master's joints in the frame just sent.
    void masterJoints(const std::vector<double>& joints) {
        std::lock_guard<std::mutex> lock(mutex_);
        master_joints_ = joints;
    }

    // Compares the slave's joints with the master's latest, while measuring.
    void slaveJoints(const std::vector<double>& joints) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!measuring_ || joints.size() != master_joints_.size()) return;
        double error = 0.0;
        for (size_t i = 0; i < joints.size(); ++i) error = std::max(error, std::fabs(joints[i] - master_joints_[i]));
        error_sum_ += error;
        error_max_ = std::max(error_max_, error);
        ++error_count_;
    }

    void setMeasuring(bool on) {
        std::lock_guard<std::mutex> lock(mutex_);
        measuring_ = on;
    }

    // Mean and largest tracking error [rad], over `count` slave frames.
    void trackingError(double& mean, double& max, size_t& count) const {
        std::lock_guard<std::mutex> lock(mutex_);
        count = error_count_;
        mean = error_count_ > 0 ? error_sum_ / static_cast<double>(error_count_) : 0.0;
        max = error_max_;
    }

    void messageReceived(const std::string& text, Clock::time_point at) {
        if (text.find("trajectoryTrackingTasks") == std::string::npos) return;
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back({text, at});
    }

    // Hop times in microseconds of the messages traced to their frame;
    // `messages` gets the number of tracking messages seen.
    std::vector<double> hops(size_t& messages) const {
        std::lock_guard<std::mutex> lock(mutex_);
        messages = received_.size();
        std::vector<double> result;
        Json::CharReaderBuilder builder;
        for (const auto& message : received_) {
            Json::Value json;
            std::string errors;
            std::istringstream stream(message.text);
            if (!Json::parseFromStream(builder, stream, &json, &errors)) continue;
            JointKey key;
            for (const auto& value : json["data"]["way_point"]) key.push_back(static_cast<float>(value.asDouble()));
            const auto sent = sent_.find(key);
            if (sent == sent_.end()) continue;
            if (auto at = frameOf(sent->second, message.at)) {
                result.push_back(std::chrono::duration<double, std::micro>(message.at - *at).count());
            }
        }
        return result;
    }

private:
    // The send time of the frame a message received at `received` came from:
    // the last send of its values before that. The hand's motion repeats
    // every few seconds, so older sends of the same values are of no
    // account; two sends close together mean the arm stood still, and such
    // a message cannot be traced.
    static std::optional<Clock::time_point> frameOf(const std::vector<Clock::time_point>& sends,
                                                    Clock::time_point received) {
        auto after = std::upper_bound(sends.begin(), sends.end(), received);
        if (after == sends.begin()) return std::nullopt;
        const Clock::time_point last = *std::prev(after);
        if (std::prev(after) != sends.begin() && last - *std::prev(after, 2) < kStillWindow) return std::nullopt;
        return last;
    }

    struct Received {
        std::string text;
        Clock::time_point at;
    };
    mutable std::mutex mutex_;
    std::map<JointKey, std::vector<Clock::time_point>> sent_;
    std::vector<Received> received_;
    std::vector<double> master_joints_;
    bool measuring_ = false;
    double error_sum_ = 0.0;
    double error_max_ = 0.0;
    size_t error_count_ = 0;
};

SimOptions controllerOptions(const char* host) {
    SimOptions options;
    options.ip = host;
    options.port = 8090;
    options.rate = kFrameRate;
    options.quiet = true;
    return options;
}

double percentile(const std::vector<double>& sorted, double fraction) {
    const size_t index = static_cast<size_t>(fraction * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[index];
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    HopRecorder recorder;
    SimController master(controllerOptions("127.0.0.2"));
    SimController slave(controllerOptions("127.0.0.1"));
    master.sent_frame_observers.set("hop", [&](std::uint64_t, Clock::time_point at) {
        const std::vector<double> joints = master.model().telemetry(0).joints;
        recorder.frameSent(joints, at);
        recorder.masterJoints(joints);
    });
    slave.sent_frame_observers.set(
        "hop", [&](std::uint64_t, Clock::time_point) { recorder.slaveJoints(slave.model().telemetry(0).joints); });
    slave.received_message_observers.set(
        "hop", [&](const std::string& text, Clock::time_point at) { recorder.messageReceived(text, at); });
    try {
        master.start();
        slave.start();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "teleop_hop: %s (is port 8090 in use?)\n", failure.what());
        return 1;
    }

    TeleopProcess tool(KELM_TELEOP_PATH, {"--ip", "127.0.0.2", "--mode", "0"});
    if (!tool.waitForStdout("程序运行中", kBringUpLimit)) {
        std::fprintf(stderr, "teleop_hop: the tool did not come up:\n%s%s", tool.stdoutText().c_str(),
                     tool.stderrText().c_str());
        return 1;
    }
    recorder.setMeasuring(true);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    recorder.setMeasuring(false);
    tool.interrupt();
    const auto exit_code = tool.waitForExit(kExitLimit);
    master.stop();
    slave.stop();

    size_t messages = 0;
    std::vector<double> hops = recorder.hops(messages);
    if (hops.empty()) {
        std::fprintf(stderr, "teleop_hop: no tracking message could be traced to its frame\n");
        return 1;
    }
    std::sort(hops.begin(), hops.end());
    double sum = 0.0;
    for (double hop : hops) sum += hop;
    std::printf("teleop hop, master frame sent -> slave tracking message received, joint mode, %.0f Hz, %d s\n",
                kFrameRate, seconds);
    std::printf("  tracking messages %zu, traced to their frame %zu, tool exit code %d\n", messages, hops.size(),
                exit_code ? *exit_code : -1);
    std::printf("  median %.0f us, p90 %.0f us, p99 %.0f us, max %.0f us, mean %.0f us\n", percentile(hops, 0.5),
                percentile(hops, 0.9), percentile(hops, 0.99), hops.back(), sum / static_cast<double>(hops.size()));
    double error_mean = 0.0, error_max = 0.0;
    size_t error_frames = 0;
    recorder.trackingError(error_mean, error_max, error_frames);
    std::printf(
        "  slave tracking error (largest joint difference to the master's latest frame, %zu slave frames):"
        " mean %.4f rad, max %.4f rad\n",
        error_frames, error_mean, error_max);
    return 0;
}
