#!/usr/bin/python3
"""Throughput and file size of the episode recorder.

    PYTHONPATH=build/python python3 python/benchmarks/recorder_throughput.py --sim build/sim/kelm_sim \
        [--rates 500,1000,5000] [--seconds 10] [--compress] [--cameras 1,2 --fps 15,30]

1. Live: two simulators stream at each rate; kelm.record's EpisodeRecorder
   records both for --seconds. Prints frames recorded per second (both arms),
   frames the controllers skipped for the recorder, the recorder process's CPU
   time per frame, and the file size scaled to one minute.
   With --cameras, instead: the slave simulates the table_cube scene and
   serves its cameras (front, top) at 640x480 and each --fps; the recorder
   records both arms at 1 kHz and 1 or 2 of those cameras, and prints master
   frames missing, camera images received and dropped, and MB per minute.
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


def start_sim(path, rate, *options):
    process = subprocess.Popen([path, "--port", "0", "--quiet", "--rate", str(rate), *options], stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, text=True)
    host, port = re.search(r"ws://([\d.]+):(\d+)", process.stdout.readline()).groups()
    return process, (host, int(port))


CAMERA_NAMES = ("front", "top")


def live_cameras(sim, cameras, fps, seconds, directory, compress):
    from kelm.cameras import open_cameras

    names = CAMERA_NAMES[:cameras]
    options = ["--scene", "table_cube", "--camera-port", "0"]
    for name in names:
        options += ["--camera", f"{name}:640x480@{fps:g}"]
    sims = [start_sim(sim, 1000), start_sim(sim, 1000, *options)]
    base = None
    while base is None:
        base = (re.search(r"cameras on (http://\S+?)/? \(", sims[1][0].stdout.readline()) or [None, None])[1]
    path = os.path.join(directory, f"cameras_{cameras}_{fps:.0f}.hdf5")
    try:
        camera_list = open_cameras([f"{name}={base}/camera/{name}/stream" for name in names])
        with EpisodeRecorder(path, sims[0][1], sims[1][1], compress=compress, cameras=camera_list,
                             rate=50.0) as recorder:
            wall0 = time.monotonic()
            while time.monotonic() - wall0 < seconds:
                time.sleep(0.1)
                recorder.poll()
            wall = time.monotonic() - wall0
            missing = recorder.streams["master"].dropped + recorder.streams["slave"].dropped
            images = {camera.name: (camera.frames, camera.dropped) for camera in camera_list}
    finally:
        for process, _ in sims:
            process.terminate()
            process.wait()
    return missing, images, os.path.getsize(path) / wall * 60 / 1e6


def live(sim, rate, seconds, directory, compression):
    sims = [start_sim(sim, rate) for _ in range(2)]
    path = os.path.join(directory, f"live_{rate:.0f}.hdf5")
    try:
        with EpisodeRecorder(path, sims[0][1], sims[1][1], compress=bool(compression)) as recorder:
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
    parser.add_argument("--cameras", help="numbers of cameras to record beside two arms at 1 kHz, e.g. 1,2")
    parser.add_argument("--fps", default="15,30", help="camera rates with --cameras")
    args = parser.parse_args()
    kelm.set_log_level(2)
    compression = {"compression": "gzip"} if args.compress else {}
    with tempfile.TemporaryDirectory() as directory:
        if args.cameras:
            print(f"two arms at 1 kHz, 50 rows/s, cameras at 640x480, {args.seconds:.0f} s each"
                  f"{' (gzip)' if args.compress else ''}")
            for cameras in [int(n) for n in args.cameras.split(",")]:
                for fps in [float(f) for f in args.fps.split(",")]:
                    missing, images, mb_min = live_cameras(args.sim, cameras, fps, args.seconds, directory,
                                                           args.compress)
                    seen = ", ".join(f"{name} {got} images, {lost} dropped" for name, (got, lost) in images.items())
                    print(f"  {cameras} camera(s) at {fps:g} fps: {missing} arm frames missing, {seen}, "
                          f"{mb_min:7.1f} MB per minute")
            return 0
        print(f"live recording of two arms, {args.seconds:.0f} s each{' (gzip)' if args.compress else ''}")
        for rate in [float(r) for r in args.rates.split(",")]:
            per_s, dropped, cpu, mb_min, frames = live(args.sim, rate, args.seconds, directory, compression)
            print(f"  {rate:6.0f} Hz per arm: {per_s:8.0f} frames/s recorded ({frames} frames), {dropped} skipped by "
                  f"the controllers, {cpu:6.1f} us CPU/frame, {mb_min:6.1f} MB per minute")
        per_s, per_frame = disk_only(directory, 200000, compression)
        print(f"disk alone: {per_s:,.0f} frames/s of both arms, {per_frame:.0f} bytes per frame of one arm "
              f"(raw row and its share of the aligned rows)")


if __name__ == "__main__":
    sys.exit(main())
