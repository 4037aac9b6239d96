// A slave controller that stops reading during teleoperation: the built
// kelm_teleop relays a master simulated at 1000 Hz (127.0.0.2:8090) to a
// slave (127.0.0.1:8090) whose reading stalls for a while. The test prints
// what reached the slave after each stall (how many targets, how long after
// the tool sent them) and
// checks what must hold whatever the timing: the tool and the master
// connection survive. KELM_STALL_LONG=1 adds a 6 s stall.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sim_controller.h"
#include "teleop_process.h"

namespace {

using namespace std::chrono_literals;
using kelm::sim::SimController;
using kelm::sim::SimOptions;
using Clock = SimController::Clock;

constexpr const char* kTeleopPath = KELM_TELEOP_PATH;
const std::string kRunningLine = "程序运行中... 按 Ctrl+C 退出";

double millis(std::chrono::system_clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

// When the tool sent a message, from its task key: the local time as
// YYYYMMDDhhmmss, microseconds, "_" and a sequence number.
bool sentAt(const std::string& task_key, std::chrono::system_clock::time_point& sent) {
    if (task_key.size() < 20) return false;
    std::tm fields{};
    if (!strptime(task_key.substr(0, 14).c_str(), "%Y%m%d%H%M%S", &fields)) return false;
    fields.tm_isdst = -1;
    const std::time_t seconds = std::mktime(&fields);
    sent =
        std::chrono::system_clock::from_time_t(seconds) + std::chrono::microseconds(std::stol(task_key.substr(14, 6)));
    return true;
}

struct Target {
    Clock::time_point read;
    double age_ms;
};

std::unique_ptr<SimController> controller(const char* host) {
    SimOptions options;
    options.ip = host;
    options.port = 8090;
    options.rate = 1000.0;
    options.quiet = true;
    return std::make_unique<SimController>(options);
}

class FaultStall : public ::testing::Test {
protected:
    void SetUp() override {
        master = controller("127.0.0.2");
        slave = controller("127.0.0.1");
        slave->received_message_observers.set("targets", [this](const std::string& text, Clock::time_point read) {
            if (text.find("trajectoryTrackingTasks") == std::string::npos) return;
            const auto now = std::chrono::system_clock::now();
            Json::Value message;
            std::istringstream(text) >> message;
            std::chrono::system_clock::time_point sent;
            if (!sentAt(message["task_key"].asString(), sent)) return;
            std::lock_guard<std::mutex> lock(targets_mutex);
            targets.push_back(Target{read, millis(now - sent)});
        });
        master->start();
        slave->start();
    }

    // The controllers go first: their observers use the members below.
    void TearDown() override {
        master->stop();
        slave->stop();
    }

    std::vector<Target> targetsBetween(Clock::time_point from, Clock::time_point to) {
        std::lock_guard<std::mutex> lock(targets_mutex);
        std::vector<Target> found;
        for (const auto& target : targets)
            if (target.read >= from && target.read < to) found.push_back(target);
        return found;
    }

    std::unique_ptr<SimController> master, slave;
    std::mutex targets_mutex;
    std::vector<Target> targets;
};

TEST_F(FaultStall, SlaveThatStopsReadingGetsNoStaleBurstAndTheMasterStays) {
    TeleopProcess tool(kTeleopPath, {"--mode", "0", "--ip", "127.0.0.2"});
    ASSERT_TRUE(tool.waitForStdout(kRunningLine, 60s)) << tool.stdoutText();
    std::this_thread::sleep_for(1s);

    std::vector<std::chrono::milliseconds> stalls{100ms, 1000ms};
    if (std::getenv("KELM_STALL_LONG") != nullptr) stalls.push_back(6000ms);
    for (const auto stall : stalls) {
        const Clock::time_point begin = Clock::now();
        slave->stallReading(stall);
        std::this_thread::sleep_for(stall + 1500ms);
        const Clock::time_point stall_end = begin + stall;
        const auto after = targetsBetween(stall_end, Clock::now());
        double oldest = 0.0;
        std::size_t stale = 0;
        for (const auto& target : after) {
            oldest = std::max(oldest, target.age_ms);
            if (target.age_ms > 50.0) ++stale;
        }
        const auto first_second = targetsBetween(stall_end + 500ms, stall_end + 1500ms).size();
        double oldest_before = 0.0;
        for (const auto& target : targetsBetween(begin - 1000ms, begin))
            oldest_before = std::max(oldest_before, target.age_ms);
        std::printf(
            "stall %4lld ms: %zu targets read in the 1.5 s after it, %zu older than 50 ms, oldest %.0f ms "
            "(oldest in the second before the stall %.0f ms); %zu targets from 0.5 to 1.5 s after; "
            "slave connections %zu, master connections %zu\n",
            static_cast<long long>(stall.count()), after.size(), stale, oldest, oldest_before, first_second,
            slave->stats().connections, master->stats().connections);
        EXPECT_EQ(master->stats().connections, 1u) << "the master connection was lost";
        if (slave->stats().connections == 0) break;  // the tool does not reconnect
    }
    EXPECT_FALSE(tool.waitForExit(10ms)) << tool.stdoutText();
    tool.interrupt();
    const auto exit_code = tool.waitForExit(30s);
    ASSERT_TRUE(exit_code) << tool.stdoutText();
    EXPECT_EQ(*exit_code, 0);
    // What the operator sees: the console, and the error lines of the log.
    std::printf("tool console:\n%s", tool.stdoutText().c_str());
    std::istringstream log(tool.stderrText() + tool.stdoutText());
    std::map<std::string, int> errors;
    for (std::string line; std::getline(log, line);) {
        const auto tid = line.find("[error] ") == std::string::npos ? std::string::npos : line.find("[tid ");
        if (tid != std::string::npos) ++errors[line.substr(line.find("] ", tid) + 2, 48)];
    }
    for (const auto& [text, count] : errors) std::printf("log, %d times: %s\n", count, text.c_str());
}

}  // namespace
