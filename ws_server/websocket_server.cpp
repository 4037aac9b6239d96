#include "websocket_server.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/ThreadPool.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "log_manager.h"
#include "socket_backlog.h"
#include "websocket_message_reader.h"

namespace kelm {

namespace {

using Poco::Net::WebSocket;

constexpr std::size_t kMaxMessageBytes = 64u * 1024u * 1024u;
constexpr int kMaxConnections = 64;
constexpr int kListenBacklog = 64;
// How long stop() waits for the connection threads to finish their handlers.
constexpr std::chrono::seconds kStopTimeout(5);
const Poco::Timespan kUpgradeRequestTimeout(2, 0);

template <typename Handler, typename... Args>
void callHandler(const char* name, const Handler& handler, Args&&... args) {
    if (!handler) return;
    try {
        handler(std::forward<Args>(args)...);
    } catch (const std::exception& e) {
        KELM_LOG(LOG_ERROR, "WebSocket server: %s handler failed: %s", name, e.what());
    } catch (...) {
        KELM_LOG(LOG_ERROR, "WebSocket server: %s handler failed with an unknown exception", name);
    }
}

// Poco's acceptor thread looks at its stop flag only between polls of a
// quarter second; throw-away connections wake it so that stop() is quick.
void stopAcceptor(Poco::Net::HTTPServer& server, const std::string& bind_address, unsigned short port) {
    const std::string host = bind_address == "0.0.0.0" ? "127.0.0.1" : bind_address;
    std::atomic<bool> stopped{false};
    std::thread waker([&] {
        while (!stopped) {
            try {
                Poco::Net::StreamSocket poke;
                poke.connect(Poco::Net::SocketAddress(host, port), Poco::Timespan(0, 100000));
            } catch (const Poco::Exception&) {
                // Nothing to wake any more.
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    server.stop();
    stopped = true;
    waker.join();
}

}  // namespace

// One accepted WebSocket connection. The socket lives as long as the thread
// that serves it; senders on other threads hold a shared reference.
struct ServerConnection {
    ServerConnection(WebSocketServer::ConnectionId connection_id, std::unique_ptr<WebSocket> web_socket)
        : id(connection_id), socket(std::move(web_socket)) {}

    bool sendFrame(const char* data, std::size_t length, int flags) {
        std::lock_guard<std::mutex> lock(send_mutex);
        return sendFrameLocked(data, length, flags);
    }

    bool sendFrameLocked(const char* data, std::size_t length, int flags) {
        if (silent) return true;
        if (close_sent) return false;
        try {
            if (socket->sendFrame(data, static_cast<int>(length), flags) == static_cast<int>(length)) return true;
        } catch (const Poco::Exception& e) {
            KELM_LOG(LOG_ERROR, "WebSocket server: send on connection %lu failed: %s", static_cast<unsigned long>(id),
                     e.displayText().c_str());
        }
        drop();
        return false;
    }

    // Sends a close frame once; later sends are refused.
    void sendClose(unsigned status, const std::string& payload = std::string()) {
        std::lock_guard<std::mutex> lock(send_mutex);
        if (close_sent) return;
        close_sent = true;
        try {
            if (payload.empty()) {
                socket->shutdown(static_cast<Poco::UInt16>(status));
            } else {
                socket->sendFrame(payload.data(), static_cast<int>(payload.size()),
                                  WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_CLOSE);
            }
        } catch (const Poco::Exception&) {
            // The client is gone already; the connection ends all the same.
        }
    }

    // TCP shutdown in both directions: wakes the serving thread.
    void drop() {
        dropped = true;
        if (reset_requested) return;  // the serving thread is awake and resets it
        try {
            static_cast<Poco::Net::StreamSocket&>(*socket).shutdown();
        } catch (const Poco::Exception&) {
            // Already shut down.
        }
    }

    // Holds the serving thread before its next read while a stall or a
    // silence lasts; a drop ends the wait.
    void waitWhileStalled() {
        constexpr auto kStep = std::chrono::milliseconds(5);
        while (!dropped && (silent || std::chrono::steady_clock::now() < stalled_until.load())) {
            std::this_thread::sleep_for(kStep);
        }
    }

    // Sends the head of a frame that promises more than it carries and wakes
    // the serving thread, which then closes with linger 0: a reset.
    void resetMidMessage() {
        std::lock_guard<std::mutex> lock(send_mutex);
        static const char kHead[] = {'\x81', 126, 0x10, 0x00, '{', '"', 'c', 'o'};  // 4096 bytes promised
        sendRawLocked(std::string(kHead, sizeof(kHead)));
        auto& stream = static_cast<Poco::Net::StreamSocket&>(*socket);
        try {
            stream.setLinger(true, 0);
            reset_requested = true;
            stream.shutdownReceive();
        } catch (const Poco::Exception&) {
            // Gone already.
        }
    }

    // On the serving thread, once it reads no more: ends the connection with
    // a reset when one was asked for, otherwise with a TCP shutdown.
    void finish() {
        if (!reset_requested) {
            drop();
            return;
        }
        std::lock_guard<std::mutex> lock(send_mutex);
        close_sent = true;
        dropped = true;
        try {
            socket->close();
        } catch (const Poco::Exception&) {
            // Closed already.
        }
    }

    std::size_t unsentBytes() const { return unacknowledgedBytes(socket->impl()->sockfd()); }

    bool sendRaw(const std::string& bytes) {
        std::lock_guard<std::mutex> lock(send_mutex);
        return sendRawLocked(bytes);
    }

    // Past the WebSocket layer, which would wrap the bytes in a frame.
    bool sendRawLocked(const std::string& bytes) {
        const int fd = socket->impl()->sockfd();
        std::size_t offset = 0;
        while (offset < bytes.size()) {
            const ssize_t sent = ::send(fd, bytes.data() + offset, bytes.size() - offset, MSG_NOSIGNAL);
            if (sent <= 0) return false;
            offset += static_cast<std::size_t>(sent);
        }
        return true;
    }

    const WebSocketServer::ConnectionId id;
    const std::unique_ptr<WebSocket> socket;
    std::mutex send_mutex;
    bool close_sent = false;  // guarded by send_mutex
    std::atomic<bool> silent{false};
    std::atomic<bool> dropped{false};
    std::atomic<bool> reset_requested{false};
    std::atomic<std::chrono::steady_clock::time_point> stalled_until{std::chrono::steady_clock::time_point()};
};

struct WebSocketServer::Impl {
    Impl(std::string address, unsigned short requested_port, Handlers server_handlers)
        : bind_address(std::move(address)), port(requested_port), handlers(std::move(server_handlers)) {}

    void serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    std::shared_ptr<ServerConnection> accept(Poco::Net::HTTPServerRequest& request,
                                             Poco::Net::HTTPServerResponse& response);
    void receiveUntilClosed(ServerConnection& connection);
    void forget(ConnectionId id);
    std::shared_ptr<ServerConnection> find(ConnectionId id) const;
    std::vector<std::shared_ptr<ServerConnection>> all() const;

    const std::string bind_address;
    unsigned short port;
    const Handlers handlers;

    mutable std::mutex mutex;
    std::condition_variable threads_done;
    std::map<ConnectionId, std::shared_ptr<ServerConnection>> connections;
    ConnectionId next_id = 1;
    int serving_threads = 0;
    bool accepting = false;
    std::unique_ptr<Poco::ThreadPool> pool;
    std::unique_ptr<Poco::Net::HTTPServer> server;
};

namespace {

using ServeFunction = std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&)>;

// Every request, whatever its path, is served as a WebSocket upgrade.
class UpgradeHandler : public Poco::Net::HTTPRequestHandler {
public:
    explicit UpgradeHandler(ServeFunction serve) : serve_(std::move(serve)) {}
    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override {
        serve_(request, response);
    }

private:
    ServeFunction serve_;
};

class UpgradeHandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit UpgradeHandlerFactory(ServeFunction serve) : serve_(std::move(serve)) {}
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
        return new UpgradeHandler(serve_);
    }

private:
    ServeFunction serve_;
};

}  // namespace

void WebSocketServer::Impl::serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++serving_threads;
    }
    if (auto connection = accept(request, response)) {
        callHandler("open", handlers.on_open, connection->id);
        receiveUntilClosed(*connection);
        forget(connection->id);
        callHandler("close", handlers.on_close, connection->id);
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        --serving_threads;
    }
    threads_done.notify_all();
}

