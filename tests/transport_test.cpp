// CommunicationClient, WebSocketClient and WebSocketServer over real loopback
// WebSockets against the test peer.
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/WebSocket.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "client_endpoint.h"
#include "log_capture.h"

namespace kelm {
namespace {

using Poco::Net::WebSocket;
using std::chrono::milliseconds;
using test::jsonObject;
using test::LogCapture;
using test::Recorder;
using test::TestPeer;
using test::waitUntil;

// A controller on a bare TCP socket that writes the handshake's answer and
// `first_frames` in one write, as one streaming from its first instant does,
// then only answers pings for `quiet`; it closes when destroyed.
class EagerPeer {
public:
    EagerPeer(std::string first_frames, milliseconds quiet)
        : thread_([this, first_frames, quiet] { serve(first_frames, quiet); }) {}
    ~EagerPeer() {
        done_.set_value();
        thread_.join();
    }
    unsigned short port() const { return listener_.address().port(); }

    std::atomic<int> pings{0};
    std::atomic<bool> quiet_over{false};

private:
    struct Handshake : WebSocket {
        using WebSocket::computeAccept;
    };

    void serve(const std::string& first_frames, milliseconds quiet) {
        if (!listener_.poll(Poco::Timespan(5, 0), Poco::Net::Socket::SELECT_READ)) return;
        Poco::Net::StreamSocket socket = listener_.acceptConnection();
        socket.setReceiveTimeout(Poco::Timespan(5, 0));
        std::string request(4096, '\0');
        std::size_t length = 0;
        while (request.find("\r\n\r\n") == std::string::npos && length < request.size()) {
            const int n = socket.receiveBytes(&request[length], static_cast<int>(request.size() - length));
            if (n <= 0) return;
            length += static_cast<std::size_t>(n);
        }
        const std::size_t key_at = request.find("Sec-WebSocket-Key: ") + 19;
        const std::string answer =
            "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Accept: " +
            Handshake::computeAccept(request.substr(key_at, request.find('\r', key_at) - key_at)) + "\r\n\r\n" +
            first_frames;
        socket.sendBytes(answer.data(), static_cast<int>(answer.size()));
        answerPings(socket, std::chrono::steady_clock::now() + quiet);
        quiet_over = true;
        done_.get_future().wait_for(std::chrono::seconds(10));
    }

    // Reads the client's frames (short, masked: 6 bytes of header) and answers each ping.
    void answerPings(Poco::Net::StreamSocket& socket, std::chrono::steady_clock::time_point end) {
        unsigned char header[6];
        while (std::chrono::steady_clock::now() < end) {
            if (!socket.poll(Poco::Timespan(10000), Poco::Net::Socket::SELECT_READ)) continue;
            if (socket.receiveBytes(header, sizeof header) != sizeof header) return;
            std::string payload(header[1] & 0x7f, '\0');
            if (!payload.empty()) socket.receiveBytes(&payload[0], static_cast<int>(payload.size()));
            if ((header[0] & 0x0f) != WebSocket::FRAME_OP_PING) continue;
            ++pings;
            socket.sendBytes("\x8a\x00", 2);  // an empty pong
        }
    }

    Poco::Net::ServerSocket listener_{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::promise<void> done_;
    std::thread thread_;
};

class TransportTest : public ::testing::Test {
protected:
    bool connectAndWait() { return endpoint.connect() == 1 && peer.waitForConnections(1); }
    int send(const char* command) { return client.sendRequest(jsonObject({{"command", command}})); }
    bool sendFrame(const std::string& payload, int flags) {
        return peer.server().sendFrame(peer.server().connectionIds().at(0), payload, flags);
    }

