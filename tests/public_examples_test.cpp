// The example programs, each run as a process of its own against the
// controller simulator, as a user would run them.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "sim_controller.h"

namespace {

// Runs `program` with `arguments` under a time limit of 60 s and returns its
// exit code (124 or 137 when the limit ended it).
int runProgram(const std::string& program, const std::string& arguments) {
    const int status = std::system(("timeout --kill-after=5 60 '" + program + "' " + arguments).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(PublicExamples, RunToTheirEndAgainstTheSimulatorAndFailWithoutIt) {
    for (const auto& example : {std::make_pair(KELM_EXAMPLE_SINGLE_ARM, 1), std::make_pair(KELM_EXAMPLE_DUAL_ARM, 2)}) {
        SCOPED_TRACE(example.first);
        kelm::sim::SimOptions options;
        options.port = 0;
        options.arms = example.second;
        options.quiet = true;
        // The client files its wait for a reply only after sending the request;
        // on a busy machine a quicker reply could overtake that and be lost.
        options.reply_latency_us = 20000;
        kelm::sim::SimController simulator(options);
        simulator.start();
        const std::string arguments = "127.0.0.1 " + std::to_string(simulator.port());
        EXPECT_EQ(runProgram(example.first, arguments), 0);
        simulator.stop();  // nobody listens on its port now
        EXPECT_EQ(runProgram(example.first, arguments), 1);
    }
}

}  // namespace
