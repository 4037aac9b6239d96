"""Plays a recorded episode's /action onto a slave arm at the recorded rate.

    python3 -m kelm.replay EPISODE --slave IP[:PORT]

Brings the arm ready; if the first target is farther than FAR_RAD from where
the arm stands, moves there with a planned joint motion first; then streams
one joint and gripper target per row (``tracking``, in MIT mode) on the rows'
own time line. Ctrl+C stops the stream at once; the arm is put back into
position mode whichever way the replay ends.
"""

import argparse
import sys

import numpy as np

from .episode import Episode, EpisodeError
from .record import parse_address

# A first target farther than this from the arm's joints is reached by a planned move [rad].
FAR_RAD = 0.01
# Time allowed for that move [s].
APPROACH_TIMEOUT_S = 60.0


def approach(arm, target):
    """Moves `arm` to the joints `target` [rad] with a planned motion when it stands farther than FAR_RAD."""
    distance = float(np.max(np.abs(np.asarray(arm.joint_pos) - target)))
    if distance > FAR_RAD:
        print(f"kelm.replay: moving to the first target ({distance:.3f} rad away)", flush=True)
        arm.move_joint(target, block=True, timeout=APPROACH_TIMEOUT_S)


def stream(arm, action, rate):
    """Streams the rows of `action` (joints [rad], gripper [m]) at `rate` [Hz]; returns the rows sent."""
    import kelm

    dof = action.shape[1] - 1
    sent = 0
    for row in kelm.Rate(rate, ticks=len(action)):
        arm.track_joint(action[row, :dof], gripper=float(action[row, dof]))
        sent += 1
    return sent


def replay(episode, address):
    """Plays `episode` onto the arm at `address` (host, port); returns the exit code."""
    import kelm

    with kelm.Arm(*address) as arm:
        arm.set_ready()
        dof = int(arm.status.dof)
        if dof != episode.dof:
            print(f"kelm.replay: the episode has {episode.dof} joints, the arm {dof}", file=sys.stderr)
            return 1
        sent = 0
        try:
            approach(arm, episode.action[0, :dof])
            arm.set_control_mode(kelm.ControlMode.MIT)
            sent = stream(arm, episode.action, episode.rate)
        except KeyboardInterrupt:
            print(f"kelm.replay: stopped after {sent} of {len(episode.action)} rows", flush=True)
            return 130
        finally:
            arm.set_control_mode(kelm.ControlMode.POSITION)
        print(f"kelm.replay: {sent} rows at {episode.rate:.1f} Hz played onto {address[0]}:{address[1]}")
        return 0


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m kelm.replay", description=__doc__.split("\n\n")[0])
    parser.add_argument("episode", help="an episode file written by kelm.record")
    parser.add_argument("--slave", required=True, help="the arm's controller HOST[:PORT] (port 8090 by default)")
    args = parser.parse_args(argv)
    import kelm

    try:
        with Episode(args.episode) as episode:
            if episode.rate <= 0:
                raise EpisodeError(f"{args.episode}: fewer than two rows, nothing to play")
            return replay(episode, parse_address(args.slave))
    except (EpisodeError, kelm.KelmError, ConnectionError) as error:
        print(f"kelm.replay: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
