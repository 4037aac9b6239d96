// PhysicsWorld: the simulated controller's arms as bodies in a MuJoCo scene,
// stepped in real time on a thread of its own.
//
// The controller logic (SimArm) decides where each joint should be; this
// class makes the joints get there as motors do: a position servo per joint
// with gravity compensation, torque-limited by the arm model's efforts (a
// softer one, as impedance control is, for an arm that follows a stream), and
// a force-limited servo per gripper finger. An arm held by the simulated
// operator's hand (drag mode, teleoperation master) is instead pulled
// towards the hand's target by a stiff spring-damper while its motors only
// compensate gravity and add the torque fed back to them, so a fed-back
// torque moves the arm as it would move an operator's hand.
//
// Physics runs at 1 kHz on the steady clock (each tick the scene's time
// step as often as it takes to cover 1 ms), whatever the frame rate.
//
// Threads: start() and stop() belong to the owner; every other member is
// safe from any thread. One lock guards the scene: the physics thread holds
// it for each tick (tens of microseconds), the others for a copy.
#pragma once

#include <json/json.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "arm_kinematics.h"
#include "physics_scene.h"

namespace kelm {
namespace sim {

// What the controller asks of one arm's body.
struct BodyCommand {
    bool hand_held = false;             // the operator's hand pulls the arm towards `reference`
    bool compliant = false;             // impedance servo (MIT mode, teleoperation slave): softer gains
    std::vector<double> reference;      // [rad] servo target, or where the hand wants the arm
    std::vector<double> reference_vel;  // [rad/s]
    std::vector<double> feedback_tau;   // [Nm] added to the motors' torque (redundancy torque)
    double gripper_opening = 0.0;       // [m] between the fingers
    double gripper_force = 10.0;        // [N] most each finger pushes with
};

// What one arm's sensors read after the latest tick.
struct BodySensed {
    bool valid = false;
    std::vector<double> joints;         // [rad]
    std::vector<double> velocity;       // [rad/s]
    std::vector<double> torque;         // [Nm] the motors'
    std::vector<double> external_tau;   // [Nm] of contacts
    std::vector<double> flange_wrench;  // [N, Nm] fx, fy, fz, tx, ty, tz
    double gripper_opening = 0.0;       // [m]
    double gripper_velocity = 0.0;      // [m/s]
    double gripper_force = 0.0;         // [N] the fingers' grip, positive closing
    std::uint64_t resets = 0;           // times the physics went unstable and was reset
};

// The state the scene's bodies stand in, copied between two ticks: enough
// for a renderer to place every body (mj_kinematics) without the live state.
struct SceneSnapshot {
    double time = 0.0;  // [s] simulated
    std::vector<mjtNum> qpos, mocap_pos, mocap_quat;
};

// Step timing since start().
struct PhysicsStats {
    std::uint64_t ticks = 0;
    double simulated_seconds = 0.0;
    double wall_seconds = 0.0;
    double step_median_us = 0.0, step_p99_us = 0.0;  // per tick, over the last 10,000
    double largest_contact_force = 0.0;              // [N] on any arm since the scene was last placed
};

class PhysicsWorld {
public:
    // Loads the scene (throws std::runtime_error naming the file and the
    // problem); the motors' torque limits are the arm model's efforts.
    PhysicsWorld(const std::string& scene_path, const std::string& urdf_path, int arms, int dof, std::uint32_t seed);
    ~PhysicsWorld();
    PhysicsWorld(const PhysicsWorld&) = delete;
    PhysicsWorld& operator=(const PhysicsWorld&) = delete;

    // Puts each arm's joints at `joints` (at rest) before the first tick.
    void placeArms(const std::vector<double>& joints);
    void start();
    void stop();

    void command(int arm, const BodyCommand& command);
    BodySensed sensed(int arm) const;
    // Bodies, contacts and each arm's task outcome, for getSceneState.
    Json::Value sceneState() const;
    // Puts the task objects back for `seed` (the current one when absent).
    void resetScene(const std::uint32_t* seed);
    std::uint32_t seed() const;
    // The task's layout for `arm`, in its base frame.
    TaskLayout taskLayout(int arm) const;
    bool taskSucceeded(int arm) const;
    PhysicsStats stats() const;
    // The scene's model, which never changes after loading.
    const mjModel& model() const { return scene_->model(); }
    const std::string& scenePath() const { return scene_->path(); }
    // Copies the current state into `into` (reusing its storage).
    void snapshot(SceneSnapshot& into) const;

private:
    void run();
    void tick();
    void control(int arm, const BodyCommand& command);
    void sense(int arm);
    bool unstable() const;
    void recover();

    std::unique_ptr<PhysicsScene> scene_;
    std::vector<double> effort_;  // [Nm] per joint
    int substeps_ = 1;
    std::uint32_t seed_;

    mutable std::mutex mutex_;  // guards the members below and the scene between ticks
    std::vector<BodyCommand> commands_;
    std::vector<BodySensed> sensed_;
    PhysicsStats stats_;
    std::vector<double> step_times_us_;
    std::size_t next_step_time_ = 0;

    std::vector<mjtNum> last_good_qpos_;
    std::atomic<bool> running_{false};
    std::thread thread_;
};

}  // namespace sim
}  // namespace kelm
