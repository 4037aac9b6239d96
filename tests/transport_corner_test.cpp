// Corners of the connection's threads: a reconnect from inside a callback
// (from the loss callback: the transport test), two connections whose
// callbacks disconnect each other, and a peer that stops reading a stream.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "client_endpoint.h"

namespace kelm {
namespace {

using std::chrono::milliseconds;
using Endpoint = test::ClientEndpoint;
using test::Recorder;
using test::TestPeer;
using test::waitUntil;

// A test that deadlocks cannot clean up: end the process with a message
// instead of hanging until the CTest time-out.
void exitIfStuck(bool done, const char* what) {
    if (done) return;
    std::fprintf(stderr, "stuck: %s\n", what);
    std::_Exit(1);
}

TEST(TransportCorner, ReconnectFromACallbackKeepsOneDeliveringThread) {
    TestPeer peer;
    Endpoint endpoint(peer);
    Recorder<int> results;
    endpoint.hook = [&](const std::string& message) {
        if (message != "reconnect") return;
        results.add(endpoint.connect());
        // The new connection has a message waiting while this callback runs on.
        peer.waitForConnections(1);
        peer.sendText("on the new connection");
        std::this_thread::sleep_for(milliseconds(100));
    };
    ASSERT_EQ(endpoint.connect(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    peer.sendText("reconnect");
    ASSERT_TRUE(endpoint.messages.waitForCount(2));
    EXPECT_EQ(results.values(), std::vector<int>{1});
    EXPECT_EQ(endpoint.events.values(), (std::vector<bool>{true, false, true}));
    EXPECT_EQ(endpoint.max_inside.load(), 1) << "two threads delivered at once";
    EXPECT_EQ(endpoint.threadCount(), 1u);
    EXPECT_TRUE(endpoint.client.isConnected());
}

TEST(TransportCorner, TwoConnectionsWhoseCallbacksDisconnectEachOtherBothEnd) {
    TestPeer peer;
    Endpoint first(peer), second(peer);
    std::atomic<int> arrived{0};
    auto crossing = [&](Endpoint& other) {
        return [&](const std::string&) {
            ++arrived;
            waitUntil([&] { return arrived.load() == 2; }, milliseconds(2000));  // both callbacks are inside
            other.client.disConnect();
        };
    };
    first.hook = crossing(second);
    second.hook = crossing(first);
    ASSERT_EQ(first.connect(), 1);
    ASSERT_EQ(second.connect(), 1);
    ASSERT_TRUE(peer.waitForConnections(2));
    peer.sendText("cross");
    exitIfStuck(first.events.waitFor({true, false}) && second.events.waitFor({true, false}),
                "two connections disconnecting each other");
    EXPECT_TRUE(peer.waitForConnections(0));
    EXPECT_EQ(first.connect(), 1) << "the stopped thread is joined";
}

TEST(TransportCorner, StreamToAPeerThatStopsReadingIsBoundedAndNeverBlocks) {
    TestPeer peer;
    Endpoint endpoint(peer);
    ASSERT_EQ(endpoint.connect(), 1);
    ASSERT_TRUE(peer.waitForConnections(1));
    const auto connection = peer.server().connectionIds().at(0);
    peer.server().stallReading(connection, milliseconds(60000));  // until the streams below are dropped
    test::Chatter chatter(peer, "{}");
    ASSERT_EQ(endpoint.client.sendRequest(test::jsonObject({{"command", "last read"}})), 1);
    ASSERT_TRUE(peer.waitForCount(1));
    const Json::Value target = test::jsonObject({{"command", "target"}, {"pad", std::string(1000, 't')}});
    int sent = 0, dropped = 0;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int i = 0; i < 50000 && dropped < 100 && std::chrono::steady_clock::now() < give_up; ++i) {
        (endpoint.client.sendLatest(target) == 1 ? sent : dropped) += 1;
        if (i % 10 == 0) std::this_thread::sleep_for(milliseconds(1));
    }
    EXPECT_EQ(dropped, 100) << "the sends went out or blocked";
    peer.server().stallReading(connection, milliseconds(0));
    ASSERT_TRUE(peer.waitForCount(static_cast<std::size_t>(sent) + 1, milliseconds(10000)));
    // Its acknowledgements may trail its reading by a moment.
    EXPECT_TRUE(waitUntil([&] { return endpoint.client.sendLatest(target) == 1; })) << "the peer reads again";
    EXPECT_TRUE(peer.waitForCount(static_cast<std::size_t>(sent) + 2));
    EXPECT_EQ(endpoint.events.values(), std::vector<bool>{true});
}

}  // namespace
}  // namespace kelm
