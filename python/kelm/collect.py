"""Demonstration collection: pick-and-place episodes of a simulated teleoperation, with the scene's cameras.

    python3 -m kelm.collect --episodes 20 --scene table_cube --out DIR

Starts two simulated controllers, the slave with its arm in the physics
scene (and the scene's cameras served as MJPEG streams) at 127.0.0.1:8090,
the master at 127.0.0.2:8090 whose simulated operator does the scene's
pick-and-place task, and kelm_teleop between them (joint mode). For each
episode it places the scene's objects anew (resetScene with the episode's
seed on both controllers: the operator restarts the task on it), records
both arms and the cameras for --duration seconds into DIR/episode_N.hdf5 and
stores the simulator's verdict on the task as attributes (task_success,
task_seed, task_outcome). At the end it prints a table of the episodes and
the success rate. Ctrl+C ends the current episode cleanly, keeps it, and
stops.
"""

import argparse
import json
import os
import re
import signal
import subprocess
import sys
import threading
import time
import xml.etree.ElementTree as ElementTree

from . import _kelm
from .cameras import CameraError, open_cameras
from .record import EpisodeRecorder, TeleopChild, find_program, record

MASTER_HOST, SLAVE_HOST, CONTROLLER_PORT = "127.0.0.2", "127.0.0.1", _kelm.CONTROLLER_PORT
START_TIMEOUT_S = 20.0       # for a controller to listen
TELEOP_START_TIMEOUT_S = 90  # for kelm_teleop's bring-up and homing
REQUEST_TIMEOUT_MS = 3000
TASK_DURATION_S = 14.0       # the operator's task takes 12 s; the slave follows a little later


class Controller:
    """A kelm_sim child process; `lines` holds what it printed, `camera_base` the URL its cameras are under."""

    LISTENING = re.compile(r"listening on ws://")
    CAMERAS = re.compile(r"cameras on (http://\S+?/?) \(")

    def __init__(self, command, cameras):
        self.command = command
        self.lines = []
        self.camera_base = None
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                        start_new_session=True)
        self._ready = threading.Event()
        self._wants_cameras = cameras
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        if not self._ready.wait(START_TIMEOUT_S):
            self.stop()
            raise RuntimeError(f"{os.path.basename(command[0])} did not start:\n" + "".join(self.lines))

    def _read(self):
        listening = False
        for line in self.process.stdout:
            self.lines.append(line)
            listening = listening or bool(self.LISTENING.search(line))
            match = self.CAMERAS.search(line)
            if match:
                self.camera_base = match.group(1).rstrip("/") + "/"
            if listening and (self.camera_base or not self._wants_cameras):
                self._ready.set()

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
            try:
                self.process.wait(15)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self._reader.join(2)


def scene_cameras(sim_path, scene):
    """Names of the cameras in scene `scene` (a name looked up beside kelm_sim, or a file)."""
    path = scene if scene.endswith(".xml") else os.path.join(
        os.path.dirname(os.path.realpath(sim_path)), os.pardir, "share", "kelm", "scenes", scene + ".xml")
    try:
        root = ElementTree.parse(path).getroot()
    except (OSError, ElementTree.ParseError) as error:
        raise RuntimeError(f"scene {scene}: {error}") from None
    return [camera.get("name") for camera in root.iter("camera") if camera.get("name")]


def ask(kernel, command, **members):
    """Sends a request only the simulator answers; returns its reply or raises RuntimeError."""
    reply, _key = kernel.cmd_server({"command": command, **members}, REQUEST_TIMEOUT_MS)
    if not reply or reply.get("err_msg"):
        raise RuntimeError(f"{command}: " + (reply or {}).get("err_msg", "no reply"))
    return reply


class Collection:
    """The controllers, the tool and the control connections of one collection run."""

    def __init__(self, args):
        sim = find_program("kelm_sim", args.sim_path)
        self.camera_requests = args.camera if args.camera is not None else scene_cameras(sim, args.scene)
        if args.no_cameras:
            self.camera_requests = []
        camera_options = [option for request in self.camera_requests for option in ("--camera", request)]
        if camera_options:
            camera_options += ["--camera-port", "0"]
        common = ["--port", str(CONTROLLER_PORT), "--seed", str(args.seed), "--quiet"]
        self.children = []
        self.teleop = None
        self.master = self.slave = None
        try:
            self.children.append(Controller([sim, "--ip", MASTER_HOST, "--scene", "arm", "--operator", "pick-place",
                                             "--task-scene", args.scene, *common], cameras=False))
            self.children.append(Controller([sim, "--ip", SLAVE_HOST, "--scene", args.scene, "--operator", "off",
                                             *common, *camera_options], cameras=bool(camera_options)))
            self.teleop = TeleopChild(find_program("kelm_teleop", args.teleop_path), 0, MASTER_HOST, args.log)
            if not self.teleop.wait_running(TELEOP_START_TIMEOUT_S):
                raise RuntimeError("kelm_teleop did not start (its output is in the log)")
            self.master = _kelm.KelmKernelImpl(MASTER_HOST, CONTROLLER_PORT, 1.0, 0)
            self.slave = _kelm.KelmKernelImpl(SLAVE_HOST, CONTROLLER_PORT, 1.0, 0)
        except BaseException:
            self.close()
            raise

    def camera_sources(self):
        """NAME=URL of the slave's camera streams, for open_cameras."""
        base = self.children[1].camera_base
        names = [re.split(r"[:@]", request)[0] for request in self.camera_requests]
        return [f"{name}={base}camera/{name}/stream" for name in names]

    def reset(self, seed):
        for kernel in (self.slave, self.master):
            ask(kernel, "resetScene", seed=seed)

    def outcome(self):
        """The slave arm's task outcome as the simulator judges it: a dict with "success"."""
        tasks = ask(self.slave, "getSceneState").get("tasks") or [{}]
        return tasks[0]

    def close(self):
        for kernel in (self.master, self.slave):
            if kernel is not None:
                kernel.close()
        if self.teleop:
            self.teleop.stop()
        for child in reversed(self.children):
            child.stop()


