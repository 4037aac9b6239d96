// How the receive path reads a message's text and reports what it cannot:
// one home for both, shared by the connection's reply matching and the
// kernel's frame parser.
#pragma once

#include <json/json.h>

#include <string>

namespace kelm {

// Parses `text` up to its first zero byte with jsoncpp (comments not
// collected); a failed parse gives a null value. One reader per thread.
Json::Value parseMessageText(const std::string& text);

// Reports an exception of no std::exception type thrown while `message` was
// handled: "execption: " and the whole message on standard output.
void reportUnknownException(const std::string& message);

}  // namespace kelm
