"""Episode recorder: every state frame of a master and a slave arm into HDF5.

    python3 -m kelm.record --master 127.0.0.2 --slave 127.0.0.1 --duration 30
    python3 -m kelm.record --teleop 0 --duration 60 --out episodes/

It connects to both controllers as two more clients beside a running
teleoperation (or, with ``--teleop MODE``, starts ``kelm_teleop --mode MODE
--ip MASTER`` itself, records once it runs, and ends it with the recording),
and records until the duration has passed or Ctrl+C.

One file per episode, in the layout of bimanual imitation-learning datasets,
one row per master frame (the clock of teleoperation):

    /observations/qpos     (N, dof+1)  slave joints [rad] and gripper position [m]
    /observations/qvel     (N, dof+1)  slave joint velocities and gripper velocity
    /observations/effort   (N, dof+1)  slave joint torques and gripper torque
    /action                (N, dof+1)  master joints [rad] and gripper position [m]
    /timestamps            (N, 2)      master controller time, receive time [Unix s]

Column j of /action is the target of column j of /observations/qpos. The
observation of a row is the slave frame received last before the master frame
(/observations/slave_index gives its row in /slave). Every frame of both arms
is also kept as it came, in /master and /slave (count, stamp, received, qpos,
qvel, effort, gripper). Attributes give the rate, the addresses, the dof, the
frame and dropped-frame counts (gaps in the controllers' frame counter).
"""

import argparse
import datetime
import os
import signal
import subprocess
import sys
import threading
import time

import numpy as np

from . import _kelm

TELEOP_RUNNING_LINE = "程序运行中"
RAW_FIELDS = ("count", "stamp", "received", "qpos", "qvel", "effort", "gripper")
CHUNK_ROWS = 4096


def parse_address(text, default_port=8090):
    """'host' or 'host:port' -> (host, port)."""
    host, _, port = text.partition(":")
    return host, int(port) if port else default_port


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
                self.group.create_dataset(
                    name, shape=(0,) + values.shape[1:], maxshape=(None,) + values.shape[1:],
                    dtype=values.dtype, chunks=(CHUNK_ROWS,) + values.shape[1:], compression=self.compression)
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


