// Fuzz target: one received message through KelmCommManager::onReceive of an
// arm kernel, so that reply matching (cmd_recv), the task broadcasts and the
// state frame parser (parseRecieveData) all run on it.
//
// The transport logs and swallows what a listener throws, so an exception of
// the JSON or standard library is an accepted outcome here; a crash, a
// sanitizer report or a hang is a finding.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "fuzz_kernel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kelm::KelmKernelImpl& kernel = kelm::fuzz::fuzzedKernel();
    const std::string message(reinterpret_cast<const char*>(data), size);
    try {
        kernel.onReceive(message);
    } catch (const std::exception&) {
        // Swallowed, as the transport's receive loop does.
    }
    return 0;
}
