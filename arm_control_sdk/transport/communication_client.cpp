#include "communication_client.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <map>
#include <system_error>
#include <utility>

#include "log_manager.h"

namespace kelm {

namespace {

// How long disConnect() waits for the peer to answer the close frame before
// it cuts the connection.
constexpr std::chrono::milliseconds kCloseHandshakeTimeout(500);

// Room for state frames of several arms, kept from message to message.
constexpr std::size_t kKeptMessageCapacity = 256 * 1024;

// The client whose receive thread this is, if it is one. Unlike the member
// receive_thread_, it stays right while another thread is joining this one.
thread_local const CommunicationClient* receiving_for = nullptr;

// Which receive thread waits for which: a receive thread may block on another
// client's receive thread only when that one does not already wait, directly
// or through others, for it. Threads that receive nothing are never waited
// for by a receive thread, so they need no entry.
std::mutex waits_mutex;
std::map<std::thread::id, std::thread::id> waits_for;

// Enters the wait of this receive thread for `target`; false, with nothing
// entered, when that wait would close a circle.
bool beginWaitFor(std::thread::id target) {
    const auto self = std::this_thread::get_id();
    std::lock_guard<std::mutex> lock(waits_mutex);
    for (auto next = target; next != std::thread::id();) {
        if (next == self) return false;
        auto found = waits_for.find(next);
        next = found == waits_for.end() ? std::thread::id() : found->second;
    }
    waits_for[self] = target;
    return true;
}

void endWait() {
    std::lock_guard<std::mutex> lock(waits_mutex);
    waits_for.erase(std::this_thread::get_id());
}

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
    explicit Connection(std::shared_ptr<BasicClientInterface> socket_client) : client(std::move(socket_client)) {}

    void markUpReported() { setFlag(up_reported); }
    void markLoopEnded() { setFlag(loop_ended); }

    bool upReported() {
        std::lock_guard<std::mutex> lock(mutex);
        return up_reported;
    }

    // The connection that a callback on the receive thread opened in place
    // of this one; the thread serves it next.
    void setSuccessor(std::shared_ptr<Connection> next) {
        std::lock_guard<std::mutex> lock(mutex);
        successor = std::move(next);
    }

    std::shared_ptr<Connection> takeSuccessor() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::move(successor);
    }

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
    std::shared_ptr<Connection> successor;
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

thread_local CommunicationClient::Connection* CommunicationClient::serving_ = nullptr;

std::string CommunicationClient::receiveThreadName(const Connection& connection) {
    return "the delivery thread of " + connection.client->endpoint();
}

CommunicationClient::CommunicationClient()
    : delivery_(std::make_shared<Delivery>()),
      real_time_(realTimeSettingFromEnvironment()),
      writer_builder_(compactWriterBuilder()) {}

// Inside a callback on its own receive thread the thread is left to unwind:
// it touches only the shared Connection and Delivery until it ends. Any
// other receive thread is joined, even one that waits for the caller.
CommunicationClient::~CommunicationClient() {
    std::unique_lock<std::mutex> lifecycle(lifecycle_mutex_, std::defer_lock);
    if (!onReceiveThread()) lifecycle.lock();
    endCurrentConnection();
    if (!receive_thread_.joinable()) return;
    if (receive_thread_.get_id() == std::this_thread::get_id())
        receive_thread_.detach();
    else
        receive_thread_.join();
}

void CommunicationClient::attachListener(iRecieveListener* listener) { delivery_->attach(listener); }

void CommunicationClient::releaseListener(iRecieveListener* listener) { delivery_->release(listener); }

void CommunicationClient::setClientHandle(std::shared_ptr<BasicClientInterface> client) {
    std::lock_guard<std::mutex> lock(state_mutex_);
    client_ = std::move(client);
}

void CommunicationClient::setRealTime(const RealTimeSetting& setting) {
    std::lock_guard<std::mutex> lock(state_mutex_);
    real_time_ = setting;
    if (receive_thread_.joinable() && connection_ && setting.asksForAnything()) {
        applyRealTime(receive_thread_.native_handle(), setting, receiveThreadName(*connection_));
    }
}

void CommunicationClient::setSendRate(double rate) { send_rate_ = rate; }

void CommunicationClient::setRecvRate(double rate) { recv_rate_ = rate; }

int CommunicationClient::connect(const std::string& ip, int port, double timeout) {
    if (port < 1 || port > 65535) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d refused: port out of range", ip.c_str(), port);
        return -1;
    }
    if (!std::isfinite(timeout) || timeout <= 0.0) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d refused: time-out %f s is not a positive number", ip.c_str(), port,
                 timeout);
        return -1;
    }
    std::unique_lock<std::mutex> lifecycle(lifecycle_mutex_, std::defer_lock);
    if (!lockLifecycle(lifecycle)) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d refused: another thread is connecting or disconnecting", ip.c_str(),
                 port);
        return -1;
    }
    if (!endCurrentConnection()) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d refused: its receive thread is waiting for this thread", ip.c_str(),
                 port);
        return -1;
    }

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
    if (onReceiveThread() && serving_ != nullptr) return adoptOnThisThread(connection);
    return startReceiveThread(connection, ip, port);
}

