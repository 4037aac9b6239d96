// Fuzz target: one received message through both receive paths of an arm
// kernel, onReceive with the fast reader and the jsoncpp path alone, which
// must agree on the cached state, every callback with its arguments, and the
// log lines (FrameDifferential). A disagreement prints the input and aborts,
// so that libFuzzer keeps it as a finding.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "frame_differential.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static kelm::test::FrameDifferential differential;
    const std::string message(reinterpret_cast<const char*>(data), size);
    const std::string difference = differential.feed(message);
    if (!difference.empty()) {
        std::cerr << "fast reader and jsoncpp path differ on input:\n" << message << "\n" << difference << std::endl;
        std::abort();
    }
    return 0;
}
