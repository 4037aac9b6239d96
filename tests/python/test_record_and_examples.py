"""The episode recorder, its plot, and the Python examples against kelm_sim."""

import os
import re
import signal
import subprocess
import sys
import time

import h5py
import numpy as np
import pytest

from conftest import wait_for

EXAMPLES = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))), "examples",
                        "python")


def test_recorder_keeps_every_frame_and_lines_up_its_columns(start_sim, python, tmp_path):
    # A controller skips frames for a client that reads too slowly (a loaded
    # machine), and the recorder counts those from the gaps in the frame
    # counter: rows and skipped frames add up to every frame the controller
    # sent while the recorder was connected.
    master, slave = start_sim("--rate", "1000"), start_sim("--rate", "1000")
    path = tmp_path / "episode.hdf5"
    result = python(["-m", "kelm.record", "--master", master.address, "--slave", slave.address, "--duration", "3",
                     "-o", str(path)])
    assert result.returncode == 0, result.stderr
    assert re.search(r"frames \d+ master / \d+ slave \| rate .* Hz \| dropped \d+ / \d+ \|", result.stderr)

    with h5py.File(path, "r") as episode:
        attrs = episode.attrs
        for arm in ("master", "slave"):
            count = episode[f"{arm}/count"][:]
            assert len(count) > 1 and attrs[f"last_count_{arm}"] == count[-1] and np.all(np.diff(count) > 0)
            assert len(count) + attrs[f"dropped_{arm}"] == count[-1] - count[0] + 1
        rows = len(episode["master/count"])
        dof = attrs["dof"]
        action, qpos = episode["action"][:], episode["observations/qpos"][:]
        assert action.shape == qpos.shape == episode["observations/qvel"].shape == (rows, dof + 1)
        assert episode["timestamps"].shape == (rows, 2)
        assert 0 < attrs["recorded_rate"] <= attrs["rate"] * 1.01 < 1100  # a loaded machine slows the controllers
        # Columns: what the slave was sent for each master frame; its matched frame.
        assert np.array_equal(action[:, :dof], episode["master/qpos"][:])
        assert np.allclose(action[:, dof], np.clip(episode["master/gripper"][:, 0] / 0.6, 0, 0.08))
        index = episode["observations/slave_index"][:]
        assert np.array_equal(qpos[:, :dof], episode["slave/qpos"][:][index])
        assert np.array_equal(qpos[:, dof], episode["slave/gripper"][:, 0][index])
        assert np.all(np.diff(index) >= 0)

    plot = python(["-m", "kelm.plot", str(path)])
    assert plot.returncode == 0, plot.stderr
    assert os.path.getsize(tmp_path / "episode.png") > 10000


def test_recorder_ends_on_ctrl_c_with_a_whole_file(start_sim, tmp_path):
    master, slave = start_sim(), start_sim()
    path = tmp_path / "interrupted.hdf5"
    recorder = subprocess.Popen([sys.executable, "-m", "kelm.record", "--master", master.address, "--slave",
                                 slave.address, "-o", str(path), "--quiet"], stdout=subprocess.PIPE, text=True)
    # The file is made just before the recorder takes over Ctrl+C: give it a moment more.
    assert wait_for(path.exists, 30)
    time.sleep(1.0)
    recorder.send_signal(signal.SIGINT)
    assert recorder.wait(20) == 0 and "stopped, episode written" in recorder.stdout.read()
    with h5py.File(path, "r") as episode:
        rows = len(episode["action"])
        assert rows > 0 and all(len(episode[name]) == rows for name in ("timestamps", "observations/qpos"))


def test_leader_follower_relays_every_frame(start_sim, python):
    master, slave = start_sim(), start_sim()
    result = python([os.path.join(EXAMPLES, "03_leader_follower.py"), "--ip", master.host, "--port", str(master.port),
                     "--slave-ip", slave.host, "--slave-port", str(slave.port), "--duration", "1.5"])
    assert result.returncode == 0, result.stdout + result.stderr
    relayed, frames = map(int, re.search(r"relayed (\d+) of (\d+) master frames", result.stdout).groups())
    assert relayed == frames > 0
    assert slave.streamed_targets() == relayed


@pytest.mark.parametrize("example", ["01_single_arm.py", "02_dual_arm.py", "05_exact_bindings.py"])
def test_arm_examples_run(start_sim, python, example):
    sim = start_sim("--arms", "2")
    result = python([os.path.join(EXAMPLES, example), sim.host, str(sim.port)])
    assert result.returncode == 0, result.stdout + result.stderr


def test_record_example(start_sim, python, tmp_path):
    master, slave = start_sim(), start_sim()
    result = python([os.path.join(EXAMPLES, "04_record_episode.py"), master.address, slave.address, "1",
                     str(tmp_path / "one.hdf5")])
    assert result.returncode == 0, result.stdout + result.stderr
    assert re.search(r"one.hdf5: \d+ rows, qpos \(\d+, 7\)", result.stdout) and (tmp_path / "one.png").exists()
