#!/usr/bin/python3
"""Records one teleoperation episode and plots it.

    python3 04_record_episode.py MASTER[:PORT] SLAVE[:PORT] [SECONDS] [FILE]

Connects to both controllers beside a running teleoperation (kelm_teleop, or
03_leader_follower.py), records every state frame of both arms for SECONDS
(default 5) into FILE (default episode.hdf5) and writes FILE's plot beside it.
The same from the shell: `python3 -m kelm.record --master ... --slave ...
--duration 5 -o episode.hdf5` and `python3 -m kelm.plot episode.hdf5`.
"""
import sys
import time

import h5py

import kelm
from kelm.plot import plot_episode
from kelm.record import EpisodeRecorder, parse_address


def main(master, slave, seconds=5.0, path="episode.hdf5"):
    kelm.set_log_level(kelm.LOG_ERROR)
    with EpisodeRecorder(path, parse_address(master), parse_address(slave)) as recorder:
        end = time.time() + seconds
        while time.time() < end:
            time.sleep(0.1)
            recorder.poll()  # moves the captured frames into the file
        print(recorder.progress())
    with h5py.File(path, "r") as episode:
        print(f"{path}: {len(episode['action'])} rows, qpos {episode['observations/qpos'].shape}, "
              f"{episode.attrs['rate']:.0f} Hz, dropped {episode.attrs['dropped_master']}/"
              f"{episode.attrs['dropped_slave']}")
    print("plot:", plot_episode(path))
    return 0


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2], float(sys.argv[3]) if len(sys.argv) > 3 else 5.0,
                  sys.argv[4] if len(sys.argv) > 4 else "episode.hdf5"))
