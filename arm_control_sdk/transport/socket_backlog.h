// How far the peer of a TCP socket is behind in reading what was sent to it,
// from the kernel's own counters. Kept apart from the Poco sources because
// the Linux header that knows the peer's advertised window cannot be mixed
// with the C library's TCP header that Poco includes.
//
// Threads: the functions only read socket state; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelm {

// Bytes written to `fd` that the peer has not acknowledged yet.
std::size_t unacknowledgedBytes(int fd);

// Bytes the peer has not read yet, as far as this side can tell: the bytes it
// has not acknowledged, plus the amount by which its advertised receive
// window has shrunk below the largest window seen so far
// (`largest_window`, kept by the caller per connection, starts at 0).
std::size_t unreadByPeer(int fd, std::uint32_t& largest_window);

}  // namespace kelm
