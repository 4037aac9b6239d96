// KelmKernelImpl: taking the controller's state frames ("webSendRobotState")
// over into the cached state, and firing the registries they drive.
//
// Runs on the receive thread, one frame after the other. This is the
// teleoperation hot path: the tree parsed on receipt is reused when the
// connection offers it, member lookups never insert, and the cached vectors
// and strings are refilled in place so that a frame of unchanged shape
// allocates nothing for them.
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "callback_registry.h"
#include "kelm_kernel.h"
#include "log_manager.h"
#include "status_field.h"

namespace kelm {

namespace {

constexpr char kStateCommand[] = "webSendRobotState";

// The member `key` of `object`, or null when it is absent. Like isMember, it
// throws for a value that is neither an object nor null.
template <size_t N>
const Json::Value* member(const Json::Value& object, const char (&key)[N]) {
    return object.find(key, key + N - 1);
}

// Parses text up to its first zero byte; a failed parse gives a null value.
Json::Value parseText(const std::string& text) {
    thread_local std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    const char* begin = text.c_str();
    Json::Value root;
    if (!reader->parse(begin, begin + std::strlen(begin), &root, nullptr)) return Json::Value();
    return root;
}

// `command` read as text equals "webSendRobotState"; a command that cannot be
// read as text throws.
bool isStateFrame(const Json::Value& root) {
    const Json::Value* command = member(root, "command");
    if (command == nullptr) return false;
    if (!command->isString()) return command->asString() == kStateCommand;
    const char* begin = nullptr;
    const char* end = nullptr;
    command->getString(&begin, &end);
    const size_t length = static_cast<size_t>(end - begin);
    return length == sizeof(kStateCommand) - 1 && std::memcmp(begin, kStateCommand, length) == 0;
}

// A string value into `out`, reusing its buffer; other values as asString.
void assignText(const Json::Value& value, std::string& out) {
    if (!value.isString()) {
        out = value.asString();
        return;
    }
    const char* begin = nullptr;
    const char* end = nullptr;
    value.getString(&begin, &end);
    out.assign(begin, end);
}

// The frame's sequence number: its text through std::stoul, so that text and
// numbers alike are accepted and anything else throws ("stoul").
uint64_t frameCount(const Json::Value& count) {
    if (count.type() == Json::intValue) return static_cast<uint64_t>(count.asInt64());
    if (count.type() == Json::uintValue) return count.asUInt64();
    return std::stoul(count.asString());
}

// A number, or text holding one (std::stod, which throws "stod" otherwise).
double decimalValue(const Json::Value& value) {
    if (value.isNumeric()) return value.asDouble();
    return std::stod(value.asString());
}

// Fills `out` with `values`, one entry per element, read as float or double.
template <typename Element>
void readNumbers(const Json::Value& values, std::vector<double>& out) {
    out.resize(values.size());
    if (values.isArray()) {
        size_t i = 0;
        for (const Json::Value& value : values) out[i++] = static_cast<double>(value.as<Element>());
        return;
    }
    for (Json::ArrayIndex i = 0; i < values.size(); ++i) out[i] = static_cast<double>(values[i].as<Element>());
}

// Seven values at float precision; missing ones read 0.
void readPose(const Json::Value& values, Pose& out) {
    for (Json::ArrayIndex i = 0; i < out.size(); ++i) out[i] = static_cast<double>(values[i].asFloat());
}

// Calls every function of a registry's copy with its own copies of `args`.
template <typename Functions, typename... Args>
void callEntries(const Functions& functions, const Args&... args) {
    for (const auto& function : functions) function(args...);
}

}  // namespace

void KelmKernelImpl::parseRecieveData(const std::string& msg) {
    try {
        Json::Value parsed;
        const Json::Value* root = treeOfDispatchedMessage(msg);
        if (root == nullptr) {
            parsed = parseText(msg);
            root = &parsed;
        }
        if (root->isNull()) {
            KELM_LOG(LOG_ERROR, "parse error %s", msg.c_str());
            return;
        }
        if (!isStateFrame(*root)) return;
        webSendRobotStateData(*root);
        fireFrameDataCallbacks();
    } catch (const std::exception& e) {
        KELM_LOG(LOG_ERROR, "%s", e.what());
    } catch (...) {
        std::cout << "execption: " << msg << std::endl;
    }
}

void KelmKernelImpl::fireFrameDataCallbacks() {
    // The receive thread is the only writer of these members, so it reads
    // them here without the lock.
    registry::callEach(registry_mutex_, get_joint_callbacks, time_stamp, joint_pos, joint_vel, joint_tau);
    registry::callEach(registry_mutex_, get_pose_callbacks, time_stamp, cart_pose);
    registry::callEach(registry_mutex_, get_plan_joint_callbacks, time_stamp, plan_joint_pos, plan_joint_vel, plan_joint_tau);
    registry::callEach(registry_mutex_, get_tele_master_data_callbacks, time_stamp, joint_pos, end_effector.pos);
}

void KelmKernelImpl::webSendRobotStateData(const Json::Value& root) {
    if (!isStateFrame(root)) return;
    const Json::Value* arms = member(root, "arm");
    if (arms != nullptr && arms->isArray()) status_field::store(arm_count, arms->size());
    const int previous_motion_state = status_field::load(status.motion_state);

    std::lock_guard<std::mutex> lock(state_mutex);
    readCount(root);
    if (const Json::Value* debug = member(root, "debug")) status_field::store(status.debug, debug->asBool());
    if (const Json::Value* stamp = member(root, "Unix_time_stamp")) time_stamp = decimalValue(*stamp);
    fireErrorOfThisArm(root);

    const Json::Value* arm = selectArm(arms);
    if (arm == nullptr) return;
    takeOverArm(*arm);

    const int motion_state = status_field::load(status.motion_state);
    if (motion_state != previous_motion_state) registry::callEach(registry_mutex_, state_changed_callbacks, motion_state);
}

void KelmKernelImpl::readCount(const Json::Value& root) {
    const uint64_t count = frameCount(root["count"]);
    // Unsigned on purpose: a first frame above 1 and a count that goes
    // backwards are reported as gaps too.
    if (count - msg_count > 1) {
        KELM_LOG(LOG_ERROR, "miss msg, current count %s, last count %s", std::to_string(count).c_str(),
                 std::to_string(msg_count).c_str());
    }
    msg_count = count;
}

void KelmKernelImpl::fireErrorOfThisArm(const Json::Value& root) {
    const Json::Value* error = member(root, "error");
    if (error == nullptr) return;
    const int code = error->asInt();
    if (code == 0) return;
    // Level-triggered: every frame that still carries the error fires again.
    if (root["error_arm_index"].asInt() != status_field::load(status.arm_index)) return;
    registry::callEach(registry_mutex_, error_catch_callbacks, code, root["errMsg"].asString());
}

const Json::Value* KelmKernelImpl::selectArm(const Json::Value* arms) const {
    if (arms == nullptr) return nullptr;
    const int index = status_field::load(status.arm_index);
    if (index < 0 || static_cast<Json::ArrayIndex>(index) >= arms->size()) return nullptr;
    const Json::Value& arm = (*arms)[static_cast<Json::ArrayIndex>(index)];
    // The position in the array and the index the entry states must agree,
    // also in JSON type: an index sent as text does not match.
    const Json::Value* stated_index = member(arm, "arm_index");
    if (stated_index == nullptr || *stated_index != Json::Value(index)) return nullptr;
    return &arm;
}

void KelmKernelImpl::takeOverArm(const Json::Value& arm) {
    if (const Json::Value* name = member(arm, "arm_name")) {
        assignText(*name, arm_name_scratch_);
        // The receive thread is the only writer, so it may compare unlocked.
        if (status.arm_name != arm_name_scratch_) {
            std::lock_guard<std::mutex> name_lock(arm_name_mutex_);
            status.arm_name = arm_name_scratch_;
        }
    }
    if (const Json::Value* dof = member(arm, "arm_dof")) status_field::store(status.dof, dof->asInt());
    if (const Json::Value* axises = member(arm, "axises")) fireAxisCallbacks(*axises);
    if (const Json::Value* gripper = member(arm, "gripper")) readGripper(*gripper);

    // Whether the joint positions of `reality` and `plan` are read is decided
    // by the arm-level `pose`, not by the blocks themselves.
    const bool arm_has_pose = member(arm, "pose") != nullptr;
    if (const Json::Value* reality = member(arm, "reality")) {
        readJointBlock(*reality, arm_has_pose, joint_pos, joint_vel, joint_tau);
    }
    if (const Json::Value* plan = member(arm, "plan")) {
        readJointBlock(*plan, arm_has_pose, plan_joint_pos, plan_joint_vel, plan_joint_tau);
    }
    if (const Json::Value* force = member(arm, "cart_external_force")) readNumbers<double>(*force, cart_external_force);
    if (const Json::Value* external_tau = member(arm, "joint_external_tau")) {
        readNumbers<double>(*external_tau, joint_external_tau);
        registry::callEach(registry_mutex_, get_external_force_callbacks, time_stamp, joint_external_tau, cart_external_force);
        registry::callEach(registry_mutex_, get_tele_slave_data_callbacks, time_stamp, joint_external_tau, end_effector.tau);
    }
    readPoses(arm);

    if (const Json::Value* servo = member(arm, "servo")) status_field::store(status.servo, servo->asBool());
    if (const Json::Value* motion_state = member(arm, "motion_state")) {
        status_field::store(status.motion_state, motion_state->asInt());
    }
    if (const Json::Value* fsm_state = member(arm, "fsm_state")) {
        assignText(*fsm_state, fsm_state_scratch_);
        status_field::store(status.fsm_mode, lookupFsmMode(fsm_state_scratch_));
    }
    if (const Json::Value* vel_per = member(arm, "vel_per")) status_field::store(status.vel_per, vel_per->asDouble());
    if (const Json::Value* tool = member(arm, "tool")) tool_index = tool->asInt();
    if (const Json::Value* user = member(arm, "user")) user_index = user->asInt();
    if (const Json::Value* task = member(arm, "task")) readTask(*task);
}

void KelmKernelImpl::fireAxisCallbacks(const Json::Value& axises) {
    // One snapshot per registry and frame; the axis values are never stored.
    const auto mode_callbacks = registry::copyEntries(registry_mutex_, fsm_mode_changed_callbacks);
    const auto servo_callbacks = registry::copyEntries(registry_mutex_, servo_status_changed_callbacks);
    const auto code_callbacks = registry::copyEntries(registry_mutex_, motor_code_changed_callbacks);
    const auto run_state_callbacks = registry::copyEntries(registry_mutex_, motor_run_state_changed_callbacks);
    for (Json::ArrayIndex i = 0; i < axises.size(); ++i) {
        const Json::Value& axis = axises[i];
        const Json::Value* index_value = member(axis, "index");
        if (index_value == nullptr) continue;
        const int index = index_value->asInt();
        if (const Json::Value* mode = member(axis, "mode")) callEntries(mode_callbacks, index, mode->asInt());
        // Unlike the arm-level servo flag, the axis servo is an integer.
        if (const Json::Value* servo = member(axis, "servo")) callEntries(servo_callbacks, index, servo->asInt() != 0);
        if (const Json::Value* code = member(axis, "code")) {
            const int code_value = code->asInt();
            callEntries(code_callbacks, index, code_value, axis["msg"].asString());
        }
        if (const Json::Value* run_state = member(axis, "run_state")) {
            callEntries(run_state_callbacks, index, run_state->asInt());
        }
    }
}

void KelmKernelImpl::readGripper(const Json::Value& gripper) {
    if (const Json::Value* pos = member(gripper, "gripper_pos")) end_effector.pos = pos->asDouble();
    if (const Json::Value* vel = member(gripper, "gripper_vel")) end_effector.vel = vel->asDouble();
    if (const Json::Value* tau = member(gripper, "gripper_tau")) end_effector.tau = tau->asDouble();
    if (const Json::Value* state = member(gripper, "gripper_state")) {
        end_effector.state = static_cast<int8_t>(state->asInt());  // low byte kept
    }
    if (const Json::Value* connected = member(gripper, "is_connect")) end_effector.connected = connected->asBool();
}

void KelmKernelImpl::readJointBlock(const Json::Value& block, bool arm_has_pose, std::vector<double>& pos,
                                    std::vector<double>& vel, std::vector<double>& tau) {
    // With the arm-level `pose`, a block without `pose` empties `pos`.
    if (arm_has_pose) readNumbers<float>(block["pose"], pos);
    if (const Json::Value* velocities = member(block, "vel")) readNumbers<float>(*velocities, vel);
    if (const Json::Value* torques = member(block, "torque")) readNumbers<float>(*torques, tau);
}

void KelmKernelImpl::readPoses(const Json::Value& arm) {
    if (const Json::Value* pose = member(arm, "pose")) readPose(*pose, cart_pose);
    // Each frame-specific pose that the frame leaves out follows cart_pose.
    const std::pair<const Json::Value*, Pose*> frame_poses[] = {
        {member(arm, "pose_tool"), &pose_tool},
        {member(arm, "pose_user"), &pose_user},
        {member(arm, "pose_aut"), &pose_aut},
    };
    for (const auto& frame_pose : frame_poses) {
        if (frame_pose.first != nullptr) {
            readPose(*frame_pose.first, *frame_pose.second);
        } else {
            *frame_pose.second = cart_pose;
        }
    }
}

void KelmKernelImpl::readTask(const Json::Value& task) {
    if (const Json::Value* flag = member(task, "exe_flag")) exe_flag = flag->asBool();
    if (const Json::Value* last = member(task, "last_task_key")) assignText(*last, last_task_key);
    if (const Json::Value* executing = member(task, "exe_task_key")) assignText(*executing, exe_task_key);
}

}  // namespace kelm
