// SimModel: the simulated controller behind the wire: its arms and the
// services that requests reach.
//
// handle() answers one parsed request with the reply object, or with
// nothing for the three streaming commands. step() advances every arm by one
// cycle and writeFrame() turns their telemetry into a state frame.
//
// Threads: every member is safe from any thread. One model lock guards the
// arms; request threads and the frame loop take it for short spells. Motion
// planning and kinematics batches run outside it on copies, so that a long
// plan never holds up the frame loop.
#pragma once

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim_arm.h"
#include "state_frame_writer.h"

namespace kelm {
namespace sim {

constexpr const char* kRecvTaken = "Task_Recieve";
constexpr const char* kRecvRefused = "Task_Refused";
constexpr const char* kSimVersion = "kelm-sim 1.0.0";

class SimModel {
public:
    SimModel(int arms, int dof, const OperatorSettings& hand, const WallSettings& wall);

    int armCount() const { return static_cast<int>(arms_.size()); }

    // The reply to `request` (command and task_key echoed, recv set), or
    // nothing for a streaming command.
    std::optional<Json::Value> handle(const Json::Value& request);
    // The reply that refuses `request` with `reason`.
    static Json::Value refusal(const Json::Value& request, const std::string& reason);
    static bool isStreaming(const std::string& command);

    // Arms with bodies: each step takes the bodies' readings and gives them
    // their commands. `world` outlives the model's use of it.
    void usePhysics(PhysicsWorld* world);
    // Where the operator's hand finds its pick-and-place task: the physics
    // world's own scene, or `task_scene` (loaded, never stepped).
    void useTaskScene(std::unique_ptr<PhysicsScene> task_scene);

    void step(double dt);
    // Writes the state frame of all arms; the text lives in `writer`.
    const std::string& writeFrame(StateFrameWriter& writer, std::uint64_t count, double unix_time);

    void raiseError(int arm, int code, const std::string& message);
    void resetError(int arm);
    ArmTelemetry telemetry(int arm) const;
    std::vector<double> redundancyTau(int arm) const;
    StreamStats streamStats(int arm) const;
    double effectorTau(int arm) const;
    // Streamed targets that the arm's mode or the kinematics turned down.
    std::uint64_t refusedStreamMessages() const { return refused_stream_messages_.load(); }

private:
    using Handler = std::string (SimModel::*)(const Json::Value& request, Json::Value& reply);
    struct Route {
        Handler handler;
        bool locks_itself;  // plans or solves outside the model lock
    };
    static const std::vector<std::pair<std::string, Route>>& routes();

    // Arm named by the request's arm_index (0 when absent), or null.
    SimArm* armOf(const Json::Value& request, std::string& refusal);

    // ---- commands (sim_model.cpp) ----
    std::string onServo(const Json::Value& request, Json::Value& reply);
    std::string onControlMode(const Json::Value& request, Json::Value& reply);
    std::string onEffector(const Json::Value& request, Json::Value& reply);
    std::string onCollision(const Json::Value& request, Json::Value& reply);
    std::string onTeleoperation(const Json::Value& request, Json::Value& reply);
    std::string onStopSignal(const Json::Value& request, Json::Value& reply);
    std::string onErrorReset(const Json::Value& request, Json::Value& reply);
    std::string onSpeedLevel(const Json::Value& request, Json::Value& reply);
    std::string onDebug(const Json::Value& request, Json::Value& reply);
    std::string onProperties(const Json::Value& request, Json::Value& reply);
    std::string onJointParams(const Json::Value& request, Json::Value& reply);
    std::string onTracking(const Json::Value& request, Json::Value& reply);
    std::string onRedundancyTau(const Json::Value& request, Json::Value& reply);

    // ---- tasks, kinematics, coordinates, recording (sim_model_services.cpp) ----
    std::string onTask(const Json::Value& request, Json::Value& reply);
    std::string onKinematics(const Json::Value& request, Json::Value& reply);
    std::string onGetCoordinate(const Json::Value& request, Json::Value& reply);
    std::string onToolData(const Json::Value& request, Json::Value& reply);
    std::string onUserData(const Json::Value& request, Json::Value& reply);
    std::string onUserCalibration(const Json::Value& request, Json::Value& reply);
    std::string onToolCalibration(const Json::Value& request, Json::Value& reply);
    std::string onTrajRecorder(const Json::Value& request, Json::Value& reply);
    std::string onTeachRecorder(const Json::Value& request, Json::Value& reply);
    std::string onZeroPosition(const Json::Value& request, Json::Value& reply);
    std::string onDynamicsCalibration(const Json::Value& request, Json::Value& reply);
    std::string onReplay(SimArm& arm, const std::string& key, const std::string& name);

    // ---- the physics scene, a simulator's own requests (sim_model_scene.cpp) ----
    std::string onSceneState(const Json::Value& request, Json::Value& reply);
    std::string onResetScene(const Json::Value& request, Json::Value& reply);
    void giveHandTasks();

    mutable std::mutex mutex_;
    std::vector<SimArm> arms_;
    bool debug_ = false;
    bool dynamics_recorded_ = false;
    std::atomic<std::uint64_t> refused_stream_messages_{0};
    std::vector<const ArmTelemetry*> frame_arms_;
    PhysicsWorld* physics_ = nullptr;
    std::unique_ptr<PhysicsScene> task_scene_;
};

}  // namespace sim
}  // namespace kelm
