#include "arm_facade.h"

#include <iostream>

namespace kelm {
namespace arm_facade {
namespace {

// A blocking motion waits for its task's end without a limit of its own
// (about 24.8 days, the largest wait the kernel takes) [ms].
constexpr int kWaitWithoutLimit = 2147483647;

// Folds a motion's result and, if asked, waits for the task it started.
int finish_motion(KelmKernelImpl& arm, int result, const std::string& task_key, bool block) {
    if (result < 0) return -1;
    if (!block) return result;
    return arm.task_blocking_wait(task_key, kWaitWithoutLimit);
}

}  // namespace

std::vector<double> pose_values(const std::array<double, 7>& pose) {
    return std::vector<double>(pose.begin(), pose.end());
}

std::vector<std::vector<double>> pose_values(const std::vector<std::array<double, 7>>& poses) {
    std::vector<std::vector<double>> points;
    points.reserve(poses.size());
    for (const auto& pose : poses) points.push_back(pose_values(pose));
    return points;
}

int move_timed(KelmKernelImpl& arm, const std::vector<double>& target, double time, bool is_joint, bool block) {
    std::string task_key;
    int result;
    if (time < 0) {
        result = arm.move_joint(target, task_key, kFullSpeed, kBaseTool, kBaseUser, is_joint);
    } else {
        result = arm.move_pvt({target}, {}, {time}, task_key, is_joint);
    }
    return finish_motion(arm, result, task_key, block);
}

int move_line(KelmKernelImpl& arm, const std::vector<double>& target, bool is_joint, bool block) {
    std::string task_key;
    int result = arm.move_line(target, task_key, kFullSpeed, kBaseTool, kBaseUser, is_joint);
    return finish_motion(arm, result, task_key, block);
}

int move_traj(KelmKernelImpl& arm, const std::vector<std::vector<double>>& points, const std::vector<double>& gripper,
              const std::vector<double>& times, bool is_joint, bool block) {
    std::string task_key;
    const bool timed_points = !times.empty() && times.size() == points.size();
    int result = timed_points ? arm.move_pvt(points, gripper, times, task_key, is_joint)
                              : arm.move_toppra(points, task_key, kFullSpeed, kBaseTool, kBaseUser, is_joint);
    return finish_motion(arm, result, task_key, block);
}

int track_joint(KelmKernelImpl& arm, const std::vector<double>& target, double gripper) {
    if (static_cast<size_t>(arm.get_status().dof) != target.size()) {
        std::cout << "targets size error" << std::endl;
        return -1;
    }
    return arm.tracking(target, true, gripper);
}

int track_pose(KelmKernelImpl& arm, const std::array<double, 7>& pose, double gripper) {
    return arm.tracking(pose_values(pose), false, gripper);
}

int gripper_state(KelmKernelImpl& arm) {
    if (!arm.get_end_effector_connect()) return -1;
    return arm.get_end_effector_state();
}

}  // namespace arm_facade
}  // namespace kelm
