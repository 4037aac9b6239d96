#!/usr/bin/python3
"""Leader-follower in Python: every master frame becomes a tracking target of the slave.

    python3 03_leader_follower.py [--ip MASTER] [--port 8090] [--slave-ip 127.0.0.1]
                                  [--slave-port 8090] [--mirror 0|1] [--duration S]

Does what `kelm_teleop --mode 0` does, with the relay in Python: brings both
arms up and home, puts the master into drag mode and the slave into MIT mode,
and on each master frame sends the master's joints and gripper to the slave
with `tracking`, on the master connection's receive thread. It takes the
tool's options --mode 0 and --ip and prints its running line, so that it can
stand in for the tool (`build/bench/teleop_latency --tool THIS_FILE --modes
joint --no-baselines`). Ends on Ctrl+C, after --duration seconds, or on an
error of either arm; prints how many frames it relayed.
"""
import argparse
import sys
import threading
import time

import kelm

HOME = [0.0, 0.0, 0.0, 0.0, -1.57, 0.0]
GRIPPER_DIVISOR = 0.6  # the master gripper's reading over this is the slave's target [m]
RUNNING_LINE = "running, Ctrl+C to stop (程序运行中... 按 Ctrl+C 退出)"


class Relay:
    """The master's frame callback: one tracking message to the slave per frame."""

    def __init__(self, slave, mirror):
        self.slave, self.mirror = slave, mirror
        self.frames = self.relayed = 0

    def __call__(self, stamp, joints, gripper):
        self.frames += 1
        if self.mirror and len(joints) == 6:
            joints[[0, 3, 5]] *= -1.0
        target_gripper = min(max(gripper / GRIPPER_DIVISOR, 0.0), 0.08)
        # Publishing is allowed in a callback: tracking waits for nothing.
        if self.slave.tracking(joints, True, target_gripper) == 1:
            self.relayed += 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("-i", "--ip", default="127.0.0.2", help="master controller address")
    parser.add_argument("--port", type=int, default=kelm.CONTROLLER_PORT)
    parser.add_argument("--slave-ip", default="127.0.0.1")
    parser.add_argument("--slave-port", type=int, default=kelm.CONTROLLER_PORT)
    parser.add_argument("-m", "--mode", type=int, default=0, choices=(0,), help="0: joint mode (the only one here)")
    parser.add_argument("-r", "--mirror", type=int, default=0)
    parser.add_argument("-f", "--force", type=float, default=3.0, help="gripper torque after homing")
    parser.add_argument("--duration", type=float, default=0.0, help="seconds to run (default: until Ctrl+C)")
    args = parser.parse_args()
    kelm.set_log_level(kelm.LOG_ERROR)

    master = kelm.KelmKernelImpl(args.ip, args.port, 1.0, 0)
    slave = kelm.KelmKernelImpl(args.slave_ip, args.slave_port, 1.0, 0)
    stop = threading.Event()

    def on_error(code, text):  # with the arm's state lock held: only note it
        print(f"arm error {code}: {text}", flush=True)
        stop.set()

    with master, slave:
        master.register_error_catch_callback("leader_follower", on_error)
        slave.register_error_catch_callback("leader_follower", on_error)
        if master.set_kelm_ready(True, 3000.0) != 1 or slave.set_kelm_ready(True, 3000.0) != 1:
            print("the arms did not become ready", file=sys.stderr)
            return 1
        for arm in (master, slave):  # home one arm after the other
            result, key = arm.move_joint(HOME, 50.0, 0, 0, True)
            if result != 1:
                print("homing refused", file=sys.stderr)
                return 1
            arm.task_blocking_wait(key, 60000)
            arm.set_end_effector(0.06, args.force)
        if master.set_control_mode(3) != 1 or slave.set_control_mode(2) != 1:  # drag / MIT
            print("setting the modes failed", file=sys.stderr)
            return 1
        relay = Relay(slave, args.mirror)
        master.register_get_tele_master_data_callback("leader_follower", relay)
        print(RUNNING_LINE, flush=True)
        started = time.monotonic()
        try:
            while not stop.is_set() and (args.duration <= 0 or time.monotonic() - started < args.duration):
                time.sleep(0.05)
        except KeyboardInterrupt:
            pass
        master.release_get_tele_master_data_callback("leader_follower")
        master.set_control_mode(1)
        slave.set_control_mode(1)
        print(f"relayed {relay.relayed} of {relay.frames} master frames", flush=True)
    return 0 if not stop.is_set() else 1


if __name__ == "__main__":
    sys.exit(main())
