// Costs of the connection layer: publishing a streaming request, classifying
// a received state frame, and the round trip of a request and its reply
// against the test peer on loopback.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <vector>

#include "kelm_comm.h"
#include "state_frame_builder.h"
#include "test_peer.h"
#include "websocket_server.h"

namespace kelm {
namespace {

// A request the size of one streamed joint target of a seven-joint arm.
Json::Value trackingRequest() {
    Json::Value request;
    request["command"] = "trajectoryTrackingTasks";
    request["task_id"] = "TASK_TRACKING";
    request["arm_index"] = 0;
    for (int i = 0; i < 7; ++i) request["joint_pos"].append(0.123456789 * (i + 1));
    for (int i = 0; i < 7; ++i) request["pose"].append(0.987654321 * (i + 1));
    request["gripper_pos"] = 0.04;
    return request;
}

// Percentiles of per-iteration latencies, in microseconds, as counters.
void reportLatencies(benchmark::State& state, std::vector<double>& samples_us) {
    if (samples_us.empty()) return;
    std::sort(samples_us.begin(), samples_us.end());
    const auto at = [&](double fraction) {
        return samples_us[std::min(samples_us.size() - 1, static_cast<std::size_t>(fraction * samples_us.size()))];
    };
    state.counters["p50_us"] = at(0.50);
    state.counters["p99_us"] = at(0.99);
    state.counters["max_us"] = samples_us.back();
}

void BM_CmdPublishTracking(benchmark::State& state) {
    std::atomic<std::size_t> received{0};
    WebSocketServer sink("127.0.0.1", 0,
                         {nullptr, [&](WebSocketServer::ConnectionId, const std::string&) { ++received; }, nullptr});
    sink.start();
    KelmCommManager manager;
    if (manager.connect_kelm("127.0.0.1", sink.port(), 1.0) != 1) {
        state.SkipWithError("no connection to the sink");
        return;
    }
    const Json::Value request = trackingRequest();
    std::string key;
    for (auto _ : state) {
        if (!manager.cmd_publish(request, key)) state.SkipWithError("publish failed");
    }
    state.counters["bytes"] = static_cast<double>(Json::writeString(Json::StreamWriterBuilder(), request).size());
    manager.disconnect_kelm();
}
BENCHMARK(BM_CmdPublishTracking)->UseRealTime();

void BM_CmdRecvStateFrame(benchmark::State& state) {
    KelmCommManager manager;
    manager.register_task_completion_callback("noop", [](std::string) {});
    const std::string frame = test::toJsonText(test::stateFrame(1, {test::realisticArm(0, 7)}));
    for (auto _ : state) benchmark::DoNotOptimize(manager.cmd_recv(frame));
    state.counters["frame_bytes"] = static_cast<double>(frame.size());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
}
BENCHMARK(BM_CmdRecvStateFrame);

void BM_CmdServerRoundTrip(benchmark::State& state) {
    test::TestPeer peer;
    peer.setMinimumReplyDelay(std::chrono::milliseconds(0));
    peer.replyTo("setSpeedLevel", test::TestPeer::recv("Task_Recieve"));
    KelmCommManager manager;
    if (manager.connect_kelm(peer.host(), peer.port(), 1.0) != 1) {
        state.SkipWithError("no connection to the peer");
        return;
    }
    Json::Value request;
    request["command"] = "setSpeedLevel";
    request["speed_level"] = 5.0;
    std::vector<double> samples_us;
    std::size_t lost = 0;
    std::string key;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const Json::Value reply = manager.cmd_server(request, key, 1000);
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(elapsed.count());
        // A reply that overtakes the waiter's entry is lost by design and
        // costs the whole time-out; it is counted, not timed.
        if (reply.isNull()) {
            ++lost;
        } else {
            samples_us.push_back(elapsed.count() * 1e6);
        }
        if (state.iterations() % 1000 == 0) peer.clearReceived();
    }
    reportLatencies(state, samples_us);
    state.counters["lost_replies"] = static_cast<double>(lost);
    manager.disconnect_kelm();
}
BENCHMARK(BM_CmdServerRoundTrip)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(20000);

}  // namespace
}  // namespace kelm

BENCHMARK_MAIN();
