#!/usr/bin/python3
"""Cost of a Python callback per state frame.

    PYTHONPATH=build/python python3 python/benchmarks/callback_cost.py --sim build/sim/kelm_sim [--rate 1000] [--seconds 5]

Starts two simulators, connects a kernel to the first and measures this
process's CPU time (all threads, time.process_time) per frame in four runs:
no Python code per frame (only the C++ frame capture that counts frames),
an empty Python joint callback, a joint callback that reads its arrays, and
the leader-follower relay (tracking to a kernel on the second simulator).
Then the same four without the network: one captured frame handed to the
kernel's parseRecieveData --calls times on this thread, which gives the cost
of each callback without the noise of the streams.
"""
import argparse
import os
import re
import subprocess
import sys
import time

import kelm


def start_sim(path, rate):
    process = subprocess.Popen([path, "--port", "0", "--quiet", "--rate", str(rate)], stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, text=True)
    host, port = re.search(r"ws://([\d.]+):(\d+)", process.stdout.readline()).groups()
    return process, host, int(port)


def measure(kernel, seconds):
    log = kelm.StateLog(kernel, "bench")
    time.sleep(0.3)
    frames0, cpu0, wall0 = log.frames, time.process_time(), time.monotonic()
    time.sleep(seconds)
    frames, cpu, wall = log.frames - frames0, time.process_time() - cpu0, time.monotonic() - wall0
    log.stop()
    return frames, cpu * 1e6 / max(frames, 1), frames / wall


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--sim", required=True)
    parser.add_argument("--rate", type=float, default=1000)
    parser.add_argument("--seconds", type=float, default=5)
    parser.add_argument("--calls", type=int, default=20000)
    args = parser.parse_args()
    kelm.set_log_level(2)  # no log lines: the frame gaps of a loaded machine would flood the output
    sims = [start_sim(args.sim, args.rate) for _ in range(2)]
    try:
        master = kelm.KelmKernelImpl(sims[0][1], sims[0][2], 1.0, 0)
        slave = kelm.KelmKernelImpl(sims[1][1], sims[1][2], 1.0, 0)
        slave.set_kelm_ready(True, 3000.0)
        relayed = [0]

        def relay(stamp, joints, gripper):
            relayed[0] += slave.tracking(joints, True, min(max(gripper / 0.6, 0.0), 0.08))

        runs = [
            ("C++ capture only", None),
            ("empty Python joint callback", lambda kind: master.register_get_joint_callback("cb", lambda *a: None)),
            ("Python callback reading its arrays",
             lambda kind: master.register_get_joint_callback("cb", lambda t, p, v, tau: float(p.sum() + v.sum()))),
            ("leader-follower relay (tracking)",
             lambda kind: master.register_get_tele_master_data_callback("cb", relay)),
        ]
        results = []
        for label, setup in runs:
            if setup:
                setup(label)
            frames, cpu, rate = measure(master, args.seconds)
            master.release_get_joint_callback("cb")
            master.release_get_tele_master_data_callback("cb")
            results.append((label, frames, rate, cpu))
        print(f"frames at {args.rate:.0f} Hz for {args.seconds:.0f} s; CPU of this process (all threads) per frame")
        base = results[0][3]
        for label, frames, rate, cpu in results:
            print(f"  {label:38s} {frames:7d} frames {rate:7.1f}/s  {cpu:7.1f} us/frame  (+{cpu - base:6.1f})")

        # The same callbacks with no network: one real frame handed to the
        # kernel's frame entry again and again on this thread.
        frame = []
        master.register_update_robot_state_callback("grab", lambda text: frame.append(text) if not frame else None)
        time.sleep(0.2)
        master.release_update_robot_state_callback("grab")
        master.disconnect_kelm()
        print(f"one frame ({len(frame[0])} bytes) through parseRecieveData, {args.calls} calls each; CPU per call")
        offline = []
        for label, setup in runs:
            if setup:
                setup(label)
            for _ in range(200):
                master.parseRecieveData(frame[0])
            cpu0 = time.process_time()
            for _ in range(args.calls):
                master.parseRecieveData(frame[0])
            offline.append((label, (time.process_time() - cpu0) * 1e6 / args.calls))
            master.release_get_joint_callback("cb")
            master.release_get_tele_master_data_callback("cb")
        for label, cpu in offline:
            print(f"  {label:38s} {cpu:7.1f} us/frame  (+{cpu - offline[0][1]:6.1f})")
        master.close()
        slave.close()
    finally:
        for process, _, _ in sims:
            process.terminate()
            process.wait()


if __name__ == "__main__":
    sys.exit(main())
