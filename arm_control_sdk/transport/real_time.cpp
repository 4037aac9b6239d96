#include "real_time.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

#include "log_manager.h"

namespace kelm {

namespace {

// Bit of CAP_IPC_LOCK in the capability masks of /proc/self/status.
constexpr int kCapIpcLockBit = 14;

// The value of variable `name` if it is an integer from `low` to `high`;
// `unset` when the variable is absent or bad (a bad one is logged).
int readVariable(const char* name, int low, int high, int unset) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return unset;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < low || value > high) {
        KELM_LOG(LOG_ERROR, "%s=%s ignored: not a number from %d to %d", name, text, low, high);
        return unset;
    }
    return static_cast<int>(value);
}

bool hasIpcLockCapability() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("CapEff:", 0) != 0) continue;
        const unsigned long long effective = std::strtoull(line.c_str() + 7, nullptr, 16);
        return (effective >> kCapIpcLockBit) & 1u;
    }
    return false;
}

// With a memory lock limit, locking what is mapped later would make
// allocations fail once the limit is reached: lock only when nothing limits it.
bool mayLockAllMemory() {
    rlimit limit{};
    return (getrlimit(RLIMIT_MEMLOCK, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY) || hasIpcLockCapability();
}

// Locks the process's memory, once per process: every page stays in memory
// from its first use on. Pages never used are not brought in (MCL_ONFAULT),
// which spares the unused rest of each thread's stack and a sanitizer's
// shadow memory.
void lockProcessMemory() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (!mayLockAllMemory()) {
            KELM_LOG(LOG_ERROR, "memory not locked: RLIMIT_MEMLOCK is limited and CAP_IPC_LOCK is missing");
        } else if (mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) != 0) {
            KELM_LOG(LOG_ERROR, "memory not locked: mlockall failed: %s", std::strerror(errno));
        } else {
            KELM_LOG(LOG_INFO, "process memory locked for real-time threads");
        }
    });
}

bool applyPriority(pthread_t thread, int priority, const std::string& what) {
    sched_param parameters{};
    parameters.sched_priority = priority;
    const int error = pthread_setschedparam(thread, SCHED_FIFO, &parameters);
    if (error == 0) {
        lockProcessMemory();
        KELM_LOG(LOG_INFO, "%s runs at real-time priority %d (SCHED_FIFO)", what.c_str(), priority);
        return true;
    }
    static std::atomic<bool> refusal_logged{false};
    if (!refusal_logged.exchange(true)) {
        KELM_LOG(LOG_ERROR,
                 "real-time priority %d refused (%s): %s runs at normal priority; CAP_SYS_NICE or an "
                 "RLIMIT_RTPRIO of at least %d allows it",
                 priority, std::strerror(error), what.c_str(), priority);
    }
    return false;
}

bool applyCpu(pthread_t thread, int cpu, const std::string& what) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(cpu, &cpus);
    const int error = pthread_setaffinity_np(thread, sizeof cpus, &cpus);
    if (error == 0) {
        KELM_LOG(LOG_INFO, "%s runs on CPU %d", what.c_str(), cpu);
        return true;
    }
    KELM_LOG(LOG_ERROR, "CPU %d refused for %s (%s): it runs on any CPU", cpu, what.c_str(), std::strerror(error));
    return false;
}

}  // namespace

RealTimeSetting realTimeSettingFromEnvironment() {
    static const RealTimeSetting from_environment = [] {
        RealTimeSetting setting;
        setting.priority = readVariable(RealTimeSetting::kPriorityVariable, RealTimeSetting::kLowestPriority,
                                        RealTimeSetting::kHighestPriority, 0);
        setting.cpu = readVariable(RealTimeSetting::kCpuVariable, 0, CPU_SETSIZE - 1, -1);
        return setting;
    }();
    return from_environment;
}

bool applyRealTime(pthread_t thread, const RealTimeSetting& setting, const std::string& what) {
    bool applied = true;
    if (setting.priority > 0) applied = applyPriority(thread, setting.priority, what) && applied;
    if (setting.cpu >= 0) applied = applyCpu(thread, setting.cpu, what) && applied;
    return applied;
}

}  // namespace kelm
