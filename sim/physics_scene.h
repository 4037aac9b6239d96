// PhysicsScene: a MuJoCo scene with the simulator's arms in it, the task's
// objects, and the readings a controller takes from the physics.
//
// The scene file (sim/scenes/) places arm I by including "armI.xml" in a
// body of its own; that file is written from the arm's URDF at load time
// (mjcf_arm.h). A task scene names, for arm I, a free body "armI_cube" (or
// "cube" in a one-arm scene) and a box site "armI_target" (or
// "target_area") where the cube is to be set down. The seed moves each cube
// a little on the table and turns it about the vertical, the same way for
// the same seed wherever the scene is loaded.
//
// Not synchronised: one thread at a time (the physics thread while it runs).
// The model (mjModel) never changes after loading; the state (mjData) is
// advanced only by that thread.
#pragma once

#include <mujoco/mujoco.h>

#include <kdl/frames.hpp>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "task_layout.h"

namespace kelm {
namespace sim {

// Indices into the model of one arm's joints, fingers and sites.
struct ArmHandles {
    int base_body = -1;
    std::vector<int> qpos, dof;  // of the arm's hinge joints, root first
    std::array<int, 2> finger_qpos{}, finger_dof{};
    int flange_site = -1, grasp_site = -1;
    std::vector<bool> beyond_flange;  // per body: carried by the flange (tool, fingers)
    std::vector<bool> member;         // per body: part of this arm
};

// How the task stands for one arm, read from the physics.
struct TaskOutcome {
    bool present = false;
    bool in_area = false;  // the cube's centre over the area, low enough to rest on it
    bool resting = false;  // the cube is nearly still
    KDL::Vector cube;      // [m] in the world frame
    bool success() const { return present && in_area && resting; }
};

// Forces of the scene on one arm.
struct ContactLoads {
    std::vector<double> joint_tau;          // [Nm] per hinge joint, Jᵀ·F summed over the contacts
    std::array<double, 6> flange_wrench{};  // fx, fy, fz [N], tx, ty, tz [Nm] about the flange, base frame
    double largest_normal = 0.0;            // [N] of any one contact on the arm
};

// `name` itself when it names a file; else the installed scene of that
// name (<program dir>/../share/kelm/scenes/NAME[.xml], or the source tree's).
std::string resolveScenePath(const std::string& name);

class PhysicsScene {
public:
    // Loads `scene_path` with `arms` arms of `dof` joints from `urdf_path`
    // and places the objects for `seed`. Throws std::runtime_error naming
    // the file and the problem.
    PhysicsScene(const std::string& scene_path, const std::string& urdf_path, int arms, int dof, std::uint32_t seed);
    ~PhysicsScene();
    PhysicsScene(const PhysicsScene&) = delete;
    PhysicsScene& operator=(const PhysicsScene&) = delete;

    const mjModel& model() const { return *model_; }
    mjData& data() { return *data_; }
    const mjData& data() const { return *data_; }
    const std::string& path() const { return path_; }
    int armCount() const { return static_cast<int>(arms_.size()); }
    const ArmHandles& arm(int index) const { return arms_.at(index); }

    // Puts every task object back where `seed` places it, at rest.
    void placeObjects(std::uint32_t seed);
    TaskLayout taskLayout(int arm) const;
    TaskOutcome outcome(int arm) const;
    ContactLoads contactLoads(int arm) const;
    // The arm's base frame in the world.
    KDL::Frame baseFrame(int arm) const;
    KDL::Frame siteFrame(int site) const;

private:
    struct TaskObjects {
        int cube_body = -1, cube_qpos = -1, cube_dof = -1, target_site = -1;
        double cube_half = 0.0;
    };

    void findArm(int index, int dof);
    void findTask(int index);

    std::string path_;
    mjModel* model_ = nullptr;
    mjData* data_ = nullptr;
    std::vector<ArmHandles> arms_;
    std::vector<TaskObjects> tasks_;
    std::vector<mjtNum> initial_qpos_;
};

}  // namespace sim
}  // namespace kelm
