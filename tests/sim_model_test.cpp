// The simulator's model without a network: kinematics, motion profiles, the
// arm's state machine through requests, and the state frame's format.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <memory>
#include <random>

#include "arm_kinematics.h"
#include "planned_motion.h"
#include "sim_model.h"
#include "sim_options.h"

namespace kelm {
namespace sim {
namespace {

constexpr double kDt = 0.002;

std::vector<double> randomJoints(std::mt19937& random, const JointLimits& limits) {
    std::vector<double> joints(limits.lower.size());
    for (size_t i = 0; i < joints.size(); ++i) {
        std::uniform_real_distribution<double> pick(0.8 * limits.lower[i], 0.8 * limits.upper[i]);
        joints[i] = pick(random);
    }
    // Keep away from the wrist singularity, where the solution is not unique.
    if (std::fabs(joints[4]) < 0.3) joints[4] = joints[4] < 0 ? -0.3 : 0.3;
    return joints;
}

TEST(SimKinematics, InverseOfForwardGivesBackTheJoints) {
    const ArmKinematics kinematics(6);
    const JointLimits limits = defaultJointLimits(6);
    std::mt19937 random(7);
    for (int trial = 0; trial < 50; ++trial) {
        const std::vector<double> joints = randomJoints(random, limits);
        std::vector<double> seed = joints;
        for (double& q : seed) q += 0.05;
        std::vector<double> solved;
        ASSERT_TRUE(kinematics.inverse(kinematics.flange(joints), seed, limits, solved)) << "trial " << trial;
        for (size_t i = 0; i < joints.size(); ++i) EXPECT_NEAR(solved[i], joints[i], 1e-6) << "trial " << trial;
    }
}

TEST(SimKinematics, UnreachablePoseHasNoSolution) {
    const ArmKinematics kinematics(6);
    std::vector<double> solved{1, 2, 3};
    const KDL::Frame far_away(KDL::Vector(3.0, 0.0, 0.5));
    EXPECT_FALSE(kinematics.inverse(far_away, std::vector<double>(6, 0.1), defaultJointLimits(6), solved));
    EXPECT_EQ(solved, (std::vector<double>{1, 2, 3}));
}

TEST(SimKinematics, JacobianMatchesFiniteDifferences) {
    for (int dof : {6, 7}) {
        const ArmKinematics kinematics(dof);
        std::mt19937 random(11);
        const std::vector<double> joints = randomJoints(random, defaultJointLimits(dof));
        std::vector<double> jacobian;
        kinematics.jacobian(joints, jacobian);
        const double h = 1e-6;
        for (int i = 0; i < dof; ++i) {
            std::vector<double> before = joints, after = joints;
            before[i] -= h;
            after[i] += h;
            const KDL::Frame a = kinematics.flange(before), b = kinematics.flange(after);
            const KDL::Vector linear = (b.p - a.p) / (2 * h);
            const KDL::Rotation turn = b.M * a.M.Inverse();  // about I + [w]x (2h)
            const KDL::Vector angular(turn(2, 1) - turn(1, 2), turn(0, 2) - turn(2, 0), turn(1, 0) - turn(0, 1));
            for (int row = 0; row < 6; ++row) {
                const double expected = row < 3 ? linear[row] : angular[row - 3] / (4 * h);
                EXPECT_NEAR(jacobian[row * dof + i], expected, 1e-6) << "dof " << dof << " joint " << i;
            }
        }
    }
}

TEST(SimMotion, TrapezoidStaysWithinItsBounds) {
    const struct {
        double speed, accel;
    } cases[] = {{1.0, 4.0}, {0.2, 10.0}, {5.0, 1.0}, {0.05, 0.05}};
    for (const auto& c : cases) {
        const TrapezoidProfile profile = TrapezoidProfile::make(c.speed, c.accel);
        EXPECT_EQ(profile.at(0.0), 0.0);
        EXPECT_DOUBLE_EQ(profile.at(profile.duration), 1.0);
        const double h = profile.duration / 2000.0;
        double last_speed = 0.0;
        for (int k = 1; k <= 2000; ++k) {
            const double speed = (profile.at(k * h) - profile.at((k - 1) * h)) / h;
            ASSERT_GE(speed, -1e-12);
            ASSERT_LE(speed, c.speed * (1 + 1e-9) + 1e-12);
            ASSERT_LE(std::fabs(speed - last_speed) / h, c.accel * 1.01) << "step " << k;
            last_speed = speed;
        }
    }
}

TEST(SimMotion, JointPathRespectsScaledLimitsAndEndsOnTarget) {
    const JointLimits limits = defaultJointLimits(6);
    const std::vector<double> start{0, 0, 0, 0, -1.57, 0};
    const std::vector<double> target{1.0, -0.5, 0.8, 2.0, -0.5, -3.0};
    for (double fraction : {1.0, 0.3}) {
        const PlannedMotion motion = pathMotion({start, target}, {}, limits, fraction);
        std::vector<double> previous = start, joints;
        double gripper = 0.0;
        for (double t = kDt; t < motion.duration() + kDt; t += kDt) {
            EXPECT_FALSE(motion.sample(t, joints, gripper));
            for (size_t i = 0; i < joints.size(); ++i)
                ASSERT_LE(std::fabs(joints[i] - previous[i]) / kDt, limits.vel[i] * fraction * 1.001);
            previous = joints;
        }
        EXPECT_EQ(previous, target);
    }
}

TEST(SimMotion, TimedMotionPassesItsPointsAtTheirTimes) {
    const std::vector<std::vector<double>> points{{0.0, 0.0}, {0.5, -0.2}, {0.4, 0.3}, {1.0, 1.0}};
    const std::vector<double> times{0.0, 0.5, 1.25, 2.0};
    const PlannedMotion motion = timedMotion(times, points, {0.0, 0.02, 0.04, 0.08});
    EXPECT_DOUBLE_EQ(motion.duration(), 2.0);
    std::vector<double> joints;
    for (size_t k = 0; k < points.size(); ++k) {
        double gripper = -1.0;
        EXPECT_TRUE(motion.sample(times[k], joints, gripper));
        EXPECT_NEAR(joints[0], points[k][0], 1e-12);
        EXPECT_NEAR(joints[1], points[k][1], 1e-12);
        EXPECT_NEAR(gripper, 0.02 * k + (k == 3 ? 0.02 : 0.0), 1e-12);
    }
}

// A model with one arm, driven through requests as a client would.
class SimModelTest : public ::testing::Test {
protected:
    Json::Value request(const std::string& command, Json::Value members = Json::Value(Json::objectValue)) {
        members["command"] = command;
        members["task_key"] = "key" + std::to_string(++sequence);
        members["arm_index"] = members.get("arm_index", 0);
        return members;
    }

