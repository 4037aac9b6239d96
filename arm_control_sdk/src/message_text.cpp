#include "message_text.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iostream>
#include <memory>

#include "log_manager.h"

namespace kelm {

namespace {

// Every value but the first follows a '[', ',' or ':' (those inside strings
// count too, which can only overestimate), so a text of fewer than
// 2 * kMostMessageValues bytes is within the bound without a look.
bool hasTooManyValues(const char* begin, const char* end) {
    if (static_cast<std::size_t>(end - begin) < 2 * kMostMessageValues) return false;
    const auto separators = std::count_if(begin, end, [](char c) { return c == '[' || c == ',' || c == ':'; });
    return static_cast<std::size_t>(separators) >= kMostMessageValues;
}

}  // namespace

Json::Value parseMessageText(const std::string& text) {
    thread_local std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    const char* begin = text.c_str();
    const char* end = begin + std::strlen(begin);
    if (hasTooManyValues(begin, end)) {
        KELM_LOG(LOG_ERROR, "message of %lu bytes not parsed: more than %lu values",
                 static_cast<unsigned long>(end - begin), static_cast<unsigned long>(kMostMessageValues));
        return Json::Value();
    }
    Json::Value value;
    if (!reader->parse(begin, end, &value, nullptr)) return Json::Value();
    return value;
}

void reportUnknownException(const std::string& message) { std::cout << "execption: " << message << std::endl; }

}  // namespace kelm
