// End-to-end tests of the teleoperation tool: the built kelm_teleop runs as a
// child process against two simulated controllers in this process, the master
// on 127.0.0.2:8090 (--ip) and the slave on 127.0.0.1:8090. Both record, on
// this process's steady clock, each message received and each frame sent, so
// messages can be ordered across controllers and traced to their frames.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim_controller.h"
#include "state_frame_builder.h"
#include "teleop_process.h"
#include "test_peer.h"
#include "websocket_server.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using kelm::sim::ArmTelemetry;
using kelm::sim::SimController;
using kelm::sim::SimOptions;

constexpr const char* kMasterHost = "127.0.0.2";
constexpr const char* kSlaveHost = "127.0.0.1";
constexpr const char* kTeleopPath = KELM_TELEOP_PATH;
constexpr double kFrameRate = 200.0;
constexpr size_t kFramesToRelay = 100;

// Generous: bring-up alone takes two ready sequences, two homing moves and two 1 s pauses.
constexpr auto kBringUpLimit = 60s;
constexpr auto kStreamLimit = 20s;
constexpr auto kExitLimit = 20s;

const std::vector<double> kHomePose{0.0, 0.0, 0.0, 0.0, -1.57, 0.0};
const std::string kRunningLine = "程序运行中... 按 Ctrl+C 退出\n";

struct Request {
    Json::Value json;
    Clock::time_point at;
};

// A state frame a controller sent, with the arm state it reported.
struct SentFrame {
    std::uint64_t count = 0;
    Clock::time_point at;
    ArmTelemetry arm;
};

// A simulated controller on port 8090 that records its traffic.
class RecordingController {
public:
    explicit RecordingController(SimOptions options) : controller_(std::move(options)) {
        controller_.received_message_observers.set("recorder", [this](const std::string& text, Clock::time_point at) {
            Json::Value json;
            std::istringstream stream(text);
            std::string errors;
            if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &json, &errors)) json = Json::Value(text);
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(Request{std::move(json), at});
            changed_.notify_all();
        });
        // Called right after the send, before the next step: the model still holds what the frame reported.
        controller_.sent_frame_observers.set("recorder", [this](std::uint64_t count, Clock::time_point at) {
            SentFrame frame{count, at, controller_.model().telemetry(0)};
            std::lock_guard<std::mutex> lock(mutex_);
            frames_.push_back(std::move(frame));
        });
        controller_.start();
    }
    ~RecordingController() { controller_.stop(); }

    SimController& sim() { return controller_; }

    // Every received message (with `command`, unless empty), in arrival order.
    std::vector<Request> requests(const std::string& command = "") const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Request> matching;
        for (const auto& request : requests_)
            if (command.empty() || request.json["command"].asString() == command) matching.push_back(request);
        return matching;
    }
    std::vector<SentFrame> frames() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return frames_;
    }
    bool waitForRequests(const std::string& command, size_t count, Clock::duration timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            return std::count_if(requests_.begin(), requests_.end(), [&](const Request& request) {
                       return request.json["command"].asString() == command;
                   }) >= static_cast<std::ptrdiff_t>(count);
        });
    }

private:
    SimController controller_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Request> requests_;
    std::vector<SentFrame> frames_;
};

SimOptions controllerOptions(const char* host) {
    SimOptions options;
    options.ip = host;
    options.port = 8090;
    options.rate = kFrameRate;
    options.quiet = true;
    return options;
}

// ---- what the tool prints ----

std::string bringUpText(const std::string& mode_line, const std::string& force_text, bool mirrored) {
    return std::string("主臂IP：127.0.0.2; 从臂IP：127.0.0.1\n") + mode_line + "\n" + "夹抓夹持力矩：" + force_text +
           "\n" + (mirrored ? "遥操方向为镜向。\n" : "遥操方向为同向。\n");
}

const char* const kModeAnnouncements[] = {"即将初始化普通关节同臂遥操。", "即将初始化笛卡尔末端遥操。",
                                          "即将初始化力反馈同臂遥操。"};
