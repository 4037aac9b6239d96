#include "camera_rig.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <stdexcept>

#include "camera_renderer.h"
#include "egl_context.h"
#include "jpeg_encoder.h"
#include "log_manager.h"

namespace kelm {
namespace sim {
namespace {

constexpr int kJpegQuality = 85;
// Nice value of the render thread (and of the software renderer's threads,
// which inherit it): the physics and the frame loop come first.
constexpr int kRenderNice = 10;

std::string cameraNames(const mjModel& model) {
    std::string names;
    for (int id = 0; id < model.ncam; ++id) {
        const char* name = mj_id2name(&model, mjOBJ_CAMERA, id);
        if (name) names += (names.empty() ? "" : ", ") + std::string(name);
    }
    return names.empty() ? "none named" : names;
}

// Normal scheduling at a lower priority, also when the simulator's threads
// run at real-time priority (which this thread inherited).
void lowerThisThreadsPriority() {
    sched_param normal{};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kRenderNice);
}

}  // namespace

void CameraChannel::publish(std::shared_ptr<const CameraFrame> frame) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        latest_ = std::move(frame);
        ++counters_.rendered;
    }
    published_.notify_all();
}

void CameraChannel::countDropped(std::uint64_t images) {
    std::lock_guard<std::mutex> lock(mutex_);
    counters_.dropped += images;
}

void CameraChannel::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    published_.notify_all();
}

std::shared_ptr<const CameraFrame> CameraChannel::latest() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return latest_;
}

std::shared_ptr<const CameraFrame> CameraChannel::waitNewer(std::uint64_t after,
                                                            std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool newer =
        published_.wait_for(lock, timeout, [&] { return closed_ || (latest_ && latest_->number > after); });
    return newer && !closed_ ? latest_ : nullptr;
}

CameraCounters CameraChannel::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_;
}

bool CameraChannel::closed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closed_;
}

CameraRig::CameraRig(const PhysicsWorld& physics, const std::vector<CameraRequest>& cameras, bool shadows)
    : physics_(physics), shadows_(shadows) {
    const mjModel& model = physics.model();
    std::set<std::string> seen;
    for (const CameraRequest& request : cameras) {
        const int id = mj_name2id(&model, mjOBJ_CAMERA, request.name.c_str());
        if (id < 0)
            throw std::runtime_error("no camera '" + request.name + "' in the scene " + physics.scenePath() +
                                     " (its cameras: " + cameraNames(model) + ")");
        if (!seen.insert(request.name).second)
            throw std::runtime_error("camera '" + request.name + "' asked for twice");
        camera_ids_.push_back(id);
        channels_.push_back(std::make_shared<CameraChannel>(request));
    }
}

CameraRig::~CameraRig() { stop(); }

void CameraRig::start() {
    if (thread_.joinable() || channels_.empty()) return;
    {
        std::lock_guard<std::mutex> lock(stop_mutex_);
        stopping_ = false;
    }
    std::promise<void> ready;
    std::future<void> started = ready.get_future();
    thread_ = std::thread([this, ready = std::move(ready)]() mutable { run(ready); });
    try {
        started.get();
    } catch (...) {
        thread_.join();
        throw;
    }
}

void CameraRig::stop() {
    {
        std::lock_guard<std::mutex> lock(stop_mutex_);
        stopping_ = true;
    }
    stop_cv_.notify_all();
    if (thread_.joinable()) thread_.join();
}

// The render thread: owns the OpenGL context, and draws each camera when it
// is due, one after another.
void CameraRig::run(std::promise<void>& ready) {
    lowerThisThreadsPriority();
    std::unique_ptr<EglContext> context;
    std::unique_ptr<CameraRenderer> renderer;
    try {
        int width = 0, height = 0;
        for (const auto& channel : channels_) {
            width = std::max(width, channel->request().width);
            height = std::max(height, channel->request().height);
        }
        context = std::make_unique<EglContext>();
        renderer = std::make_unique<CameraRenderer>(physics_.model(), width, height, shadows_);
    } catch (const std::exception& failure) {
        ready.set_exception(std::make_exception_ptr(std::runtime_error(std::string("cameras: ") + failure.what())));
        return;
    }
    ready.set_value();
    try {
        renderDueCameras(*renderer);
    } catch (const std::exception& failure) {
        KELM_LOG(LOG_ERROR, "cameras: rendering stopped: %s", failure.what());
    }
    for (const auto& channel : channels_) channel->close();
}

void CameraRig::renderDueCameras(CameraRenderer& renderer) {
    JpegEncoder encoder(kJpegQuality);
    SceneSnapshot state;
    std::vector<unsigned char> rgb;
    std::vector<Clock::time_point> due(channels_.size(), Clock::now());
    std::vector<std::uint64_t> numbers(channels_.size(), 0);
    std::unique_lock<std::mutex> lock(stop_mutex_);
    while (true) {
        const std::size_t next = std::min_element(due.begin(), due.end()) - due.begin();
        if (stop_cv_.wait_until(lock, due[next], [this] { return stopping_; })) return;
        lock.unlock();
        CameraChannel& channel = *channels_[next];
        const CameraRequest& request = channel.request();
        const auto period =
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / request.fps));
        const auto missed = (Clock::now() - due[next]) / period;
        if (missed > 0) {
            channel.countDropped(static_cast<std::uint64_t>(missed));
            due[next] += missed * period;
        }
        physics_.snapshot(state);
        renderer.render(camera_ids_[next], request.width, request.height, state, rgb);
        auto frame = std::make_shared<CameraFrame>();
        frame->jpeg = encoder.encode(rgb, request.width, request.height);
        frame->sim_time = state.time;
        frame->number = ++numbers[next];
        channel.publish(std::move(frame));
        due[next] += period;
        lock.lock();
    }
}

}  // namespace sim
}  // namespace kelm
