// teleop_latency: end-to-end latency and CPU cost of the teleoperation tool.
//
// It hosts a master controller on 127.0.0.2:8090 and a slave controller on
// 127.0.0.1:8090 in this process (BenchController), starts the built
// kelm_teleop against them and, once the tool runs, streams master frames at
// each rate for a set time. Every tracking message the slave controller
// receives is matched to the master frame it came from through the gripper
// position (frame n carries n * 1e-8; the tool's gripper mapping is undone).
// The slave controller streams frames at the same rate, as a real one would
// (unless --no-slave-stream); in the force-feedback mode they drive the
// torque stream back to the master.
//
// The same runs are made with three baselines over the same frames: a raw
// relay (no JSON) and a parse-once relay over the same WebSocket client (see
// teleop_latency_relay.h), and the relay a user would write in Python with
// the websockets and json modules (teleop_relay.py, run by /usr/bin/python3);
// their tracking messages are matched by order (raw) or by gripper. The
// output names the frame path the tool was built with (KELM_FRAME_FAST_PATH).
//
// Under load: --load keeps every CPU busy for the whole run (stress-ng, one
// busy worker per CPU and one disk writer, all at normal priority), and
// --rt-priority N runs each tool mode a second time with the tool asked for
// real-time scheduling as a user asks for it (KELM_RT_PRIORITY=N) and this
// process's controllers at the same priority, as real controllers run.
//
// Usage: teleop_latency [--rates 500,1000,2000,5000] [--seconds 2]
//                       [--modes joint,pose,force] [--no-baselines]
//                       [--no-slave-stream] [--tool path/to/kelm_teleop]
//                       [--load] [--rt-priority N]
// A quick run (the defaults) takes about a minute and a half; for the
// sustained-rate figures use --modes joint --rates 5000 --seconds 10 --no-baselines
// and --modes force --rates 3000 --seconds 10 --no-baselines; for the figures
// under load --modes joint,force --rates 1000 --seconds 60 --no-baselines
// --load --rt-priority 80 (about six minutes).
// Port 8090 of both addresses must be free.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "real_time.h"
#include "teleop_latency_controller.h"
#include "teleop_latency_relay.h"
#include "teleop_process.h"

namespace {

using namespace std::chrono_literals;
using kelm::bench::Arrival;
using kelm::bench::BenchController;
using kelm::bench::Clock;

constexpr auto kStartLimit = 90s;
constexpr auto kExitLimit = 20s;
constexpr auto kDrainTime = 300ms;
constexpr auto kPauseBetweenRuns = 200ms;
const std::string kToolRunningLine = "程序运行中... 按 Ctrl+C 退出";
const std::string kRelayReadyLine = "relay ready";
const std::string kPython = "/usr/bin/python3";
const std::string kStressNg = "/usr/bin/stress-ng";
const std::vector<std::string> kLoadArgs{"--cpu", "0", "--hdd", "1", "--temp-path", "/tmp", "--quiet"};

// Who relays master frames to the slave in a session.
struct Relayer {
    std::string label;              // "joint", "pose", "force", "raw", "parse-once", "python"
    std::vector<std::string> args;  // of the child process
    std::string program;            // the child's program; empty: the tool, or this program for a relay
    bool is_tool = false;
    bool matched_by_order = false;  // raw relay: no content to match by
    double gripper_divisor = kelm::bench::kJointGripperDivisor;
    int rt_priority = 0;  // the tool's and the controllers' real-time priority; 0: normal scheduling
};

struct Options {
    std::vector<double> rates{500, 1000, 2000, 5000};
    double seconds = 2.0;
    std::vector<std::string> modes{"joint", "pose", "force"};
    bool baselines = true;
    bool slave_stream = true;
    std::string tool;
    bool load = false;
    int rt_priority = 0;
};

struct RunResult {
    std::string label;
    double rate = 0;
    size_t sent = 0, relayed = 0, missing = 0;
    double median_us = 0, p99_us = 0, p999_us = 0, max_us = 0;
    double cpu_us_per_frame = 0;
    std::uint64_t torque_messages = 0;
    // Lines the relay logged during the run that account for missing frames.
    size_t count_gap_lines = 0, stream_drop_lines = 0;
};

std::string selfPath() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

std::string defaultToolPath() {
    const std::string self = selfPath();
    const std::string dir = self.substr(0, self.find_last_of('/'));
    return dir + "/../teleop/kelm_teleop";
}

std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> items;
    std::stringstream stream(text);
    std::string item;
    while (std::getline(stream, item, ',')) {
        if (!item.empty()) items.push_back(item);
    }
    return items;
}

