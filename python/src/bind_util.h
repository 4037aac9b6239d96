// Building blocks of the bound members: a plain forward with the GIL
// released, the refusal of blocking calls inside the object's own callbacks,
// interruptible long calls, and the trampolines of Python callbacks.
#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "convert.h"
#include "runtime.h"

namespace kelm_py {

// Whether a forwarded member waits for the controller.
enum class Waits { no, yes };

// `method` with the GIL released; a member that waits raises RuntimeError
// inside a callback of the same object.
template <typename Obj, typename T, typename R, typename... A>
auto forward(R (T::*method)(A...), const char* name, Waits waits) {
    return [method, name, waits](Handle<Obj>& handle, std::decay_t<A>... args) {
        Obj& object = handle.get();
        if (waits == Waits::yes) handle.refuseInOwnCallback(name);
        HandleBase::Lease lease(handle);
        if constexpr (std::is_void_v<R>) {
            py::gil_scoped_release release;
            (object.*method)(args...);
        } else {
            auto result = [&] {
                py::gil_scoped_release release;
                return (object.*method)(args...);
            }();
            return toPy(std::move(result));
        }
    };
}

template <typename... A>
bool lastOf(const A&... args) {
    return std::get<sizeof...(A) - 1>(std::forward_as_tuple(args...));
}

// A motion whose last argument is `block`: with block true the wait for its
// end runs so that Ctrl+C interrupts it.
template <typename T, typename... A>
auto motion(int (T::*method)(A...), const char* name) {
    return [method, name](Handle<T>& handle, std::decay_t<A>... args) -> int {
        T& object = handle.get();
        handle.refuseInOwnCallback(name);
        HandleBase::Lease lease(handle);
        if (!lastOf(args...)) {
            py::gil_scoped_release release;
            return (object.*method)(args...);
        }
        return runInterruptible<int>(handle, [&object, method, args...] { return (object.*method)(args...); });
    };
}

// A long call (the ready sequence) that Ctrl+C interrupts.
template <typename T, typename... A>
auto interruptible(int (T::*method)(A...), const char* name) {
    return [method, name](Handle<T>& handle, std::decay_t<A>... args) -> int {
        T& object = handle.get();
        handle.refuseInOwnCallback(name);
        HandleBase::Lease lease(handle);
        return runInterruptible<int>(handle, [&object, method, args...] { return (object.*method)(args...); });
    };
}

// ---- callback trampolines: C++ signature to a Python call ----

inline std::function<void(int, std::string)> errorTrampoline(PyCallbackPtr cb) {
    return [cb](int code, std::string text) { cb->call([&](const py::object& fn) { fn(code, text); }); };
}

inline std::function<void(double, std::vector<double>, std::vector<double>, std::vector<double>)> jointTrampoline(
    PyCallbackPtr cb) {
    return [cb](double stamp, std::vector<double> pos, std::vector<double> vel, std::vector<double> tau) {
        cb->call([&](const py::object& fn) { fn(stamp, toPy(pos), toPy(vel), toPy(tau)); });
    };
}

inline std::function<void(double, std::array<double, 7>)> poseTrampoline(PyCallbackPtr cb) {
    return [cb](double stamp, std::array<double, 7> pose) {
        cb->call([&](const py::object& fn) { fn(stamp, toPy(pose)); });
    };
}

inline std::function<void(double, std::vector<double>, double)> teleTrampoline(PyCallbackPtr cb) {
    return [cb](double stamp, std::vector<double> values, double gripper) {
        cb->call([&](const py::object& fn) { fn(stamp, toPy(values), gripper); });
    };
}

inline std::function<void(double, std::vector<double>, std::vector<double>)> forceTrampoline(PyCallbackPtr cb) {
    return [cb](double stamp, std::vector<double> joint_tau, std::vector<double> cart_force) {
        cb->call([&](const py::object& fn) { fn(stamp, toPy(joint_tau), toPy(cart_force)); });
    };
}

inline std::function<void(std::string)> textTrampoline(PyCallbackPtr cb) {
    return [cb](std::string text) { cb->call([&](const py::object& fn) { fn(text); }); };
}

inline std::function<void(bool)> connectTrampoline(PyCallbackPtr cb) {
    return [cb](bool connected) { cb->call([&](const py::object& fn) { fn(connected); }); };
}

template <typename... A>
std::function<void(A...)> plainTrampoline(PyCallbackPtr cb) {
    return [cb](A... args) { cb->call([&](const py::object& fn) { fn(args...); }); };
}

// Docstring pieces.
constexpr const char* kRequestResult =
    "Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), "
    "a failed send, no reply within 1000 ms, or a refusal.";
constexpr const char* kMotionResult =
    "Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, "
    "an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing "
    "sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises "
    "KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits "
    "for it to end.";
constexpr const char* kStreamResult =
    "Published without waiting for a reply; may be called from a callback. Returns 1 when sent, -1 for "
    "refused input (logged, nothing sent) or a failed send.";

}  // namespace kelm_py
