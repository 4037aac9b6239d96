// KelmKernelImpl: taking the controller's state frames ("webSendRobotState")
// over into the cached state, and firing the registries they drive.
//
// Runs on the receive thread, one frame after the other. This is the
// teleoperation hot path: a frame that the connection read with the fast
// reader is taken over from that document without a tree; otherwise the
// tree parsed on receipt is reused when the connection offers it. Either way
// one reader, FrameReader, holds the rules of the frame; the two documents
// only supply lookups and conversions. Member lookups never insert, and the
// cached vectors and strings are refilled in place so that a frame of
// unchanged shape allocates nothing for them.
#include <string>
#include <string_view>

#include "callback_registry.h"
#include "frame_keys.h"
#include "kelm_kernel.h"
#include "log_manager.h"
#include "message_text.h"
#include "protocol.h"
#include "status_field.h"
#if KELM_FRAME_FAST_PATH
#include "fast_frame_document.h"
#endif

namespace kelm {

namespace {

namespace keys = frame_keys;

// A jsoncpp tree as a document for FrameReader. An absent value reads as
// null; every conversion is jsoncpp's own, so a value of an unexpected type
// converts or throws as jsoncpp decides.
struct JsonDocument {
    using Value = Json::Value;
    using Found = const Json::Value*;

    static const Value& orNull(Found value) { return value != nullptr ? *value : Json::Value::nullSingleton(); }

    // Like isMember, it throws for a value that is neither an object nor null.
    static Found find(const Value& object, const frame_keys::Key& key) {
        return object.find(key.text.data(), key.text.data() + key.text.size());
    }

    static bool isArray(const Value& value) { return value.isArray(); }
    static size_t size(Found values) { return orNull(values).size(); }
    static Found at(const Value& values, size_t index) { return &values[static_cast<Json::ArrayIndex>(index)]; }

    template <typename Each>
    static void forEach(Found found, Each each) {
        const Value& values = orNull(found);
        if (values.isArray()) {
            for (const Value& value : values) each(&value);
            return;
        }
        for (Json::ArrayIndex i = 0; i < values.size(); ++i) each(&values[i]);
    }

    // Text compared as jsoncpp's asString gives it; a value that cannot be
    // read as text throws.
    static bool textIs(const Value& value, std::string_view text) {
        if (!value.isString()) return value.asString() == text;
        const char* begin = nullptr;
        const char* end = nullptr;
        value.getString(&begin, &end);
        return std::string_view(begin, static_cast<size_t>(end - begin)) == text;
    }

    // A string value into `out`, reusing its buffer; other values as asString.
    static void assignText(Found found, std::string& out) {
        const Value& value = orNull(found);
        if (!value.isString()) {
            out = value.asString();
            return;
        }
        const char* begin = nullptr;
        const char* end = nullptr;
        value.getString(&begin, &end);
        out.assign(begin, end);
    }

    static std::string text(Found value) { return orNull(value).asString(); }
    static int asInt(Found value) { return orNull(value).asInt(); }
    static bool asBool(Found value) { return orNull(value).asBool(); }

    template <typename Number>
    static Number as(Found value) {
        return orNull(value).as<Number>();
    }

    // The frame's sequence number: its text through std::stoul, so that text
    // and numbers alike are accepted and anything else throws ("stoul").
    static uint64_t frameCount(Found found) {
        const Value& count = orNull(found);
        if (count.type() == Json::intValue) return static_cast<uint64_t>(count.asInt64());
        if (count.type() == Json::uintValue) return count.asUInt64();
        return std::stoul(count.asString());
    }

    // A number, or text holding one (std::stod, which throws "stod" otherwise).
    static double decimalValue(const Value& value) {
        if (value.isNumeric()) return value.asDouble();
        return std::stod(value.asString());
    }

    static bool equalsIndex(const Value& value, int index) { return value == Json::Value(index); }
};

// Calls every function of a registry's copy with its own copies of `args`.
template <typename Functions, typename... Args>
void callEntries(const Functions& functions, const Args&... args) {
    for (const auto& function : functions) {
        function(args...);
        DispatchScope::throwIfEnded();
    }
}

}  // namespace

// The rules of a state frame over one document type: which key goes where,
// read how, and which registry fires in which order.
template <typename Document>
class FrameReader {
public:
    using Value = typename Document::Value;
    using Found = typename Document::Found;

    explicit FrameReader(KelmKernelImpl& kernel) : kernel_(kernel) {}

