#include "physics_world.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "log_manager.h"
#include "mjcf_arm.h"

namespace kelm {
namespace sim {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kTickSeconds = 0.001;
constexpr double kServoStiffnessPerEffort = 20.0;  // [1/rad] position gain per Nm of effort limit
constexpr double kServoDampingPerEffort = 0.1;     // [s/rad]
// Impedance gains: with the hand's hold, they keep the force-feedback ring's
// gain below one, so a contact fed back settles instead of chattering.
constexpr double kCompliantStiffnessPerEffort = 4.0;  // [1/rad]
constexpr double kCompliantDampingPerEffort = 0.05;   // [s/rad]
constexpr double kHandStiffness = 1000.0;             // [Nm/rad] of the operator's hold on each joint
constexpr double kHandDamping = 40.0;                 // [Nm s/rad]
constexpr double kFingerStiffness = 2000.0;           // [N/m]
constexpr double kFingerDamping = 40.0;               // [N s/m]
constexpr double kLeastFingerForce = 1.0;             // [N] so that a gripper set to no force still moves
constexpr std::size_t kStepSamples = 10000;

double percentile(std::vector<double> values, double share) {
    if (values.empty()) return 0.0;
    const std::size_t index = std::min(values.size() - 1, static_cast<std::size_t>(share * values.size()));
    std::nth_element(values.begin(), values.begin() + index, values.end());
    return values[index];
}

Json::Value vectorJson(const KDL::Vector& v) {
    Json::Value out(Json::arrayValue);
    for (int k = 0; k < 3; ++k) out.append(v[k]);
    return out;
}

}  // namespace

PhysicsWorld::PhysicsWorld(const std::string& scene_path, const std::string& urdf_path, int arms, int dof,
                           std::uint32_t seed)
    : scene_(std::make_unique<PhysicsScene>(scene_path, urdf_path, arms, dof, seed)),
      effort_(armModel().effort.begin(), armModel().effort.begin() + dof),
      seed_(seed),
      commands_(arms),
      sensed_(arms) {
    const mjModel& model = scene_->model();
    substeps_ = std::max(1, static_cast<int>(std::lround(kTickSeconds / model.opt.timestep)));
    for (int i = 0; i < arms; ++i) {
        commands_[i].reference.assign(dof, 0.0);
        commands_[i].reference_vel.assign(dof, 0.0);
        commands_[i].feedback_tau.assign(dof, 0.0);
        sense(i);
    }
}

PhysicsWorld::~PhysicsWorld() { stop(); }

void PhysicsWorld::placeArms(const std::vector<double>& joints) {
    std::lock_guard<std::mutex> lock(mutex_);
    mjData& data = scene_->data();
    for (int i = 0; i < scene_->armCount(); ++i) {
        const ArmHandles& arm = scene_->arm(i);
        for (std::size_t j = 0; j < arm.qpos.size() && j < joints.size(); ++j) {
            data.qpos[arm.qpos[j]] = joints[j];
            data.qvel[arm.dof[j]] = 0.0;
        }
        commands_[i].reference = joints;
        commands_[i].reference.resize(arm.qpos.size(), 0.0);
    }
    mj_forward(&scene_->model(), &data);
    last_good_qpos_.assign(data.qpos, data.qpos + scene_->model().nq);
    for (int i = 0; i < scene_->armCount(); ++i) sense(i);
}

void PhysicsWorld::start() {
    if (running_.exchange(true)) return;
    thread_ = std::thread([this] { run(); });
}

void PhysicsWorld::stop() {
    running_ = false;
    if (thread_.joinable()) thread_.join();
}

void PhysicsWorld::command(int arm, const BodyCommand& command) {
    std::lock_guard<std::mutex> lock(mutex_);
    commands_.at(arm) = command;
}

BodySensed PhysicsWorld::sensed(int arm) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sensed_.at(arm);
}

void PhysicsWorld::run() {
    const auto tick_period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kTickSeconds));
    const Clock::time_point started = Clock::now();
    Clock::time_point deadline = started;
    while (running_) {
        deadline += tick_period;
        // Far behind (the process was stopped): carry on from now rather than race to catch up.
        if (Clock::now() > deadline + 50 * tick_period) deadline = Clock::now();
        std::this_thread::sleep_until(deadline);
        const Clock::time_point begun = Clock::now();
        std::lock_guard<std::mutex> lock(mutex_);
        tick();
        const double step_us = std::chrono::duration<double, std::micro>(Clock::now() - begun).count();
        if (step_times_us_.size() < kStepSamples)
            step_times_us_.push_back(step_us);
        else
            step_times_us_[next_step_time_++ % kStepSamples] = step_us;
        ++stats_.ticks;
        stats_.wall_seconds = std::chrono::duration<double>(Clock::now() - started).count();
    }
}