// The upgrade answer goes out under the server's lock and the connection is
// registered before the lock is released: a client that has seen its
// connection accepted can be reached by the very next sendText() or
// broadcastText().
std::shared_ptr<ServerConnection> WebSocketServer::Impl::accept(Poco::Net::HTTPServerRequest& request,
                                                                Poco::Net::HTTPServerResponse& response) {
    std::unique_lock<std::mutex> lock(mutex);
    if (!accepting) return nullptr;
    try {
        auto socket = std::make_unique<WebSocket>(request, response);
        socket->setMaxPayloadSize(static_cast<int>(kMaxMessageBytes));
        socket->setReceiveTimeout(Poco::Timespan(0));
        socket->setNoDelay(true);
        auto connection = std::make_shared<ServerConnection>(next_id++, std::move(socket));
        connections.emplace(connection->id, connection);
        return connection;
    } catch (const Poco::Exception& e) {
        lock.unlock();
        KELM_LOG(LOG_ERROR, "WebSocket server: refused a request for %s: %s", request.getURI().c_str(),
                 e.displayText().c_str());
        if (!response.sent()) {
            response.setStatusAndReason(Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
            response.setContentLength(0);
            response.send();
        }
        return nullptr;
    }
}

void WebSocketServer::Impl::receiveUntilClosed(ServerConnection& connection) {
    std::string message;
    const PongSender send_pong = [&connection](const std::string& payload) {
        connection.sendFrame(payload.data(), payload.size(), WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PONG);
    };
    try {
        for (;;) {
            connection.waitWhileStalled();
            if (connection.dropped) break;
            const ReadOutcome outcome = readMessage(*connection.socket, message, kMaxMessageBytes, send_pong);
            switch (outcome.kind) {
                case ReadOutcome::MESSAGE: callHandler("text", handlers.on_text, connection.id, message); continue;
                case ReadOutcome::PONG: continue;
                case ReadOutcome::CLOSE_FRAME:
                    connection.sendClose(closeStatusOf(outcome.close_payload), outcome.close_payload);
                    break;
                case ReadOutcome::END_OF_STREAM: break;
                case ReadOutcome::PROTOCOL_ERROR:
                    KELM_LOG(LOG_ERROR, "WebSocket server: connection %lu: %s",
                             static_cast<unsigned long>(connection.id), outcome.error.c_str());
                    connection.sendClose(outcome.close_status);
                    break;
            }
            break;
        }
    } catch (const Poco::Exception&) {
        // A reset or a local drop: the connection has ended.
    }
    connection.finish();
}

void WebSocketServer::Impl::forget(ConnectionId id) {
    std::lock_guard<std::mutex> lock(mutex);
    connections.erase(id);
}

std::shared_ptr<ServerConnection> WebSocketServer::Impl::find(ConnectionId id) const {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = connections.find(id);
    return it == connections.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<ServerConnection>> WebSocketServer::Impl::all() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::shared_ptr<ServerConnection>> result;
    for (const auto& entry : connections) result.push_back(entry.second);
    return result;
}

WebSocketServer::WebSocketServer(std::string bind_address, unsigned short port, Handlers handlers)
    : impl_(std::make_shared<Impl>(std::move(bind_address), port, std::move(handlers))) {}

WebSocketServer::~WebSocketServer() { stop(); }

void WebSocketServer::start() {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->server) return;
    // Address reuse lets a restarted server take its port back at once; port
    // reuse stays off, so a second server on a taken address and port fails
    // instead of silently sharing the connections.
    Poco::Net::ServerSocket socket;
    socket.bind(Poco::Net::SocketAddress(impl_->bind_address, impl_->port), true, false);
    socket.listen(kListenBacklog);
    impl_->port = socket.address().port();

    auto params = new Poco::Net::HTTPServerParams;
    params->setMaxThreads(kMaxConnections);
    params->setMaxQueued(kMaxConnections);
    params->setKeepAlive(false);
    // Bounds the wait for an upgrade request; an upgraded socket blocks freely.
    params->setTimeout(kUpgradeRequestTimeout);
    impl_->pool = std::make_unique<Poco::ThreadPool>(2, kMaxConnections + 2);
    Impl* impl = impl_.get();
    auto factory =
        new UpgradeHandlerFactory([impl](Poco::Net::HTTPServerRequest& request,
                                         Poco::Net::HTTPServerResponse& response) { impl->serve(request, response); });
    impl_->server = std::make_unique<Poco::Net::HTTPServer>(factory, *impl_->pool, socket, params);
    impl_->accepting = true;
    impl_->server->start();
}