const char* const kModeStarts[] = {"启动普通关节同臂遥操\n", "启动笛卡尔末端遥操\n", "启动力反馈同臂遥操\n"};

std::string modeEnteredText(int mode) {
    return std::string(kModeStarts[mode]) +
           (mode == 2 ? "主臂kelm1进入主臂模式, 从臂kelm2进入从臂模式.\n"
                      : "主臂kelm1进入拖动模式, 从臂kelm2进入MIT模式.\n") +
           "遥操同步成功，可以拖动主臂.\n";
}

std::string usageText() {
    return std::string("用法: ") + kTeleopPath +
           " [选项]\n"
           "选项:\n"
           "  --mode MODE     模式选择 0:普通关节同臂遥操，1:笛卡尔末端遥操，2:力反馈同臂遥操 (默认: 0)\n"
           "  --ip IP         设置主臂的IP地址 (默认: 10.42.0.102)\n"
           "  --force clamping force       设置夹持力 (默认: 10.0)\n"
           "  --mirror mirror control      镜像操作 (默认: 0 (false))\n"
           "  -h, --help      显示此帮助信息\n";
}

// ---- tracing streamed messages back to frames ----

std::vector<double> doubles(const Json::Value& array) {
    std::vector<double> values;
    for (const auto& value : array) values.push_back(value.asDouble());
    return values;
}

using FrameMatch = std::function<bool(const SentFrame& frame, const Json::Value& message)>;

// Checks that message i came from frame j0 + i for one j0: nothing skipped,
// nothing sent twice. j0 comes from a message that fits exactly one frame.
void expectOneMessagePerFrame(const std::vector<SentFrame>& frames, const std::vector<Request>& messages,
                              const FrameMatch& matches) {
    ASSERT_GE(messages.size(), kFramesToRelay);
    std::optional<size_t> first_frame;
    for (size_t k = messages.size() / 2; k < messages.size() && !first_frame; ++k) {
        std::vector<size_t> candidates;
        for (size_t j = 0; j < frames.size(); ++j)
            if (matches(frames[j], messages[k].json)) candidates.push_back(j);
        if (candidates.size() == 1 && candidates[0] >= k) first_frame = candidates[0] - k;
    }
    ASSERT_TRUE(first_frame) << "no message fits exactly one frame: " << messages.front().json.toStyledString();
    ASSERT_LE(*first_frame + messages.size(), frames.size());
    for (size_t i = 0; i < messages.size(); ++i) {
        ASSERT_TRUE(matches(frames[*first_frame + i], messages[i].json))
            << "message " << i << " does not fit frame " << frames[*first_frame + i].count << ": "
            << messages[i].json.toStyledString();
    }
}

// A tracking message carries the master's joints (modes 0, 2; mirrored at 0, 3,
// 5) or end pose (mode 1; mirrored at 1, 3, 5) as the client reads them (floats),
// and its gripper reading divided by 0.6 (joints) or 0.8 (pose), clamped to [0, 0.08].
FrameMatch trackingOf(int mode, bool mirrored) {
    return [mode, mirrored](const SentFrame& frame, const Json::Value& message) {
        const bool pose = mode == 1;
        std::vector<double> expected;
        for (double value : pose ? std::vector<double>(frame.arm.pose.begin(), frame.arm.pose.end()) : frame.arm.joints)
            expected.push_back(static_cast<float>(value));
        if (mirrored)
            for (size_t i : {pose ? 1 : 0, 3, 5}) expected[i] = -expected[i];
        const double gripper = std::clamp(frame.arm.gripper_pos / (pose ? 0.8 : 0.6), 0.0, 0.08);
        return message["task_id"] == "TASK_TRACKING" && message["point_type"]["space"] == (pose ? 1 : 0) &&
               doubles(message["data"]["way_point"]) == expected && message["data"]["grp_point"].asDouble() == gripper;
    };
}