    // `command` read as text equals "webSendRobotState".
    static bool isStateFrame(const Value& root) {
        const Found command = Document::find(root, keys::root::command);
        return command && Document::textIs(*command, protocol::kStateFrameCommand);
    }

    void takeOver(const Value& root) {
        if (!isStateFrame(root)) return;
        const Found arms = Document::find(root, keys::root::arm);
        if (arms && Document::isArray(*arms)) status_field::store(kernel_.arm_count, Document::size(arms));
        const int previous_motion_state = status_field::load(kernel_.status.motion_state);

        std::unique_lock<std::mutex> lock(kernel_.state_mutex);
        try {
            takeOverLocked(root, arms, previous_motion_state);
        } catch (const DispatchEnded&) {
            // A callback destroyed the kernel, and this mutex with it.
            lock.release();
            throw;
        }
    }

private:
    void takeOverLocked(const Value& root, const Found& arms, int previous_motion_state) {
        readCount(root);
        if (const Found debug = Document::find(root, keys::root::debug)) {
            status_field::store(kernel_.status.debug, Document::asBool(debug));
        }
        if (const Found stamp = Document::find(root, keys::root::unix_time_stamp)) {
            kernel_.time_stamp = Document::decimalValue(*stamp);
        }
        fireErrorOfThisArm(root);

        const Found arm = selectArm(arms);
        if (!arm) return;
        takeOverArm(*arm);

        const int motion_state = status_field::load(kernel_.status.motion_state);
        if (motion_state != previous_motion_state) {
            registry::callEach(kernel_.registry_mutex_, kernel_.state_changed_callbacks, motion_state);
        }
    }

    void readCount(const Value& root) {
        const uint64_t count = Document::frameCount(Document::find(root, keys::root::count));
        // Unsigned on purpose: a first frame above 1 and a count that goes
        // backwards are reported as gaps too.
        if (count - kernel_.msg_count > 1) {
            KELM_LOG(LOG_ERROR, "miss msg, current count %s, last count %s", std::to_string(count).c_str(),
                     std::to_string(kernel_.msg_count).c_str());
        }
        kernel_.msg_count = count;
    }

    void fireErrorOfThisArm(const Value& root) {
        const Found error = Document::find(root, keys::root::error);
        if (!error) return;
        const int code = Document::asInt(error);
        if (code == 0) return;
        // Level-triggered: every frame that still carries the error fires again.
        if (Document::asInt(Document::find(root, keys::root::error_arm_index)) !=
            status_field::load(kernel_.status.arm_index)) {
            return;
        }
        registry::callEach(kernel_.registry_mutex_, kernel_.error_catch_callbacks, code,
                           Document::text(Document::find(root, keys::root::err_msg)));
    }

    Found selectArm(const Found& arms) const {
        if (!arms) return Found();
        const int index = status_field::load(kernel_.status.arm_index);
        if (index < 0 || static_cast<size_t>(index) >= Document::size(arms)) return Found();
        const Found arm = Document::at(*arms, static_cast<size_t>(index));
        // The position in the array and the index the entry states must
        // agree, also in JSON type: an index sent as text does not match.
        const Found stated_index = Document::find(*arm, keys::arm::arm_index);
        if (!stated_index || !Document::equalsIndex(*stated_index, index)) return Found();
        return arm;
    }

