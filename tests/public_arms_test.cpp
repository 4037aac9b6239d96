// KelmSingleCol and KelmDualBot against the controller simulator: which
// request each member sends and to which arm, how the members on both arms
// fold their results, when a blocking motion returns, the gripper state rule
// and the callbacks under their fixed names.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kelm_dual_bot.h"
#include "kelm_single_col.h"
#include "log_capture.h"
#include "sim_controller.h"
#include "sim_fixture.h"
#include "state_frame_builder.h"
#include "test_peer.h"

namespace kelm {
namespace {

using namespace std::chrono_literals;
using test::waitUntil;

const std::vector<double> kJointTarget{0.1, -0.2, 0.3, 0.0, -1.0, 0.5};
const std::vector<double> kOtherTarget{0.2, -0.1, 0.2, 0.1, -0.8, 0.0};
const std::array<double, 7> kPoseTarget{0.25, 0.125, 0.5, 0.0, 0.0, 0.0, 1.0};

// The simulator on a free loopback port, keeping every request it receives.
// refuse() makes it refuse a command from one arm only: the observer sees a
// request before the simulator handles it and arms a one-shot refusal then.
//
// Threads: the observer runs on the simulator's connection threads; the
// members may be called from the test's thread.
class RecordingSimulator {
public:
    explicit RecordingSimulator(int arms = 1) : simulator(options(arms)) {
        simulator.received_message_observers.set("test", [this](const std::string& text, auto) { record(text); });
        simulator.start();
    }

    // Stops the simulator while the record its observer writes still stands.
    ~RecordingSimulator() { simulator.stop(); }

    int port() const { return simulator.port(); }

    // Every request of `command` so far, in arrival order.
    std::vector<Json::Value> requests(const std::string& command) const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Json::Value> found;
        for (const auto& request : requests_) {
            if (request["command"] == command) found.push_back(request);
        }
        return found;
    }
    // The request of `command` that follows the first `previous` ones, after a bounded wait.
    Json::Value next(const std::string& command, size_t previous) const {
        EXPECT_TRUE(waitUntil([&] { return requests(command).size() > previous; })) << command << " did not arrive";
        const auto found = requests(command);
        return found.size() > previous ? found[previous] : Json::Value();
    }

    void refuse(const std::string& command, int arm) {
        std::lock_guard<std::mutex> lock(mutex_);
        refused_.insert({command, arm});
    }
    void acceptAll() {
        std::lock_guard<std::mutex> lock(mutex_);
        refused_.clear();
    }

    sim::SimController simulator;

private:
    static sim::SimOptions options(int arms) {
        sim::SimOptions options;
        options.port = 0;
        options.arms = arms;
        options.rate = 100.0;  // [Hz] frames enough for these tests, and light on a loaded machine
        options.quiet = true;
        test::chooseBackend(options);
        return options;
    }

    void record(const std::string& text) {
        Json::Value request;
        std::istringstream in(text);
        std::string errors;
        if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &request, &errors)) return;
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(request);
        const std::string command = request["command"].asString();
        if (refused_.count({command, request.get("arm_index", 0).asInt()}) != 0) simulator.faults().refuse(command, 1);
    }

    mutable std::mutex mutex_;
    std::vector<Json::Value> requests_;
    std::set<std::pair<std::string, int>> refused_;
};

// Runs a blocking member on a thread of its own and returns its result. One
// that has not returned after 20 s fails the test, and the simulator then
// cuts the connections, which ends any task wait, so that a faulty wait
// cannot hang the run.
int boundedCall(sim::SimController& simulator, const std::function<int()>& call) {
    auto result = std::async(std::launch::async, call);
    if (result.wait_for(20s) != std::future_status::ready) {
        ADD_FAILURE() << "the member did not return";
        simulator.closeConnections(false);
    }
    return result.get();
}

bool near(const std::vector<double>& joints, const std::vector<double>& target) {
    const auto close = [](double a, double b) { return std::fabs(a - b) < 1e-3; };
    return std::equal(joints.begin(), joints.end(), target.begin(), target.end(), close);
}

// A callback of any signature that counts its calls.
auto counter(std::atomic<int>& calls) {
    return [&calls](auto&&...) { ++calls; };
}

