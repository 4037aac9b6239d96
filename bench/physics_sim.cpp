// physics_sim: what the simulator's physics backend costs and achieves.
//
// 1. Step time: a physics world of one arm (table_cube) and of two
//    (bimanual) steps for --step-seconds; median and p99 per 1 ms tick.
// 2. Teleoperation: a master (127.0.0.2:8090) and a slave (127.0.0.1:8090)
//    controller in this process at --rate frames/s, the built kelm_teleop
//    relaying for --seconds in joint and in force-feedback mode, once with
//    kinematic arms and once in physics (master in `arm` doing the
//    pick-and-place task, slave in `table_cube`): master frames sent, slave
//    targets taken and missing, the physics' real-time factor, and the CPU
//    this process (both controllers) used.
// 3. Pick-and-place success over --seeds seeds, ten controller pairs at a
//    time through the in-process relay.
//
// Usage: physics_sim [--step-seconds 10] [--seconds 60] [--rate 1000] [--seeds 50] [--tool path/to/kelm_teleop]
// Port 8090 of both addresses must be free.
#include <sys/resource.h>

#include <csignal>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "log_manager.h"
#include "sim_controller.h"
#include "sim_teleoperation.h"
#include "teleop_process.h"

namespace {

using namespace kelm;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Settings {
    double step_seconds = 10.0;
    double seconds = 60.0;
    double rate = 1000.0;
    int seeds = 50;
    std::string tool;
};

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + 1e-6 * (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

void measureSteps(const Settings& settings) {
    std::printf("\n== Physics step time, per 1 ms tick (%.0f s each)\n", settings.step_seconds);
    std::printf("%-12s %5s %12s %10s %16s\n", "scene", "arms", "median [us]", "p99 [us]", "real-time factor");
    for (const auto& [scene, arms] : {std::pair<const char*, int>{"table_cube", 1}, {"bimanual", 2}}) {
        sim::PhysicsWorld world(sim::resolveScenePath(scene), sim::armModel().path, arms, 6, 1);
        world.placeArms({0.0, -0.2, 0.3, 0.0, -1.2, 0.0});
        world.start();
        std::this_thread::sleep_for(std::chrono::duration<double>(settings.step_seconds));
        world.stop();
        const sim::PhysicsStats stats = world.stats();
        std::printf("%-12s %5d %12.1f %10.1f %16.3f\n", scene, arms, stats.step_median_us, stats.step_p99_us,
                    stats.simulated_seconds / stats.wall_seconds);
    }
}

sim::SimOptions controllerOptions(const Settings& settings, bool master, bool physics) {
    sim::SimOptions options;
    options.ip = master ? "127.0.0.2" : "127.0.0.1";
    options.rate = settings.rate;
    options.quiet = true;
    options.hand.enabled = master;
    if (physics) {
        options.scene = master ? "arm" : "table_cube";
        options.hand.pick_place = master;
        options.task_scene = master ? "table_cube" : "";
    }
    return options;
}

void measureTeleoperation(const Settings& settings) {
    std::printf("\n== Teleoperation through kelm_teleop, %.0f frames/s, %.0f s per run\n", settings.rate,
                settings.seconds);
    std::printf("%-10s %-6s %12s %12s %8s %14s %14s %10s\n", "backend", "mode", "master sent", "slave took", "missing",
                "RTF master", "RTF slave", "CPU [%]");
    for (const bool physics : {false, true}) {
        for (const char* mode : {"0", "2"}) {
            sim::SimController master(controllerOptions(settings, true, physics));
            sim::SimController slave(controllerOptions(settings, false, physics));
            master.start();
            slave.start();
            TeleopProcess tool(settings.tool, {"--ip", "127.0.0.2", "--mode", mode});
            if (!tool.waitForStdout("程序运行中", 60s)) {
                std::printf("the tool did not come up:\n%s\n", tool.stderrText().c_str());
                return;
            }
            std::this_thread::sleep_for(500ms);  // the stream settles in
            const std::uint64_t sent0 = master.stats().frames_sent, took0 = slave.model().streamStats(0).targets;
            const double refused0 = static_cast<double>(slave.stats().refused_streams);
            const sim::PhysicsStats m0 = physics ? master.physics()->stats() : sim::PhysicsStats{};
            const sim::PhysicsStats s0 = physics ? slave.physics()->stats() : sim::PhysicsStats{};
            const double cpu0 = cpuSeconds();
            const Clock::time_point begun = Clock::now();
            std::this_thread::sleep_for(std::chrono::duration<double>(settings.seconds));
            const double wall = std::chrono::duration<double>(Clock::now() - begun).count();
            const double cpu = cpuSeconds() - cpu0;
            const std::uint64_t sent = master.stats().frames_sent - sent0;
            const std::uint64_t took = slave.model().streamStats(0).targets - took0;
            const double refused = static_cast<double>(slave.stats().refused_streams) - refused0;
            const auto factor = [](const sim::PhysicsStats& from, const sim::PhysicsStats& to) {
                const double wall_seconds = to.wall_seconds - from.wall_seconds;
                return wall_seconds > 0.0 ? (to.simulated_seconds - from.simulated_seconds) / wall_seconds : 0.0;
            };
            const double rtf_master = physics ? factor(m0, master.physics()->stats()) : 0.0;
            const double rtf_slave = physics ? factor(s0, slave.physics()->stats()) : 0.0;
            const long missing = static_cast<long>(sent) - static_cast<long>(took) - static_cast<long>(refused);
            std::printf("%-10s %-6s %12llu %12llu %8ld %14.3f %14.3f %10.1f\n", physics ? "physics" : "kinematic",
                        std::strcmp(mode, "0") == 0 ? "joint" : "force", static_cast<unsigned long long>(sent),
                        static_cast<unsigned long long>(took), missing, rtf_master, rtf_slave, 100.0 * cpu / wall);
            tool.interrupt();
            tool.waitForExit(15s);
            master.stop();
            slave.stop();
        }
    }
    std::printf(
        "missing: master frames sent in the window that reached the slave as no target (the window's edges\n"
        "can move a frame or two either way); CPU: both controllers, this process, share of one core\n");
}

void measureSuccess(const Settings& settings) {
    std::printf("\n== Pick-and-place over %d seeds (ten pairs at a time)\n", settings.seeds);
    int succeeded = 0;
    std::string failed;
    for (int first = 1; first <= settings.seeds; first += 10) {
        const int last = std::min(settings.seeds, first + 9);
        std::vector<std::unique_ptr<sim::test_relay::Teleoperation>> runs;
        for (int seed = first; seed <= last; ++seed) {
            auto master = sim::test_relay::pickPlaceMaster("table_cube", static_cast<std::uint32_t>(seed));
            auto slave = sim::test_relay::pickPlaceSlave(static_cast<std::uint32_t>(seed));
            runs.push_back(std::make_unique<sim::test_relay::Teleoperation>(master, slave, false));
        }
        std::vector<std::future<bool>> started;
        for (auto& run : runs) started.push_back(std::async(std::launch::async, [&run] { return run->start(); }));
        for (auto& start : started) start.get();
        const Clock::time_point deadline = Clock::now() + 30s;
        for (std::size_t i = 0; i < runs.size(); ++i) {
            sim::PhysicsWorld& world = *runs[i]->slave().simulator.physics();
            bool done = false;
            while (!(done = world.taskSucceeded(0)) && Clock::now() < deadline) std::this_thread::sleep_for(50ms);
            if (done)
                ++succeeded;
            else
                failed += " " + std::to_string(first + static_cast<int>(i));
        }
    }
    std::printf("succeeded: %d of %d (%.1f %%)%s%s\n", succeeded, settings.seeds, 100.0 * succeeded / settings.seeds,
                failed.empty() ? "" : "; failed seeds:", failed.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    settings.tool = (std::filesystem::canonical("/proc/self/exe").parent_path() / "../teleop/kelm_teleop").string();
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i], value = argv[i + 1];
        if (name == "--step-seconds")
            settings.step_seconds = std::atof(value.c_str());
        else if (name == "--seconds")
            settings.seconds = std::atof(value.c_str());
        else if (name == "--rate")
            settings.rate = std::atof(value.c_str());
        else if (name == "--seeds")
            settings.seeds = std::atoi(value.c_str());
        else if (name == "--tool")
            settings.tool = value;
        else {
            std::fprintf(stderr, "physics_sim: unknown option %s\n", name.c_str());
            return 1;
        }
    }
    getLogInstance()->setLevel(LOG_ERROR + 1);
    measureSteps(settings);
    measureTeleoperation(settings);
    if (settings.seeds > 0) measureSuccess(settings);
    return 0;
}
