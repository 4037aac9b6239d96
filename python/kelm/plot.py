"""Plot of one recorded episode: master against slave per joint, and the error.

    python3 -m kelm.plot EPISODE.hdf5 [-o EPISODE.png]

One panel per joint and one for the gripper, each with the master's value
(/action) and the slave's (/observations/qpos) over the master controller's
time, and a last panel with the tracking error per joint (slave - master).
"""

import argparse
import os
import sys

import numpy as np


def plot_episode(path, output=None):
    """Writes the PNG and returns its path."""
    import h5py
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    with h5py.File(path, "r") as episode:
        action = episode["action"][:]
        qpos = episode["observations/qpos"][:]
        stamps = episode["timestamps"][:, 0]
        title = f"{os.path.basename(path)}: master {episode.attrs.get('master', '?')}, " \
                f"slave {episode.attrs.get('slave', '?')}, {len(stamps)} frames"
    t = stamps - stamps[0] if len(stamps) else stamps
    columns = action.shape[1]
    names = [f"joint {j}" for j in range(columns - 1)] + ["gripper"]
    fig, axes = plt.subplots(columns + 1, 1, figsize=(10, 2.0 * (columns + 1)), sharex=True)
    for j in range(columns):
        axes[j].plot(t, action[:, j], label="master", linewidth=1.0)
        axes[j].plot(t, qpos[:, j], label="slave", linewidth=1.0, linestyle="--")
        axes[j].set_ylabel(names[j] + (" [m]" if j == columns - 1 else " [rad]"))
        axes[j].grid(True, alpha=0.3)
    axes[0].legend(loc="upper right")
    error = qpos[:, :-1] - action[:, :-1]
    for j in range(columns - 1):
        axes[-1].plot(t, error[:, j], label=names[j], linewidth=0.8)
    axes[-1].set_ylabel("slave - master [rad]")
    axes[-1].set_xlabel("time [s]")
    axes[-1].grid(True, alpha=0.3)
    axes[-1].legend(loc="upper right", ncol=min(columns - 1, 7), fontsize="small")
    fig.suptitle(title)
    fig.tight_layout()
    output = output or os.path.splitext(path)[0] + ".png"
    fig.savefig(output, dpi=100)
    plt.close(fig)
    return output


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m kelm.plot", description=__doc__.split("\n\n")[0])
    parser.add_argument("episode", help="an episode file written by kelm.record")
    parser.add_argument("-o", "--output", help="the PNG (default: the episode's name with .png)")
    args = parser.parse_args(argv)
    output = plot_episode(args.episode, args.output)
    with np.printoptions(precision=4):
        print(f"kelm.plot: {output}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
