// Real-time scheduling of a connection's delivery thread: applied where the
// process may use it; refused with one log line, delivery going on at normal
// priority, in a child process that may not.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>

#include "client_endpoint.h"
#include "log_capture.h"

namespace kelm {
namespace {

using test::ClientEndpoint;
using test::LogCapture;
using test::Recorder;
using test::TestPeer;

constexpr int kPriority = 10;

// Policy, priority and number of allowed CPUs of a thread.
using Scheduling = std::tuple<int, int, int>;

// Connects, has the peer send one message and returns the scheduling of the
// thread that delivered it.
Scheduling deliveryScheduling(ClientEndpoint& endpoint, TestPeer& peer) {
    Recorder<Scheduling> seen;
    endpoint.hook = [&](const std::string&) {
        int policy = -1;
        sched_param parameters{};
        cpu_set_t cpus;
        pthread_getschedparam(pthread_self(), &policy, &parameters);
        pthread_getaffinity_np(pthread_self(), sizeof cpus, &cpus);
        seen.add({policy, parameters.sched_priority, CPU_COUNT(&cpus)});
    };
    const bool delivered =
        endpoint.connect() == 1 && peer.waitForConnections(1) && peer.sendText("probe") && seen.waitForCount(1);
    endpoint.client.disConnect();
    return delivered ? seen.values().at(0) : Scheduling{-1, -1, 0};
}

// Drops CAP_SYS_NICE, which overrides the limit, and limits real-time priorities to 0.
void forbidRealTime() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct capabilities[_LINUX_CAPABILITY_U32S_3] = {};
    syscall(SYS_capget, &header, capabilities);
    const unsigned nice_bit = 1u << (CAP_SYS_NICE % 32);
    capabilities[CAP_SYS_NICE / 32].effective &= ~nice_bit;
    capabilities[CAP_SYS_NICE / 32].permitted &= ~nice_bit;
    syscall(SYS_capset, &header, capabilities);
    const rlimit none{0, 0};
    setrlimit(RLIMIT_RTPRIO, &none);
}

TEST(RealTime, TheDeliveryThreadRunsAtTheAskedPriorityOnTheAskedCpu) {
    LogCapture log;
    TestPeer peer;
    ClientEndpoint endpoint(peer);
    endpoint.client.setRealTime(RealTimeSetting{kPriority, 0});
    const Scheduling seen = deliveryScheduling(endpoint, peer);
    if (log.contains("refused")) GTEST_SKIP() << "this process may not use real-time scheduling";
    EXPECT_EQ(seen, (Scheduling{SCHED_FIFO, kPriority, 1}));
    EXPECT_TRUE(log.contains("runs at real-time priority 10 (SCHED_FIFO)"));
}

// In a child process: real-time scheduling forbidden, then asked for as a
// user asks for it; exits 0 when delivery went on at normal priority after
// one refusal line.
[[noreturn]] void deliverWithRealTimeForbidden() {
    forbidRealTime();
    setenv(RealTimeSetting::kPriorityVariable, std::to_string(kPriority).c_str(), 1);
    LogCapture log;
    TestPeer peer;
    ClientEndpoint endpoint(peer);
    const auto [policy, priority, cpus] = deliveryScheduling(endpoint, peer);
    const std::size_t refusals = log.count("real-time priority 10 refused", LOG_ERROR);
    std::fprintf(stderr, "policy %d, priority %d, refusal lines %zu\n", policy, priority, refusals);
    std::_Exit(policy == SCHED_OTHER && cpus > 0 && refusals == 1 ? 0 : 1);
}

TEST(RealTimeDeathTest, ARefusedPriorityIsOneLogLineAndDeliveryGoesOnAtNormalPriority) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(deliverWithRealTimeForbidden(), ::testing::ExitedWithCode(0), "policy 0, priority 0, refusal lines 1");
}

}  // namespace
}  // namespace kelm