// A torque message to the master carries the slave's external joint torques
// (mirrored at 0, 3, 5) and its gripper torque, unscaled.
FrameMatch feedbackOf(bool mirrored) {
    return [mirrored](const SentFrame& frame, const Json::Value& message) {
        std::vector<double> expected = frame.arm.external_tau;
        if (mirrored)
            for (size_t i : {0, 3, 5}) expected[i] = -expected[i];
        return message["is_master"] == true && doubles(message["redundancy_tau"]) == expected &&
               message["eeff_tau"].asDouble() == frame.arm.gripper_tau;
    };
}

// The time of the first message with `command` whose `key` equals `value`.
std::optional<Clock::time_point> firstTime(const RecordingController& controller, const std::string& command,
                                           const std::string& key, const Json::Value& value) {
    for (const auto& request : controller.requests(command)) {
        if (request.json[key] == value) return request.at;
    }
    return std::nullopt;
}

// ---- fixture ----

class TeleopEndToEnd : public ::testing::Test {
protected:
    void startControllers(SimOptions slave_options = controllerOptions(kSlaveHost)) {
        master_.emplace(controllerOptions(kMasterHost));
        slave_.emplace(std::move(slave_options));
    }

    std::unique_ptr<TeleopProcess> startTool(std::vector<std::string> args) {
        args.insert(args.begin(), {"--ip", kMasterHost});
        return std::make_unique<TeleopProcess>(kTeleopPath, args);
    }

    // Waits for the run loop, then for kFramesToRelay tracking messages at the slave.
    void waitForStream(TeleopProcess& tool) {
        ASSERT_TRUE(tool.waitForStdout(kRunningLine, kBringUpLimit)) << "stdout:\n"
                                                                     << tool.stdoutText() << "stderr:\n"
                                                                     << tool.stderrText();
        ASSERT_TRUE(slave_->waitForRequests("trajectoryTrackingTasks", kFramesToRelay, kStreamLimit));
    }

    // Exit code after the tool has ended, with its output complete.
    static std::optional<int> finish(TeleopProcess& tool) {
        const auto code = tool.waitForExit(kExitLimit);
        tool.waitForClosedOutput(kExitLimit);
        return code;
    }

    // Bring-up order: each ready sequence starts with an error reset, the
    // master's is complete before the slave hears anything; then both home
    // (MOVJ, speed 50), the slave only after the master reported its move
    // finished; then both grippers go to 0.06 with the clamping force.
    void expectBroughtUpInOrder(double force) {
        const auto master_config = master_->requests("getJointParams");
        const auto slave_all = slave_->requests();
        ASSERT_FALSE(master_config.empty());
        ASSERT_FALSE(slave_all.empty());
        EXPECT_LT(master_config.front().at, slave_all.front().at);
        EXPECT_EQ(master_->requests().front().json["command"], "setControllerErrorReset");
        EXPECT_EQ(slave_all.front().json["command"], "setControllerErrorReset");

        const auto master_moves = master_->requests("webRecieveTasks");
        const auto slave_moves = slave_->requests("webRecieveTasks");
        ASSERT_EQ(master_moves.size(), 1u);
        ASSERT_EQ(slave_moves.size(), 1u);
        for (const auto* move : {&master_moves[0].json, &slave_moves[0].json}) {
            EXPECT_EQ((*move)["task_id"], "TASK_MOVJ");
            EXPECT_EQ(doubles((*move)["data"]["target_pos"]), kHomePose);
            EXPECT_EQ((*move)["data"]["speed"].asDouble(), 50.0);
            EXPECT_EQ((*move)["point_type"]["space"], 0);
        }
        EXPECT_LT(slave_->requests("getJointParams").back().at, master_moves[0].at);
        const std::string master_key = master_moves[0].json["task_key"].asString();
        const auto frames = master_->frames();
        const auto finished = std::find_if(frames.begin(), frames.end(), [&](const SentFrame& frame) {
            return frame.arm.last_task_key == master_key;
        });
        ASSERT_NE(finished, frames.end()) << "the master never reported its homing move finished";
        EXPECT_LT(finished->at, slave_moves[0].at);

        for (auto* controller : {&*master_, &*slave_}) {
            const auto grippers = controller->requests("setEffectorCtr");
            ASSERT_EQ(grippers.size(), 1u);
            EXPECT_DOUBLE_EQ(grippers[0].json["pos"].asDouble(), 0.06);
            EXPECT_DOUBLE_EQ(grippers[0].json["tau"].asDouble(), force);
            EXPECT_GT(grippers[0].at, slave_moves[0].at);
        }
    }

