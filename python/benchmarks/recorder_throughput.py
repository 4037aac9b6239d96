#!/usr/bin/python3
"""Throughput and file size of the episode recorder.

    PYTHONPATH=build/python python3 python/benchmarks/recorder_throughput.py --sim build/sim/kelm_sim \
        [--rates 500,1000,5000] [--seconds 10]

1. Live: two simulators stream at each rate; kelm.record's EpisodeRecorder
   records both for --seconds. Prints frames recorded per second (both arms),
   frames the controllers skipped for the recorder, the recorder process's CPU
   time per frame, and the file size scaled to one minute.
2. Disk alone: the same file layout written from synthetic six-joint frames as
   fast as the HDF5 library takes them (frames per second of both arms).
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile
import time

import numpy as np

import kelm
from kelm.record import EpisodeRecorder


def start_sim(path, rate):
    process = subprocess.Popen([path, "--port", "0", "--quiet", "--rate", str(rate)], stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, text=True)
    host, port = re.search(r"ws://([\d.]+):(\d+)", process.stdout.readline()).groups()
    return process, (host, int(port))


def live(sim, rate, seconds, directory, compression):
    sims = [start_sim(sim, rate) for _ in range(2)]
    path = os.path.join(directory, f"live_{rate:.0f}.hdf5")
    try:
        with EpisodeRecorder(path, sims[0][1], sims[1][1], compression=compression) as recorder:
            cpu0, wall0 = time.process_time(), time.monotonic()
            while time.monotonic() - wall0 < seconds:
                time.sleep(0.1)
                recorder.poll()
            cpu, wall = time.process_time() - cpu0, time.monotonic() - wall0
            streams = recorder.streams
            frames = streams["master"].frames + streams["slave"].frames
            dropped = streams["master"].dropped + streams["slave"].dropped
    finally:
        for process, _ in sims:
            process.terminate()
            process.wait()
    size = os.path.getsize(path)
    return frames / wall, dropped, cpu * 1e6 / max(frames, 1), size / wall * 60 / 1e6, frames


def disk_only(directory, rows, compression):
    path = os.path.join(directory, "disk.hdf5")
    import h5py

    from kelm.record import _Appender
    batch = 1000
    with h5py.File(path, "w") as f:
        groups = [_Appender(f.create_group(name), compression) for name in ("master", "slave", "observations")]
        top = _Appender(f, compression)
        rng = np.random.default_rng(1)
        frame = {"count": np.arange(batch, dtype=np.uint64), "stamp": rng.random(batch), "received": rng.random(batch),
                 "qpos": rng.random((batch, 6)), "qvel": rng.random((batch, 6)), "effort": rng.random((batch, 6)),
                 "gripper": rng.random((batch, 3))}
        obs = {"qpos": rng.random((batch, 7)), "qvel": rng.random((batch, 7)), "effort": rng.random((batch, 7)),
               "slave_index": np.arange(batch)}
        act = {"action": rng.random((batch, 7)), "timestamps": rng.random((batch, 2))}
        start = time.monotonic()
        for _ in range(rows // batch):
            groups[0].append(frame)
            groups[1].append(frame)
            groups[2].append(obs)
            top.append(act)
        f.flush()
        elapsed = time.monotonic() - start
    return 2 * rows / elapsed, os.path.getsize(path) / (2 * rows)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--sim", required=True)
    parser.add_argument("--rates", default="500,1000,5000")
    parser.add_argument("--seconds", type=float, default=10)
    parser.add_argument("--compress", action="store_true")
    args = parser.parse_args()
    kelm.set_log_level(2)
    compression = "gzip" if args.compress else None
    with tempfile.TemporaryDirectory() as directory:
        print(f"live recording of two arms, {args.seconds:.0f} s each{' (gzip)' if compression else ''}")
        for rate in [float(r) for r in args.rates.split(",")]:
            per_s, dropped, cpu, mb_min, frames = live(args.sim, rate, args.seconds, directory, compression)
            print(f"  {rate:6.0f} Hz per arm: {per_s:8.0f} frames/s recorded ({frames} frames), {dropped} skipped by "
                  f"the controllers, {cpu:6.1f} us CPU/frame, {mb_min:6.1f} MB per minute")
        per_s, per_frame = disk_only(directory, 200000, compression)
        print(f"disk alone: {per_s:,.0f} frames/s of both arms, {per_frame:.0f} bytes per frame of one arm "
              f"(raw row and its share of the aligned rows)")


if __name__ == "__main__":
    sys.exit(main())
