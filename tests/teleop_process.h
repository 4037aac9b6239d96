// TeleopProcess: runs the built teleoperation tool as a child process for the
// end-to-end tests.
//
// The child's standard output and standard error are drained into two texts by
// a reader thread of this object, so the child never blocks on a full pipe,
// and a test can wait (with a time limit) for a line to appear. The destructor
// kills and reaps a child that is still running, so no process is left behind
// when a test fails half-way. The child gets this process's environment plus
// `extra_environment` ("NAME=VALUE" entries), and normal scheduling whatever
// the thread that starts it runs at. All members are called from the test's
// thread.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

class TeleopProcess {
public:
    TeleopProcess(const std::string& program, const std::vector<std::string>& args,
                  std::vector<std::string> extra_environment = {}) {
        int out_pipe[2];
        int err_pipe[2];
        if (pipe2(out_pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        if (pipe2(err_pipe, O_CLOEXEC) != 0) {
            closePair(out_pipe);
            throw std::runtime_error("pipe failed");
        }
        std::vector<std::string> argv_text{program};
        argv_text.insert(argv_text.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& arg : argv_text) argv.push_back(arg.data());
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
        // Sockets of this process (the simulated controllers' listening
        // sockets among them) must not live on in the child.
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
        // The child starts with SIGINT at its default and unblocked, whatever
        // this process's threads do with it.
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t no_signals;
        sigemptyset(&no_signals);
        sigset_t sigint_only;
        sigemptyset(&sigint_only);
        sigaddset(&sigint_only, SIGINT);
        posix_spawnattr_setsigmask(&attributes, &no_signals);
        posix_spawnattr_setsigdefault(&attributes, &sigint_only);
        const sched_param normal_priority{};
        posix_spawnattr_setschedpolicy(&attributes, SCHED_OTHER);
        posix_spawnattr_setschedparam(&attributes, &normal_priority);
        posix_spawnattr_setflags(&attributes,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSCHEDULER);

        std::vector<char*> environment;
        for (char** entry = environ; *entry != nullptr; ++entry) environment.push_back(*entry);
        for (auto& entry : extra_environment) environment.push_back(entry.data());
        environment.push_back(nullptr);
        const int spawn_error =
            posix_spawn(&pid_, program.c_str(), &actions, &attributes, argv.data(), environment.data());
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        close(out_pipe[1]);
        close(err_pipe[1]);
        if (spawn_error != 0) {
            close(out_pipe[0]);
            close(err_pipe[0]);
            throw std::runtime_error("cannot start " + program);
        }
        reader_ = std::thread([this, out = out_pipe[0], err = err_pipe[0]] { drain(out, err); });
    }

    ~TeleopProcess() {
        if (!exit_code_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        reader_.join();
    }

    TeleopProcess(const TeleopProcess&) = delete;
    TeleopProcess& operator=(const TeleopProcess&) = delete;

    // Sends a real Ctrl+C to the child.
    void interrupt() { kill(pid_, SIGINT); }

    // True once `text` has appeared on standard output, false when `timeout`
    // passed first or the child closed its output without writing it.
    bool waitForStdout(const std::string& text, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return output_changed_.wait_for(lock, timeout, [&] {
            return stdout_text_.find(text) != std::string::npos || output_closed_;
        }) && stdout_text_.find(text) != std::string::npos;
    }

    // The exit code (128 + signal number for a child killed by a signal), or
    // nothing if the child is still running after `timeout`.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout) {
        if (exit_code_) return exit_code_;
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (true) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                return exit_code_;
            }
            if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    // Standard output as written so far; complete once the child has exited
    // and waitForClosedOutput has returned.
    std::string stdoutText() {
        std::lock_guard<std::mutex> lock(mutex_);
        return stdout_text_;
    }
    std::string stderrText() {
        std::lock_guard<std::mutex> lock(mutex_);
        return stderr_text_;
    }

    // Waits until the child and any process that inherited its pipes have
    // closed them, so that the texts above are complete.
    bool waitForClosedOutput(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return output_changed_.wait_for(lock, timeout, [&] { return output_closed_; });
    }

private:
    static void closePair(int fds[2]) {
        close(fds[0]);
        close(fds[1]);
    }

    void drain(int out_fd, int err_fd) {
        pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
        int open_count = 2;
        char buffer[4096];
        while (open_count > 0) {
            if (poll(fds, 2, -1) < 0) {
                if (errno == EINTR) continue;
                break;
            }
            for (auto& entry : fds) {
                if (entry.fd < 0 || entry.revents == 0) continue;
                const ssize_t n = read(entry.fd, buffer, sizeof buffer);
                if (n <= 0) {
                    close(entry.fd);
                    entry.fd = -1;
                    --open_count;
                    continue;
                }
                std::lock_guard<std::mutex> lock(mutex_);
                (entry.fd == out_fd ? stdout_text_ : stderr_text_).append(buffer, static_cast<size_t>(n));
                output_changed_.notify_all();
            }
        }
        for (auto& entry : fds) {
            if (entry.fd >= 0) close(entry.fd);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        output_closed_ = true;
        output_changed_.notify_all();
    }

    pid_t pid_ = -1;
    std::optional<int> exit_code_;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable output_changed_;
    std::string stdout_text_;
    std::string stderr_text_;
    bool output_closed_ = false;
};
