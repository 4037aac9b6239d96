"""kelm.collect: two short pick-and-place episodes in the physics scene, with outcomes and the summary table.

The collection starts its controllers on port 8090 of 127.0.0.2 and
127.0.0.1, so this file has a CTest entry of its own that holds the resource
lock of that port.
"""

import json
import re

import h5py


def test_collection_of_two_episodes(python, tmp_path):
    from test_episodes import sim_serves_cameras

    cameras = ["--camera", "front:160x120@10"] if sim_serves_cameras() else ["--no-cameras"]
    result = python(["-m", "kelm.collect", "--episodes", "2", "--scene", "table_cube", "--out", str(tmp_path),
                     "--duration", "3", "--quiet", *cameras], timeout=240)
    assert result.returncode == 0, result.stdout + result.stderr
    rows = re.findall(r"^(episode_\d\.hdf5)\s+(yes|no)\s+(\d+)\s+[\d.]+s\s+[\d.]+MB$", result.stdout, re.M)
    assert [row[0] for row in rows] == ["episode_0.hdf5", "episode_1.hdf5"]
    assert re.search(r"success rate: \d of 2 \(\d+ %\)", result.stdout)
    for (name, success, frames), seed in zip(rows, (1, 2)):
        with h5py.File(tmp_path / name, "r") as episode:
            assert episode.attrs["task_seed"] == seed and len(episode["action"]) == int(frames) > 100
            assert episode.attrs["task_success"] == (success == "yes")
            assert "in_area" in json.loads(episode.attrs["task_outcome"])
            assert ("observations/images/front" in episode) == (cameras[0] == "--camera")