// A reconnect from a callback: the receive thread that runs it serves the new
// connection once the callback returns, so that one thread delivers.
int CommunicationClient::adoptOnThisThread(const std::shared_ptr<Connection>& connection) {
    connection->receive_thread = std::this_thread::get_id();
    serving_->setSuccessor(connection);
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        connection_ = connection;
    }
    reportConnectionState(*connection, true);
    connection->markUpReported();
    return 1;
}

int CommunicationClient::startReceiveThread(const std::shared_ptr<Connection>& connection, const std::string& ip,
                                            int port) {
    try {
        std::lock_guard<std::mutex> lock(state_mutex_);
        std::thread thread(&CommunicationClient::receiveLoop, this, connection, delivery_, real_time_);
        connection_ = connection;
        receive_thread_ = std::move(thread);
    } catch (const std::system_error& e) {
        KELM_LOG(LOG_ERROR, "connect to %s:%d failed: no receive thread: %s", ip.c_str(), port, e.what());
        connection->client->abort();
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
        // The thread cannot wait for itself: end the connection now; the
        // thread stays and ends when the callback has returned.
        std::shared_ptr<Connection> connection;
        {
            std::lock_guard<std::mutex> lock(state_mutex_);
            connection = std::move(connection_);
        }
        if (connection) stopConnection(connection, false);
        return;
    }
    std::unique_lock<std::mutex> lifecycle(lifecycle_mutex_, std::defer_lock);
    if (!lockLifecycle(lifecycle)) {
        stopWithoutWaiting();
        return;
    }
    if (!endCurrentConnection()) stopWithoutWaiting();
}

int CommunicationClient::sendRequest(const Json::Value& request) {
    return sendText(Json::writeString(writer_builder_, request));
}

int CommunicationClient::sendText(const std::string& text) {
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        connection = connection_;
    }
    if (!connection || connection->stop_requested) return -1;
    return connection->client->sendText(text) ? 1 : -1;
}

int CommunicationClient::sendLatest(const Json::Value& request) {
    return sendLatestText(Json::writeString(writer_builder_, request));
}

int CommunicationClient::sendLatestText(const std::string& text) {
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        connection = connection_;
    }
    if (!connection || connection->stop_requested) return -1;
    return connection->client->sendLatestText(text) ? 1 : -1;
}

// From a callback on any receive thread, waiting for the lock could wait for
// a thread that is joining this one; such a call takes the lock only if it
// is free.
bool CommunicationClient::lockLifecycle(std::unique_lock<std::mutex>& lifecycle) {
    if (receiving_for != nullptr) return lifecycle.try_lock();
    lifecycle.lock();
    return true;
}

