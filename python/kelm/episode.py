"""Reading a recorded episode (kelm.record's HDF5 layout) for replay and preview."""

import os

import numpy as np

REQUIRED = ("action", "timestamps", "observations/qpos")


class EpisodeError(Exception):
    """A file that is not a readable episode."""


class Episode:
    """An open episode file: the aligned rows in memory, camera images read on demand. A context manager."""

    def __init__(self, path):
        import h5py

        if not os.path.isfile(path):
            raise EpisodeError(f"{path}: no such file")
        try:
            self.file = h5py.File(path, "r")
        except OSError:
            raise EpisodeError(f"{path}: not an HDF5 file") from None
        missing = [name for name in REQUIRED if name not in self.file]
        if missing:
            self.file.close()
            raise EpisodeError(f"{path}: not a kelm.record episode (no {', '.join('/' + m for m in missing)})")
        self.path = path
        self.action = self.file["action"][:]
        self.stamps = self.file["timestamps"][:, 0]   # master controller time [s]
        self.qpos = self.file["observations/qpos"][:]
        if len(self.action) == 0 or len(self.action) != len(self.qpos):
            self.file.close()
            raise EpisodeError(f"{path}: {len(self.action)} action rows and {len(self.qpos)} observation rows")
        images = self.file.get("observations/images")
        self.images = {name: images[name] for name in images} if images is not None else {}

    @property
    def dof(self):
        return self.action.shape[1] - 1

    @property
    def rate(self):
        """Rows per second [Hz], from the master controller's time stamps."""
        steps = np.diff(self.stamps)
        steps = steps[steps > 0]
        return 1.0 / float(np.median(steps)) if len(steps) else 0.0

    @property
    def duration(self):
        return float(self.stamps[-1] - self.stamps[0]) if len(self.stamps) > 1 else 0.0

    def close(self):
        self.file.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
