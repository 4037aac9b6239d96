#include "json_text.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace kelm {

namespace {

// 17 significant digits round-trip every double.
constexpr int kRealDigits = 17;

}  // namespace

void JsonText::beginRoot() {
    text_.clear();
    text_ += '{';
    first_ = true;
    after_key_ = false;
}

void JsonText::beginValue() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!first_) text_ += ',';
    first_ = false;
}

JsonText& JsonText::member(std::string_view key) {
    beginValue();
    quote(key);
    text_ += ':';
    after_key_ = true;
    return *this;
}

JsonText& JsonText::beginObject() {
    beginValue();
    text_ += '{';
    first_ = true;
    return *this;
}

JsonText& JsonText::endObject() {
    text_ += '}';
    first_ = false;
    return *this;
}

JsonText& JsonText::beginArray() {
    beginValue();
    text_ += '[';
    first_ = true;
    return *this;
}

JsonText& JsonText::endArray() {
    text_ += ']';
    first_ = false;
    return *this;
}

JsonText& JsonText::real(double value) {
    beginValue();
    if (std::isnan(value)) {
        text_ += "null";
    } else if (std::isinf(value)) {
        text_ += value < 0 ? "-1e+9999" : "1e+9999";
    } else {
        char digits[32];
        const auto written =
            std::to_chars(digits, digits + sizeof digits, value, std::chars_format::general, kRealDigits);
        const std::string_view number(digits, static_cast<size_t>(written.ptr - digits));
        text_ += number;
        // A real keeps a decimal point or an exponent, so that it reads back as one.
        if (number.find_first_of(".e") == std::string_view::npos) text_ += ".0";
    }
    return *this;
}

JsonText& JsonText::integer(long long value) {
    beginValue();
    char digits[24];
    const auto written = std::to_chars(digits, digits + sizeof digits, value);
    text_.append(digits, written.ptr);
    return *this;
}

JsonText& JsonText::boolean(bool value) {
    beginValue();
    text_ += value ? "true" : "false";
    return *this;
}

JsonText& JsonText::string(std::string_view value) {
    beginValue();
    quote(value);
    return *this;
}

void JsonText::quote(std::string_view value) {
    text_ += '"';
    for (const char c : value) {
        switch (c) {
            case '"': text_ += "\\\""; break;
            case '\\': text_ += "\\\\"; break;
            case '\b': text_ += "\\b"; break;
            case '\f': text_ += "\\f"; break;
            case '\n': text_ += "\\n"; break;
            case '\r': text_ += "\\r"; break;
            case '\t': text_ += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                    text_ += escaped;
                } else {
                    text_ += c;
                }
        }
    }
    text_ += '"';
}

}  // namespace kelm
