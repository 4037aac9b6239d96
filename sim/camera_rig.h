// The simulator's cameras: a render thread that draws each camera of the
// scene that was asked for at its own rate, and a channel per camera that
// holds its newest image for whoever serves it.
//
// Rendering never holds up the physics or the state frames: each image is
// drawn from a snapshot of the state that takes the physics lock only to
// copy a few arrays, the render thread runs at a lower priority than the
// rest of the simulator, and a camera whose next image is due before the
// last one was done skips the images it missed (counting them as dropped)
// instead of catching up.
//
// Threads: CameraRig's start() and stop() belong to the owner; the render
// thread is its own. CameraChannel is safe from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "physics_world.h"
#include "sim_options.h"

namespace kelm {
namespace sim {

class CameraRenderer;

// One camera image as it is served.
struct CameraFrame {
    std::string jpeg;
    double sim_time = 0.0;     // [s] the simulated time the image shows
    std::uint64_t number = 0;  // 1 for a camera's first image, then one more per image
};

struct CameraCounters {
    std::uint64_t rendered = 0;
    std::uint64_t dropped = 0;  // images due that were never drawn because rendering fell behind
};

// The newest image of one camera.
class CameraChannel {
public:
    explicit CameraChannel(CameraRequest request) : request_(std::move(request)) {}

    const CameraRequest& request() const { return request_; }
    void publish(std::shared_ptr<const CameraFrame> frame);
    void countDropped(std::uint64_t images);
    // Wakes every waiter for good: the camera has stopped.
    void close();

    // The newest image, or null before the first.
    std::shared_ptr<const CameraFrame> latest() const;
    // The newest image when it is numbered above `after`; waits for one up
    // to `timeout`. Null after the time-out or once closed.
    std::shared_ptr<const CameraFrame> waitNewer(std::uint64_t after, std::chrono::milliseconds timeout) const;
    CameraCounters counters() const;
    bool closed() const;

private:
    const CameraRequest request_;
    mutable std::mutex mutex_;
    mutable std::condition_variable published_;
    std::shared_ptr<const CameraFrame> latest_;
    CameraCounters counters_;
    bool closed_ = false;
};

class CameraRig {
public:
    // Throws std::runtime_error when a name is not a camera of the physics
    // scene (naming the scene's cameras) or is asked for twice.
    CameraRig(const PhysicsWorld& physics, const std::vector<CameraRequest>& cameras, bool shadows = false);
    ~CameraRig();
    CameraRig(const CameraRig&) = delete;
    CameraRig& operator=(const CameraRig&) = delete;

    // Starts the render thread and returns once it can render; throws
    // std::runtime_error (and starts nothing) when no OpenGL context or
    // renderer can be made. Once only: stop() closes the channels for good.
    void start();
    void stop();

    const std::vector<std::shared_ptr<CameraChannel>>& channels() const { return channels_; }

private:
    using Clock = std::chrono::steady_clock;

    void run(std::promise<void>& ready);
    void renderDueCameras(CameraRenderer& renderer);

    const PhysicsWorld& physics_;
    bool shadows_;
    std::vector<int> camera_ids_;  // per channel, in the model
    std::vector<std::shared_ptr<CameraChannel>> channels_;

    std::mutex stop_mutex_;
    std::condition_variable stop_cv_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace sim
}  // namespace kelm
