// Threads, the GIL and object lifetime of the kelm Python module.
//
// - PyCallback holds a Python callable inside the C++ registries. It is
//   called on a receive thread: it takes the GIL, marks the object whose
//   callback runs (so that a blocking call on that object from inside the
//   callback raises instead of deadlocking), and prints an exception with its
//   traceback instead of letting it reach the receive thread. Its last copy
//   drops the Python reference under the GIL.
// - Once the interpreter starts to exit (an atexit hook of the module),
//   callbacks no longer touch Python, and every object still alive is closed
//   (callbacks released, disconnected, destroyed) while the runtime still
//   stands.
// - Handle<T> owns one C++ object for its Python object: it remembers how to
//   release the Python callbacks it registered, runs long calls so that
//   Ctrl+C can interrupt them, and destroys the C++ object with the GIL
//   released, after its callbacks.
#pragma once

#include <pybind11/pybind11.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace kelm_py {

namespace py = pybind11;

// Interval at which waits look for Ctrl+C [ms].
constexpr int kSignalPollMs = 50;

// ---- interpreter exit ----

std::atomic<bool>& shuttingDown();
// Callbacks between their decision to enter Python and their return.
std::atomic<int>& callbacksInFlight();
inline bool pythonUsable() {
#if PY_VERSION_HEX >= 0x030D0000
    return !shuttingDown().load() && Py_IsInitialized() && !Py_IsFinalizing();
#else
    return !shuttingDown().load() && Py_IsInitialized() && !_Py_IsFinalizing();
#endif
}

// ---- which object's callback runs on this thread ----

const void*& runningCallbackOwner();

class CallbackScope {
public:
    explicit CallbackScope(const void* owner) : previous_(runningCallbackOwner()) { runningCallbackOwner() = owner; }
    ~CallbackScope() { runningCallbackOwner() = previous_; }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

private:
    const void* previous_;
};

// ---- a Python thread state for each receive thread ----

// Gives the calling thread a Python thread state that lasts as long as the
// thread, so that taking the GIL for each frame's callback does not create
// and delete one every time; the thread state goes when the thread ends.
void keepThreadState();

// ---- a Python callable held by C++ ----

class PyCallback {
public:
    PyCallback(py::function fn, const void* owner) : fn_(std::move(fn)), owner_(owner) {}
    ~PyCallback() {
        if (!fn_) return;
        if (!pythonUsable()) {
            fn_.release();  // the interpreter is going: leak rather than touch it
            return;
        }
        py::gil_scoped_acquire gil;
        fn_ = py::object();
    }
    PyCallback(const PyCallback&) = delete;
    PyCallback& operator=(const PyCallback&) = delete;

    // Calls `invoke(fn)` with the GIL; never throws.
    template <typename Invoke>
    void call(Invoke invoke) const {
        struct InFlight {
            InFlight() { callbacksInFlight().fetch_add(1); }
            ~InFlight() { callbacksInFlight().fetch_sub(1); }
        } in_flight;
        if (!pythonUsable()) return;
        keepThreadState();
        py::gil_scoped_acquire gil;
        if (shuttingDown().load()) return;
        CallbackScope scope(owner_);
        try {
            invoke(fn_);
        } catch (py::error_already_set& error) {
            error.discard_as_unraisable(fn_);
        } catch (const std::exception& error) {
            PyErr_SetString(PyExc_RuntimeError, error.what());
            PyErr_WriteUnraisable(fn_.ptr());
        } catch (...) {
            PyErr_SetString(PyExc_RuntimeError, "unknown C++ exception in a kelm callback");
            PyErr_WriteUnraisable(fn_.ptr());
        }
    }

private:
    py::object fn_;
    const void* owner_;
};

using PyCallbackPtr = std::shared_ptr<const PyCallback>;

inline PyCallbackPtr holdCallback(py::function fn, const void* owner) {
    return std::make_shared<const PyCallback>(std::move(fn), owner);
}

// ---- objects ----

class HandleBase {
public:
    HandleBase();
    virtual ~HandleBase();
    HandleBase(const HandleBase&) = delete;
    HandleBase& operator=(const HandleBase&) = delete;

    // Releases the Python callbacks, disconnects and destroys the C++ object.
    // Safe to call again. Called with the GIL held.
    virtual void close() = 0;

    const void* tag() const { return this; }