void WebSocketServer::stop() {
    std::unique_ptr<Poco::Net::HTTPServer> server;
    std::unique_ptr<Poco::ThreadPool> pool;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->accepting = false;
        server = std::move(impl_->server);
        pool = std::move(impl_->pool);
    }
    if (!server) return;
    stopAcceptor(*server, impl_->bind_address, impl_->port);
    for (const auto& connection : impl_->all()) connection->drop();
    {
        std::unique_lock<std::mutex> lock(impl_->mutex);
        if (!impl_->threads_done.wait_for(lock, kStopTimeout, [this] { return impl_->serving_threads == 0; })) {
            KELM_LOG(LOG_ERROR, "WebSocket server: %d connection threads still busy after stop",
                     impl_->serving_threads);
        }
    }
    // Poco's connection objects unregister from the server as they are
    // destroyed on the pool's threads: the server goes only after them.
    pool->joinAll();
    server.reset();
}

bool WebSocketServer::running() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->server != nullptr;
}

unsigned short WebSocketServer::port() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->port;
}

bool WebSocketServer::sendText(ConnectionId id, const std::string& text) {
    auto connection = impl_->find(id);
    return connection && connection->sendFrame(text.data(), text.size(), WebSocket::FRAME_TEXT);
}

std::size_t WebSocketServer::broadcastText(const std::string& text) {
    std::size_t reached = 0;
    for (const auto& connection : impl_->all()) {
        if (connection->sendFrame(text.data(), text.size(), WebSocket::FRAME_TEXT)) ++reached;
    }
    return reached;
}

