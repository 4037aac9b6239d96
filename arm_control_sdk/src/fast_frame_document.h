// The fast reader's message and its access operations, in the shape the frame
// reader expects of a document (see FrameReader in data_parser.cpp).
//
// The certainty check (fast_frame.cpp) files every value of a known key under
// its slot in an index of its object, so that a lookup here is an array
// access. Only values that the check has accepted are ever asked for, so
// every conversion meets the one type (or the few types) its key allows and
// gives what jsoncpp's conversion of the same value gives.
#pragma once

#include <simdjson.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "fast_frame.h"
#include "frame_keys.h"

namespace kelm {
namespace fast_frame {

struct ObjectIndex;

// A value with the index of what it holds: its own fields for an object of a
// known kind, the index of its first element for an array of such objects
// (the elements' indices follow one another), none otherwise.
struct FastValue {
    simdjson::dom::element element;
    const ObjectIndex* index = nullptr;
};

constexpr size_t kMostKeysPerObject = 20;

struct ObjectIndex {
    std::uint32_t present = 0;  // one bit per slot
    std::array<FastValue, kMostKeysPerObject> values;
};

class Message {
public:
    FastValue root;
};

struct FastDocument {
    using Value = FastValue;
    using Key = frame_keys::Key;

    // A value that may be absent; an absent value reads as jsoncpp's null.
    class Found {
    public:
        Found() = default;
        explicit Found(const Value& value) : value_(value), present_(true) {}
        explicit operator bool() const { return present_; }
        const Value& operator*() const { return value_; }

    private:
        Value value_;
        bool present_ = false;
    };

    static Found find(const Value& object, const Key& key) {
        if ((object.index->present & (std::uint32_t(1) << key.slot)) == 0) return Found();
        return Found(object.index->values[key.slot]);
    }

    static bool isArray(const Value& value) { return value.element.is_array(); }

    static size_t size(const Found& values) { return values ? simdjson::dom::array((*values).element).size() : 0; }

    // The element at `index`, absent past the end.
    static Found at(const Value& values, size_t index) {
        size_t position = 0;
        for (const simdjson::dom::element element : simdjson::dom::array(values.element)) {
            if (position == index) return Found(elementAt(values, element, position));
            ++position;
        }
        return Found();
    }

    template <typename Each>
    static void forEach(const Found& values, Each each) {
        if (!values) return;
        size_t position = 0;
        for (const simdjson::dom::element element : simdjson::dom::array((*values).element)) {
            each(Found(elementAt(*values, element, position++)));
        }
    }

    static bool textIs(const Value& value, std::string_view text) { return std::string_view(value.element) == text; }

    static void assignText(const Found& value, std::string& out) {
        if (!value) {
            out.clear();
            return;
        }
        const std::string_view text((*value).element);
        out.assign(text.data(), text.size());
    }

    static std::string text(const Found& value) {
        std::string out;
        assignText(value, out);
        return out;
    }

    static int asInt(const Found& value) { return value ? static_cast<int>(int64_t((*value).element)) : 0; }
    static bool asBool(const Found& value) { return value && bool((*value).element); }

    // jsoncpp converts an integer straight to the target type, and an
    // unsigned one through double.
    template <typename Number>
    static Number as(const Found& value) {
        if (!value) return 0;
        const simdjson::dom::element& number = (*value).element;
        if (number.is_int64()) return static_cast<Number>(int64_t(number));
        if (number.is_uint64()) return static_cast<Number>(static_cast<double>(uint64_t(number)));
        return static_cast<Number>(double(number));
    }

    // An absent count reads as empty text, which std::stoul refuses.
    static uint64_t frameCount(const Found& found) {
        if (!found) return std::stoul(std::string());
        const simdjson::dom::element& count = (*found).element;
        if (count.is_int64()) return static_cast<uint64_t>(int64_t(count));
        if (count.is_uint64()) return uint64_t(count);
        return std::stoul(std::string(std::string_view(count)));
    }

    static double decimalValue(const Value& value) {
        if (value.element.is_string()) return std::stod(std::string(std::string_view(value.element)));
        return as<double>(Found(value));
    }

    // Equal as JSON values: jsoncpp reads every integer in int64 range as a
    // signed integer, the only type equal to a signed index.
    static bool equalsIndex(const Value& value, int index) {
        return value.element.is_int64() && int64_t(value.element) == static_cast<int64_t>(index);
    }

private:
    static Value elementAt(const Value& array, const simdjson::dom::element& element, size_t position) {
        return Value{element, array.index != nullptr ? array.index + position : nullptr};
    }
};

}  // namespace fast_frame
}  // namespace kelm