    // The exit path: position mode to the master, then to the slave.
    void expectPositionModeRestored() {
        const auto master_mode = firstTime(*master_, "setControlMode", "mode", 1);
        const auto slave_mode = firstTime(*slave_, "setControlMode", "mode", 1);
        ASSERT_TRUE(master_mode && slave_mode);
        EXPECT_LT(*master_mode, *slave_mode);
    }

    std::optional<RecordingController> master_;
    std::optional<RecordingController> slave_;
};

// ---- the three modes, each run until a real Ctrl+C ----

struct ModeCase {
    const char* name;
    int mode;
    bool mirrored;
    std::vector<std::string> extra_args;
    std::string force_warning;  // printed before the bring-up text, if any
    std::string force_text;     // clamping force as the tool prints it
    double force;
};
// GoogleTest prints a case by its name (in test lists and CTest names), not its bytes.
void PrintTo(const ModeCase& c, std::ostream* out) { *out << c.name; }

class TeleopModes : public TeleopEndToEnd, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(TeleopModes, BringsUpRelaysEveryFrameAndLeavesOnCtrlC) {
    const ModeCase& run = GetParam();
    // A wall the slave's tip always presses into, so the fed-back torques change every frame.
    SimOptions slave_options = controllerOptions(kSlaveHost);
    slave_options.wall.enabled = true;
    slave_options.wall.height = 5.0;
    startControllers(slave_options);
    std::vector<std::string> args{"--mode", std::to_string(run.mode), "--mirror", run.mirrored ? "1" : "0"};
    args.insert(args.end(), run.extra_args.begin(), run.extra_args.end());
    auto tool = startTool(args);
    waitForStream(*tool);
    ASSERT_TRUE(run.mode != 2 || master_->waitForRequests("setRedundancyTau", kFramesToRelay, kStreamLimit));
    tool->interrupt();
    ASSERT_EQ(finish(*tool), 0) << tool->stderrText();

    EXPECT_EQ(tool->stdoutText(), run.force_warning +
                                      bringUpText(kModeAnnouncements[run.mode], run.force_text, run.mirrored) +
                                      "双臂初始化到安全位置.\n" + modeEnteredText(run.mode) + kRunningLine +
                                      "\n捕获到 Ctrl+C, 准备退出...\n退出遥操，臂恢复为位置模式.\n");
    expectBroughtUpInOrder(run.force);
    if (run.mode == 2) {
        EXPECT_TRUE(firstTime(*master_, "setTeleoperationMode", "is_master", 1));
        EXPECT_TRUE(firstTime(*slave_, "setTeleoperationMode", "is_master", 2));
        expectOneMessagePerFrame(slave_->frames(), master_->requests("setRedundancyTau"), feedbackOf(run.mirrored));
    } else {
        EXPECT_TRUE(firstTime(*master_, "setControlMode", "mode", 3));
        EXPECT_TRUE(firstTime(*slave_, "setControlMode", "mode", 2));
        EXPECT_TRUE(master_->requests("setRedundancyTau").empty());
    }
    expectOneMessagePerFrame(master_->frames(), slave_->requests("trajectoryTrackingTasks"),
                             trackingOf(run.mode, run.mirrored));
    expectPositionModeRestored();
}

const std::string kForceWarning = "夹持力必须大于0夹爪才能移动\n";

