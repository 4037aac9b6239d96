"""Episode recorder: every state frame of a master and a slave arm, and camera images, into HDF5.

    python3 -m kelm.record --master 127.0.0.2 --slave 127.0.0.1 --duration 30
    python3 -m kelm.record --teleop 0 --duration 60 --out episodes/ --camera front=/dev/video0

It connects to both controllers as two more clients beside a running
teleoperation (or, with ``--teleop MODE``, starts ``kelm_teleop --mode MODE
--ip MASTER`` itself, records once it runs, and ends it with the recording),
and records until the duration has passed or Ctrl+C.

One file per episode, in the layout of bimanual imitation-learning datasets,
one row per master frame (the clock of teleoperation), or per tick of
``--rate``:

    /observations/qpos     (N, dof+1)  slave joints [rad] and gripper position [m]
    /observations/qvel     (N, dof+1)  slave joint velocities and gripper velocity
    /observations/effort   (N, dof+1)  slave joint torques and gripper torque
    /observations/images/NAME  (N, H, W, 3) uint8 RGB, the camera's newest image at or before the row
    /action                (N, dof+1)  what the slave was sent: joints [rad] and gripper target [m]
    /timestamps            (N, 2)      master controller time, receive time [Unix s]

/action is the tool's mapping of the master's reading (mirrored joints in
mirror mode, gripper divided by the mode's divisor and clamped); the master's
own readings stay in /master. The observation of a row is the slave frame at
the usual lag from the master frame by the controllers' clocks
(/observations/slave_index gives its row in /slave). Every frame of both arms
is also kept as it came, in /master and /slave (count, stamp, received, qpos,
qvel, effort, gripper). Every dataset says its columns and units in its
attribute "columns"; file attributes give the rate, the addresses, the dof,
the frame and dropped-frame counts (gaps in the controllers' frame counter)
and the cameras' image and drop counts.
"""

import argparse
import datetime
import fnmatch
import os
import signal
import subprocess
import sys
import threading
import time

import numpy as np

from . import _kelm
from .cameras import CameraError, open_cameras

TELEOP_RUNNING_LINE = "程序运行中"
RAW_FIELDS = ("count", "stamp", "received", "qpos", "qvel", "effort", "gripper")
CHUNK_ROWS = 4096
CHUNK_BYTES = 1 << 20  # at most this per chunk, so that a chunk of images stays about one image
# The tool's mapping of the master's reading onto the slave's target: the
# gripper divisor of each mode, the gripper's range [m], and the joints that
# change sign in mirror mode (of a six-joint arm only).
GRIPPER_DIVISOR = {0: 0.6, 1: 0.8, 2: 0.6}
GRIPPER_RANGE = (0.0, 0.08)
MIRRORED_JOINTS = [0, 3, 5]
MIRRORED_DOF = 6
IMAGE_ROW_RATE = 50.0  # rows per second with cameras unless --rate says otherwise [Hz]

# The "columns" attribute of each dataset, by path (a * stands for a camera or an arm).
COLUMNS = {
    "action": "slave joint targets as sent [rad] 0..dof-1, gripper target [m]",
    "timestamps": "master controller time [s], receive time [Unix s]",
    "observations/qpos": "slave joints [rad] 0..dof-1, gripper opening [m]",
    "observations/qvel": "slave joint velocities [rad/s] 0..dof-1, gripper velocity [m/s]",
    "observations/effort": "slave joint torques [Nm] 0..dof-1, gripper force [N]",
    "observations/slave_index": "row in /slave of the observation",
    "observations/images/*": "RGB image, height x width x 3 [uint8]",
    "observations/image_times/*": "receive time of the row's image [Unix s]",
    "*/count": "controller frame counter",
    "*/stamp": "controller time [s]",
    "*/received": "receive time [Unix s]",
    "*/qpos": "joints [rad]",
    "*/qvel": "joint velocities [rad/s]",
    "*/effort": "joint torques [Nm]",
    "*/gripper": "gripper opening [m], velocity [m/s], force [N]",
}


