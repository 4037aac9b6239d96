// TaskLayout: where a pick-and-place task's objects are for one arm, as
// the physics scene gives them and the scripted operator's hand uses them.
#pragma once

#include <kdl/frames.hpp>

namespace kelm {
namespace sim {

// All frames in the arm's base frame.
struct TaskLayout {
    bool present = false;        // the scene has a cube and a target area for this arm
    KDL::Frame cube;             // the cube's centre and orientation
    double cube_half = 0.02;     // [m] half the cube's edge
    KDL::Frame target;           // the target area's centre, on the table
    KDL::Vector target_half;     // [m] the area's half extents
    KDL::Frame grasp_in_flange;  // the gripper's holding point seen from the flange
};

}  // namespace sim
}  // namespace kelm
