"""Cameras for the recorder and the collection run: one reader thread per camera, through OpenCV.

A source is a V4L2 device (/dev/video0), a network stream URL (such as the
simulator's http://127.0.0.1:PORT/camera/front/stream) or a video file. Each
Camera reads its source on a thread of its own as fast as the source delivers,
stamps every image with its receive time [Unix s] and keeps it in a bounded
queue until the recorder takes it; when the recorder falls that far behind,
the oldest images are dropped and counted.

Threads: the reader thread calls only _read_forever; everything else is
called by the recorder's thread.
"""

import collections
import os
import threading
import time

# How long opening a source and reading its first image may take [s].
OPEN_TIMEOUT_S = 5.0
# A camera that delivered nothing for this long has stopped [s].
STALL_S = 3.0
# Images a camera holds for the recorder: two seconds at 60 fps.
QUEUE_IMAGES = 120


class CameraError(RuntimeError):
    """A camera that does not open, or stopped while recording."""


def parse_camera(text):
    """'NAME=SOURCE' -> (name, source)."""
    name, separator, source = text.partition("=")
    if not separator or not name or not source:
        raise ValueError(f"camera '{text}': give NAME=SOURCE, e.g. front=/dev/video0")
    if not name.replace("_", "").replace("-", "").isalnum():
        raise ValueError(f"camera '{text}': the name may hold letters, digits, '-' and '_' only")
    return name, source


def _capture(source):
    """An opened cv2.VideoCapture for `source`, or CameraError."""
    import cv2

    timeouts = [cv2.CAP_PROP_OPEN_TIMEOUT_MSEC, int(OPEN_TIMEOUT_S * 1000),
                cv2.CAP_PROP_READ_TIMEOUT_MSEC, int(STALL_S * 1000)]
    if source.startswith("/dev/video"):
        if not os.path.exists(source):
            raise CameraError(f"{source}: no such device")
        capture = cv2.VideoCapture(source, cv2.CAP_V4L2)
    else:
        capture = cv2.VideoCapture(source, cv2.CAP_FFMPEG, timeouts)
    if not capture.isOpened():
        capture.release()
        raise CameraError(f"{source}: does not open (no camera, stream or video there)")
    return capture


class Camera:
    """One camera: open() reads its first image or raises CameraError; start() starts the reader thread."""

    def __init__(self, name, source):
        self.name, self.source = name, source
        self.frames = 0          # images received
        self.dropped = 0         # images dropped because the recorder fell behind
        self.failure = None      # why the reader stopped, once it has
        self.first = None        # (receive time [Unix s], RGB image) of the image open() read
        self._capture = None
        self._queue = collections.deque()
        self._lock = threading.Lock()
        self._last_receive = None
        self._stop = threading.Event()
        self._thread = None

    def open(self):
        self._capture = _capture(self.source)
        image = self._read_one()
        if image is None:
            self.close()
            raise CameraError(f"camera {self.name}: {self.source} opened but gave no image")
        self.first = (time.time(), image)
        self._last_receive = self.first[0]
        self.frames = 1
        return self

    @property
    def last_image_time(self):
        """Receive time of its newest image [Unix s]."""
        return self._last_receive

    @property
    def shape(self):
        """(height, width, 3) of its images."""
        return self.first[1].shape

    def start(self):
        self._thread = threading.Thread(target=self._read_forever, name=f"camera-{self.name}", daemon=True)
        self._thread.start()

    def take(self):
        """The images received since the last call: a list of (receive time [Unix s], RGB image)."""
        with self._lock:
            images = list(self._queue)
            self._queue.clear()
        return images

    def stalled(self, now):
        """Why the camera counts as stopped at `now` [Unix s], or None."""
        if self.failure:
            return self.failure
        if self._last_receive is not None and now - self._last_receive > STALL_S:
            return f"no image for {now - self._last_receive:.1f} s"
        return None

    def close(self):
        self._stop.set()
        if self._thread:
            self._thread.join(STALL_S + 1.0)
        if self._capture is not None:
            self._capture.release()
            self._capture = None

    def _read_one(self):
        import cv2

        ok, image = self._capture.read()
        if not ok or image is None:
            return None
        if image.ndim == 2:
            return cv2.cvtColor(image, cv2.COLOR_GRAY2RGB)
        return cv2.cvtColor(image, cv2.COLOR_BGR2RGB)

    def _read_forever(self):
        import cv2

        while not self._stop.is_set():
            image = self._read_one()
            now = time.time()
            if image is None:
                self.failure = f"{self.source} ended after {self.frames} images"
                return
            if image.shape != self.shape:
                image = cv2.resize(image, (self.shape[1], self.shape[0]))
            with self._lock:
                if len(self._queue) == QUEUE_IMAGES:
                    self._queue.popleft()
                    self.dropped += 1
                self._queue.append((now, image))
                self.frames += 1
                self._last_receive = now


def open_cameras(requests):
    """Opens every 'NAME=SOURCE' of `requests` and starts its reader; CameraError or ValueError names the one
    that failed (those already open are closed again)."""
    cameras = []
    try:
        for request in requests:
            name, source = parse_camera(request)
            if any(camera.name == name for camera in cameras):
                raise ValueError(f"camera {name} is given twice")
            cameras.append(Camera(name, source))
            cameras[-1].open()
    except Exception:
        for camera in cameras:
            camera.close()
        raise
    for camera in cameras:
        camera.start()
    return cameras
