// The arm kernel that the fuzz targets feed, built once per process.
//
// It runs over an in-memory socket, so it needs no network and no controller:
// every message the fuzzer makes reaches it only through the calls of the
// target, on the fuzzer's thread, exactly as the transport's receive thread
// would make them. Level-1 log lines of refused frames are expected and
// harmless.
#pragma once

#include "direct_kernel.h"

namespace kelm {
namespace fuzz {

constexpr int kArmIndex = 0;

inline KelmKernelImpl& fuzzedKernel() {
    static test::DirectKernel kernel(kArmIndex);
    return kernel;
}

}  // namespace fuzz
}  // namespace kelm