    std::string recv(const Json::Value& message) {
        const auto reply = model.handle(message);
        EXPECT_TRUE(reply.has_value());
        if (!reply) return std::string();
        EXPECT_EQ((*reply)["command"], message["command"]);
        EXPECT_EQ((*reply)["task_key"], message["task_key"]);
        return (*reply)["recv"].asString();
    }

    void makeReady() {
        Json::Value servo;
        servo["enable"] = true;
        ASSERT_EQ(recv(request("setServoEnable", servo)), kRecvTaken);
        Json::Value mode;
        mode["mode"] = 0;
        ASSERT_EQ(recv(request("setControlMode", mode)), kRecvTaken);
        model.step(kDt);
    }

    Json::Value jointMove(const std::vector<double>& target, double speed = 100.0) {
        Json::Value members;
        members["task_id"] = "TASK_MOVJ";
        members["point_type"]["space"] = 0;
        members["data"]["speed"] = speed;
        for (double value : target) members["data"]["target_pos"].append(value);
        return request("webRecieveTasks", members);
    }

    Json::Value stopSignal(const std::string& id) {
        Json::Value members;
        members["stop_id"] = id;
        return request("stopSignals", members);
    }

    // Steps until `done` holds, at most `seconds` of simulated time.
    template <typename Done>
    bool stepUntil(Done done, double seconds = 20.0) {
        for (double t = 0.0; t < seconds; t += kDt) {
            model.step(kDt);
            if (done(model.telemetry(0))) return true;
        }
        return false;
    }

