"""A fixed-rate loop for streaming targets (``for tick in kelm.Rate(500):``).

Ticks fall on absolute deadlines (start + n * period), so the time the loop
body takes does not add up as drift. A body that overruns by more than one
period skips the deadlines it missed (counted in ``missed``) instead of
running a burst to catch up.
"""

import time
from typing import Iterator, Optional


class Rate:
    """Paces a loop at `hz` ticks per second [Hz]; `ticks` ends the iteration after that many."""

    def __init__(self, hz: float, ticks: Optional[int] = None) -> None:
        if not hz > 0:
            raise ValueError(f"Rate: hz must be above 0, got {hz!r}")
        self.period = 1.0 / hz  # [s]
        self.ticks = ticks
        self.missed = 0
        self._start = time.monotonic()
        self._count = 0

    def reset(self) -> None:
        """Starts the schedule anew from now."""
        self._start = time.monotonic()
        self._count = 0
        self.missed = 0

    def sleep(self) -> float:
        """Waits for the next deadline; returns its time on the monotonic clock [s]."""
        self._count += 1
        deadline = self._start + self._count * self.period
        now = time.monotonic()
        if now > deadline + self.period:
            behind = int((now - deadline) / self.period)
            self.missed += behind
            self._count += behind
            deadline = self._start + self._count * self.period
        if deadline > now:
            time.sleep(deadline - now)
        return deadline

    def __iter__(self) -> Iterator[int]:
        """Yields the tick number (0, 1, ...), the first at once, each later one at its deadline."""
        self.reset()
        tick = 0
        while self.ticks is None or tick < self.ticks:
            yield tick
            tick += 1
            self.sleep()