void PhysicsWorld::tick() {
    const mjModel& model = scene_->model();
    mjData& data = scene_->data();
    for (int step = 0; step < substeps_; ++step) {
        mj_step1(&model, &data);
        for (int i = 0; i < scene_->armCount(); ++i) control(i, commands_[i]);
        mj_step2(&model, &data);
        if (unstable()) {
            recover();
            break;
        }
    }
    last_good_qpos_.assign(data.qpos, data.qpos + model.nq);
    stats_.simulated_seconds = data.time;
    for (int i = 0; i < scene_->armCount(); ++i) sense(i);
}

// Motor torques (and the hand's pull) for one arm, from the state that
// mj_step1 has just brought up to date.
void PhysicsWorld::control(int index, const BodyCommand& command) {
    const ArmHandles& arm = scene_->arm(index);
    mjData& data = scene_->data();
    BodySensed& out = sensed_[index];
    out.torque.resize(arm.dof.size());
    for (std::size_t j = 0; j < arm.dof.size(); ++j) {
        const int dof = arm.dof[j];
        const double q = data.qpos[arm.qpos[j]], velocity = data.qvel[dof];
        double motor = data.qfrc_bias[dof];
        double hand = 0.0;
        if (command.hand_held) {
            motor += command.feedback_tau[j];
            hand = kHandStiffness * (command.reference[j] - q) - kHandDamping * velocity;
        } else {
            const double stiffness = command.compliant ? kCompliantStiffnessPerEffort : kServoStiffnessPerEffort;
            const double damping = command.compliant ? kCompliantDampingPerEffort : kServoDampingPerEffort;
            motor += stiffness * effort_[j] * (command.reference[j] - q) +
                     damping * effort_[j] * (command.reference_vel[j] - velocity);
        }
        motor = std::clamp(motor, -effort_[j], effort_[j]);
        out.torque[j] = motor;
        data.qfrc_applied[dof] = motor + hand;
    }
    const double force_limit = std::max(command.gripper_force, kLeastFingerForce);
    const double finger_target = std::clamp(command.gripper_opening / 2.0, 0.0, kFingerStroke);
    double grip = 0.0;
    for (int side = 0; side < 2; ++side) {
        const int dof = arm.finger_dof[side];
        const double push =
            kFingerStiffness * (finger_target - data.qpos[arm.finger_qpos[side]]) - kFingerDamping * data.qvel[dof];
        const double force = std::clamp(push, -force_limit, force_limit);
        data.qfrc_applied[dof] = force + data.qfrc_bias[dof];
        grip -= force / 2.0;  // a finger pushing inwards (towards 0) grips
    }
    out.gripper_force = std::max(0.0, grip);
}

void PhysicsWorld::sense(int index) {
    const ArmHandles& arm = scene_->arm(index);
    const mjData& data = scene_->data();
    BodySensed& out = sensed_[index];
    out.valid = true;
    out.joints.resize(arm.qpos.size());
    out.velocity.resize(arm.dof.size());
    out.torque.resize(arm.dof.size(), 0.0);
    for (std::size_t j = 0; j < arm.qpos.size(); ++j) {
        out.joints[j] = data.qpos[arm.qpos[j]];
        out.velocity[j] = data.qvel[arm.dof[j]];
    }
    out.gripper_opening = data.qpos[arm.finger_qpos[0]] + data.qpos[arm.finger_qpos[1]];
    out.gripper_velocity = data.qvel[arm.finger_dof[0]] + data.qvel[arm.finger_dof[1]];
    const ContactLoads loads = scene_->contactLoads(index);
    out.external_tau = loads.joint_tau;
    out.flange_wrench.assign(loads.flange_wrench.begin(), loads.flange_wrench.end());
    stats_.largest_contact_force = std::max(stats_.largest_contact_force, loads.largest_normal);
}

bool PhysicsWorld::unstable() const {
    const mjModel& model = scene_->model();
    const mjData& data = scene_->data();
    for (int i = 0; i < model.nq; ++i)
        if (!std::isfinite(data.qpos[i])) return true;
    for (int i = 0; i < model.nv; ++i)
        if (!std::isfinite(data.qvel[i])) return true;
    return false;
}

