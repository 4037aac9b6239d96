// KelmCommManager against the test peer over loopback WebSockets: publishing,
// reply matching, time-outs, task broadcasts, routing to the state callbacks
// and the connection lifecycle.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kelm_comm.h"
#include "log_capture.h"
#include "test_peer.h"

namespace kelm {
namespace {

using std::chrono::milliseconds;
using test::jsonObject;
using test::LogCapture;
using test::TestPeer;
using test::waitUntil;

// A thread-safe list of what a callback was given.
template <typename T>
class Recorder {
public:
    void add(const T& value) {
        std::lock_guard<std::mutex> lock(mutex_);
        values_.push_back(value);
    }
    std::vector<T> values() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_;
    }
    bool contains(const T& value) const {
        const auto all = values();
        return std::find(all.begin(), all.end(), value) != all.end();
    }

private:
    mutable std::mutex mutex_;
    std::vector<T> values_;
};

class CommManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        manager.register_update_robot_state_callback(
            "recorder", [this](std::string message) { state_messages.add(message); });
        manager.register_connect_changed_callback("recorder", [this](bool up) { connection_events.add(up); });
        ASSERT_EQ(manager.connect_kelm(peer.host(), peer.port(), 1.0), 1);
        ASSERT_TRUE(peer.waitForConnections(1));
    }

    // Sends `marker` after whatever the peer sent before and waits until it
    // has reached the state callbacks: everything sent earlier has then been
    // handled by the receive thread.
    void syncWithReceiveThread(const std::string& marker = "{\"marker\":1}") {
        ASSERT_TRUE(peer.sendText(marker));
        ASSERT_TRUE(waitUntil([&] { return state_messages.contains(marker); }));
    }

    TestPeer peer;
    Recorder<std::string> state_messages;
    Recorder<bool> connection_events;
    KelmCommManager manager;
};

// ---- publishing ----

TEST_F(CommManagerTest, PublishStampsAFreshKeyOnACopyAndLogsTheRequest) {
    LogCapture log;
    Json::Value request = jsonObject({{"command", "setServoEnable"}, {"task_key", "caller-key"}, {"enable", true}});
    const Json::Value original = request;
    std::string key = "old";
    ASSERT_TRUE(manager.cmd_publish(request, key));
    EXPECT_NE(key, "old");
    EXPECT_NE(key, "caller-key");
    EXPECT_EQ(request, original);

    auto sent = peer.waitForCommand("setServoEnable");
    ASSERT_TRUE(sent);
    EXPECT_EQ((*sent)["task_key"].asString(), key);
    EXPECT_EQ((*sent)["enable"], true);
    EXPECT_TRUE(log.contains("task [setServoEnable]--- " + key, LOG_INFO));
}

TEST_F(CommManagerTest, StreamingRequestsWriteNoLogLine) {
    LogCapture log;
    const Json::Value streaming[] = {
        jsonObject({{"command", "trajectoryTrackingTasks"}, {"task_id", "TASK_TRACKING"}}),
        jsonObject({{"command", "anything"}, {"task_id", "TASK_TRACKING"}}),
        jsonObject({{"command", "setRedundancyTau"}}),
        jsonObject({{"command", "setEffectorCtr"}, {"task_id", "TASK_MOVJ"}}),
    };
    for (const auto& request : streaming) {
        std::string key;
        EXPECT_TRUE(manager.cmd_publish(request, key)) << request["command"];
    }
    ASSERT_TRUE(peer.waitForCount(4));
    EXPECT_FALSE(log.contains("task ["));
    for (const auto& message : peer.received()) EXPECT_TRUE(message.json.isMember("task_key"));
}