// True once `clock` has counted `frames` more calls.
bool framesPass(const std::atomic<int>& clock, int frames) {
    const int target = clock + frames;
    return waitUntil([&] { return clock >= target; });
}

// True when `calls` stays still while `clock`, a callback of the same
// connection, counts frames (a call under way at the start may land first).
bool staysStill(const std::atomic<int>& calls, const std::atomic<int>& clock) {
    if (!framesPass(clock, 2)) return false;
    const int before = calls;
    return framesPass(clock, 3) && calls == before;
}

class SingleColTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(arm.set_ready(), 1); }

    RecordingSimulator controller;
    KelmSingleCol arm{"127.0.0.1", controller.port(), 1.0};
};

struct MotionCase {
    const char* name;
    std::function<int(KelmSingleCol&)> move;
    int expected;
    const char* task_id;  // nullptr: nothing may reach the controller
    int space;
    std::function<void(const Json::Value& request)> check;
};

TEST_F(SingleColTest, MotionMembersChooseTheirRequestByTimeAndTarget) {
    std::array<double, 7> pose{};
    ASSERT_EQ(arm.forward_kine(0, kJointTarget, pose), 1);
    const std::vector<std::vector<double>> three_points{kJointTarget, kOtherTarget, kJointTarget};
    const std::vector<MotionCase> cases{
        {"negative time: controller-timed joint move at full speed",
         [](KelmSingleCol& a) { return a.move_joint(kJointTarget, -1.0, false); }, 1, "TASK_MOVJ", 0,
         [](const Json::Value& r) { EXPECT_EQ(r["data"]["speed"].asDouble(), 100.0); }},
        {"a duration: one timed point", [](KelmSingleCol& a) { return a.move_joint(kOtherTarget, 1.5, false); }, 1,
         "TASK_PVT", 0,
         [](const Json::Value& r) { EXPECT_TRUE(r["data"]["time"].size() == 1u && r["data"]["time"][0] == 1.5); }},
        {"a duration of 0 is refused by the timed move",
         [](KelmSingleCol& a) { return a.move_joint(kJointTarget, 0.0, false); }, -1, nullptr, 0, nullptr},
        {"pose, negative time", [&](KelmSingleCol& a) { return a.move_pose(pose, -1.0, false); }, 1, "TASK_MOVJ", 1,
         [](const Json::Value& r) { EXPECT_EQ(r["data"]["target_pos"].size(), 7u); }},
        {"line to joints", [](KelmSingleCol& a) { return a.move_line_joint(kOtherTarget, false); }, 1, "TASK_MOVL", 0,
         [](const Json::Value& r) { EXPECT_EQ(r["data"]["speed"].asDouble(), 100.0); }},
        {"line to a pose", [&](KelmSingleCol& a) { return a.move_line_pose(pose, false); }, 1, "TASK_MOVL", 1,
         [](const Json::Value& r) { EXPECT_EQ(r["data"]["point"].size(), 7u); }},
        {"3 points, 2 stamps: the controller times the path",
         [&](KelmSingleCol& a) {
             return a.move_joint_traj(three_points, {0.01, 0.02}, {1.0, 2.0}, false);
         },
         1, "TASK_MOVT", 0,
         [](const Json::Value& r) {
             EXPECT_EQ(r["data"]["point_num"].asInt(), 3);
             EXPECT_EQ(r["data"]["speed"].asDouble(), 100.0);
             EXPECT_FALSE(r.isMember("gripper"));
         }},
        {"3 points, 3 stamps, no gripper: timed points",
         [&](KelmSingleCol& a) {
             return a.move_joint_traj(three_points, {}, {1.0, 2.0, 3.0}, false);
         },
         1, "TASK_PVT", 0, [](const Json::Value& r) { EXPECT_FALSE(r["gripper"].isMember("eeffe_point")); }},
        {"no poses: the controller's to refuse, whatever the stamps",
         [](KelmSingleCol& a) { return a.move_pose_traj({}, {}, {1.0}, false); }, -1, "TASK_MOVT", 1, nullptr},
        {"poses with one stamp each",
         [&](KelmSingleCol& a) {
             return a.move_pose_traj({pose, pose}, {}, {1.0, 2.0}, false);
         },
         1, "TASK_PVT", 1, [&](const Json::Value& r) { EXPECT_EQ(r["data"]["pos"][1][1].asDouble(), pose[1]); }},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const size_t sent_before = controller.requests("webRecieveTasks").size();
        EXPECT_EQ(c.move(arm), c.expected);
        const auto sent = controller.requests("webRecieveTasks");
        if (c.task_id == nullptr) {
            EXPECT_EQ(sent.size(), sent_before);
            continue;
        }
        ASSERT_EQ(sent.size(), sent_before + 1);
        const Json::Value& request = sent.back();
        EXPECT_EQ(request["task_id"].asString(), c.task_id);
        EXPECT_EQ(request["point_type"]["space"].asInt(), c.space);
        EXPECT_EQ(request["arm_index"].asInt(), 0);
        if (c.check) c.check(request);
    }
}

