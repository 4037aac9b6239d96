// BasicClientInterface: abstract base of socket-level clients that carry
// whole text messages to and from one peer.
//
// A CommunicationClient drives one of these: it calls open() on its own
// thread, then receiveMessage() in a loop on its receive thread, sendText()
// from any thread, and close()/abort() from any thread to end the connection.
// An implementation answers protocol-level control traffic (pings, close
// handshakes, fragmented messages) itself, so that only complete messages
// reach the caller.
#pragma once

#include <string>

namespace kelm {

class BasicClientInterface {
public:
    virtual ~BasicClientInterface() = default;

    // Opens a fresh connection to the client's endpoint. True once it stands;
    // false, with the reason logged, when it could not be made within
    // `timeout_seconds`. Must not be called while a receiveMessage() runs.
    virtual bool open(double timeout_seconds) = 0;

    // Blocks until the next complete message has arrived and stores it in
    // `message`. False when the connection has ended (closed by the peer or
    // by close()/abort(), reset, or broken by a protocol error); the reason
    // of an ending that was not asked for locally is logged. Called by one
    // thread at a time.
    virtual bool receiveMessage(std::string& message) = 0;

    // Sends `text` as one text message. True when it went out whole. Safe to
    // call from several threads at once; messages never interleave.
    virtual bool sendText(const std::string& text) = 0;

    // Sends `text`, a message that the next one makes stale (a streamed
    // target), only if that can be done at once: never blocks for long. True
    // when it went out whole. The default is sendText().
    virtual bool sendLatestText(const std::string& text) { return sendText(text); }

    // Starts a clean close: tells the peer that the connection ends. A
    // receiveMessage() in progress returns false once the peer has
    // acknowledged, or at the latest after abort(). Safe from any thread and
    // harmless when nothing stands.
    virtual void close() = 0;

    // Ends the connection at once without waiting for the peer, waking a
    // receiveMessage() that blocks. Safe from any thread, harmless when
    // nothing stands.
    virtual void abort() = 0;

    // True from a successful open() until the connection has ended.
    virtual bool isOpen() const = 0;

    // "host:port" of the peer, for log lines.
    virtual std::string endpoint() const = 0;
};

}  // namespace kelm
