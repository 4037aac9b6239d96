#include "planned_motion.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kelm {
namespace sim {
namespace {

constexpr int kSplineSamplesPerSegment = 24;
constexpr double kTimedKnotSpacing = 0.004;  // [s]
constexpr int kMaxTimedSamplesPerSegment = 500;

double distance(const std::vector<double>& a, const std::vector<double>& b) {
    double sum = 0.0;
    for (size_t i = 0; i < a.size(); ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
    return std::sqrt(sum);
}

// Index k of the knot interval [k, k+1] that holds `u`.
size_t intervalOf(const std::vector<double>& params, double u) {
    const auto it = std::upper_bound(params.begin(), params.end(), u);
    const size_t after = static_cast<size_t>(it - params.begin());
    if (after == 0) return 0;
    return std::min(after - 1, params.size() - 2);
}

// Cubic Hermite basis on one interval: point at fraction f of it.
double hermite(double p0, double m0, double p1, double m1, double f) {
    const double f2 = f * f, f3 = f2 * f;
    return (2 * f3 - 3 * f2 + 1) * p0 + (f3 - 2 * f2 + f) * m0 + (-2 * f3 + 3 * f2) * p1 + (f3 - f2) * m1;
}

}  // namespace

TrapezoidProfile TrapezoidProfile::make(double max_speed, double max_accel) {
    TrapezoidProfile profile;
    profile.accel = max_accel;
    if (max_speed * max_speed / max_accel >= 1.0) {
        // Never reaches full speed: accelerate to the middle, then brake.
        profile.accel_time = std::sqrt(1.0 / max_accel);
        profile.peak_speed = max_accel * profile.accel_time;
        profile.duration = 2.0 * profile.accel_time;
    } else {
        profile.accel_time = max_speed / max_accel;
        profile.peak_speed = max_speed;
        profile.duration = 1.0 / max_speed + profile.accel_time;
    }
    return profile;
}

double TrapezoidProfile::at(double t) const {
    if (t <= 0.0) return 0.0;
    if (t >= duration) return 1.0;
    if (t < accel_time) return 0.5 * accel * t * t;
    const double braking_start = duration - accel_time;
    if (t <= braking_start) return 0.5 * accel * accel_time * accel_time + peak_speed * (t - accel_time);
    const double remaining = duration - t;
    return 1.0 - 0.5 * accel * remaining * remaining;
}

double PlannedMotion::duration() const { return timed ? knot_param.back() : profile.duration; }

bool PlannedMotion::sample(double t, std::vector<double>& joints, double& gripper) const {
    const double total = knot_param.back();
    double u = timed ? t : profile.at(t) * total;
    u = std::clamp(u, 0.0, total);
    if (knot_param.size() == 1 || u >= total) {
        joints = knot_joints.back();
        if (!knot_gripper.empty()) gripper = knot_gripper.back();
        return !knot_gripper.empty();
    }
    const size_t k = intervalOf(knot_param, u);
    const double span = knot_param[k + 1] - knot_param[k];
    const double f = span > 0.0 ? (u - knot_param[k]) / span : 1.0;
    const auto& a = knot_joints[k];
    const auto& b = knot_joints[k + 1];
    joints.resize(a.size());
    for (size_t i = 0; i < a.size(); ++i) joints[i] = a[i] + f * (b[i] - a[i]);
    if (knot_gripper.empty()) return false;
    gripper = knot_gripper[k] + f * (knot_gripper[k + 1] - knot_gripper[k]);
    return true;
}

PlannedMotion holdMotion(const std::vector<double>& joints, double seconds) {
    PlannedMotion motion;
    motion.timed = true;
    motion.knot_param = {0.0, std::max(0.0, seconds)};
    motion.knot_joints = {joints, joints};
    return motion;
}

PlannedMotion pathMotion(std::vector<std::vector<double>> knots, std::vector<double> gripper, const JointLimits& limits,
                         double speed_fraction) {
    PlannedMotion motion;
    motion.knot_param.push_back(0.0);
    for (size_t k = 1; k < knots.size(); ++k)
        motion.knot_param.push_back(motion.knot_param.back() + distance(knots[k - 1], knots[k]));
    motion.knot_joints = std::move(knots);
    motion.knot_gripper = std::move(gripper);
    const double length = motion.knot_param.back();
    if (length <= 0.0) {
        motion.profile = TrapezoidProfile{};
        return motion;
    }
    // Steepest slope of each joint against the normalised path coordinate.
    const size_t dof = motion.knot_joints.front().size();
    std::vector<double> slope(dof, 0.0);
    for (size_t k = 1; k < motion.knot_joints.size(); ++k) {
        const double ds = (motion.knot_param[k] - motion.knot_param[k - 1]) / length;
        if (ds <= 0.0) continue;
        for (size_t i = 0; i < dof; ++i)
            slope[i] = std::max(slope[i], std::fabs(motion.knot_joints[k][i] - motion.knot_joints[k - 1][i]) / ds);
    }
    double max_speed = std::numeric_limits<double>::max();
    double max_accel = std::numeric_limits<double>::max();
    for (size_t i = 0; i < dof; ++i) {
        if (slope[i] <= 0.0) continue;
        max_speed = std::min(max_speed, limits.vel[i] * speed_fraction / slope[i]);
        max_accel = std::min(max_accel, limits.acc[i] * speed_fraction / slope[i]);
    }
    motion.profile = TrapezoidProfile::make(max_speed, max_accel);
    return motion;
}

PlannedMotion timedMotion(const std::vector<double>& times, const std::vector<std::vector<double>>& points,
                          const std::vector<double>& gripper) {
    const size_t n = points.size();
    const size_t dof = points.front().size();
    // Tangents: central differences inside, at rest at both ends.
    std::vector<std::vector<double>> tangent(n, std::vector<double>(dof, 0.0));
    for (size_t k = 1; k + 1 < n; ++k) {
        const double span = times[k + 1] - times[k - 1];
        for (size_t i = 0; i < dof; ++i) tangent[k][i] = (points[k + 1][i] - points[k - 1][i]) / span;
    }
    PlannedMotion motion;
    motion.timed = true;
    motion.knot_param.push_back(times[0]);
    motion.knot_joints.push_back(points[0]);
    if (!gripper.empty()) motion.knot_gripper.push_back(gripper[0]);
    for (size_t k = 0; k + 1 < n; ++k) {
        const double span = times[k + 1] - times[k];
        const int samples =
            std::clamp(static_cast<int>(std::ceil(span / kTimedKnotSpacing)), 1, kMaxTimedSamplesPerSegment);
        for (int j = 1; j <= samples; ++j) {
            const double f = static_cast<double>(j) / samples;
            std::vector<double> q(dof);
            for (size_t i = 0; i < dof; ++i)
                q[i] = hermite(points[k][i], tangent[k][i] * span, points[k + 1][i], tangent[k + 1][i] * span, f);
            motion.knot_param.push_back(times[k] + f * span);
            motion.knot_joints.push_back(std::move(q));
            if (!gripper.empty()) motion.knot_gripper.push_back(gripper[k] + f * (gripper[k + 1] - gripper[k]));
        }
    }
    return motion;
}

std::vector<std::vector<double>> splineThrough(const std::vector<std::vector<double>>& points) {
    const size_t n = points.size();
    if (n < 3) return points;
    const size_t dof = points.front().size();
    std::vector<double> param(n, 0.0);
    for (size_t k = 1; k < n; ++k) param[k] = param[k - 1] + std::max(distance(points[k - 1], points[k]), 1e-9);
    std::vector<std::vector<double>> tangent(n, std::vector<double>(dof, 0.0));
    for (size_t i = 0; i < dof; ++i) {
        tangent[0][i] = (points[1][i] - points[0][i]) / (param[1] - param[0]);
        tangent[n - 1][i] = (points[n - 1][i] - points[n - 2][i]) / (param[n - 1] - param[n - 2]);
        for (size_t k = 1; k + 1 < n; ++k)
            tangent[k][i] = (points[k + 1][i] - points[k - 1][i]) / (param[k + 1] - param[k - 1]);
    }
    std::vector<std::vector<double>> knots{points[0]};
    for (size_t k = 0; k + 1 < n; ++k) {
        const double span = param[k + 1] - param[k];
        for (int j = 1; j <= kSplineSamplesPerSegment; ++j) {
            const double f = static_cast<double>(j) / kSplineSamplesPerSegment;
            std::vector<double> q(dof);
            for (size_t i = 0; i < dof; ++i)
                q[i] = hermite(points[k][i], tangent[k][i] * span, points[k + 1][i], tangent[k + 1][i] * span, f);
            knots.push_back(std::move(q));
        }
    }
    return knots;
}

bool withinLimits(const PlannedMotion& motion, const JointLimits& limits) {
    for (const auto& knot : motion.knot_joints)
        for (size_t i = 0; i < knot.size(); ++i)
            if (knot[i] < limits.lower[i] || knot[i] > limits.upper[i]) return false;
    return true;
}

}  // namespace sim
}  // namespace kelm
