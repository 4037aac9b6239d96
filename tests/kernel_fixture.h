// AnsweredKernel: a kernel over the in-memory socket whose requests are
// answered by rules keyed by `command`, for tests of what goes on the wire and
// how replies are read. Frames can go straight into onReceive on the test
// thread.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "direct_kernel.h"
#include "kelm_kernel.h"
#include "log_capture.h"
#include "state_frame_builder.h"
#include "test_peer.h"

namespace kelm {
namespace test {

// Requests get {"recv": "Task_Recieve"} unless a rule says otherwise; the
// streaming requests, which nobody waits for, get no answer. An answer goes
// to the receive thread only once the kernel has filed the request as
// pending: on a real link it cannot come sooner, and the kernel drops an
// answer that overtakes the filing. Answers leave from threads of their own,
// each waiting at most 2 s, joined before the kernel goes; after each answer
// goes `after_each_answer`, if set (a state frame that shows the request's
// effect, say).
//
// Threads: rules are set and requests read on the test's thread; responders
// run on the thread that sends the request.
class AnsweredKernel {
public:
    explicit AnsweredKernel(int arm_index) : socket_(std::make_shared<LoopbackSocket>()) {
        for (const char* streaming : {"trajectoryTrackingTasks", "setRedundancyTau", "setEffectorCtr"})
            replyTo(streaming, Json::Value());
        socket_->on_send = [this](const std::string& text) { answer(text); };
        kernel_ = std::make_unique<DirectKernel>(arm_index, socket_);
    }
    ~AnsweredKernel() {
        for (std::thread& answer : answers_) answer.join();
    }

    DirectKernel* operator->() { return kernel_.get(); }
    DirectKernel& operator*() { return *kernel_; }

    // Builds the members of the reply to `request`; null: no answer.
    using Responder = std::function<Json::Value(const Json::Value& request)>;

    // Answers `command` with these members over its `command` and `task_key`;
    // null members: no answer.
    void replyTo(const std::string& command, const Json::Value& members) {
        replyWith(command, [members](const Json::Value&) { return members; });
    }
    void replyWith(const std::string& command, Responder responder) { rules_[command] = std::move(responder); }

    std::function<std::string()> after_each_answer;

    // The requests with `command` sent since the last forgetSent(), without
    // their generated task_key.
    std::vector<Json::Value> sent(const std::string& command) const {
        std::vector<Json::Value> found;
        const std::vector<std::string> all = socket_->sent();
        for (size_t i = forgotten_; i < all.size(); ++i) {
            Json::Value request = parse(all[i]);
            request.removeMember("task_key");
            if (request["command"] == command) found.push_back(request);
        }
        return found;
    }
    // The one request with `command` sent since the last forgetSent(),
    // failing the test if there was none or more than one.
    Json::Value onlySent(const std::string& command) const {
        const std::vector<Json::Value> found = sent(command);
        EXPECT_EQ(found.size(), 1u) << "requests with command " << command;
        return found.empty() ? Json::Value() : found.front();
    }
    size_t sentCount() const { return socket_->sent().size() - forgotten_; }
    void forgetSent() { forgotten_ = socket_->sent().size(); }

    static Json::Value parse(const std::string& text) {
        Json::Value value;
        EXPECT_TRUE(tryParse(text, value)) << text;
        return value;
    }

private:
    static constexpr int kFilingPolls = 20000;  // of 100 us: 2 s

    static bool tryParse(const std::string& text, Json::Value& value) {
        std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    }

    // Text that is no JSON (an infinity written as 1e+9999) gets no answer.
    void answer(const std::string& text) {
        Json::Value request;
        if (!tryParse(text, request)) return;
        const std::string command = request["command"].asString();
        const auto rule = rules_.find(command);
        const Json::Value members = rule != rules_.end() ? rule->second(request) : TestPeer::recv("Task_Recieve");
        if (members.isNull()) return;
        const std::string reply = toJsonText(TestPeer::replyFor(request, members));
        const std::string key = request["task_key"].asString();
        const std::string after = after_each_answer ? after_each_answer() : std::string();
        answers_.emplace_back([this, reply, after, command, key] {
            for (int poll = 0; poll < kFilingPolls && !filed(command, key); ++poll) usleep(100);
            socket_->deliver(reply);
            if (!after.empty()) socket_->deliver(after);
        });
    }

    bool filed(const std::string& command, const std::string& key) {
        std::lock_guard<std::mutex> lock(kernel_->pending_mutex);
        for (const auto& entry : kernel_->pending_msgs)
            if (entry.command == command && entry.task_key == key) return true;
        return false;
    }

    std::shared_ptr<LoopbackSocket> socket_;
    std::map<std::string, Responder> rules_;
    std::vector<std::thread> answers_;
    size_t forgotten_ = 0;
    std::unique_ptr<DirectKernel> kernel_;
};

}  // namespace test
}  // namespace kelm
