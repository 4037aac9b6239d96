// Reads one complete WebSocket data message from a Poco WebSocket, frame by
// frame: fragmented messages are joined and pings are answered through a
// callback, so that both the client and the server see only whole messages,
// the end of the connection, and pongs (a sign of life between messages;
// inside a fragmented message they are skipped).
//
// Used by the one thread that receives on a socket. Poco exceptions (a reset,
// a malformed frame) pass to the caller.
#pragma once

#include <Poco/Net/WebSocket.h>

#include <cstddef>
#include <functional>
#include <string>

namespace kelm {

struct ReadOutcome {
    enum Kind {
        MESSAGE,         // `message` holds one complete text or binary message
        CLOSE_FRAME,     // the peer sent a close frame; `close_payload` holds its payload
        END_OF_STREAM,   // the TCP connection ended without a close frame
        PROTOCOL_ERROR,  // `error` says what was wrong; `close_status` is the status to send
        PONG,            // a pong arrived between messages: the peer is alive
    };
    Kind kind = END_OF_STREAM;
    std::string close_payload;
    std::string error;
    unsigned close_status = 0;
};

// Answers a ping with a pong that carries the ping's payload.
using PongSender = std::function<void(const std::string& payload)>;

ReadOutcome readMessage(Poco::Net::WebSocket& socket, std::string& message, std::size_t max_message_bytes,
                        const PongSender& send_pong);

// The status code carried by a close frame's payload, or 1005 (no status).
unsigned closeStatusOf(const std::string& close_payload);

}  // namespace kelm
