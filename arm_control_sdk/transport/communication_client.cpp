#include "communication_client.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <system_error>
#include <utility>

#include "log_manager.h"

namespace kelm {

namespace {

// How long disConnect() waits for the peer to answer the close frame before
// it cuts the connection.
constexpr std::chrono::milliseconds kCloseHandshakeTimeout(500);

// The client whose receive thread this is, if it is one. Unlike the member
// receive_thread_, it stays right while another thread is joining this one.
thread_local const CommunicationClient* receiving_for = nullptr;

Json::StreamWriterBuilder compactWriterBuilder() {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return builder;
}

}  // namespace

// One connection: the socket client it was opened with and the progress of
// its receive thread. Shared between the owner and the receive thread, so
// that a thread which outlives its owner touches nothing that has gone.
struct CommunicationClient::Connection {
    explicit Connection(std::shared_ptr<BasicClientInterface> socket_client)
        : client(std::move(socket_client)) {}

    void markUpReported() { setFlag(up_reported); }
    void markLoopEnded() { setFlag(loop_ended); }

    void waitUntilUpReported() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return up_reported; });
    }

    void waitUntilLoopEnded(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, timeout, [this] { return loop_ended; });
    }

    const std::shared_ptr<BasicClientInterface> client;
    std::atomic<std::thread::id> receive_thread;  // set first thing by that thread
    std::atomic<bool> stop_requested{false};
    std::atomic<bool> down_reported{false};

private:
    void setFlag(bool& flag) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            flag = true;
        }
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    bool up_reported = false;
    bool loop_ended = false;
};

// The attached listener and whether a delivery to it is running, so that
// releaseListener() can wait for the end of a delivery.
struct CommunicationClient::Delivery {
    void attach(iRecieveListener* new_listener) {
        std::lock_guard<std::mutex> lock(mutex);
        listener = new_listener;
    }

    void release(iRecieveListener* old_listener) {
        std::unique_lock<std::mutex> lock(mutex);
        if (listener == old_listener) listener = nullptr;
        const auto self = std::this_thread::get_id();
        idle.wait(lock, [&] { return !delivering || delivering_thread == self; });
    }

    void deliver(const std::string& message) {
        iRecieveListener* target = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (listener == nullptr) return;
            target = listener;
            delivering = true;
            delivering_thread = std::this_thread::get_id();
        }
        try {
            target->onReceive(message);
        } catch (const std::exception& e) {
            KELM_LOG(LOG_ERROR, "receive listener failed: %s", e.what());
        } catch (...) {
            KELM_LOG(LOG_ERROR, "receive listener failed with an unknown exception");
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            delivering = false;
        }
        idle.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable idle;
    iRecieveListener* listener = nullptr;
    bool delivering = false;
    std::thread::id delivering_thread;
};

CommunicationClient::CommunicationClient()
    : delivery_(std::make_shared<Delivery>()), writer_builder_(compactWriterBuilder()) {}

CommunicationClient::~CommunicationClient() {
    std::unique_lock<std::mutex> lifecycle(lifecycle_mutex_, std::defer_lock);
    if (!onReceiveThread()) lifecycle.lock();
    endCurrentConnection();
}

void CommunicationClient::attachListener(iRecieveListener* listener) { delivery_->attach(listener); }

void CommunicationClient::releaseListener(iRecieveListener* listener) { delivery_->release(listener); }

void CommunicationClient::setClientHandle(std::shared_ptr<BasicClientInterface> client) {
    std::lock_guard<std::mutex> lock(state_mutex_);
    client_ = std::move(client);
}

void CommunicationClient::setSendRate(double rate) { send_rate_ = rate; }

void CommunicationClient::setRecvRate(double rate) { recv_rate_ = rate; }

int CommunicationClient::connect(const std::string& ip, int port, double timeout) {
    if (port < 1 || port > 65535) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d refused: port out of range", ip.c_str(), port);
        return -1;
    }
    if (!std::isfinite(timeout) || timeout <= 0.0) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d refused: time-out %f s is not a positive number", ip.c_str(), port, timeout);
        return -1;
    }
    std::unique_lock<std::mutex> lifecycle(lifecycle_mutex_, std::defer_lock);
    if (!lockLifecycle(lifecycle)) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d refused: another thread is connecting or disconnecting", ip.c_str(), port);
        return -1;
    }
    endCurrentConnection();

    std::shared_ptr<BasicClientInterface> client;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        client = client_;
    }
    if (!client) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d refused: no socket client set", ip.c_str(), port);
        return -1;
    }
    if (!client->open(timeout)) return -1;

    auto connection = std::make_shared<Connection>(client);
    try {
        std::lock_guard<std::mutex> lock(state_mutex_);
        std::thread thread(&CommunicationClient::receiveLoop, this, connection, delivery_);
        connection_ = connection;
        receive_thread_ = std::move(thread);
    } catch (const std::system_error& e) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d failed: no receive thread: %s", ip.c_str(), port, e.what());
        client->abort();
        return -1;
    }
    connection->waitUntilUpReported();
    return 1;
}

