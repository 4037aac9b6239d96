// PlannedMotion: one planned task of a simulated arm, as a function of time.
//
// Every task kind ends up in the same record: a list of joint knots along a
// parameter, linearly interpolated. For path motions the parameter is the
// joint-space arc length and a trapezoidal speed profile, limited by the
// joints' velocities and accelerations, maps time onto it; for timed motions
// (caller's time stamps, pauses) the parameter is the time itself. A motion
// may also carry gripper knots along the same parameter.
//
// Plain data: built on one thread, then owned by the arm that runs it.
#pragma once

#include <vector>

#include "arm_kinematics.h"

namespace kelm {
namespace sim {

// A path coordinate s that runs from 0 to 1 with bounded speed and
// acceleration, starting and ending at rest.
struct TrapezoidProfile {
    double accel = 1.0;       // [1/s^2]
    double peak_speed = 0.0;  // [1/s]
    double accel_time = 0.0;  // [s]
    double duration = 0.0;    // [s]

    static TrapezoidProfile make(double max_speed, double max_accel);
    double at(double t) const;
};

struct PlannedMotion {
    std::vector<double> knot_param;                // increasing, first 0
    std::vector<std::vector<double>> knot_joints;  // one joint vector per knot
    std::vector<double> knot_gripper;              // empty, or one value per knot
    bool timed = false;                            // knot_param in seconds
    TrapezoidProfile profile;                      // used when not timed

    double duration() const;
    const std::vector<double>& finalJoints() const { return knot_joints.back(); }
    // Joint values at time t (clamped to the motion); writes `gripper` and
    // returns true when the motion carries gripper knots.
    bool sample(double t, std::vector<double>& joints, double& gripper) const;
};

// Stays at `joints` for `seconds`.
PlannedMotion holdMotion(const std::vector<double>& joints, double seconds);

// Moves through `knots` (the first is the start) with the trapezoid that the
// limits allow at `speed_fraction` (0 to 1] of the joints' velocity and
// acceleration. `gripper` is empty or holds one value per knot.
PlannedMotion pathMotion(std::vector<std::vector<double>> knots, std::vector<double> gripper, const JointLimits& limits,
                         double speed_fraction);

// Passes `points` at `times` (seconds after the start, increasing, the start
// itself at time 0 being the first point), on a cubic Hermite curve that
// starts and ends at rest. `gripper` is empty or holds one value per point.
PlannedMotion timedMotion(const std::vector<double>& times, const std::vector<std::vector<double>>& points,
                          const std::vector<double>& gripper);

// A smooth curve through `points` (Catmull-Rom, chord-length spacing),
// returned as dense knots that include every point.
std::vector<std::vector<double>> splineThrough(const std::vector<std::vector<double>>& points);

// True when every knot of `motion` lies within the position limits.
bool withinLimits(const PlannedMotion& motion, const JointLimits& limits);

}  // namespace sim
}  // namespace kelm
