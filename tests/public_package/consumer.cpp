// Links both public classes and runs a part of the library that needs no
// controller. Given an address and a port, it also connects to them.
#include <cstdio>
#include <cstdlib>

#include "kelm_dual_bot.h"
#include "kelm_single_col.h"

int main(int argc, char** argv) {
    if (kelm::log_time::getTimeStamp(0).empty()) return 1;
    if (argc < 3) return 0;
    kelm::KelmSingleCol arm(argv[1], std::atoi(argv[2]), 1.0);
    kelm::KelmDualBot bot(argv[1], std::atoi(argv[2]), 1.0, 0, 1);
    std::printf("connected: %d %d\n", arm.is_connected(), bot.is_connected());
    return 0;
}
