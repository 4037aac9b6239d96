"""Live view of a teleoperation: both arms in 3-D and the stream's health in a browser.

    python3 -m kelm.view --master IP[:PORT] --slave IP[:PORT] [--port 8000] [--bind 127.0.0.1]
                         [--camera NAME=URL ...]

Connects to both controllers as two more clients (it only listens: no request
that changes an arm is sent) and serves one page with a WebSocket on one port.
The page asks for the state once per animation frame and gets the newest
state of both arms; nothing queues up, so the page's frame rate decimates the
controllers' rate. Cameras given with --camera (MJPEG streams, such as the
simulator's) are shown beside the arms; the browser reads them directly.

Threads: each controller connection delivers frames on its own receive thread
into an ArmFeed (frames in, newest state out); a poller thread reads the
connection status every STATUS_PERIOD_S; the asyncio loop on the main thread
serves files and answers the page's requests with ArmFeed.snapshot().
"""

import argparse
import asyncio
import collections
import http
import json
import mimetypes
import os
import threading
import time
from pathlib import Path

import numpy as np
import websockets

from . import _kelm

WEB_ROOT = Path(__file__).resolve().parent / "web"
# The page's libraries, installed by scripts/install-web-deps.
LIBRARY_ROOT = WEB_ROOT / "node_modules"
DEFAULT_MODEL_NAME = "industrial_arm.urdf"
CONTROLLER_PORT = _kelm.CONTROLLER_PORT
STATUS_PERIOD_S = 0.2
# A stream that sent nothing for this long shows as not streaming.
STALE_AFTER_S = 0.5
# Joint traces kept for the lag estimate, and the largest lag looked for.
LAG_WINDOW_S = 2.0
LAG_MAX_S = 0.3
LAG_STEP_S = 0.001
# Frames a trace holds: LAG_WINDOW_S at up to 5 kHz.
TRACE_LENGTH = int(LAG_WINDOW_S * 5000)


def as_list(values):
    """Floats of a numpy array (the library's vectors), a list or a tuple."""
    return values.tolist() if hasattr(values, "tolist") else [float(value) for value in values]


class ArmFeed:
    """Newest state of one arm. The receive thread calls the on_* methods,
    the status poller calls on_status, the server thread calls snapshot()."""

    def __init__(self):
        self._lock = threading.Lock()
        self._joints = []
        self._gripper = 0.0
        self._external_tau = None
        self._frames = 0
        self._gaps = 0  # frames the controller's count skipped
        self._last_count = None
        self._last_receive = None
        self._error = None
        self._status = {}
        self._trace = collections.deque(maxlen=TRACE_LENGTH)  # (receive time [s], joints [rad])

    def on_joints(self, stamp, joints, gripper, count):
        """One frame: controller time stamp [s], joint positions [rad], gripper opening [m], frame count."""
        now = time.monotonic()
        values = as_list(joints)
        with self._lock:
            self._count_gap(int(count))
            self._joints = values
            self._gripper = float(gripper)
            self._frames += 1
            self._last_receive = now
            self._trace.append((now, values))

    def on_external_tau(self, _stamp, tau, _gripper_tau):
        """External joint torques [Nm] the slave feels, fed back in force mode."""
        values = as_list(tau)
        with self._lock:
            self._external_tau = values

    def on_error(self, code, text):
        with self._lock:
            self._error = {"code": int(code), "text": str(text), "time": time.monotonic()}

    def on_state(self, state):
        with self._lock:
            self._status["motion_state"] = int(state)

    def on_status(self, status):
        with self._lock:
            self._status.update(status)

    def _count_gap(self, count):
        if self._last_count is not None and count > self._last_count + 1:
            self._gaps += count - self._last_count - 1
        self._last_count = count

    def trace(self):
        """(receive times [s], joints [rad]) of the last LAG_WINDOW_S."""
        since = time.monotonic() - LAG_WINDOW_S
        with self._lock:
            entries = [entry for entry in self._trace if entry[0] >= since]
        if not entries:
            return np.empty(0), np.empty((0, 0))
        dof = min(len(joints) for _, joints in entries)
        return (np.array([t for t, _ in entries]), np.array([joints[:dof] for _, joints in entries]))

    def snapshot(self, now):
        with self._lock:
            fresh = self._last_receive is not None and now - self._last_receive < STALE_AFTER_S
            error = dict(self._error, age=now - self._error["time"]) if self._error else None
            return dict(self._status, joints=self._joints, gripper=self._gripper,
                        external_tau=self._external_tau, frames=self._frames, gaps=self._gaps,
                        streaming=fresh, error=error)


