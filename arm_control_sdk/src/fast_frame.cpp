// The fast reader's parse and its certainty check (see fast_frame.h).
//
// The check walks the keys that the task broadcast and the frame parser read,
// object by object, and accepts a message only when each such key appears at
// most once and holds a type whose reading is exactly jsoncpp's:
// - text: a JSON string. simdjson refuses invalid UTF-8 and lone surrogates,
//   and decodes every other escape as jsoncpp does;
// - integers: a number without fraction or exponent, in the range of int
//   (jsoncpp throws outside it);
// - numbers: such an integer or a number with fraction or exponent; simdjson
//   refuses what does not fit a double, jsoncpp would read it as infinity or
//   as a double beyond uint64, so those are left to jsoncpp;
// - the frame count: text or an integer (jsoncpp turns other values into text
//   first); the time stamp: text or a number.
// Unknown keys are passed over. simdjson refuses comments, trailing text and
// anything that is not strict JSON, all of which jsoncpp accepts, and nesting
// beyond kMaxDepth is left to jsoncpp, which has a limit of its own.
#include "fast_frame.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "fast_frame_document.h"

namespace kelm {
namespace fast_frame {

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

// Frames nest four deep; anything much deeper is no frame.
constexpr size_t kMaxDepth = 64;
// Room for a few frames; the parser grows for longer messages.
constexpr size_t kInitialCapacity = 64 * 1024;

enum class Kind { Text, Integer, Boolean, Number, Numbers, Count, Stamp, Arms, Axes, Gripper, JointBlock, Task, Reply };

struct Field {
    std::string_view key;
    Kind kind;
};

// `task_key` beside `command` makes a message a reply.
constexpr Field kRootFields[] = {
    {"command", Kind::Text},          {"task_key", Kind::Reply},          {"count", Kind::Count},
    {"debug", Kind::Boolean},         {"Unix_time_stamp", Kind::Stamp},   {"error", Kind::Integer},
    {"error_arm_index", Kind::Integer}, {"errMsg", Kind::Text},           {"arm", Kind::Arms},
};
constexpr Field kArmFields[] = {
    {"arm_index", Kind::Integer},         {"arm_name", Kind::Text},          {"arm_dof", Kind::Integer},
    {"axises", Kind::Axes},               {"gripper", Kind::Gripper},        {"reality", Kind::JointBlock},
    {"plan", Kind::JointBlock},           {"cart_external_force", Kind::Numbers},
    {"joint_external_tau", Kind::Numbers}, {"pose", Kind::Numbers},          {"pose_tool", Kind::Numbers},
    {"pose_user", Kind::Numbers},         {"pose_aut", Kind::Numbers},       {"servo", Kind::Boolean},
    {"motion_state", Kind::Integer},      {"fsm_state", Kind::Text},         {"vel_per", Kind::Number},
    {"tool", Kind::Integer},              {"user", Kind::Integer},           {"task", Kind::Task},
};
constexpr Field kAxisFields[] = {
    {"index", Kind::Integer}, {"mode", Kind::Integer}, {"servo", Kind::Integer},
    {"code", Kind::Integer},  {"msg", Kind::Text},     {"run_state", Kind::Integer},
};
constexpr Field kGripperFields[] = {
    {"gripper_pos", Kind::Number},    {"gripper_vel", Kind::Number}, {"gripper_tau", Kind::Number},
    {"gripper_state", Kind::Integer}, {"is_connect", Kind::Boolean},
};
constexpr Field kJointBlockFields[] = {
    {"pose", Kind::Numbers}, {"vel", Kind::Numbers}, {"torque", Kind::Numbers}};
constexpr Field kTaskFields[] = {
    {"exe_flag", Kind::Boolean}, {"last_task_key", Kind::Text}, {"exe_task_key", Kind::Text}};

bool isInteger(const element& value) {
    if (value.type() != element_type::INT64) return false;
    const int64_t number = int64_t(value);
    return number >= INT_MIN && number <= INT_MAX;
}

bool isNumber(const element& value) { return value.is_int64() || value.is_double(); }

template <size_t N>
bool certainObject(const element& value, const Field (&fields)[N]);

bool certainElements(const element& value, bool (*certain)(const element&)) {
    if (!value.is_array()) return false;
    for (const element item : simdjson::dom::array(value)) {
        if (!certain(item)) return false;
    }
    return true;
}

bool certainArm(const element& value) { return certainObject(value, kArmFields); }
bool certainAxis(const element& value) { return certainObject(value, kAxisFields); }

bool certainValue(const element& value, Kind kind) {
    switch (kind) {
        case Kind::Text: return value.is_string();
        case Kind::Integer: return isInteger(value);
        case Kind::Boolean: return value.is_bool();
        case Kind::Number: return isNumber(value);
        case Kind::Numbers: return certainElements(value, isNumber);
        case Kind::Count: return value.is_string() || value.is_int64() || value.is_uint64();
        case Kind::Stamp: return value.is_string() || value.is_int64() || value.is_uint64() || value.is_double();
        case Kind::Arms: return certainElements(value, certainArm);
        case Kind::Axes: return certainElements(value, certainAxis);
        case Kind::Gripper: return certainObject(value, kGripperFields);
        case Kind::JointBlock: return certainObject(value, kJointBlockFields);
        case Kind::Task: return certainObject(value, kTaskFields);
        case Kind::Reply: return true;
    }
    return false;
}

// Every known key at most once and of its kind.
template <size_t N>
bool certainObject(const element& value, const Field (&fields)[N]) {
    static_assert(N <= 32, "one bit per field");
    if (!value.is_object()) return false;
    uint32_t seen = 0;
    for (const auto field : simdjson::dom::object(value)) {
        for (size_t i = 0; i < N; ++i) {
            if (fields[i].key != field.key) continue;
            const uint32_t bit = uint32_t(1) << i;
            if ((seen & bit) != 0 || !certainValue(field.value, fields[i].kind)) return false;
            seen |= bit;
            break;
        }
    }
    return true;
}

bool isReply(const element& root) {
    element unused;
    return root.at_key("command").get(unused) == simdjson::SUCCESS &&
           root.at_key("task_key").get(unused) == simdjson::SUCCESS;
}

// The thread's parser and the message parsed last.
struct ThreadReader {
    simdjson::dom::parser parser;
    bool usable = parser.allocate(kInitialCapacity, kMaxDepth) == simdjson::SUCCESS;
    bool leased = false;
    Message message;
};

thread_local ThreadReader reader;

}  // namespace

Lease::~Lease() {
    if (message_ != nullptr) reader.leased = false;
}

Lease read(const std::string& text) {
    if (!reader.usable || reader.leased) return Lease();
    element root;
    if (reader.parser.parse(text.c_str(), std::strlen(text.c_str())).get(root) != simdjson::SUCCESS) return Lease();
    if (!certainObject(root, kRootFields) || isReply(root)) return Lease();
    reader.message.root = root;
    reader.leased = true;
    return Lease(&reader.message);
}

void forEachFinishedTask(const Message& message, const std::function<void(const std::string&)>& each) {
    element arms;
    if (message.root.at_key("arm").get(arms) != simdjson::SUCCESS) return;
    for (const element arm : simdjson::dom::array(arms)) {
        element key;
        if (arm.at_pointer("/task/last_task_key").get(key) != simdjson::SUCCESS) continue;
        const std::string_view text(key);
        each(std::string(text.data(), text.size()));
    }
}

}  // namespace fast_frame
}  // namespace kelm
