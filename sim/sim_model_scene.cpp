// SimModel and the physics scene: bodies for the arms, the operator's task,
// and the two requests that only this simulator answers: getSceneState
// (bodies, contacts, each arm's task outcome) and resetScene (the task's
// objects back in place, for the same or a new seed). No client library
// operation sends either; tests, benchmarks and collection runs do.
#include "sim_json.h"
#include "sim_model.h"

namespace kelm {
namespace sim {
namespace {

constexpr const char* kNoScene = "no physics scene: start kelm_sim with --scene";

}  // namespace

void SimModel::usePhysics(PhysicsWorld* world) {
    std::lock_guard<std::mutex> lock(mutex_);
    physics_ = world;
    giveHandTasks();
}

void SimModel::useTaskScene(std::unique_ptr<PhysicsScene> task_scene) {
    std::lock_guard<std::mutex> lock(mutex_);
    task_scene_ = std::move(task_scene);
    giveHandTasks();
}

void SimModel::giveHandTasks() {
    for (int i = 0; i < armCount(); ++i) {
        if (task_scene_ && i < task_scene_->armCount())
            arms_[i].setHandTask(task_scene_->taskLayout(i));
        else if (physics_)
            arms_[i].setHandTask(physics_->taskLayout(i));
    }
}

std::string SimModel::onSceneState(const Json::Value&, Json::Value& reply) {
    if (!physics_) return kNoScene;
    const Json::Value state = physics_->sceneState();
    for (const auto& key : state.getMemberNames()) reply[key] = state[key];
    return std::string();
}

// Members: "seed" (optional, a non-negative integer) places the objects
// anew; without it they go back where the current seed put them.
std::string SimModel::onResetScene(const Json::Value& request, Json::Value&) {
    if (!physics_ && !task_scene_) return kNoScene;
    std::uint32_t seed = physics_ ? physics_->seed() : 0;
    const bool new_seed = request.isMember("seed");
    if (new_seed) {
        if (!request["seed"].isUInt()) return "seed must be a non-negative integer";
        seed = request["seed"].asUInt();
    }
    if (physics_) physics_->resetScene(new_seed ? &seed : nullptr);
    if (task_scene_ && new_seed) task_scene_->placeObjects(seed);
    giveHandTasks();
    return std::string();
}

}  // namespace sim
}  // namespace kelm
