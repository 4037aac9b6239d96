// Costs of the teleoperation hot path in the arm kernel: taking over one
// realistic six-joint state frame, publishing one tracking target, and the
// two together as the leading arm's frame drives the following arm.
//
// Allocations are counted by a replacement of the global operator new, per
// iteration and on the benchmark's own thread only (work the transport hands
// to a thread of its own is not in the figure).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "state_frame_builder.h"
#include "test_peer.h"
#include "websocket_server.h"

namespace {

thread_local std::size_t allocations_on_this_thread = 0;

}  // namespace

// GCC takes the free() below for a mismatch with the new expression it
// inlined; here malloc and free pair up by construction.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
    ++allocations_on_this_thread;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
#pragma GCC diagnostic pop

namespace kelm {
namespace {

// A server that takes what it is sent and only counts it.
class Sink {
public:
    Sink()
        : server_("127.0.0.1", 0,
                  {nullptr, [this](WebSocketServer::ConnectionId, const std::string&) { ++received; }, nullptr}) {
        server_.start();
    }
    unsigned short port() const { return server_.port(); }
    std::atomic<std::size_t> received{0};

private:
    WebSocketServer server_;
};

std::string frameText(uint64_t count) { return test::toJsonText(test::twoArmFrame(count)); }

// A kernel connected to `sink` that has seen one frame (dof 6) and knows its
// joint limits, as after the ready sequence.
std::unique_ptr<KelmKernelImpl> readyKernel(const Sink& sink) {
    auto kernel = std::make_unique<KelmKernelImpl>("127.0.0.1", sink.port(), 1.0, 0);
    kernel->parseRecieveData(frameText(1));
    kernel->config.dof = 6;
    kernel->config.limit_lower.assign(6, -3.0);
    kernel->config.limit_upper.assign(6, 3.0);
    return kernel;
}

void reportAllocations(benchmark::State& state, std::size_t allocations) {
    state.counters["allocs_per_iter"] =
        benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
}

// Reference: jsoncpp alone parsing the same frame once.
void BM_JsonParseOnly(benchmark::State& state) {
    const std::string text = frameText(2);
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const std::size_t before = allocations_on_this_thread;
    for (auto _ : state) {
        Json::Value root;
        reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
        benchmark::DoNotOptimize(root);
    }
    reportAllocations(state, allocations_on_this_thread - before);
}
BENCHMARK(BM_JsonParseOnly);

// One frame as the receive thread handles it: one parse in the connection
// layer, the take-over reusing that tree, no listener registered.
void BM_FrameOnReceive(benchmark::State& state) {
    Sink sink;
    auto kernel = readyKernel(sink);
    const std::string text = frameText(2);
    const std::size_t before = allocations_on_this_thread;
    for (auto _ : state) kernel->onReceive(text);
    reportAllocations(state, allocations_on_this_thread - before);
    state.counters["frame_bytes"] = static_cast<double>(text.size());
}
BENCHMARK(BM_FrameOnReceive);

// The kernel's own share: taking an already parsed frame over.
void BM_TakeOverParsedFrame(benchmark::State& state) {
    Sink sink;
    auto kernel = readyKernel(sink);
    const Json::Value root = test::twoArmFrame(2);
    const std::size_t before = allocations_on_this_thread;
    for (auto _ : state) kernel->webSendRobotStateData(root);
    reportAllocations(state, allocations_on_this_thread - before);
}
BENCHMARK(BM_TakeOverParsedFrame);

// parseRecieveData called with text alone, so it parses the frame itself.
void BM_ParseRecieveDataStandalone(benchmark::State& state) {
    Sink sink;
    auto kernel = readyKernel(sink);
    const std::string text = frameText(2);
    const std::size_t before = allocations_on_this_thread;
    for (auto _ : state) kernel->parseRecieveData(text);
    reportAllocations(state, allocations_on_this_thread - before);
}
BENCHMARK(BM_ParseRecieveDataStandalone);

// One joint target, clamped and published.
void BM_TrackingPublish(benchmark::State& state) {
    Sink sink;
    auto kernel = readyKernel(sink);
    const std::vector<double> target{0.1, 0.2, 3.5, -0.4, 0.5, 0.6};
    const double gripper = 0.04;
    const std::size_t before = allocations_on_this_thread;
    for (auto _ : state) {
        if (kernel->tracking(target, true, gripper) != 1) state.SkipWithError("tracking not published");
    }
    reportAllocations(state, allocations_on_this_thread - before);
}
BENCHMARK(BM_TrackingPublish)->Iterations(20000);

// The joint teleoperation path: the leading arm's frame fires its tele
// master listener, which publishes the target to the following arm.
void BM_FrameDrivesTracking(benchmark::State& state) {
    Sink sink;
    auto leader = readyKernel(sink);
    auto follower = readyKernel(sink);
    leader->register_get_tele_master_data_callback(
        "follow",
        [&follower](double, std::vector<double> joints, double gripper) { follower->tracking(joints, true, gripper); });
    const std::string text = frameText(2);
    const std::size_t before = allocations_on_this_thread;
    for (auto _ : state) leader->onReceive(text);
    reportAllocations(state, allocations_on_this_thread - before);
}
BENCHMARK(BM_FrameDrivesTracking)->Iterations(20000);

}  // namespace
}  // namespace kelm

BENCHMARK_MAIN();
