// How much of what was written to a TCP socket its peer has not taken in
// yet, from the kernel's own counter.
//
// Threads: the function only reads socket state; safe from any thread.
#pragma once

#include <cstddef>

namespace kelm {

// Bytes written to `fd` that the peer has not acknowledged yet: they grow
// once the peer's receive buffer is full, that is when it stops reading.
std::size_t unacknowledgedBytes(int fd);

}  // namespace kelm