TEST_F(SingleColTest, BlockingMotionReturnsOnceItsTaskHasEndedAndARefusedOneAtOnce) {
    const double duration = 1.0;  // [s]
    const std::vector<std::pair<const char*, std::function<int()>>> moves{
        {"move_joint, timed", [&] { return arm.move_joint(kJointTarget, duration, true); }},
        {"move_joint_traj, timed", [&] { return arm.move_joint_traj({kOtherTarget}, {}, {duration}, true); }},
    };
    for (const auto& move : moves) {
        SCOPED_TRACE(move.first);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(boundedCall(controller.simulator, move.second), 1);
        EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), duration)
            << "returned while its task was still running";
    }
    controller.simulator.faults().refuse("webRecieveTasks", 1);
    EXPECT_EQ(boundedCall(controller.simulator, [&] { return arm.move_joint(kJointTarget, 1.0, true); }), -1);
}

TEST(SingleColGripper, StateNeedsAConnectedGripperAndKeepsItsSign) {
    test::TestPeer controller;
    KelmSingleCol arm{controller.host(), controller.port(), 1.0};
    ASSERT_TRUE(controller.waitForConnections(1));
    struct Case {
        bool connected;
        int state;
        int expected;
    };
    uint64_t count = 0;
    // The controller's state is one byte: 254 is -2.
    for (const Case& c : {Case{true, 5, 5}, Case{false, 5, -1}, Case{true, 254, -2}}) {
        test::ArmFrame frame = test::realisticArm(0);
        frame.gripper_connected = c.connected;
        frame.gripper_state = c.state;
        controller.sendJson(test::stateFrame(++count, {frame}));
        EXPECT_TRUE(waitUntil([&] { return arm.get_gripper_state() == c.expected; })) << c.state;
    }
}

TEST_F(SingleColTest, TrackJointOfTheWrongLengthSaysSoOnStandardOutputAndSendsNothing) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(arm.track_joint({0.1, 0.2}, -1.0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "targets size error\n");

    EXPECT_EQ(arm.track_joint(kJointTarget, -1.0), 1);
    EXPECT_EQ(arm.track_pose(kPoseTarget, 0.02), 1);
    EXPECT_EQ(controller.next("trajectoryTrackingTasks", 0)["data"]["way_point"].size(), 6u)
        << "the refused target reached the controller";
    EXPECT_EQ(controller.next("trajectoryTrackingTasks", 1)["data"]["way_point"].size(), 7u);
}

TEST_F(SingleColTest, JointCallbackIsReplacedUnderItsFixedNameAndReleased) {
    std::atomic<int> first{0}, second{0}, frames{0};
    // Pose callbacks run after the joint callbacks of a frame: a clock of handled frames.
    arm.register_pose_cbk(counter(frames));
    arm.register_joint_cbk(counter(first));
    ASSERT_TRUE(waitUntil([&] { return first > 0; }));
    arm.register_joint_cbk(counter(second));
    EXPECT_TRUE(staysStill(first, frames));
    EXPECT_GT(second, 0);
    EXPECT_EQ(arm.release_joint_cbk(), 0);
    EXPECT_TRUE(staysStill(second, frames));
    EXPECT_EQ(arm.release_pose_cbk(), 0);
}