def parse_address(text, default_port=_kelm.CONTROLLER_PORT):
    """'host' or 'host:port' -> (host, port)."""
    host, _, port = text.partition(":")
    return host, int(port) if port else default_port


def commanded_action(joints, gripper, mode=0, mirror=False):
    """What the tool sends the slave for master readings: joints (N, dof) [rad], gripper (N,) [m] ->
    (N, dof+1). In the pose mode the slave gets poses, not joints: the joints stay the master's."""
    joints = np.array(joints, dtype=float)
    if mirror and mode != 1 and joints.shape[1] == MIRRORED_DOF:
        joints[:, MIRRORED_JOINTS] *= -1.0
    target = np.nan_to_num(np.asarray(gripper, dtype=float) / GRIPPER_DIVISOR[mode], nan=0.0)
    return np.column_stack((joints, np.clip(target, *GRIPPER_RANGE)))


def match_frames(master_stamps, slave_stamps):
    """Row of `slave_stamps` observed with each of `master_stamps` (controller times [s]): the slave frame
    nearest to the master frame less the two streams' usual lag (within half a slave period), so that
    jitter of less than half a frame neither repeats nor skips a slave frame."""
    last = len(slave_stamps) - 1
    before = np.clip(np.searchsorted(slave_stamps, master_stamps, side="right") - 1, 0, max(last, 0))
    period = float(np.median(np.diff(slave_stamps))) if last > 0 else 0.0
    if not period > 0:
        return before
    # The circular mean of the offsets modulo the period: a lag near zero
    # whose offsets fall on both sides of a frame does not average to half.
    phase = np.exp(2j * np.pi * (master_stamps - slave_stamps[before]) / period)
    lag = np.angle(phase.mean()) / (2 * np.pi) * period
    target = master_stamps - lag
    after = np.clip(np.searchsorted(slave_stamps, target), 0, last)
    previous = np.clip(after - 1, 0, last)
    take_previous = np.abs(target - slave_stamps[previous]) <= np.abs(slave_stamps[after] - target)
    return np.where(take_previous, previous, after)


def describe_columns(file):
    """Sets the "columns" attribute of every dataset of `file` from COLUMNS."""
    def describe(path, item):
        if not hasattr(item, "shape"):
            return
        for pattern, text in COLUMNS.items():
            if fnmatch.fnmatch(path, pattern):
                item.attrs["columns"] = text
                return
    file.visititems(describe)


