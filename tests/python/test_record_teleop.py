"""kelm.record --teleop: the recorder starts kelm_teleop, records while it runs and ends it.

kelm_teleop drives the controllers on port 8090 of 127.0.0.2 (master) and
127.0.0.1 (slave), so this file has a CTest entry of its own that holds the
resource lock of that port.
"""

import h5py
import numpy as np


def test_recorder_runs_the_teleoperation_it_records(start_sim, python, tmp_path):
    start_sim("--ip", "127.0.0.2", "--port", "8090")
    slave = start_sim("--ip", "127.0.0.1", "--port", "8090")
    path = tmp_path / "teleop.hdf5"
    result = python(["-m", "kelm.record", "--teleop", "0", "--duration", "2", "-o", str(path), "--quiet"], timeout=120)
    assert result.returncode == 0, result.stdout + result.stderr
    assert "kelm_teleop: 程序运行中" in result.stderr and "episode written" in result.stdout
    with h5py.File(path, "r") as episode:
        action, qpos = episode["action"][:], episode["observations/qpos"][:]
        assert len(action) > 500
        # The slave follows the master: its joints stay within a few hundredths of a radian.
        assert np.abs(qpos[:, :-1] - action[:, :-1]).mean() < 0.05
    assert slave.streamed_targets() > len(action) / 2  # kelm_teleop streamed, and has been ended