std::optional<Options> parseOptions(int argc, char** argv) {
    Options options;
    options.tool = defaultToolPath();
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--rates" && has_value) {
            options.rates.clear();
            for (const auto& rate : splitList(argv[++i])) options.rates.push_back(std::stod(rate));
        } else if (arg == "--seconds" && has_value) {
            options.seconds = std::stod(argv[++i]);
        } else if (arg == "--modes" && has_value) {
            options.modes = splitList(argv[++i]);
        } else if (arg == "--tool" && has_value) {
            options.tool = argv[++i];
        } else if (arg == "--no-baselines") {
            options.baselines = false;
        } else if (arg == "--no-slave-stream") {
            options.slave_stream = false;
        } else if (arg == "--load") {
            options.load = true;
        } else if (arg == "--rt-priority" && has_value) {
            options.rt_priority = std::stoi(argv[++i]);
            if (options.rt_priority < kelm::RealTimeSetting::kLowestPriority ||
                options.rt_priority > kelm::RealTimeSetting::kHighestPriority)
                return std::nullopt;
        } else {
            return std::nullopt;
        }
    }
    return options;
}

// CPU time (user + system) of process `pid` so far, in microseconds, from
// /proc/<pid>/stat; its resolution is one clock tick (usually 10 ms).
double cpuMicroseconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t name_end = text.rfind(')');
    if (name_end == std::string::npos) return 0.0;
    std::istringstream fields(text.substr(name_end + 2));
    std::string field;
    double ticks = 0.0;
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index == 14 || index == 15) ticks += std::stod(field);  // utime, stime
    }
    return ticks * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Processes started by any thread of this one.
std::set<pid_t> childProcesses() {
    std::set<pid_t> children;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream list(task.path() / "children");
        pid_t pid = 0;
        while (list >> pid) children.insert(pid);
    }
    return children;
}

double percentile(const std::vector<double>& sorted, double fraction) {
    if (sorted.empty()) return 0.0;
    const auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
    return sorted[std::min(sorted.size() - 1, rank == 0 ? 0 : rank - 1)];
}

size_t occurrences(const std::string& text, const std::string& word) {
    size_t count = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + word.size())) ++count;
    return count;
}

// Latency of each sent frame that arrived, in microseconds.
std::vector<double> matchArrivals(const Relayer& relayer, std::int64_t first,
                                  const std::vector<Clock::time_point>& sent, const std::vector<Arrival>& arrivals) {
    std::vector<double> latencies;
    std::set<std::int64_t> seen;
    for (size_t k = 0; k < arrivals.size(); ++k) {
        const std::int64_t index =
            relayer.matched_by_order ? static_cast<std::int64_t>(k) : arrivals[k].sequence - first;
        if (index < 0 || index >= static_cast<std::int64_t>(sent.size()) || !seen.insert(index).second) continue;
        latencies.push_back(
            std::chrono::duration<double, std::micro>(arrivals[k].at - sent[static_cast<size_t>(index)]).count());
    }
    std::sort(latencies.begin(), latencies.end());
    return latencies;
}

