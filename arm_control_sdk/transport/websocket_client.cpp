#include "websocket_client.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/Timespan.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "log_manager.h"
#include "socket_backlog.h"
#include "websocket_message_reader.h"

namespace kelm {

namespace {

using Poco::Net::WebSocket;

// A peer that stops reading must not block every sender for ever.
const Poco::Timespan kSendTimeout(5, 0);
// Longer waits are cut to this, which keeps the deadline arithmetic in range.
constexpr double kLongestConnectWaitSeconds = 3600.0;

Poco::Timespan toTimespan(std::chrono::steady_clock::duration duration) {
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
    return Poco::Timespan(micros > 0 ? micros : 1);
}

}  // namespace

WebSocketClient::WebSocketClient(std::string host, unsigned short port) : host_(std::move(host)), port_(port) {}

WebSocketClient::~WebSocketClient() { abort(); }

std::string WebSocketClient::endpoint() const { return host_ + ":" + std::to_string(port_); }

bool WebSocketClient::isOpen() const { return open_; }

bool WebSocketClient::open(double timeout_seconds) {
    abort();
    const double bounded_seconds = timeout_seconds > 0.0 ? std::min(timeout_seconds, kLongestConnectWaitSeconds) : 0.0;
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(bounded_seconds));
    try {
        Poco::Net::StreamSocket tcp;
        tcp.connect(Poco::Net::SocketAddress(host_, port_), toTimespan(deadline - std::chrono::steady_clock::now()));
        tcp.setNoDelay(true);
        tcp.setSendBufferSize(kSendBufferBytes);
        // The handshake must finish within what is left of the time-out.
        tcp.setReceiveTimeout(toTimespan(deadline - std::chrono::steady_clock::now()));
        tcp.setSendTimeout(toTimespan(deadline - std::chrono::steady_clock::now()));

        Poco::Net::HTTPClientSession session(tcp);
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/", Poco::Net::HTTPRequest::HTTP_1_1);
        request.setHost(host_, port_);
        Poco::Net::HTTPResponse response;
        auto socket = std::make_shared<WebSocket>(session, request, response);
        // Between messages waitForData() watches the silence; inside one this
        // bounds the wait for the rest of it.
        socket->setReceiveTimeout(toTimespan(kSilenceLimit));
        socket->setSendTimeout(kSendTimeout);
        socket->setMaxPayloadSize(static_cast<int>(kMaxMessageBytes));

        std::lock_guard<PriorityInheritanceMutex> lock(send_mutex_);
        socket_ = std::move(socket);
        close_sent_ = false;
        ended_locally_ = false;
        last_heard_ = std::chrono::steady_clock::now();
        may_hold_handshake_bytes_ = true;
        open_ = true;
        return true;
    } catch (const Poco::Exception& e) {
        KELM_LOG(LOG_ERROR, "WebSocket connect to %s failed: %s", endpoint().c_str(), e.displayText().c_str());
    } catch (const std::exception& e) {
        KELM_LOG(LOG_ERROR, "WebSocket connect to %s failed: %s", endpoint().c_str(), e.what());
    }
    return false;
}

bool WebSocketClient::receiveMessage(std::string& message) {
    std::shared_ptr<WebSocket> socket;
    {
        std::lock_guard<PriorityInheritanceMutex> lock(send_mutex_);
        socket = socket_;
    }
    if (!socket || !open_) return false;
    try {
        for (;;) {
            if (!waitForData(*socket)) return false;
            const ReadOutcome outcome =
                readMessage(*socket, message, kMaxMessageBytes, [this](const std::string& payload) {
                    sendFrame(payload.data(), payload.size(), WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PONG);
                });
            last_heard_ = std::chrono::steady_clock::now();
            if (outcome.kind != ReadOutcome::PONG) return finishRead(outcome);
        }
    } catch (const Poco::Exception& e) {
        endConnection(e.displayText().c_str());
    } catch (const std::exception& e) {
        endConnection(e.what());
    }
    return false;
}

// Waits until the peer has sent something, pinging it once when it has been
// quiet for kQuietBeforePing; false when the connection ended or the
// silence reached kSilenceLimit. Bytes the socket object holds already
// (those that came with the handshake's answer) count as well as those in
// the kernel, which alone poll() sees.
bool WebSocketClient::waitForData(WebSocket& socket) {
    constexpr auto kPollStep = std::chrono::milliseconds(250);
    if (may_hold_handshake_bytes_) {
        if (socket.available() > 0) return true;
        may_hold_handshake_bytes_ = false;
    }
    bool pinged = false;
    for (;;) {
        if (socket.poll(toTimespan(kPollStep), Poco::Net::Socket::SELECT_READ | Poco::Net::Socket::SELECT_ERROR)) {
            return true;
        }
        if (!open_) return false;
        const auto quiet = std::chrono::steady_clock::now() - last_heard_;
        if (quiet >= kSilenceLimit) {
            endConnection("nothing received for 3 s, connection taken as lost");
            return false;
        }
        if (quiet >= kQuietBeforePing && !pinged) {
            pinged = true;
            sendFrame("", 0, WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PING);
        }
    }
}

