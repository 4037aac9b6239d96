// kelm_sim: the controller simulator as a console program. Prints one line
// at start-up and, unless --quiet, a status line once a second; ends
// cleanly on SIGINT or SIGTERM.
#include <signal.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "arm_kinematics.h"
#include "real_time.h"
#include "sim_controller.h"

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void onStopSignal(int) { stop_requested = 1; }

void installStopHandlers() {
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

std::string armSummary(const kelm::sim::ArmTelemetry& arm) {
    std::string text = arm.name + " " + kelm::sim::armModeName(arm.mode) + (arm.servo ? " servo on" : " servo off");
    text += arm.motion_state == 1    ? " running"
            : arm.motion_state == -1 ? " error " + std::to_string(arm.error_code)
                                     : " standby";
    return text;
}

void printStatus(kelm::sim::SimController& controller, const kelm::sim::SimStats& last, double seconds) {
    const kelm::sim::SimStats now = controller.stats();
    const double rate = static_cast<double>(now.frames_sent - last.frames_sent) / seconds;
    std::printf("kelm_sim: %.1f frames/s, %zu client(s), %llu requests, %llu replies", rate, now.connections,
                static_cast<unsigned long long>(now.requests), static_cast<unsigned long long>(now.replies_sent));
    for (int i = 0; i < controller.model().armCount(); ++i) {
        std::printf("; %s", armSummary(controller.model().telemetry(i)).c_str());
        if (controller.physics() && controller.physics()->taskLayout(i).present)
            std::printf(controller.physics()->taskSucceeded(i) ? ", task done" : ", task pending");
    }
    std::printf("\n");
    std::fflush(stdout);
}

// One line per arm that was streamed to, for whoever ran the session.
void printStreamSummary(kelm::sim::SimController& controller) {
    for (int i = 0; i < controller.model().armCount(); ++i) {
        const kelm::sim::StreamStats stats = controller.model().streamStats(i);
        if (stats.targets > 0) {
            std::printf("kelm_sim: arm%d followed %llu streamed targets, tracking error mean %.5f rad, max %.5f rad\n",
                        i, static_cast<unsigned long long>(stats.targets), stats.meanError(), stats.error_max);
        }
        if (stats.torque_messages > 0) {
            std::printf("kelm_sim: arm%d received %llu redundancy torque messages, largest |torque| %.3f\n", i,
                        static_cast<unsigned long long>(stats.torque_messages), stats.torque_max);
        }
    }
}

// The physics' timing, and where each arm's task ended, for whoever ran the session.
void printPhysicsSummary(kelm::sim::SimController& controller) {
    kelm::sim::PhysicsWorld* physics = controller.physics();
    if (!physics) return;
    const kelm::sim::PhysicsStats stats = physics->stats();
    std::printf(
        "kelm_sim: physics stepped %llu ms in %.1f s (real-time factor %.3f), step median %.1f us, p99 %.1f us\n",
        static_cast<unsigned long long>(stats.ticks), stats.wall_seconds,
        stats.wall_seconds > 0.0 ? stats.simulated_seconds / stats.wall_seconds : 0.0, stats.step_median_us,
        stats.step_p99_us);
    for (int i = 0; i < controller.model().armCount(); ++i) {
        if (!physics->taskLayout(i).present) continue;
        std::printf("kelm_sim: arm%d task %s, seed %u\n", i, physics->taskSucceeded(i) ? "succeeded" : "not done",
                    physics->seed());
    }
    std::printf("kelm_sim: largest contact force %.1f N\n", stats.largest_contact_force);
}

}  // namespace

int main(int argc, char** argv) {
    kelm::sim::SimOptions options;
    std::string error;
    switch (kelm::sim::parseSimOptions(argc, argv, options, error)) {
        case kelm::sim::ParseResult::Help: std::printf("%s", kelm::sim::simUsage(argv[0]).c_str()); return 0;
        case kelm::sim::ParseResult::Error:
            std::fprintf(stderr, "kelm_sim: %s\n%s", error.c_str(), kelm::sim::simUsage(argv[0]).c_str());
            return 1;
        case kelm::sim::ParseResult::Run: break;
    }
    try {
        if (!options.model.empty()) kelm::sim::useArmModel(options.model);
        const size_t model_joints = kelm::sim::armModel().joints.size();
        if (static_cast<size_t>(options.dof) > model_joints)
            throw std::runtime_error("--dof " + std::to_string(options.dof) + " exceeds the " +
                                     std::to_string(model_joints) + " joints of " + kelm::sim::armModel().path);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kelm_sim: %s\n", failure.what());
        return 1;
    }
    installStopHandlers();
    // Threads inherit the scheduling of the thread that starts them: set
    // before the controller starts any, it holds for all of them.
    if (options.rt_priority > 0) {
        kelm::RealTimeSetting real_time;
        real_time.priority = options.rt_priority;
        kelm::applyRealTime(pthread_self(), real_time, "kelm_sim");
    }
    std::unique_ptr<kelm::sim::SimController> running;
    try {
        running = std::make_unique<kelm::sim::SimController>(options);
        running->start();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kelm_sim: %s\n", failure.what());
        return 1;
    }
    kelm::sim::SimController& controller = *running;
    std::printf("kelm_sim: listening on ws://%s:%u, %d arm(s) of %d joints, state frames at %.0f Hz\n",
                options.ip.c_str(), static_cast<unsigned>(controller.port()), options.arms, options.dof, options.rate);
    if (!options.cameras.empty()) {
        std::string names;
        for (const auto& camera : options.cameras) names += (names.empty() ? "" : ", ") + camera.name;
        std::printf("kelm_sim: cameras on http://%s:%u/ (%s)\n", options.ip.c_str(),
                    static_cast<unsigned>(controller.cameraPort()), names.c_str());
    }
    std::fflush(stdout);

    using Clock = std::chrono::steady_clock;
    Clock::time_point last_status = Clock::now();
    kelm::sim::SimStats last_stats = controller.stats();
    while (!stop_requested) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const double since = std::chrono::duration<double>(Clock::now() - last_status).count();
        if (options.quiet || since < 1.0) continue;
        printStatus(controller, last_stats, since);
        last_stats = controller.stats();
        last_status = Clock::now();
    }
    controller.stop();
    printStreamSummary(controller);
    printPhysicsSummary(controller);
    std::printf("kelm_sim: stopped\n");
    return 0;
}
