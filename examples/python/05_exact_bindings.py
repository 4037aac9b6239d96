#!/usr/bin/python3
"""The exact bindings, the C++ interface of KelmSingleCol in Python: result codes instead of exceptions.

    python3 05_exact_bindings.py [ip] [port]        (defaults: 127.0.0.1 8090)

Run it against the simulator: `kelm_sim &` and then this script. Exits with
0 when every step worked, 1 otherwise.
"""
import sys

import numpy as np

import kelm


def main(ip="127.0.0.1", port=kelm.CONTROLLER_PORT):
    kelm.set_log_level(kelm.LOG_ERROR)  # the library's progress lines stay quiet
    # Connects while it is constructed; disconnects at the end of the block.
    with kelm.KelmSingleCol(ip, port) as arm:
        if not arm.is_connected():
            sys.exit("no controller at that address")
        # Runs on the receive thread: keep it short, never wait for a reply in it.
        frames = [0]
        arm.register_joint_cbk(lambda stamp, pos, vel, tau: frames.__setitem__(0, frames[0] + 1))

        print("controller version:", arm.get_version())
        if arm.set_ready() != 1:
            sys.exit("the arm did not become ready")
        status = arm.get_status()
        print(f"arm {status.arm_index}: {status.dof} joints, servo {'on' if status.servo else 'off'}")

        start = arm.get_joint_pos()  # numpy float64 array [rad]
        config = arm.get_config()
        target = start.copy()
        target[0] = np.clip(target[0] + 0.2, config.limit_lower[0], config.limit_upper[0])
        if arm.move_joint(target, block=True) != 1:  # timed by the controller, waited for
            sys.exit("move to the target failed")
        print("after the move:", np.round(arm.get_joint_pos(), 4))
        if arm.move_joint(list(start), time=1.5, block=True) != 1:  # a list works as well: 1.5 s move
            sys.exit("move back failed")

        result, pose = arm.forward_kine(0, arm.get_joint_pos())
        print("pose (x, y, z, qx, qy, qz, qw):", np.round(pose, 4))
        result, joints = arm.inverse_kine(0, pose, start)
        if result != 1 or not np.allclose(joints, arm.get_joint_pos(), atol=1e-3):
            sys.exit("inverse kinematics did not give the position back")
        print(f"{frames[0]} joint frames received")
        arm.release_joint_cbk()
    return 0


if __name__ == "__main__":
    args = sys.argv[1:]
    sys.exit(main(args[0] if args else "127.0.0.1", int(args[1]) if len(args) > 1 else kelm.CONTROLLER_PORT))
