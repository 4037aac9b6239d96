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
// Unknown keys are passed over. The check files every value it accepts under
// its key's slot (frame_keys.h) in an index of its object, so that the frame
// reader's lookups need no search. simdjson refuses comments, trailing text and
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
namespace keys = frame_keys;

// Frames nest four deep; anything much deeper is no frame.
constexpr size_t kMaxDepth = 64;
// Room for a few frames; the parser grows for longer messages.
constexpr size_t kInitialCapacity = 64 * 1024;
// A frame is a few kilobytes per arm. A longer message (a kinematics batch
// reply) is no frame: it goes to jsoncpp at once, and the thread's parser
// never grows to its size and keeps that memory.
constexpr size_t kLargestFrameBytes = 1024 * 1024;
// Indexed objects per message: a frame of one arm has about a dozen.
constexpr size_t kMostObjects = 128;

enum class Kind { Text, Integer, Boolean, Number, Numbers, Count, Stamp, Arms, Axes, Gripper, JointBlock, Task, Reply };

struct Field {
    keys::Key key;
    Kind kind;
};

constexpr Field kRootFields[] = {
    {keys::root::command, Kind::Text},
    {keys::root::task_key, Kind::Reply},
    {keys::root::count, Kind::Count},
    {keys::root::debug, Kind::Boolean},
    {keys::root::unix_time_stamp, Kind::Stamp},
    {keys::root::error, Kind::Integer},
    {keys::root::error_arm_index, Kind::Integer},
    {keys::root::err_msg, Kind::Text},
    {keys::root::arm, Kind::Arms},
};
constexpr Field kArmFields[] = {
    {keys::arm::arm_index, Kind::Integer},
    {keys::arm::arm_name, Kind::Text},
    {keys::arm::arm_dof, Kind::Integer},
    {keys::arm::axises, Kind::Axes},
    {keys::arm::gripper, Kind::Gripper},
    {keys::arm::reality, Kind::JointBlock},
    {keys::arm::plan, Kind::JointBlock},
    {keys::arm::cart_external_force, Kind::Numbers},
    {keys::arm::joint_external_tau, Kind::Numbers},
    {keys::arm::pose, Kind::Numbers},
    {keys::arm::pose_tool, Kind::Numbers},
    {keys::arm::pose_user, Kind::Numbers},
    {keys::arm::pose_aut, Kind::Numbers},
    {keys::arm::servo, Kind::Boolean},
    {keys::arm::motion_state, Kind::Integer},
    {keys::arm::fsm_state, Kind::Text},
    {keys::arm::vel_per, Kind::Number},
    {keys::arm::tool, Kind::Integer},
    {keys::arm::user, Kind::Integer},
    {keys::arm::task, Kind::Task},
};
constexpr Field kAxisFields[] = {
    {keys::axis::index, Kind::Integer}, {keys::axis::mode, Kind::Integer}, {keys::axis::servo, Kind::Integer},
    {keys::axis::code, Kind::Integer},  {keys::axis::msg, Kind::Text},     {keys::axis::run_state, Kind::Integer},
};
constexpr Field kGripperFields[] = {
    {keys::gripper::pos, Kind::Number},         {keys::gripper::vel, Kind::Number},
    {keys::gripper::tau, Kind::Number},         {keys::gripper::state, Kind::Integer},
    {keys::gripper::is_connect, Kind::Boolean},
};
constexpr Field kJointBlockFields[] = {{keys::joint_block::pose, Kind::Numbers},
                                       {keys::joint_block::vel, Kind::Numbers},
                                       {keys::joint_block::torque, Kind::Numbers}};
constexpr Field kTaskFields[] = {{keys::task::exe_flag, Kind::Boolean},
                                 {keys::task::last_task_key, Kind::Text},
                                 {keys::task::exe_task_key, Kind::Text}};

bool isInteger(const element& value) {
    if (value.type() != element_type::INT64) return false;
    const int64_t number = int64_t(value);
    return number >= INT_MIN && number <= INT_MAX;
}

bool isNumber(const element& value) { return value.is_int64() || value.is_double(); }

bool isNumberArray(const element& value) {
    if (!value.is_array()) return false;
    for (const element item : simdjson::dom::array(value)) {
        if (!isNumber(item)) return false;
    }
    return true;
}

// Short keys compared inline; the library compare is a call per key.
bool sameKey(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] != b[i]) return false;
    }
    return true;
}

