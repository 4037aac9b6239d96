// The receive path's fast reader: a received message parsed with simdjson and
// read in place, without building a jsoncpp tree.
//
// It takes a message only when it can map it with certainty onto what the
// jsoncpp path would read: strict JSON that jsoncpp reads alike, an object at
// the root, no reply (those are filed as jsoncpp trees), every value that the
// task broadcast and the frame parser read of the type they expect, and none
// of those keys given twice (jsoncpp keeps the last one). Anything else is
// left to the jsoncpp path, whole.
//
// Threads: each thread parses into a document of its own; the message stays
// valid while its Lease lives. A message received while the thread's lease is
// held (a callback feeding another message in) is left to the jsoncpp path.
#pragma once

#include <functional>
#include <string>

namespace kelm {

class KelmCommManager;

namespace fast_frame {

class Message;

// Holds the thread's parsed message; empty when the message was left to the
// jsoncpp path.
class Lease {
public:
    Lease() = default;
    explicit Lease(const Message* message) : message_(message) {}
    ~Lease();
    Lease(Lease&& other) noexcept : message_(other.message_) { other.message_ = nullptr; }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Lease& operator=(Lease&&) = delete;

    const Message* message() const { return message_; }

private:
    const Message* message_ = nullptr;
};

// Parses `text` up to its first zero byte, as the jsoncpp path does.
Lease read(const std::string& text);

// Calls `each` with the `last_task_key` of every arm that reports one, in
// array order.
void forEachFinishedTask(const Message& message, const std::function<void(const std::string&)>& each);

// The fast-read message that `manager`'s onReceive is handing to its state
// callbacks on this thread right now, when `text` is that message; otherwise
// null.
const Message* dispatchedMessage(const KelmCommManager& manager, const std::string& text);

}  // namespace fast_frame
}  // namespace kelm
