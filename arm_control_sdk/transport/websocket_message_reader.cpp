#include "websocket_message_reader.h"

#include <Poco/Buffer.h>

#include <algorithm>

namespace kelm {

namespace {

using Poco::Net::WebSocket;

int opcodeOf(int flags) { return flags & WebSocket::FRAME_OP_BITMASK; }
bool isFinal(int flags) { return (flags & WebSocket::FRAME_FLAG_FIN) != 0; }

ReadOutcome protocolError(std::string error, unsigned status = WebSocket::WS_PROTOCOL_ERROR) {
    ReadOutcome outcome;
    outcome.kind = ReadOutcome::PROTOCOL_ERROR;
    outcome.error = std::move(error);
    outcome.close_status = status;
    return outcome;
}

// Grows `message` geometrically, as append would, but never beyond `limit`:
// a message at the limit is held once, not in a buffer of twice its size.
void reserveWithin(std::string& message, std::size_t needed, std::size_t limit) {
    if (message.capacity() >= needed) return;
    message.reserve(std::min(limit, std::max(needed, 2 * message.capacity())));
}

}  // namespace

ReadOutcome readMessage(WebSocket& socket, std::string& message, std::size_t max_message_bytes,
                        const PongSender& send_pong) {
    message.clear();
    bool inside_fragmented_message = false;
    Poco::Buffer<char> frame(0);
    for (;;) {
        frame.resize(0);
        int flags = 0;
        const int length = socket.receiveFrame(frame, flags);
        if (length == 0 && flags == 0) return ReadOutcome{};
        const std::size_t size = frame.size();
        switch (opcodeOf(flags)) {
            case WebSocket::FRAME_OP_PING: send_pong(std::string(frame.begin(), size)); break;
            case WebSocket::FRAME_OP_PONG:
                if (!inside_fragmented_message) return ReadOutcome{ReadOutcome::PONG, {}, {}, 0};
                break;
            case WebSocket::FRAME_OP_CLOSE: {
                ReadOutcome outcome;
                outcome.kind = ReadOutcome::CLOSE_FRAME;
                outcome.close_payload.assign(frame.begin(), size);
                return outcome;
            }
            case WebSocket::FRAME_OP_TEXT:
            case WebSocket::FRAME_OP_BINARY:
                if (inside_fragmented_message) return protocolError("new message inside a fragmented message");
                message.assign(frame.begin(), size);
                if (isFinal(flags)) return ReadOutcome{ReadOutcome::MESSAGE, {}, {}, 0};
                inside_fragmented_message = true;
                break;
            case WebSocket::FRAME_OP_CONT:
                if (!inside_fragmented_message) return protocolError("continuation frame without a message");
                if (message.size() + size > max_message_bytes) {
                    return protocolError("message too big", WebSocket::WS_PAYLOAD_TOO_BIG);
                }
                reserveWithin(message, message.size() + size, max_message_bytes);
                message.append(frame.begin(), size);
                if (isFinal(flags)) return ReadOutcome{ReadOutcome::MESSAGE, {}, {}, 0};
                break;
            default: return protocolError("unknown frame opcode " + std::to_string(opcodeOf(flags)));
        }
    }
}

unsigned closeStatusOf(const std::string& close_payload) {
    if (close_payload.size() < 2) return WebSocket::WS_RESERVED_NO_STATUS_CODE;
    return (static_cast<unsigned>(static_cast<unsigned char>(close_payload[0])) << 8) |
           static_cast<unsigned char>(close_payload[1]);
}

}  // namespace kelm