// Runs the calling thread, and every thread it starts, at SCHED_FIFO
// `priority` while it lives (nothing when 0); normal scheduling afterwards.
class ControllerScheduling {
public:
    explicit ControllerScheduling(int priority) : priority_(priority) {
        if (priority_ == 0) return;
        kelm::RealTimeSetting setting;
        setting.priority = priority_;
        kelm::applyRealTime(pthread_self(), setting, "the thread that starts the bench's controllers");
    }
    ~ControllerScheduling() {
        if (priority_ == 0) return;
        const sched_param normal{};
        pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);
    }
    ControllerScheduling(const ControllerScheduling&) = delete;
    ControllerScheduling& operator=(const ControllerScheduling&) = delete;

private:
    const int priority_;
};

// One session: both controllers, one tool or relay process, all rates.
class Session {
public:
    Session(const Options& options, Relayer relayer) : options_(options), relayer_(std::move(relayer)) {}

    std::vector<RunResult> run(const std::string& program) {
        // The controllers' threads, started from here, inherit this thread's scheduling.
        const ControllerScheduling scheduling(relayer_.rt_priority);
        BenchController master(kelm::bench::kMasterHost, kelm::bench::kControllerPort);
        BenchController slave(kelm::bench::kSlaveHost, kelm::bench::kControllerPort);
        master.startModelStream();
        slave.startModelStream();
        const std::set<pid_t> children_before = childProcesses();
        std::vector<std::string> environment;
        if (relayer_.rt_priority > 0)
            environment.push_back(std::string(kelm::RealTimeSetting::kPriorityVariable) + "=" +
                                  std::to_string(relayer_.rt_priority));
        TeleopProcess process(program, relayer_.args, environment);
        pid_t pid = 0;
        for (const pid_t child : childProcesses()) {
            if (children_before.count(child) == 0) pid = child;
        }
        const std::string ready_line = relayer_.is_tool ? kToolRunningLine : kRelayReadyLine;
        if (!process.waitForStdout(ready_line, kStartLimit)) {
            std::cerr << relayer_.label << ": did not start; output:\n" << process.stdoutText() << process.stderrText();
            return {};
        }
        master.stopModelStream();
        slave.stopModelStream();
        std::this_thread::sleep_for(kPauseBetweenRuns);

        std::vector<RunResult> results;
        for (const double rate : options_.rates) {
            results.push_back(measure(master, slave, process, pid, rate));
            std::this_thread::sleep_for(kPauseBetweenRuns);
        }
        process.interrupt();
        if (!process.waitForExit(kExitLimit)) std::cerr << relayer_.label << ": did not exit on SIGINT" << std::endl;
        return results;
    }

private:
    RunResult measure(BenchController& master, BenchController& slave, TeleopProcess& process, pid_t pid, double rate) {
        const size_t log_start = process.stderrText().size();
        slave.startRecording(relayer_.gripper_divisor);
        const std::uint64_t torques_before = master.redundancyTauCount();
        const double cpu_before = cpuMicroseconds(pid);
        const std::int64_t first = next_sequence_;
        std::thread slave_stream;
        if (options_.slave_stream)
            slave_stream = std::thread([&] { slave.streamFrames(first, rate, options_.seconds); });
        const std::vector<Clock::time_point> sent = master.streamFrames(first, rate, options_.seconds);
        if (slave_stream.joinable()) slave_stream.join();
        std::this_thread::sleep_for(kDrainTime);
        const double cpu_after = cpuMicroseconds(pid);
        const std::vector<Arrival> arrivals = slave.stopRecording();
        next_sequence_ += static_cast<std::int64_t>(sent.size());

        const std::vector<double> latencies = matchArrivals(relayer_, first, sent, arrivals);
        RunResult result;
        result.label = relayer_.label;
        result.rate = rate;
        result.sent = sent.size();
        result.relayed = latencies.size();
        result.missing = sent.size() - latencies.size();
        result.median_us = percentile(latencies, 0.5);
        result.p99_us = percentile(latencies, 0.99);
        result.p999_us = percentile(latencies, 0.999);
        result.max_us = latencies.empty() ? 0.0 : latencies.back();
        result.cpu_us_per_frame = sent.empty() ? 0.0 : (cpu_after - cpu_before) / static_cast<double>(sent.size());
        result.torque_messages = master.redundancyTauCount() - torques_before;
        const std::string log = process.stderrText().substr(log_start);
        result.count_gap_lines = occurrences(log, "miss msg");
        result.stream_drop_lines = occurrences(log, "streamed messages are dropped");
        return result;
    }

