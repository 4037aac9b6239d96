// KelmCommManager: one connection to one arm controller.
//
// It publishes requests stamped with a fresh task key (cmd_publish), waits for
// the reply with the same command and key (cmd_server), and hands every other
// received message to named callbacks; task broadcasts in state frames reach
// the task-completion callbacks and one-shot subscriptions.
//
// Threads: cmd_publish and cmd_server may run on any thread, several at once.
// onReceive, cmd_recv and every callback of the four maps run on the
// transport's receive thread, one message after the other; a callback must
// never call cmd_server on its own connection (the reply would have to come
// through the thread that waits), but may publish. A callback may destroy
// its own manager (drop its last owner): the destruction happens there, and
// the walk that called the callback ends with it. The receive thread, and so
// every callback, runs at a real-time priority when asked for through
// comm_client->setRealTime() or KELM_RT_PRIORITY (communication_client.h).
//
// The four callback maps are plain public maps. The register, release and
// firing operations of this class are safe from any thread, also from a
// callback: they take a private lock to change a map or to copy its entries,
// and call the copies without it. A program that reads or changes a map
// directly does so unsynchronised with the receive thread, and must make sure
// itself that no message is being delivered meanwhile.
#pragma once

#include <json/json.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "basic_client_interface.h"
#include "communication_client.h"
#include "i_recieve_listener.h"

namespace kelm {

// The port on which a controller serves its WebSocket.
constexpr int kControllerPort = 8090;

class KelmCommManager : public iRecieveListener {
public:
    // Kinds of transport; only the WebSocket is ever made.
    enum ComMode { COM_NONE = 0, COM_TCP = 0, COM_WEBSOCKET = 1 };

    // One request in flight: `data` is null until its reply has come.
    struct MsgHeader {
        std::string command;
        std::string task_key;
        Json::Value data;
    };

    using TextCallback = std::function<void(std::string)>;
    using ConnectCallback = std::function<void(bool)>;

    KelmCommManager();
    ~KelmCommManager() override;
    KelmCommManager(const KelmCommManager&) = delete;
    KelmCommManager& operator=(const KelmCommManager&) = delete;

    // 1 once connected, 0 when the connection failed within `timeout` seconds.
    // An existing connection is closed first, followed by a one-second pause.
    int connect_kelm(const std::string& ip, int port, double timeout);
    // 1 after disconnecting, -1 without a transport client.
    int disconnect_kelm();
    bool is_connected();
    void setSendRate(double rate);
    void setRecvRate(double rate);

    // Told by the transport of each change of the connection; walks
    // connect_changed_callbacks, skipping empty entries.
    void connectChanged(bool connected);

    // Entry of the receive thread: replies stop at cmd_recv, every other
    // message goes to update_robot_state_callbacks.
    void onReceive(const std::string& message) override;

    // Sends `request` with a fresh task key, returned through `task_key`.
    // True when the transport sent it. Streaming requests write no log line.
    bool cmd_publish(const Json::Value& request, std::string& task_key);
    // Publishes and waits up to `timeout` ms for the reply with the same
    // command and task key. Returns the reply, or null on a failed send or a
    // time-out (a late reply is then dropped).
    Json::Value cmd_server(const Json::Value& request, std::string& task_key, int timeout);
    // Parses one received message, broadcasts its finished tasks, files a
    // reply with its waiter. True if the message was a reply.
    bool cmd_recv(const std::string& message);

    void register_subscription(std::string key, TextCallback callback);
    void deregister_subscription(std::string key);
    void clear_subscription();
    int register_task_completion_callback(const std::string& name, TextCallback callback);
    int release_task_completion_callback(const std::string& name);
    int release_task_completion_callback();
    int register_update_robot_state_callback(const std::string& name, TextCallback callback);
    int release_update_robot_state_callback(const std::string& name);
    int release_update_robot_state_callback();
    int register_connect_changed_callback(const std::string& name, ConnectCallback callback);
    int release_connect_changed_callback(const std::string& name);
    int release_connect_changed_callback();

    std::shared_ptr<CommunicationClient> comm_client;
    double send_rate = 0.5;
    double recv_rate = 0.5;
    std::deque<MsgHeader> pending_msgs;  // guarded by pending_mutex
    std::mutex pending_mutex;
    std::map<std::string, std::function<void(std::string)>> subscriptions;              // one-shot, by task key
    std::map<std::string, std::function<void(std::string)>> task_completion_callbacks;  // by name, per finished task
    std::map<std::string, std::function<void(std::string)>>
        update_robot_state_callbacks;                                            // by name, per non-reply message
    std::map<std::string, std::function<void(bool)>> connect_changed_callbacks;  // by name, per connection change
    std::map<ComMode, std::string> com_mode_names;

protected:
    // Makes the socket client for one connect_kelm from the IP text and the
    // port narrowed to 16 bits.
    using SocketClientFactory =
        std::function<std::shared_ptr<BasicClientInterface>(const std::string& ip, unsigned short port)>;

    // A manager whose connections run over the socket clients that `factory`
    // makes instead of WebSocket clients: the seam for tests, fuzzers and
    // benchmarks that drive a connection without a network.
    explicit KelmCommManager(SocketClientFactory factory);
    // The factory of the public constructors: a WebSocketClient per connection.
    static SocketClientFactory webSocketClientFactory();

    // Guards every change of this connection's callback maps and of the
    // kernel's registries, and the copies that their walks call; never held
    // while a callback runs.
    std::mutex registry_mutex_;

    // The parsed tree of `message` when it is the message that onReceive is
    // handing to the state callbacks on this thread right now, otherwise
    // null. Lets a state callback skip parsing the same text a second time.
    const Json::Value* treeOfDispatchedMessage(const std::string& message) const;

private:
    SocketClientFactory make_socket_client_;

    // cmd_recv's work; `tree` receives the parsed message and `parsed` says
    // whether the parse itself completed.
    bool receiveMessage(const std::string& message, Json::Value& tree, bool& parsed);
    void storeReply(const std::string& command, const std::string& task_key, const Json::Value& reply);
    Json::Value waitForReply(const MsgHeader& header, int timeout);
    void broadcastFinishedTasks(const Json::Value& message);
    // Tells the task-completion callbacks and the one-shot subscription of
    // `key` that its task has finished.
    void broadcastFinishedTask(const std::string& key);
    void fireSubscriptionOnce(const std::string& key);
};

}  // namespace kelm
