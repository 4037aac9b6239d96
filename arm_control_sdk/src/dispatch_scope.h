// The message that a connection manager's onReceive is dispatching on this
// thread, kept on the thread's stack for as long as the dispatch runs.
//
// The state callbacks find the message's parsed tree (or fast-read form) here
// instead of parsing its text again. A walk learns here that one of its
// callbacks destroyed the manager (a callback may drop the last owner of its
// own kernel): it then stops before it touches the freed object, and the
// destruction stays where the owner let go. Scopes nest, since a callback may
// hand a message to another manager on the same thread.
#pragma once

#include <json/json.h>

#include <string>

namespace kelm {

class KelmCommManager;
namespace fast_frame {
struct Message;
}

// Thrown by a walk after a callback that destroyed the walk's manager. Only
// the manager's onReceive catches it, and returns without touching the
// object; every handler on the way passes it on.
struct DispatchEnded {};

class DispatchScope {
public:
    DispatchScope(const KelmCommManager* manager, const std::string* text);
    ~DispatchScope();
    DispatchScope(const DispatchScope&) = delete;
    DispatchScope& operator=(const DispatchScope&) = delete;

    void setTree(const Json::Value* tree) { tree_ = tree; }
    void setFast(const fast_frame::Message* fast) { fast_ = fast; }

    // The tree or fast-read form of `text` when `manager` is dispatching it
    // on this thread right now, otherwise null.
    static const Json::Value* treeOf(const KelmCommManager& manager, const std::string& text);
    static const fast_frame::Message* fastOf(const KelmCommManager& manager, const std::string& text);

    // Called by a manager's destructor: the dispatches of `manager` on this
    // thread have lost their object.
    static void endScopesOf(const KelmCommManager* manager);

    // Throws DispatchEnded when the innermost dispatch of this thread has
    // lost its manager. Walks call it after every callback.
    static void throwIfEnded();

private:
    static const DispatchScope* innermostFor(const KelmCommManager& manager, const std::string& text);

    const KelmCommManager* manager_;
    const std::string* text_;
    const Json::Value* tree_ = nullptr;
    const fast_frame::Message* fast_ = nullptr;
    bool manager_destroyed_ = false;
    DispatchScope* outer_;
};

}  // namespace kelm