    const Options& options_;
    Relayer relayer_;
    std::int64_t next_sequence_ = 1;
};

void printResult(const RunResult& r) {
    std::printf("%-10s %6.0f %8zu %8zu %8zu %9.0f %9.0f %9.0f %9.0f %10.1f", r.label.c_str(), r.rate, r.sent, r.relayed,
                r.missing, r.median_us, r.p99_us, r.p999_us, r.max_us, r.cpu_us_per_frame);
    if (r.label.rfind("force", 0) == 0)
        std::printf("   torque msgs to master %llu", static_cast<unsigned long long>(r.torque_messages));
    if (r.count_gap_lines + r.stream_drop_lines > 0)
        std::printf("   logged: %zu count gaps, %zu stream drops", r.count_gap_lines, r.stream_drop_lines);
    std::printf("\n");
    std::fflush(stdout);
}

const RunResult* find(const std::vector<RunResult>& results, const std::string& label, double rate) {
    for (const auto& r : results) {
        if (r.label == label && r.rate == rate) return &r;
    }
    return nullptr;
}

// Both cores busy, 1000 Hz: with real-time scheduling nothing missing, p99
// below 250 us, p99.9 below 1 ms, the maximum below 3 ms.
void printGoalsUnderLoad(const std::vector<RunResult>& results, const Options& options) {
    for (const RunResult& r : results) {
        if (r.label.find("+rt") == std::string::npos) continue;
        std::printf(
            "  %s %.0f Hz under load over %.0f s: missing %zu (goal 0), p99 %.0f us (goal < 250), "
            "p99.9 %.0f us (goal < 1000), max %.0f us (goal < 3000)\n",
            r.label.c_str(), r.rate, options.seconds, r.missing, r.p99_us, r.p999_us, r.max_us);
    }
}

void printComparison(const std::vector<RunResult>& results, const Options& options) {
    std::printf("\nratios, joint mode (tool / baseline)\n%6s %11s %9s %9s %18s %14s\n", "rate", "median/raw", "p99/raw",
                "cpu/raw", "median/parse-once", "median/python");
    for (const double rate : options.rates) {
        const RunResult* tool = find(results, "joint", rate);
        const RunResult* raw = find(results, "raw", rate);
        if (!tool || !raw) continue;
        const RunResult* parse = find(results, "parse-once", rate);
        const RunResult* python = find(results, "python", rate);
        std::printf("%6.0f %11.2f %9.2f %9.2f %18.2f %14.2f\n", rate, tool->median_us / raw->median_us,
                    tool->p99_us / raw->p99_us, tool->cpu_us_per_frame / raw->cpu_us_per_frame,
                    parse ? tool->median_us / parse->median_us : 0.0,
                    python ? tool->median_us / python->median_us : 0.0);
    }

    std::printf("\ngoals\n");
    if (options.load) {
        printGoalsUnderLoad(results, options);
        return;
    }
    if (const RunResult* at1000 = find(results, "joint", 1000)) {
        std::printf("  joint 1000 Hz: missing %zu (goal 0), p99 %.0f us (goal < 500)\n", at1000->missing,
                    at1000->p99_us);
        if (const RunResult* raw = find(results, "raw", 1000)) {
            std::printf("  joint 1000 Hz vs raw: median x%.2f (goal <= 1.3), CPU per frame x%.2f (goal <= 2)\n",
                        at1000->median_us / raw->median_us, at1000->cpu_us_per_frame / raw->cpu_us_per_frame);
        }
    }
    const std::pair<const char*, double> sustained[] = {{"joint", 5000}, {"force", 3000}};
    for (const auto& [mode, rate] : sustained) {
        if (const RunResult* r = find(results, mode, rate)) {
            std::printf(
                "  %s %.0f Hz over %.0f s: missing %zu, p99 %.0f us (goal: nothing missing, p99 < 2000 for 10 s)\n",
                mode, rate, options.seconds, r->missing, r->p99_us);
        }
    }
}

