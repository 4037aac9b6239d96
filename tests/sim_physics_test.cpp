// The simulator's physics backend: its arm against the kinematics, contact
// readings against the laws they must obey, the gripper's hold, the
// scripted pick-and-place task through a teleoperation relay, force
// feedback, and the refusals of bad scenes by the console program.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <future>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "kelm_kernel.h"
#include "log_capture.h"
#include "physics_scene.h"
#include "sim_controller.h"
#include "sim_teleoperation.h"

namespace kelm {
namespace test {
namespace {

using namespace std::chrono_literals;

using sim::test_relay::kHome;
using sim::test_relay::PhysicsArm;
using sim::test_relay::physicsOptions;
using sim::test_relay::pickPlaceMaster;
using sim::test_relay::pickPlaceSlave;
using sim::test_relay::Teleoperation;
constexpr double kPi = 3.14159265358979323846;
constexpr double kCubeMass = 0.1;  // [kg] as the scenes give it
constexpr int kTaskWaitMs = 30000;

TEST(PhysicsScene, FlangeSiteAgreesWithKdlAtRandomJoints) {
    std::mt19937 random(20261124);
    for (const int dof : {6, 7}) {
        sim::PhysicsScene scene(sim::resolveScenePath("arm"), sim::armModel().path, 1, dof, 1);
        const sim::ArmKinematics kinematics(dof);
        const sim::JointLimits limits = sim::defaultJointLimits(dof);
        const sim::ArmHandles& arm = scene.arm(0);
        for (int sample = 0; sample < 50; ++sample) {
            std::vector<double> joints(dof);
            for (int j = 0; j < dof; ++j)
                joints[j] = std::uniform_real_distribution<double>(limits.lower[j], limits.upper[j])(random);
            for (int j = 0; j < dof; ++j) scene.data().qpos[arm.qpos[j]] = joints[j];
            mj_kinematics(&scene.model(), &scene.data());
            const KDL::Frame physics = scene.siteFrame(arm.flange_site), kdl = kinematics.flange(joints);
            for (int k = 0; k < 3; ++k)
                ASSERT_NEAR(physics.p[k], kdl.p[k], 1e-6) << "dof " << dof << " sample " << sample;
            for (int r = 0; r < 3; ++r)
                for (int c = 0; c < 3; ++c) ASSERT_NEAR(physics.M(r, c), kdl.M(r, c), 1e-6) << "dof " << dof;
        }
    }
}

// Opens, grips the cube, lifts it at full speed and holds it still: the
// cube comes along, and the arm feels its weight as Jᵀ·m·g.
TEST(PhysicsGripper, HoldsTheCubeThroughAFastLiftAndFeelsItsWeight) {
    PhysicsArm arm(physicsOptions("table_cube"));
    ASSERT_TRUE(arm.ready());
    ASSERT_TRUE(arm.moveTo(kHome, 50.0));
    ASSERT_EQ(arm.kernel->set_end_effector(0.08, 10.0), 1);
    EXPECT_TRUE(waitUntil([&] { return arm.kernel->get_end_effector_pos() > 0.078; }, 5000ms));

    const KDL::Vector cube = arm.body("cube");
    const KDL::Vector up(0.0, 0.0, 1.0);
    ASSERT_TRUE(arm.moveTo(arm.graspAt(cube + 0.11 * up), 50.0));
    ASSERT_TRUE(arm.moveTo(arm.graspAt(cube + 0.012 * up), 20.0));
    ASSERT_EQ(arm.kernel->set_end_effector(0.0, 10.0), 1);
    EXPECT_TRUE(waitUntil([&] { return arm.kernel->get_end_effector_tau() > 5.0; }, 5000ms)) << "no grip";
    std::this_thread::sleep_for(500ms);
    ASSERT_TRUE(arm.moveTo(arm.graspAt(cube + 0.25 * up), 100.0));
    // The cube sways in the grip after the lift: let two simulated seconds pass
    // (more than two of the wall's on a loaded machine).
    sim::PhysicsWorld& physics = *arm.simulator.physics();
    const double lifted = physics.stats().simulated_seconds;
    EXPECT_TRUE(waitUntil([&] { return physics.stats().simulated_seconds > lifted + 2.0; }, 20000ms));
    const KDL::Vector held = arm.body("cube");
    ASSERT_GT(held.z(), cube.z() + 0.2) << "the cube slipped out";

    // Weight at the cube's centre: τ_j = F·(v_j + ω_j × r), F = (0, 0, -m g).
    const std::vector<double> joints = arm.kernel->get_joint_pos();
    std::vector<double> jacobian;
    arm.kinematics.jacobian(joints, jacobian);
    const KDL::Vector r = held - arm.kinematics.flange(joints).p, weight(0.0, 0.0, -kCubeMass * 9.81);
    std::vector<double> expected(6), measured(6, 0.0);
    for (int j = 0; j < 6; ++j) {
        const KDL::Vector v(jacobian[j], jacobian[6 + j], jacobian[12 + j]);
        const KDL::Vector w(jacobian[18 + j], jacobian[24 + j], jacobian[30 + j]);
        expected[j] = KDL::dot(weight, v + w * r);
    }
    // Averaged over two seconds: what is left of the sway cancels out.
    constexpr int kSamples = 100;
    for (int s = 0; s < kSamples; ++s) {
        const std::vector<double> tau = arm.kernel->get_joint_external_tau();
        for (int j = 0; j < 6; ++j) measured[j] += tau.at(j) / kSamples;
        std::this_thread::sleep_for(20ms);
    }
    double error = 0.0, size = 0.0;
    for (int j = 0; j < 6; ++j) {
        error += (measured[j] - expected[j]) * (measured[j] - expected[j]);
        size += expected[j] * expected[j];
    }
    std::printf("held cube: |measured - Jᵀ·m·g| = %.4f Nm of |Jᵀ·m·g| = %.4f Nm\n", std::sqrt(error), std::sqrt(size));
    EXPECT_LT(std::sqrt(error), 0.02 * std::sqrt(size));
}

TEST(PhysicsContact, PressingOnTheTablePushesTheFlangeUp) {
    PhysicsArm arm(physicsOptions("table_cube"));
    ASSERT_TRUE(arm.ready());
    ASSERT_TRUE(arm.moveTo(kHome, 50.0));
    const KDL::Vector clear_of_the_cube(0.4, -0.1, 0.0);
    ASSERT_TRUE(arm.moveTo(arm.graspAt(clear_of_the_cube + KDL::Vector(0, 0, 0.1)), 50.0));
    // The fingertips reach 2 cm beyond the holding point: 1 cm into the table.
    ASSERT_TRUE(arm.moveTo(arm.graspAt(clear_of_the_cube + KDL::Vector(0, 0, 0.01)), 10.0));
    std::this_thread::sleep_for(300ms);
    const std::vector<double> force = arm.kernel->get_cart_external_force();
    ASSERT_EQ(force.size(), 6u);
    EXPECT_GT(force[2], 5.0);
    EXPECT_GT(force[2], 3.0 * std::hypot(force[0], force[1]));
}

// Ten runs at once, a seed each: the scripted operator on the master, the
// slave following in joint mode with the cube of its own scene.
TEST(PhysicsTask, PickAndPlaceSucceedsForNineOfTenSeeds) {
    constexpr int kRuns = 10;
    std::vector<std::unique_ptr<Teleoperation>> runs;
    for (std::uint32_t seed = 1; seed <= kRuns; ++seed) {
        runs.push_back(
            std::make_unique<Teleoperation>(pickPlaceMaster("table_cube", seed), pickPlaceSlave(seed), false));
    }
    std::vector<std::future<bool>> started;
    for (auto& run : runs) started.push_back(std::async(std::launch::async, [&run] { return run->start(); }));
    int succeeded = 0;
    for (int i = 0; i < kRuns; ++i) {
        ASSERT_TRUE(started[i].get()) << "seed " << i + 1 << " did not start";
    }
    for (int i = 0; i < kRuns; ++i) {
        sim::PhysicsWorld& slave = *runs[i]->slave().simulator.physics();
        const bool done = waitUntil([&] { return slave.taskSucceeded(0); }, std::chrono::milliseconds(kTaskWaitMs));
        std::printf("pick-and-place seed %d: %s\n", i + 1, done ? "succeeded" : "failed");
        succeeded += done ? 1 : 0;
    }
    std::printf("pick-and-place: %d of %d succeeded\n", succeeded, kRuns);
    EXPECT_GE(succeeded, 9);
}

// The master's task lies 3 cm below the slave's table, so the slave presses
// into it; fed back, the contact moves the master's hand and eases the press.
TEST(PhysicsForceFeedback, FeedbackLowersTheContactForce) {
    std::ifstream original(sim::resolveScenePath("table_cube"));
    std::stringstream text;
    text << original.rdbuf();
    std::string lowered = text.str();
    const std::string cube = "pos=\"0.55 0.1 0.02\"";
    ASSERT_NE(lowered.find(cube), std::string::npos);
    lowered.replace(lowered.find(cube), cube.size(), "pos=\"0.55 0.1 -0.01\"");
    const std::string task_scene = testing::TempDir() + "lowered_table_cube.xml";
    std::ofstream(task_scene) << lowered;

    double pressing[2] = {0.0, 0.0};  // [N] upwards at the slave's flange, while the hand holds still at the cube
    for (const bool feedback : {false, true}) {
        Teleoperation run(pickPlaceMaster(task_scene, 1), pickPlaceSlave(1), feedback);
        ASSERT_TRUE(run.start());
        // The hand is down at the cube from 3.5 s to 4.5 s of its path.
        std::this_thread::sleep_for(3900ms);
        constexpr int kSamples = 20;
        for (int s = 0; s < kSamples; ++s) {
            pressing[feedback] += run.slave().kernel->get_cart_external_force().at(2) / kSamples;
            std::this_thread::sleep_for(20ms);
        }
    }
    std::printf("slave pressing on the table: %.1f N in joint mode, %.1f N with force feedback\n", pressing[0],
                pressing[1]);
    EXPECT_GT(pressing[0], 1.0);
    EXPECT_LT(pressing[1], pressing[0]);
}

// ---- the console program refuses bad input with a message and exit code 1 ----

struct Outcome {
    int code = -1;
    std::string output;
};

Outcome runSimulator(const std::string& arguments) {
    const std::string command =
        std::string("timeout 20 ") + KELM_SIM_PROGRAM + " --port 0 --quiet " + arguments + " 2>&1";
    Outcome outcome;
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[512];
    while (pipe && fgets(buffer, sizeof(buffer), pipe)) outcome.output += buffer;
    const int status = pipe ? pclose(pipe) : -1;
    outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

std::string writeFile(const std::string& name, const std::string& text) {
    const std::string path = testing::TempDir() + name;
    std::ofstream(path) << text;
    return path;
}

TEST(PhysicsBadInput, EachBadSceneExitsOneNamingTheProblem) {
    std::ifstream urdf_file(sim::armModel().path);
    std::stringstream urdf;
    urdf << urdf_file.rdbuf();
    std::string no_gripper = urdf.str();
    no_gripper.erase(no_gripper.find("<joint name=\"finger_left\""));
    no_gripper += "</robot>\n";
    const std::string extra_joint = writeFile(
        "extra_joint.xml",
        "<mujoco><compiler angle=\"radian\"/><worldbody><body name=\"arm0_mount\"><include file=\"arm0.xml\"/></body>"
        "<body name=\"stand\"><joint name=\"arm0_extra\" type=\"hinge\"/><geom size=\"0.1\" mass=\"1\"/></body>"
        "</worldbody></mujoco>");
    const struct {
        std::string arguments, message;
    } cases[] = {
        {"--scene " + testing::TempDir() + "missing.xml", "cannot be read"},
        {"--scene " + writeFile("broken.xml", "<mujoco><worldbody>"), "broken.xml"},
        {"--scene table_cube --model " + writeFile("no_gripper.urdf", no_gripper), "no gripper"},
        {"--scene " + extra_joint, "not the 6 of --dof"},
        {"--scene bimanual", "beyond the 1 arm(s) of --arms"},
        {"--operator pick-place", "needs the task's scene"},
        {"--scene table_cube --camera wrist", "its cameras: front, top"},
        {"--scene table_cube --camera front --camera front", "asked for twice"},
        {"--camera front", "give --scene"},
        {"--scene table_cube --camera front:10x10", "bad value 'front:10x10'"},
        {"--scene table_cube --camera front@0", "bad value 'front@0'"},
    };
    for (const auto& entry : cases) {
        const Outcome outcome = runSimulator(entry.arguments);
        EXPECT_EQ(outcome.code, 1) << entry.arguments << ": " << outcome.output;
        EXPECT_NE(outcome.output.find(entry.message), std::string::npos) << entry.arguments << ": " << outcome.output;
    }
}

}  // namespace
}  // namespace test
}  // namespace kelm
