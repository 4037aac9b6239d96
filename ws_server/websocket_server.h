// WebSocketServer: a small WebSocket server on Poco Net for the controller
// side of the protocol: the controller simulator and the test peer.
//
// It accepts WebSocket upgrades on any path of bind_address:port, gives each
// connection an id and a thread of its own, and hands every complete text (or
// binary) message to on_text. Pings are answered, fragmented messages are
// reassembled, and a close frame from the client is answered before the
// connection ends. A client whose upgrade has completed is already counted
// and reachable by sendText() and broadcastText().
//
// Threads:
// - on_open, on_text and on_close of one connection run on that connection's
//   own thread, in that order; on_close runs once, after the connection has
//   left connectionCount() and sendText() can no longer reach it. Handlers of
//   different connections run in parallel. An exception thrown by a handler
//   is logged and ends nothing.
// - sendText(), broadcastText(), the frame senders, closeConnection(),
//   dropConnection(), the network faults and connectionCount() are safe from
//   any thread, handlers included. Each connection has one send lock, so
//   messages never interleave.
//
// Network faults, for tests of the client: a connection can stop reading
// for a while (its sender then blocks once the socket buffers are full), go
// silent without closing (half-open: nothing read, nothing sent, no FIN),
// or be reset in the middle of a message. Raw bytes let a test write frames
// that this server would never build.
// - start() and stop() are called by the owner, never from a handler.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelm {

class WebSocketServer {
public:
    using ConnectionId = std::uint64_t;

    struct Handlers {
        std::function<void(ConnectionId)> on_open;
        std::function<void(ConnectionId, const std::string& text)> on_text;
        std::function<void(ConnectionId)> on_close;
    };

    // A stopped server for bind_address:port; port 0 picks a free port at
    // the first start().
    WebSocketServer(std::string bind_address, unsigned short port, Handlers handlers);
    // Stops the server.
    ~WebSocketServer();
    WebSocketServer(const WebSocketServer&) = delete;
    WebSocketServer& operator=(const WebSocketServer&) = delete;

    // Binds and starts accepting. A restart after stop() binds the same port
    // again. Throws Poco::Exception when the address cannot be bound.
    void start();
    // Stops accepting, drops every connection and waits (at most a few
    // seconds) until their threads have run on_close. Harmless when stopped.
    void stop();
    bool running() const;

    // The bound port (known after the first start(), kept across stop()).
    unsigned short port() const;

    // Sends one text message to one connection. False if the connection is
    // unknown or the send failed; a failed send drops the connection.
    bool sendText(ConnectionId id, const std::string& text);
    // Sends `text` to every open connection; returns how many it reached.
    std::size_t broadcastText(const std::string& text);
    // Sends a message that the next one makes stale (a state frame) to every
    // open connection, except to one that still has more than
    // `max_backlog_bytes` unsent in its socket: a client that reads too
    // slowly misses messages instead of receiving ever older ones, and the
    // sender never blocks on it. Returns how many it reached; `skipped`, if
    // given, receives how many it passed over.
    std::size_t broadcastLatest(const std::string& text, std::size_t max_backlog_bytes, std::size_t* skipped = nullptr);
    // Sends `text` as one message cut into frames of at most
    // `fragment_bytes` payload bytes (a text frame and continuation frames).
    bool sendFragmentedText(ConnectionId id, const std::string& text, std::size_t fragment_bytes);
    // Sends one raw frame with Poco's frame flags (FIN bit and opcode), for
    // tests of the protocol layer: a ping, a lone continuation frame, ...
    bool sendFrame(ConnectionId id, const std::string& payload, int flags);

    // Clean close: sends a close frame (status 1000); the connection ends
    // when the client has answered it. False if the connection is unknown.
    bool closeConnection(ConnectionId id);
    // Abrupt end: shuts the TCP connection down without a close frame.
    bool dropConnection(ConnectionId id);

    // Reads nothing from the connection for `duration`, from its next read on.
    bool stallReading(ConnectionId id, std::chrono::milliseconds duration);
    // Half-open: from now on nothing is read from or sent to the connection
    // (sends report success and vanish) and it is not closed, until it is
    // dropped or the server stops.
    bool silence(ConnectionId id);
    // Sends the head of a text frame that announces more payload than
    // follows, then resets the TCP connection (RST, no close frame).
    bool resetMidMessage(ConnectionId id);
    // Writes `bytes` to the TCP stream as they are, under the send lock.
    bool sendRawBytes(ConnectionId id, const std::string& bytes);

    std::size_t connectionCount() const;
    // Ids of the open connections, oldest first.
    std::vector<ConnectionId> connectionIds() const;

private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kelm
