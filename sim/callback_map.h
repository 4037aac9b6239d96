// CallbackMap: a named, ordered set of std::function callbacks that one thread
// may walk while others register and release entries.
//
// Writers copy the map and swap it in under a short lock; a walk works on the
// snapshot it took, so no lock is ever held while a callback runs and a
// callback may itself register or release entries. Entries are walked in the
// byte order of their keys; registering a key again replaces its entry.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace kelm {

template <typename Signature>
class CallbackMap {
public:
    using Function = std::function<Signature>;
    using Map = std::map<std::string, Function>;

    CallbackMap() : map_(std::make_shared<const Map>()) {}

    void set(const std::string& key, Function function) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto next = std::make_shared<Map>(*map_);
        (*next)[key] = std::move(function);
        map_ = std::move(next);
    }

    void erase(const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (map_->find(key) == map_->end()) return;
        auto next = std::make_shared<Map>(*map_);
        next->erase(key);
        map_ = std::move(next);
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        map_ = std::make_shared<const Map>();
    }

    // The entries as they stand now; later changes do not affect it.
    std::shared_ptr<const Map> snapshot() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return map_;
    }

    // The function registered under `key`, or an empty one.
    Function find(const std::string& key) const {
        auto entries = snapshot();
        auto it = entries->find(key);
        return it == entries->end() ? Function() : it->second;
    }

    bool contains(const std::string& key) const { return snapshot()->count(key) != 0; }
    size_t size() const { return snapshot()->size(); }
    bool empty() const { return snapshot()->empty(); }

    // Calls every entry in key order, each with its own copy of the
    // arguments. An empty entry throws std::bad_function_call, which ends
    // the walk and reaches the caller.
    template <typename... Args>
    void callEach(const Args&... args) const {
        auto entries = snapshot();
        for (const auto& entry : *entries) entry.second(args...);
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const Map> map_;
};

}  // namespace kelm
