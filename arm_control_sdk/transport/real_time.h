// Real-time scheduling for the threads that must keep their timing on a busy
// machine: a connection's delivery thread (CommunicationClient::setRealTime)
// and, in the simulator, every thread of the process.
//
// Opt-in: the default RealTimeSetting asks for nothing and applyRealTime()
// then changes nothing. A priority asks for SCHED_FIFO at that priority and,
// once per process, for the process's memory to be locked (every page stays
// in memory from its first use on), so that the thread does not wait for a
// page brought back from disk under memory pressure. Where the process may not use real-time scheduling
// (no CAP_SYS_NICE and an RLIMIT_RTPRIO below the priority), one log line
// per process says so and the thread runs at normal priority, as before.
//
// A thread at real-time priority preempts every normal thread on its CPU,
// so it must never spin: every wait in the library's delivery threads blocks
// (socket polls, condition variables, sleeps), and so must the callbacks a
// program runs on them. The kernel's real-time throttling
// (/proc/sys/kernel/sched_rt_runtime_us) leaves normal threads a share of
// each second even then.
//
// Threads: all functions are safe from any thread.
#pragma once

#include <pthread.h>

#include <string>

namespace kelm {

struct RealTimeSetting {
    // Names of the environment variables read by realTimeSettingFromEnvironment().
    static constexpr const char* kPriorityVariable = "KELM_RT_PRIORITY";
    static constexpr const char* kCpuVariable = "KELM_CPU";
    static constexpr int kLowestPriority = 1;
    static constexpr int kHighestPriority = 99;

    int priority = 0;  // SCHED_FIFO priority, kLowestPriority to kHighestPriority; 0: normal scheduling
    int cpu = -1;      // the one CPU the thread may run on (its number as the kernel counts); -1: any

    bool asksForAnything() const { return priority > 0 || cpu >= 0; }
};

// The setting asked for through the environment: KELM_RT_PRIORITY (1 to 99)
// and KELM_CPU (a CPU number), each optional. Read once per process; a value
// that is no number in range is logged once and ignored.
RealTimeSetting realTimeSettingFromEnvironment();

// Applies `setting` to `thread`; `what` names the thread in log lines ("the
// delivery thread of 127.0.0.1:8090"). Logs what was applied and, once per
// process, what was refused. True when everything asked for was applied
// (also when nothing was asked for).
bool applyRealTime(pthread_t thread, const RealTimeSetting& setting, const std::string& what);

}  // namespace kelm