TEST_F(CommManagerTest, PublishRefusesARequestWithoutCommand) {
    LogCapture log;
    std::string key = "unchanged";
    EXPECT_FALSE(manager.cmd_publish(jsonObject({{"task_id", "TASK_MOVJ"}}), key));
    EXPECT_EQ(key, "unchanged");
    EXPECT_TRUE(log.contains("without command", LOG_ERROR));

    std::string later_key;
    ASSERT_TRUE(manager.cmd_publish(jsonObject({{"command", "probe"}}), later_key));
    ASSERT_TRUE(peer.waitForCommand("probe"));
    EXPECT_EQ(peer.receivedCount(), 1u);
}

TEST_F(CommManagerTest, PublishOnALostConnectionFailsAfterSettingTheKey) {
    ASSERT_EQ(manager.disconnect_kelm(), 1);
    std::string key;
    EXPECT_FALSE(manager.cmd_publish(jsonObject({{"command", "lost"}}), key));
    EXPECT_FALSE(key.empty());
    EXPECT_TRUE(manager.cmd_server(jsonObject({{"command", "lost"}}), key, 1000).isNull());
    EXPECT_TRUE(manager.pending_msgs.empty());
}

// ---- reply matching ----

TEST_F(CommManagerTest, ServerReturnsTheWholeReplyWithTheSameCommandAndKey) {
    peer.replyTo("getJointParams", jsonObject({{"recv", "Task_Recieve"}, {"dof", 6}}));
    std::string key;
    const Json::Value reply = manager.cmd_server(jsonObject({{"command", "getJointParams"}}), key, 1000);
    ASSERT_FALSE(reply.isNull());
    EXPECT_EQ(reply["recv"].asString(), "Task_Recieve");
    EXPECT_EQ(reply["dof"].asInt(), 6);
    EXPECT_EQ(reply["task_key"].asString(), key);
    EXPECT_TRUE(manager.pending_msgs.empty());

    syncWithReceiveThread();
    for (const auto& message : state_messages.values()) EXPECT_EQ(message.find("getJointParams"), std::string::npos);
}

TEST_F(CommManagerTest, ConcurrentWaitersForTheSameCommandGetTheirOwnReplies) {
    // Replies come late and in the opposite order of the requests.
    std::atomic<int> answered{0};
    peer.replyWith(
        "getKinematics",
        [&](const Json::Value& request) {
            ++answered;
            return jsonObject({{"recv", "Task_Recieve"}, {"echo", request["value"]}});
        },
        milliseconds(50));
    constexpr int kWaiters = 4;
    std::vector<Json::Value> replies(kWaiters);
    std::vector<std::string> keys(kWaiters);
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&, i] {
            replies[i] = manager.cmd_server(jsonObject({{"command", "getKinematics"}, {"value", i}}), keys[i], 3000);
        });
    }
    for (auto& waiter : waiters) waiter.join();
    for (int i = 0; i < kWaiters; ++i) {
        ASSERT_FALSE(replies[i].isNull()) << "waiter " << i;
        EXPECT_EQ(replies[i]["echo"].asInt(), i);
        EXPECT_EQ(replies[i]["task_key"].asString(), keys[i]);
    }
    EXPECT_EQ(answered, kWaiters);
    EXPECT_TRUE(manager.pending_msgs.empty());
}

TEST_F(CommManagerTest, TimeOutReturnsNullAndTheLateReplyIsDropped) {
    LogCapture log;
    peer.neverReply("setControlMode");
    std::string key;
    EXPECT_TRUE(manager.cmd_server(jsonObject({{"command", "setControlMode"}}), key, 50).isNull());
    EXPECT_TRUE(log.contains(key + " timeout", LOG_ERROR));
    EXPECT_TRUE(manager.pending_msgs.empty());

    auto request = peer.waitForCommand("setControlMode");
    ASSERT_TRUE(request);
    const std::string late = test::toJsonText(TestPeer::replyFor(*request, TestPeer::recv("Task_Recieve")));
    peer.sendText(late);
    syncWithReceiveThread();
    EXPECT_FALSE(state_messages.contains(late));
    EXPECT_TRUE(manager.pending_msgs.empty());
}

