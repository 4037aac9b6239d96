"""Fixtures of the kelm Python tests: controller simulators on free ports.

The simulator is the built kelm_sim ($KELM_SIM, else build/sim/kelm_sim next to
the package on PYTHONPATH); each runs as a child process on 127.0.0.1 with
port 0 and is stopped (SIGINT) after its test, which gives its closing summary.
"""

import os
import re
import signal
import subprocess
import sys
import threading

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(HERE))


def _find_sim():
    path = os.environ.get("KELM_SIM")
    if path:
        return path
    for entry in os.environ.get("PYTHONPATH", "").split(os.pathsep):
        candidate = os.path.join(os.path.dirname(os.path.abspath(entry)), "sim", "kelm_sim")
        if entry and os.access(candidate, os.X_OK):
            return candidate
    pytest.exit("kelm_sim not found: set KELM_SIM", returncode=2)


class Sim:
    """One kelm_sim process; `port` is the one it bound."""

    def __init__(self, *args):
        self.process = subprocess.Popen([_find_sim(), "--port", "0", "--quiet", *args], stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True)
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
        sim = Sim(*args)
        started.append(sim)
        return sim

    yield start
    for sim in started:
        sim.stop()


@pytest.fixture(scope="module")
def sim():
    """A two-arm simulator at 500 Hz shared by the tests of a module."""
    sim = Sim("--arms", "2")
    yield sim
    sim.stop()


def run_python(args, timeout=60, **kwargs):
    """Runs the interpreter of this test run with `args`; returns the CompletedProcess."""
    return subprocess.run([sys.executable, *args], capture_output=True, text=True, timeout=timeout, **kwargs)


@pytest.fixture
def python():
    return run_python


@pytest.fixture
def examples_dir():
    return os.path.join(SOURCE, "examples", "python")
