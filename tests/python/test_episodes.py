"""Cameras in recorded episodes, what /action says, replay and preview, against kelm_sim and a local MJPEG stream."""

import re
import subprocess
import urllib.request

import h5py
import numpy as np
import pytest

from conftest import WAIT_S, wait_for


def record(python, master, slave, path, *options, duration="3"):
    return python(["-m", "kelm.record", "--master", master.address, "--slave", slave.address, "--duration", duration,
                   "-o", str(path), *options], timeout=120)


@pytest.mark.parametrize("mode, mirror, joints, gripper, expected", [
    (0, False, [0.1, 0.2, 0.3, 0.4, 0.5, 0.6], 0.03, [0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.05]),
    (0, True, [0.1, 0.2, 0.3, 0.4, 0.5, 0.6], 0.06, [-0.1, 0.2, 0.3, -0.4, 0.5, -0.6, 0.08]),
    (2, True, [0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7], -0.01, [0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.0]),
    (1, True, [0.1, 0.2, 0.3, 0.4, 0.5, 0.6], 0.06, [0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.075]),
    (0, False, [0.0] * 6, float("nan"), [0.0] * 7),
])
def test_action_is_the_tools_mapping(mode, mirror, joints, gripper, expected):
    from kelm.record import commanded_action

    assert commanded_action([joints], [gripper], mode, mirror)[0] == pytest.approx(expected)


def test_observations_follow_one_slave_frame_each_despite_jitter():
    from kelm.record import match_frames

    random = np.random.default_rng(7)
    for phase in (0.0, 0.0005, 0.00099):   # at 1 kHz, lags on both sides of a frame and half a period
        slave = 100.0 + np.arange(2000) * 0.001 + random.uniform(-0.0002, 0.0002, 2000)
        master = 100.0 + phase + np.arange(50, 1950) * 0.001 + random.uniform(-0.0002, 0.0002, 1900)
        index = match_frames(master, slave)
        assert np.all(np.diff(index) == 1), phase
        assert np.all(np.abs(master - slave[index]) < 0.001), phase


