// Register, release and walk operations on the library's named callback maps
// (plain std::map<std::string, std::function<...>> members of the public
// classes), made race-free by the one registry mutex of the connection.
//
// The mutex is held only to change a map or to copy its entries: a walk
// calls its copies after the lock is gone, so no lock is ever held while a
// callback runs and a callback may register or release entries itself. A
// function object that is replaced or erased is destroyed after the lock too,
// since its destructor may run user code. A walk stops after a callback that
// destroyed the walk's own manager (see dispatch_scope.h).
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "dispatch_scope.h"

namespace kelm {
namespace registry {

// Stores `function` under `key`, replacing an entry of that key.
template <typename Map>
void set(std::mutex& mutex, Map& map, const std::string& key, typename Map::mapped_type function) {
    typename Map::mapped_type replaced;
    std::lock_guard<std::mutex> lock(mutex);
    auto& slot = map[key];
    replaced = std::move(slot);
    slot = std::move(function);
}

// Erases `key`; an absent key changes nothing.
template <typename Map>
void erase(std::mutex& mutex, Map& map, const std::string& key) {
    typename Map::mapped_type erased;
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = map.find(key);
    if (it == map.end()) return;
    erased = std::move(it->second);
    map.erase(it);
}

// Erases every entry.
template <typename Map>
void clear(std::mutex& mutex, Map& map) {
    Map erased;
    std::lock_guard<std::mutex> lock(mutex);
    erased.swap(map);
}

// Whether `key` has an entry.
template <typename Map>
bool contains(std::mutex& mutex, const Map& map, const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex);
    return map.count(key) != 0;
}

// Copies the entries under the lock, for a walk that runs without it.
template <typename Map>
std::vector<typename Map::mapped_type> copyEntries(std::mutex& mutex, const Map& map) {
    std::vector<typename Map::mapped_type> entries;
    std::lock_guard<std::mutex> lock(mutex);
    entries.reserve(map.size());
    for (const auto& entry : map) entries.push_back(entry.second);
    return entries;
}

// Calls every entry in key order, each with its own copies of `args`. An
// empty entry throws std::bad_function_call, which ends the walk and reaches
// the caller.
template <typename Map, typename... Args>
void callEach(std::mutex& mutex, const Map& map, const Args&... args) {
    for (const auto& function : copyEntries(mutex, map)) {
        function(args...);
        DispatchScope::throwIfEnded();
    }
}

// As callEach, but empty entries are passed over.
template <typename Map, typename... Args>
void callEachSet(std::mutex& mutex, const Map& map, const Args&... args) {
    for (const auto& function : copyEntries(mutex, map)) {
        if (!function) continue;
        function(args...);
        DispatchScope::throwIfEnded();
    }
}

}  // namespace registry
}  // namespace kelm
