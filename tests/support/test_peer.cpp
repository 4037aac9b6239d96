#include "test_peer.h"

#include <algorithm>
#include <memory>

namespace kelm {
namespace test {

namespace {

Json::Value parseJson(const std::string& text, bool& ok) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    ok = reader->parse(text.data(), text.data() + text.size(), &value, &errors);
    if (!ok) value = Json::Value();
    return value;
}

bool hasCommand(const Json::Value& message) { return message.isObject() && message["command"].isString(); }

bool isCommand(const Json::Value& message, const std::string& command) {
    return hasCommand(message) && message["command"].asString() == command;
}

}  // namespace

Json::Value jsonObject(std::initializer_list<std::pair<const char*, Json::Value>> members) {
    Json::Value object(Json::objectValue);
    for (const auto& member : members) object[member.first] = member.second;
    return object;
}

std::string toJsonText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

TestPeer::TestPeer() : sender_([this] { sendDueReplies(); }) {
    WebSocketServer::Handlers handlers;
    handlers.on_open = [this](WebSocketServer::ConnectionId) { notifyChange(); };
    handlers.on_text = [this](WebSocketServer::ConnectionId connection, const std::string& text) {
        onText(connection, text);
    };
    handlers.on_close = [this](WebSocketServer::ConnectionId) { notifyChange(); };
    server_ = std::make_unique<WebSocketServer>(kHost, 0, std::move(handlers));
    server_->start();
}

TestPeer::~TestPeer() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    reply_due_.notify_all();
    sender_.join();
    server_->stop();
}

unsigned short TestPeer::port() const { return server_->port(); }

void TestPeer::stop() { server_->stop(); }

void TestPeer::restart() { server_->start(); }

bool TestPeer::waitForConnections(std::size_t count, Milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return server_->connectionCount() == count; });
}

void TestPeer::closeConnections() {
    for (auto id : server_->connectionIds()) server_->closeConnection(id);
}

void TestPeer::dropConnections() {
    for (auto id : server_->connectionIds()) server_->dropConnection(id);
}

std::optional<Json::Value> TestPeer::waitForCommand(const std::string& command, Milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::optional<Json::Value> found;
    std::size_t checked = 0;
    const auto find_unclaimed = [&] {
        // Messages before `checked` have been tried already and only
        // claimed_ can have changed for them, never to unclaimed.
        for (std::size_t i = checked; i < received_.size(); ++i) {
            if (claimed_[i] || !isCommand(received_[i].json, command)) continue;
            claimed_[i] = true;
            found = received_[i].json;
            return true;
        }
        checked = received_.size();
        return false;
    };
    changed_.wait_for(lock, timeout, find_unclaimed);
    return found;
}

bool TestPeer::waitForCount(std::size_t count, Milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return received_.size() >= count; });
}

std::vector<ReceivedMessage> TestPeer::received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

void TestPeer::clearReceived() {
    std::lock_guard<std::mutex> lock(mutex_);
    received_.clear();
    claimed_.clear();
}

Json::Value TestPeer::recv(const std::string& value) { return jsonObject({{"recv", value}}); }

Json::Value TestPeer::replyFor(const Json::Value& request, const Json::Value& members) {
    Json::Value reply(Json::objectValue);
    for (const char* echoed : {"command", "task_key"}) {
        if (request.isObject() && request.isMember(echoed)) reply[echoed] = request[echoed];
    }
    if (members.isObject()) {
        for (const auto& name : members.getMemberNames()) reply[name] = members[name];
    }
    return reply;
}

void TestPeer::replyTo(const std::string& command, const Json::Value& members, Milliseconds delay) {
    replyWith(
        command, [members](const Json::Value&) { return members; }, delay);
}

void TestPeer::replyWith(const std::string& command, Responder responder, Milliseconds delay) {
    std::lock_guard<std::mutex> lock(mutex_);
    rules_[command] = Rule{std::move(responder), delay};
}

void TestPeer::setMinimumReplyDelay(Milliseconds delay) {
    std::lock_guard<std::mutex> lock(mutex_);
    minimum_reply_delay_ = delay;
}

bool TestPeer::sendText(const std::string& text) { return server_->broadcastText(text) > 0; }

bool TestPeer::sendJson(const Json::Value& value) { return sendText(toJsonText(value)); }

WebSocketServer& TestPeer::server() { return *server_; }

// Taking the lock orders the change before any waiter's next check.
void TestPeer::notifyChange() {
    { std::lock_guard<std::mutex> lock(mutex_); }
    changed_.notify_all();
}

void TestPeer::onText(WebSocketServer::ConnectionId connection, const std::string& text) {
    ReceivedMessage message;
    message.text = text;
    message.json = parseJson(text, message.is_json);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back(message);
        claimed_.push_back(false);
    }
    changed_.notify_all();
    if (hasCommand(message.json)) answer(connection, message.json);
}

void TestPeer::answer(WebSocketServer::ConnectionId connection, const Json::Value& request) {
    const auto rule = ruleFor(request["command"].asString());
    if (!rule) return;
    const Json::Value members = rule->responder(request);
    if (members.isNull()) return;
    const std::string reply = toJsonText(replyFor(request, members));
    if (rule->delay.count() == 0) {
        server_->sendText(connection, reply);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        due_replies_.emplace(Clock::now() + rule->delay, Reply{connection, reply});
    }
    reply_due_.notify_all();
}

void TestPeer::sendDueReplies() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        if (due_replies_.empty()) {
            reply_due_.wait(lock);
        } else if (Clock::now() < due_replies_.begin()->first) {
            reply_due_.wait_until(lock, due_replies_.begin()->first);
        } else {
            const Reply reply = std::move(due_replies_.begin()->second);
            due_replies_.erase(due_replies_.begin());
            lock.unlock();
            server_->sendText(reply.connection, reply.text);
            lock.lock();
        }
    }
}

// The rule for `command`, its delay raised to the minimum reply delay.
std::optional<TestPeer::Rule> TestPeer::ruleFor(const std::string& command) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = rules_.find(command);
    if (it == rules_.end()) return std::nullopt;
    Rule rule = it->second;
    rule.delay = std::max(rule.delay, minimum_reply_delay_);
    return rule;
}

Chatter::Chatter(TestPeer& peer, std::string text)
    : thread_([this, &peer, text = std::move(text)] {
          constexpr int kMostMessages = 1200;  // one minute
          for (int i = 0; i < kMostMessages && talking_; ++i) {
              peer.sendText(text);
              std::this_thread::sleep_for(std::chrono::milliseconds(50));
          }
      }) {}

Chatter::~Chatter() {
    talking_ = false;
    thread_.join();
}

}  // namespace test
}  // namespace kelm
