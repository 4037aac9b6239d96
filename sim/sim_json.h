// Small, forgiving readers for request members: a member of the wrong type
// reads as absent instead of throwing.
#pragma once

#include <json/json.h>

#include <cmath>
#include <string>
#include <vector>

namespace kelm {
namespace sim {

// True when `value` is an array of finite numbers; they go to `out`.
inline bool readNumbers(const Json::Value& value, std::vector<double>& out) {
    if (!value.isArray()) return false;
    out.clear();
    out.reserve(value.size());
    for (const auto& item : value) {
        if (!item.isNumeric()) return false;
        const double number = item.asDouble();
        if (!std::isfinite(number)) return false;
        out.push_back(number);
    }
    return true;
}

inline double readDouble(const Json::Value& object, const char* key, double fallback) {
    if (!object.isObject() || !object.isMember(key) || !object[key].isNumeric()) return fallback;
    return object[key].asDouble();
}

inline int readInt(const Json::Value& object, const char* key, int fallback) {
    if (!object.isObject() || !object.isMember(key)) return fallback;
    const Json::Value& value = object[key];
    if (value.isInt()) return value.asInt();
    if (value.isNumeric() && std::isfinite(value.asDouble())) return static_cast<int>(value.asDouble());
    return fallback;
}

inline bool readBool(const Json::Value& object, const char* key, bool fallback) {
    if (!object.isObject() || !object.isMember(key)) return fallback;
    const Json::Value& value = object[key];
    if (value.isBool()) return value.asBool();
    if (value.isNumeric()) return value.asDouble() != 0.0;
    return fallback;
}

inline std::string readString(const Json::Value& object, const char* key) {
    if (!object.isObject() || !object.isMember(key) || !object[key].isString()) return std::string();
    return object[key].asString();
}

}  // namespace sim
}  // namespace kelm
