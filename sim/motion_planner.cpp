#include "motion_planner.h"

#include <algorithm>
#include <cmath>

#include "sim_json.h"

namespace kelm {
namespace sim {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kLineStep = 0.002;  // [m] between Cartesian samples
constexpr double kAngleStep = 0.01;  // [rad] between Cartesian samples
constexpr int kMaxCartesianSamples = 400;
constexpr double kMaxJointStepOnPath = 0.25;  // [rad]: more means a branch flip
constexpr double kJointJogStep = 0.05;        // [rad]
constexpr double kLineJogStep = 0.005;        // [m]
constexpr double kRotationJogStep = 0.05;     // [rad]
constexpr double kMaxPvtStep = 3600.0;        // [s]

// Plans one request against one context; each member returns false after
// setting `error`.
class Planner {
public:
    Planner(const Json::Value& request, const PlanContext& context)
        : request_(request), data_(request["data"]), context_(context) {}

    PlanOutcome run() {
        const std::string task = readString(request_, "task_id");
        bool planned = false;
        if (task == "TASK_MOVJ")
            planned = planJointMove();
        else if (task == "TASK_MOVL")
            planned = planLineMove();
        else if (task == "TASK_MOVT")
            planned = planWayPoints();
        else if (task == "TASK_PVT")
            planned = planTimedPoints();
        else if (task == "TASK_MOVC")
            planned = planArc();
        else if (task == "TASK_MOVD")
            planned = planDirectPoints();
        else if (task == "TASK_TIMER")
            planned = planPause();
        else if (task == "TASK_MOVJ_JOG")
            planned = planJointJog();
        else if (task == "TASK_MOVL_JOG")
            planned = planLineJog();
        else
            error_ = "unknown task_id '" + task + "'";
        if (planned && !withinLimits(outcome_.motion, context_.limits)) {
            planned = false;
            error_ = "the path leaves the joint limits";
        }
        if (!planned) outcome_.error = error_.empty() ? std::string("cannot plan the task") : error_;
        return std::move(outcome_);
    }

private:
    bool fail(const std::string& text) {
        error_ = text;
        return false;
    }

    int dof() const { return context_.kinematics->dof(); }
    bool isJointSpace() const { return readInt(request_["point_type"], "space", 0) == 0; }

    double speedFraction() const {
        const double percent = std::clamp(readDouble(data_, "speed", 100.0), 1.0, 100.0);
        return std::max(0.01, percent / 100.0 * context_.speed_scale);
    }

    bool selectFrames(KDL::Frame& tool, KDL::Frame& user) {
        const int tool_index = readInt(data_, "tool", 0);
        const int user_index = readInt(data_, "user", 0);
        if (tool_index < 0 || tool_index >= static_cast<int>(context_.tools.size()))
            return fail("unknown tool index " + std::to_string(tool_index));
        if (user_index < 0 || user_index >= static_cast<int>(context_.users.size()))
            return fail("unknown user index " + std::to_string(user_index));
        tool = context_.tools[tool_index];
        user = context_.users[user_index];
        return true;
    }

    bool readJointTarget(const Json::Value& value, std::vector<double>& joints) {
        if (!readNumbers(value, joints)) return fail("a joint target is missing or not finite");
        if (static_cast<int>(joints.size()) != dof())
            return fail("a joint target has " + std::to_string(joints.size()) + " values, the arm " +
                        std::to_string(dof()));
        for (int i = 0; i < dof(); ++i)
            if (joints[i] < context_.limits.lower[i] || joints[i] > context_.limits.upper[i])
                return fail("joint " + std::to_string(i) + " target " + std::to_string(joints[i]) + " is outside [" +
                            std::to_string(context_.limits.lower[i]) + ", " + std::to_string(context_.limits.upper[i]) +
                            "]");
        return true;
    }

    // A Cartesian target as the tool tip's frame in the base.
    bool readPoseTarget(const Json::Value& value, const KDL::Frame& user, KDL::Frame& tip) {
        std::vector<double> pose;
        if (!readNumbers(value, pose) || pose.size() != 7) return fail("a pose target must hold 7 finite values");
        tip = user * ArmKinematics::toFrame(pose.data());
        return true;
    }

    // A target of either space as the tool tip's frame in the base.
    bool readTipTarget(const Json::Value& value, const KDL::Frame& tool, const KDL::Frame& user, KDL::Frame& tip) {
        if (!isJointSpace()) return readPoseTarget(value, user, tip);
        std::vector<double> joints;
        if (!readJointTarget(value, joints)) return false;
        tip = context_.kinematics->flange(joints) * tool;
        return true;
    }