    // Raises RuntimeError when called from a callback of this object: a
    // request that waits for a reply would wait for the very thread that runs
    // the callback.
    void refuseInOwnCallback(const char* what) const;

    // Held by every call while it uses the C++ object without the GIL, so
    // that a close on another thread waits for it before the object goes.
    class Lease {
    public:
        explicit Lease(HandleBase& handle) : handle_(handle) { handle_.users_.fetch_add(1); }
        ~Lease() { handle_.users_.fetch_sub(1); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

    private:
        HandleBase& handle_;
    };

protected:
    // Waits (without the GIL) until no call uses the object any more.
    void waitUntilUnused() const;
    bool inOwnCallback() const { return runningCallbackOwner() == tag(); }

    // Ends an interrupted call that is still running (see runInterruptible).
    void joinAbandoned();
    // Waits for an interrupted call still running before a new long call.
    void waitForAbandoned();

    template <typename R>
    friend R runInterruptible(HandleBase& handle, std::function<R()> work);

    struct Pending {
        std::thread thread;
        std::mutex mutex;
        std::condition_variable done_cv;
        bool done = false;
    };
    // Waits for `pending` to be done, without the GIL, looking for Ctrl+C
    // every 50 ms; false (with the Python error set) on Ctrl+C.
    static bool waitDone(Pending& pending);
    std::shared_ptr<Pending> abandoned_;
    std::atomic<int> users_{0};
};

// Runs `work` on a helper thread while this thread, with the GIL released,
// looks for Ctrl+C every 50 ms. On Ctrl+C it raises KeyboardInterrupt at
// once; the work goes on to its end on the helper, and the handle's next long
// call (or its close) waits for that first.
template <typename R>
R runInterruptible(HandleBase& handle, std::function<R()> work) {
    handle.waitForAbandoned();
    auto pending = std::make_shared<HandleBase::Pending>();
    auto result = std::make_shared<R>();
    auto failure = std::make_shared<std::exception_ptr>();
    pending->thread = std::thread([pending, result, failure, work = std::move(work)] {
        try {
            *result = work();
        } catch (...) {
            *failure = std::current_exception();
        }
        std::lock_guard<std::mutex> lock(pending->mutex);
        pending->done = true;
        pending->done_cv.notify_all();
    });
    if (!HandleBase::waitDone(*pending)) {
        handle.abandoned_ = pending;
        throw py::error_already_set();
    }
    {
        py::gil_scoped_release release;
        pending->thread.join();
    }
    if (*failure) std::rethrow_exception(*failure);
    return *result;
}

// Owns one C++ object of type T for one Python object.
template <typename T>
class Handle : public HandleBase {
public:
    explicit Handle(std::unique_ptr<T> object) : object_(std::move(object)) {}
    ~Handle() override { closeNow(); }

    T& get() {
        if (!object_) throw std::runtime_error("kelm: the object is closed");
        return *object_;
    }

    // Remembers how to release one Python callback; `key` names it, so that
    // registering again under a key keeps one entry.
    void rememberRelease(const std::string& key, std::function<void(T&)> release) {
        releases_[key] = std::move(release);
    }
    void forgetRelease(const std::string& key) { releases_.erase(key); }

    void close() override { closeNow(); }

    // The releases, the disconnect and the destruction; the GIL is released
    // for the parts that wait.
    template <typename Disconnect>
    void closeWith(Disconnect disconnect) {
        if (!object_) return;
        for (auto& entry : releases_) entry.second(*object_);
        releases_.clear();
        std::unique_ptr<T> object = std::move(object_);
        auto finish = [&] {
            disconnect(*object);
            joinAbandoned();
            waitUntilUnused();
            if (inOwnCallback()) {
                // Dropped inside its own callback, on its receive thread: the
                // object goes on another thread, once this callback returns.
                std::thread([doomed = std::move(object)]() mutable { doomed.reset(); }).detach();
            } else {
                object.reset();
            }
        };
        if (PyGILState_Check()) {
            py::gil_scoped_release release;
            finish();
        } else {
            finish();
        }
    }

    std::function<void(T&)> disconnect_on_close;

private:
    void closeNow() {
        closeWith([this](T& object) {
            if (disconnect_on_close) disconnect_on_close(object);
        });
    }

    std::unique_ptr<T> object_;
    std::map<std::string, std::function<void(T&)>> releases_;
};

// Installs the exit hook; called once from the module's initialisation.
void installExitHook(py::module_& module);

}  // namespace kelm_py
