// KelmCommManager against the test peer over loopback WebSockets: publishing,
// reply matching and the connection lifecycle. Routing and task broadcasts
// are driven by calling onReceive on the test's thread, as the receive thread
// would. Callbacks that throw or are empty are the transport's and the kernel
// frame tests' (one registry walk serves every map).
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "kelm_comm.h"
#include "log_capture.h"
#include "recorder.h"
#include "test_peer.h"

namespace kelm {
namespace {

using std::chrono::milliseconds;
using test::jsonObject;
using test::LogCapture;
using test::Recorder;
using test::TestPeer;

class CommManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        manager.register_update_robot_state_callback("recorder", [this](std::string m) { state_messages.add(m); });
        manager.register_connect_changed_callback("recorder", [this](bool up) { connection_events.add(up); });
        ASSERT_EQ(manager.connect_kelm(peer.host(), peer.port(), 1.0), 1);
        ASSERT_TRUE(peer.waitForConnections(1));
    }

    TestPeer peer;
    Recorder<std::string> state_messages;
    Recorder<bool> connection_events;
    KelmCommManager manager;
};

TEST_F(CommManagerTest, PublishStampsAFreshKeyOnACopyLogsOnlyTaskRequestsAndNeedsACommand) {
    LogCapture log;
    const Json::Value request = jsonObject({{"command", "setServoEnable"}, {"task_key", "caller-key"}});
    std::string key;
    ASSERT_TRUE(manager.cmd_publish(request, key));
    EXPECT_NE(key, "caller-key");
    EXPECT_EQ(peer.waitForCommand("setServoEnable").value_or(Json::Value())["task_key"].asString(), key);
    EXPECT_TRUE(log.contains("task [setServoEnable]--- " + key, LOG_INFO));
    for (const Json::Value& streaming : {jsonObject({{"command", "anything"}, {"task_id", "TASK_TRACKING"}}),
                                         jsonObject({{"command", "setRedundancyTau"}}),
                                         jsonObject({{"command", "setEffectorCtr"}, {"task_id", "TASK_MOVJ"}})}) {
        EXPECT_TRUE(manager.cmd_publish(streaming, key)) << streaming;
    }
    std::string unchanged = "unchanged";
    EXPECT_FALSE(manager.cmd_publish(jsonObject({{"task_id", "TASK_MOVJ"}}), unchanged));
    EXPECT_EQ(unchanged, "unchanged");
    ASSERT_TRUE(peer.waitForCount(4));
    EXPECT_EQ(log.count("task ["), 1u);
}

TEST_F(CommManagerTest, ConcurrentWaitersForTheSameCommandGetTheirOwnReplies) {
    // Replies come late, so that all four wait at once.
    peer.replyWith(
        "getKinematics",
        [](const Json::Value& request) {
            return jsonObject({{"recv", "Task_Recieve"}, {"echo", request["value"]}});
        },
        milliseconds(50));
    constexpr int kWaiters = 4;
    std::vector<Json::Value> replies(kWaiters);
    std::vector<std::string> keys(kWaiters);
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        const Json::Value request = jsonObject({{"command", "getKinematics"}, {"value", i}});
        waiters.emplace_back([&, i, request] { replies[i] = manager.cmd_server(request, keys[i], 3000); });
    }
    for (auto& waiter : waiters) waiter.join();
    for (int i = 0; i < kWaiters; ++i) {
        EXPECT_EQ(replies[i]["recv"], "Task_Recieve") << "waiter " << i;
        EXPECT_EQ(replies[i]["echo"].asInt(), i);
        EXPECT_EQ(replies[i]["task_key"].asString(), keys[i]);
    }
    EXPECT_TRUE(manager.pending_msgs.empty());
}