std::size_t WebSocketServer::broadcastLatest(const std::string& text, std::size_t max_backlog_bytes,
                                             std::size_t* skipped) {
    std::size_t reached = 0;
    for (const auto& connection : impl_->all()) {
        if (connection->unsentBytes() > max_backlog_bytes) {
            if (skipped) ++*skipped;
            continue;
        }
        if (connection->sendFrame(text.data(), text.size(), WebSocket::FRAME_TEXT)) ++reached;
    }
    return reached;
}

bool WebSocketServer::sendFragmentedText(ConnectionId id, const std::string& text, std::size_t fragment_bytes) {
    auto connection = impl_->find(id);
    if (!connection) return false;
    fragment_bytes = std::max<std::size_t>(fragment_bytes, 1);
    std::lock_guard<std::mutex> lock(connection->send_mutex);
    std::size_t offset = 0;
    int opcode = WebSocket::FRAME_OP_TEXT;
    do {
        const std::size_t length = std::min(fragment_bytes, text.size() - offset);
        const bool last = offset + length == text.size();
        const int flags = opcode | (last ? WebSocket::FRAME_FLAG_FIN : 0);
        if (!connection->sendFrameLocked(text.data() + offset, length, flags)) return false;
        offset += length;
        opcode = WebSocket::FRAME_OP_CONT;
    } while (offset < text.size());
    return true;
}

bool WebSocketServer::sendFrame(ConnectionId id, const std::string& payload, int flags) {
    auto connection = impl_->find(id);
    return connection && connection->sendFrame(payload.data(), payload.size(), flags);
}

bool WebSocketServer::closeConnection(ConnectionId id) {
    auto connection = impl_->find(id);
    if (!connection) return false;
    connection->sendClose(WebSocket::WS_NORMAL_CLOSE);
    return true;
}

bool WebSocketServer::dropConnection(ConnectionId id) {
    auto connection = impl_->find(id);
    if (!connection) return false;
    connection->drop();
    return true;
}

bool WebSocketServer::stallReading(ConnectionId id, std::chrono::milliseconds duration) {
    auto connection = impl_->find(id);
    if (!connection) return false;
    connection->stalled_until = std::chrono::steady_clock::now() + duration;
    return true;
}

bool WebSocketServer::silence(ConnectionId id) {
    auto connection = impl_->find(id);
    if (!connection) return false;
    connection->silent = true;
    return true;
}

bool WebSocketServer::resetMidMessage(ConnectionId id) {
    auto connection = impl_->find(id);
    if (!connection) return false;
    connection->resetMidMessage();
    return true;
}

bool WebSocketServer::sendRawBytes(ConnectionId id, const std::string& bytes) {
    auto connection = impl_->find(id);
    return connection && connection->sendRaw(bytes);
}

std::size_t WebSocketServer::connectionCount() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->connections.size();
}

std::vector<WebSocketServer::ConnectionId> WebSocketServer::connectionIds() const {
    std::vector<ConnectionId> ids;
    for (const auto& connection : impl_->all()) ids.push_back(connection->id);
    return ids;
}

}  // namespace kelm
