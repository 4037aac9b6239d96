"""Writes an MP4 of a recorded episode: the camera images side by side, the joint traces beneath.

    python3 -m kelm.preview EPISODE [-o PREVIEW.mp4] [--fps 30]

Under the images, one strip per joint and one for the gripper: the slave's
commanded target (/action, orange) and its measured position
(/observations/qpos, blue) over the whole episode, with a cursor at the
video's time. Without cameras the video holds the traces alone.
"""

import argparse
import os
import sys

import numpy as np

from .episode import Episode, EpisodeError

IMAGE_HEIGHT = 360          # each camera's image is scaled to this height [px]
TRACES_WIDTH = 960          # width of the traces without cameras [px]
STRIP_HEIGHT = 48           # one joint's strip [px]
LABEL_WIDTH = 70            # the strip's name at its left [px]
BACKGROUND = (24, 24, 24)   # colours are BGR, as OpenCV draws
ACTION_COLOUR = (0, 150, 255)
OBSERVED_COLOUR = (255, 160, 40)
CURSOR_COLOUR = (255, 255, 255)


def strip_names(dof):
    return [f"joint {j + 1}" for j in range(dof)] + ["gripper"]


def draw_traces(episode, width):
    """The traces panel without cursor: (image, x of each row [px])."""
    import cv2

    columns = episode.action.shape[1]
    panel = np.full((STRIP_HEIGHT * columns, width, 3), BACKGROUND, dtype=np.uint8)
    elapsed = episode.stamps - episode.stamps[0]
    x = LABEL_WIDTH + elapsed / max(episode.duration, 1e-9) * (width - LABEL_WIDTH - 1)
    for column, name in enumerate(strip_names(columns - 1)):
        top = column * STRIP_HEIGHT
        values = np.concatenate((episode.action[:, column], episode.qpos[:, column]))
        low, high = float(np.nanmin(values)), float(np.nanmax(values))
        scale = (STRIP_HEIGHT - 8) / max(high - low, 1e-6)
        for series, colour in ((episode.qpos, OBSERVED_COLOUR), (episode.action, ACTION_COLOUR)):
            y = top + STRIP_HEIGHT - 4 - (np.nan_to_num(series[:, column], nan=low) - low) * scale
            points = np.column_stack((x, y)).astype(np.int32)
            cv2.polylines(panel, [points], False, colour, 1, cv2.LINE_AA)
        cv2.putText(panel, name, (4, top + STRIP_HEIGHT // 2 + 4), cv2.FONT_HERSHEY_SIMPLEX, 0.4, (200, 200, 200), 1)
        cv2.line(panel, (0, top), (width - 1, top), (70, 70, 70), 1)
    return panel, x


def camera_row(episode, row):
    """The cameras' images of `row`, scaled to IMAGE_HEIGHT and side by side, in BGR."""
    import cv2

    tiles = []
    for images in episode.images.values():
        image = images[row]
        width = round(image.shape[1] * IMAGE_HEIGHT / image.shape[0])
        tiles.append(cv2.cvtColor(cv2.resize(image, (width, IMAGE_HEIGHT)), cv2.COLOR_RGB2BGR))
    return np.hstack(tiles)


def write_preview(episode, path, fps):
    """Writes the video; returns the number of video frames."""
    import cv2

    width = camera_row(episode, 0).shape[1] if episode.images else TRACES_WIDTH
    width += width % 2  # the encoder wants even sizes
    traces, x = draw_traces(episode, width)
    height = traces.shape[0] + (IMAGE_HEIGHT if episode.images else 0)
    height += height % 2
    writer = cv2.VideoWriter(path, cv2.VideoWriter_fourcc(*"mp4v"), fps, (width, height))
    if not writer.isOpened():
        raise OSError(f"{path}: the MP4 encoder does not open")
    times = np.arange(0.0, episode.duration + 1e-9, 1.0 / fps) + episode.stamps[0]
    rows = np.clip(np.searchsorted(episode.stamps, times, side="right") - 1, 0, len(episode.stamps) - 1)
    for row in rows:
        frame = np.zeros((height, width, 3), dtype=np.uint8)
        top = 0
        if episode.images:
            images = camera_row(episode, row)
            frame[:IMAGE_HEIGHT, :images.shape[1]] = images
            top = IMAGE_HEIGHT
        frame[top:top + traces.shape[0]] = traces
        cursor = int(x[row])
        cv2.line(frame, (cursor, top), (cursor, top + traces.shape[0] - 1), CURSOR_COLOUR, 1)
        writer.write(frame)
    writer.release()
    return len(rows)


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m kelm.preview", description=__doc__.split("\n\n")[0])
    parser.add_argument("episode", help="an episode file written by kelm.record")
    parser.add_argument("-o", "--output", help="the video (default: the episode's name with .mp4)")
    parser.add_argument("--fps", type=float, default=30.0, help="video frames per second (default 30)")
    args = parser.parse_args(argv)
    if not args.fps > 0:
        parser.error("--fps takes a positive number")
    output = args.output or os.path.splitext(args.episode)[0] + ".mp4"
    try:
        with Episode(args.episode) as episode:
            frames = write_preview(episode, output, args.fps)
    except (EpisodeError, OSError) as error:
        print(f"kelm.preview: {error}", file=sys.stderr)
        return 1
    print(f"kelm.preview: {frames} frames written to {output}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