    TestPeer peer;
    test::ClientEndpoint endpoint{peer};
    CommunicationClient& client = endpoint.client;
    Recorder<std::string>& messages = endpoint.messages;
    Recorder<bool>& events = endpoint.events;
};

TEST_F(TransportTest, ConnectReportsUpBeforeReturningDisconnectDownOnceAndReconnectReplaces) {
    EXPECT_FALSE(client.isConnected());
    ASSERT_TRUE(connectAndWait());
    EXPECT_EQ(events.values(), std::vector<bool>{true});
    ASSERT_EQ(endpoint.connect(), 1);
    EXPECT_EQ(events.values(), (std::vector<bool>{true, false, true}));
    EXPECT_TRUE(peer.waitForConnections(1));
    EXPECT_EQ(client.sendRequest(jsonObject({{"command", "say"}, {"text", "中文 ü"}, {"n", 1.5}})), 1);
    ASSERT_TRUE(peer.waitForCount(1));
    EXPECT_EQ(peer.received()[0].text, "{\"command\":\"say\",\"n\":1.5,\"text\":\"中文 ü\"}");  // compact

    client.disConnect();
    client.disConnect();
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(events.values(), (std::vector<bool>{true, false, true, false}));
    EXPECT_TRUE(peer.waitForConnections(0));
    EXPECT_EQ(send("x"), -1);
}

TEST_F(TransportTest, ConnectFailsWithoutReportOnBadInputOrUnreachablePeer) {
    LogCapture log;
    EXPECT_EQ(client.connect(peer.host(), peer.port(), 1.0), -1);
    EXPECT_TRUE(log.contains("no socket client", LOG_ERROR));
    client.setClientHandle(std::make_shared<WebSocketClient>(peer.host(), peer.port()));
    EXPECT_EQ(client.connect(peer.host(), 0, 1.0), -1);
    EXPECT_EQ(client.connect(peer.host(), 70000, 1.0), -1);
    EXPECT_EQ(client.connect(peer.host(), peer.port(), 0.0), -1);
    EXPECT_EQ(client.connect(peer.host(), peer.port(), std::nan("")), -1);
    EXPECT_TRUE(log.contains("port out of range", LOG_ERROR));
    EXPECT_TRUE(log.contains("is not a positive number", LOG_ERROR));

    // A listener that completes the TCP handshake but never answers the upgrade.
    Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    client.setClientHandle(std::make_shared<WebSocketClient>("127.0.0.1", silent.address().port()));
    EXPECT_EQ(client.connect("127.0.0.1", silent.address().port(), 0.2), -1);
    peer.stop();
    EXPECT_EQ(endpoint.connect(), -1);
    EXPECT_TRUE(log.contains("failed", LOG_ERROR));
    EXPECT_TRUE(events.values().empty());

    peer.restart();
    EXPECT_EQ(endpoint.connect(), 1);
}

TEST_F(TransportTest, MessagesInTheHandshakeAnswersWriteArriveAtOnceAndAQuietPeerThatAnswersPingsStays) {
    EagerPeer eager(std::string("\x81\x05"
                                "first"
                                "\x81\x06"
                                "second"),
                    milliseconds(2000));  // two text frames
    Recorder<int> pings_before_delivery;
    endpoint.hook = [&](const std::string&) { pings_before_delivery.add(eager.pings.load()); };
    client.setClientHandle(std::make_shared<WebSocketClient>("127.0.0.1", eager.port()));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(client.connect("127.0.0.1", eager.port(), 1.0), 1);
    ASSERT_TRUE(messages.waitForCount(2));
    std::printf("both messages taken over %.1f ms after the connect began\n",
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    EXPECT_EQ(messages.values(), (std::vector<std::string>{"first", "second"}));
    // Not waiting for the next bytes to come, which would be the pong to the
    // ping after a quiet second.
    EXPECT_EQ(pings_before_delivery.values(), (std::vector<int>{0, 0}));

    ASSERT_TRUE(waitUntil([&] { return eager.quiet_over.load(); }, milliseconds(10000)));
    EXPECT_GE(eager.pings.load(), 1);
    EXPECT_TRUE(client.isConnected());
    EXPECT_EQ(events.values(), std::vector<bool>{true});
}

// A stopping peer drops its connections, as the TCP shutdown does.
TEST_F(TransportTest, PeerEndingIsOneLossReportAndReconnectWorks) {
    const std::pair<const char*, void (TestPeer::*)()> endings[] = {{"close frame", &TestPeer::closeConnections},
                                                                    {"TCP shutdown", &TestPeer::dropConnections}};
    ASSERT_TRUE(connectAndWait());
    std::vector<bool> expected{true};
    for (const auto& [name, end] : endings) {
        SCOPED_TRACE(name);
        (peer.*end)();
        expected.push_back(false);
        ASSERT_TRUE(events.waitFor(expected));
        EXPECT_FALSE(client.isConnected());
        EXPECT_EQ(send("lost"), -1);
        ASSERT_TRUE(connectAndWait());
        expected.push_back(true);
        EXPECT_EQ(events.values(), expected);
    }
}

// Payload sizes around the 7-bit, 16-bit and 64-bit length encodings.
class MessageSizeTest : public TransportTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(MessageSizeTest, ArrivesWholeInBothDirections) {
    const std::size_t size = GetParam();
    ASSERT_TRUE(connectAndWait());
    // {"p":"..."} is 8 bytes of envelope around the padding.
    ASSERT_EQ(client.sendRequest(jsonObject({{"p", std::string(size - 8, 'c')}})), 1);
    ASSERT_TRUE(peer.waitForCount(1));
    EXPECT_EQ(peer.received()[0].text.size(), size);
    EXPECT_TRUE(peer.received()[0].is_json);

    const std::string text = "<" + std::string(size - 2, 's') + ">";
    ASSERT_TRUE(peer.sendText(text));
    ASSERT_TRUE(messages.waitForCount(1));
    EXPECT_EQ(messages.values()[0], text);
}

INSTANTIATE_TEST_SUITE_P(FrameLengthBoundaries, MessageSizeTest, ::testing::Values(125, 126, 65535, 65536, 1000000));

TEST_F(TransportTest, FragmentsWithPingsBetweenArriveWholeAndAStrayContinuationEndsTheConnection) {
    LogCapture log;
    ASSERT_TRUE(connectAndWait());
    const std::string big = std::string(99999, 'f') + "!";
    ASSERT_TRUE(peer.server().sendFragmentedText(peer.server().connectionIds().at(0), big, 999));
    ASSERT_TRUE(sendFrame("ab", WebSocket::FRAME_OP_TEXT));
    ASSERT_TRUE(sendFrame("ping", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PING));
    ASSERT_TRUE(sendFrame("cd", WebSocket::FRAME_OP_CONT));
    ASSERT_TRUE(sendFrame("ef", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_CONT));
    ASSERT_TRUE(sendFrame("", WebSocket::FRAME_TEXT));
    ASSERT_TRUE(messages.waitForCount(3));
    EXPECT_EQ(messages.values(), (std::vector<std::string>{big, "abcdef", ""}));
    EXPECT_TRUE(client.isConnected());

    sendFrame("stray", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_CONT);
    ASSERT_TRUE(events.waitFor({true, false}));
    EXPECT_TRUE(log.contains("protocol error", LOG_ERROR));
    EXPECT_EQ(messages.values().size(), 3u);
}

TEST_F(TransportTest, TenThousandMessagesArriveInOrder) {
    ASSERT_TRUE(connectAndWait());
    constexpr int kCount = 10000;
    for (int i = 0; i < kCount; ++i) ASSERT_TRUE(peer.sendText(std::to_string(i)));
    ASSERT_TRUE(messages.waitForCount(kCount, milliseconds(20000)));
    const auto arrived = messages.values();
    ASSERT_EQ(arrived.size(), static_cast<std::size_t>(kCount));
    for (int i = 0; i < kCount; ++i) ASSERT_EQ(arrived[i], std::to_string(i));
}

TEST_F(TransportTest, ConcurrentSendersNeverTearOrReorderTheirMessages) {
    ASSERT_TRUE(connectAndWait());
    constexpr int kThreads = 4;
    constexpr int kPerThread = 500;
    auto padding = [](int thread) { return static_cast<std::size_t>(100 + 300 * thread); };
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i)
                EXPECT_EQ(
                    client.sendRequest(jsonObject({{"thread", t}, {"seq", i}, {"pad", std::string(padding(t), 'p')}})),
                    1);
        });
    }
    for (auto& sender : senders) sender.join();
    ASSERT_TRUE(peer.waitForCount(kThreads * kPerThread, milliseconds(20000)));
    std::vector<int> next(kThreads, 0);
    for (const auto& message : peer.received()) {
        ASSERT_TRUE(message.is_json) << message.text.substr(0, 80);
        const int thread = message.json["thread"].asInt();
        ASSERT_EQ(message.json["seq"].asInt(), next[thread]++) << "thread " << thread;
        ASSERT_EQ(message.json["pad"].asString().size(), padding(thread));
    }
}

