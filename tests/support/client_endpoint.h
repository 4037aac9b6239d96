// ClientEndpoint: a CommunicationClient for a TestPeer, with itself as the
// listener, for the transport tests. It records every delivered message, the
// threads that delivered them and the most deliveries ever under way at once,
// and the connection's reports (true: up, false: down).
//
// Threads: onReceive, `hook` and the connection callback run on the client's
// receive thread; the records may be read from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "communication_client.h"
#include "recorder.h"
#include "test_peer.h"
#include "websocket_client.h"

namespace kelm {
namespace test {

class ClientEndpoint : public iRecieveListener {
public:
    explicit ClientEndpoint(TestPeer& peer) : peer_(peer) {
        client.attachListener(this);
        client.connect_callback = [this](bool up) { events.add(up); };
    }
    ~ClientEndpoint() override {
        client.disConnect();
        client.releaseListener(this);
    }

    // Connects through a fresh WebSocket client: 1, or -1 on failure.
    int connect() {
        client.setClientHandle(std::make_shared<WebSocketClient>(peer_.host(), peer_.port()));
        return client.connect(peer_.host(), peer_.port(), kConnectTimeoutSeconds);
    }

    void onReceive(const std::string& message) override {
        const int now_inside = ++inside_;
        // Raises max_inside to now_inside, unless another delivery has raised it further.
        for (int seen = max_inside.load(); now_inside > seen && !max_inside.compare_exchange_weak(seen, now_inside);) {
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            threads_.insert(std::this_thread::get_id());
        }
        messages.add(message);
        try {
            if (hook) hook(message);
        } catch (...) {
            --inside_;
            throw;
        }
        --inside_;
    }

    std::size_t threadCount() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return threads_.size();
    }

    std::function<void(const std::string&)> hook;  // runs inside onReceive, after the message is recorded
    Recorder<std::string> messages;
    Recorder<bool> events;
    std::atomic<int> max_inside{0};
    CommunicationClient client;

private:
    static constexpr double kConnectTimeoutSeconds = 1.0;

    TestPeer& peer_;
    std::atomic<int> inside_{0};
    mutable std::mutex mutex_;
    std::set<std::thread::id> threads_;
};

}  // namespace test
}  // namespace kelm