bool CommunicationClient::isConnected() {
    std::lock_guard<std::mutex> lock(state_mutex_);
    return connection_ && !connection_->stop_requested && connection_->client->isOpen();
}

void CommunicationClient::disConnect() {
    if (onReceiveThread()) {
        // The thread cannot wait for itself: end the connection now and
        // leave the thread to be joined by the next connect() or the
        // destructor.
        std::shared_ptr<Connection> connection;
        {
            std::lock_guard<std::mutex> lock(state_mutex_);
            connection = std::move(connection_);
        }
        if (connection) stopConnection(connection);
        return;
    }
    std::lock_guard<std::mutex> lifecycle(lifecycle_mutex_);
    endCurrentConnection();
}

int CommunicationClient::sendRequest(const Json::Value& request) {
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        connection = connection_;
    }
    if (!connection || connection->stop_requested) return -1;
    const std::string text = Json::writeString(writer_builder_, request);
    return connection->client->sendText(text) ? 1 : -1;
}

// From a callback on the receive thread, waiting for the lock could wait for
// a thread that is joining this one; such a call fails instead.
bool CommunicationClient::lockLifecycle(std::unique_lock<std::mutex>& lifecycle) {
    if (onReceiveThread()) return lifecycle.try_lock();
    lifecycle.lock();
    return true;
}

bool CommunicationClient::onReceiveThread() const { return receiving_for == this; }

// Stops the current connection and gets rid of its receive thread: joined,
// or detached when this is that thread (it then only touches the shared
// Connection and Delivery until it ends).
void CommunicationClient::endCurrentConnection() {
    std::shared_ptr<Connection> connection;
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        connection = std::move(connection_);
        if (receive_thread_.joinable() && receive_thread_.get_id() == std::this_thread::get_id()) {
            receive_thread_.detach();
        } else {
            thread = std::move(receive_thread_);
        }
    }
    if (connection) stopConnection(connection);
    if (thread.joinable()) thread.join();
}

// Asks the connection to end. From another thread the close handshake gets
// a bounded wait and the receive thread reports the end; on the receive
// thread itself the end is reported here, at once.
void CommunicationClient::stopConnection(const std::shared_ptr<Connection>& connection) {
    const bool on_its_thread = std::this_thread::get_id() == connection->receive_thread.load();
    connection->stop_requested = true;
    connection->client->close();
    if (!on_its_thread) connection->waitUntilLoopEnded(kCloseHandshakeTimeout);
    connection->client->abort();
    if (on_its_thread && !connection->down_reported.exchange(true)) reportConnectionState(*connection, false);
}

void CommunicationClient::receiveLoop(std::shared_ptr<Connection> connection, std::shared_ptr<Delivery> delivery) {
    receiving_for = this;
    connection->receive_thread = std::this_thread::get_id();
    reportConnectionState(*connection, true);
    connection->markUpReported();

    std::string message;
    while (!connection->stop_requested) {
        bool received = false;
        try {
            received = connection->client->receiveMessage(message);
        } catch (const std::exception& e) {
            KELM_LOG(LOG_ERROR, "receive from %s failed: %s", connection->client->endpoint().c_str(), e.what());
        } catch (...) {
            KELM_LOG(LOG_ERROR, "receive from %s failed with an unknown exception", connection->client->endpoint().c_str());
        }
        if (!received || connection->stop_requested) break;
        delivery->deliver(message);
    }
    connection->client->abort();
    connection->markLoopEnded();
    // Whoever ended the connection from inside a callback has reported it
    // already, and this object may be gone by now: touch it only when the
    // report is still due.
    if (!connection->down_reported.exchange(true)) reportConnectionState(*connection, false);
}

void CommunicationClient::reportConnectionState(Connection& connection, bool up) {
    if (!connect_callback) return;
    try {
        connect_callback(up);
    } catch (const std::exception& e) {
        KELM_LOG(LOG_ERROR, "connection callback for %s failed: %s", connection.client->endpoint().c_str(), e.what());
    } catch (...) {
        KELM_LOG(LOG_ERROR, "connection callback for %s failed with an unknown exception",
                 connection.client->endpoint().c_str());
    }
}

}  // namespace kelm
