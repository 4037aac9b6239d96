// CommunicationClient, WebSocketClient and WebSocketServer over real loopback
// WebSockets against the test peer.
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/WebSocket.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "communication_client.h"
#include "log_capture.h"
#include "test_peer.h"
#include "websocket_client.h"

namespace kelm {
namespace {

using std::chrono::milliseconds;
using test::LogCapture;
using test::TestPeer;
using test::waitUntil;

// Records what the client delivers; an optional hook runs inside onReceive.
class RecordingListener : public iRecieveListener {
public:
    void onReceive(const std::string& message) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            messages_.push_back(message);
        }
        arrived_.notify_all();
        if (hook) hook(message);
    }

    bool waitForCount(std::size_t count, milliseconds timeout = milliseconds(5000)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, timeout, [&] { return messages_.size() >= count; });
    }

    std::vector<std::string> messages() {
        std::lock_guard<std::mutex> lock(mutex_);
        return messages_;
    }

    std::function<void(const std::string&)> hook;

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::string> messages_;
};

// Records connect_callback reports.
class ConnectionEvents {
public:
    std::function<void(bool)> callback() {
        return [this](bool up) {
            std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(up);
        };
    }
    std::vector<bool> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    bool waitFor(const std::vector<bool>& expected) {
        return waitUntil([&] { return events() == expected; }, milliseconds(5000));
    }

private:
    std::mutex mutex_;
    std::vector<bool> events_;
};

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override {
        client.attachListener(&listener);
        client.connect_callback = events.callback();
    }

    void TearDown() override {
        client.disConnect();
        client.releaseListener(&listener);
    }

    int connectToPeer(double timeout = 1.0) {
        client.setClientHandle(std::make_shared<WebSocketClient>(peer.host(), peer.port()));
        return client.connect(peer.host(), peer.port(), timeout);
    }

    TestPeer peer;
    RecordingListener listener;
    ConnectionEvents events;
    CommunicationClient client;
};

// ---- connection lifecycle ----

TEST_F(TransportTest, ConnectReportsUpBeforeReturningAndDisconnectReportsDownOnce) {
    EXPECT_FALSE(client.isConnected());
    ASSERT_EQ(connectToPeer(), 1);
    EXPECT_TRUE(client.isConnected());
    EXPECT_EQ(events.events(), std::vector<bool>{true});
    EXPECT_TRUE(peer.waitForConnections(1));

    client.disConnect();
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(events.events(), (std::vector<bool>{true, false}));
    EXPECT_TRUE(peer.waitForConnections(0));

    client.disConnect();
    EXPECT_EQ(events.events(), (std::vector<bool>{true, false}));
}

TEST_F(TransportTest, ConnectOnStandingConnectionReplacesIt) {
    ASSERT_EQ(connectToPeer(), 1);
    ASSERT_EQ(connectToPeer(), 1);
    EXPECT_EQ(events.events(), (std::vector<bool>{true, false, true}));
    EXPECT_TRUE(peer.waitForConnections(1));
    EXPECT_EQ(client.sendRequest(test::jsonObject({{"command", "after"}})), 1);
    EXPECT_TRUE(peer.waitForCommand("after"));
}

TEST_F(TransportTest, ConnectFailsWithoutReportOnBadInputOrUnreachablePeer) {
    LogCapture log;
    client.setClientHandle(std::make_shared<WebSocketClient>(peer.host(), peer.port()));
    EXPECT_EQ(client.connect(peer.host(), 0, 1.0), -1);
    EXPECT_EQ(client.connect(peer.host(), 70000, 1.0), -1);
    EXPECT_EQ(client.connect(peer.host(), peer.port(), 0.0), -1);
    EXPECT_EQ(client.connect(peer.host(), peer.port(), std::nan("")), -1);
    EXPECT_TRUE(log.contains("port out of range", LOG_ERROR));
    EXPECT_TRUE(log.contains("is not a positive number", LOG_ERROR));

    peer.stop();
    EXPECT_EQ(client.connect(peer.host(), peer.port(), 1.0), -1);
    EXPECT_TRUE(log.contains("failed", LOG_ERROR));
    EXPECT_FALSE(client.isConnected());
    EXPECT_TRUE(events.events().empty());

    peer.restart();
    EXPECT_EQ(client.connect(peer.host(), peer.port(), 1.0), 1);
}