class EpisodeRecorder:
    """Records both arms' frames into `path` (an HDF5 file) while open."""

    def __init__(self, path, master=("127.0.0.2", 8090), slave=("127.0.0.1", 8090), master_arm=0, slave_arm=0,
                 timeout=1.0, compression=None):
        import h5py

        self.path = path
        self.master_address, self.slave_address = master, slave
        self.master = _kelm.KelmKernelImpl(master[0], master[1], timeout, master_arm)
        self.slave = _kelm.KelmKernelImpl(slave[0], slave[1], timeout, slave_arm)
        for name, kernel, address in (("master", self.master, master), ("slave", self.slave, slave)):
            if not kernel.is_connected():
                self.close()
                raise ConnectionError(f"no {name} controller at {address[0]}:{address[1]}")
        self.file = h5py.File(path, "w")
        self.master_log = _kelm.StateLog(self.master, "kelm.record")
        self.slave_log = _kelm.StateLog(self.slave, "kelm.record")
        self.raw = {"master": _Appender(self.file.create_group("master"), compression),
                    "slave": _Appender(self.file.create_group("slave"), compression)}
        self.streams = {"master": _Stream(), "slave": _Stream()}
        self.obs = _Appender(self.file.create_group("observations"), compression)
        self.top = _Appender(self.file, compression)
        self.pending_master = None   # master rows not yet matched to a slave frame
        self.slave_received = np.empty(0)
        self.slave_rows = {}
        self.slave_base = 0          # /slave row of slave_received[0]
        self.started = time.time()
        self.closed = False

    # -- capture --

    def poll(self, final=False):
        """Moves what both captures hold into the file; returns rows written."""
        master = self.master_log.drain()
        slave = self.slave_log.drain()
        for name, batch in (("master", master), ("slave", slave)):
            self.streams[name].take(batch["count"])
            self.raw[name].append(batch)
        self._keep_slave(slave)
        self._queue_master(master)
        return self._align(final)

    def _keep_slave(self, slave):
        if len(slave["count"]) == 0:
            return
        if len(self.slave_received) == 0:
            self.slave_base = self.raw["slave"].rows - len(slave["count"])
            self.slave_received = slave["received"]
            self.slave_rows = {k: slave[k] for k in ("qpos", "qvel", "effort", "gripper")}
        else:
            self.slave_received = np.concatenate((self.slave_received, slave["received"]))
            for k in self.slave_rows:
                self.slave_rows[k] = np.concatenate((self.slave_rows[k], slave[k]))

    def _queue_master(self, master):
        if len(master["count"]) == 0:
            return
        if self.pending_master is None:
            self.pending_master = master
        else:
            self.pending_master = {k: np.concatenate((self.pending_master[k], master[k])) for k in master}

    def _align(self, final):
        """Rows for the master frames whose slave observation is known."""
        pending = self.pending_master
        if pending is None or len(pending["count"]) == 0 or len(self.slave_received) == 0:
            return 0
        if final:
            ready = len(pending["count"])
        else:
            # A slave frame received before a master frame may still be on its
            # way into the capture: match only up to the newest slave frame.
            ready = int(np.searchsorted(pending["received"], self.slave_received[-1], side="right"))
        if ready == 0:
            return 0
        received = pending["received"][:ready]
        index = np.searchsorted(self.slave_received, received, side="right") - 1
        index = np.clip(index, 0, len(self.slave_received) - 1)  # before the first slave frame: the first
        slave = {k: v[index] for k, v in self.slave_rows.items()}
        self.obs.append({
            "qpos": np.column_stack((slave["qpos"], slave["gripper"][:, 0])),
            "qvel": np.column_stack((slave["qvel"], slave["gripper"][:, 1])),
            "effort": np.column_stack((slave["effort"], slave["gripper"][:, 2])),
            "slave_index": (index + self.slave_base).astype(np.int64),
        })
        self.top.append({
            "action": np.column_stack((pending["qpos"][:ready], pending["gripper"][:ready, 0])),
            "timestamps": np.column_stack((pending["stamp"][:ready], received)),
        })
        self.pending_master = {k: v[ready:] for k, v in pending.items()}
        # Keep the slave frames that later master frames may still need.
        keep = max(0, int(index[-1]) - 1)
        self.slave_base += keep
        self.slave_received = self.slave_received[keep:]
        self.slave_rows = {k: v[keep:] for k, v in self.slave_rows.items()}
        return ready

    # -- end --

    def close(self):
        """Stops the captures, writes the rest and the attributes, disconnects."""
        if getattr(self, "closed", True):
            for kernel in ("master", "slave"):
                if hasattr(self, kernel):
                    getattr(self, kernel).close()
            return
        self.closed = True
        self.master_log.stop()
        self.slave_log.stop()
        self.poll(final=True)
        elapsed = time.time() - self.started
        attrs = self.file.attrs
        master, slave = self.streams["master"], self.streams["slave"]
        stamps = self.file["timestamps"][:, 0] if "timestamps" in self.file else np.empty(0)
        span = float(stamps[-1] - stamps[0]) if len(stamps) > 1 else 0.0
        sent = (master.last_count - master.first_count) if master.frames > 1 else 0
        attrs["rate"] = sent / span if span > 0 else 0.0  # the master controller's frame rate [Hz]
        attrs["recorded_rate"] = (len(stamps) - 1) / span if span > 0 else 0.0  # rows per second
        attrs["master"] = f"{self.master_address[0]}:{self.master_address[1]}"
        attrs["slave"] = f"{self.slave_address[0]}:{self.slave_address[1]}"
        attrs["master_dof"] = self.master.get_status().dof
        attrs["slave_dof"] = self.slave.get_status().dof
        attrs["dof"] = attrs["slave_dof"]
        attrs["frames_master"] = master.frames
        attrs["frames_slave"] = slave.frames
        attrs["dropped_master"] = master.dropped + self.master_log.overflow
        attrs["dropped_slave"] = slave.dropped + self.slave_log.overflow
        attrs["first_count_master"] = -1 if master.first_count is None else master.first_count
        attrs["last_count_master"] = -1 if master.last_count is None else master.last_count
        attrs["first_count_slave"] = -1 if slave.first_count is None else slave.first_count
        attrs["last_count_slave"] = -1 if slave.last_count is None else slave.last_count
        attrs["started"] = datetime.datetime.fromtimestamp(self.started, datetime.timezone.utc).isoformat()
        attrs["duration"] = elapsed
        attrs["columns"] = "joints 0..dof-1, then the gripper"
        if "timestamps" in self.file:
            self.file["timestamps"].attrs["columns"] = "master controller time [s], receive time [Unix s]"
        self.file.close()
        self.master.close()
        self.slave.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def progress(self):
        """One line: frames, the master's frame rate since the last line, dropped frames, elapsed time."""
        master, slave = self.streams["master"], self.streams["slave"]
        now = time.time()
        elapsed = now - self.started
        last_time, last_frames = getattr(self, "_last_progress", (self.started, 0))
        rate = (master.frames - last_frames) / (now - last_time) if now > last_time else 0.0
        self._last_progress = (now, master.frames)
        return (f"frames {master.frames} master / {slave.frames} slave | "
                f"rate {rate:7.1f} Hz | "
                f"dropped {master.dropped + self.master_log.overflow} / {slave.dropped + self.slave_log.overflow} | "
                f"{elapsed:6.1f} s")


