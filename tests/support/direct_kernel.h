// DirectKernel: a KelmKernelImpl over an in-memory LoopbackSocket instead of
// a WebSocket, for tests, fuzzers and benchmarks that need no network.
//
// It connects while it is constructed, like any kernel. Messages reach it
// either from the socket's deliver() (on the connection's receive thread) or
// from direct calls of onReceive / parseRecieveData on the caller's thread;
// everything it sends is recorded by the socket.
#pragma once

#include <memory>
#include <string>

#include "kelm_kernel.h"
#include "loopback_socket.h"

namespace kelm {
namespace test {

class DirectKernel : public KelmKernelImpl {
public:
    explicit DirectKernel(int arm_index = 0,
                          std::shared_ptr<LoopbackSocket> socket = std::make_shared<LoopbackSocket>())
        : KelmKernelImpl([socket](const std::string&, unsigned short) { return socket; }, "127.0.0.1", kAnyPort,
                         kConnectTimeoutSeconds, arm_index),
          socket_(std::move(socket)) {}
    // Ends the connection before the kernel's own destructor runs, so that no
    // delivery is under way while the object's dynamic type changes.
    ~DirectKernel() override { disconnect_kelm(); }

    LoopbackSocket& socket() { return *socket_; }

private:
    static constexpr int kAnyPort = 8090;  // only named in log lines
    static constexpr double kConnectTimeoutSeconds = 1.0;
    std::shared_ptr<LoopbackSocket> socket_;
};

}  // namespace test
}  // namespace kelm