    bool solve(const KDL::Frame& tip, const KDL::Frame& tool, const std::vector<double>& seed,
               std::vector<double>& joints) {
        if (context_.kinematics->inverse(tip * tool.Inverse(), seed, context_.limits, joints)) return true;
        const Pose pose = ArmKinematics::toPose(tip);
        return fail("no inverse solution for the pose at (" + std::to_string(pose[0]) + ", " + std::to_string(pose[1]) +
                    ", " + std::to_string(pose[2]) + ")");
    }

    // Joint knots along dense tool-tip frames, each solved from the last.
    bool followFrames(const std::vector<KDL::Frame>& tips, const KDL::Frame& tool,
                      std::vector<std::vector<double>>& knots) {
        for (const auto& tip : tips) {
            std::vector<double> joints;
            if (!solve(tip, tool, knots.back(), joints)) return false;
            for (int i = 0; i < dof(); ++i)
                if (std::fabs(joints[i] - knots.back()[i]) > kMaxJointStepOnPath)
                    return fail("the Cartesian path passes a singularity or changes its arm configuration");
            knots.push_back(std::move(joints));
        }
        return true;
    }

    static int samplesFor(double length, double angle) {
        const double count = std::max(length / kLineStep, angle / kAngleStep);
        return std::clamp(static_cast<int>(std::ceil(count)), 1, kMaxCartesianSamples);
    }

    static KDL::Rotation slerp(const KDL::Rotation& from, const KDL::Rotation& to, double f) {
        KDL::Vector axis;
        const double angle = (from.Inverse() * to).GetRotAngle(axis);
        return from * KDL::Rotation::Rot2(axis, angle * f);
    }

    // Dense frames from `from` (excluded) to `to` (included) on a straight line.
    static void appendLine(const KDL::Frame& from, const KDL::Frame& to, std::vector<KDL::Frame>& tips) {
        KDL::Vector axis;
        const double angle = (from.M.Inverse() * to.M).GetRotAngle(axis);
        const int samples = samplesFor(length(to.p - from.p), angle);
        for (int j = 1; j <= samples; ++j) {
            const double f = static_cast<double>(j) / samples;
            tips.emplace_back(slerp(from.M, to.M, f), from.p + (to.p - from.p) * f);
        }
    }

    PlannedMotion straightPath(std::vector<std::vector<double>> knots) const {
        return pathMotion(std::move(knots), {}, context_.limits, speedFraction());
    }

    bool planJointMove() {
        KDL::Frame tool, user;
        if (!selectFrames(tool, user)) return false;
        std::vector<double> target;
        if (isJointSpace()) {
            if (!readJointTarget(data_["target_pos"], target)) return false;
        } else {
            KDL::Frame tip;
            if (!readPoseTarget(data_["target_pos"], user, tip)) return false;
            if (!solve(tip, tool, context_.start_joints, target)) return false;
        }
        outcome_.motion = straightPath({context_.start_joints, target});
        return true;
    }

    bool planLineMove() {
        KDL::Frame tool, user, tip;
        if (!selectFrames(tool, user)) return false;
        if (!readTipTarget(data_["point"], tool, user, tip)) return false;
        std::vector<KDL::Frame> tips;
        appendLine(context_.kinematics->flange(context_.start_joints) * tool, tip, tips);
        std::vector<std::vector<double>> knots{context_.start_joints};
        if (!followFrames(tips, tool, knots)) return false;
        outcome_.motion = straightPath(std::move(knots));
        return true;
    }

    bool planWayPoints() {
        KDL::Frame tool, user;
        if (!selectFrames(tool, user)) return false;
        const int count = readInt(data_, "point_num", 0);
        if (count < 1) return fail("point_num must be at least 1");
        std::vector<std::vector<double>> points{context_.start_joints};
        for (int k = 1; k <= count; ++k) {
            const Json::Value& value = data_["way_point" + std::to_string(k)];
            std::vector<double> joints;
            if (isJointSpace()) {
                if (!readJointTarget(value, joints)) return false;
            } else {
                KDL::Frame tip;
                if (!readPoseTarget(value, user, tip) || !solve(tip, tool, points.back(), joints)) return false;
            }
            points.push_back(std::move(joints));
        }
        outcome_.motion = pathMotion(splineThrough(points), {}, context_.limits, speedFraction());
        return true;
    }

    bool readTimes(size_t count, std::vector<double>& times) {
        std::vector<double> stamps;
        if (!readNumbers(data_["time"], stamps) || stamps.size() != count)
            return fail("data.time must hold one finite stamp per point");
        times = {0.0};
        for (double stamp : stamps) {
            if (stamp <= times.back() || stamp - times.back() >= kMaxPvtStep)
                return fail("time stamps must be above 0 and increasing");
            times.push_back(stamp);
        }
        return true;
    }

