// Fault runs of the arm kernel's receive path, in-process over loopback:
// malformed frames mixed into a teleoperation stream, and floods of frames
// and of stray replies while requests are being made.
//
// The flood tests run for KELM_FLOOD_SECONDS seconds (2 unless set; the long
// run by hand uses 10) and print the resident memory they saw.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kelm_kernel.h"
#include "sim_model.h"
#include "state_frame_writer.h"
#include "test_peer.h"
#include "websocket_server.h"

namespace {

using namespace std::chrono_literals;
using kelm::KelmKernelImpl;
using kelm::WebSocketServer;

constexpr int kDof = 6;
constexpr double kSequenceStep = 1e-8;  // gripper position of good frame n: n * step
constexpr double kJointGripperDivisor = 0.6;
constexpr double kFloodRate = 20000.0;
constexpr long kMaxRssGrowthKb = 64 * 1024;

// AddressSanitizer and ThreadSanitizer hold freed memory back (ASan's
// quarantine alone takes up to 256 MB), so resident memory grows with any
// allocation there; the flatness check only means something without them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kAllocatorKeepsFreedMemory = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kAllocatorKeepsFreedMemory = true;
#else
constexpr bool kAllocatorKeepsFreedMemory = false;
#endif
#else
constexpr bool kAllocatorKeepsFreedMemory = false;
#endif

// A controller stand-in on a free loopback port: sends what it is told to
// every client, answers requests (messages with a task_key) unless their
// command is "silent", and counts the tracking targets it receives by the
// sequence number carried in their gripper position.
class FaultPeer {
public:
    FaultPeer()
        : server_("127.0.0.1", 0,
                  {nullptr, [this](WebSocketServer::ConnectionId id, const std::string& text) { onText(id, text); },
                   nullptr}) {
        server_.start();
    }
    unsigned short port() const { return server_.port(); }
    bool waitForClient(std::chrono::milliseconds limit) const {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (server_.connectionCount() == 0) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(2ms);
        }
        return true;
    }
    void send(const std::string& text) { server_.broadcastText(text); }

    std::set<long long> trackedSequences() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return tracked_;
    }
    size_t repliesSent() const { return replies_sent_.load(); }

private:
    void onText(WebSocketServer::ConnectionId id, const std::string& text) {
        Json::Value message;
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        if (!reader->parse(text.data(), text.data() + text.size(), &message, nullptr)) return;
        if (message["command"] == "trajectoryTrackingTasks") {
            const double gripper = message["data"]["grp_point"].asDouble();
            std::lock_guard<std::mutex> lock(mutex_);
            tracked_.insert(std::llround(gripper * kJointGripperDivisor / kSequenceStep));
            return;
        }
        if (message["command"] == "silent") return;
        std::this_thread::sleep_for(1ms);  // no reply overtakes its requester's bookkeeping
        Json::Value reply;
        reply["command"] = message["command"];
        reply["task_key"] = message["task_key"];
        reply["recv"] = "Task_Recieve";
        server_.sendText(id, kelm::test::toJsonText(reply));
        ++replies_sent_;
    }

    WebSocketServer server_;
    mutable std::mutex mutex_;
    std::set<long long> tracked_;
    std::atomic<size_t> replies_sent_{0};
};

// Frames of one six-joint arm as the simulator writes them.
class FrameMaker {
public:
    FrameMaker() : model_(1, kDof, kelm::sim::OperatorSettings{}, kelm::sim::WallSettings{}) {
        model_.step(0.002);
        arm_ = model_.telemetry(0);
    }
    // Frame `count`; its gripper position carries `sequence`.
    std::string frame(std::uint64_t count, long long sequence) {
        arm_.gripper_pos = static_cast<double>(sequence) * kSequenceStep;
        kelm::sim::FrameHeader header;
        header.count = count;
        header.unix_time = 1700000000.0;
        return writer_.write(header, {&arm_});
    }

private:
    kelm::sim::SimModel model_;
    kelm::sim::ArmTelemetry arm_;
    kelm::sim::StateFrameWriter writer_;
};

// A kernel connected to `peer`, as after its ready sequence: it has seen a
// frame (dof 6) and knows its joint limits.
std::unique_ptr<KelmKernelImpl> readyKernel(FaultPeer& peer) {
    auto kernel = std::make_unique<KelmKernelImpl>("127.0.0.1", peer.port(), 2.0, 0);
    kernel->onReceive(FrameMaker().frame(1, 0));
    kernel->config.dof = kDof;
    kernel->config.limit_lower.assign(kDof, -6.0);
    kernel->config.limit_upper.assign(kDof, 6.0);
    return kernel;
}