TEST_F(TransportTest, ListenerMayThrowSendAndDisconnectOnTheReceiveThread) {
    LogCapture log;
    client.connect_callback = [this](bool up) {
        events.add(up);
        throw std::runtime_error("connect callback broke");
    };
    endpoint.hook = [this](const std::string& message) {
        if (message == "throw") throw std::runtime_error("listener broke");
        if (message == "throw-int") throw 42;
        if (message == "ping-me") send("pong-from-callback");
        if (message == "bye") client.disConnect();
    };
    ASSERT_TRUE(connectAndWait());
    for (const char* text : {"throw", "throw-int", "ping-me", "bye", "never delivered"}) peer.sendText(text);
    EXPECT_TRUE(peer.waitForCommand("pong-from-callback"));
    ASSERT_TRUE(events.waitFor({true, false}));
    EXPECT_TRUE(peer.waitForConnections(0));
    EXPECT_EQ(messages.values(), (std::vector<std::string>{"throw", "throw-int", "ping-me", "bye"}));
    EXPECT_TRUE(log.contains("listener broke", LOG_ERROR));
    EXPECT_TRUE(log.contains("unknown exception", LOG_ERROR));
    EXPECT_TRUE(log.contains("connect callback broke", LOG_ERROR));

    ASSERT_EQ(endpoint.connect(), 1);  // joins the finished receive thread
    peer.sendText("again");
    EXPECT_TRUE(messages.waitForCount(5));
}

