// Fixture for the tests of the kernel's motions and controller services: a
// kernel over the in-memory socket whose requests are all accepted, with a
// six-joint arm whose limits are known, and helpers to read what reached the
// wire.
//
// The arm's joint count, limits and gripper are set on the kernel's members
// directly; no state frame comes in, so nothing else writes them.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <limits>
#include <string>
#include <vector>

#include "kernel_fixture.h"

namespace kelm {
namespace test {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

inline Json::Value parseJson(const std::string& text) { return AnsweredKernel::parse(text); }

// Expects `sent` to equal `expected` (JSON text): the same keys, the same
// values and the same JSON types.
inline void expectBody(const Json::Value& sent, const std::string& expected) { EXPECT_EQ(sent, parseJson(expected)); }

// `values` with the one at `index` replaced.
template <class Values>
Values with(Values values, std::size_t index, double value) {
    values.at(index) = value;
    return values;
}

class MotionTest : public ::testing::Test {
protected:
    const std::vector<double> kHome{0.0, 0.5, -0.5, 0.0, 1.0, 0.0};
    const std::vector<double> kShort{0.0, 0.5, -0.5, 0.0, 1.0};
    const std::vector<double> kPose{0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0};
    const Pose kPoseArray{0.3, 0.1, 0.4, 0.0, 0.0, 0.0, 1.0};

    void SetUp() override {
        kernel->status.dof = 6;
        kernel->config.limit_lower = {-3.0, -2.0, -2.5, -3.0, -1.5, -6.0};
        kernel->config.limit_upper = {3.0, 2.0, 2.5, 3.0, 1.5, 6.0};
    }

    // The one request with `command` the kernel sent, failing the test if
    // there was none or more than one.
    Json::Value onlySent(const std::string& command) {
        const std::vector<Json::Value> sent = kernel.sent(command);
        EXPECT_EQ(sent.size(), 1u) << "requests with command " << command;
        return sent.empty() ? Json::Value() : sent.front();
    }

    // Every request with `command` as one array.
    Json::Value allSent(const std::string& command) {
        Json::Value all(Json::arrayValue);
        for (const Json::Value& body : kernel.sent(command)) all.append(body);
        return all;
    }

    void answer(const std::string& command, const Json::Value& members) { kernel.replyTo(command, members); }

    void expectRefused(int result, const std::string& message) {
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(log.contains(message, LOG_ERROR)) << message;
    }

    // Expects an accepted call (empty `message`) to have sent one motion and
    // logged no error, a refused one to have logged `message` and sent nothing;
    // then starts a fresh record of log and wire for the next call.
    void expectOutcome(int result, const std::string& message) {
        if (message.empty()) {
            EXPECT_EQ(result, 1);
            EXPECT_EQ(log.count("", LOG_ERROR), 0u);
            onlySent("webRecieveTasks");
        } else {
            expectRefused(result, message);
            expectNothingSent();
        }
        log.clear();
        kernel.forgetSent();
    }

    void expectNothingSent() { EXPECT_EQ(kernel.sentCount(), 0u); }

    static constexpr int kArmIndex = 1;
    LogCapture log;
    AnsweredKernel kernel{kArmIndex};
    std::string task_key;
};

}  // namespace test
}  // namespace kelm