bool CommunicationClient::onReceiveThread() const { return receiving_for == this; }

// Stops the connection without waiting for its thread, which reports the
// loss when its callback returns and is joined by the next connect() or the
// destructor.
void CommunicationClient::stopWithoutWaiting() {
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        connection = connection_;
    }
    if (!connection) return;
    connection->stop_requested = true;
    connection->client->close();
    connection->client->abort();
}

// Stops the current connection and joins its receive thread, unless this is
// that thread (it stays) or the thread waits for this one (a receive thread
// of another client in a circle of waits): then the thread stays too and
// the result is false.
bool CommunicationClient::endCurrentConnection() {
    std::shared_ptr<Connection> connection;
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        if (!(receive_thread_.joinable() && receive_thread_.get_id() == std::this_thread::get_id())) {
            thread = std::move(receive_thread_);
        }
        connection = std::move(connection_);
    }
    const bool may_wait = !thread.joinable() || receiving_for == nullptr || beginWaitFor(thread.get_id());
    if (connection) stopConnection(connection, may_wait);
    if (!thread.joinable()) return true;
    if (!may_wait) {
        std::lock_guard<std::mutex> lock(state_mutex_);
        receive_thread_ = std::move(thread);
        connection_ = std::move(connection);
        return false;
    }
    thread.join();
    if (receiving_for != nullptr) endWait();
    return true;
}

// Asks the connection to end. With `wait_for_close` the close handshake gets
// a bounded wait and the receive thread reports the end; on the receive
// thread itself the end is reported here, at once.
void CommunicationClient::stopConnection(const std::shared_ptr<Connection>& connection, bool wait_for_close) {
    const bool on_its_thread = std::this_thread::get_id() == connection->receive_thread.load();
    connection->stop_requested = true;
    connection->client->close();
    if (wait_for_close && !on_its_thread) connection->waitUntilLoopEnded(kCloseHandshakeTimeout);
    connection->client->abort();
    if (on_its_thread && !connection->down_reported.exchange(true)) reportConnectionState(*connection, false);
}

// Serves the first connection and every connection that a callback opens in
// its place, one after the other.
void CommunicationClient::receiveLoop(std::shared_ptr<Connection> connection, std::shared_ptr<Delivery> delivery,
                                      RealTimeSetting real_time) {
    receiving_for = this;
    connection->receive_thread = std::this_thread::get_id();
    if (real_time.asksForAnything()) applyRealTime(pthread_self(), real_time, receiveThreadName(*connection));
    while (connection) {
        serving_ = connection.get();
        if (!connection->upReported()) {
            reportConnectionState(*connection, true);
            connection->markUpReported();
        }
        receiveUntilEnded(*connection, *delivery);
        connection->client->abort();
        connection->markLoopEnded();
        // Whoever ended the connection from inside a callback has reported it
        // already, and this object may be gone by now: touch it only when the
        // report is still due.
        if (!connection->down_reported.exchange(true)) reportConnectionState(*connection, false);
        connection = connection->takeSuccessor();
    }
    serving_ = nullptr;
}

void CommunicationClient::receiveUntilEnded(Connection& connection, Delivery& delivery) {
    std::string message;
    while (!connection.stop_requested) {
        bool received = false;
        try {
            received = connection.client->receiveMessage(message);
        } catch (const std::exception& e) {
            KELM_LOG(LOG_ERROR, "receive from %s failed: %s", connection.client->endpoint().c_str(), e.what());
        } catch (...) {
            KELM_LOG(LOG_ERROR, "receive from %s failed with an unknown exception",
                     connection.client->endpoint().c_str());
        }
        if (!received || connection.stop_requested) return;
        delivery.deliver(message);
        // The buffer is kept for the next message, unless a rare large one
        // (a kinematics batch reply) made it grow.
        if (message.capacity() > kKeptMessageCapacity) std::string().swap(message);
    }
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
