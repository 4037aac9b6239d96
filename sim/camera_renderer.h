// CameraRenderer: draws the cameras of a MuJoCo scene offscreen, each image
// from a snapshot of the state (never the live one), with MuJoCo's own
// renderer (mjv/mjr) into its offscreen framebuffer.
//
// Threads: made, used and destroyed on one thread, on which an OpenGL
// context (EglContext) is current the whole time.
#pragma once

#include <mujoco/mujoco.h>

#include <vector>

#include "physics_world.h"

namespace kelm {
namespace sim {

class CameraRenderer {
public:
    // Keeps a copy of `model` whose offscreen buffer holds the largest image
    // asked for, [px]; `shadows`: the lights cast shadows (about twice the
    // cost). Throws std::runtime_error when MuJoCo cannot set up its renderer.
    CameraRenderer(const mjModel& model, int largest_width, int largest_height, bool shadows);
    ~CameraRenderer();
    CameraRenderer(const CameraRenderer&) = delete;
    CameraRenderer& operator=(const CameraRenderer&) = delete;

    // The scene as camera `camera_id` (a model camera id) sees it in `state`:
    // `rgb` becomes width x height [px] RGB pixels, top row first.
    void render(int camera_id, int width, int height, const SceneSnapshot& state, std::vector<unsigned char>& rgb);

private:
    void pose(const SceneSnapshot& state);

    mjModel* model_ = nullptr;
    mjData* data_ = nullptr;
    mjvOption option_;
    mjvCamera camera_;
    mjvScene scene_;
    mjrContext context_;
    bool shadows_;
    std::vector<unsigned char> bottom_up_;  // as OpenGL reads the pixels
};

}  // namespace sim
}  // namespace kelm
