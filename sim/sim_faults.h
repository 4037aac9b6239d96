// FaultInjector: the faults a test or the command line asks the simulator
// to commit on the wire: replies dropped, delayed or refused by command,
// counts that jump, frames cut short, a state stream that stops, and a
// network that adds latency and jitter to everything the controller sends.
//
// A command rule keyed "all" applies to every command; an exact command's
// rule wins over it. A count of -1 keeps a rule until it is cleared.
//
// Threads: every member is safe from any thread. The frame loop's queries
// are lock-free; the reply rules take a short lock per request.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>

namespace kelm {
namespace sim {

class FaultInjector {
public:
    static constexpr const char* kAnyCommand = "all";

    // ---- set by tests and options ----
    void dropReplies(const std::string& command, int count = -1);
    void delayReplies(const std::string& command, std::chrono::milliseconds delay);
    void refuse(const std::string& command, int count = -1, const std::string& reason = "refused by fault injection");
    void clearReplyFaults();
    // The next frame's count jumps ahead by `counts` more than one.
    void skipCounts(std::uint64_t counts);
    // The next `frames` frames are cut short, so they are no valid JSON.
    void malformFrames(int frames);
    void setStreaming(bool on);
    // Every frame and reply reaches the wire `latency` plus or minus up to
    // `jitter` (uniformly) after it was sent, in the order it was sent.
    // Zero latency and jitter turn it off.
    void setNetworkDelay(std::chrono::microseconds latency, std::chrono::microseconds jitter);

    // ---- asked by the controller ----
    bool streaming() const { return streaming_.load(std::memory_order_relaxed); }
    // True (and one drop used up) when this reply is to be lost.
    bool takeDrop(const std::string& command);
    std::chrono::milliseconds delayFor(const std::string& command) const;
    // The reason, when this request is to be refused.
    std::optional<std::string> takeRefusal(const std::string& command);
    std::uint64_t takeCountSkip() { return count_skip_.exchange(0, std::memory_order_relaxed); }
    bool takeMalformedFrame();
    bool networkDelayed() const { return network_delayed_.load(std::memory_order_relaxed); }
    // One draw of the network's delay; zero when it is off.
    std::chrono::microseconds sampleNetworkDelay();

private:
    struct Refusal {
        int remaining;
        std::string reason;
    };

    mutable std::mutex mutex_;
    std::map<std::string, int> drops_;
    std::map<std::string, std::chrono::milliseconds> delays_;
    std::map<std::string, Refusal> refusals_;
    std::atomic<std::uint64_t> count_skip_{0};
    std::atomic<int> malformed_frames_{0};
    std::atomic<bool> streaming_{true};
    std::atomic<bool> network_delayed_{false};
    std::chrono::microseconds latency_{0}, jitter_{0};  // guarded by mutex_
    std::minstd_rand random_{20261122};                 // guarded by mutex_
};

}  // namespace sim
}  // namespace kelm