// Checks a message and files its values by slot, into indices drawn from a
// pool that is reused message by message.
class CertaintyCheck {
public:
    void restart() { used_ = 0; }

    bool root(const element& value, FastValue& out) { return object(value, kRootFields, out); }

private:
    ObjectIndex* allocate(size_t count) {
        if (count > kMostObjects - used_) return nullptr;
        ObjectIndex* first = &pool_[used_];
        used_ += count;
        return first;
    }

    // Every known key at most once and of its kind.
    template <size_t N>
    bool object(const element& value, const Field (&fields)[N], FastValue& out) {
        static_assert(N <= kMostKeysPerObject, "one slot per field");
        ObjectIndex* index = allocate(1);
        return index != nullptr && fill(value, fields, *index, out);
    }

    template <size_t N>
    bool fill(const element& value, const Field (&fields)[N], ObjectIndex& index, FastValue& out) {
        if (!value.is_object()) return false;
        index.present = 0;
        for (const auto field : simdjson::dom::object(value)) {
            for (const Field& known : fields) {
                if (!sameKey(known.key.text, field.key)) continue;
                const std::uint32_t bit = std::uint32_t(1) << known.key.slot;
                if ((index.present & bit) != 0 || !this->value(field.value, known.kind, index.values[known.key.slot])) {
                    return false;
                }
                index.present |= bit;
                break;
            }
        }
        out = FastValue{value, &index};
        return true;
    }

    // An array of objects: their indices follow one another.
    template <size_t N>
    bool objects(const element& value, const Field (&fields)[N], FastValue& out) {
        if (!value.is_array()) return false;
        const simdjson::dom::array items(value);
        ObjectIndex* first = allocate(items.size());
        if (first == nullptr) return false;
        size_t position = 0;
        FastValue unused;
        for (const element item : items) {
            if (!fill(item, fields, first[position++], unused)) return false;
        }
        out = FastValue{value, first};
        return true;
    }

    bool value(const element& value, Kind kind, FastValue& out) {
        out = FastValue{value, nullptr};
        switch (kind) {
            case Kind::Text: return value.is_string();
            case Kind::Integer: return isInteger(value);
            case Kind::Boolean: return value.is_bool();
            case Kind::Number: return isNumber(value);
            case Kind::Numbers: return isNumberArray(value);
            case Kind::Count: return value.is_string() || value.is_int64() || value.is_uint64();
            case Kind::Stamp: return value.is_string() || value.is_int64() || value.is_uint64() || value.is_double();
            case Kind::Arms: return objects(value, kArmFields, out);
            case Kind::Axes: return objects(value, kAxisFields, out);
            case Kind::Gripper: return object(value, kGripperFields, out);
            case Kind::JointBlock: return object(value, kJointBlockFields, out);
            case Kind::Task: return object(value, kTaskFields, out);
            case Kind::Reply: return true;
        }
        return false;
    }

    std::array<ObjectIndex, kMostObjects> pool_;
    size_t used_ = 0;
};

bool isReply(const FastValue& root) {
    using Document = FastDocument;
    return Document::find(root, keys::root::command) && Document::find(root, keys::root::task_key);
}

// The thread's parser and the message parsed last.
struct ThreadReader {
    simdjson::dom::parser parser;
    bool usable = parser.allocate(kInitialCapacity, kMaxDepth) == simdjson::SUCCESS;
    bool leased = false;
    CertaintyCheck check;
    Message message;
};

thread_local ThreadReader reader;

}  // namespace

Lease::~Lease() {
    if (message_ != nullptr) reader.leased = false;
}

Lease read(const std::string& text) {
    if (!reader.usable || reader.leased || text.size() > kLargestFrameBytes) return Lease();
    element root;
    if (reader.parser.parse(text.c_str(), std::strlen(text.c_str())).get(root) != simdjson::SUCCESS) return Lease();
    reader.check.restart();
    if (!reader.check.root(root, reader.message.root) || isReply(reader.message.root)) return Lease();
    reader.leased = true;
    return Lease(&reader.message);
}

void forEachFinishedTask(const Message& message, const std::function<void(const std::string&)>& each) {
    using Document = FastDocument;
    Document::forEach(Document::find(message.root, keys::root::arm), [&](const Document::Found& arm) {
        const Document::Found task = Document::find(*arm, keys::arm::task);
        if (!task) return;
        const Document::Found key = Document::find(*task, keys::task::last_task_key);
        if (key) each(Document::text(key));
    });
}

}  // namespace fast_frame
}  // namespace kelm