    void takeOverArm(const Value& arm) {
        if (const Found name = Document::find(arm, keys::arm::arm_name)) {
            Document::assignText(name, kernel_.arm_name_scratch_);
            // The receive thread is the only writer, so it may compare unlocked.
            if (kernel_.status.arm_name != kernel_.arm_name_scratch_) {
                std::lock_guard<std::mutex> name_lock(kernel_.arm_name_mutex_);
                kernel_.status.arm_name = kernel_.arm_name_scratch_;
            }
        }
        if (const Found dof = Document::find(arm, keys::arm::arm_dof))
            status_field::store(kernel_.status.dof, Document::asInt(dof));
        if (const Found axises = Document::find(arm, keys::arm::axises)) fireAxisCallbacks(axises);
        if (const Found gripper = Document::find(arm, keys::arm::gripper)) readGripper(*gripper);

        // Whether the joint positions of `reality` and `plan` are read is
        // decided by the arm-level `pose`, not by the blocks themselves.
        const bool arm_has_pose = static_cast<bool>(Document::find(arm, keys::arm::pose));
        if (const Found reality = Document::find(arm, keys::arm::reality)) {
            readJointBlock(*reality, arm_has_pose, kernel_.joint_pos, kernel_.joint_vel, kernel_.joint_tau);
        }
        if (const Found plan = Document::find(arm, keys::arm::plan)) {
            readJointBlock(*plan, arm_has_pose, kernel_.plan_joint_pos, kernel_.plan_joint_vel, kernel_.plan_joint_tau);
        }
        if (const Found force = Document::find(arm, keys::arm::cart_external_force)) {
            readNumbers<double>(force, kernel_.cart_external_force);
        }
        if (const Found external_tau = Document::find(arm, keys::arm::joint_external_tau)) {
            readNumbers<double>(external_tau, kernel_.joint_external_tau);
            registry::callEach(kernel_.registry_mutex_, kernel_.get_external_force_callbacks, kernel_.time_stamp,
                               kernel_.joint_external_tau, kernel_.cart_external_force);
            registry::callEach(kernel_.registry_mutex_, kernel_.get_tele_slave_data_callbacks, kernel_.time_stamp,
                               kernel_.joint_external_tau, kernel_.end_effector.tau);
        }
        readPoses(arm);

        if (const Found servo = Document::find(arm, keys::arm::servo)) {
            status_field::store(kernel_.status.servo, Document::asBool(servo));
        }
        if (const Found motion_state = Document::find(arm, keys::arm::motion_state)) {
            status_field::store(kernel_.status.motion_state, Document::asInt(motion_state));
        }
        if (const Found fsm_state = Document::find(arm, keys::arm::fsm_state)) {
            Document::assignText(fsm_state, kernel_.fsm_state_scratch_);
            status_field::store(kernel_.status.fsm_mode, lookupFsmMode(kernel_.fsm_state_scratch_));
        }
        if (const Found vel_per = Document::find(arm, keys::arm::vel_per)) {
            status_field::store(kernel_.status.vel_per, Document::template as<double>(vel_per));
        }
        if (const Found tool = Document::find(arm, keys::arm::tool)) kernel_.tool_index = Document::asInt(tool);
        if (const Found user = Document::find(arm, keys::arm::user)) kernel_.user_index = Document::asInt(user);
        if (const Found task = Document::find(arm, keys::arm::task)) readTask(*task);
    }

    void fireAxisCallbacks(const Found& axises) {
        // One snapshot per registry and frame; the axis values are never stored.
        std::mutex& registry_mutex = kernel_.registry_mutex_;
        const auto mode_callbacks = registry::copyEntries(registry_mutex, kernel_.fsm_mode_changed_callbacks);
        const auto servo_callbacks = registry::copyEntries(registry_mutex, kernel_.servo_status_changed_callbacks);
        const auto code_callbacks = registry::copyEntries(registry_mutex, kernel_.motor_code_changed_callbacks);
        const auto run_state_callbacks =
            registry::copyEntries(registry_mutex, kernel_.motor_run_state_changed_callbacks);
        Document::forEach(axises, [&](const Found& axis) {
            const Found index_value = Document::find(*axis, keys::axis::index);
            if (!index_value) return;
            const int index = Document::asInt(index_value);
            if (const Found mode = Document::find(*axis, keys::axis::mode))
                callEntries(mode_callbacks, index, Document::asInt(mode));
            // Unlike the arm-level servo flag, the axis servo is an integer.
            if (const Found servo = Document::find(*axis, keys::axis::servo)) {
                callEntries(servo_callbacks, index, Document::asInt(servo) != 0);
            }
            if (const Found code = Document::find(*axis, keys::axis::code)) {
                const int code_value = Document::asInt(code);
                callEntries(code_callbacks, index, code_value, Document::text(Document::find(*axis, keys::axis::msg)));
            }
            if (const Found run_state = Document::find(*axis, keys::axis::run_state)) {
                callEntries(run_state_callbacks, index, Document::asInt(run_state));
            }
        });
    }

    void readGripper(const Value& gripper) {
        KelmKernelImpl::EndEffector& end_effector = kernel_.end_effector;
        if (const Found pos = Document::find(gripper, keys::gripper::pos))
            end_effector.pos = Document::template as<double>(pos);
        if (const Found vel = Document::find(gripper, keys::gripper::vel))
            end_effector.vel = Document::template as<double>(vel);
        if (const Found tau = Document::find(gripper, keys::gripper::tau))
            end_effector.tau = Document::template as<double>(tau);
        if (const Found state = Document::find(gripper, keys::gripper::state)) {
            end_effector.state = static_cast<int8_t>(Document::asInt(state));  // low byte kept
        }
        if (const Found connected = Document::find(gripper, keys::gripper::is_connect)) {
            end_effector.connected = Document::asBool(connected);
        }
    }