bool WebSocketClient::finishRead(const ReadOutcome& outcome) {
    switch (outcome.kind) {
        case ReadOutcome::MESSAGE: return true;
        case ReadOutcome::CLOSE_FRAME: answerClose(outcome.close_payload); return false;
        case ReadOutcome::END_OF_STREAM: endConnection("connection closed by peer without close frame"); return false;
        case ReadOutcome::PROTOCOL_ERROR:
            sendClose(outcome.close_status);
            endConnection(("protocol error: " + outcome.error).c_str());
            return false;
        case ReadOutcome::PONG: break;
    }
    return false;
}

bool WebSocketClient::sendText(const std::string& text) {
    return sendFrame(text.data(), text.size(), WebSocket::FRAME_TEXT);
}

bool WebSocketClient::sendFrame(const void* data, std::size_t length, int flags) {
    std::lock_guard<PriorityInheritanceMutex> lock(send_mutex_);
    if (!socket_ || !open_ || close_sent_) return false;
    try {
        const int sent = socket_->sendFrame(data, static_cast<int>(length), flags);
        if (sent == static_cast<int>(length)) return true;
        KELM_LOG(LOG_ERROR, "WebSocket %s: short send (%d of %lu bytes)", endpoint().c_str(), sent,
                 static_cast<unsigned long>(length));
    } catch (const Poco::Exception& e) {
        KELM_LOG(LOG_ERROR, "WebSocket %s: send failed: %s", endpoint().c_str(), e.displayText().c_str());
    }
    // A frame that went out in part leaves the stream unusable.
    resetLocked();
    return false;
}

bool WebSocketClient::sendLatestText(const std::string& text) {
    std::lock_guard<PriorityInheritanceMutex> lock(send_mutex_);
    if (!socket_ || !open_ || close_sent_) return false;
    if (!peerKeepsUpLocked()) return false;
    try {
        const int sent = socket_->sendFrame(text.data(), static_cast<int>(text.size()), WebSocket::FRAME_TEXT);
        if (sent == static_cast<int>(text.size())) return true;
    } catch (const Poco::Exception& e) {
        KELM_LOG(LOG_ERROR, "WebSocket %s: send failed: %s", endpoint().c_str(), e.displayText().c_str());
    }
    resetLocked();
    return false;
}

// Whether a streamed message may go out now; tells the log when the peer
// falls behind and when it has caught up.
bool WebSocketClient::peerKeepsUpLocked() {
    const std::size_t unread = unacknowledgedBytes(socket_->impl()->sockfd());
    if (unread <= kStreamBacklogBytes) {
        if (peer_behind_) {
            KELM_LOG(LOG_ERROR, "WebSocket %s: peer reads again, %lu streamed messages were dropped",
                     endpoint().c_str(), static_cast<unsigned long>(dropped_streamed_));
        }
        peer_behind_ = false;
        dropped_streamed_ = 0;
        return true;
    }
    ++dropped_streamed_;
    if (!peer_behind_) {
        peer_behind_ = true;
        KELM_LOG(LOG_ERROR, "WebSocket %s: peer is not reading (%lu bytes unread), streamed messages are dropped",
                 endpoint().c_str(), static_cast<unsigned long>(unread));
    }
    return false;
}

// Ends the connection with a TCP reset rather than a close handshake, which
// a peer that has stopped reading would never complete. Connecting a TCP
// socket to an unspecified address resets it without closing the
// descriptor, which the receive thread may be waiting on.
void WebSocketClient::resetLocked() {
    open_ = false;
    if (!socket_) return;
    sockaddr unspecified{};
    unspecified.sa_family = AF_UNSPEC;
    ::connect(socket_->impl()->sockfd(), &unspecified, sizeof(unspecified));
}

void WebSocketClient::shutdownLocked() {
    open_ = false;
    if (!socket_) return;
    try {
        static_cast<Poco::Net::StreamSocket&>(*socket_).shutdown();
    } catch (const Poco::Exception&) {
        // Already shut down, or never fully opened.
    }
}

void WebSocketClient::answerClose(const std::string& close_payload) {
    const bool we_started = close_sent_.exchange(true);
    std::lock_guard<PriorityInheritanceMutex> lock(send_mutex_);
    if (socket_ && !we_started) {
        KELM_LOG(LOG_ERROR, "WebSocket %s: connection closed by peer (status %u)", endpoint().c_str(),
                 closeStatusOf(close_payload));
        try {
            socket_->sendFrame(close_payload.data(), static_cast<int>(close_payload.size()),
                               WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_CLOSE);
        } catch (const Poco::Exception&) {
            // The peer may already have gone; the connection has ended either way.
        }
    }
    shutdownLocked();
}

void WebSocketClient::endConnection(const char* reason) {
    if (!ended_locally_) KELM_LOG(LOG_ERROR, "WebSocket %s: %s", endpoint().c_str(), reason);
    abort();
}

void WebSocketClient::close() {
    ended_locally_ = true;
    sendClose(WebSocket::WS_NORMAL_CLOSE);
}

void WebSocketClient::sendClose(unsigned status) {
    std::lock_guard<PriorityInheritanceMutex> lock(send_mutex_);
    if (!socket_ || !open_ || close_sent_.exchange(true)) return;
    try {
        socket_->shutdown(static_cast<Poco::UInt16>(status));
    } catch (const Poco::Exception&) {
        // Nothing to tell a peer that cannot be reached; abort() ends it.
    }
}

void WebSocketClient::abort() {
    std::lock_guard<PriorityInheritanceMutex> lock(send_mutex_);
    ended_locally_ = true;
    shutdownLocked();
}

}  // namespace kelm
