// The fast reader's message and its access operations, in the shape the frame
// reader expects of a document (see FrameReader in data_parser.cpp).
//
// Only values that fast_frame::read has checked are ever asked for, so every
// conversion here meets the one type (or the few types) its key allows and
// gives what jsoncpp's conversion of the same value gives.
#pragma once

#include <simdjson.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fast_frame.h"

namespace kelm {
namespace fast_frame {

class Message {
public:
    simdjson::dom::element root;
};

struct FastDocument {
    using Value = simdjson::dom::element;

    // A value that may be absent; an absent value reads as jsoncpp's null.
    class Found {
    public:
        Found() = default;
        explicit Found(Value value) : value_(value), present_(true) {}
        explicit operator bool() const { return present_; }
        const Value& operator*() const { return value_; }

    private:
        Value value_;
        bool present_ = false;
    };

    static Found find(const Value& object, std::string_view key) {
        Value value;
        if (object.at_key(key).get(value) != simdjson::SUCCESS) return Found();
        return Found(value);
    }

    static bool isArray(const Value& value) { return value.is_array(); }

    static size_t size(const Found& values) { return values ? simdjson::dom::array(*values).size() : 0; }

    // The element at `index`, absent past the end.
    static Found at(const Value& values, size_t index) {
        for (const Value element : simdjson::dom::array(values)) {
            if (index-- == 0) return Found(element);
        }
        return Found();
    }

    template <typename Each>
    static void forEach(const Found& values, Each each) {
        if (!values) return;
        for (const Value element : simdjson::dom::array(*values)) each(Found(element));
    }

    static bool textIs(const Value& value, std::string_view text) { return std::string_view(value) == text; }

    static void assignText(const Found& value, std::string& out) {
        if (!value) {
            out.clear();
            return;
        }
        const std::string_view text(*value);
        out.assign(text.data(), text.size());
    }

    static std::string text(const Found& value) {
        std::string out;
        assignText(value, out);
        return out;
    }

    static int asInt(const Found& value) { return value ? static_cast<int>(int64_t(*value)) : 0; }
    static bool asBool(const Found& value) { return value && bool(*value); }

    // jsoncpp converts an integer straight to the target type, and an
    // unsigned one through double.
    template <typename Number>
    static Number as(const Found& value) {
        if (!value) return 0;
        const Value& number = *value;
        if (number.is_int64()) return static_cast<Number>(int64_t(number));
        if (number.is_uint64()) return static_cast<Number>(static_cast<double>(uint64_t(number)));
        return static_cast<Number>(double(number));
    }

    // An absent count reads as empty text, which std::stoul refuses.
    static uint64_t frameCount(const Found& count) {
        if (!count) return std::stoul(std::string());
        if ((*count).is_int64()) return static_cast<uint64_t>(int64_t(*count));
        if ((*count).is_uint64()) return uint64_t(*count);
        return std::stoul(std::string(std::string_view(*count)));
    }

    static double decimalValue(const Value& value) {
        if (value.is_string()) return std::stod(std::string(std::string_view(value)));
        return as<double>(Found(value));
    }

    // Equal as JSON values: jsoncpp reads every integer in int64 range as a
    // signed integer, the only type equal to a signed index.
    static bool equalsIndex(const Value& value, int index) {
        return value.is_int64() && int64_t(value) == static_cast<int64_t>(index);
    }
};

}  // namespace fast_frame
}  // namespace kelm
