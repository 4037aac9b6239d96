// A user's program against the installed package. It links both public
// classes and reads and changes the kernel's public data members directly, as
// the member tables describe them; given an address and a port, it also
// connects to them. Its kernel is made against a loopback port that is bound
// but not listening, so its connect is refused at once and no message ever
// arrives: the program may touch the maps and the status without a lock.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelm_dual_bot.h"
#include "kelm_kernel.h"
#include "kelm_single_col.h"

namespace {

int failures = 0;

void check(bool ok, const char* what) {
    if (!ok) {
        std::printf("failed: %s\n", what);
        ++failures;
    }
}

// A loopback port that refuses connections for as long as `socket_fd` stays open.
int refusingPort(int& socket_fd) {
    socket_fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (socket_fd < 0 || ::bind(socket_fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(socket_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return -1;
    }
    return ntohs(address.sin_port);
}

}  // namespace

int main(int argc, char** argv) {
    check(!kelm::log_time::getTimeStamp(0).empty(), "time stamp");
    int socket_fd = -1;
    const int port = refusingPort(socket_fd);
    if (port < 0) {
        std::printf("no loopback port\n");
        return 1;
    }
    kelm::KelmKernelImpl kernel("127.0.0.1", port, 1.0, 0);
    ::close(socket_fd);

    check(!kernel.status.connected && kernel.status.arm_index == 0 && kernel.msg_count == 0, "status as constructed");
    check(kernel.config.dof == 0 && kernel.joint_pos.empty() && kernel.reserved_ints_a.size() == 16,
          "cached state as constructed");
    check(kernel.update_robot_state_callbacks.count("parseRecieveData") == 1, "the kernel's frame parser");
    check(kernel.com_mode_names.size() == 2 && kernel.pending_msgs.empty(), "connection tables");

    // A registry is a plain ordered map: entries written directly are walked
    // in byte order of their names and called like any other.
    std::vector<std::string> order;
    kernel.state_changed_callbacks["b"] = [&order](int) { order.push_back("b"); };
    kernel.register_state_changed_callback("a", [&order](int) { order.push_back("a"); });
    for (const auto& entry : kernel.state_changed_callbacks) entry.second(kelm::Kelm_Running);
    check(order == std::vector<std::string>{"a", "b"}, "registry walked in name order");
    kernel.release_state_changed_callback();
    check(kernel.state_changed_callbacks.empty(), "release of all entries");

    std::vector<kelm::KelmKernelImpl::RtuInfo> stations;
    Json::Value frame;
    frame["rtu"][0]["size"].append(3);
    frame["rtu"][0]["size"].append(0);
    frame["rtu"][0]["di"].append(5);
    frame["rtu"][0]["do"] = Json::Value(Json::arrayValue);
    check(kernel.parseIOInfo(frame, stations) == 1 && stations.at(0).units.at(0).di_value == std::vector<int>{1, 0, 1},
          "IO records");
    check(kelm::str_map_fsm_mode.at("POSITION") == kelm::POSITION &&
              kelm_err_code_map.at(kelm::WARN_MESSAGE) == "WARN_MESSAGE",
          "tables");
    kelm::getLogInstance()->printArray(__FILE__, __LINE__, kelm::LogLevel(0), "cart_pose", kernel.cart_pose, 6, ", ");
    if (argc >= 3) {
        kelm::KelmSingleCol arm(argv[1], std::atoi(argv[2]), 1.0);
        kelm::KelmDualBot bot(argv[1], std::atoi(argv[2]), 1.0, 0, 1);
        std::printf("connected: %d %d\n", arm.is_connected(), bot.is_connected());
    }
    return failures == 0 ? 0 : 1;
}
