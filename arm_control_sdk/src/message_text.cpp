#include "message_text.h"

#include <cstring>
#include <iostream>
#include <memory>

namespace kelm {

Json::Value parseMessageText(const std::string& text) {
    thread_local std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    const char* begin = text.c_str();
    Json::Value value;
    if (!reader->parse(begin, begin + std::strlen(begin), &value, nullptr)) return Json::Value();
    return value;
}

void reportUnknownException(const std::string& message) { std::cout << "execption: " << message << std::endl; }

}  // namespace kelm
