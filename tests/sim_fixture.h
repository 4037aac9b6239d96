// Test fixture: a controller simulator on 127.0.0.1 (free port) in the test
// process, started before each test, and arm kernels connected to it.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "log_capture.h"
#include "sim_controller.h"

namespace kelm {
namespace test {

// The simulator's backend is the run's one parameter: CTest runs each
// simulator-facing suite twice, the second time with KELM_TEST_BACKEND=physics,
// which puts the arms as bodies into a scene of their own (one arm alone, or
// two at a table).
inline void chooseBackend(sim::SimOptions& options) {
    const char* backend = std::getenv("KELM_TEST_BACKEND");
    if (backend && std::string(backend) == "physics") options.scene = options.arms == 1 ? "arm" : "bimanual";
}

class SimFixture : public ::testing::Test {
protected:
    static constexpr double kReadyBudgetMs = 10000.0;  // ends as soon as the arm is ready
    static constexpr int kMoveWaitMs = 20000;

    void SetUp() override { startSimulator(); }

    // Starts the simulator with `options` (port 0, two arms unless changed).
    void startSimulator(sim::SimOptions options = defaultOptions()) {
        simulator = std::make_unique<sim::SimController>(options);
        simulator->start();
    }

    static sim::SimOptions defaultOptions() {
        sim::SimOptions options;
        options.port = 0;
        options.arms = 2;
        options.quiet = true;
        chooseBackend(options);
        return options;
    }

    KelmKernelImpl& connect(int arm_index) {
        kernels.push_back(std::make_unique<KelmKernelImpl>("127.0.0.1", simulator->port(), 1.0, arm_index));
        return *kernels.back();
    }

    // A kernel on `arm_index` that has been through the ready sequence.
    KelmKernelImpl& connectReady(int arm_index) {
        KelmKernelImpl& kernel = connect(arm_index);
        EXPECT_TRUE(kernel.is_connected());
        EXPECT_EQ(kernel.set_kelm_ready(true, kReadyBudgetMs), 1);
        return kernel;
    }

    // The simulator stops first, so that no frame reaches a callback of a
    // kernel that is being destroyed.
    void TearDown() override {
        if (simulator) simulator->stop();
        kernels.clear();
    }

    std::unique_ptr<sim::SimController> simulator;
    std::vector<std::unique_ptr<KelmKernelImpl>> kernels;
};

}  // namespace test
}  // namespace kelm
