#include "socket_backlog.h"

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>

namespace kelm {

std::size_t unacknowledgedBytes(int fd) {
    int queued = 0;
    if (ioctl(fd, SIOCOUTQ, &queued) != 0 || queued < 0) return 0;
    return static_cast<std::size_t>(queued);
}

std::size_t unreadByPeer(int fd, std::uint32_t& largest_window) {
    tcp_info info{};
    socklen_t length = sizeof(info);
    std::size_t window_shrink = 0;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
        length >= offsetof(tcp_info, tcpi_snd_wnd) + sizeof(info.tcpi_snd_wnd)) {
        largest_window = std::max(largest_window, info.tcpi_snd_wnd);
        window_shrink = largest_window - info.tcpi_snd_wnd;
    }
    return unacknowledgedBytes(fd) + window_shrink;
}

}  // namespace kelm
