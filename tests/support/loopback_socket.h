// LoopbackSocket: a socket-level client held in memory, for driving a
// connection or a kernel without a network (through the protected
// constructors that take a socket-client factory).
//
// open() always succeeds. Messages given to deliver() come out of
// receiveMessage() in order, on the connection's receive thread; sendText()
// records each message and hands it to `on_send`, which may answer with
// deliver(). close() and abort() end the connection at once.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "basic_client_interface.h"

namespace kelm {
namespace test {

class LoopbackSocket : public BasicClientInterface {
public:
    // Called on the sending thread with every sent message; set it before
    // the connection opens.
    std::function<void(const std::string&)> on_send;

    bool open(double /*timeout_seconds*/) override {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        return true;
    }

    bool receiveMessage(std::string& message) override {
        std::unique_lock<std::mutex> lock(mutex_);
        arrived_.wait(lock, [this] { return !open_ || !inbox_.empty(); });
        if (!open_) return false;
        message = std::move(inbox_.front());
        inbox_.pop_front();
        return true;
    }

    bool sendText(const std::string& text) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!open_) return false;
            sent_.push_back(text);
        }
        if (on_send) on_send(text);
        return true;
    }

    void close() override { abort(); }

    void abort() override {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = false;
        arrived_.notify_all();
    }

    bool isOpen() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        return open_;
    }

    std::string endpoint() const override { return "loopback"; }

    // Queues `message` for the receive thread.
    void deliver(const std::string& message) {
        std::lock_guard<std::mutex> lock(mutex_);
        inbox_.push_back(message);
        arrived_.notify_all();
    }

    std::vector<std::string> sent() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return sent_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    bool open_ = false;
    std::deque<std::string> inbox_;
    std::vector<std::string> sent_;
};

}  // namespace test
}  // namespace kelm