    SimModel model{1, 6, OperatorSettings{}, WallSettings{}};
    int sequence = 0;
};

TEST_F(SimModelTest, RequestsAreRefusedWithTheirReason) {
    const std::vector<double> inside{0, 0, 0, 0, -1.57, 0};
    EXPECT_EQ(recv(jointMove(inside)), kRecvRefused) << "servo off";
    EXPECT_EQ(recv(request("noSuchCommand")), kRecvRefused);
    Json::Value other_arm;
    other_arm["arm_index"] = 3;
    other_arm["enable"] = true;
    EXPECT_EQ(recv(request("setServoEnable", other_arm)), kRecvRefused);
    makeReady();
    const struct {
        const char* what;
        std::vector<double> target;
    } bad_targets[] = {
        {"above a limit", {3.0, 0, 0, 0, -1.57, 0}},
        {"below a limit", {0, -2.0, 0, 0, -1.57, 0}},
        {"too short", {0, 0, 0, 0, -1.57}},
        {"too long", {0, 0, 0, 0, -1.57, 0, 0}},
    };
    for (const auto& bad : bad_targets) {
        const auto reply = model.handle(jointMove(bad.target));
        ASSERT_TRUE(reply);
        EXPECT_EQ((*reply)["recv"], kRecvRefused) << bad.what;
        EXPECT_FALSE((*reply)["err_msg"].asString().empty()) << bad.what;
    }
    Json::Value unreachable;
    unreachable["task_id"] = "TASK_MOVJ";
    unreachable["point_type"]["space"] = 1;
    for (double value : {3.0, 0.0, 0.5, 0.0, 0.0, 0.0, 1.0}) unreachable["data"]["target_pos"].append(value);
    EXPECT_EQ(recv(request("webRecieveTasks", unreachable)), kRecvRefused);
    EXPECT_EQ(recv(jointMove(inside)), kRecvTaken);
}

TEST_F(SimModelTest, StreamingCommandsGetNoReply) {
    makeReady();
    Json::Value tracking;
    tracking["task_id"] = "TASK_TRACKING";
    for (double value : {0.1, 0.0, 0.0, 0.0, -1.57, 0.0}) tracking["data"]["way_point"].append(value);
    EXPECT_FALSE(model.handle(request("trajectoryTrackingTasks", tracking)));
    Json::Value tau;
    for (int i = 0; i < 6; ++i) tau["redundancy_tau"].append(1.0);
    tau["eeff_tau"] = 0.5;
    EXPECT_FALSE(model.handle(request("setRedundancyTau", tau)));
    EXPECT_EQ(model.redundancyTau(0), std::vector<double>(6, 1.0));
    Json::Value gripper;
    gripper["pos"] = 0.05;
    gripper["tau"] = 5.0;
    EXPECT_FALSE(model.handle(request("setEffectorCtr", gripper)));
    EXPECT_TRUE(stepUntil([](const ArmTelemetry& arm) { return std::fabs(arm.gripper_pos - 0.05) < 1e-9; }));
}

TEST_F(SimModelTest, TasksRunInOrderAndReportTheirKeys) {
    makeReady();
    const std::vector<double> first{0.5, 0, 0, 0, -1.57, 0};
    const std::vector<double> second{0.5, 0.3, -0.3, 0, -1.0, 0};
    const Json::Value move1 = jointMove(first), move2 = jointMove(second, 50.0);
    ASSERT_EQ(recv(move1), kRecvTaken);
    ASSERT_EQ(recv(move2), kRecvTaken);
    model.step(kDt);
    EXPECT_EQ(model.telemetry(0).motion_state, 1);
    EXPECT_EQ(model.telemetry(0).exe_task_key, move1["task_key"].asString());
    // The frame that shows the end of a task comes before the one with its key.
    ASSERT_TRUE(stepUntil([&](const ArmTelemetry& arm) { return arm.exe_task_key == move2["task_key"].asString(); }));
    EXPECT_NE(model.telemetry(0).last_task_key, move1["task_key"].asString());
    for (size_t i = 0; i < first.size(); ++i) EXPECT_NEAR(model.telemetry(0).joints[i], first[i], 1e-4);
    model.step(kDt);
    EXPECT_EQ(model.telemetry(0).last_task_key, move1["task_key"].asString());
    ASSERT_TRUE(stepUntil([&](const ArmTelemetry& arm) { return arm.last_task_key == move2["task_key"].asString(); }));
    EXPECT_EQ(model.telemetry(0).joints, second);
    EXPECT_EQ(model.telemetry(0).motion_state, 0);
}

TEST_F(SimModelTest, PauseHoldsRecoverResumesStopEnds) {
    makeReady();
    const Json::Value move = jointMove({2.0, 0, 0, 0, -1.57, 0}, 20.0);
    ASSERT_EQ(recv(move), kRecvTaken);
    for (int k = 0; k < 100; ++k) model.step(kDt);
    ASSERT_EQ(recv(stopSignal("SIG_ARM_PAUSE")), kRecvTaken);
    for (int k = 0; k < 200; ++k) model.step(kDt);  // the arm brakes within 0.2 s
    const double held = model.telemetry(0).joints[0];
    for (int k = 0; k < 100; ++k) model.step(kDt);
    EXPECT_EQ(model.telemetry(0).joints[0], held);
    EXPECT_EQ(model.telemetry(0).motion_state, 1);
    ASSERT_EQ(recv(stopSignal("SIG_ARM_RECOVER")), kRecvTaken);
    for (int k = 0; k < 200; ++k) model.step(kDt);
    EXPECT_GT(model.telemetry(0).joints[0], held);
    ASSERT_EQ(recv(stopSignal("SIG_ARM_STOP")), kRecvTaken);
    ASSERT_TRUE(stepUntil([&](const ArmTelemetry& arm) { return arm.motion_state == 0; }, 1.0));
    model.step(kDt);
    EXPECT_EQ(model.telemetry(0).last_task_key, move["task_key"].asString());
    EXPECT_LT(model.telemetry(0).joints[0], 2.0);
}

TEST_F(SimModelTest, ErrorAbortsTasksUntilReset) {
    makeReady();
    const Json::Value move = jointMove({1.0, 0, 0, 0, -1.57, 0}, 10.0);
    ASSERT_EQ(recv(move), kRecvTaken);
    model.raiseError(0, 13, "task failed");
    model.step(kDt);
    ArmTelemetry arm = model.telemetry(0);
    EXPECT_EQ(arm.motion_state, -1);
    EXPECT_EQ(arm.mode, ArmMode::Error);
    EXPECT_EQ(arm.last_task_key, move["task_key"].asString());
    EXPECT_EQ(recv(jointMove({0.5, 0, 0, 0, -1.57, 0})), kRecvRefused);
    ASSERT_EQ(recv(request("setControllerErrorReset")), kRecvTaken);
    model.step(kDt);
    arm = model.telemetry(0);
    EXPECT_EQ(arm.motion_state, 0);
    EXPECT_EQ(arm.mode, ArmMode::Position);
    EXPECT_EQ(recv(jointMove({0.5, 0, 0, 0, -1.57, 0})), kRecvTaken);
    // A warning is reported but stops nothing.
    model.raiseError(0, kWarningCode, "mind the cable");
    model.step(kDt);
    EXPECT_EQ(model.telemetry(0).motion_state, 1);
    EXPECT_EQ(model.telemetry(0).error_code, kWarningCode);
}

TEST_F(SimModelTest, ModesFollowTheirRequests) {
    makeReady();
    const struct {
        const char* command;
        const char* key;
        int value;
        ArmMode mode;
    } cases[] = {
        {"setControlMode", "mode", 2, ArmMode::Mit},
        {"setControlMode", "mode", 3, ArmMode::Current},
        {"setControlMode", "mode", 4, ArmMode::ForcePosition},
        {"setControlMode", "mode", 1, ArmMode::Position},
        {"setTeleoperationMode", "is_master", 1, ArmMode::Teleoperation},
        {"setTeleoperationMode", "is_master", 2, ArmMode::Teleoperation},
        {"setTeleoperationMode", "is_master", 0, ArmMode::Position},
    };
    for (const auto& c : cases) {
        Json::Value members;
        members[c.key] = c.value;
        EXPECT_EQ(recv(request(c.command, members)), kRecvTaken) << c.command << " " << c.value;
        model.step(kDt);
        EXPECT_EQ(model.telemetry(0).mode, c.mode) << c.command << " " << c.value;
    }
    Json::Value bad;
    bad["mode"] = 5;
    EXPECT_EQ(recv(request("setControlMode", bad)), kRecvRefused);
}

// Every task kind runs to its end where its request says.
TEST_F(SimModelTest, EveryTaskKindEndsWhereItsRequestSays) {
    makeReady();
    const std::vector<double> home{0.0, 0.0, 0.0, 0.0, -1.57, 0.0};
    const ArmKinematics kinematics(6);
    const auto poseOf = [&](const std::vector<double>& joints) { return ArmKinematics::toPose(kinematics.flange(joints)); };
    const auto list = [](const auto& values) {
        Json::Value array(Json::arrayValue);
        for (double value : values) array.append(value);
        return array;
    };
    const auto shifted = [](Pose pose, double dx, double dy, double dz) {
        pose[0] += dx;
        pose[1] += dy;
        pose[2] += dz;
        return pose;
    };
    const std::vector<double> other{0.4, 0.3, -0.4, 0.5, -1.0, 0.7};
    const Pose home_pose = poseOf(home);

    struct Case {
        const char* name;
        Json::Value members;
        std::function<void(const ArmTelemetry&)> check;
        Pose passes_near{};  // when [6] is not 0, the tip must come within 2 mm of it
    };
    const auto endsAtJoints = [](std::vector<double> joints) {
        return [joints](const ArmTelemetry& arm) {
            for (size_t i = 0; i < joints.size(); ++i) EXPECT_NEAR(arm.joints[i], joints[i], 1e-9) << "joint " << i;
        };
    };
    const auto endsAtPose = [](Pose pose) {
        return [pose](const ArmTelemetry& arm) {
            for (size_t i = 0; i < 7; ++i) EXPECT_NEAR(std::fabs(arm.pose[i]), std::fabs(pose[i]), 1e-6) << "value " << i;
        };
    };
    std::vector<Case> cases;
    {
        Json::Value m;
        m["task_id"] = "TASK_MOVJ";
        m["point_type"]["space"] = 1;
        m["data"]["target_pos"] = list(poseOf(other));
        cases.push_back({"joint move to a pose", m, endsAtPose(poseOf(other))});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_MOVL";
        m["point_type"]["space"] = 1;
        m["data"]["point"] = list(shifted(poseOf(other), 0.05, -0.1, 0.08));
        cases.push_back({"line to a pose", m, endsAtPose(shifted(poseOf(other), 0.05, -0.1, 0.08))});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_MOVL";
        m["point_type"]["space"] = 0;
        m["data"]["point"] = list(home);
        cases.push_back({"line to joints", m, endsAtPose(home_pose)});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_MOVC";
        m["point_type"]["space"] = 1;
        m["data"]["type"] = 0;
        m["data"]["points"].append(list(home_pose));
        m["data"]["points"].append(list(shifted(home_pose, 0.0, 0.05, 0.05)));
        m["data"]["points"].append(list(shifted(home_pose, 0.0, 0.1, 0.0)));
        cases.push_back({"arc through three points", m, endsAtPose(shifted(home_pose, 0.0, 0.1, 0.0)),
                         shifted(home_pose, 0.0, 0.05, 0.05)});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_MOVC";
        m["point_type"]["space"] = 1;
        m["data"]["type"] = 1;
        m["data"]["dir"] = 0;
        m["data"]["radian"] = 3.14159265358979323846 / 2;
        m["data"]["points"].append(list(shifted(home_pose, 0.0, 0.1, 0.0)));
        m["data"]["points"].append(list(shifted(home_pose, 0.0, 0.05, 0.0)));
        m["data"]["points"].append(list(shifted(home_pose, 0.0, 0.05, 0.05)));
        cases.push_back({"quarter arc about a centre", m, endsAtPose(shifted(home_pose, 0.0, 0.05, 0.05))});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_MOVT";
        m["point_type"]["space"] = 0;
        m["data"]["point_num"] = 2;
        m["data"]["way_point1"] = list(other);
        m["data"]["way_point2"] = list(home);
        cases.push_back({"way-points", m, endsAtJoints(home), poseOf(other)});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_PVT";
        m["point_type"]["space"] = 0;
        m["data"]["pos"].append(list(other));
        m["data"]["pos"].append(list(home));
        m["data"]["time"] = list(std::vector<double>{1.0, 2.0});
        m["gripper"]["gripper_linkage"] = 1;
        m["gripper"]["eeffe_point"] = list(std::vector<double>{0.02, 0.07});
        cases.push_back({"timed points", m, [&](const ArmTelemetry& arm) {
                             endsAtJoints(home)(arm);
                             EXPECT_NEAR(arm.gripper_pos, 0.07, 1e-12);
                         }});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_MOVD";
        m["target_points"].append(list(other));
        m["target_points"].append(list(home));
        m["gripper"]["gripper_linkage"] = 0;
        cases.push_back({"direct points", m, endsAtJoints(home)});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_TIMER";
        m["data"]["time"] = 0.3;
        cases.push_back({"pause", m, endsAtJoints(home)});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_MOVJ_JOG";
        m["index"] = 2;
        m["dir"] = 1;
        m["data"]["speed"] = 50.0;
        cases.push_back({"joint jog", m, endsAtJoints({0.0, 0.0, 0.05, 0.0, -1.57, 0.0})});
    }
    {
        Json::Value m;
        m["task_id"] = "TASK_MOVL_JOG";
        m["index"] = 2;
        m["dir"] = -1;
        m["data"]["speed"] = 50.0;
        Pose lower = poseOf({0.0, 0.0, 0.05, 0.0, -1.57, 0.0});
        lower[2] -= 0.005;
        cases.push_back({"line jog", m, endsAtPose(lower)});
    }
    for (const auto& c : cases) {
        const Json::Value task = request("webRecieveTasks", c.members);
        ASSERT_EQ(recv(task), kRecvTaken) << c.name;
        double nearest = 1e9;
        ASSERT_TRUE(stepUntil([&](const ArmTelemetry& arm) {
            const double d = std::hypot(arm.pose[0] - c.passes_near[0], arm.pose[1] - c.passes_near[1],
                                        arm.pose[2] - c.passes_near[2]);
            nearest = std::min(nearest, d);
            return arm.last_task_key == task["task_key"].asString();
        })) << c.name;
        SCOPED_TRACE(c.name);
        c.check(model.telemetry(0));
        if (c.passes_near[6] != 0.0) {
            EXPECT_LT(nearest, 0.002);
        }
    }
}

TEST_F(SimModelTest, OperatorMovesDragModeSmoothlyWithinBounds) {
    makeReady();
    Json::Value drag;
    drag["mode"] = 3;
    ASSERT_EQ(recv(request("setControlMode", drag)), kRecvTaken);
    const std::vector<double> anchor = model.telemetry(0).joints;
    const JointLimits limits = defaultJointLimits(6);
    std::vector<double> previous = anchor;
    double largest = 0.0;
    for (int k = 0; k < 2000; ++k) {
        model.step(kDt);
        const std::vector<double>& joints = model.telemetry(0).joints;
        for (size_t i = 0; i < joints.size(); ++i) {
            largest = std::max(largest, std::fabs(joints[i] - anchor[i]));
            ASSERT_LE(std::fabs(joints[i] - previous[i]) / kDt, limits.vel[i]) << "step " << k;
        }
        previous = joints;
    }
    EXPECT_GT(largest, 0.05);
    EXPECT_LE(largest, OperatorSettings{}.amplitude + 1e-12);
}

TEST(SimWall, ContactPushesUpAndMapsThroughTheJacobian) {
    WallSettings wall;
    wall.enabled = true;
    wall.height = 2.0;  // every pose is below it
    wall.stiffness = 1000.0;
    SimModel model(1, 6, OperatorSettings{}, wall);
    model.step(kDt);
    const ArmTelemetry arm = model.telemetry(0);
    const double depth = wall.height - arm.pose_tool[2];
    EXPECT_NEAR(arm.cart_force[2], wall.stiffness * depth, 1e-9);
    const ArmKinematics kinematics(6);
    std::vector<double> jacobian;
    kinematics.jacobian(arm.joints, jacobian);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(arm.external_tau[i], jacobian[2 * 6 + i] * arm.cart_force[2], 1e-9);
}

TEST(SimFrame, EveryKeyHasTheTypeClientsRead) {
    SimModel model(2, 6, OperatorSettings{}, WallSettings{});
    model.raiseError(1, 5, "link \"lost\"");
    model.step(kDt);
    StateFrameWriter writer;
    const std::string text = model.writeFrame(writer, 42, 1700000000.25);
    Json::Value frame;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &frame, nullptr)) << text;
    EXPECT_EQ(frame["command"], "webSendRobotState");
    EXPECT_EQ(frame["count"], "42");
    ASSERT_TRUE(frame["Unix_time_stamp"].isString());
    EXPECT_DOUBLE_EQ(std::stod(frame["Unix_time_stamp"].asString()), 1700000000.25);
    EXPECT_TRUE(frame["debug"].isBool());
    EXPECT_EQ(frame["error"], 5);
    EXPECT_EQ(frame["error_arm_index"], 1);
    EXPECT_EQ(frame["errMsg"], "link \"lost\"");
    ASSERT_EQ(frame["arm"].size(), 2u);
    using Check = bool (Json::Value::*)() const;
    const std::pair<const char*, Check> arm_keys[] = {
        {"arm_index", &Json::Value::isInt},        {"arm_name", &Json::Value::isString},
        {"arm_dof", &Json::Value::isInt},          {"axises", &Json::Value::isArray},
        {"gripper", &Json::Value::isObject},       {"reality", &Json::Value::isObject},
        {"plan", &Json::Value::isObject},          {"cart_external_force", &Json::Value::isArray},
        {"joint_external_tau", &Json::Value::isArray}, {"pose", &Json::Value::isArray},
        {"pose_tool", &Json::Value::isArray},      {"pose_user", &Json::Value::isArray},
        {"pose_aut", &Json::Value::isArray},       {"servo", &Json::Value::isBool},
        {"motion_state", &Json::Value::isInt},     {"fsm_state", &Json::Value::isString},
        {"vel_per", &Json::Value::isNumeric},      {"tool", &Json::Value::isInt},
        {"user", &Json::Value::isInt},             {"task", &Json::Value::isObject},
    };
    for (Json::ArrayIndex index = 0; index < 2; ++index) {
        const Json::Value& arm = frame["arm"][index];
        for (const auto& [key, check] : arm_keys) EXPECT_TRUE((arm[key].*check)()) << key;
        EXPECT_EQ(arm["arm_index"], static_cast<int>(index));
        EXPECT_EQ(arm["pose"].size(), 7u);
        for (const char* key : {"pose", "vel", "torque"}) {
            EXPECT_EQ(arm["reality"][key].size(), 6u) << key;
            EXPECT_EQ(arm["plan"][key].size(), 6u) << key;
        }
        EXPECT_TRUE(arm["gripper"]["gripper_state"].isInt());
        EXPECT_TRUE(arm["gripper"]["is_connect"].isBool());
        EXPECT_TRUE(arm["task"]["exe_flag"].isBool());
        EXPECT_TRUE(arm["task"]["last_task_key"].isString());
        EXPECT_TRUE(arm["task"]["exe_task_key"].isString());
        const Json::Value& axis = arm["axises"][5];
        for (const char* key : {"index", "mode", "servo", "code", "run_state"}) EXPECT_TRUE(axis[key].isInt()) << key;
        EXPECT_TRUE(axis["msg"].isString());
    }
    EXPECT_EQ(frame["arm"][0]["fsm_state"], "IDLE");
    EXPECT_EQ(frame["arm"][1]["fsm_state"], "ERROR");
    EXPECT_EQ(frame["arm"][1]["motion_state"], -1);
}

TEST(SimOptionsParse, AcceptsGoodAndNamesBadArguments) {
    const struct {
        std::vector<const char*> args;
        ParseResult result;
    } cases[] = {
        {{"--port", "0", "--arms", "2", "--rate", "1000", "--dof", "7"}, ParseResult::Run},
        {{"--wall", "0.3,1500", "--operator", "off", "--arms", "2", "--error", "1:13:boom"}, ParseResult::Run},
        {{"-h"}, ParseResult::Help},
        {{"--arms", "3"}, ParseResult::Error},
        {{"--port", "70000"}, ParseResult::Error},
        {{"--rate", "fast"}, ParseResult::Error},
        {{"--operator", "maybe"}, ParseResult::Error},
        {{"--error", "1:13"}, ParseResult::Error},  // arm 1 of a one-arm controller
        {{"--bogus"}, ParseResult::Error},
        {{"--port"}, ParseResult::Error},
        {{"stray"}, ParseResult::Error},
    };
    for (const auto& c : cases) {
        std::vector<char*> argv{const_cast<char*>("kelm_sim")};
        for (const char* arg : c.args) argv.push_back(const_cast<char*>(arg));
        SimOptions options;
        std::string error;
        EXPECT_EQ(parseSimOptions(static_cast<int>(argv.size()), argv.data(), options, error), c.result)
            << c.args.front();
        if (c.result == ParseResult::Error) {
            EXPECT_FALSE(error.empty()) << c.args.front();
        }
    }
    SimOptions options;
    std::string error;
    std::vector<char*> argv{const_cast<char*>("kelm_sim"), const_cast<char*>("--wall"), const_cast<char*>("0.3,1500")};
    ASSERT_EQ(parseSimOptions(3, argv.data(), options, error), ParseResult::Run);
    EXPECT_TRUE(options.wall.enabled);
    EXPECT_DOUBLE_EQ(options.wall.height, 0.3);
    EXPECT_DOUBLE_EQ(options.wall.stiffness, 1500.0);
}

}  // namespace
}  // namespace sim
}  // namespace kelm