// Back to the last state that was sound, at rest; the arms report the
// reset as a controller error (see SimModel).
void PhysicsWorld::recover() {
    const mjModel& model = scene_->model();
    mjData& data = scene_->data();
    KELM_LOG(LOG_ERROR, "physics: the state of %s became unstable at %.3f s; reset to the last sound state",
             scene_->path().c_str(), data.time);
    const double time = data.time;
    mj_resetData(&model, &data);
    data.time = time;
    std::copy(last_good_qpos_.begin(), last_good_qpos_.end(), data.qpos);
    mj_forward(&model, &data);
    for (auto& arm : sensed_) ++arm.resets;
}

Json::Value PhysicsWorld::sceneState() const {
    std::lock_guard<std::mutex> lock(mutex_);
    const mjModel& model = scene_->model();
    const mjData& data = scene_->data();
    Json::Value state(Json::objectValue);
    state["time"] = data.time;
    state["seed"] = static_cast<Json::UInt>(seed_);
    Json::Value bodies(Json::arrayValue);
    for (int b = 1; b < model.nbody; ++b) {
        const int joint = model.body_jntadr[b];
        if (joint < 0 || model.jnt_type[joint] != mjJNT_FREE) continue;
        Json::Value body(Json::objectValue);
        body["name"] = mj_id2name(&model, mjOBJ_BODY, b);
        const mjtNum* qpos = data.qpos + model.jnt_qposadr[joint];
        body["pos"] = Json::Value(Json::arrayValue);
        for (int k = 0; k < 3; ++k) body["pos"].append(qpos[k]);
        body["quat"] = Json::Value(Json::arrayValue);  // x, y, z, w as poses are written
        for (int k : {4, 5, 6, 3}) body["quat"].append(qpos[k]);
        bodies.append(body);
    }
    state["bodies"] = bodies;
    Json::Value contacts(Json::arrayValue);
    for (int c = 0; c < data.ncon; ++c) {
        mjtNum force[6];
        mj_contactForce(&model, &data, c, force);
        Json::Value contact(Json::objectValue);
        const char* first = mj_id2name(&model, mjOBJ_GEOM, data.contact[c].geom1);
        const char* second = mj_id2name(&model, mjOBJ_GEOM, data.contact[c].geom2);
        contact["geom1"] = first ? first : "";
        contact["geom2"] = second ? second : "";
        contact["normal_force"] = force[0];
        contacts.append(contact);
    }
    state["contacts"] = contacts;
    Json::Value tasks(Json::arrayValue);
    for (int i = 0; i < scene_->armCount(); ++i) {
        const TaskOutcome outcome = scene_->outcome(i);
        Json::Value task(Json::objectValue);
        task["arm_index"] = i;
        task["present"] = outcome.present;
        task["in_area"] = outcome.in_area;
        task["resting"] = outcome.resting;
        task["success"] = outcome.success();
        task["cube"] = vectorJson(outcome.cube);
        tasks.append(task);
    }
    state["tasks"] = tasks;
    state["largest_contact_force"] = stats_.largest_contact_force;
    return state;
}

void PhysicsWorld::resetScene(const std::uint32_t* seed) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (seed) seed_ = *seed;
    scene_->placeObjects(seed_);
    stats_.largest_contact_force = 0.0;
}

std::uint32_t PhysicsWorld::seed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return seed_;
}

TaskLayout PhysicsWorld::taskLayout(int arm) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return scene_->taskLayout(arm);
}

bool PhysicsWorld::taskSucceeded(int arm) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return scene_->outcome(arm).success();
}

PhysicsStats PhysicsWorld::stats() const {
    std::lock_guard<std::mutex> lock(mutex_);
    PhysicsStats stats = stats_;
    stats.step_median_us = percentile(step_times_us_, 0.5);
    stats.step_p99_us = percentile(step_times_us_, 0.99);
    return stats;
}

void PhysicsWorld::snapshot(SceneSnapshot& into) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const mjModel& model = scene_->model();
    const mjData& data = scene_->data();
    into.time = data.time;
    into.qpos.assign(data.qpos, data.qpos + model.nq);
    into.mocap_pos.assign(data.mocap_pos, data.mocap_pos + 3 * model.nmocap);
    into.mocap_quat.assign(data.mocap_quat, data.mocap_quat + 4 * model.nmocap);
}

}  // namespace sim
}  // namespace kelm
