// TestPeer: a scriptable arm controller for tests, listening on 127.0.0.1 on
// a free port.
//
// It records every message a client sends (raw text and parsed JSON),
// answers requests by rules keyed by their `command`, and pushes text or JSON
// to its clients on demand. Typical use:
//
//   kelm::test::TestPeer peer;
//   peer.replyTo("setServoEnable", TestPeer::recv("Task_Recieve"));
//   KelmKernelImpl kernel(peer.host(), peer.port(), ...);
//   auto request = peer.waitForCommand("setServoEnable");
//   ASSERT_TRUE(request);
//   EXPECT_EQ((*request)["enable"], true);
//   peer.sendJson(frame);
//
// A reply echoes the request's `command` and `task_key` and adds the rule's
// members (which win over the echo, for tests of mismatched replies).
// Without a rule, a request gets no answer.
//
// Replies leave no sooner than kMinimumReplyDelay after their request came
// in: a requester files its wait only after the request has gone out, so an
// instant reply on loopback can overtake it and be dropped (about 1 in 500
// round trips). Tests of that very race, and benchmarks, lower it with
// setMinimumReplyDelay().
//
// Threads: all members are safe from any thread. Responders run on the
// connection's thread of the peer as the request arrives; the replies they
// build (delayed by at least the minimum reply delay) go out from one
// sender thread of the peer. Waits are bounded by their time-out.
#pragma once

#include <json/json.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "websocket_server.h"

namespace kelm {
namespace test {

// Builds a JSON object in one expression: jsonObject({{"recv", "Task_Recieve"}, {"x", 1}}).
Json::Value jsonObject(std::initializer_list<std::pair<const char*, Json::Value>> members);
// Compact one-line JSON text of `value`.
std::string toJsonText(const Json::Value& value);

// One message the peer received from a client.
struct ReceivedMessage {
    std::string text;
    Json::Value json;  // null when the text is not JSON
    bool is_json = false;
};

class TestPeer {
public:
    using Milliseconds = std::chrono::milliseconds;
    // Builds the members of the reply to `request`; a null result means no reply.
    using Responder = std::function<Json::Value(const Json::Value& request)>;

    static constexpr Milliseconds kDefaultWait{3000};
    static constexpr Milliseconds kMinimumReplyDelay{5};
    static constexpr const char* kHost = "127.0.0.1";

    // Starts listening at once.
    TestPeer();
    ~TestPeer();
    TestPeer(const TestPeer&) = delete;
    TestPeer& operator=(const TestPeer&) = delete;

    std::string host() const { return kHost; }
    unsigned short port() const;

    // Stops listening and drops every connection; restart() listens again on
    // the same port. Recorded messages and rules are kept.
    void stop();
    void restart();

    // ---- connections ----
    // Waits until exactly `count` clients are connected.
    bool waitForConnections(std::size_t count, Milliseconds timeout = kDefaultWait);
    // Clean close (close frame) of every connection.
    void closeConnections();
    // Abrupt TCP shutdown of every connection, no close frame.
    void dropConnections();

    // ---- what the clients sent ----
    // The first request with this `command` not yet returned by a wait,
    // waiting up to `timeout` for it to arrive. Each request is returned by
    // at most one wait, so repeated waits walk through equal requests in
    // order.
    std::optional<Json::Value> waitForCommand(const std::string& command, Milliseconds timeout = kDefaultWait);
    // Waits until at least `count` messages have been received in all.
    bool waitForCount(std::size_t count, Milliseconds timeout = kDefaultWait);
    std::vector<ReceivedMessage> received() const;
    void clearReceived();

    // ---- answering requests ----
    // {"recv": value}, the usual reply members.
    static Json::Value recv(const std::string& value);
    // The reply to `request`: its `command` and `task_key` with `members` laid over them.
    static Json::Value replyFor(const Json::Value& request, const Json::Value& members);

    // Answers every `command` request with replyFor(request, members), after `delay`.
    void replyTo(const std::string& command, const Json::Value& members, Milliseconds delay = Milliseconds(0));
    // Answers every `command` request with replyFor(request, responder(request)).
    void replyWith(const std::string& command, Responder responder, Milliseconds delay = Milliseconds(0));
    // The least time between a request and its reply (kMinimumReplyDelay at first).
    void setMinimumReplyDelay(Milliseconds delay);

    // ---- pushing to the clients ----
    // Sends to every connected client. True if at least one got it.
    bool sendText(const std::string& text);
    bool sendJson(const Json::Value& value);

    // Direct access for tests of the protocol layer.
    WebSocketServer& server();

private:
    using Clock = std::chrono::steady_clock;
    struct Rule {
        Responder responder;
        Milliseconds delay{0};
    };
    struct Reply {
        WebSocketServer::ConnectionId connection;
        std::string text;
    };

    void onText(WebSocketServer::ConnectionId connection, const std::string& text);
    void notifyChange();
    void answer(WebSocketServer::ConnectionId connection, const Json::Value& request);
    std::optional<Rule> ruleFor(const std::string& command) const;
    // The loop of `sender_`: sends each delayed reply at its due time; replies
    // due at the same time leave in the order they were made.
    void sendDueReplies();

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<ReceivedMessage> received_;
    std::vector<bool> claimed_;
    std::map<std::string, Rule> rules_;
    Milliseconds minimum_reply_delay_ = kMinimumReplyDelay;
    std::unique_ptr<WebSocketServer> server_;
    std::multimap<Clock::time_point, Reply> due_replies_;
    std::condition_variable reply_due_;
    bool stopping_ = false;
    std::thread sender_;
};

// Sends `text` to every client of `peer` every 50 ms while it lives, as a
// controller streams state, so that a client never meets its silence limit,
// also while the peer does not read.
class Chatter {
public:
    Chatter(TestPeer& peer, std::string text);
    ~Chatter();
    Chatter(const Chatter&) = delete;
    Chatter& operator=(const Chatter&) = delete;

private:
    std::atomic<bool> talking_{true};
    std::thread thread_;
};

}  // namespace test
}  // namespace kelm