    // Gripper positions of a timed or direct task, with the start's in front;
    // empty when the task does not link the gripper.
    bool readGripperPoints(size_t count, std::vector<double>& gripper) {
        gripper.clear();
        const Json::Value& block = request_["gripper"];
        if (readInt(block, "gripper_linkage", 0) != 1) return true;
        std::vector<double> values;
        if (!readNumbers(block["eeffe_point"], values)) return fail("gripper.eeffe_point must hold finite values");
        gripper.push_back(context_.start_gripper);
        for (size_t i = 0; i < count; ++i) {
            const double value = i < values.size() ? values[i] : gripper.back();
            gripper.push_back(std::clamp(value, 0.0, 0.08));
        }
        return true;
    }

    bool planTimedPoints() {
        KDL::Frame tool, user;
        if (!selectFrames(tool, user)) return false;
        const Json::Value& positions = data_["pos"];
        if (!positions.isArray() || positions.empty()) return fail("data.pos must hold at least one point");
        std::vector<double> times, gripper;
        if (!readTimes(positions.size(), times) || !readGripperPoints(positions.size(), gripper)) return false;
        std::vector<std::vector<double>> points{context_.start_joints};
        for (const auto& value : positions) {
            std::vector<double> joints;
            if (isJointSpace()) {
                if (!readJointTarget(value, joints)) return false;
            } else {
                KDL::Frame tip;
                if (!readPoseTarget(value, user, tip) || !solve(tip, tool, points.back(), joints)) return false;
            }
            points.push_back(std::move(joints));
        }
        outcome_.motion = timedMotion(times, points, gripper);
        return true;
    }

    bool planDirectPoints() {
        const Json::Value& targets = request_["target_points"];
        if (!targets.isArray() || targets.empty()) return fail("target_points must hold at least one point");
        std::vector<double> gripper;
        if (!readGripperPoints(targets.size(), gripper)) return false;
        std::vector<std::vector<double>> knots{context_.start_joints};
        for (const auto& value : targets) {
            std::vector<double> joints;
            if (!readJointTarget(value, joints)) return false;
            knots.push_back(std::move(joints));
        }
        outcome_.motion = pathMotion(std::move(knots), std::move(gripper), context_.limits, context_.speed_scale);
        return true;
    }

    bool planPause() {
        double seconds = readDouble(data_, "time", 0.0);
        if (!std::isfinite(seconds) || seconds < 0.0) seconds = 0.0;
        outcome_.motion = holdMotion(context_.start_joints, seconds);
        return true;
    }

    bool planArc() {
        KDL::Frame tool, user;
        if (!selectFrames(tool, user)) return false;
        const Json::Value& points = data_["points"];
        if (!points.isArray() || points.size() != 3) return fail("data.points must hold 3 points");
        std::array<KDL::Frame, 3> tips;
        for (Json::ArrayIndex k = 0; k < 3; ++k)
            if (!readTipTarget(points[k], tool, user, tips[k])) return false;
        std::vector<KDL::Frame> frames;
        appendLine(context_.kinematics->flange(context_.start_joints) * tool, tips[0], frames);
        const bool centred = readInt(data_, "type", 0) == 1;
        if (!(centred ? appendCentreArc(tips, frames) : appendThreePointArc(tips, frames))) return false;
        std::vector<std::vector<double>> knots{context_.start_joints};
        if (!followFrames(frames, tool, knots)) return false;
        outcome_.motion = straightPath(std::move(knots));
        return true;
    }

    // Frames on the circle about `centre` with normal `normal`, from the
    // first tip's position turning by `angle`, orientation blended from the
    // first tip's to the last's.
    static void appendCircle(const std::array<KDL::Frame, 3>& tips, const KDL::Vector& centre, KDL::Vector normal,
                             double angle, std::vector<KDL::Frame>& frames) {
        normal = normal / length(normal);
        const KDL::Vector radius = tips[0].p - centre;
        KDL::Vector unused;
        const double turn = (tips[0].M.Inverse() * tips[2].M).GetRotAngle(unused);
        const int samples = samplesFor(std::fabs(angle) * length(radius), turn);
        for (int j = 1; j <= samples; ++j) {
            const double f = static_cast<double>(j) / samples;
            const KDL::Vector position = centre + KDL::Rotation::Rot2(normal, angle * f) * radius;
            frames.emplace_back(slerp(tips[0].M, tips[2].M, f), position);
        }
    }

