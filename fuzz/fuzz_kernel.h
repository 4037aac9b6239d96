// The arm kernel that the fuzz targets feed, built once per process.
//
// It is constructed against a loopback port that nobody listens on, so its
// connect fails at once and it simply has no connection: every message the
// fuzzer makes reaches it only through the calls of the target, on the
// fuzzer's thread, exactly as the transport's receive thread would make them.
// Level-1 log lines of refused frames are expected and harmless.
#pragma once

#include <memory>

#include "kelm_kernel.h"

namespace kelm {
namespace fuzz {

// Port 1 on loopback: privileged, never served here, so a connect attempt is
// refused immediately.
constexpr int kClosedPort = 1;
constexpr double kConnectTimeoutSeconds = 0.2;
constexpr int kArmIndex = 0;

inline KelmKernelImpl& unconnectedKernel() {
    static const std::unique_ptr<KelmKernelImpl> kernel =
        std::make_unique<KelmKernelImpl>("127.0.0.1", kClosedPort, kConnectTimeoutSeconds, kArmIndex);
    return *kernel;
}

}  // namespace fuzz
}  // namespace kelm
