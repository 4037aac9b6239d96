// sim_rate: how well the controller simulator holds its state-frame rate.
//
// For 500, 1000 and 2000 Hz with one and two arms it runs the simulator for
// two seconds with one connected client (a connection manager that takes
// every frame), and prints the rate held, the spread of the gaps between
// sends, the CPU of the frame loop thread, the CPU of the whole process
// (simulator and client) and the frames the client received. Figures are
// printed, not judged.
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "kelm_comm.h"
#include "sim_controller.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kRunSeconds = 2.0;

double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + now.tv_nsec * 1e-9;
}

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec * 1e-6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Measurement {
    double held_rate = 0.0;
    double p99_gap_ms = 0.0;
    double max_gap_ms = 0.0;
    double loop_cpu_percent = 0.0;
    double process_cpu_percent = 0.0;
    double received_rate = 0.0;
};

Measurement measure(double rate, int arms) {
    kelm::sim::SimOptions options;
    options.port = 0;
    options.arms = arms;
    options.rate = rate;
    options.quiet = true;
    kelm::sim::SimController simulator(options);
    simulator.start();

    kelm::KelmCommManager client;
    std::atomic<long> received{0};
    client.register_update_robot_state_callback("count", [&](std::string) { ++received; });
    client.connect_kelm("127.0.0.1", simulator.port(), 1.0);

    // The observer runs on the frame loop: it reads that thread's CPU clock.
    std::mutex samples_mutex;
    std::vector<Clock::time_point> sends;
    sends.reserve(static_cast<size_t>(rate * kRunSeconds * 1.5));
    double loop_cpu_first = -1.0, loop_cpu_last = 0.0;
    std::atomic<bool> recording{false};
    simulator.sent_frame_observers.set("rate", [&](std::uint64_t, Clock::time_point sent) {
        if (!recording) return;
        std::lock_guard<std::mutex> lock(samples_mutex);
        sends.push_back(sent);
        loop_cpu_last = threadCpuSeconds();
        if (loop_cpu_first < 0.0) loop_cpu_first = loop_cpu_last;
    });

    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // settle
    const long received_before = received.load();
    const double process_cpu_before = processCpuSeconds();
    recording = true;
    std::this_thread::sleep_for(std::chrono::duration<double>(kRunSeconds));
    recording = false;
    const double process_cpu = processCpuSeconds() - process_cpu_before;
    const long received_during = received.load() - received_before;
    simulator.sent_frame_observers.clear();
    client.disconnect_kelm();
    simulator.stop();

    Measurement result;
    std::lock_guard<std::mutex> lock(samples_mutex);
    if (sends.size() < 2) return result;
    const double span = std::chrono::duration<double>(sends.back() - sends.front()).count();
    result.held_rate = (sends.size() - 1) / span;
    std::vector<double> gaps;
    for (size_t i = 1; i < sends.size(); ++i)
        gaps.push_back(std::chrono::duration<double, std::milli>(sends[i] - sends[i - 1]).count());
    std::sort(gaps.begin(), gaps.end());
    result.p99_gap_ms = gaps[static_cast<size_t>(0.99 * (gaps.size() - 1))];
    result.max_gap_ms = gaps.back();
    result.loop_cpu_percent = 100.0 * (loop_cpu_last - loop_cpu_first) / span;
    result.process_cpu_percent = 100.0 * process_cpu / kRunSeconds;
    result.received_rate = received_during / kRunSeconds;
    return result;
}

}  // namespace

int main() {
    std::printf("%8s %5s %12s %12s %12s %14s %14s %14s\n", "rate Hz", "arms", "held Hz", "p99 gap ms", "max gap ms",
                "loop CPU %", "process CPU %", "received Hz");
    for (double rate : {500.0, 1000.0, 2000.0}) {
        for (int arms : {1, 2}) {
            const Measurement m = measure(rate, arms);
            std::printf("%8.0f %5d %12.1f %12.3f %12.3f %14.1f %14.1f %14.1f\n", rate, arms, m.held_rate, m.p99_gap_ms,
                        m.max_gap_ms, m.loop_cpu_percent, m.process_cpu_percent, m.received_rate);
            std::fflush(stdout);
        }
    }
    return 0;
}