    bool appendThreePointArc(const std::array<KDL::Frame, 3>& tips, std::vector<KDL::Frame>& frames) {
        const KDL::Vector a = tips[1].p - tips[0].p;
        const KDL::Vector b = tips[2].p - tips[0].p;
        const KDL::Vector normal = a * b;
        const double area = dot(normal, normal);
        if (area < 1e-12) return fail("the three arc points lie on one line");
        const KDL::Vector centre = tips[0].p + ((b * dot(a, a) - a * dot(b, b)) * normal) / (2.0 * area);
        const KDL::Vector from = tips[0].p - centre;
        const KDL::Vector to = tips[2].p - centre;
        double angle = std::atan2(dot(normal, from * to) / length(normal), dot(from, to));
        if (angle <= 0.0) angle += 2.0 * kPi;
        const double radian = readDouble(data_, "radian", 0.0);
        if (radian > 0.0) angle = radian;
        appendCircle(tips, centre, normal, angle, frames);
        return true;
    }

    bool appendCentreArc(const std::array<KDL::Frame, 3>& tips, std::vector<KDL::Frame>& frames) {
        const KDL::Vector centre = tips[1].p;
        const KDL::Vector from = tips[0].p - centre;
        const KDL::Vector to = tips[2].p - centre;
        if (length(from) < 1e-6) return fail("the arc's start lies on its centre");
        const KDL::Vector normal = from * to;
        if (length(normal) < 1e-9) return fail("the arc's end point does not define its plane");
        double angle = std::atan2(length(normal), dot(from, to));
        const double radian = readDouble(data_, "radian", 0.0);
        const bool other_way = readInt(data_, "dir", 0) == 1;
        if (radian > 0.0)
            angle = other_way ? -radian : radian;
        else if (other_way)
            angle = angle - 2.0 * kPi;
        appendCircle(tips, centre, normal, angle, frames);
        return true;
    }

    static int jogSign(const Json::Value& request) { return readInt(request, "dir", 1) > 0 ? 1 : -1; }

    bool planJointJog() {
        const int index = readInt(request_, "index", -1);
        if (index < 0 || index >= dof()) return fail("jog index " + std::to_string(index) + " is no joint");
        std::vector<double> target = context_.start_joints;
        target[index] = std::clamp(target[index] + jogSign(request_) * kJointJogStep, context_.limits.lower[index],
                                   context_.limits.upper[index]);
        outcome_.motion = straightPath({context_.start_joints, target});
        return true;
    }

    bool planLineJog() {
        const int index = readInt(request_, "index", -1);
        if (index < 0 || index > 5) return fail("jog index " + std::to_string(index) + " is no Cartesian axis");
        KDL::Frame tool, user;
        if (!selectFrames(tool, user)) return false;
        const KDL::Frame start = context_.kinematics->flange(context_.start_joints) * tool;
        KDL::Vector axis;
        axis[index % 3] = 1.0;
        axis = user.M * axis;
        KDL::Frame target = start;
        const int sign = jogSign(request_);
        if (index < 3)
            target.p = start.p + axis * (sign * kLineJogStep);
        else
            target.M = KDL::Rotation::Rot2(axis, sign * kRotationJogStep) * start.M;
        std::vector<KDL::Frame> tips;
        appendLine(start, target, tips);
        std::vector<std::vector<double>> knots{context_.start_joints};
        if (!followFrames(tips, tool, knots)) return false;
        outcome_.motion = straightPath(std::move(knots));
        return true;
    }

    const Json::Value& request_;
    const Json::Value& data_;
    const PlanContext& context_;
    PlanOutcome outcome_;
    std::string error_;
};

}  // namespace

PlanOutcome planTask(const Json::Value& request, const PlanContext& context) { return Planner(request, context).run(); }

bool forwardPose(const PlanContext& context, int tool, int user, const std::vector<double>& joints, Pose& pose) {
    if (tool < 0 || tool >= static_cast<int>(context.tools.size())) return false;
    if (user < 0 || user >= static_cast<int>(context.users.size())) return false;
    pose =
        ArmKinematics::toPose(context.users[user].Inverse() * context.kinematics->flange(joints) * context.tools[tool]);
    return true;
}

bool inversePose(const PlanContext& context, int tool, int user, const Pose& pose, const std::vector<double>& seed,
                 std::vector<double>& joints) {
    if (tool < 0 || tool >= static_cast<int>(context.tools.size())) return false;
    if (user < 0 || user >= static_cast<int>(context.users.size())) return false;
    const KDL::Frame flange = context.users[user] * ArmKinematics::toFrame(pose.data()) * context.tools[tool].Inverse();
    return context.kinematics->inverse(flange, seed, context.limits, joints);
}

}  // namespace sim
}  // namespace kelm
