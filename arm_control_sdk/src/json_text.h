// JsonText: writes one JSON object straight into text, byte for byte as the
// transport's writer (jsoncpp's StreamWriter, no indentation, UTF-8 kept)
// writes the same object, for the streaming requests that go out at the frame
// rate and are cheaper without a tree.
//
// The writer puts an object's members in the byte order of their keys; a
// caller of JsonText names them in that order itself. Strings are escaped as
// that writer escapes them, reals written with 17 significant digits and the
// writer's forms for the infinities and NaN.
//
// Not thread-safe; one instance per thread.
#pragma once

#include <string>
#include <string_view>

namespace kelm {

class JsonText {
public:
    // Starts a new text with the root object opened.
    void beginRoot();
    // Starts the member `key` of the object that is open.
    JsonText& member(std::string_view key);
    JsonText& beginObject();
    JsonText& endObject();
    JsonText& beginArray();
    JsonText& endArray();
    JsonText& real(double value);
    JsonText& integer(long long value);
    JsonText& boolean(bool value);
    JsonText& string(std::string_view value);

    const std::string& text() const { return text_; }

private:
    // A comma before every element but the first, none after a key.
    void beginValue();
    void quote(std::string_view value);

    std::string text_;
    bool first_ = true;       // nothing written yet in the object or array that is open
    bool after_key_ = false;  // a member's key was written, its value comes next
};

}  // namespace kelm
