// Long run of a KelmDualBot program: both arms of one controller move to and
// fro in a loop, each move blocking until its arm has arrived, and the poses
// are read after each move. Once a minute it prints its own resident memory,
// the moves done and failed in that minute with the median and largest time a
// move took, and the frame-count gaps the library logged ("miss msg").
//
//   dual_bot_soak [ip] [port] [minutes]    (defaults: 127.0.0.1 8090 30)
//
// Start a two-arm controller first, for example
//   kelm_sim --ip 127.0.0.5 --arms 2 --rate 1000 --operator off --quiet
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "kelm_dual_bot.h"
#include "log_manager.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kWristSwing = 0.3;  // rad, added to and taken from the last joint
constexpr double kMoveTime = 0.5;    // s, the time each move is given
constexpr auto kReportEvery = std::chrono::minutes(1);

long residentKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string key;
    long value = 0;
    while (status >> key) {
        if (key == "VmRSS:") {
            status >> value;
            return value;
        }
        status.ignore(1 << 12, '\n');
    }
    return -1;
}

std::vector<double> swung(std::vector<double> joints, double by) {
    joints.back() += by;
    return joints;
}

struct Minute {
    int moves_done = 0;
    int moves_failed = 0;
    std::vector<double> move_ms;
};

void report(int minute, Minute& stats, int gaps) {
    std::sort(stats.move_ms.begin(), stats.move_ms.end());
    const double median = stats.move_ms.empty() ? 0.0 : stats.move_ms[stats.move_ms.size() / 2];
    const double longest = stats.move_ms.empty() ? 0.0 : stats.move_ms.back();
    std::printf("minute %3d  rss %6ld kB  moves %5d  failed %3d  move median %6.1f ms  max %6.1f ms  count gaps %d\n",
                minute, residentKilobytes(), stats.moves_done, stats.moves_failed, median, longest, gaps);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string ip = argc > 1 ? argv[1] : "127.0.0.1";
    const int port = argc > 2 ? std::atoi(argv[2]) : 8090;
    const int minutes = argc > 3 ? std::atoi(argv[3]) : 30;

    std::atomic<int> count_gaps{0};
    kelm::getLogInstance()->setLineObserver([&](kelm::LogLevel, const std::string& line) {
        if (line.rfind("miss msg", 0) == 0) count_gaps.fetch_add(1);
    });
    kelm::getLogInstance()->setLevel(kelm::LOG_ERROR);

    kelm::KelmDualBot bot(ip, port, 1.0, 0, 1);
    if (!bot.is_connected() || bot.set_ready() != 1) {
        std::fprintf(stderr, "no ready two-arm controller at %s:%d\n", ip.c_str(), port);
        return 1;
    }
    const std::vector<double> left_home = bot.get_left_joint_pos();
    const std::vector<double> right_home = bot.get_right_joint_pos();
    if (left_home.empty() || right_home.empty()) return 1;

    const Clock::time_point end = Clock::now() + std::chrono::minutes(minutes);
    Clock::time_point next_report = Clock::now() + kReportEvery;
    Minute stats;
    int minute = 0;
    int gaps_reported = count_gaps.load();  // the first frame's count is never the one before
    for (double swing = kWristSwing; Clock::now() < end; swing = -swing) {
        for (const bool left : {true, false}) {
            const Clock::time_point start = Clock::now();
            const int result = left ? bot.move_left_joint(swung(left_home, swing), kMoveTime, true)
                                    : bot.move_right_joint(swung(right_home, swing), kMoveTime, true);
            (result == 1 ? stats.moves_done : stats.moves_failed)++;
            stats.move_ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
            (void)(left ? bot.get_left_cart_pose() : bot.get_right_cart_pose());
        }
        if (Clock::now() >= next_report) {
            const int gaps = count_gaps.load();
            report(++minute, stats, gaps - gaps_reported);
            gaps_reported = gaps;
            stats = Minute{};
            next_report += kReportEvery;
        }
    }
    kelm::getLogInstance()->setLineObserver({});
    return 0;
}