// Bad variants of a good frame: cut short, bytes overwritten, members of the
// wrong JSON type, and texts that are no frame at all.
class MalformedFrames {
public:
    explicit MalformedFrames(const std::string& good) : good_(good), generator_(7) {
        auto replaced = [&](const std::string& from, const std::string& to) {
            std::string text = good;
            const size_t at = text.find(from);
            if (at != std::string::npos) text.replace(at, from.size(), to);
            return text;
        };
        fixed_ = {replaced("\"arm\":[", "\"arm\":7,\"x\":["),
                  replaced("\"reality\":{\"pose\":[", "\"reality\":{\"pose\":\"x\",\"y\":["),
                  replaced("\"gripper\":{", "\"gripper\":[],\"g\":{"),
                  replaced("\"arm_index\":0", "\"arm_index\":\"0\""),
                  replaced("\"arm_dof\":6", "\"arm_dof\":-3"),
                  replaced("\"count\":\"", "\"count\":\"x"),
                  replaced("\"command\":\"webSendRobotState\"", "\"command\":5"),
                  replaced("\"axises\":[", "\"axises\":{},\"a\":["),
                  replaced("\"error\":0", "\"error\":\"boom\""),
                  "[1,2,3]",
                  "null",
                  "",
                  "\x01\x02\xff",
                  "{\"command\":\"webSendRobotState\"}",
                  "{\"command\":\"x\",\"task_key\":5}",
                  "{\"arm\":[{\"task\":{\"last_task_key\":[]}}]}"};
    }

    std::string next() {
        switch (std::uniform_int_distribution<int>(0, 2)(generator_)) {
            case 0: return good_.substr(0, std::uniform_int_distribution<size_t>(0, good_.size() - 1)(generator_));
            case 1: {
                static const std::string bytes = "{}[]\":,-.0123456789e \\";
                std::string text = good_;
                std::uniform_int_distribution<size_t> position(0, text.size() - 1);
                std::uniform_int_distribution<size_t> byte(0, bytes.size() - 1);
                for (int n = 0; n < 3; ++n) text[position(generator_)] = bytes[byte(generator_)];
                return text;
            }
            default: return fixed_[std::uniform_int_distribution<size_t>(0, fixed_.size() - 1)(generator_)];
        }
    }

private:
    std::string good_;
    std::mt19937 generator_;
    std::vector<std::string> fixed_;
};

TEST(FaultStream, MalformedFramesAmongGoodOnesNeitherCrashNorStopTheRelay) {
    constexpr int kMalformed = 100000;
    constexpr int kMalformedPerGood = 10;
    FaultPeer master_controller;
    FaultPeer slave_controller;
    auto master = readyKernel(master_controller);
    auto slave = readyKernel(slave_controller);
    master->register_get_tele_master_data_callback("relay",
                                                   [&slave](double, std::vector<double> joints, double gripper) {
                                                       slave->tracking(joints, true, gripper / kJointGripperDivisor);
                                                   });
    ASSERT_TRUE(master_controller.waitForClient(5s));

    FrameMaker frames;
    // Bad frames carry sequence 0, which no good frame has.
    MalformedFrames malformed(frames.frame(1, 0));
    std::uint64_t count = 1;
    long long good_sent = 0;
    for (int i = 0; i < kMalformed; ++i) {
        master_controller.send(malformed.next());
        if (i % kMalformedPerGood == 0) master_controller.send(frames.frame(++count, ++good_sent));
    }

    const auto deadline = std::chrono::steady_clock::now() + 60s;
    std::set<long long> tracked;
    while (std::chrono::steady_clock::now() < deadline) {
        tracked = slave_controller.trackedSequences();
        if (tracked.count(good_sent) > 0) break;
        std::this_thread::sleep_for(20ms);
    }
    long long good_relayed = 0;
    for (long long sequence = 1; sequence <= good_sent; ++sequence) good_relayed += tracked.count(sequence);
    EXPECT_EQ(good_relayed, good_sent);
    EXPECT_TRUE(master->is_connected());
    EXPECT_TRUE(slave->is_connected());
}

// ---- floods ----

double floodSeconds() {
    const char* text = std::getenv("KELM_FLOOD_SECONDS");
    const double seconds = text ? std::atof(text) : 2.0;
    return seconds > 0.0 ? seconds : 2.0;
}

long statusKb(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string name;
    while (status >> name) {
        if (name == field) {
            long kb = 0;
            status >> kb;
            return kb;
        }
        status.ignore(1 << 12, '\n');
    }
    return 0;
}

struct MemoryReport {
    long rss_after_warm_up_kb = 0;
    long rss_max_kb = 0;
    long rss_end_kb = 0;
};

