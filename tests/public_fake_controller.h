// FakeArmController: a controller with one or more arms for the tests of the
// public interfaces, built on the scriptable TestPeer.
//
// It sends a state frame every 10 ms that shows each arm ready (servo on,
// POSITION mode, standing by, joints at zero), answers the requests of the
// public members with "Task_Recieve" unless told to refuse them for one arm,
// and serves joint limits of +-3 rad, a version text ("v" and the arm's
// position) and a list of taught trajectories per arm. A task counts as
// finished once finishTask() has put its key into that arm's frames.
//
// BoundedCall runs a blocking member on a thread of its own, so that a
// test can watch whether it has returned.
//
// Threads: every member may be called from the test's thread while a
// thread of this object sends frames and the peer's threads answer.
#pragma once

#include <json/json.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "test_peer.h"

namespace kelm {
namespace test {

class FakeArmController {
public:
    static constexpr double kJointLimit = 3.0;  // [rad], both directions
    // A real controller takes a moment to answer. The client files its wait
    // for a reply only after sending the request, so an answer that came
    // back at once could overtake that and be dropped.
    static constexpr std::chrono::milliseconds kReplyDelay{10};
    static constexpr std::chrono::milliseconds kFrameInterval{10};

    // One arm per entry of `dofs`, at that position of the frames' arm array.
    explicit FakeArmController(std::vector<int> dofs = {6}) : arms_(dofs.size()) {
        for (size_t i = 0; i < dofs.size(); ++i) {
            arms_[i].dof = dofs[i];
            arms_[i].version = "v" + std::to_string(i);
        }
        peer.replyToAll(TestPeer::recv("Task_Recieve"), kReplyDelay);
        for (const char* command :
             {"setServoEnable", "setControlMode", "setSpeedLevel", "setCollisionConfig", "webRecieveTasks",
              "teachRecorder", "getJointParams", "getArmIntrinsicProperties", "setToolData"}) {
            peer.replyWith(
                command, [this](const Json::Value& request) { return answer(request); }, kReplyDelay);
        }
        streamer_ = std::thread([this] { streamFrames(); });
    }
    ~FakeArmController() {
        {
            std::lock_guard<std::mutex> lock(stream_mutex_);
            stop_streaming_ = true;
        }
        stream_wake_.notify_all();
        streamer_.join();
    }

    std::string host() const { return peer.host(); }
    int port() const { return peer.port(); }

    // Answers `command` from arm `arm_index` with a refusal from now on.
    void refuse(const std::string& command, int arm_index) {
        std::lock_guard<std::mutex> lock(mutex_);
        refused_.insert({command, arm_index});
    }
    void acceptAll() {
        std::lock_guard<std::mutex> lock(mutex_);
        refused_.clear();
    }
    void finishTask(int arm_index, const std::string& task_key) {
        change(arm_index, [&](Arm& arm) { arm.last_task_key = task_key; });
    }
    void setGripper(int arm_index, bool connected, int state) {
        change(arm_index, [&](Arm& arm) {
            arm.gripper_connected = connected;
            arm.gripper_state = state;
        });
    }
    void setPose(int arm_index, const std::array<double, 7>& pose) {
        change(arm_index, [&](Arm& arm) { arm.pose = pose; });
    }
    void setTeachList(int arm_index, const std::vector<std::string>& names) {
        change(arm_index, [&](Arm& arm) { arm.teach_list = names; });
    }

private:
    struct Arm {
        int dof = 6;
        std::string version;
        std::string last_task_key;
        bool gripper_connected = false;
        int gripper_state = 0;
        std::array<double, 7> pose{0.3, 0.0, 0.5, 0.0, 0.0, 0.0, 1.0};
        std::vector<std::string> teach_list;
    };

    template <typename Change>
    void change(int arm_index, Change apply) {
        std::lock_guard<std::mutex> lock(mutex_);
        apply(arms_.at(arm_index));
    }

    static Json::Value array(const std::vector<double>& values) {
        Json::Value out(Json::arrayValue);
        for (double value : values) out.append(value);
        return out;
    }

