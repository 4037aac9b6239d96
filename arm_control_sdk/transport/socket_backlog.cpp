#include "socket_backlog.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace kelm {

std::size_t unacknowledgedBytes(int fd) {
    int queued = 0;
    if (ioctl(fd, SIOCOUTQ, &queued) != 0 || queued < 0) return 0;
    return static_cast<std::size_t>(queued);
}

}  // namespace kelm