std::vector<Relayer> relayers(const Options& options) {
    std::vector<Relayer> all;
    const std::map<std::string, std::pair<std::string, double>> modes{
        {"joint", {"0", 0.6}}, {"pose", {"1", 0.8}}, {"force", {"2", 0.6}}};
    for (const auto& mode : options.modes) {
        const auto entry = modes.find(mode);
        if (entry == modes.end()) continue;
        Relayer tool;
        tool.label = mode;
        tool.args = {"--mode", entry->second.first, "--ip", kelm::bench::kMasterHost};
        tool.is_tool = true;
        tool.gripper_divisor = entry->second.second;
        all.push_back(tool);
        if (options.rt_priority > 0) {
            Relayer real_time = tool;
            real_time.label += "+rt" + std::to_string(options.rt_priority);
            real_time.rt_priority = options.rt_priority;
            all.push_back(real_time);
        }
    }
    if (options.baselines) {
        all.push_back(Relayer{"raw", {"--relay", "raw"}, "", false, true, kelm::bench::kJointGripperDivisor});
        all.push_back(Relayer{"parse-once", {"--relay", "parse"}, "", false, false, kelm::bench::kJointGripperDivisor});
        all.push_back(Relayer{"python", {KELM_PYTHON_RELAY}, kPython, false, false, kelm::bench::kJointGripperDivisor});
    }
    return all;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--relay") return kelm::bench::runRelay(argv[2]);
    const std::optional<Options> options = parseOptions(argc, argv);
    if (!options) {
        std::cerr << "usage: " << argv[0]
                  << " [--rates 500,1000,2000,5000] [--seconds 2] [--modes joint,pose,force] [--no-baselines]"
                     " [--no-slave-stream] [--tool path] [--load] [--rt-priority 1..99]"
                  << std::endl;
        return 1;
    }
    std::optional<TeleopProcess> load;
    if (options->load) {
        load.emplace(kStressNg, kLoadArgs);
        std::printf("load: %s", kStressNg.c_str());
        for (const auto& arg : kLoadArgs) std::printf(" %s", arg.c_str());
        std::printf(" (every CPU busy, one disk writer)\n");
    }
    std::printf("frame path of the tool: %s\n\n",
                KELM_FRAME_FAST_PATH_BUILT ? "simdjson fast path, jsoncpp for the rest (KELM_FRAME_FAST_PATH=ON)"
                                           : "jsoncpp only (KELM_FRAME_FAST_PATH=OFF)");
    std::printf("%-10s %6s %8s %8s %8s %9s %9s %9s %9s %10s\n", "relay", "rate", "sent", "relayed", "missing",
                "median_us", "p99_us", "p99.9_us", "max_us", "cpu_us/fr");
    std::vector<RunResult> results;
    for (const Relayer& relayer : relayers(*options)) {
        Session session(*options, relayer);
        const std::string program = !relayer.program.empty() ? relayer.program
                                    : relayer.is_tool        ? options->tool
                                                             : selfPath();
        for (const RunResult& result : session.run(program)) {
            printResult(result);
            results.push_back(result);
        }
    }
    printComparison(results, *options);
    if (load) {
        load->interrupt();
        load->waitForExit(kExitLimit);
    }
    return 0;
}
