// The bridge from the library's logger to Python's logging.
//
// The logger calls its line observer on whatever thread logs (a receive
// thread, the caller of an operation), with the logger's observer lock held;
// taking the GIL there could deadlock against a thread that holds the GIL and
// logs. So the observer only queues the line with its time, and the package's
// log thread takes the queued lines (without the GIL while it waits) and hands
// them to logging.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "log_manager.h"

namespace kelm_py {

namespace py = pybind11;

namespace {

// Lines kept while nobody takes them; older ones are dropped beyond it.
constexpr std::size_t kQueueCapacity = 10000;

struct QueuedLine {
    int level;
    std::string text;
    double created;  // Unix time [s] at which the line was logged
};

class LineQueue {
public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
    }

    void close() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = false;
        ready_.notify_all();
    }

    void push(int level, const std::string& text) {
        const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
        std::lock_guard<std::mutex> lock(mutex_);
        if (lines_.size() >= kQueueCapacity) {
            lines_.pop_front();
            ++dropped_;
        }
        lines_.push_back(QueuedLine{level, text, now});
        ready_.notify_one();
    }

    // Waits up to `timeout_s` for lines and takes all of them. `open` tells
    // whether the bridge still stands.
    std::vector<QueuedLine> take(double timeout_s, bool& open) {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait_for(lock, std::chrono::duration<double>(timeout_s), [this] { return !lines_.empty() || !open_; });
        std::vector<QueuedLine> taken(std::make_move_iterator(lines_.begin()), std::make_move_iterator(lines_.end()));
        lines_.clear();
        open = open_;
        return taken;
    }

    std::uint64_t dropped() {
        std::lock_guard<std::mutex> lock(mutex_);
        return dropped_;
    }

private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<QueuedLine> lines_;
    std::uint64_t dropped_ = 0;
    bool open_ = false;
};

// Never destroyed: a thread that logs after the interpreter has gone still
// finds it.
LineQueue& lineQueue() {
    static LineQueue* queue = new LineQueue();
    return *queue;
}

py::object takeLines(double timeout_s) {
    bool open = true;
    std::vector<QueuedLine> lines;
    {
        py::gil_scoped_release release;
        lines = lineQueue().take(timeout_s, open);
    }
    if (lines.empty() && !open) return py::none();
    py::list out;
    for (const QueuedLine& line : lines) out.append(py::make_tuple(line.level, line.text, line.created));
    return std::move(out);
}

}  // namespace

void bindLogBridge(py::module_& m) {
    m.def(
        "_log_bridge_open",
        [] {
            lineQueue().open();
            kelm::getLogInstance()->setLineObserver(
                [](kelm::LogLevel level, const std::string& text) { lineQueue().push(level, text); });
        },
        "Queues every line the library logs from now on for _log_bridge_take.");
    m.def(
        "_log_bridge_close",
        [] {
            kelm::getLogInstance()->setLineObserver(nullptr);
            lineQueue().close();
        },
        "Stops queueing lines; a waiting _log_bridge_take returns what is left, then None.");
    m.def("_log_bridge_take", &takeLines, py::arg("timeout"),
          "Waits up to `timeout` [s] for logged lines and returns them as (level, text, Unix time) tuples; None "
          "once the bridge is closed and empty.");
    m.def(
        "_log_bridge_dropped", [] { return lineQueue().dropped(); },
        "Lines dropped because nobody took them (beyond 10000 queued).");
}

}  // namespace kelm_py