# ---- the teleoperation child ----

def find_teleop(explicit=None):
    """kelm_teleop: the given path, $KELM_TELEOP, this build tree's, or PATH."""
    import shutil

    candidates = [explicit, os.environ.get("KELM_TELEOP")]
    try:
        from ._build_paths import KELM_TELEOP
        candidates.append(KELM_TELEOP)
    except ImportError:
        pass
    candidates.append(shutil.which("kelm_teleop"))
    for path in candidates:
        if path and os.access(path, os.X_OK):
            return path
    raise FileNotFoundError("kelm_teleop not found: give --teleop-path or put it on PATH")


class TeleopChild:
    """kelm_teleop as a child process; its output goes to `log`."""

    def __init__(self, path, mode, master_ip, log):
        self.running = threading.Event()
        self.process = subprocess.Popen([path, "--mode", str(mode), "--ip", master_ip], stdout=subprocess.PIPE,
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


def main(argv=None):
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
    parser.add_argument("--compress", action="store_true",
                        help="gzip the datasets: much smaller for smooth motions, about 60 us more CPU per frame")
    parser.add_argument("--quiet", action="store_true", help="no progress line")
    args = parser.parse_args(argv)

    master, slave = parse_address(args.master), parse_address(args.slave)
    path = args.output or next_episode_path(args.out)
    _kelm.set_log_level(_kelm.LOG_ERROR)
    teleop = None
    if args.teleop is not None:
        if slave != ("127.0.0.1", 8090) or master[1] != 8090:
            print("kelm.record: kelm_teleop drives MASTER:8090 and the slave at 127.0.0.1:8090; recording "
                  f"{args.master} and {args.slave} all the same", file=sys.stderr)
        teleop = TeleopChild(find_teleop(args.teleop_path), args.teleop, master[0], sys.stderr)
        if not teleop.wait_running(90):
            code = teleop.stop()
            print(f"kelm.record: kelm_teleop did not start (exit {code})", file=sys.stderr)
            return 1

    try:
        recorder = EpisodeRecorder(path, master, slave, args.master_arm, args.slave_arm,
                                   compression="gzip" if args.compress else None)
    except ConnectionError as error:
        print(f"kelm.record: {error}", file=sys.stderr)
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
        last_line = 0.0
        while not stop.is_set():
            time.sleep(0.1)
            recorder.poll()
            now = time.time()
            if show and now - last_line >= 0.5:
                sys.stderr.write("\r" + recorder.progress())
                sys.stderr.flush()
                last_line = now
            if args.duration > 0 and now - recorder.started >= args.duration:
                break
            if teleop and teleop.process.poll() is not None:
                print("\nkelm.record: kelm_teleop ended", file=sys.stderr)
                break
    finally:
        summary = recorder.progress()
        recorder.close()
        if teleop:
            teleop.stop()
    if show:
        sys.stderr.write("\r" + summary + "\n")
    print(f"kelm.record: {'stopped, ' if stop.is_set() else ''}episode written to {path}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