// Sends `make(n)` at 20 kHz for the flood time while the main thread keeps
// one request after the other in flight (every other one never answered, so
// it times out), sampling the resident memory all along.
template <typename MakeMessage>
MemoryReport flood(FaultPeer& peer, KelmKernelImpl& kernel, MakeMessage make) {
    const double seconds = floodSeconds();
    const auto total = static_cast<long long>(kFloodRate * seconds);
    std::atomic<bool> sending{true};
    std::thread sender([&] {
        const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(1.0 / kFloodRate));
        auto deadline = std::chrono::steady_clock::now();
        for (long long n = 1; n <= total; ++n) {
            peer.send(make(n));
            deadline += period;
            std::this_thread::sleep_until(deadline);
        }
        sending = false;
    });

    MemoryReport report;
    const auto start = std::chrono::steady_clock::now();
    const auto end_limit = start + std::chrono::duration<double>(seconds + 30.0);
    int request = 0;
    while (sending && std::chrono::steady_clock::now() < end_limit) {
        Json::Value body;
        body["command"] = (request++ % 2 == 0) ? "getVersion" : "silent";
        std::string task_key;
        kernel.cmd_server(body, task_key, 20);
        const long rss = statusKb("VmRSS:");
        if (report.rss_after_warm_up_kb == 0 && std::chrono::steady_clock::now() - start > 500ms) {
            report.rss_after_warm_up_kb = rss;
        }
        report.rss_max_kb = std::max(report.rss_max_kb, rss);
    }
    sender.join();
    report.rss_end_kb = statusKb("VmRSS:");
    std::printf("flood %.0f s at %.0f Hz: RSS after warm-up %ld kB, max %ld kB, end %ld kB, peak (VmHWM) %ld kB\n",
                seconds, kFloodRate, report.rss_after_warm_up_kb, report.rss_max_kb, report.rss_end_kb,
                statusKb("VmHWM:"));
    return report;
}

void expectFlat(const MemoryReport& report) {
    EXPECT_GT(report.rss_after_warm_up_kb, 0);
    if (kAllocatorKeepsFreedMemory) return;
    EXPECT_LT(report.rss_max_kb - report.rss_after_warm_up_kb, kMaxRssGrowthKb);
}

bool pendingEmpty(KelmKernelImpl& kernel) {
    std::lock_guard<std::mutex> lock(kernel.pending_mutex);
    return kernel.pending_msgs.empty();
}

TEST(FaultStream, FrameFloodKeepsMemoryFlatAndRequestsMatched) {
    FaultPeer peer;
    auto kernel = readyKernel(peer);
    ASSERT_TRUE(peer.waitForClient(5s));
    FrameMaker frames;
    const MemoryReport report =
        flood(peer, *kernel, [&](long long n) { return frames.frame(static_cast<std::uint64_t>(n), n); });
    expectFlat(report);
    EXPECT_TRUE(pendingEmpty(*kernel));
    EXPECT_GT(peer.repliesSent(), 0u);
    EXPECT_TRUE(kernel->is_connected());
}

TEST(FaultStream, StrayReplyFloodKeepsMemoryFlatAndLeavesNoPendingEntry) {
    FaultPeer peer;
    auto kernel = readyKernel(peer);
    ASSERT_TRUE(peer.waitForClient(5s));
    const MemoryReport report = flood(peer, *kernel, [](long long n) {
        return "{\"command\":\"getVersion\",\"task_key\":\"stray-" + std::to_string(n) +
               "\",\"recv\":\"Task_Recieve\"}";
    });
    expectFlat(report);
    EXPECT_TRUE(pendingEmpty(*kernel));
    EXPECT_TRUE(kernel->is_connected());
}

TEST(FaultStream, PendingRepliesAreEmptyAfterAnsweredTimedOutAndUnsentRequests) {
    FaultPeer peer;
    auto kernel = readyKernel(peer);
    ASSERT_TRUE(peer.waitForClient(5s));
    std::vector<std::thread> callers;
    std::atomic<int> answered{0};
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) {
                Json::Value body;
                body["command"] = (i + t) % 3 == 0 ? "silent" : "getVersion";
                std::string task_key;
                if (!kernel->cmd_server(body, task_key, 200).isNull()) ++answered;
            }
        });
    }
    for (auto& caller : callers) caller.join();
    EXPECT_GT(answered.load(), 0);
    EXPECT_TRUE(pendingEmpty(*kernel));

    kernel->disconnect_kelm();
    Json::Value body;
    body["command"] = "getVersion";
    std::string task_key;
    EXPECT_TRUE(kernel->cmd_server(body, task_key, 200).isNull());
    EXPECT_TRUE(pendingEmpty(*kernel));
}

}  // namespace
