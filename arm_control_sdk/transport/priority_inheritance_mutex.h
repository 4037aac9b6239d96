// A mutex with priority inheritance: a thread that holds it runs at the
// priority of the highest thread waiting for it, so that a real-time
// delivery thread that sends never waits behind a normal thread that holds
// the send lock and is itself kept off the CPU by other normal threads.
// Uncontended, it costs what std::mutex costs. Meets Lockable, for
// std::lock_guard and std::unique_lock.
#pragma once

#include <pthread.h>

namespace kelm {

class PriorityInheritanceMutex {
public:
    PriorityInheritanceMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
        pthread_mutex_init(&mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~PriorityInheritanceMutex() { pthread_mutex_destroy(&mutex_); }
    PriorityInheritanceMutex(const PriorityInheritanceMutex&) = delete;
    PriorityInheritanceMutex& operator=(const PriorityInheritanceMutex&) = delete;

    void lock() { pthread_mutex_lock(&mutex_); }
    bool try_lock() { return pthread_mutex_trylock(&mutex_) == 0; }
    void unlock() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_;
};

}  // namespace kelm