def estimate_lag(master, slave, mirror):
    """Delay [s] of the slave's trace behind the master's, or None.

    Both traces are resampled on one time grid; the lag is the shift of the
    master's trace that best matches the slave's, over the joints that moved."""
    (master_t, master_q), (slave_t, slave_q) = master, slave
    if len(master_t) < 10 or len(slave_t) < 10:
        return None
    dof = min(master_q.shape[1], slave_q.shape[1])
    if mirror:
        master_q = mirrored(master_q)
    shifts = int(LAG_MAX_S / LAG_STEP_S)
    start, end = max(master_t[0] + LAG_MAX_S, slave_t[0]), min(master_t[-1], slave_t[-1])
    if end - start < 0.2:
        return None
    grid = np.arange(start - LAG_MAX_S, end, LAG_STEP_S)
    moved = [j for j in range(dof) if np.ptp(master_q[:, j]) > 1e-3]
    if not moved:
        return None
    costs = np.zeros(shifts)
    for joint in moved:
        leader = np.interp(grid, master_t, master_q[:, joint])
        follower = np.interp(grid[shifts:], slave_t, slave_q[:, joint])
        # costs[k]: the master shifted by k steps against the slave.
        for shift in range(shifts):
            costs[shift] += np.mean((leader[shifts - shift:len(grid) - shift] - follower) ** 2)
    return float(np.argmin(costs) * LAG_STEP_S)


def mirrored(joints):
    """The slave's joints for the master's in mirror mode: joints 1, 4 and 6 change sign."""
    joints = np.array(joints, dtype=float)
    if joints.shape[-1] == 6:
        joints[..., [0, 3, 5]] *= -1.0
    return joints


class ControllerLink:
    """One listening connection: a KelmKernelImpl whose callbacks feed an ArmFeed.
    External torques, fed back to the master in force mode, are read from the slave."""

    CALLBACK_NAME = "kelm.view"

    def __init__(self, kelm, role, address, feed):
        host, _, port = address.partition(":")
        self.feed = feed
        self.kernel = kelm.KelmKernelImpl(host, int(port or CONTROLLER_PORT), 1.0, 0)
        self._mode_names = getattr(kelm, "fsm_mode_str_map", {})
        self._state_names = getattr(kelm, "kelm_state_str", {})
        # The tele master callback brings joints and gripper of any arm.
        # The frame count is read in the callback, on the thread that writes it.
        kernel = self.kernel
        self.kernel.register_get_tele_master_data_callback(
            self.CALLBACK_NAME,
            lambda stamp, joints, gripper: feed.on_joints(stamp, joints, gripper, kernel.msg_count))
        if role == "slave":
            self.kernel.register_get_tele_slave_data_callback(self.CALLBACK_NAME, feed.on_external_tau)
        self.kernel.register_error_catch_callback(self.CALLBACK_NAME, feed.on_error)
        self.kernel.register_state_changed_callback(self.CALLBACK_NAME, feed.on_state)

    def poll_status(self):
        status = self.kernel.get_status()
        self.feed.on_status({
            "connected": bool(status.connected), "name": str(status.arm_name), "dof": int(status.dof),
            "servo": bool(status.servo), "fsm_mode": int(status.fsm_mode),
            "fsm_name": self._name(self._mode_names, status.fsm_mode),
            "motion_state": int(status.motion_state),
            "state_name": self._name(self._state_names, status.motion_state)})

    @staticmethod
    def _name(table, value):
        for key, name in dict(table).items():
            if int(key) == int(value):
                return str(name)
        return str(int(value))


class ViewServer:
    """Serves the page, the arm model and the state over one port."""

    def __init__(self, feeds, config, model_path):
        self.feeds = feeds
        self.config = config
        self.model_path = Path(model_path)
        self.lag = None

    def state(self):
        now = time.monotonic()
        return {"time": now, "lag": self.lag,
                "arms": {role: feed.snapshot(now) for role, feed in self.feeds.items()}}

    async def estimate_lag_forever(self, period_s=0.5):
        while True:
            await asyncio.sleep(period_s)
            master, slave = self.feeds["master"].trace(), self.feeds["slave"].trace()
            self.lag = await asyncio.get_running_loop().run_in_executor(
                None, estimate_lag, master, slave, self.config["mirror"])

    async def answer_page(self, socket, _path=None):
        # One request in flight per page: each message asks for the newest state.
        async for _request in socket:
            await socket.send(json.dumps(self.state()))

    def file_response(self, path, _headers):
        if path.startswith("/state"):
            return None  # the WebSocket
        body, kind = self._file(path.split("?", 1)[0])
        if body is None:
            return http.HTTPStatus.NOT_FOUND, [("Content-Type", "text/plain")], b"not found\n"
        return http.HTTPStatus.OK, [("Content-Type", kind), ("Cache-Control", "no-cache")], body

    def _file(self, path):
        if path == "/config.json":
            return json.dumps(self.config).encode(), "application/json"
        if path == "/model.urdf":
            return self.model_path.read_bytes(), "application/xml"
        root, relative = (LIBRARY_ROOT, path[len("/lib/"):]) if path.startswith("/lib/") else (WEB_ROOT, path[1:])
        target = (root / (relative or "index.html")).resolve()
        if root.resolve() not in target.parents or not target.is_file():
            return None, None
        kind = mimetypes.guess_type(target.name)[0] or "application/octet-stream"
        if target.suffix == ".js":
            kind = "text/javascript"
        return target.read_bytes(), kind