def run_episode(collection, path, seed, args, stop):
    """Records one episode into `path`; returns its row of the summary table."""
    collection.reset(seed)
    cameras = open_cameras(collection.camera_sources())
    recorder = EpisodeRecorder(path, (MASTER_HOST, CONTROLLER_PORT), (SLAVE_HOST, CONTROLLER_PORT),
                               compress=args.compress, cameras=cameras, rate=args.rate)
    try:
        ended = record(recorder, stop, args.duration, collection.teleop, show=not args.quiet)
        outcome = collection.outcome()
        recorder.file.attrs["task_success"] = bool(outcome.get("success", False))
        recorder.file.attrs["task_seed"] = seed
        recorder.file.attrs["task_outcome"] = json.dumps(outcome)
    finally:
        recorder.close()
    if not args.quiet:
        sys.stderr.write("\n")
    if ended:
        print(f"kelm.collect: {ended}", file=sys.stderr)
    return {"episode": os.path.basename(path), "success": bool(outcome.get("success", False)), "rows": recorder.top.rows,
            "duration": time.time() - recorder.started, "size": os.path.getsize(path)}


def print_summary(results):
    print(f"{'episode':<20} {'success':>7} {'frames':>8} {'duration':>10} {'size':>10}")
    for result in results:
        print(f"{result['episode']:<20} {'yes' if result['success'] else 'no':>7} {result['rows']:>8} "
              f"{result['duration']:>9.1f}s {result['size'] / 1e6:>8.1f}MB")
    successes = sum(result["success"] for result in results)
    rate = 100.0 * successes / len(results) if results else 0.0
    print(f"success rate: {successes} of {len(results)} ({rate:.0f} %)")


def parse_arguments(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m kelm.collect", description=__doc__.split("\n\n")[0])
    parser.add_argument("--episodes", type=int, required=True, help="how many episodes to record")
    parser.add_argument("--scene", default="table_cube", help="the slave's physics scene (default table_cube)")
    parser.add_argument("--out", required=True, help="directory for episode_N.hdf5")
    parser.add_argument("--seed", type=int, default=1, help="seed of the first episode; each next one adds 1")
    parser.add_argument("--duration", type=float, default=TASK_DURATION_S,
                        help=f"seconds per episode (default {TASK_DURATION_S:g})")
    parser.add_argument("--camera", action="append", metavar="NAME[:WxH@FPS]",
                        help="a camera of the scene to record, repeatable (default: all the scene names)")
    parser.add_argument("--no-cameras", action="store_true", help="record the arms only")
    parser.add_argument("--rate", type=float, default=50.0, help="rows per second (default 50)")
    parser.add_argument("--compress", action="store_true", help="gzip the datasets")
    parser.add_argument("--sim-path", help="kelm_sim to start (default: this build's, or PATH)")
    parser.add_argument("--teleop-path", help="kelm_teleop to start (default: this build's, or PATH)")
    parser.add_argument("--quiet", action="store_true", help="no progress line")
    args = parser.parse_args(argv)
    if args.episodes < 1 or args.seed < 0 or not args.duration > 0 or not args.rate > 0:
        parser.error("--episodes, --duration and --rate take positive numbers, --seed a non-negative one")
    return args


def main(argv=None):
    args = parse_arguments(argv)
    os.makedirs(args.out, exist_ok=True)
    _kelm.set_log_level(_kelm.LOG_ERROR)
    stop = threading.Event()
    for signum in (signal.SIGINT, signal.SIGTERM):
        signal.signal(signum, lambda *_: stop.set())
    results = []
    with open(os.path.join(args.out, "collect.log"), "a", encoding="utf-8") as log:
        args.log = log
        try:
            collection = Collection(args)
        except (RuntimeError, FileNotFoundError) as error:
            print(f"kelm.collect: {error}", file=sys.stderr)
            return 1
        try:
            for episode in range(args.episodes):
                if stop.is_set():
                    break
                path = os.path.join(args.out, f"episode_{episode}.hdf5")
                results.append(run_episode(collection, path, args.seed + episode, args, stop))
        except (RuntimeError, CameraError, ConnectionError) as error:
            print(f"kelm.collect: {error}", file=sys.stderr)
            return 1
        finally:
            collection.close()
            print_summary(results)
    return 0


if __name__ == "__main__":
    sys.exit(main())
