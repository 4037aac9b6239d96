#include "runtime.h"

#include <vector>

namespace kelm_py {

namespace {

std::mutex& liveMutex() {
    static std::mutex mutex;
    return mutex;
}

std::set<HandleBase*>& liveHandles() {
    static std::set<HandleBase*> handles;
    return handles;
}

// Runs from the interpreter's atexit, with the GIL, while the runtime still
// stands: from here on no callback enters Python, the callbacks already in
// Python finish, and every object still alive is closed.
void onInterpreterExit() {
    shuttingDown().store(true);
    {
        py::gil_scoped_release release;
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (callbacksInFlight().load() > 0 && std::chrono::steady_clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::vector<HandleBase*> handles;
    {
        std::lock_guard<std::mutex> lock(liveMutex());
        handles.assign(liveHandles().begin(), liveHandles().end());
    }
    for (HandleBase* handle : handles) {
        {
            std::lock_guard<std::mutex> lock(liveMutex());
            if (liveHandles().count(handle) == 0) continue;
        }
        handle->close();
    }
}

// The thread state a receive thread keeps from its first callback to its end.
class ThreadState {
public:
    void keep() {
        if (state_ != nullptr || PyGILState_GetThisThreadState() != nullptr) return;
        // Registered as this thread's state, with a count of one that the
        // GIL's takers and releasers never bring to zero.
        state_ = PyThreadState_New(PyInterpreterState_Main());
    }
    ~ThreadState() {
        if (state_ == nullptr || !pythonUsable()) return;  // at exit the interpreter clears it
        PyEval_RestoreThread(state_);
        PyThreadState_Clear(state_);
        PyThreadState_DeleteCurrent();
    }

private:
    PyThreadState* state_ = nullptr;
};

}  // namespace

void keepThreadState() {
    thread_local ThreadState state;
    state.keep();
}

std::atomic<bool>& shuttingDown() {
    static std::atomic<bool> flag{false};
    return flag;
}

std::atomic<int>& callbacksInFlight() {
    static std::atomic<int> count{0};
    return count;
}

const void*& runningCallbackOwner() {
    thread_local const void* owner = nullptr;
    return owner;
}

HandleBase::HandleBase() {
    std::lock_guard<std::mutex> lock(liveMutex());
    liveHandles().insert(this);
}

HandleBase::~HandleBase() {
    std::lock_guard<std::mutex> lock(liveMutex());
    liveHandles().erase(this);
}

void HandleBase::refuseInOwnCallback(const char* what) const {
    if (runningCallbackOwner() != tag()) return;
    throw std::runtime_error(std::string("kelm: ") + what +
                             " waits for a reply of the controller and cannot run inside a callback of the same "
                             "object: the reply would have to come through the thread that runs the callback. "
                             "Call it from another thread (for example hand the work to a queue).");
}

void HandleBase::waitUntilUnused() const {
    while (users_.load() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void HandleBase::joinAbandoned() {
    std::shared_ptr<Pending> pending = std::move(abandoned_);
    if (pending && pending->thread.joinable()) pending->thread.join();
}

bool HandleBase::waitDone(Pending& pending) {
    while (true) {
        {
            py::gil_scoped_release release;
            std::unique_lock<std::mutex> lock(pending.mutex);
            if (pending.done_cv.wait_for(lock, std::chrono::milliseconds(kSignalPollMs), [&] { return pending.done; }))
                return true;
        }
        if (PyErr_CheckSignals() != 0) return false;
    }
}

void HandleBase::waitForAbandoned() {
    std::shared_ptr<Pending> pending = abandoned_;
    if (!pending) return;
    if (!waitDone(*pending)) throw py::error_already_set();
    py::gil_scoped_release release;
    joinAbandoned();
}

void installExitHook(py::module_& module) {
    py::module_::import("atexit").attr("register")(py::cpp_function(&onInterpreterExit));
    (void)module;
}

}  // namespace kelm_py