def default_model_path():
    """The simulator's default model: in the source tree (python/kelm/ beside sim/models/), or in an
    install, <prefix>/share/kelm/models beside <prefix>/lib/python3*/dist-packages/kelm/."""
    here = Path(__file__).resolve().parent
    for candidate in (here.parents[1] / "sim" / "models", here.parents[3] / "share" / "kelm" / "models"):
        if (candidate / DEFAULT_MODEL_NAME).is_file():
            return candidate / DEFAULT_MODEL_NAME
    raise SystemExit("kelm.view: no default arm model found; give --model FILE.urdf")


def poll_status_forever(links, stop):
    while not stop.wait(STATUS_PERIOD_S):
        for link in links:
            link.poll_status()


def wall_height(text):
    """Z of kelm_sim's Z[,K] wall setting [m]."""
    return float(text.split(",", 1)[0])


def camera_stream(text):
    """'NAME=URL' of an MJPEG stream -> {"name", "url"}."""
    name, _, url = text.partition("=")
    if not name or not url.startswith(("http://", "https://")):
        raise argparse.ArgumentTypeError(f"'{text}': give NAME=URL of an MJPEG stream (http://...)")
    return {"name": name, "url": url}


def parse_arguments(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m kelm.view", description=__doc__.split("\n")[0])
    parser.add_argument("--master", required=True, help="master controller, IP or IP:PORT (port 8090 by default)")
    parser.add_argument("--slave", required=True, help="slave controller, IP or IP:PORT")
    parser.add_argument("--port", type=int, default=8000, help="port of the page (default 8000, 0: any free one)")
    parser.add_argument("--bind", default="127.0.0.1", help="address the page is served on (default 127.0.0.1)")
    parser.add_argument("--model", help="URDF file of the arms (default: the simulator's arm)")
    parser.add_argument("--wall", type=wall_height, metavar="Z[,K]",
                        help="draw the virtual wall at height Z [m], as kelm_sim --wall takes it (K is not used)")
    parser.add_argument("--mirror", type=int, choices=(0, 1), default=0, help="1: the teleoperation mirrors the master")
    parser.add_argument("--camera", action="append", default=[], type=camera_stream, metavar="NAME=URL",
                        help="show an MJPEG stream beside the arms, "
                             "e.g. front=http://127.0.0.1:8091/camera/front/stream; repeatable")
    return parser.parse_args(argv)


async def serve(arguments, server):
    async with websockets.serve(server.answer_page, arguments.bind, arguments.port,
                                process_request=server.file_response, max_size=2 ** 16) as listener:
        host, port = listener.sockets[0].getsockname()[:2]
        print(f"kelm.view: open http://{host}:{port}/", flush=True)
        await server.estimate_lag_forever()


def main(argv=None):
    arguments = parse_arguments(argv)
    if not LIBRARY_ROOT.is_dir():
        raise SystemExit(f"kelm.view: the page's libraries are missing in {LIBRARY_ROOT}; run scripts/install-web-deps")
    import kelm

    model = arguments.model or default_model_path()
    feeds = {"master": ArmFeed(), "slave": ArmFeed()}
    links = [ControllerLink(kelm, role, address, feeds[role])
             for role, address in (("master", arguments.master), ("slave", arguments.slave))]
    config = {"master": arguments.master, "slave": arguments.slave, "mirror": bool(arguments.mirror),
              "wall": arguments.wall, "model": os.path.basename(str(model)), "cameras": arguments.camera}
    stop = threading.Event()
    poller = threading.Thread(target=poll_status_forever, args=(links, stop), daemon=True)
    poller.start()
    try:
        asyncio.run(serve(arguments, ViewServer(feeds, config, model)))
    except KeyboardInterrupt:
        pass
    finally:
        stop.set()
        poller.join()
        del links


if __name__ == "__main__":
    main()
