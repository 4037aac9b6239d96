// frame_cost: one master state frame through the teleoperation hot path, N
// times, as a plain program whose cost per frame an instruction counter can
// read repeatably.
//
// The master kernel receives a six-joint frame written by the controller
// simulator's frame writer (onReceive: reply matching, take-over of the
// state, the tele master registry); its listener does what the tool's joint
// mode does (gripper mapping, copy of the joints, tracking on the slave
// kernel), and the slave kernel publishes the target over loopback to a
// server that only counts. That server's receive work runs on its own
// threads, so an instruction count restricted to onReceive leaves it out:
//
//   valgrind --tool=callgrind --toggle-collect='kelm::KelmCommManager::onReceive*'
//            build-perf/bench/frame_cost 20000
//
// then divide the "Collected" total by the frame count. Without valgrind it
// prints the wall time per frame as a rough figure.
//
// With --parse-once it measures the reference instead: the same frame parsed
// once with jsoncpp, joints and gripper read, one tracking message built and
// sent over a WebSocket client (count it with
// --toggle-collect='*relayParseOnce*').
#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelm_kernel.h"
#include "sim_model.h"
#include "state_frame_writer.h"
#include "websocket_client.h"
#include "websocket_server.h"

namespace {

using kelm::KelmKernelImpl;
using kelm::WebSocketServer;

constexpr int kDof = 6;
constexpr double kJointGripperDivisor = 0.6;  // the tool's joint-mode gripper mapping
constexpr double kGripperUpper = 0.08;

// A controller stand-in that takes what it is sent and only counts it.
class CountingServer {
public:
    CountingServer()
        : server_("127.0.0.1", 0,
                  {nullptr, [this](WebSocketServer::ConnectionId, const std::string&) { ++received; }, nullptr}) {
        server_.start();
    }
    unsigned short port() const { return server_.port(); }
    std::atomic<std::size_t> received{0};

private:
    WebSocketServer server_;
};

// A frame of one six-joint arm as the simulator streams it, after a few
// steps so that the joints are not all zero.
std::string masterFrame() {
    kelm::sim::SimModel model(1, kDof, kelm::sim::OperatorSettings{}, kelm::sim::WallSettings{});
    for (int step = 0; step < 50; ++step) model.step(0.002);
    kelm::sim::StateFrameWriter writer;
    return model.writeFrame(writer, 1000, 1700000000.5);
}

// A kernel as after its ready sequence: it has seen a frame and knows its
// joint limits.
void makeReady(KelmKernelImpl& kernel, const std::string& frame) {
    kernel.onReceive(frame);
    kernel.config.dof = kDof;
    kernel.config.limit_lower.assign(kDof, -3.0);
    kernel.config.limit_upper.assign(kDof, 3.0);
}

double mapGripper(double reading) { return std::clamp(reading / kJointGripperDivisor, 0.0, kGripperUpper); }

// The tool's path: the master kernel takes the frame over and its tele
// master listener publishes the target through the slave kernel.
long runToolPath(const std::string& frame, long frames, unsigned short slave_port) {
    // The master kernel is fed directly; its connect to a closed port fails
    // at once and leaves it without a connection.
    KelmKernelImpl master("127.0.0.1", 1, 0.2, 0);
    KelmKernelImpl slave("127.0.0.1", slave_port, 1.0, 0);
    makeReady(master, frame);
    makeReady(slave, frame);
    long published = 0;
    master.register_get_tele_master_data_callback("slaveJointTracking",
                                                  [&](double, std::vector<double> joint_pos, double gripper_pos) {
                                                      const double gripper = mapGripper(gripper_pos);
                                                      std::vector<double> target = std::move(joint_pos);
                                                      if (slave.tracking(target, true, gripper) == 1) ++published;
                                                  });
    for (long i = 0; i < frames; ++i) master.onReceive(frame);
    return published;
}

// The reference: one parse, one message built and sent.
struct ParseOnceRelay {
    std::unique_ptr<Json::CharReader> reader;
    Json::StreamWriterBuilder writer;
    kelm::WebSocketClient& slave;
};

__attribute__((noinline)) bool relayParseOnce(ParseOnceRelay& relay, const std::string& frame) {
    Json::Value root;
    if (!relay.reader->parse(frame.data(), frame.data() + frame.size(), &root, nullptr)) return false;
    const Json::Value& arm = root["arm"][0];
    Json::Value message;
    message["command"] = "trajectoryTrackingTasks";
    message["task_id"] = "TASK_TRACKING";
    Json::Value& way_point = message["data"]["way_point"];
    for (const Json::Value& joint : arm["reality"]["pose"]) way_point.append(joint.asDouble());
    message["data"]["grp_point"] = mapGripper(arm["gripper"]["gripper_pos"].asDouble());
    message["point_type"]["space"] = 0;
    message["arm_index"] = 0;
    return relay.slave.sendText(Json::writeString(relay.writer, message));
}

long runParseOnce(const std::string& frame, long frames, unsigned short slave_port) {
    kelm::WebSocketClient slave("127.0.0.1", slave_port);
    if (!slave.open(1.0)) return 0;
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    ParseOnceRelay relay{std::unique_ptr<Json::CharReader>(builder.newCharReader()), {}, slave};
    relay.writer["indentation"] = "";
    long published = 0;
    for (long i = 0; i < frames; ++i) published += relayParseOnce(relay, frame) ? 1 : 0;
    slave.close();
    return published;
}

}  // namespace

int main(int argc, char** argv) {
    const long frames = argc > 1 ? std::atol(argv[1]) : 10000;
    const bool parse_once = argc > 2 && std::string(argv[2]) == "--parse-once";
    if (frames <= 0 || (argc > 2 && !parse_once)) {
        std::cerr << "usage: " << argv[0] << " [frames] [--parse-once]" << std::endl;
        return 1;
    }
    CountingServer slave_controller;
    const std::string frame = masterFrame();

    const auto start = std::chrono::steady_clock::now();
    const long published = parse_once ? runParseOnce(frame, frames, slave_controller.port())
                                      : runToolPath(frame, frames, slave_controller.port());
    const auto elapsed = std::chrono::steady_clock::now() - start;

    // Let the counting server catch up, within bounds, so the figure below is
    // complete when the run is quick.
    for (int wait = 0; wait < 500 && slave_controller.received.load() < static_cast<std::size_t>(frames); ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const double ns = static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count());
    std::cout << (parse_once ? "parse-once relay" : "tool path") << ": frames " << frames << ", frame bytes "
              << frame.size() << ", published " << published << ", received by the slave controller "
              << slave_controller.received.load() << ", wall time per frame (set-up included) "
              << ns / static_cast<double>(frames) / 1000.0 << " us" << std::endl;
    return published == frames ? 0 : 1;
}
