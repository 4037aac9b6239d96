#include "sim_faults.h"

#include <algorithm>

namespace kelm {
namespace sim {
namespace {

// The rule for `command`: its own, or else the one for any command.
template <typename Map>
typename Map::iterator ruleFor(Map& rules, const std::string& command) {
    auto found = rules.find(command);
    return found != rules.end() ? found : rules.find(FaultInjector::kAnyCommand);
}

// Uses one shot of a counted rule; false when none is left.
bool useShot(int& remaining) {
    if (remaining == 0) return false;
    if (remaining > 0) --remaining;
    return true;
}

}  // namespace

void FaultInjector::dropReplies(const std::string& command, int count) {
    std::lock_guard<std::mutex> lock(mutex_);
    drops_[command] = count;
}

void FaultInjector::delayReplies(const std::string& command, std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> lock(mutex_);
    delays_[command] = delay;
}

void FaultInjector::refuse(const std::string& command, int count, const std::string& reason) {
    std::lock_guard<std::mutex> lock(mutex_);
    refusals_[command] = Refusal{count, reason};
}

void FaultInjector::clearReplyFaults() {
    std::lock_guard<std::mutex> lock(mutex_);
    drops_.clear();
    delays_.clear();
    refusals_.clear();
}

void FaultInjector::skipCounts(std::uint64_t counts) { count_skip_.fetch_add(counts, std::memory_order_relaxed); }

void FaultInjector::malformFrames(int frames) { malformed_frames_.fetch_add(frames, std::memory_order_relaxed); }

void FaultInjector::setStreaming(bool on) { streaming_.store(on, std::memory_order_relaxed); }

bool FaultInjector::takeDrop(const std::string& command) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto rule = ruleFor(drops_, command);
    return rule != drops_.end() && useShot(rule->second);
}

std::chrono::milliseconds FaultInjector::delayFor(const std::string& command) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = delays_.find(command);
    if (found == delays_.end()) found = delays_.find(kAnyCommand);
    return found == delays_.end() ? std::chrono::milliseconds(0) : found->second;
}

std::optional<std::string> FaultInjector::takeRefusal(const std::string& command) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto rule = ruleFor(refusals_, command);
    if (rule == refusals_.end() || !useShot(rule->second.remaining)) return std::nullopt;
    return rule->second.reason;
}

void FaultInjector::setNetworkDelay(std::chrono::microseconds latency, std::chrono::microseconds jitter) {
    std::lock_guard<std::mutex> lock(mutex_);
    latency_ = latency;
    jitter_ = jitter;
    network_delayed_ = latency.count() > 0 || jitter.count() > 0;
}

std::chrono::microseconds FaultInjector::sampleNetworkDelay() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (jitter_.count() <= 0) return latency_;
    std::uniform_int_distribution<long long> spread(-jitter_.count(), jitter_.count());
    return std::max(std::chrono::microseconds(0), latency_ + std::chrono::microseconds(spread(random_)));
}

bool FaultInjector::takeMalformedFrame() {
    int left = malformed_frames_.load(std::memory_order_relaxed);
    while (left > 0) {
        if (malformed_frames_.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) return true;
    }
    return false;
}

}  // namespace sim
}  // namespace kelm