TEST_F(TransportTest, ConnectWithoutSocketClientFails) {
    LogCapture log;
    EXPECT_EQ(client.connect(peer.host(), peer.port(), 1.0), -1);
    EXPECT_TRUE(log.contains("no socket client", LOG_ERROR));
}

TEST_F(TransportTest, HandshakeThatNeverCompletesFailsAfterTheTimeout) {
    // The kernel completes the TCP handshake into the backlog, but nobody
    // ever answers the WebSocket upgrade.
    Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    client.setClientHandle(std::make_shared<WebSocketClient>("127.0.0.1", silent.address().port()));
    EXPECT_EQ(client.connect("127.0.0.1", silent.address().port(), 0.2), -1);
    EXPECT_TRUE(events.events().empty());
}

struct PeerEnding {
    const char* name;
    void (*end)(TestPeer&);
};

class PeerEndingTest : public TransportTest, public ::testing::WithParamInterface<PeerEnding> {};

TEST_P(PeerEndingTest, LossIsReportedOnceAndReconnectWorks) {
    ASSERT_EQ(connectToPeer(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    GetParam().end(peer);
    ASSERT_TRUE(events.waitFor({true, false}));
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(client.sendRequest(test::jsonObject({{"command", "lost"}})), -1);

    peer.restart();
    ASSERT_EQ(connectToPeer(), 1);
    EXPECT_EQ(events.events(), (std::vector<bool>{true, false, true}));
}

INSTANTIATE_TEST_SUITE_P(Endings, PeerEndingTest,
                         ::testing::Values(PeerEnding{"CloseFrame", [](TestPeer& p) { p.closeConnections(); }},
                                           PeerEnding{"TcpShutdown", [](TestPeer& p) { p.dropConnections(); }},
                                           PeerEnding{"PeerStopped", [](TestPeer& p) { p.stop(); }}),
                         [](const ::testing::TestParamInfo<PeerEnding>& info) { return info.param.name; });

// ---- message integrity ----

TEST_F(TransportTest, RequestsGoOutAsCompactJsonWithUtf8KeptAsIs) {
    ASSERT_EQ(connectToPeer(), 1);
    Json::Value request;
    request["command"] = "say";
    request["text"] = "中文 ünïcode";
    request["list"].append(1.5);
    ASSERT_EQ(client.sendRequest(request), 1);
    ASSERT_TRUE(peer.waitForCount(1));
    EXPECT_EQ(peer.received()[0].text, "{\"command\":\"say\",\"list\":[1.5],\"text\":\"中文 ünïcode\"}");
}

TEST_F(TransportTest, SendWithoutConnectionFails) {
    EXPECT_EQ(client.sendRequest(test::jsonObject({{"command", "x"}})), -1);
    ASSERT_EQ(connectToPeer(), 1);
    client.disConnect();
    EXPECT_EQ(client.sendRequest(test::jsonObject({{"command", "x"}})), -1);
}

// Payload sizes around the 7-bit, 16-bit and 64-bit length encodings.
class MessageSizeTest : public TransportTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(MessageSizeTest, ArrivesWholeInBothDirections) {
    const std::size_t size = GetParam();
    ASSERT_EQ(connectToPeer(), 1);

    // {"p":"xxx..."} is 8 bytes of envelope around the padding.
    Json::Value request;
    request["p"] = std::string(size - 8, 'c');
    ASSERT_EQ(client.sendRequest(request), 1);
    ASSERT_TRUE(peer.waitForCount(1));
    EXPECT_EQ(peer.received()[0].text.size(), size);
    EXPECT_TRUE(peer.received()[0].is_json);

    std::string text(size, 's');
    text.front() = '<';
    text.back() = '>';
    ASSERT_TRUE(peer.sendText(text));
    ASSERT_TRUE(listener.waitForCount(1));
    EXPECT_EQ(listener.messages()[0], text);
}

INSTANTIATE_TEST_SUITE_P(FrameLengthBoundaries, MessageSizeTest,
                         ::testing::Values(125, 126, 127, 65535, 65536, 1000000, 3000000));

TEST_F(TransportTest, FragmentedMessagesWithPingsBetweenFragmentsArriveWhole) {
    ASSERT_EQ(connectToPeer(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    const auto id = peer.server().connectionIds().at(0);
    std::string big(100000, 'f');
    big.back() = '!';
    ASSERT_TRUE(peer.server().sendFragmentedText(id, big, 999));

    using Poco::Net::WebSocket;
    ASSERT_TRUE(peer.server().sendFrame(id, "ab", WebSocket::FRAME_OP_TEXT));
    ASSERT_TRUE(peer.server().sendFrame(id, "ping", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PING));
    ASSERT_TRUE(peer.server().sendFrame(id, "cd", WebSocket::FRAME_OP_CONT));
    ASSERT_TRUE(peer.server().sendFrame(id, "ef", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_CONT));
    ASSERT_TRUE(peer.server().sendFrame(id, "", WebSocket::FRAME_TEXT));

    ASSERT_TRUE(listener.waitForCount(3));
    EXPECT_EQ(listener.messages(), (std::vector<std::string>{big, "abcdef", ""}));
    EXPECT_TRUE(client.isConnected());
}

TEST_F(TransportTest, ContinuationWithoutMessageEndsTheConnection) {
    LogCapture log;
    ASSERT_EQ(connectToPeer(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    using Poco::Net::WebSocket;
    peer.server().sendFrame(peer.server().connectionIds().at(0), "stray",
                            WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_CONT);
    ASSERT_TRUE(events.waitFor({true, false}));
    EXPECT_TRUE(log.contains("protocol error", LOG_ERROR));
    EXPECT_TRUE(listener.messages().empty());
}

TEST_F(TransportTest, TenThousandMessagesArriveInOrder) {
    ASSERT_EQ(connectToPeer(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    constexpr int kCount = 10000;
    for (int i = 0; i < kCount; ++i) ASSERT_TRUE(peer.sendText(std::to_string(i)));
    ASSERT_TRUE(listener.waitForCount(kCount, milliseconds(20000)));
    const auto messages = listener.messages();
    ASSERT_EQ(messages.size(), static_cast<std::size_t>(kCount));
    for (int i = 0; i < kCount; ++i) ASSERT_EQ(messages[i], std::to_string(i)) << "at index " << i;
}

TEST_F(TransportTest, ConcurrentSendersNeverTearOrReorderTheirMessages) {
    ASSERT_EQ(connectToPeer(), 1);
    constexpr int kThreads = 4;
    constexpr int kPerThread = 500;
    std::vector<std::thread> senders;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                Json::Value request;
                request["thread"] = t;
                request["seq"] = i;
                request["pad"] = std::string(static_cast<std::size_t>(100 + 300 * t), 'p');
                if (client.sendRequest(request) != 1) ++failures;
            }
        });
    }
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(failures, 0);
    ASSERT_TRUE(peer.waitForCount(kThreads * kPerThread, milliseconds(20000)));

    std::vector<int> next(kThreads, 0);
    for (const auto& message : peer.received()) {
        ASSERT_TRUE(message.is_json) << message.text.substr(0, 80);
        const int thread = message.json["thread"].asInt();
        ASSERT_EQ(message.json["seq"].asInt(), next[thread]++) << "thread " << thread;
        ASSERT_EQ(message.json["pad"].asString().size(), static_cast<std::size_t>(100 + 300 * thread));
    }
}

// ---- callbacks on the receive thread ----

TEST_F(TransportTest, ThrowingListenerAndCallbackDoNotStopTheReceiveThread) {
    LogCapture log;
    client.connect_callback = [this](bool up) {
        events.callback()(up);
        throw std::runtime_error("connect callback broke");
    };
    listener.hook = [](const std::string& message) {
        if (message == "throw") throw std::runtime_error("listener broke");
        if (message == "throw-int") throw 42;
    };
    ASSERT_EQ(connectToPeer(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    peer.sendText("throw");
    peer.sendText("throw-int");
    peer.sendText("after");
    ASSERT_TRUE(listener.waitForCount(3));
    EXPECT_EQ(listener.messages().back(), "after");
    EXPECT_TRUE(client.isConnected());
    EXPECT_TRUE(log.contains("listener broke", LOG_ERROR));
    EXPECT_TRUE(log.contains("unknown exception", LOG_ERROR));
    EXPECT_TRUE(log.contains("connect callback broke", LOG_ERROR));
}

TEST_F(TransportTest, ListenerMaySendAndDisconnectOnTheReceiveThread) {
    listener.hook = [this](const std::string& message) {
        if (message == "ping-me") client.sendRequest(test::jsonObject({{"command", "pong-from-callback"}}));
        if (message == "bye") client.disConnect();
    };
    ASSERT_EQ(connectToPeer(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    peer.sendText("ping-me");
    EXPECT_TRUE(peer.waitForCommand("pong-from-callback"));

    peer.sendText("bye");
    peer.sendText("never delivered");
    ASSERT_TRUE(events.waitFor({true, false}));
    EXPECT_FALSE(client.isConnected());
    EXPECT_TRUE(peer.waitForConnections(0));

    // The finished receive thread is joined by the next connect.
    ASSERT_EQ(connectToPeer(), 1);
    peer.sendText("again");
    ASSERT_TRUE(waitUntil([&] { return listener.messages().back() == "again"; }));
    for (const auto& message : listener.messages()) EXPECT_NE(message, "never delivered");
}

TEST_F(TransportTest, LossCallbackMayReconnectOnTheReceiveThread) {
    std::atomic<int> reconnect_result{0};
    client.connect_callback = [&](bool up) {
        events.callback()(up);
        if (!up && reconnect_result == 0) reconnect_result = client.connect(peer.host(), peer.port(), 1.0);
    };
    ASSERT_EQ(connectToPeer(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    peer.dropConnections();
    ASSERT_TRUE(waitUntil([&] { return reconnect_result != 0; }));
    EXPECT_EQ(reconnect_result, 1);
    ASSERT_TRUE(events.waitFor({true, false, true}));
    EXPECT_TRUE(client.isConnected());
    ASSERT_TRUE(peer.waitForConnections(1));
    peer.sendText("after reconnect");
    EXPECT_TRUE(listener.waitForCount(1));
}

TEST_F(TransportTest, LossCallbackCannotReconnectWhileAnotherThreadDisconnects) {
    LogCapture log;
    std::atomic<int> reconnect_result{0};
    client.connect_callback = [&](bool up) {
        events.callback()(up);
        if (!up) reconnect_result = client.connect(peer.host(), peer.port(), 1.0);
    };
    ASSERT_EQ(connectToPeer(), 1);
    client.disConnect();
    EXPECT_EQ(reconnect_result, -1);
    EXPECT_TRUE(log.contains("another thread is connecting or disconnecting", LOG_ERROR));
    EXPECT_FALSE(client.isConnected());
}

TEST_F(TransportTest, ReleaseListenerWaitsForTheDeliveryInProgress) {
    std::atomic<bool> in_callback{false};
    std::atomic<bool> callback_done{false};
    listener.hook = [&](const std::string&) {
        in_callback = true;
        std::this_thread::sleep_for(milliseconds(100));
        callback_done = true;
    };
    ASSERT_EQ(connectToPeer(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    peer.sendText("slow");
    ASSERT_TRUE(waitUntil([&] { return in_callback.load(); }));
    client.releaseListener(&listener);
    EXPECT_TRUE(callback_done);
}

TEST_F(TransportTest, DestructionWaitsForTheCallbackInProgress) {
    std::atomic<bool> in_callback{false};
    std::atomic<bool> callback_done{false};
    RecordingListener slow;
    slow.hook = [&](const std::string&) {
        in_callback = true;
        std::this_thread::sleep_for(milliseconds(100));
        callback_done = true;
    };
    {
        CommunicationClient doomed;
        doomed.attachListener(&slow);
        doomed.setClientHandle(std::make_shared<WebSocketClient>(peer.host(), peer.port()));
        ASSERT_EQ(doomed.connect(peer.host(), peer.port(), 1.0), 1);
        ASSERT_TRUE(peer.waitForConnections(1));
        peer.sendText("slow");
        ASSERT_TRUE(waitUntil([&] { return in_callback.load(); }));
    }
    EXPECT_TRUE(callback_done);
}

TEST_F(TransportTest, ClientDestroyedFromItsOwnCallback) {
    auto doomed = std::make_unique<CommunicationClient>();
    RecordingListener own;
    std::atomic<bool> destroyed{false};
    own.hook = [&](const std::string&) {
        doomed.reset();
        destroyed = true;
    };
    doomed->attachListener(&own);
    doomed->setClientHandle(std::make_shared<WebSocketClient>(peer.host(), peer.port()));
    ASSERT_EQ(doomed->connect(peer.host(), peer.port(), 1.0), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    peer.sendText("destroy");
    ASSERT_TRUE(waitUntil([&] { return destroyed.load(); }));
    EXPECT_TRUE(peer.waitForConnections(0));
}

// ---- the server on its own ----

// A raw Poco client, to send frames the CommunicationClient never sends.
class RawClient {
public:
    RawClient(unsigned short port, const std::string& path)
        : session_("127.0.0.1", port),
          request_(Poco::Net::HTTPRequest::HTTP_GET, path, Poco::Net::HTTPRequest::HTTP_1_1),
          socket_(session_, request_, response_) {}
    Poco::Net::WebSocket& socket() { return socket_; }

private:
    Poco::Net::HTTPClientSession session_;
    Poco::Net::HTTPRequest request_;
    Poco::Net::HTTPResponse response_;
    Poco::Net::WebSocket socket_;
};

TEST(WebSocketServerTest, ReassemblesClientFragmentsOnAnyPathAndAnswersPings) {
    TestPeer peer;
    RawClient raw(peer.port(), "/some/path");
    using Poco::Net::WebSocket;
    raw.socket().sendFrame("{\"command\":", 11, WebSocket::FRAME_OP_TEXT);
    raw.socket().sendFrame("hi", 2, WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PING);
    raw.socket().sendFrame("\"frag\"}", 7, WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_CONT);
    EXPECT_TRUE(peer.waitForCommand("frag"));

    char buffer[16];
    int flags = 0;
    const int length = raw.socket().receiveFrame(buffer, sizeof buffer, flags);
    EXPECT_EQ(flags & WebSocket::FRAME_OP_BITMASK, WebSocket::FRAME_OP_PONG);
    EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(length)), "hi");

    raw.socket().shutdown();
    EXPECT_TRUE(peer.waitForConnections(0));
}

TEST(WebSocketServerTest, RefusesPlainHttpAndCountsConnections) {
    std::atomic<int> opened{0};
    std::atomic<int> closed{0};
    WebSocketServer server("127.0.0.1", 0,
                           {[&](WebSocketServer::ConnectionId) { ++opened; }, nullptr,
                            [&](WebSocketServer::ConnectionId) { ++closed; }});
    server.start();

    Poco::Net::HTTPClientSession plain("127.0.0.1", server.port());
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/");
    plain.sendRequest(request);
    Poco::Net::HTTPResponse response;
    plain.receiveResponse(response);
    EXPECT_EQ(response.getStatus(), Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);

    {
        RawClient first(server.port(), "/");
        RawClient second(server.port(), "/");
        ASSERT_TRUE(waitUntil([&] { return server.connectionCount() == 2; }));
        EXPECT_EQ(server.broadcastText("all"), 2u);
        EXPECT_FALSE(server.sendText(999, "nobody"));
        server.stop();
    }
    EXPECT_EQ(opened, 2);
    EXPECT_EQ(closed, 2);
    EXPECT_EQ(server.connectionCount(), 0u);
    EXPECT_FALSE(server.running());
}

}  // namespace
}  // namespace kelm
