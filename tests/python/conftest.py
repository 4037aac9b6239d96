"""Fixtures of the kelm Python tests: controller simulators on free ports.

The simulator is the built kelm_sim named by $KELM_SIM; each runs as a child
process on 127.0.0.1 with port 0 and is stopped (SIGINT) after its test,
which gives its closing summary.
"""

import os
import re
import signal
import subprocess
import sys
import threading
import time

import pytest

WAIT_S = 10  # bounds every wait for the simulator or the module; a loaded machine needs the margin


def wait_for(condition, timeout=WAIT_S):
    """Polls `condition` until it holds or `timeout` [s] has passed; returns its last value."""
    limit = time.monotonic() + timeout
    while not condition() and time.monotonic() < limit:
        time.sleep(0.01)
    return condition()


class Child:
    """A child process that prints the address it serves; `match` is that line's match of `pattern`."""

    def __init__(self, args, pattern, stderr=subprocess.STDOUT):
        self.process = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=stderr, text=True)
        self.lines, self.match = [], None
        watchdog = threading.Timer(3 * WAIT_S, self.process.kill)  # bounds the reads below in time
        watchdog.start()
        while not self.match and len(self.lines) < 50:  # log lines may come first
            self.lines.append(self.process.stdout.readline())
            self.match = re.search(pattern, self.lines[-1])
        watchdog.cancel()
        if not self.match:
            self.process.kill()
            raise RuntimeError(f"{args[0]} did not start: " + "".join(self.lines) + self.process.stdout.read())
        # Keep reading, so that the output never fills the pipe.
        self.reader = threading.Thread(target=lambda: self.lines.extend(self.process.stdout), daemon=True)
        self.reader.start()

    def stop(self):
        """Stops the process with Ctrl+C and returns all it printed."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.reader.join(5)
        return "".join(self.lines)


class Sim(Child):
    """One kelm_sim process; `port` is the one it bound."""

    def __init__(self, *args):
        if "KELM_SIM" not in os.environ:
            pytest.exit("kelm_sim not found: set KELM_SIM", returncode=2)
        command = [os.environ["KELM_SIM"], "--port", "0", "--quiet", *args]
        super().__init__(command, r"listening on ws://([\d.]+):(\d+)")
        self.host, self.port = self.match.group(1), int(self.match.group(2))
        self.address = f"{self.host}:{self.port}"

    def streamed_targets(self, arm=0):
        """Tracking targets the arm followed, from the closing summary."""
        match = re.search(rf"arm{arm} followed (\d+) streamed targets", self.stop())
        return int(match.group(1)) if match else 0


@pytest.fixture
def start_sim():
    """start_sim(*options) -> Sim; every one started is stopped afterwards."""
    started = []

    def start(*args):
        started.append(Sim(*args))
        return started[-1]

    yield start
    for sim in started:
        sim.stop()


@pytest.fixture(scope="module")
def sim():
    """A two-arm simulator at 500 Hz shared by the tests of a module."""
    sim = Sim("--arms", "2")
    yield sim
    sim.stop()


@pytest.fixture
def python():
    """python(args, timeout=60) runs this test run's interpreter with `args`; returns the CompletedProcess."""
    def run(args, timeout=60):
        return subprocess.run([sys.executable, *args], capture_output=True, text=True, timeout=timeout)
    return run


class MjpegServer:
    """A camera stand-in: an MJPEG stream (multipart/x-mixed-replace) on 127.0.0.1, port 0, at `fps`,
    whose images change from one to the next; after `frames` images it closes the stream (None: never)."""

    def __init__(self, fps=15.0, size=(320, 240), frames=None):
        import http.server
        import socketserver

        self.fps, self.size, self.frames = fps, size, frames
        server = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                server.stream(self)

            def log_message(self, *_args):
                pass

        self.httpd = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
        self.httpd.daemon_threads = True
        self.url = f"http://127.0.0.1:{self.httpd.server_address[1]}/stream"
        threading.Thread(target=self.httpd.serve_forever, daemon=True).start()

    def image(self, number):
        import cv2
        import numpy as np

        width, height = self.size
        image = np.full((height, width, 3), 60, dtype=np.uint8)
        x = (number * 7) % (width - 40)
        cv2.rectangle(image, (x, height // 3), (x + 40, height // 3 + 40), (0, 200, 255), -1)
        return cv2.imencode(".jpg", image)[1].tobytes()

    def stream(self, handler):
        handler.send_response(200)
        handler.send_header("Content-Type", "multipart/x-mixed-replace; boundary=frame")
        handler.end_headers()
        number, started = 0, time.monotonic()
        try:
            while self.frames is None or number < self.frames:
                jpeg = self.image(number)
                handler.wfile.write(b"--frame\r\nContent-Type: image/jpeg\r\nContent-Length: %d\r\n\r\n" % len(jpeg)
                                    + jpeg + b"\r\n")
                number += 1
                time.sleep(max(0.0, started + number / self.fps - time.monotonic()))
        except (BrokenPipeError, ConnectionResetError):
            pass

    def close(self):
        self.httpd.shutdown()
        self.httpd.server_close()


@pytest.fixture
def mjpeg_server():
    """mjpeg_server(fps=15, size=(320, 240), frames=None) -> MjpegServer; all are closed afterwards."""
    servers = []

    def start(**options):
        servers.append(MjpegServer(**options))
        return servers[-1]

    yield start
    for server in servers:
        server.close()