class _Appender:
    """Resizable datasets of one group, created at the first batch."""

    def __init__(self, group, compression):
        self.group = group
        self.compression = compression
        self.rows = 0

    def append(self, batch):
        n = len(batch[next(iter(batch))])
        if n == 0:
            return
        for name, values in batch.items():
            values = np.asarray(values)
            if name not in self.group:
                row_bytes = max(1, values[0].nbytes)
                chunk_rows = max(1, min(CHUNK_ROWS, CHUNK_BYTES // row_bytes))
                self.group.create_dataset(
                    name, shape=(0,) + values.shape[1:], maxshape=(None,) + values.shape[1:],
                    dtype=values.dtype, chunks=(chunk_rows,) + values.shape[1:], **self.compression)
            dataset = self.group[name]
            if dataset.shape[1:] != values.shape[1:]:
                raise ValueError(f"{name}: rows of {values.shape[1:]} after rows of {dataset.shape[1:]}")
            dataset.resize(self.rows + n, axis=0)
            dataset[self.rows:self.rows + n] = values
        self.rows += n


class _Stream:
    """Counters of one arm's frames."""

    def __init__(self):
        self.frames = 0
        self.dropped = 0
        self.last_count = None
        self.first_count = None

    def take(self, counts):
        if len(counts) == 0:
            return
        counts = counts.astype(np.int64)
        if self.first_count is None:
            self.first_count = int(counts[0])
        previous = counts[0] - 1 if self.last_count is None else self.last_count
        steps = np.diff(np.concatenate(([previous], counts)))
        self.dropped += int(np.sum(np.clip(steps - 1, 0, None)))
        self.last_count = int(counts[-1])
        self.frames += len(counts)


class _CameraTrack:
    """The images of one camera not yet written, and the newest one written, for the rows to pick from."""

    def __init__(self, camera):
        self.camera = camera
        self.times = [camera.first[0]]
        self.images = [camera.first[1]]

    def collect(self):
        for received, image in self.camera.take():
            self.times.append(received)
            self.images.append(image)

    def rows(self, received):
        """(images, their receive times) for rows received at `received` [Unix s]; keeps what later rows need."""
        times = np.asarray(self.times)
        index = np.clip(np.searchsorted(times, received, side="right") - 1, 0, len(times) - 1)
        images = np.stack([self.images[i] for i in index])
        chosen = times[index]
        self.times, self.images = self.times[index[-1]:], self.images[index[-1]:]
        return images, chosen


class EpisodeRecorder:
    """Records both arms' frames and the cameras' images into `path` (an HDF5 file) while open.

    cameras: opened kelm.cameras.Camera objects (closed with the recorder); rate: rows per second, None for
    one row per master frame; mode, mirror: the teleoperation's, for /action; compress: gzip the datasets."""

    def __init__(self, path, master=("127.0.0.2", _kelm.CONTROLLER_PORT), slave=("127.0.0.1", _kelm.CONTROLLER_PORT), master_arm=0, slave_arm=0,
                 timeout=1.0, compress=False, cameras=(), rate=None, mode=0, mirror=False):
        import h5py

        self.path = path
        self.master_address, self.slave_address = master, slave
        self.mode, self.mirror, self.rate = mode, mirror, rate
        self.cameras = list(cameras)
        self.master = _kelm.KelmKernelImpl(master[0], master[1], timeout, master_arm)
        self.slave = _kelm.KelmKernelImpl(slave[0], slave[1], timeout, slave_arm)
        for name, kernel, address in (("master", self.master, master), ("slave", self.slave, slave)):
            if not kernel.is_connected():
                self.close()
                raise ConnectionError(f"no {name} controller at {address[0]}:{address[1]}")
        self.file = h5py.File(path, "w")
        self.master_log = _kelm.StateLog(self.master, "kelm.record")
        self.slave_log = _kelm.StateLog(self.slave, "kelm.record")
        arms = {"compression": "gzip"} if compress else {}
        self.raw = {"master": _Appender(self.file.create_group("master"), arms),
                    "slave": _Appender(self.file.create_group("slave"), arms)}
        self.streams = {"master": _Stream(), "slave": _Stream()}
        self.obs = _Appender(self.file.create_group("observations"), arms)
        self.top = _Appender(self.file, arms)
        # Level 1: images compress about as well as at higher levels, several times faster.
        images = {"compression": "gzip", "compression_opts": 1} if compress else {}
        self.images = _Appender(self.file.create_group("observations/images"), images)
        self.image_times = _Appender(self.file.create_group("observations/image_times"), arms)
        self.tracks = [_CameraTrack(camera) for camera in self.cameras]
        self.pending_master = None   # master rows not yet matched to a slave frame
        self.slave_stamps = np.empty(0)
        self.slave_rows = {}
        self.slave_base = 0          # /slave row of slave_stamps[0]
        self.last_tick = None        # the --rate tick of the last row
        self.camera_failure = None   # (camera, why) once a camera stopped
        self.started = time.time()
        self.closed = False

    # -- capture --

    def poll(self, final=False, until=None):
        """Moves what both captures and the cameras hold into the file; returns rows written. `until`
        [Unix s]: the rows received later are left out (the last image of a camera that stopped)."""
        master = self.master_log.drain()
        slave = self.slave_log.drain()
        for track in self.tracks:
            track.collect()
        for name, batch in (("master", master), ("slave", slave)):
            self.streams[name].take(batch["count"])
            self.raw[name].append(batch)
        self._keep_slave(slave)
        self._queue_master(master)
        return self._align(final, until)

    def check_cameras(self):
        """The first camera found stopped, as (camera, why), or None; then the episode should end."""
        now = time.time()
        for camera in self.cameras:
            why = camera.stalled(now)
            if why:
                self.camera_failure = (camera, why)
                return self.camera_failure
        return None

    def _keep_slave(self, slave):
        if len(slave["count"]) == 0:
            return
        if len(self.slave_stamps) == 0:
            self.slave_base = self.raw["slave"].rows - len(slave["count"])
            self.slave_stamps = slave["stamp"]
            self.slave_rows = {k: slave[k] for k in ("qpos", "qvel", "effort", "gripper")}
        else:
            self.slave_stamps = np.concatenate((self.slave_stamps, slave["stamp"]))
            for k in self.slave_rows:
                self.slave_rows[k] = np.concatenate((self.slave_rows[k], slave[k]))

    def _queue_master(self, master):
        if len(master["count"]) == 0:
            return
        if self.pending_master is None:
            self.pending_master = master
        else:
            self.pending_master = {k: np.concatenate((self.pending_master[k], master[k])) for k in master}

    def _ready(self, pending, final, until):
        """How many pending master frames can be written now."""
        if final:
            ready = len(pending["count"])
        else:
            # The slave frame matched to a master frame may be up to half a
            # period later, and may still be on its way: wait for one more.
            period = float(np.median(np.diff(self.slave_stamps[-100:]))) if len(self.slave_stamps) > 1 else 0.0
            ready = int(np.searchsorted(pending["stamp"], self.slave_stamps[-1] - period, side="right"))
        if until is None and not final and self.tracks:
            until = min(track.times[-1] for track in self.tracks)  # rows wait for their images
        if until is not None:
            ready = min(ready, int(np.searchsorted(pending["received"], until, side="right")))
        return ready

    def _row_frames(self, stamps):
        """Which of the master frames at `stamps` [s] become rows: all, or the first of each --rate tick."""
        if not self.rate:
            return np.ones(len(stamps), dtype=bool)
        ticks = np.floor(stamps * self.rate)
        previous = np.concatenate(([-np.inf if self.last_tick is None else self.last_tick], ticks[:-1]))
        self.last_tick = ticks[-1]
        return ticks > previous

    def _align(self, final, until):
        """Rows for the master frames whose slave observation is known."""
        pending = self.pending_master
        if pending is None or len(pending["count"]) == 0 or len(self.slave_stamps) == 0:
            return 0
        ready = self._ready(pending, final, until)
        if ready == 0:
            return 0
        rows = self._row_frames(pending["stamp"][:ready])
        master = {k: v[:ready][rows] for k, v in pending.items()}
        self.pending_master = {k: v[ready:] for k, v in pending.items()}
        if not rows.any():
            return 0
        index = match_frames(master["stamp"], self.slave_stamps)
        slave = {k: v[index] for k, v in self.slave_rows.items()}
        self.obs.append({
            "qpos": np.column_stack((slave["qpos"], slave["gripper"][:, 0])),
            "qvel": np.column_stack((slave["qvel"], slave["gripper"][:, 1])),
            "effort": np.column_stack((slave["effort"], slave["gripper"][:, 2])),
            "slave_index": (index + self.slave_base).astype(np.int64),
        })
        self.top.append({
            "action": commanded_action(master["qpos"], master["gripper"][:, 0], self.mode, self.mirror),
            "timestamps": np.column_stack((master["stamp"], master["received"])),
        })
        if self.tracks:
            images, times = zip(*(track.rows(master["received"]) for track in self.tracks))
            names = [track.camera.name for track in self.tracks]
            self.images.append(dict(zip(names, images)))
            self.image_times.append(dict(zip(names, times)))
        # Keep the slave frames that later master frames may still need.
        keep = max(0, int(index[-1]) - 2)
        self.slave_base += keep
        self.slave_stamps = self.slave_stamps[keep:]
        self.slave_rows = {k: v[keep:] for k, v in self.slave_rows.items()}
        return int(rows.sum())

    # -- end --

    def close(self):
        """Stops the captures and cameras, writes the rest and the attributes, disconnects."""
        if getattr(self, "closed", True):
            for kernel in ("master", "slave"):
                if hasattr(self, kernel):
                    getattr(self, kernel).close()
            for camera in getattr(self, "cameras", ()):
                camera.close()
            return
        self.closed = True
        self.master_log.stop()
        self.slave_log.stop()
        until = self.camera_failure[0].last_image_time if self.camera_failure else None
        self.poll(final=True, until=until)
        for camera in self.cameras:
            camera.close()
        self._write_attributes()
        describe_columns(self.file)
        self.file.close()
        self.master.close()
        self.slave.close()

    def _write_attributes(self):
        attrs = self.file.attrs
        master, slave = self.streams["master"], self.streams["slave"]
        stamps = self.file["timestamps"][:, 0] if "timestamps" in self.file else np.empty(0)
        span = float(stamps[-1] - stamps[0]) if len(stamps) > 1 else 0.0
        sent = (master.last_count - master.first_count) if master.frames > 1 else 0
        master_span = float(self.file["master/stamp"][-1] - self.file["master/stamp"][0]) if sent else 0.0
        attrs["rate"] = sent / master_span if master_span > 0 else 0.0  # the master controller's frame rate [Hz]
        attrs["recorded_rate"] = (len(stamps) - 1) / span if span > 0 else 0.0  # rows per second
        attrs["master"] = f"{self.master_address[0]}:{self.master_address[1]}"
        attrs["slave"] = f"{self.slave_address[0]}:{self.slave_address[1]}"
        attrs["master_dof"] = self.master.get_status().dof
        attrs["slave_dof"] = self.slave.get_status().dof
        attrs["dof"] = attrs["slave_dof"]
        attrs["mode"] = self.mode
        attrs["mirror"] = bool(self.mirror)
        attrs["frames_master"] = master.frames
        attrs["frames_slave"] = slave.frames
        attrs["dropped_master"] = master.dropped + self.master_log.overflow
        attrs["dropped_slave"] = slave.dropped + self.slave_log.overflow
        attrs["first_count_master"] = -1 if master.first_count is None else master.first_count
        attrs["last_count_master"] = -1 if master.last_count is None else master.last_count
        attrs["first_count_slave"] = -1 if slave.first_count is None else slave.first_count
        attrs["last_count_slave"] = -1 if slave.last_count is None else slave.last_count
        attrs["started"] = datetime.datetime.fromtimestamp(self.started, datetime.timezone.utc).isoformat()
        attrs["duration"] = time.time() - self.started
        attrs["columns"] = "joints 0..dof-1, then the gripper"
        attrs["cameras"] = [camera.name for camera in self.cameras]
        for camera in self.cameras:
            attrs[f"camera_source_{camera.name}"] = camera.source
            attrs[f"camera_frames_{camera.name}"] = camera.frames
            attrs[f"camera_dropped_{camera.name}"] = camera.dropped
        if self.camera_failure:
            attrs["camera_failure"] = f"{self.camera_failure[0].name}: {self.camera_failure[1]}"

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def progress(self):
        """One line: frames, the master's frame rate since the last line, dropped frames, cameras, elapsed time."""
        master, slave = self.streams["master"], self.streams["slave"]
        now = time.time()
        elapsed = now - self.started
        last_time, last_frames = getattr(self, "_last_progress", (self.started, 0))
        rate = (master.frames - last_frames) / (now - last_time) if now > last_time else 0.0
        self._last_progress = (now, master.frames)
        cameras = "".join(f"{camera.name} {camera.frames} images, {camera.dropped} dropped | "
                          for camera in self.cameras)
        return (f"frames {master.frames} master / {slave.frames} slave | "
                f"rate {rate:7.1f} Hz | "
                f"dropped {master.dropped + self.master_log.overflow} / {slave.dropped + self.slave_log.overflow} | "
                f"{cameras}{elapsed:6.1f} s")


# ---- the teleoperation child ----

def find_program(name, explicit=None):
    """A tool of this project (kelm_teleop, kelm_sim): the given path, $KELM_TELEOP or $KELM_SIM, this build
    tree's, or PATH."""
    import shutil

    variable = name.upper()
    candidates = [explicit, os.environ.get(variable)]
    try:
        from . import _build_paths
        candidates.append(getattr(_build_paths, variable, None))
    except ImportError:
        pass
    candidates.append(shutil.which(name))
    for path in candidates:
        if path and os.access(path, os.X_OK):
            return path
    raise FileNotFoundError(f"{name} not found: give its path or put it on PATH")


class TeleopChild:
    """kelm_teleop as a child process; its output goes to `log`."""

    def __init__(self, path, mode, master_ip, log, mirror=False):
        self.running = threading.Event()
        command = [path, "--mode", str(mode), "--ip", master_ip, "--mirror", str(int(mirror))]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, start_new_session=True)
        self.log = log
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for raw in self.process.stdout:
            line = raw.decode("utf-8", "replace")
            self.log.write("kelm_teleop: " + line)
            if TELEOP_RUNNING_LINE in line:
                self.running.set()

    def wait_running(self, timeout):
        limit = time.monotonic() + timeout
        while time.monotonic() < limit:
            if self.running.wait(0.1):
                return True
            if self.process.poll() is not None:
                return False
        return False

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
            try:
                self.process.wait(20)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.reader.join(1)
        return self.process.returncode


# ---- command line ----

def next_episode_path(directory):
    os.makedirs(directory, exist_ok=True)
    index = 0
    while os.path.exists(os.path.join(directory, f"episode_{index}.hdf5")):
        index += 1
    return os.path.join(directory, f"episode_{index}.hdf5")


def parse_arguments(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m kelm.record", description=__doc__.split("\n\n")[0])
    parser.add_argument("--master", default="127.0.0.2", help="master controller HOST[:PORT] (default 127.0.0.2:8090)")
    parser.add_argument("--slave", default="127.0.0.1", help="slave controller HOST[:PORT] (default 127.0.0.1:8090)")
    parser.add_argument("--master-arm", type=int, default=0, help="arm index on the master controller")
    parser.add_argument("--slave-arm", type=int, default=0, help="arm index on the slave controller")
    parser.add_argument("--duration", type=float, default=0.0, help="seconds to record (default: until Ctrl+C)")
    parser.add_argument("--out", default="episodes", help="directory for episode_N.hdf5 (default ./episodes)")
    parser.add_argument("-o", "--output", help="the episode file (instead of --out)")
    parser.add_argument("--teleop", type=int, choices=(0, 1, 2), metavar="MODE",
                        help="start kelm_teleop --mode MODE against the master first (slave 127.0.0.1:8090)")
    parser.add_argument("--teleop-path", help="kelm_teleop to start (default: this build's, or PATH)")
    parser.add_argument("--mode", type=int, choices=(0, 1, 2), default=0,
                        help="the running teleoperation's mode, for /action (default 0; --teleop sets it)")
    parser.add_argument("--mirror", type=int, choices=(0, 1), default=0,
                        help="1: the teleoperation mirrors (with --teleop: make it mirror)")
    parser.add_argument("--camera", action="append", default=[], metavar="NAME=SOURCE",
                        help="record a camera: a V4L2 device (/dev/video0), a stream URL or a video file; repeatable")
    parser.add_argument("--rate", type=float, metavar="HZ",
                        help=f"rows per second (default: one per master frame; with --camera {IMAGE_ROW_RATE:g})")
    parser.add_argument("--compress", action="store_true",
                        help="gzip the datasets: much smaller for smooth motions, about 60 us more CPU per frame")
    parser.add_argument("--quiet", action="store_true", help="no progress line")
    args = parser.parse_args(argv)
    if args.teleop is not None:
        args.mode = args.teleop
    if args.rate is None and args.camera:
        args.rate = IMAGE_ROW_RATE
    if args.rate is not None and not args.rate > 0:
        parser.error("--rate takes a positive number of rows per second")
    return args


def record(recorder, stop, duration, teleop=None, show=True):
    """Polls `recorder` until `stop` is set, `duration` [s] (0: no limit) has passed, the teleoperation child
    ended or a camera stopped. Returns a text that says why it ended early, or None."""
    last_line = 0.0
    while not stop.is_set():
        time.sleep(0.1)
        recorder.poll()
        now = time.time()
        if show and now - last_line >= 0.5:
            sys.stderr.write("\r" + recorder.progress())
            sys.stderr.flush()
            last_line = now
        if duration > 0 and now - recorder.started >= duration:
            return None
        if teleop and teleop.process.poll() is not None:
            return "kelm_teleop ended"
        failure = recorder.check_cameras()
        if failure:
            return f"camera {failure[0].name} stopped ({failure[1]}); the episode keeps the rows up to its last image"
    return None


def main(argv=None):
    args = parse_arguments(argv)
    master, slave = parse_address(args.master), parse_address(args.slave)
    path = args.output or next_episode_path(args.out)
    _kelm.set_log_level(_kelm.LOG_ERROR)
    try:
        cameras = open_cameras(args.camera)
    except (CameraError, ValueError) as error:
        print(f"kelm.record: {error}", file=sys.stderr)
        return 1
    teleop = None
    if args.teleop is not None:
        if slave != ("127.0.0.1", _kelm.CONTROLLER_PORT) or master[1] != _kelm.CONTROLLER_PORT:
            print("kelm.record: kelm_teleop drives MASTER:8090 and the slave at 127.0.0.1:8090; recording "
                  f"{args.master} and {args.slave} all the same", file=sys.stderr)
        teleop_path = find_program("kelm_teleop", args.teleop_path)
        teleop = TeleopChild(teleop_path, args.teleop, master[0], sys.stderr, args.mirror)
        if not teleop.wait_running(90):
            code = teleop.stop()
            print(f"kelm.record: kelm_teleop did not start (exit {code})", file=sys.stderr)
            for camera in cameras:
                camera.close()
            return 1

    try:
        recorder = EpisodeRecorder(path, master, slave, args.master_arm, args.slave_arm, compress=args.compress,
                                   cameras=cameras, rate=args.rate, mode=args.mode, mirror=bool(args.mirror))
    except ConnectionError as error:
        print(f"kelm.record: {error}", file=sys.stderr)
        for camera in cameras:
            camera.close()
        if teleop:
            teleop.stop()
        return 1

    # Ctrl+C (or SIGTERM) ends the recording between two batches, so that
    # no batch is cut in half in the file.
    stop = threading.Event()
    for signum in (signal.SIGINT, signal.SIGTERM):
        signal.signal(signum, lambda *_: stop.set())
    show = not args.quiet
    try:
        ended = record(recorder, stop, args.duration, teleop, show)
    finally:
        summary = recorder.progress()
        recorder.close()
        if teleop:
            teleop.stop()
    if show:
        sys.stderr.write("\r" + summary + "\n")
    if ended:
        print(f"\nkelm.record: {ended}", file=sys.stderr)
    print(f"kelm.record: {'stopped, ' if stop.is_set() else ''}episode written to {path}")
    return 1 if recorder.camera_failure else 0


if __name__ == "__main__":
    sys.exit(main())
