// In-process teleoperation against the physics backend, for the physics
// tests and benchmarks: a controller with a kernel on its arm 0, and the
// tool's joint relay between two of them.
//
// Threads: everything is called from the caller's thread; the relay's
// callbacks run on the kernels' delivery threads, as the tool's do.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelm_kernel.h"
#include "physics_scene.h"
#include "sim_controller.h"

namespace kelm {
namespace sim {
namespace test_relay {

using namespace std::chrono_literals;

inline const std::vector<double> kHome{0.0, 0.0, 0.0, 0.0, -1.57, 0.0};
inline sim::SimOptions physicsOptions(const std::string& scene) {
    sim::SimOptions options;
    options.port = 0;
    options.quiet = true;
    options.rate = 200.0;  // [Hz] light on a loaded machine
    options.scene = scene;
    options.hand.enabled = false;
    return options;
}

// One controller in a physics scene and a kernel on its arm 0.
struct PhysicsArm {
    explicit PhysicsArm(const sim::SimOptions& options) : simulator(options) {
        simulator.start();
        kernel = std::make_unique<KelmKernelImpl>("127.0.0.1", simulator.port(), 1.0, 0);
    }
    ~PhysicsArm() {
        simulator.stop();
        kernel.reset();
    }
    bool ready() { return kernel->set_kelm_ready(true, 10000.0) == 1; }
    bool moveTo(const std::vector<double>& joints, double speed) {
        std::string key;
        return kernel->move_joint(joints, key, speed, 0, 0, true) == 1 && kernel->task_blocking_wait(key, 20000) == 1;
    }
    // Joints that put the gripper's holding point at `point` [m], pointing
    // down, fingers across two faces of the cube.
    std::vector<double> graspAt(const KDL::Vector& point) {
        const sim::TaskLayout layout = simulator.physics()->taskLayout(0);
        const double yaw = std::remainder(std::atan2(layout.cube.M(1, 0), layout.cube.M(0, 0)), M_PI / 2.0);
        const KDL::Frame flange =
            KDL::Frame(KDL::Rotation::RotZ(yaw) * KDL::Rotation::RotX(M_PI), point) * layout.grasp_in_flange.Inverse();
        std::vector<double> joints;
        if (!kinematics.inverse(flange, kernel->get_joint_pos(), sim::defaultJointLimits(6), joints)) joints.clear();
        return joints;
    }
    KDL::Vector body(const std::string& name) {
        const Json::Value state = simulator.physics()->sceneState();
        for (const auto& body : state["bodies"])
            if (body["name"] == name)
                return KDL::Vector(body["pos"][0].asDouble(), body["pos"][1].asDouble(), body["pos"][2].asDouble());
        return KDL::Vector(NAN, NAN, NAN);
    }

    sim::SimController simulator;
    std::unique_ptr<KelmKernelImpl> kernel;
    sim::ArmKinematics kinematics{6};
};

// The tool's joint relay, in-process: each master frame becomes a slave
// target (gripper reading / 0.6, at most 0.08); with force feedback each
// slave frame's external torques go back to the master.
class Teleoperation {
public:
    Teleoperation(const sim::SimOptions& master, const sim::SimOptions& slave, bool force_feedback)
        : master_(master), slave_(slave), force_feedback_(force_feedback) {}

    bool start() {
        if (!master_.ready() || !slave_.ready()) return false;
        if (!master_.moveTo(kHome, 50.0) || !slave_.moveTo(kHome, 50.0)) return false;
        master_.kernel->set_end_effector(0.06, 10.0);
        slave_.kernel->set_end_effector(0.06, 10.0);
        std::this_thread::sleep_for(500ms);
        KelmKernelImpl& master = *master_.kernel;
        KelmKernelImpl& slave = *slave_.kernel;
        const bool modes = force_feedback_
                               ? master.set_teleoperation_mode(1) == 1 && slave.set_teleoperation_mode(2) == 1
                               : master.set_control_mode(3) == 1 && slave.set_control_mode(2) == 1;
        if (!modes) return false;
        master.register_get_tele_master_data_callback(
            "relay", [&slave](double, std::vector<double> joints, double gripper) {
                slave.tracking(joints, true, std::clamp(gripper / 0.6, 0.0, 0.08));
            });
        if (force_feedback_) {
            slave.register_get_tele_slave_data_callback("feedback",
                                                        [&master](double, std::vector<double> tau, double gripper_tau) {
                                                            master.set_redundancy_tau(tau, gripper_tau);
                                                        });
        }
        return true;
    }
    // Ends the relay before either side goes away.
    ~Teleoperation() {
        master_.simulator.stop();
        slave_.simulator.stop();
    }

    PhysicsArm& slave() { return slave_; }

private:
    PhysicsArm master_, slave_;
    bool force_feedback_;
};

inline sim::SimOptions pickPlaceMaster(const std::string& task_scene, std::uint32_t seed) {
    sim::SimOptions options = physicsOptions("arm");
    options.hand.enabled = true;
    options.hand.pick_place = true;
    options.task_scene = task_scene;
    options.seed = seed;
    return options;
}

inline sim::SimOptions pickPlaceSlave(std::uint32_t seed) {
    sim::SimOptions options = physicsOptions("table_cube");
    options.seed = seed;
    return options;
}

}  // namespace test_relay
}  // namespace sim
}  // namespace kelm
