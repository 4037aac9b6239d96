// How the receive path reads a message's text and reports what it cannot:
// one home for both, shared by the connection's reply matching and the
// kernel's frame parser.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

namespace kelm {

// Most values a message may hold to be parsed. jsoncpp builds about 100
// bytes of tree per value, so the bound keeps a hostile message within about
// 200 MB; a kinematics batch reply of 100,000 points holds under a million.
constexpr std::size_t kMostMessageValues = 2000000;

// Parses `text` up to its first zero byte with jsoncpp (comments not
// collected); a failed parse gives a null value, and so does a text of more
// than kMostMessageValues values, which is logged. One reader per thread.
Json::Value parseMessageText(const std::string& text);

// Reports an exception of no std::exception type thrown while `message` was
// handled: "execption: " and the whole message on standard output.
void reportUnknownException(const std::string& message);

}  // namespace kelm
