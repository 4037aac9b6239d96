// ObserverMap: named observers of the simulator's traffic, for latency
// measurements and tests. A walk works on the snapshot it took, so no lock
// is held while an observer runs and observers may come and go meanwhile.
//
// Threads: every member is safe from any thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kelm {
namespace sim {

template <typename Signature>
class ObserverMap {
public:
    using Function = std::function<Signature>;
    using Map = std::map<std::string, Function>;

    void set(const std::string& name, Function function) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto next = std::make_shared<Map>(*map_);
        (*next)[name] = std::move(function);
        map_ = std::move(next);
    }

    void erase(const std::string& name) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto next = std::make_shared<Map>(*map_);
        next->erase(name);
        map_ = std::move(next);
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        map_ = std::make_shared<const Map>();
    }

    bool empty() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return map_->empty();
    }

    template <typename... Args>
    void callEach(const Args&... args) const {
        std::shared_ptr<const Map> entries;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            entries = map_;
        }
        for (const auto& entry : *entries) {
            if (entry.second) entry.second(args...);
        }
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const Map> map_ = std::make_shared<const Map>();
};

}  // namespace sim
}  // namespace kelm