    void readJointBlock(const Value& block, bool arm_has_pose, std::vector<double>& pos, std::vector<double>& vel,
                        std::vector<double>& tau) {
        // With the arm-level `pose`, a block without `pose` empties `pos`.
        if (arm_has_pose) readNumbers<float>(Document::find(block, keys::joint_block::pose), pos);
        if (const Found velocities = Document::find(block, keys::joint_block::vel)) readNumbers<float>(velocities, vel);
        if (const Found torques = Document::find(block, keys::joint_block::torque)) readNumbers<float>(torques, tau);
    }

    // Fills `out` with `values`, one entry per element, read as float or
    // double; an absent array empties it.
    template <typename Element>
    static void readNumbers(const Found& values, std::vector<double>& out) {
        out.resize(Document::size(values));
        size_t i = 0;
        Document::forEach(
            values, [&](const Found& value) { out[i++] = static_cast<double>(Document::template as<Element>(value)); });
    }

    // Seven values at float precision; missing ones read 0.
    static void readPose(const Value& values, Pose& out) {
        for (size_t i = 0; i < out.size(); ++i) {
            out[i] = static_cast<double>(Document::template as<float>(Document::at(values, i)));
        }
    }

    void readPoses(const Value& arm) {
        if (const Found pose = Document::find(arm, keys::arm::pose)) readPose(*pose, kernel_.cart_pose);
        // Each frame-specific pose that the frame leaves out follows cart_pose.
        const std::pair<Found, Pose*> frame_poses[] = {
            {Document::find(arm, keys::arm::pose_tool), &kernel_.pose_tool},
            {Document::find(arm, keys::arm::pose_user), &kernel_.pose_user},
            {Document::find(arm, keys::arm::pose_aut), &kernel_.pose_aut},
        };
        for (const auto& frame_pose : frame_poses) {
            if (frame_pose.first) {
                readPose(*frame_pose.first, *frame_pose.second);
            } else {
                *frame_pose.second = kernel_.cart_pose;
            }
        }
    }

    void readTask(const Value& task) {
        if (const Found flag = Document::find(task, keys::task::exe_flag)) kernel_.exe_flag = Document::asBool(flag);
        if (const Found last = Document::find(task, keys::task::last_task_key))
            Document::assignText(last, kernel_.last_task_key);
        if (const Found executing = Document::find(task, keys::task::exe_task_key)) {
            Document::assignText(executing, kernel_.exe_task_key);
        }
    }

    KelmKernelImpl& kernel_;
};

void KelmKernelImpl::parseRecieveData(const std::string& msg) {
    try {
#if KELM_FRAME_FAST_PATH
        using FastReader = FrameReader<fast_frame::FastDocument>;
        if (const fast_frame::Message* fast = fast_frame::dispatchedMessage(*this, msg)) {
            if (!FastReader::isStateFrame(fast->root)) return;
            FastReader(*this).takeOver(fast->root);
            fireFrameDataCallbacks();
            return;
        }
#endif
        Json::Value parsed;
        const Json::Value* root = treeOfDispatchedMessage(msg);
        if (root == nullptr) {
            parsed = parseMessageText(msg);
            root = &parsed;
        }
        if (root->isNull()) {
            KELM_LOG(LOG_ERROR, "parse error %s", msg.c_str());
            return;
        }
        if (!FrameReader<JsonDocument>::isStateFrame(*root)) return;
        webSendRobotStateData(*root);
        fireFrameDataCallbacks();
    } catch (const DispatchEnded&) {
        throw;
    } catch (const std::exception& e) {
        KELM_LOG(LOG_ERROR, "%s", e.what());
    } catch (...) {
        reportUnknownException(msg);
    }
}

void KelmKernelImpl::fireFrameDataCallbacks() {
    // The receive thread is the only writer of these members, so it reads
    // them here without the lock.
    registry::callEach(registry_mutex_, get_joint_callbacks, time_stamp, joint_pos, joint_vel, joint_tau);
    registry::callEach(registry_mutex_, get_pose_callbacks, time_stamp, cart_pose);
    registry::callEach(registry_mutex_, get_plan_joint_callbacks, time_stamp, plan_joint_pos, plan_joint_vel,
                       plan_joint_tau);
    registry::callEach(registry_mutex_, get_tele_master_data_callbacks, time_stamp, joint_pos, end_effector.pos);
}

void KelmKernelImpl::webSendRobotStateData(const Json::Value& root) { FrameReader<JsonDocument>(*this).takeOver(root); }

}  // namespace kelm
