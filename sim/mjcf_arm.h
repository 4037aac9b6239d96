// The arm of a physics scene, written as MJCF from the same URDF file that
// the kinematics read, so that the arm has one source.
//
// A scene places arm I by including "armI.xml" inside a body of its own
// (its mount); the loader serves that file from memory. Every name in it
// carries the prefix "armI_": bodies are named after the URDF links, joints
// after the URDF joints, and two sites mark the flange ("armI_flange", where
// joint dof+1 sits, or tool0 for an arm of all its joints) and the point
// between the fingertips where the gripper holds a part ("armI_grasp").
// Revolute joints beyond `dof` are welded at 0. Arm geometry collides with
// the scene but not with the arm itself.
#pragma once

#include <string>

namespace kelm {
namespace sim {

// Names within the generated arm, after the prefix.
constexpr const char* kFlangeSite = "flange";
constexpr const char* kGraspSite = "grasp";
constexpr const char* kLeftFinger = "finger_left";
constexpr const char* kRightFinger = "finger_right";
constexpr double kFingerStroke = 0.04;  // [m] travel of each finger; the opening is twice it

// "armI_"
std::string armPrefix(int arm);
// "armI.xml", the file name a scene includes.
std::string armIncludeFile(int arm);

// The MJCF text (a <mujoco> element holding the base link's body) of the
// first `dof` joints of the arm in `urdf_path`, names prefixed with
// `prefix`. Throws std::runtime_error naming the file and the problem: a
// file that is no URDF, a link without inertia, fewer than `dof` revolute
// joints, no gripper (prismatic joints finger_left and finger_right).
std::string armMjcf(const std::string& urdf_path, int dof, const std::string& prefix);

}  // namespace sim
}  // namespace kelm
