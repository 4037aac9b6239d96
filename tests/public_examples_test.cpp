// The example programs, each run as a process of its own against the
// controller simulator, as a user would run them.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "sim_controller.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;

// Runs `program` with `args` and returns its exit code. A program that has
// not ended within `limit` is killed and fails the test; one that could not
// be started or did not exit normally gives -1.
int runProgram(const std::string& program, const std::vector<std::string>& args, std::chrono::seconds limit) {
    std::vector<std::string> words{program};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    pid_t pid = 0;
    if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
        ADD_FAILURE() << "cannot start " << program;
        return -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << program << " did not end and was killed";
            return -1;
        }
        std::this_thread::sleep_for(20ms);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct Example {
    const char* program;
    int arms;
};

const Example kExamples[] = {{KELM_EXAMPLE_SINGLE_ARM, 1}, {KELM_EXAMPLE_DUAL_ARM, 2}};

kelm::sim::SimOptions simulatorFor(const Example& example) {
    kelm::sim::SimOptions options;
    options.ip = "127.0.0.1";
    options.port = 0;
    options.arms = example.arms;
    options.quiet = true;
    // The client files its wait for a reply only after sending the request;
    // on a busy machine a quicker reply could overtake that and be dropped.
    options.reply_latency_us = 20000;
    return options;
}

// Once the simulator has stopped, nobody listens on its port.
TEST(PublicExamples, RunToTheirEndAgainstTheSimulatorAndFailWithoutIt) {
    for (const auto& example : kExamples) {
        SCOPED_TRACE(example.program);
        kelm::sim::SimController simulator(simulatorFor(example));
        simulator.start();
        const std::vector<std::string> args{"127.0.0.1", std::to_string(simulator.port())};
        EXPECT_EQ(runProgram(example.program, args, 60s), 0);
        simulator.stop();
        EXPECT_EQ(runProgram(example.program, args, 60s), 1);
    }
}

}  // namespace