TEST_F(TransportTest, LossCallbackReconnectsOnTheReceiveThreadButNotDuringADisconnect) {
    LogCapture log;
    Recorder<int> reconnects;
    client.connect_callback = [&](bool up) {
        events.add(up);
        if (!up) reconnects.add(client.connect(peer.host(), peer.port(), 1.0));
    };
    ASSERT_TRUE(connectAndWait());
    peer.sendText("before the loss");
    ASSERT_TRUE(messages.waitForCount(1));
    peer.dropConnections();
    ASSERT_TRUE(events.waitFor({true, false, true}));
    EXPECT_EQ(reconnects.values(), std::vector<int>{1});
    ASSERT_TRUE(peer.waitForConnections(1));
    peer.sendText("after reconnect");
    EXPECT_TRUE(messages.waitForCount(2));
    EXPECT_EQ(endpoint.threadCount(), 1u) << "the reconnect started a second receive thread";

    client.disConnect();
    EXPECT_EQ(reconnects.values(), (std::vector<int>{1, -1}));
    EXPECT_TRUE(log.contains("another thread is connecting or disconnecting", LOG_ERROR));
    EXPECT_FALSE(client.isConnected());
}

// A listener that does nothing after its hook, which may destroy the client
// that called it: that client's receive thread then ends unjoined.
struct HookListener : public iRecieveListener {
    void onReceive(const std::string& message) override { hook(message); }
    std::function<void(const std::string&)> hook;
};

TEST_F(TransportTest, DestructionWaitsForTheCallbackInProgressAndMayHappenInsideIt) {
    std::atomic<int> stage{0};
    HookListener listener;
    std::unique_ptr<CommunicationClient> owner;
    listener.hook = [&](const std::string& message) {
        stage = 1;
        if (message == "slow") std::this_thread::sleep_for(milliseconds(100));
        if (message == "destroy") owner.reset();
        stage = 2;
    };
    for (const std::string message : {"slow", "destroy"}) {
        stage = 0;
        owner = std::make_unique<CommunicationClient>();
        owner->attachListener(&listener);
        owner->setClientHandle(std::make_shared<WebSocketClient>(peer.host(), peer.port()));
        ASSERT_TRUE(owner->connect(peer.host(), peer.port(), 1.0) == 1 && peer.waitForConnections(1));
        peer.sendText(message);
        ASSERT_TRUE(waitUntil([&] { return stage.load() > 0; }));
        if (message == "slow") {
            owner.reset();
            EXPECT_EQ(stage.load(), 2);  // the destructor waited for the callback
        }
        EXPECT_TRUE(waitUntil([&] { return stage.load() == 2; }) && peer.waitForConnections(0)) << message;
    }
}

}  // namespace
}  // namespace kelm