INSTANTIATE_TEST_SUITE_P(
    AllModes, TeleopModes,
    ::testing::Values(ModeCase{"Joint", 0, false, {}, "", "10", 10.0},
                      ModeCase{
                          "JointMirroredForceZeroKeepsDefault", 0, true, {"--force", "0"}, kForceWarning, "10", 10.0},
                      ModeCase{"Pose", 1, false, {"--force", "5.5"}, "", "5.5", 5.5},
                      // An infinite force passes the tool's check; the gripper command clamps it.
                      ModeCase{"PoseMirroredInfiniteForce", 1, true, {"--force", "inf"}, "", "inf", 20.0},
                      ModeCase{"ForceFeedback", 2, false, {}, "", "10", 10.0},
                      ModeCase{"ForceFeedbackMirrored", 2, true, {"--force", "-1"}, kForceWarning, "10", 10.0}),
    [](const ::testing::TestParamInfo<ModeCase>& info) { return info.param.name; });

// ---- events that end the run, and one that does not ----

struct EventCase {
    const char* name;
    bool on_master;
    int code;
    const char* message;
    const char* expected_line;
};
// GoogleTest prints a case by its name (in test lists and CTest names), not its bytes.
void PrintTo(const EventCase& c, std::ostream* out) { *out << c.name; }

class TeleopEvents : public TeleopEndToEnd, public ::testing::WithParamInterface<EventCase> {};

// A warning ends the run just as an error does: exit code 0, both arms back in position mode.
TEST_P(TeleopEvents, EndTheRunWithExitZero) {
    const EventCase& event = GetParam();
    startControllers();
    auto tool = startTool({});
    waitForStream(*tool);
    (event.on_master ? *master_ : *slave_).sim().model().raiseError(0, event.code, event.message);
    ASSERT_EQ(finish(*tool), 0) << tool->stderrText();

    // The event is reported on every frame until the tool has gone, so its
    // line may also come between the lines of the exit path.
    const std::string output = tool->stdoutText();
    const std::string event_line = std::string(event.expected_line) + "\n";
    const size_t running_at = output.find(kRunningLine);
    ASSERT_NE(running_at, std::string::npos) << output;
    std::string after_running = output.substr(running_at + kRunningLine.size());
    EXPECT_EQ(after_running.rfind(event_line, 0), 0u) << output;
    for (size_t at; (at = after_running.find(event_line)) != std::string::npos;)
        after_running.erase(at, event_line.size());
    EXPECT_EQ(after_running, "检测到错误，准备退出...\n退出遥操，臂恢复为位置模式.\n") << output;
    expectPositionModeRestored();
}

INSTANTIATE_TEST_SUITE_P(
    WarningsAndErrors, TeleopEvents,
    ::testing::Values(EventCase{"SlaveWarning", false, 3001, "joint 3 warm", "收到警告, msg = joint 3 warm"},
                      EventCase{"MasterError", true, 5, "collision", "收到错误, code = 5, msg = collision"}),
    [](const ::testing::TestParamInfo<EventCase>& info) { return info.param.name; });

TEST_F(TeleopEndToEnd, LostSlaveConnectionDoesNotEndTheRun) {
    startControllers();
    auto tool = startTool({});
    waitForStream(*tool);
    slave_->sim().closeConnections(false);
    EXPECT_FALSE(tool->waitForExit(2s)) << "the tool ended on a lost connection";
    tool->interrupt();
    ASSERT_EQ(finish(*tool), 0) << tool->stderrText();
    const std::string output = tool->stdoutText();
    const std::string ending = kRunningLine + "\n捕获到 Ctrl+C, 准备退出...\n退出遥操，臂恢复为位置模式.\n";
    ASSERT_GE(output.size(), ending.size());
    EXPECT_EQ(output.substr(output.size() - ending.size()), ending) << output;
    EXPECT_TRUE(firstTime(*master_, "setControlMode", "mode", 1));
}

// ---- failed bring-up ----

TEST_F(TeleopEndToEnd, UnreachableMasterTriesBothArmsThenAsksForARestart) {
    startControllers();
    TeleopProcess tool(kTeleopPath, {"--ip", "127.0.0.3"});
    ASSERT_EQ(finish(tool), 1) << tool.stderrText();
    EXPECT_EQ(tool.stdoutText(), std::string("主臂IP：127.0.0.3; 从臂IP：127.0.0.1\n") + kModeAnnouncements[0] +
                                     "\n夹抓夹持力矩：10\n遥操方向为同向。\n连接失败，请检查IP，重新启动\n");
    // The slave's ready sequence still ran to its end; nothing moved.
    EXPECT_EQ(slave_->requests("getJointParams").size(), 1u);
    EXPECT_TRUE(slave_->requests("webRecieveTasks").empty());
    EXPECT_TRUE(master_->requests().empty());
}