TEST_F(CommManagerTest, RepliesStopAtCmdRecvAndEverythingElseReachesTheStateCallbacks) {
    LogCapture log;
    const std::vector<std::pair<std::string, bool>> cases = {
        {R"({"command":"setDebugMode","task_key":"nobody"})", true},
        {R"({"command":"x","task_key":7})", true},
        {R"({"command":"webSendRobotState","arm":[]})", false},
        {R"({"task_key":"k"})", false},
        {"{broken", false},
        {"null", false},
        {"", false},
    };
    for (const auto& routing : cases) {
        EXPECT_EQ(manager.cmd_recv(routing.first), routing.second) << routing.first;
        manager.onReceive(routing.first);
    }
    for (const auto& routing : cases)
        EXPECT_EQ(state_messages.contains(routing.first), !routing.second) << routing.first;
    EXPECT_TRUE(log.contains("parse error {broken", LOG_ERROR));
}

TEST_F(CommManagerTest, TaskBroadcastReachesEveryCompletionCallbackPerArmAndASubscriptionOnce) {
    Recorder<std::string> completions;
    Recorder<std::string> subscribed;
    manager.register_task_completion_callback("a", [&](std::string key) { completions.add("a:" + key); });
    manager.register_task_completion_callback("b", [&](std::string key) { completions.add("b:" + key); });
    manager.register_subscription("K1", [&](std::string key) { subscribed.add(key); });

    const std::string frame =
        R"({"command":"webSendRobotState","arm":[{"task":{"last_task_key":"K1"}},{"task":{"last_task_key":"K1"}},)"
        R"({"task":{"last_task_key":5}},{"task":"K9"},{}]})";
    manager.onReceive(frame);
    manager.onReceive(frame);
    std::vector<std::string> expected;
    for (int i = 0; i < 4; ++i) expected.insert(expected.end(), {"a:K1", "b:K1"});
    EXPECT_EQ(completions.values(), expected);
    EXPECT_EQ(subscribed.values(), std::vector<std::string>{"K1"});
    EXPECT_FALSE(manager.subscriptions.count("K1"));
    EXPECT_TRUE(state_messages.contains(frame));
}

TEST_F(CommManagerTest, ReconnectAndDisconnectAreReportedAndALostConnectionSendsNothing) {
    LogCapture log;
    ASSERT_EQ(manager.connect_kelm(peer.host(), peer.port(), 1.0), 1);
    EXPECT_TRUE(log.contains("Connecting, now disconnect first...", LOG_INFO));
    EXPECT_TRUE(log.contains("Kelm connected successful...", LOG_INFO));
    EXPECT_EQ(connection_events.values(), (std::vector<bool>{true, false, true}));

    EXPECT_EQ(manager.disconnect_kelm(), 1);
    EXPECT_EQ(manager.disconnect_kelm(), 1);
    EXPECT_FALSE(manager.is_connected());
    EXPECT_EQ(connection_events.values(), (std::vector<bool>{true, false, true, false}));
    std::string key;
    EXPECT_FALSE(manager.cmd_publish(jsonObject({{"command", "lost"}}), key));
    EXPECT_FALSE(key.empty());
}

TEST(CommManagerLifecycleTest, ClosedPortGivesZeroAndNoTransportClientSendsNothing) {
    LogCapture log;
    TestPeer gone;
    const unsigned short port = gone.port();
    gone.stop();
    KelmCommManager manager;
    EXPECT_EQ(manager.connect_kelm(TestPeer::kHost, port, 1.0), 0);
    EXPECT_TRUE(log.contains("Connect failed, ip 127.0.0.1, port " + std::to_string(port), LOG_ERROR));
    EXPECT_FALSE(manager.is_connected());
    EXPECT_EQ(manager.disconnect_kelm(), 1);

    manager.comm_client.reset();
    std::string key = "kept";
    EXPECT_FALSE(manager.cmd_publish(jsonObject({{"command", "x"}}), key));
    EXPECT_EQ(key, "kept");
    EXPECT_EQ(manager.disconnect_kelm(), -1);
}

}  // namespace
}  // namespace kelm