def test_episode_with_a_camera(start_sim, python, mjpeg_server, tmp_path):
    master, slave = start_sim("--rate", "1000"), start_sim("--rate", "1000")
    camera = mjpeg_server(fps=15)
    path = tmp_path / "camera.hdf5"
    result = record(python, master, slave, path, "--camera", f"front={camera.url}", "--mirror", "1")
    assert result.returncode == 0, result.stderr
    assert re.search(r"front \d+ images, \d+ dropped", result.stderr)
    with h5py.File(path, "r") as episode:
        images, times = episode["observations/images/front"], episode["observations/image_times/front"][:]
        received = episode["timestamps"][:, 1]
        assert images.shape == (len(received), 240, 320, 3) and images.dtype == np.uint8
        assert episode.attrs["recorded_rate"] == pytest.approx(50, rel=0.1)  # a row per tick of 50 Hz
        # The newest image at or before each row, most of them within one camera period.
        assert np.all(times <= received) and np.mean(received - times < 1 / 15) > 0.8
        assert images[len(received) // 2].std() > 10 and len(np.unique(times)) > 20
        # /action is what the slave was sent: the master's joints mirrored, its gripper mapped.
        dof = episode.attrs["dof"]
        master_rows = np.searchsorted(episode["master/stamp"][:], episode["timestamps"][:, 0])
        sent = episode["master/qpos"][:][master_rows] * [-1, 1, 1, -1, 1, -1]
        assert np.array_equal(episode["action"][:, :dof], sent)
        unlabelled = []
        episode.visititems(lambda name, item: unlabelled.append(name)
                           if hasattr(item, "shape") and "columns" not in item.attrs else None)
        assert unlabelled == []


def test_every_master_frame_gets_the_next_slave_frame(start_sim, python, tmp_path):
    master, slave = start_sim("--rate", "500"), start_sim("--rate", "500")
    path = tmp_path / "aligned.hdf5"
    assert record(python, master, slave, path).returncode == 0
    with h5py.File(path, "r") as episode:
        index = episode["observations/slave_index"][:]
        master_stamps, slave_stamps = episode["timestamps"][:, 0], episode["slave/stamp"][:]
    # Where both controllers sent their frames on time (a quarter period at
    # most off), each row has its own slave frame, within one slave period.
    period = 0.002
    on_time = lambda steps: np.abs(steps - period) < period / 4
    slave_steps = np.diff(slave_stamps)
    around = np.clip(index[:-1], 1, len(slave_steps) - 1)
    regular = on_time(np.diff(master_stamps)) & on_time(slave_steps[around - 1]) & on_time(slave_steps[around])
    assert regular.mean() > 0.2
    # Two streams on time can still be a quarter period off each in opposite
    # directions; at a phase where the frames nearly coincide that may pair
    # a row with its neighbour's frame, rarely: allow one row in a hundred.
    assert np.mean(np.diff(index)[regular] <= 0) < 0.01
    assert np.all(np.abs(master_stamps - slave_stamps[index])[:-1][regular] < period)


def test_camera_that_stops_keeps_the_episode(start_sim, python, mjpeg_server, tmp_path):
    master, slave = start_sim(), start_sim()
    camera = mjpeg_server(fps=15, frames=30)
    path = tmp_path / "stopped.hdf5"
    result = record(python, master, slave, path, "--camera", f"front={camera.url}", duration="10")
    assert result.returncode == 1 and "camera front stopped" in result.stderr
    with h5py.File(path, "r") as episode:
        rows = len(episode["action"])
        assert rows > 20 and len(episode["observations/images/front"]) == rows
        assert "front" in episode.attrs["camera_failure"]
        # No rows after the camera's last image (a row at 50 Hz may follow the image of 15 Hz it shows).
        assert episode["timestamps"][-1, 1] - episode["observations/image_times/front"][-1] < 1 / 15 + 1 / 50


def test_replay_brings_the_slave_through_the_recorded_trajectory(start_sim, python, tmp_path):
    import kelm

    master, slave = start_sim(), start_sim()
    with kelm.Arm(master.host, master.port) as hand_held:  # the simulated hand moves an arm in drag mode
        hand_held.set_ready()
        hand_held.set_control_mode(kelm.ControlMode.DRAG)
    path = tmp_path / "played.hdf5"
    assert record(python, master, slave, path, duration="2").returncode == 0
    target = start_sim()
    watcher = kelm.KelmKernelImpl(target.host, target.port, 1.0, 0)
    log = kelm.StateLog(watcher, "test")
    result = python(["-m", "kelm.replay", str(path), "--slave", target.address], timeout=120)
    log.stop()
    assert result.returncode == 0, result.stdout + result.stderr
    with h5py.File(path, "r") as episode:
        action = episode["action"][:, :-1]
    followed = log.drain()["qpos"]
    # Every recorded target was reached, in order, within 0.01 rad.
    assert np.ptp(action, axis=0).max() > 0.05
    nearest = [np.abs(followed - row).max(axis=1).min() for row in action[::10]]
    assert max(nearest) < 0.01
    assert np.abs(followed[-1] - action[-1]).max() < 0.01
    watcher.close()


def test_preview_writes_a_video(start_sim, python, mjpeg_server, tmp_path):
    import cv2

    master, slave = start_sim(), start_sim()
    camera = mjpeg_server(fps=15)
    path = tmp_path / "seen.hdf5"
    assert record(python, master, slave, path, "--camera", f"a={camera.url}", "--camera", f"b={camera.url}",
                  duration="2").returncode == 0
    result = python(["-m", "kelm.preview", str(path)])
    assert result.returncode == 0, result.stderr
    video = cv2.VideoCapture(str(tmp_path / "seen.mp4"))
    frames = int(video.get(cv2.CAP_PROP_FRAME_COUNT))
    ok, frame = video.read()
    assert ok and frames > 30 and frame.shape[1] == 2 * 480  # two cameras of 320x240 scaled to 360 high
    video.release()


@pytest.mark.parametrize("command, message", [
    (["kelm.record", "--camera", "front=/dev/video97"], "/dev/video97: no such device"),
    (["kelm.record", "--camera", "front=http://127.0.0.1:1/stream"], "does not open"),
    (["kelm.record", "--camera", "front"], "give NAME=SOURCE"),
    (["kelm.replay", "{text}", "--slave", "127.0.0.1"], "not an HDF5 file"),
    (["kelm.replay", "{empty}", "--slave", "127.0.0.1"], "not a kelm.record episode"),
    (["kelm.preview", "{text}"], "not an HDF5 file"),
    (["kelm.preview", "{missing}"], "no such file"),
    (["kelm.replay", "{episode}", "--slave", "127.0.0.1:1"], "no connection to 127.0.0.1:1"),
])
def test_bad_input_is_a_clear_error(python, tmp_path, command, message):
    files = {"text": tmp_path / "notes.hdf5", "empty": tmp_path / "empty.hdf5", "missing": tmp_path / "none.hdf5",
             "episode": tmp_path / "episode.hdf5"}
    files["text"].write_text("not an episode\n")
    h5py.File(files["empty"], "w").close()
    with h5py.File(files["episode"], "w") as episode:
        episode["action"], episode["observations/qpos"] = np.zeros((3, 7)), np.zeros((3, 7))
        episode["timestamps"] = np.array([[0.0, 0.0], [0.01, 0.01], [0.02, 0.02]])
    result = python(["-m", *[part.format(**files) for part in command]], timeout=60)
    assert result.returncode == 1 and message in result.stderr, result.stderr
    assert "Traceback" not in result.stderr


def sim_serves_cameras():
    import os

    return "--camera" in subprocess.run([os.environ["KELM_SIM"], "--help"], capture_output=True, text=True).stdout


@pytest.mark.skipif(not sim_serves_cameras(), reason="this kelm_sim has no cameras (--camera)")
def test_simulator_camera_stream(start_sim):
    import cv2
    import kelm

    sim = start_sim("--scene", "table_cube", "--camera", "front:320x240@15", "--camera-port", "0")
    assert wait_for(lambda: "cameras on" in "".join(sim.lines))
    base = re.search(r"cameras on (http://\S+?)/? \(", "".join(sim.lines)).group(1)
    capture = cv2.VideoCapture(f"{base}/camera/front/stream")
    images = [capture.read() for _ in range(20)]
    capture.release()
    assert all(ok and image.shape == (240, 320, 3) for ok, image in images)

    def snapshot():
        jpeg = urllib.request.urlopen(f"{base}/camera/front/snapshot", timeout=WAIT_S).read()
        return cv2.imdecode(np.frombuffer(jpeg, np.uint8), cv2.IMREAD_COLOR).astype(int)

    before = snapshot()
    with kelm.Arm(sim.host, sim.port) as arm:
        arm.set_ready()
        arm.move_joint([0.8, -0.4, 0.5, 0.2, -1.0, 0.4], block=True, timeout=30)
    assert np.abs(snapshot() - before).mean() > 1.0
