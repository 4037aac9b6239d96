// KelmKernelImpl: the ready sequence that brings an arm to servo on and
// POSITION mode, the wait for a task's end, and the kernel's error listener.
//
// set_kelm_ready and task_blocking_wait run on the caller's thread and rely
// on the receive thread to keep delivering frames meanwhile, so neither may be
// called from a callback of the same kernel. What decides is always the state
// the frames report, never the result of a command.
#include <unistd.h>

#include <chrono>

#include "kelm_kernel.h"
#include "log_manager.h"
#include "status_field.h"

namespace kelm {

namespace {

constexpr useconds_t kSettleUs = 100000;        // first sleep; after an error reset or a mode change
constexpr useconds_t kServoSettleUs = 1000000;  // after servo enable, blocking form
constexpr int kModeRequest = 0;                 // what set_control_mode sends ...
constexpr int kReadyMode = POSITION;            // ... and what the frames are to show then
constexpr int kErrorState = Kelm_Error;

}  // namespace

int KelmKernelImpl::set_kelm_ready(bool blocking, double delay_time) {
    usleep(kSettleUs);
    if (status_field::load(status.servo) && status_field::load(status.fsm_mode) == kReadyMode &&
        status_field::load(status.motion_state) == Kelm_Standby && is_connected()) {
        clean_kelm_error();
        closeReadySequence();
        return 1;
    }
    log_time::TimerUnit timer;
    log_time::timer_start(timer);
    const bool ready = blocking ? runBlockingReadySteps(timer, delay_time) : runSingleReadySteps();
    closeReadySequence();
    if (blocking) log_time::timer_end(timer);
    return reportReadiness(ready, blocking, timer, delay_time);
}

bool KelmKernelImpl::runSingleReadySteps() {
    if (status_field::load(status.motion_state) == kErrorState) {
        clean_kelm_error();
        usleep(kSettleUs);
    }
    if (!status_field::load(status.servo)) {
        set_servo_enable(true);
        usleep(kSettleUs);
    }
    if (status_field::load(status.fsm_mode) != kReadyMode) {
        set_control_mode(kModeRequest);
        usleep(kSettleUs);
    }
    return status_field::load(status.servo) && status_field::load(status.fsm_mode) == kReadyMode &&
           status_field::load(status.motion_state) != kErrorState;
}

bool KelmKernelImpl::runBlockingReadySteps(log_time::TimerUnit& timer, double delay_time) {
    log_time::timer_end(timer);
    clean_kelm_error();
    while (status_field::load(status.motion_state) == kErrorState && delay_time >= timer.elapsed_ms) {
        clean_kelm_error();
        usleep(kSettleUs);
        log_time::timer_end(timer);
    }
    // The budget is checked between attempts only, so an attempt in progress
    // may overrun it.
    while (!status_field::load(status.servo)) {
        if (timer.elapsed_ms > delay_time) return false;
        set_servo_enable(true);
        usleep(kServoSettleUs);
        log_time::timer_end(timer);
    }
    if (status_field::load(status.fsm_mode) != kReadyMode) {
        while (status_field::load(status.fsm_mode) != kReadyMode) {
            if (timer.elapsed_ms > delay_time) return false;
            set_control_mode(kModeRequest);
            usleep(kSettleUs);
            log_time::timer_end(timer);
        }
        if (!status_field::load(status.servo)) return false;
    }
    return status_field::load(status.motion_state) != kErrorState && is_connected();
}

void KelmKernelImpl::closeReadySequence() {
    clear_subscription();
    recover();
    config = get_config();
}

int KelmKernelImpl::reportReadiness(bool ready, bool blocking, const log_time::TimerUnit& timer, double delay_time) {
    if (ready) {
        KELM_LOG(LOG_INFO, "kelm is ready...");
    } else {
        if (blocking) KELM_LOG(LOG_INFO, "time out, duration time %f, set time %f", timer.elapsed_ms, delay_time);
        KELM_LOG(LOG_INFO, "kelm is not ready, try again with a lager delay time");
    }
    const std::string mode_name = fsmModeName(status_field::load(status.fsm_mode));
    const std::string state_name = kelmStateName(status_field::load(status.motion_state));
    KELM_LOG(LOG_INFO, "servo status--%b, fsm mode--%s, robot state--%s, connected--%d",
             static_cast<int>(status_field::load(status.servo)), mode_name.c_str(), state_name.c_str(),
             static_cast<int>(is_connected()));
    return ready ? 1 : -1;
}

int KelmKernelImpl::task_blocking_wait(const std::string& task_key, int timeout_ms) {
    if (task_key.empty()) return 0;
    task_wait_flag.store(0);

    // The event callbacks take the mutex for a moment before notifying, so a
    // notification cannot slip in between the waiter's test of the flag and
    // its going to sleep.
    auto end_wait = [this] {
        task_wait_flag.store(1);
        { std::lock_guard<std::mutex> handshake(task_wait_mutex); }
        task_wait_cv.notify_all();
    };
    register_subscription(task_key, [end_wait](std::string) { end_wait(); });
    register_error_catch_callback(task_key, [end_wait](int code, std::string) {
        if (code != WARN_MESSAGE) end_wait();
    });
    register_connect_changed_callback(task_key, [end_wait](bool connected) {
        if (!connected) end_wait();
    });

    std::unique_lock<std::mutex> lock(task_wait_mutex);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(static_cast<int64_t>(timeout_ms));
    task_wait_cv.wait_until(lock, deadline, [this] { return task_wait_flag.load() != 0; });
    // Only a time-out removes the task subscription here; after an error or a
    // disconnect it stays until a frame names the key or it is cleared.
    if (task_wait_flag.load() == 0) deregister_subscription(task_key);
    release_connect_changed_callback(task_key);
    release_error_catch_callback(task_key);
    return task_wait_flag.exchange(0);
}

void KelmKernelImpl::onKelmError(int code, std::string msg) {
    if (code == WARN_MESSAGE) {
        KELM_LOG(LOG_INFO, "recieve a warnning, msg = %s\n", msg.c_str());
    } else {
        KELM_LOG(LOG_INFO, "recieve a error, code = %d, msg = %s\n", code, msg.c_str());
    }
}

}  // namespace kelm
