// Reads a connection's or kernel's callback map under the library's own
// registry lock, so that a test thread may poll a map that the receive thread
// changes (a program that touches the maps directly has no such lock).
#pragma once

#include <mutex>
#include <string>

#include "kelm_comm.h"

namespace kelm {
namespace test {

class RegistryProbe : public KelmCommManager {
public:
    template <typename Map>
    static bool contains(KelmCommManager& owner, const Map& map, const std::string& key) {
        std::mutex KelmCommManager::*registry_mutex = &RegistryProbe::registry_mutex_;
        std::lock_guard<std::mutex> lock(owner.*registry_mutex);
        return map.count(key) != 0;
    }
};

}  // namespace test
}  // namespace kelm
