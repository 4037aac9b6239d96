// WebSocketClient: the socket-level client for one controller's WebSocket
// endpoint (ws://host:port/), built on Poco Net.
//
// It opens the TCP connection and the WebSocket handshake within the given
// time-out, with Nagle's algorithm off so that small requests leave at once.
// receiveMessage() reassembles fragmented messages, answers pings with pongs
// and completes a close handshake started by either side; messages may be
// of any size up to kMaxMessageBytes. Bytes that arrived together with the
// handshake's answer are messages like any other.
//
// Streamed targets (sendLatestText) never queue up behind a controller that
// stops reading, and never block their sender: while more than
// kStreamBacklogBytes sent to it are unacknowledged (its receive buffer is
// full), they are dropped. What the
// controller holds unread when it stops reading it still reads later; the
// bound keeps that to a few kilobytes. Every other message (sendText) waits
// for room in the socket instead; a send that fails (one that could not go
// out within 5 s) ends the connection with a reset.
//
// A controller streams state all the time, so silence means trouble: after
// kQuietBeforePing without a byte from the peer the client sends a ping, and
// after kSilenceLimit it ends the connection as lost. A peer that vanished
// without closing (half-open) is thus noticed within kSilenceLimit.
//
// Threads: open() on the owner's thread while no receive runs;
// receiveMessage() on one receive thread; sendText(), close(), abort() and
// isOpen() from any thread. All sends, pongs and close frames included, go
// through one send lock, which passes a waiting real-time thread's priority
// on to its holder (PriorityInheritanceMutex).
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "basic_client_interface.h"
#include "priority_inheritance_mutex.h"

namespace Poco {
namespace Net {
class WebSocket;
}  // namespace Net
}  // namespace Poco

namespace kelm {

struct ReadOutcome;

class WebSocketClient : public BasicClientInterface {
public:
    // Largest message accepted from the peer; a bigger one ends the
    // connection with status 1009 (message too big). A state frame is a few
    // kilobytes per arm, a kinematics batch reply about 170 bytes per point:
    // 100,000 points (17 MB) fit with room to spare. While a message comes
    // in, the client holds it once, plus the frame being read.
    static constexpr std::size_t kMaxMessageBytes = 32u * 1024u * 1024u;
    static constexpr std::chrono::milliseconds kQuietBeforePing{1000};
    static constexpr std::chrono::milliseconds kSilenceLimit{3000};
    // A few hundred streamed targets: a controller that is briefly slow loses
    // none, one that stops reading gets no more. The socket's send buffer is
    // set well above it, so that a streamed send never waits for room.
    static constexpr std::size_t kStreamBacklogBytes = 64 * 1024;
    static constexpr int kSendBufferBytes = 256 * 1024;

    // An unconnected client for ws://host:port/. Nothing happens on the
    // network until open().
    WebSocketClient(std::string host, unsigned short port);
    ~WebSocketClient() override;
    WebSocketClient(const WebSocketClient&) = delete;
    WebSocketClient& operator=(const WebSocketClient&) = delete;

    bool open(double timeout_seconds) override;
    bool receiveMessage(std::string& message) override;
    bool sendText(const std::string& text) override;
    bool sendLatestText(const std::string& text) override;
    void close() override;
    void abort() override;
    bool isOpen() const override;
    std::string endpoint() const override;

    const std::string& host() const { return host_; }
    unsigned short port() const { return port_; }

private:
    bool sendFrame(const void* data, std::size_t length, int flags);
    bool waitForData(Poco::Net::WebSocket& socket);
    bool finishRead(const ReadOutcome& outcome);
    void sendClose(unsigned status);
    void answerClose(const std::string& close_payload);
    void endConnection(const char* reason);
    void shutdownLocked();     // send_mutex_ held
    void resetLocked();        // send_mutex_ held
    bool peerKeepsUpLocked();  // send_mutex_ held

    const std::string host_;
    const unsigned short port_;
    std::shared_ptr<Poco::Net::WebSocket> socket_;  // replaced only by open()
    PriorityInheritanceMutex send_mutex_;
    std::atomic<bool> open_{false};
    std::atomic<bool> close_sent_{false};               // a close frame has gone out
    std::atomic<bool> ended_locally_{false};            // close()/abort() was asked for: no loss to log
    std::chrono::steady_clock::time_point last_heard_;  // receive thread only
    // The socket object may still hold bytes read with the handshake's
    // answer; once it holds none it reads from the kernel only. Set by open(),
    // then receive thread only.
    bool may_hold_handshake_bytes_ = false;
    // The streamed-message gate, guarded by send_mutex_.
    bool peer_behind_ = false;
    std::uint64_t dropped_streamed_ = 0;
};

}  // namespace kelm