TEST_F(CommManagerTest, ZeroTimeOutStillEndsWithNullAndTheLogLine) {
    LogCapture log;
    std::string key;
    EXPECT_TRUE(manager.cmd_server(jsonObject({{"command", "setSpeedLevel"}}), key, 0).isNull());
    EXPECT_TRUE(log.contains(key + " timeout", LOG_ERROR));
}

TEST_F(CommManagerTest, PeerThatDiesMidWaitEndsInTimeOutAndAReportedLoss) {
    peer.neverReply("setServoEnable");
    Json::Value reply = jsonObject({{"not", "set"}});
    std::thread waiter([&] {
        std::string key;
        reply = manager.cmd_server(jsonObject({{"command", "setServoEnable"}}), key, 500);
    });
    ASSERT_TRUE(peer.waitForCommand("setServoEnable"));
    peer.dropConnections();
    waiter.join();
    EXPECT_TRUE(reply.isNull());
    EXPECT_TRUE(waitUntil([&] { return connection_events.values() == std::vector<bool>{true, false}; }));
    EXPECT_FALSE(manager.is_connected());
}

// ---- routing of received messages ----

struct RoutingCase {
    const char* name;
    const char* message;
    bool is_reply;
};

class MessageRoutingTest : public CommManagerTest, public ::testing::WithParamInterface<RoutingCase> {};

TEST_P(MessageRoutingTest, RepliesStopAtCmdRecvAndEverythingElseReachesTheStateCallbacks) {
    const RoutingCase& routing = GetParam();
    EXPECT_EQ(manager.cmd_recv(routing.message), routing.is_reply);

    ASSERT_TRUE(peer.sendText(routing.message));
    syncWithReceiveThread();
    EXPECT_EQ(state_messages.contains(routing.message), !routing.is_reply);
}

INSTANTIATE_TEST_SUITE_P(
    Messages, MessageRoutingTest,
    ::testing::Values(RoutingCase{"UnwaitedReply", R"({"command":"setDebugMode","task_key":"nobody"})", true},
                      RoutingCase{"ReplyWithNumericKey", R"({"command":"x","task_key":7})", true},
                      RoutingCase{"StateFrame", R"({"command":"webSendRobotState","arm":[]})", false},
                      RoutingCase{"KeyWithoutCommand", R"({"task_key":"k"})", false},
                      RoutingCase{"NotJson", "not json at all", false},
                      RoutingCase{"JsonNull", "null", false},
                      RoutingCase{"Empty", "", false}),
    [](const ::testing::TestParamInfo<RoutingCase>& info) { return info.param.name; });

TEST_F(CommManagerTest, UnparsableTextIsLoggedAndStillPassedOn) {
    LogCapture log;
    peer.sendText("{broken");
    syncWithReceiveThread();
    EXPECT_TRUE(state_messages.contains("{broken"));
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
    peer.sendText(frame);
    peer.sendText(frame);
    syncWithReceiveThread();

    EXPECT_EQ(completions.values(), (std::vector<std::string>{"a:K1", "b:K1", "a:K1", "b:K1", "a:K1", "b:K1",
                                                              "a:K1", "b:K1"}));
    EXPECT_EQ(subscribed.values(), std::vector<std::string>{"K1"});
    EXPECT_FALSE(manager.subscriptions.contains("K1"));
    EXPECT_TRUE(state_messages.contains(frame));
}