TEST_F(TeleopEndToEnd, SlaveRefusingMitModeEndsWithExitOneAndLeavesTheMasterInDragMode) {
    startControllers();
    auto tool = startTool({});
    ASSERT_TRUE(tool->waitForStdout("双臂初始化到安全位置.\n", kBringUpLimit)) << tool->stdoutText();
    // The ready sequences are over, so only the change into MIT mode meets the refusal.
    slave_->sim().faults().refuse("setControlMode");
    ASSERT_EQ(finish(*tool), 1) << tool->stderrText();
    EXPECT_EQ(tool->stdoutText(), bringUpText(kModeAnnouncements[0], "10", false) + "双臂初始化到安全位置.\n" +
                                      kModeStarts[0] + "初始化失败！！！请检查机器是否连接或者有错误.\n");
    EXPECT_EQ(master_->requests("setControlMode").back().json["mode"], 3);
    EXPECT_EQ(slave_->requests("setControlMode").back().json["mode"], 2);
    EXPECT_TRUE(slave_->requests("trajectoryTrackingTasks").empty());
}

// ---- a seven-joint vector ----

// A scripted controller for the one case the simulator cannot play: an arm
// that reports six joints while it is brought up and homed, and seven once a
// teleoperation mode (drag or MIT) has been asked of it. It takes every
// request, reports each task finished at once, serves limits for seven
// joints and sends a state frame every 10 ms. The joints it reports are
// constant.
class SevenJointController {
public:
    explicit SevenJointController(const char* host)
        : server_(
              host, 8090,
              {nullptr, [this](kelm::WebSocketServer::ConnectionId id, const std::string& text) { onText(id, text); },
               nullptr}) {
        server_.start();
        frames_ = std::thread([this] { streamFrames(); });
    }
    ~SevenJointController() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        stop_.notify_all();
        frames_.join();
        server_.stop();
    }

    std::vector<Json::Value> requests(const std::string& command) const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Json::Value> matching;
        for (const auto& request : requests_) {
            if (request["command"] == command) matching.push_back(request);
        }
        return matching;
    }
    bool waitForRequests(const std::string& command, size_t count, Clock::duration timeout) const {
        const auto deadline = Clock::now() + timeout;
        while (requests(command).size() < count) {
            if (Clock::now() >= deadline) return false;
            std::this_thread::sleep_for(10ms);
        }
        return true;
    }

    // The joints this arm reports once it has seven.
    static std::vector<double> sevenJoints() { return kelm::test::realisticArm(0, 7).joint_pos; }

private:
    void onText(kelm::WebSocketServer::ConnectionId id, const std::string& text) {
        Json::Value request;
        Json::CharReaderBuilder builder;
        std::string errors;
        std::istringstream stream(text);
        if (!Json::parseFromStream(builder, stream, &request, &errors)) return;
        const std::string command = request["command"].asString();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(request);
            if (command == "webRecieveTasks") last_task_key_ = request["task_key"].asString();
            if (command == "setControlMode" && request["mode"].asInt() >= 2) seven_joints_ = true;
        }
        if (command == "trajectoryTrackingTasks" || command == "setRedundancyTau" || command == "setEffectorCtr")
            return;
        // Like a real controller, take a moment: a reply that overtakes the
        // client's bookkeeping of its own request is lost.
        std::this_thread::sleep_for(1ms);
        Json::Value reply = kelm::test::TestPeer::replyFor(request, kelm::test::TestPeer::recv("Task_Recieve"));
        if (command == "getJointParams") reply["params"] = sevenJointParams();
        server_.sendText(id, kelm::test::toJsonText(reply));
    }

    static Json::Value sevenJointParams() {
        Json::Value params;
        params["dof"] = 7;
        for (int i = 0; i < 7; ++i) {
            params["limit_upper"].append(3.0);
            params["limit_lower"].append(-3.0);
            for (const char* key : {"joint_vel", "joint_acc", "joint_dec", "joint_jerk"}) params[key].append(1.0);
        }
        return params;
    }

    void streamFrames() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (std::uint64_t count = 1; !stop_.wait_for(lock, 10ms, [this] { return stopping_; }); ++count) {
            kelm::test::ArmFrame arm = kelm::test::realisticArm(0, seven_joints_ ? 7 : 6);
            arm.last_task_key = last_task_key_;
            const std::string frame = kelm::test::toJsonText(kelm::test::stateFrame(count, {arm}));
            lock.unlock();
            server_.broadcastText(frame);
            lock.lock();
        }
    }

    kelm::WebSocketServer server_;
    mutable std::mutex mutex_;
    std::condition_variable stop_;
    std::vector<Json::Value> requests_;
    std::string last_task_key_;
    bool seven_joints_ = false;
    bool stopping_ = false;
    std::thread frames_;
};

