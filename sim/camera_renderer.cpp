#include "camera_renderer.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace kelm {
namespace sim {
namespace {

constexpr int kMaxSceneGeoms = 2000;  // what mjvScene can hold: every geom of a scene, with room

}  // namespace

CameraRenderer::CameraRenderer(const mjModel& model, int largest_width, int largest_height, bool shadows)
    : shadows_(shadows) {
    model_ = mj_copyModel(nullptr, &model);
    if (!model_) throw std::runtime_error("cannot copy the scene's model for rendering");
    model_->vis.global.offwidth = std::max(model_->vis.global.offwidth, largest_width);
    model_->vis.global.offheight = std::max(model_->vis.global.offheight, largest_height);
    data_ = mj_makeData(model_);
    mjv_defaultOption(&option_);
    mjv_defaultCamera(&camera_);
    camera_.type = mjCAMERA_FIXED;
    mjv_defaultScene(&scene_);
    mjr_defaultContext(&context_);
    try {
        mjv_makeScene(model_, &scene_, kMaxSceneGeoms);
        mjr_makeContext(model_, &context_, mjFONTSCALE_50);
        mjr_setBuffer(mjFB_OFFSCREEN, &context_);
    } catch (...) {
        mjr_freeContext(&context_);
        mjv_freeScene(&scene_);
        mj_deleteData(data_);
        mj_deleteModel(model_);
        throw;
    }
}

CameraRenderer::~CameraRenderer() {
    mjr_freeContext(&context_);
    mjv_freeScene(&scene_);
    mj_deleteData(data_);
    mj_deleteModel(model_);
}

// Places every body, camera and light as they stand in `state`.
void CameraRenderer::pose(const SceneSnapshot& state) {
    data_->time = state.time;
    std::copy(state.qpos.begin(), state.qpos.end(), data_->qpos);
    std::copy(state.mocap_pos.begin(), state.mocap_pos.end(), data_->mocap_pos);
    std::copy(state.mocap_quat.begin(), state.mocap_quat.end(), data_->mocap_quat);
    mj_kinematics(model_, data_);
    mj_comPos(model_, data_);
    mj_camlight(model_, data_);
}

void CameraRenderer::render(int camera_id, int width, int height, const SceneSnapshot& state,
                            std::vector<unsigned char>& rgb) {
    pose(state);
    camera_.fixedcamid = camera_id;
    mjv_updateScene(model_, data_, &option_, nullptr, &camera_, mjCAT_ALL, &scene_);
    scene_.flags[mjRND_SHADOW] = shadows_ ? 1 : 0;
    const mjrRect viewport{0, 0, width, height};
    mjr_render(viewport, &scene_, &context_);
    const std::size_t row = static_cast<std::size_t>(width) * 3;
    bottom_up_.resize(row * height);
    mjr_readPixels(bottom_up_.data(), nullptr, viewport, &context_);
    rgb.resize(bottom_up_.size());
    for (int y = 0; y < height; ++y) std::memcpy(rgb.data() + y * row, bottom_up_.data() + (height - 1 - y) * row, row);
}

}  // namespace sim
}  // namespace kelm