    Json::Value frame() {
        std::lock_guard<std::mutex> lock(mutex_);
        Json::Value root;
        root["command"] = "webSendRobotState";
        root["count"] = Json::UInt64(++count_);
        root["Unix_time_stamp"] = 1700000000.0 + 0.01 * count_;
        root["arm"] = Json::arrayValue;
        for (size_t i = 0; i < arms_.size(); ++i) {
            const Arm& arm = arms_[i];
            const std::vector<double> zeros(arm.dof, 0.0);
            Json::Value entry;
            entry["arm_index"] = int(i);
            entry["arm_dof"] = arm.dof;
            entry["servo"] = true;
            entry["motion_state"] = 0;
            entry["fsm_state"] = "POSITION";
            entry["pose"] = array({arm.pose.begin(), arm.pose.end()});
            for (const char* block : {"reality", "plan"}) {
                entry[block]["pose"] = array(zeros);
                entry[block]["vel"] = array(zeros);
                entry[block]["torque"] = array(zeros);
            }
            entry["gripper"]["is_connect"] = arm.gripper_connected;
            entry["gripper"]["gripper_state"] = arm.gripper_state;
            entry["task"]["last_task_key"] = arm.last_task_key;
            root["arm"].append(entry);
        }
        return root;
    }

    // The frames go out from a thread of this object, which the destructor
    // joins before the peer goes, so that no frame is under way then.
    void streamFrames() {
        std::unique_lock<std::mutex> lock(stream_mutex_);
        while (!stop_streaming_) {
            lock.unlock();
            peer.sendJson(frame());
            lock.lock();
            stream_wake_.wait_for(lock, kFrameInterval, [this] { return stop_streaming_; });
        }
    }

    Json::Value answer(const Json::Value& request) {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::string command = request["command"].asString();
        const int arm_index = request.get("arm_index", 0).asInt();
        if (refused_.count({command, arm_index}) != 0) return TestPeer::recv("Task_Refused");
        Json::Value reply = TestPeer::recv("Task_Recieve");
        const Arm& arm = arms_.at(arm_index);
        if (command == "getJointParams") {
            reply["params"]["dof"] = arm.dof;
            reply["params"]["limit_upper"] = array(std::vector<double>(arm.dof, kJointLimit));
            reply["params"]["limit_lower"] = array(std::vector<double>(arm.dof, -kJointLimit));
        } else if (command == "getArmIntrinsicProperties") {
            reply["version"] = arm.version;
        } else if (command == "teachRecorder" && request["task_id"].asInt() == 3) {
            reply["count"] = int(arm.teach_list.size());
            for (const auto& name : arm.teach_list) reply["teach_list"].append(name);
        }
        return reply;
    }

    std::mutex mutex_;
    std::vector<Arm> arms_;
    std::set<std::pair<std::string, int>> refused_;
    unsigned long long count_ = 0;
    std::mutex stream_mutex_;
    std::condition_variable stream_wake_;
    bool stop_streaming_ = false;
    std::thread streamer_;

public:
    // Declared last so that it goes first: its threads call frame() and
    // answer() until it is destroyed.
    TestPeer peer;
};

// Runs a member on a thread of its own. If it has not returned when the test
// asks for its result, the test fails and the controller drops the
// connection, which ends any task wait, so that a faulty wait cannot hang
// the test run.
class BoundedCall {
public:
    BoundedCall(TestPeer& peer, std::function<int()> call)
        : peer_(peer), result_(std::async(std::launch::async, std::move(call))) {}
    ~BoundedCall() {
        const bool running = result_.valid() && result_.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
        if (running) peer_.dropConnections();
    }

    bool returnedWithin(std::chrono::milliseconds time) { return result_.wait_for(time) == std::future_status::ready; }

    int result() {
        if (result_.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
            ADD_FAILURE() << "the member did not return";
            peer_.dropConnections();
        }
        return result_.get();
    }

private:
    TestPeer& peer_;
    std::future<int> result_;
};

}  // namespace test
}  // namespace kelm
