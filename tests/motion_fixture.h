// Fixture for the tests of the kernel's motions and controller services: a
// kernel connected to a test peer that accepts every request, with a six-joint
// arm whose limits are known, and helpers to read what reached the wire.
//
// The arm's joint count, limits and gripper are set on the kernel's members
// directly; the peer pushes no state frames, so nothing else writes them.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "log_capture.h"
#include "test_peer.h"

namespace kelm {
namespace test {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

inline Json::Value parseJson(const std::string& text) {
    Json::Value value;
    std::string errors;
    std::istringstream stream(text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors)) << errors << text;
    return value;
}

// Expects `sent` to equal `expected` (JSON text) apart from the generated
// task_key: the same keys, the same values and the same JSON types.
inline void expectBody(Json::Value sent, const std::string& expected) {
    sent.removeMember("task_key");
    EXPECT_EQ(sent, parseJson(expected));
}

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

    // The kernel files a request as pending only after sending it, so an
    // instant answer could overtake the filing and be dropped; the peer
    // answers a few milliseconds late, as a real controller does.
    static constexpr std::chrono::milliseconds kReplyDelay{5};

    void SetUp() override {
        peer.replyToAll(TestPeer::recv("Task_Recieve"), kReplyDelay);
        kernel = std::make_unique<KelmKernelImpl>(peer.host(), peer.port(), 1.0, kArmIndex);
        ASSERT_TRUE(kernel->is_connected());
        kernel->status.dof = 6;
        kernel->config.limit_lower = {-3.0, -2.0, -2.5, -3.0, -1.5, -6.0};
        kernel->config.limit_upper = {3.0, 2.0, 2.5, 3.0, 1.5, 6.0};
    }

    // The one request with `command` the kernel sent, failing the test if
    // there was none or more than one.
    Json::Value onlySent(const std::string& command) {
        const Json::Value sent = allSent(command);
        EXPECT_EQ(sent.size(), 1u) << "requests with command " << command;
        return sent[0];
    }

    // Every request with `command`, without the generated task_keys.
    Json::Value allSent(const std::string& command) {
        Json::Value all(Json::arrayValue);
        for (Json::Value body : peer.receivedCommands(command)) {
            body.removeMember("task_key");
            all.append(body);
        }
        return all;
    }

    void answer(const std::string& command, const Json::Value& members) { peer.replyTo(command, members, kReplyDelay); }

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
        peer.clearReceived();
    }

    // Proves that a refused call put nothing on the wire: a jog sent after it
    // must be the first message the peer received.
    void expectNothingSent() {
        ASSERT_EQ(kernel->move_joint_jog(0, 1, 1.0), 1);
        const std::vector<ReceivedMessage> received = peer.received();
        ASSERT_FALSE(received.empty());
        EXPECT_EQ(received.front().json["task_id"], "TASK_MOVJ_JOG") << "first message: " << received.front().text;
    }

    static constexpr int kArmIndex = 1;
    LogCapture log;
    TestPeer peer;
    std::unique_ptr<KelmKernelImpl> kernel;
    std::string task_key;
};

}  // namespace test
}  // namespace kelm
