#!/usr/bin/python3
"""Drives one arm: connect, bring it up, move it and wait, ask the kinematics, stream at a fixed rate.

    python3 01_single_arm.py [ip] [port]        (defaults: 127.0.0.1 8090)

Run it against the simulator: `kelm_sim &` and then this script. Every
failure raises with its reason (kelm.ConnectionError, kelm.CommandRefused and
its subclasses), so the script has no result codes to check.
"""
import logging
import sys

import numpy as np

import kelm


def main(ip="127.0.0.1", port=kelm.CONTROLLER_PORT):
    logging.basicConfig(level=logging.WARNING)  # the library's progress lines (INFO) stay quiet
    with kelm.Arm(ip, port) as arm:  # raises kelm.ConnectionError if nobody answers
        print("controller version:", arm.get_version())
        arm.set_ready()
        print(arm.status)  # modes as enums: fsm_mode=<FsmMode.POSITION: 1>

        start = arm.joint_pos  # numpy float64 array [rad]
        config = arm.raw.get_config()
        target = start.copy()
        target[0] = np.clip(target[0] + 0.2, config.limit_lower[0], config.limit_upper[0])
        arm.move_joint(target, block=True, timeout=10.0)  # timed by the controller, waited for
        print("after the move:", np.round(arm.joint_pos, 4))
        arm.move_joint(list(start), time=1.5, block=True, timeout=10.0)  # a list works as well: 1.5 s move

        pose = arm.forward_kine()  # of the measured joints
        print("pose (x, y, z, qx, qy, qz, qw):", np.round(pose, 4))
        if not np.allclose(arm.inverse_kine(pose), arm.joint_pos, atol=1e-3):
            sys.exit("inverse kinematics did not give the position back")

        try:
            arm.move_joint(start[:3])
        except kelm.InvalidInput as refused:
            print("refused as expected:", refused)

        # One second of streamed targets at 500 Hz, a small sine on the first joint.
        for tick in kelm.Rate(500, ticks=500):
            arm.track_joint(start + [0.05 * np.sin(tick * 2 * np.pi / 500), 0, 0, 0, 0, 0])
    return 0


if __name__ == "__main__":
    args = sys.argv[1:]
    sys.exit(main(args[0] if args else "127.0.0.1", int(args[1]) if len(args) > 1 else kelm.CONTROLLER_PORT))