TEST(TeleopSevenJoints, MirroringLeavesASevenJointVectorAsItIs) {
    SevenJointController master(kMasterHost);
    SevenJointController slave(kSlaveHost);
    TeleopProcess tool(kTeleopPath, {"--ip", kMasterHost, "--mirror", "1"});
    ASSERT_TRUE(tool.waitForStdout(kRunningLine, kBringUpLimit)) << tool.stdoutText() << tool.stderrText();
    ASSERT_TRUE(slave.waitForRequests("trajectoryTrackingTasks", 10, kStreamLimit));
    tool.interrupt();
    ASSERT_EQ(tool.waitForExit(kExitLimit), 0);

    std::vector<double> expected;
    for (double joint : SevenJointController::sevenJoints()) expected.push_back(static_cast<float>(joint));
    for (const auto& message : slave.requests("trajectoryTrackingTasks")) {
        EXPECT_EQ(doubles(message["data"]["way_point"]), expected) << message.toStyledString();
    }
}

// ---- command line: options that end the tool before any arm is touched ----

struct CommandLineCase {
    const char* name;
    std::vector<std::string> args;
    std::string expected_stdout;
    int exit_code;
};
// GoogleTest prints a case by its name (in test lists and CTest names), not its bytes.
void PrintTo(const CommandLineCase& c, std::ostream* out) { *out << c.name; }

class TeleopCommandLine : public TeleopEndToEnd, public ::testing::WithParamInterface<CommandLineCase> {};

TEST_P(TeleopCommandLine, EndsBeforeTouchingAnArm) {
    const CommandLineCase& run = GetParam();
    startControllers();
    TeleopProcess tool(kTeleopPath, run.args);
    ASSERT_EQ(finish(tool), run.exit_code) << tool.stderrText();
    EXPECT_EQ(tool.stdoutText(), run.expected_stdout);
    EXPECT_EQ(master_->sim().stats().requests + slave_->sim().stats().requests, 0u);
}

const std::string kDefaultAddressLine = "主臂IP：10.42.0.102; 从臂IP：127.0.0.1\n";

INSTANTIATE_TEST_SUITE_P(
    Options, TeleopCommandLine,
    ::testing::Values(CommandLineCase{"HelpAfterAddress", {"--ip", "1.2.3.4", "-h"}, usageText(), 0},
                      CommandLineCase{"HelpBeforeUnknownOption", {"--help", "--bogus"}, usageText(), 0},
                      CommandLineCase{"UnknownOption", {"--bogus"}, usageText(), 1},
                      CommandLineCase{"MissingArgument", {"--ip"}, usageText(), 1},
                      CommandLineCase{"ModeOutOfRange", {"--mode", "3"}, kDefaultAddressLine, 1},
                      CommandLineCase{
                          "ForceNotANumberWarns", {"-f", "nan", "-m", "-1"}, kForceWarning + kDefaultAddressLine, 1}),
    [](const ::testing::TestParamInfo<CommandLineCase>& info) { return info.param.name; });

}  // namespace
