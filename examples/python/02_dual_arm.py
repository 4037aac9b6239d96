#!/usr/bin/python3
"""Drives the two arms of one controller: bring both up, move each in turn.

    python3 02_dual_arm.py [ip] [port]          (defaults: 127.0.0.1 8090)

Run it against a two-arm simulator: `kelm_sim --arms 2 &`. Exits with 0 when
every step worked, 1 otherwise.
"""
import sys

import numpy as np

import kelm


def main(ip="127.0.0.1", port=kelm.CONTROLLER_PORT):
    kelm.set_log_level(kelm.LOG_ERROR)
    with kelm.KelmDualBot(ip, port, 1.0, 0, 1) as bot:
        if not bot.is_connected():
            sys.exit("no controller at that address")
        if bot.set_ready() != 1:  # the left arm, then the right one
            sys.exit("the arms did not become ready")
        left, right = bot.get_left_joint_pos(), bot.get_right_joint_pos()
        # One arm after the other, each waited for.
        if bot.move_left_joint(left + np.r_[np.zeros(len(left) - 1), 0.3], block=True) != 1:
            sys.exit("left move failed")
        if bot.move_right_joint(right - np.r_[np.zeros(len(right) - 1), 0.3], block=True) != 1:
            sys.exit("right move failed")
        print("left wrist", round(bot.get_left_joint_pos()[-1], 3), "right wrist",
              round(bot.get_right_joint_pos()[-1], 3))
        print("left pose:", np.round(bot.get_left_cart_pose(), 4))
        print("right pose:", np.round(bot.get_right_cart_pose(), 4))
        # Both arms back, as one timed trajectory each (one point, 1 s).
        if bot.move_left_joint_traj([left], [], [1.0], True) != 1 or \
                bot.move_right_joint_traj([right], [], [1.0], True) != 1:
            sys.exit("moves back failed")
    return 0


if __name__ == "__main__":
    args = sys.argv[1:]
    sys.exit(main(args[0] if args else "127.0.0.1", int(args[1]) if len(args) > 1 else kelm.CONTROLLER_PORT))
