// camera_render: what the simulator's cameras cost.
//
// 1. Render time: the table_cube scene's front camera drawn offscreen at
//    320x240, 640x480 and 1280x720, without and with shadows: median and
//    p90 per image of the drawing (with reading the pixels back) and of the
//    JPEG encoding, and the JPEG's size.
// 2. Beside the physics: a controller in table_cube sending state frames at
//    --rate for --seconds, without cameras and then with each camera set
//    below: the frames sent per second and the late ones, the physics'
//    real-time factor and p99 tick time, and each camera's images per second
//    and drops.
//
// Usage: camera_render [--images 40] [--seconds 10] [--rate 1000]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "camera_renderer.h"
#include "egl_context.h"
#include "jpeg_encoder.h"
#include "sim_controller.h"

namespace {

using namespace kelm;
using Clock = std::chrono::steady_clock;

struct Settings {
    int images = 40;
    double seconds = 10.0;
    double rate = 1000.0;
};

double percentile(std::vector<double> values, double share) {
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<std::size_t>(share * values.size()))];
}

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void measureRenderTime(const Settings& settings) {
    std::printf("\n== Render time per image, front camera of table_cube (%d images each)\n", settings.images);
    std::printf("%-10s %8s %12s %10s %12s %10s %10s\n", "size", "shadows", "draw median", "draw p90", "JPEG median",
                "JPEG p90", "JPEG [kB]");
    sim::PhysicsWorld world(sim::resolveScenePath("table_cube"), sim::armModel().path, 1, 6, 1);
    world.placeArms({0.0, 0.3, -0.5, 0.0, -1.2, 0.0});
    sim::SceneSnapshot state;
    world.snapshot(state);
    const int camera = mj_name2id(&world.model(), mjOBJ_CAMERA, "front");
    sim::EglContext context;
    sim::JpegEncoder encoder(85);
    std::vector<unsigned char> rgb;
    for (const auto& [width, height] : {std::pair<int, int>{320, 240}, {640, 480}, {1280, 720}}) {
        for (const bool shadows : {false, true}) {
            sim::CameraRenderer renderer(world.model(), width, height, shadows);
            renderer.render(camera, width, height, state, rgb);  // the first image compiles the shaders
            std::vector<double> draw, encode;
            std::size_t bytes = 0;
            for (int i = 0; i < settings.images; ++i) {
                Clock::time_point start = Clock::now();
                renderer.render(camera, width, height, state, rgb);
                draw.push_back(millisecondsSince(start));
                start = Clock::now();
                bytes = encoder.encode(rgb, width, height).size();
                encode.push_back(millisecondsSince(start));
            }
            std::printf("%4dx%-5d %8s %9.1f ms %7.1f ms %9.1f ms %7.1f ms %10.1f\n", width, height,
                        shadows ? "on" : "off", percentile(draw, 0.5), percentile(draw, 0.9), percentile(encode, 0.5),
                        percentile(encode, 0.9), bytes / 1000.0);
        }
    }
}

void runBesideThePhysics(const Settings& settings, const std::vector<sim::CameraRequest>& cameras, const char* label) {
    sim::SimOptions options;
    options.port = 0;
    options.camera_port = 0;
    options.quiet = true;
    options.rate = settings.rate;
    options.scene = "table_cube";
    options.cameras = cameras;
    sim::SimController controller(options);
    controller.start();
    std::this_thread::sleep_for(std::chrono::duration<double>(settings.seconds));
    const sim::SimStats stats = controller.stats();
    const sim::PhysicsStats physics = controller.physics()->stats();
    std::string camera_figures;
    if (controller.cameras()) {
        for (const auto& channel : controller.cameras()->channels()) {
            const sim::CameraCounters counters = channel->counters();
            char text[120];
            std::snprintf(text, sizeof text, " %s %.1f/s (%llu dropped)", channel->request().name.c_str(),
                          counters.rendered / settings.seconds, static_cast<unsigned long long>(counters.dropped));
            camera_figures += text;
        }
    }
    controller.stop();
    std::printf("%-30s %10.1f %6llu %10.3f %9.1f  %s\n", label, stats.frames_sent / settings.seconds,
                static_cast<unsigned long long>(stats.late_frames),
                physics.wall_seconds > 0.0 ? physics.simulated_seconds / physics.wall_seconds : 0.0,
                physics.step_p99_us, camera_figures.c_str());
}

void measureBesideThePhysics(const Settings& settings) {
    std::printf("\n== Beside the physics: table_cube, state frames at %.0f Hz, %.0f s each\n", settings.rate,
                settings.seconds);
    std::printf("%-30s %10s %6s %10s %9s  %s\n", "cameras", "frames/s", "late", "real-time", "p99 [us]",
                "images/s per camera");
    runBesideThePhysics(settings, {}, "none");
    runBesideThePhysics(settings, {{"front", 640, 480, 15.0}}, "front 640x480@15");
    runBesideThePhysics(settings, {{"front", 640, 480, 30.0}}, "front 640x480@30");
    runBesideThePhysics(settings, {{"front", 640, 480, 15.0}, {"top", 640, 480, 15.0}}, "front, top 640x480@15");
    runBesideThePhysics(settings, {{"front", 640, 480, 30.0}, {"top", 640, 480, 30.0}}, "front, top 640x480@30");
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--images") == 0)
            settings.images = std::max(1, std::atoi(argv[i + 1]));
        else if (std::strcmp(argv[i], "--seconds") == 0)
            settings.seconds = std::max(1.0, std::atof(argv[i + 1]));
        else if (std::strcmp(argv[i], "--rate") == 0)
            settings.rate = std::max(1.0, std::atof(argv[i + 1]));
    }
    measureRenderTime(settings);
    measureBesideThePhysics(settings);
    return 0;
}
