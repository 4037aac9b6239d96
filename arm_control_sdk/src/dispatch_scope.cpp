#include "dispatch_scope.h"

namespace kelm {

namespace {

thread_local DispatchScope* innermost_scope = nullptr;

}  // namespace

DispatchScope::DispatchScope(const KelmCommManager* manager, const std::string* text)
    : manager_(manager), text_(text), outer_(innermost_scope) {
    innermost_scope = this;
}

DispatchScope::~DispatchScope() { innermost_scope = outer_; }

const DispatchScope* DispatchScope::innermostFor(const KelmCommManager& manager, const std::string& text) {
    const DispatchScope* scope = innermost_scope;
    if (scope == nullptr || scope->manager_ != &manager || scope->text_ == nullptr) return nullptr;
    return *scope->text_ == text ? scope : nullptr;
}

const Json::Value* DispatchScope::treeOf(const KelmCommManager& manager, const std::string& text) {
    const DispatchScope* scope = innermostFor(manager, text);
    return scope ? scope->tree_ : nullptr;
}

const fast_frame::Message* DispatchScope::fastOf(const KelmCommManager& manager, const std::string& text) {
    const DispatchScope* scope = innermostFor(manager, text);
    return scope ? scope->fast_ : nullptr;
}

void DispatchScope::endScopesOf(const KelmCommManager* manager) {
    for (DispatchScope* scope = innermost_scope; scope != nullptr; scope = scope->outer_) {
        if (scope->manager_ == manager) scope->manager_destroyed_ = true;
    }
}

void DispatchScope::throwIfEnded() {
    if (innermost_scope != nullptr && innermost_scope->manager_destroyed_) throw DispatchEnded();
}

}  // namespace kelm