// Left is arm 1 and right arm 0, so a twin reaching the wrong kernel shows on the wire.
constexpr int kLeft = 1;
constexpr int kRight = 0;

class DualBotTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(bot.set_ready(), 1); }

    RecordingSimulator controller{2};
    KelmDualBot bot{"127.0.0.1", controller.port(), 1.0, kLeft, kRight};
};

struct TwinCase {
    const char* command;
    std::function<void(KelmDualBot&)> left;
    std::function<void(KelmDualBot&)> right;
};

TEST_F(DualBotTest, EachTwinReachesItsOwnArm) {
    std::vector<double> joint_out;
    std::array<double, 7> pose_out{};
    const std::vector<TwinCase> cases{
        {"webRecieveTasks", [](KelmDualBot& b) { b.move_left_joint(kJointTarget, -1.0, false); },
         [](KelmDualBot& b) { b.move_right_joint(kJointTarget, -1.0, false); }},
        {"webRecieveTasks", [](KelmDualBot& b) { b.move_left_pose_traj({kPoseTarget}, {}, {}, false); },
         [](KelmDualBot& b) { b.move_right_pose_traj({kPoseTarget}, {}, {}, false); }},
        {"webRecieveTasks", [](KelmDualBot& b) { b.move_left_line_joint(kJointTarget, false); },
         [](KelmDualBot& b) { b.move_right_line_joint(kJointTarget, false); }},
        {"trajectoryTrackingTasks", [](KelmDualBot& b) { b.track_left_joint(kJointTarget, -1.0); },
         [](KelmDualBot& b) { b.track_right_joint(kJointTarget, -1.0); }},
        {"setEffectorCtr", [](KelmDualBot& b) { b.set_left_gripper(0.04, 1.0); },
         [](KelmDualBot& b) { b.set_right_gripper(0.04, 1.0); }},
        {"setToolData", [](KelmDualBot& b) { b.set_left_tool_index(2); },
         [](KelmDualBot& b) { b.set_right_tool_index(2); }},
        {"getJointParams", [](KelmDualBot& b) { b.get_left_config(); }, [](KelmDualBot& b) { b.get_right_config(); }},
        {"getKinematics", [&](KelmDualBot& b) { b.forward_kine_left(0, kJointTarget, pose_out); },
         [&](KelmDualBot& b) { b.forward_kine_right(0, kJointTarget, pose_out); }},
        {"getKinematics", [&](KelmDualBot& b) { b.inverse_kine_left(0, kPoseTarget, kJointTarget, joint_out); },
         [&](KelmDualBot& b) { b.inverse_kine_right(0, kPoseTarget, kJointTarget, joint_out); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        const size_t sent = controller.requests(c.command).size();
        c.left(bot);
        EXPECT_EQ(controller.next(c.command, sent)["arm_index"].asInt(), kLeft);
        c.right(bot);
        EXPECT_EQ(controller.next(c.command, sent + 1)["arm_index"].asInt(), kRight);
    }
    EXPECT_EQ(bot.get_left_status().arm_index, kLeft);
    EXPECT_EQ(bot.get_right_status().arm_index, kRight);
    // The line pose twins pass the pose as a joint target, which a six-joint
    // arm refuses before anything is sent.
    const size_t tasks = controller.requests("webRecieveTasks").size();
    EXPECT_EQ(bot.move_left_line_pose(kPoseTarget, false), -1);
    EXPECT_EQ(bot.move_right_line_pose(kPoseTarget, false), -1);
    EXPECT_EQ(controller.requests("webRecieveTasks").size(), tasks);
}

TEST_F(DualBotTest, StateTwinsReadTheirOwnArm) {
    ASSERT_EQ(bot.move_left_joint(kJointTarget, 1.0, true), 1);
    EXPECT_TRUE(waitUntil([&] { return near(bot.get_left_joint_pos(), kJointTarget); }));
    EXPECT_FALSE(near(bot.get_right_joint_pos(), kJointTarget));
    EXPECT_NE(bot.get_left_cart_pose(), bot.get_right_cart_pose());
}

TEST_F(DualBotTest, MembersOnBothArmsSucceedOnlyIfBothArmsDoAndAlwaysAskBoth) {
    const std::vector<std::pair<const char*, std::function<int(KelmDualBot&)>>> cases{
        {"setControlMode", [](KelmDualBot& b) { return b.set_control_mode(0); }},
        {"setSpeedLevel", [](KelmDualBot& b) { return b.set_speed_level(5.0, 100); }},
        {"setCollisionConfig", [](KelmDualBot& b) { return b.set_collision_config(true, 3); }},
        {"teachRecorder", [](KelmDualBot& b) { return b.trajectory_teach(true, "wave"); }},
        {"teachRecorder", [](KelmDualBot& b) { return b.trajectory_teach(false, "wave"); }},
    };
    struct Refusal {
        const char* name;
        std::vector<int> refusing_arms;
        int expected;
    };
    const std::vector<Refusal> refusals{
        {"both take it", {}, 1}, {"the left arm refuses", {kLeft}, -1}, {"the right arm refuses", {kRight}, -1}};
    for (const auto& c : cases) {
        for (const auto& refusal : refusals) {
            SCOPED_TRACE(std::string(c.first) + ", " + refusal.name);
            controller.acceptAll();
            for (int arm : refusal.refusing_arms) controller.refuse(c.first, arm);
            const size_t before = controller.requests(c.first).size();
            EXPECT_EQ(c.second(bot), refusal.expected);
            const auto sent = controller.requests(c.first);
            ASSERT_EQ(sent.size(), before + 2) << "both arms must be asked";
            EXPECT_EQ(sent[before]["arm_index"].asInt(), kLeft) << "the left arm is asked first";
            EXPECT_EQ(sent[before + 1]["arm_index"].asInt(), kRight);
        }
    }
}

TEST_F(DualBotTest, ServoTeachListAndVersionFoldBothArmsTheirOwnWay) {
    // Servo enable answers 1 whatever the arms say.
    const size_t servo_requests = controller.requests("setServoEnable").size();
    controller.refuse("setServoEnable", kLeft);
    EXPECT_EQ(bot.set_servo_enable(true), 1);
    controller.refuse("setServoEnable", kRight);
    EXPECT_EQ(bot.set_servo_enable(true), 1);
    EXPECT_EQ(controller.requests("setServoEnable").size(), servo_requests + 4);
    // Both arms know "a", the right one also "b". The list is replaced by the
    // left names, then the right ones are appended, even when the left arm fails.
    ASSERT_EQ(bot.trajectory_teach(true, "a"), 1);
    ASSERT_EQ(bot.trajectory_teach(false, "a"), 1);
    controller.refuse("teachRecorder", kLeft);
    ASSERT_EQ(bot.trajectory_teach(true, "b"), -1);
    ASSERT_EQ(bot.trajectory_teach(false, "b"), -1);
    controller.acceptAll();
    std::vector<std::string> names{"old1", "old2"};
    EXPECT_EQ(bot.check_teach(names), 1);
    EXPECT_EQ(names, (std::vector<std::string>{"a", "a", "b"}));
    controller.refuse("teachRecorder", kLeft);
    names = {"q"};
    EXPECT_EQ(bot.check_teach(names), -1);
    EXPECT_EQ(names, (std::vector<std::string>{"q", "a", "b"}));
    EXPECT_EQ(bot.get_version(), std::string(sim::kSimVersion) + sim::kSimVersion);
}

TEST_F(DualBotTest, RightPoseCallbackReleaseLeavesTheLeftOneAlone) {
    std::atomic<int> left_calls{0}, right_calls{0}, right_frames{0};
    bot.register_left_pose_cbk(counter(left_calls));
    bot.register_right_pose_cbk(counter(right_calls));
    bot.register_right_joint_cbk(counter(right_frames));
    ASSERT_TRUE(waitUntil([&] { return right_calls > 0; }));
    EXPECT_EQ(bot.release_right_pose_cbk(), 0);
    EXPECT_TRUE(staysStill(right_calls, right_frames)) << "the right pose callback ran after its release";
    EXPECT_TRUE(framesPass(left_calls, 3)) << "the left callback went with the right one";
    EXPECT_EQ(bot.release_left_pose_cbk(), 0);
    EXPECT_EQ(bot.release_right_joint_cbk(), 0);
}

}  // namespace
}  // namespace kelm