TEST_F(CommManagerTest, ThrowingOrEmptyCallbacksDoNotStopTheReceiveThread) {
    LogCapture log;
    manager.register_update_robot_state_callback("zz_thrower", [](std::string message) {
        if (message == "throw") throw std::runtime_error("state callback broke");
    });
    manager.register_task_completion_callback("empty", nullptr);
    manager.register_subscription("K2", nullptr);

    peer.sendText("throw");
    peer.sendText(R"({"arm":[{"task":{"last_task_key":"K2"}}]})");
    syncWithReceiveThread();

    EXPECT_TRUE(manager.is_connected());
    EXPECT_TRUE(log.contains("state callback broke", LOG_ERROR));
    EXPECT_TRUE(log.contains("bad_function_call", LOG_ERROR));
    EXPECT_TRUE(manager.subscriptions.contains("K2"));
}

TEST_F(CommManagerTest, DestructionWhileTheStreamRunsIsClean) {
    auto doomed = std::make_unique<KelmCommManager>();
    std::atomic<int> frames{0};
    doomed->register_update_robot_state_callback("count", [&](std::string) { ++frames; });
    ASSERT_EQ(doomed->connect_kelm(peer.host(), peer.port(), 1.0), 1);
    peer.startStream([] { return jsonObject({{"command", "webSendRobotState"}, {"arm", Json::arrayValue}}); },
                     std::chrono::microseconds(500));
    ASSERT_TRUE(waitUntil([&] { return frames > 20; }));
    doomed.reset();
    peer.stopStream();
    EXPECT_TRUE(peer.waitForConnections(1));
}

// ---- connection lifecycle ----

TEST_F(CommManagerTest, DisconnectAndReconnectAreReportedToTheCallbacks) {
    EXPECT_TRUE(manager.is_connected());
    EXPECT_EQ(connection_events.values(), std::vector<bool>{true});

    LogCapture log;
    ASSERT_EQ(manager.connect_kelm(peer.host(), peer.port(), 1.0), 1);
    EXPECT_TRUE(log.contains("Connecting, now disconnect first...", LOG_INFO));
    EXPECT_TRUE(log.contains("Kelm connected successful...", LOG_INFO));
    EXPECT_EQ(connection_events.values(), (std::vector<bool>{true, false, true}));

    EXPECT_EQ(manager.disconnect_kelm(), 1);
    EXPECT_FALSE(manager.is_connected());
    EXPECT_EQ(connection_events.values(), (std::vector<bool>{true, false, true, false}));
    EXPECT_EQ(manager.disconnect_kelm(), 1);
    EXPECT_EQ(connection_events.values().size(), 4u);
}

TEST(CommManagerLifecycleTest, FreshManagerIsDisconnectedAndHasTwoTransportNames) {
    KelmCommManager manager;
    EXPECT_FALSE(manager.is_connected());
    EXPECT_EQ(manager.disconnect_kelm(), 1);
    ASSERT_EQ(manager.com_mode_names.size(), 2u);
    EXPECT_EQ(manager.com_mode_names.at(KelmCommManager::COM_NONE), "None");
    EXPECT_EQ(manager.com_mode_names.at(KelmCommManager::COM_WEBSOCKET), "WebSocket");
}

TEST(CommManagerLifecycleTest, ConnectToAClosedPortReturnsZero) {
    unsigned short closed_port = 0;
    {
        TestPeer gone;
        closed_port = gone.port();
    }
    LogCapture log;
    KelmCommManager manager;
    EXPECT_EQ(manager.connect_kelm(TestPeer::kHost, closed_port, 1.0), 0);
    EXPECT_TRUE(log.contains("Connect failed, ip 127.0.0.1, port " + std::to_string(closed_port), LOG_ERROR));
    EXPECT_FALSE(manager.is_connected());
}

TEST(CommManagerLifecycleTest, WithoutTransportClientNothingIsSent) {
    KelmCommManager manager;
    manager.comm_client.reset();
    std::string key = "kept";
    EXPECT_FALSE(manager.cmd_publish(jsonObject({{"command", "x"}}), key));
    EXPECT_EQ(key, "kept");
    EXPECT_EQ(manager.disconnect_kelm(), -1);
    EXPECT_FALSE(manager.is_connected());
}

}  // namespace
}  // namespace kelm
