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


class Sim:
    """One kelm_sim process; `port` is the one it bound."""

    def __init__(self, *args):
        if "KELM_SIM" not in os.environ:
            pytest.exit("kelm_sim not found: set KELM_SIM", returncode=2)
        self.process = subprocess.Popen([os.environ["KELM_SIM"], "--port", "0", "--quiet", *args],
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        first = self.process.stdout.readline()
        match = re.search(r"listening on ws://([\d.]+):(\d+)", first)
        if not match:
            self.process.kill()
            raise RuntimeError("kelm_sim did not start: " + first + self.process.stdout.read())
        self.host, self.port = match.group(1), int(match.group(2))
        self.address = f"{self.host}:{self.port}"
        self.lines = [first]
        self.reader = threading.Thread(target=lambda: self.lines.extend(self.process.stdout), daemon=True)
        self.reader.start()

    def stop(self):
        """Stops the simulator and returns all it printed."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.reader.join(5)
        return "".join(self.lines)

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
