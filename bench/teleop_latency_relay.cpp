#include "teleop_latency_relay.h"

#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <functional>
#include <iostream>
#include <memory>
#include <thread>

#include "websocket_client.h"

namespace kelm {
namespace bench {

namespace {

constexpr double kConnectTimeoutSeconds = 2.0;
constexpr double kGripperUpper = 0.08;
constexpr char kRawMessage[] = "{\"command\":\"relay\"}";

std::atomic<bool> interrupted{false};

void onSigint(int) { interrupted = true; }

// Reads messages from `socket` on a thread of its own and hands each to
// `handle`, until the connection ends.
class Receiver {
public:
    Receiver(WebSocketClient& socket, std::function<void(const std::string&)> handle)
        : thread_([&socket, handle = std::move(handle)] {
              std::string message;
              while (socket.receiveMessage(message)) handle(message);
          }) {}
    ~Receiver() { thread_.join(); }

private:
    std::thread thread_;
};

// Parses a master frame and sends one tracking message for it.
class ParseOnceRelay {
public:
    explicit ParseOnceRelay(WebSocketClient& slave) : slave_(slave) {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        reader_.reset(builder.newCharReader());
        writer_builder_["indentation"] = "";
    }

    void relay(const std::string& frame) {
        Json::Value root;
        if (!reader_->parse(frame.data(), frame.data() + frame.size(), &root, nullptr)) return;
        const Json::Value& arm = root["arm"][0];
        const Json::Value& joints = arm["reality"]["pose"];
        const double gripper = arm["gripper"]["gripper_pos"].asDouble();

        Json::Value message;
        message["command"] = "trajectoryTrackingTasks";
        message["task_id"] = "TASK_TRACKING";
        Json::Value& way_point = message["data"]["way_point"];
        for (const Json::Value& joint : joints) way_point.append(joint.asDouble());
        message["data"]["grp_point"] = std::clamp(gripper / kJointGripperDivisor, 0.0, kGripperUpper);
        message["point_type"]["space"] = 0;
        message["arm_index"] = 0;
        slave_.sendText(Json::writeString(writer_builder_, message));
    }

private:
    WebSocketClient& slave_;
    std::unique_ptr<Json::CharReader> reader_;
    Json::StreamWriterBuilder writer_builder_;
};

}  // namespace

int runRelay(const std::string& kind) {
    if (kind != "raw" && kind != "parse") {
        std::cerr << "unknown relay " << kind << std::endl;
        return 1;
    }
    std::signal(SIGINT, onSigint);
    WebSocketClient master(kMasterHost, kControllerPort);
    WebSocketClient slave(kSlaveHost, kControllerPort);
    if (!master.open(kConnectTimeoutSeconds) || !slave.open(kConnectTimeoutSeconds)) {
        std::cerr << "relay cannot connect" << std::endl;
        return 1;
    }
    ParseOnceRelay parse_once(slave);
    std::function<void(const std::string&)> relay;
    if (kind == "raw") {
        const std::string fixed = kRawMessage;
        relay = [&slave, fixed](const std::string&) { slave.sendText(fixed); };
    } else {
        relay = [&parse_once](const std::string& frame) { parse_once.relay(frame); };
    }
    {
        Receiver from_master(master, relay);
        Receiver from_slave(slave, [](const std::string&) {});
        std::cout << "relay ready" << std::endl;
        while (!interrupted) usleep(20000);
        master.close();
        slave.close();
        master.abort();
        slave.abort();
    }
    return 0;
}

}  // namespace bench
}  // namespace kelm
