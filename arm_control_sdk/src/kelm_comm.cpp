#include "kelm_comm.h"

#include <unistd.h>

#include <memory>
#include <utility>

#include "callback_registry.h"
#include "dispatch_scope.h"
#include "fast_frame.h"
#include "log_manager.h"
#include "message_text.h"
#include "protocol.h"
#include "websocket_client.h"

namespace kelm {

namespace {

constexpr useconds_t kReconnectPauseUs = 1000000;
constexpr useconds_t kAfterConnectPauseUs = 100000;
constexpr useconds_t kReplyPollUs = 100;

// A tracking target and the redundancy torques are streams whose next
// message supersedes the last: one may be dropped rather than queued.
bool isSupersedingStream(const std::string& command, const std::string& task_id) {
    return task_id == protocol::kTrackingTaskId || command == protocol::kRedundancyTauCommand;
}

// Streaming requests go out without a wait for a reply and write no log line.
bool isStreamingRequest(const std::string& command, const std::string& task_id) {
    return isSupersedingStream(command, task_id) || command == protocol::kEndEffectorCommand;
}

// Runs cmd_recv's work on `message` under its handlers: an exception is
// logged (or, when it is no std::exception, printed with the message) and
// the result is false.
template <typename Work>
bool receiveGuarded(const std::string& message, Work work) {
    try {
        return work();
    } catch (const DispatchEnded&) {
        throw;
    } catch (const std::exception& e) {
        KELM_LOG(LOG_ERROR, "%s", e.what());
    } catch (...) {
        reportUnknownException(message);
    }
    return false;
}

bool hasStringLastTaskKey(const Json::Value& arm) {
    if (!arm.isMember("task")) return false;
    const Json::Value& task = arm["task"];
    return task.isObject() && task.isMember("last_task_key") && task["last_task_key"].isString();
}

}  // namespace

KelmCommManager::SocketClientFactory KelmCommManager::webSocketClientFactory() {
    return [](const std::string& ip, unsigned short port) -> std::shared_ptr<BasicClientInterface> {
        return std::make_shared<WebSocketClient>(ip, port);
    };
}

KelmCommManager::KelmCommManager() : KelmCommManager(webSocketClientFactory()) {}

KelmCommManager::KelmCommManager(SocketClientFactory factory) : make_socket_client_(std::move(factory)) {
    const std::pair<ComMode, const char*> mode_names[] = {
        {COM_NONE, "None"}, {COM_TCP, "Tcp"}, {COM_WEBSOCKET, "WebSocket"}};
    for (const auto& mode_name : mode_names) com_mode_names.insert(mode_name);

    comm_client = std::make_shared<CommunicationClient>();
    comm_client->attachListener(this);
    comm_client->connect_callback = [this](bool connected) { connectChanged(connected); };
}

KelmCommManager::~KelmCommManager() {
    KELM_LOG(LOG_INFO, "KelmCommManager destory...");
    if (comm_client) {
        comm_client->disConnect();
        comm_client->releaseListener(this);
        comm_client->connect_callback = nullptr;
    }
    // When a callback of this manager is destroying it, the walk that called
    // the callback must stop when it returns.
    DispatchScope::endScopesOf(this);
}

int KelmCommManager::connect_kelm(const std::string& ip, int port, double timeout) {
    if (is_connected()) {
        KELM_LOG(LOG_INFO, "Connecting, now disconnect first...");
        comm_client->disConnect();
        usleep(kReconnectPauseUs);
    }
    comm_client->setClientHandle(make_socket_client_(ip, static_cast<unsigned short>(port)));
    comm_client->setSendRate(send_rate);
    comm_client->setRecvRate(recv_rate);
    if (comm_client->connect(ip, port, timeout) == -1) {
        KELM_LOG(LOG_ERROR, "Connect failed, ip %s, port %d", ip.c_str(), port);
        return 0;
    }
    KELM_LOG(LOG_INFO, "Kelm connected successful...");
    usleep(kAfterConnectPauseUs);
    return 1;
}

int KelmCommManager::disconnect_kelm() {
    if (!comm_client) return -1;
    comm_client->disConnect();
    return 1;
}

bool KelmCommManager::is_connected() { return comm_client ? comm_client->isConnected() : false; }

void KelmCommManager::setSendRate(double rate) {
    send_rate = rate;
    comm_client->setSendRate(rate);
}

void KelmCommManager::setRecvRate(double rate) {
    recv_rate = rate;
    comm_client->setRecvRate(rate);
}

// A callback that destroys this manager ends a walk here: a caught
// DispatchEnded means that nothing of the object may be touched any more.
void KelmCommManager::connectChanged(bool connected) {
    DispatchScope scope(this, nullptr);
    try {
        registry::callEachSet(registry_mutex_, connect_changed_callbacks, connected);
    } catch (const DispatchEnded&) {
    }
}

void KelmCommManager::onReceive(const std::string& message) {
    DispatchScope scope(this, &message);
    try {
#if KELM_FRAME_FAST_PATH
        // A message the fast reader maps with certainty is no reply: its tasks
        // are broadcast and it goes to the state callbacks without a tree.
        const fast_frame::Lease lease = fast_frame::read(message);
        if (const fast_frame::Message* fast = lease.message()) {
            receiveGuarded(message, [&] {
                fast_frame::forEachFinishedTask(*fast, [this](const std::string& key) { broadcastFinishedTask(key); });
                return false;
            });
            scope.setFast(fast);
            registry::callEach(registry_mutex_, update_robot_state_callbacks, message);
            return;
        }
#endif
        Json::Value tree;
        bool parsed = false;
        if (receiveMessage(message, tree, parsed)) return;
        if (parsed) scope.setTree(&tree);
        registry::callEach(registry_mutex_, update_robot_state_callbacks, message);
    } catch (const DispatchEnded&) {
    }
}

const Json::Value* KelmCommManager::treeOfDispatchedMessage(const std::string& message) const {
    return DispatchScope::treeOf(*this, message);
}

#if KELM_FRAME_FAST_PATH
const fast_frame::Message* fast_frame::dispatchedMessage(const KelmCommManager& manager, const std::string& text) {
    return DispatchScope::fastOf(manager, text);
}
#endif

bool KelmCommManager::cmd_publish(const Json::Value& request, std::string& task_key) {
    Json::Value message = request;
    if (!comm_client) return false;
    if (!message.isMember("command")) {
        KELM_LOG(LOG_ERROR, "without command");
        return false;
    }
    const std::string command = message["command"].asString();
    task_key = log_time::getTimeStamp(0);
    message["task_key"] = task_key;
    const std::string task_id = message.isMember("task_id") ? message["task_id"].asString() : std::string();
    if (!isStreamingRequest(command, task_id)) {
        KELM_LOG(LOG_INFO, "task [%s]--- %s", message["command"].asCString(), message["task_key"].asCString());
    }
    // A streamed target is dropped rather than queued behind a controller
    // that stops reading: the next one makes it stale. Every other message,
    // a gripper setting included, waits for room in the socket.
    if (isSupersedingStream(command, task_id)) return comm_client->sendLatest(message) == 1;
    return comm_client->sendRequest(message) == 1;
}

Json::Value KelmCommManager::cmd_server(const Json::Value& request, std::string& task_key, int timeout) {
    const Json::Value message = request;
    if (!cmd_publish(message, task_key)) return Json::Value();

    MsgHeader header{message["command"].asString(), task_key, Json::Value()};
    {
        // Appended only after the request went out: a reply that overtakes
        // the append finds no entry and the call runs into its time-out.
        std::lock_guard<std::mutex> lock(pending_mutex);
        pending_msgs.push_back(header);
    }
    try {
        return waitForReply(header, timeout);
    } catch (...) {
        return Json::Value();
    }
}

Json::Value KelmCommManager::waitForReply(const MsgHeader& header, int timeout) {
    log_time::TimerUnit timer;
    log_time::timer_start(timer);
    const double timeout_ms = static_cast<double>(timeout);
    auto matches = [&header](const MsgHeader& entry) {
        return entry.command == header.command && entry.task_key == header.task_key;
    };

    while (!(timer.elapsed_ms > timeout_ms)) {
        usleep(kReplyPollUs);
        std::lock_guard<std::mutex> lock(pending_mutex);
        for (auto it = pending_msgs.begin(); it != pending_msgs.end(); ++it) {
            if (matches(*it) && !it->data.isNull()) {
                Json::Value reply = it->data;
                pending_msgs.erase(it);
                return reply;
            }
        }
        log_time::timer_end(timer);
    }

    std::lock_guard<std::mutex> lock(pending_mutex);
    for (size_t i = 0; i < pending_msgs.size(); ++i) {
        if (matches(pending_msgs[i])) pending_msgs.erase(pending_msgs.begin() + static_cast<std::ptrdiff_t>(i));
    }
    KELM_LOG(LOG_ERROR, "%s timeout", header.task_key.c_str());
    return Json::Value();
}

bool KelmCommManager::cmd_recv(const std::string& message) {
    Json::Value tree;
    bool parsed = false;
    return receiveMessage(message, tree, parsed);
}

bool KelmCommManager::receiveMessage(const std::string& message, Json::Value& tree, bool& parsed) {
    return receiveGuarded(message, [&] {
        tree = parseMessageText(message);
        parsed = true;
        const Json::Value& value = tree;  // read-only: operator[] must never insert members
        if (value.isNull()) {
            KELM_LOG(LOG_ERROR, "parse error %s", message.c_str());
            return false;
        }
        broadcastFinishedTasks(value);
        if (!(value.isMember("command") && value.isMember("task_key"))) return false;
        storeReply(value["command"].asString(), value["task_key"].asString(), value);
        return true;
    });
}

void KelmCommManager::broadcastFinishedTasks(const Json::Value& message) {
    if (!message.isMember("arm")) return;
    const Json::Value& arms = message["arm"];
    for (Json::ArrayIndex i = 0; i < arms.size(); ++i) {
        const Json::Value& arm = arms[i];
        if (!hasStringLastTaskKey(arm)) continue;
        broadcastFinishedTask(arm["task"]["last_task_key"].asString());
    }
}

void KelmCommManager::broadcastFinishedTask(const std::string& key) {
    registry::callEach(registry_mutex_, task_completion_callbacks, key);
    fireSubscriptionOnce(key);
}

void KelmCommManager::fireSubscriptionOnce(const std::string& key) {
    TextCallback subscription;
    {
        std::lock_guard<std::mutex> lock(registry_mutex_);
        const auto it = subscriptions.find(key);
        if (it == subscriptions.end()) return;
        // An empty entry throws and stays registered.
        if (!it->second) throw std::bad_function_call();
        // Erased before the call, so that a waiter woken by it finds the entry gone.
        subscription = std::move(it->second);
        subscriptions.erase(it);
    }
    subscription(key);
    DispatchScope::throwIfEnded();
}

void KelmCommManager::storeReply(const std::string& command, const std::string& task_key, const Json::Value& reply) {
    std::lock_guard<std::mutex> lock(pending_mutex);
    for (auto& entry : pending_msgs) {
        if (entry.command == command && entry.task_key == task_key) {
            entry.data = reply;
        }
    }
}

void KelmCommManager::register_subscription(std::string key, TextCallback callback) {
    registry::set(registry_mutex_, subscriptions, key, std::move(callback));
}

void KelmCommManager::deregister_subscription(std::string key) { registry::erase(registry_mutex_, subscriptions, key); }

void KelmCommManager::clear_subscription() { registry::clear(registry_mutex_, subscriptions); }

int KelmCommManager::register_task_completion_callback(const std::string& name, TextCallback callback) {
    registry::set(registry_mutex_, task_completion_callbacks, name, std::move(callback));
    return 0;
}

int KelmCommManager::release_task_completion_callback(const std::string& name) {
    registry::erase(registry_mutex_, task_completion_callbacks, name);
    return 0;
}

int KelmCommManager::release_task_completion_callback() {
    registry::clear(registry_mutex_, task_completion_callbacks);
    return 0;
}

int KelmCommManager::register_update_robot_state_callback(const std::string& name, TextCallback callback) {
    registry::set(registry_mutex_, update_robot_state_callbacks, name, std::move(callback));
    return 0;
}

int KelmCommManager::release_update_robot_state_callback(const std::string& name) {
    registry::erase(registry_mutex_, update_robot_state_callbacks, name);
    return 0;
}

int KelmCommManager::release_update_robot_state_callback() {
    registry::clear(registry_mutex_, update_robot_state_callbacks);
    return 0;
}

int KelmCommManager::register_connect_changed_callback(const std::string& name, ConnectCallback callback) {
    registry::set(registry_mutex_, connect_changed_callbacks, name, std::move(callback));
    return 0;
}

int KelmCommManager::release_connect_changed_callback(const std::string& name) {
    registry::erase(registry_mutex_, connect_changed_callbacks, name);
    return 0;
}

int KelmCommManager::release_connect_changed_callback() {
    registry::clear(registry_mutex_, connect_changed_callbacks);
    return 0;
}

}  // namespace kelm
