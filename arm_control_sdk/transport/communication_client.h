// CommunicationClient: carries JSON messages to and from one controller over a
// socket-level client (WebSocketClient), and delivers each received text
// message to the attached listener on a receive thread of its own.
//
// One connection at a time. connect() opens the socket client given by
// setClientHandle() and starts one receive thread for that connection; the
// thread delivers every complete message, in order, to the listener's
// onReceive() and calls connect_callback(true) once before the first message
// and connect_callback(false) once when the connection ends, whether the peer
// closed it, it broke, or disConnect() ended it. Nothing reconnects by itself.
//
// Threads:
// - One receive thread per client delivers everything: connect_callback and
//   the listener run on it only, never two at once, also across a reconnect
//   made from inside a callback (the same thread then goes on with the new
//   connection once the callback returns). An exception thrown by either is
//   logged and swallowed; the receive thread carries on.
// - sendRequest(), sendText() and isConnected() may be called from any thread, the
//   receive thread included.
// - connect(), disConnect(), setClientHandle() and the listener operations
//   may be called from any thread, also from inside a callback:
//   - on this client's receive thread, disConnect() ends the connection and
//     reports it at once; connect() reports the new connection at once and
//     fails (-1) while another thread is connecting or disconnecting, which
//     may be waiting for this very thread;
//   - on another client's receive thread, both wait for this client's
//     receive thread only when that thread is not itself waiting, directly
//     or through others, for the caller: two clients whose callbacks
//     disconnect each other never deadlock. disConnect() then stops the
//     connection and leaves its thread to report the loss and to be joined
//     by the next connect() or the destructor; connect() fails (-1).
//   Destroying a client is the one wait that cannot be skipped: two clients
//   must not destroy each other from their callbacks.
// - Assign connect_callback only while no connection stands (before
//   connect(), or after disConnect() has returned on a thread that is no
//   receive thread).
//
// Real-time scheduling (opt-in, see real_time.h): setRealTime() puts the
// receive thread, and with it every callback and every send made from one,
// at a SCHED_FIFO priority and optionally on one CPU. A client starts with
// realTimeSettingFromEnvironment(), so that the tool and Python programs ask
// for it through KELM_RT_PRIORITY and KELM_CPU; without them nothing changes.
//
// Rates: setSendRate() and setRecvRate() are stored and carried over from
// one connection to the next, but they do not pace anything: every request
// goes out when sendRequest() is called and every message is delivered as
// soon as it is complete, because the controller's state stream is the clock
// of the application.
#pragma once

#include <json/json.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "basic_client_interface.h"
#include "i_recieve_listener.h"
#include "real_time.h"

namespace kelm {

class CommunicationClient {
public:
    CommunicationClient();
    ~CommunicationClient();
    CommunicationClient(const CommunicationClient&) = delete;
    CommunicationClient& operator=(const CommunicationClient&) = delete;

    // Makes `listener` the receiver of all messages from now on, across
    // reconnections; replaces any listener attached before.
    void attachListener(iRecieveListener* listener);
    // Detaches `listener` if it is the one attached. When it returns on
    // another thread than the receive thread, no delivery to the listener is
    // running any more.
    void releaseListener(iRecieveListener* listener);
    // Takes shared ownership of the socket client used by the next connect().
    // A connection that stands keeps the client it was opened with.
    void setClientHandle(std::shared_ptr<BasicClientInterface> client);
    // Applies `setting` to the receive thread now running, if any, and to
    // every one started later. A setting that asks for nothing leaves a
    // running thread as it is.
    void setRealTime(const RealTimeSetting& setting);
    void setSendRate(double rate);
    void setRecvRate(double rate);
    // Ends any earlier connection, then opens the socket client's endpoint.
    // `ip` and `port` name the endpoint in log lines; a port outside 1 to
    // 65535, a time-out that is not a positive number of seconds, or a
    // missing socket client fail at once. Returns -1 on failure, 1 once the
    // connection stands and connect_callback(true) has run; never later
    // than `timeout` seconds plus the time of that callback.
    int connect(const std::string& ip, int port, double timeout);
    bool isConnected();
    // Closes the connection with a close handshake (bounded wait), then
    // waits for the receive thread unless called on it. Harmless when
    // nothing stands.
    void disConnect();
    // Sends the request as compact one-line JSON, UTF-8 kept as is. 1 when
    // the message went out; -1 when no connection stands or sending failed
    // (a failed send also ends the connection). Safe from several threads at
    // once; messages never interleave.
    int sendRequest(const Json::Value& request);
    // As sendRequest() for a message already written as JSON text.
    int sendText(const std::string& text);
    // As sendRequest() for a message that the next one makes stale (a
    // streamed target): sent only when the controller keeps up with reading,
    // and never blocking the caller for long; -1 when it was dropped.
    int sendLatest(const Json::Value& request);
    // As sendLatest() for a message already written as JSON text.
    int sendLatestText(const std::string& text);

    // Told true when the connection comes up and false, once, when it goes down.
    std::function<void(bool)> connect_callback;

private:
    struct Connection;
    struct Delivery;

    void receiveLoop(std::shared_ptr<Connection> connection, std::shared_ptr<Delivery> delivery,
                     RealTimeSetting real_time);
    void receiveUntilEnded(Connection& connection, Delivery& delivery);
    int adoptOnThisThread(const std::shared_ptr<Connection>& connection);
    int startReceiveThread(const std::shared_ptr<Connection>& connection, const std::string& ip, int port);
    void reportConnectionState(Connection& connection, bool up);
    void stopConnection(const std::shared_ptr<Connection>& connection, bool wait_for_close);
    void stopWithoutWaiting();
    bool lockLifecycle(std::unique_lock<std::mutex>& lifecycle);
    bool onReceiveThread() const;  // on this client's receive thread
    static std::string receiveThreadName(const Connection& connection);
    bool endCurrentConnection();

    // The connection that the receive thread running now is serving.
    static thread_local Connection* serving_;

    std::shared_ptr<Delivery> delivery_;
    std::mutex lifecycle_mutex_;  // serialises connect() and disConnect() between threads
    std::mutex state_mutex_;      // guards the four members below, held briefly
    std::shared_ptr<BasicClientInterface> client_;
    std::shared_ptr<Connection> connection_;
    std::thread receive_thread_;
    RealTimeSetting real_time_;
    std::atomic<double> send_rate_{0.0};
    std::atomic<double> recv_rate_{0.0};
    const Json::StreamWriterBuilder writer_builder_;
};

}  // namespace kelm
