"""The library's log lines in Python's ``logging``, under the logger ``kelm``.

On import of the package every line the library logs goes to
``logging.getLogger("kelm")`` with its text unchanged, level 0 (progress) as
INFO and level 1 (refused input, failures) as ERROR, and the library's own
console output is off. ``log_to_console()`` switches back to the console
(standard error, as C++ programs see it); ``log_to_python()`` switches again.

The lines are queued in C++ on the thread that logs them and handed to
``logging`` by the thread "kelm-log", with the time they were logged, so a
handler never runs inside the library's locks.
"""

import atexit
import logging
import threading
from typing import Optional

from . import _kelm

logger = logging.getLogger("kelm")

_LEVELS = {int(_kelm.LOG_INFO): logging.INFO, int(_kelm.LOG_ERROR): logging.ERROR}
_CONSOLE_SILENT = 2  # the library's level at which its console writes nothing
_POLL_S = 0.1  # how long the log thread waits for lines at a time [s]

_thread: Optional[threading.Thread] = None
_lock = threading.Lock()


def _emit(level: int, text: str, created: float) -> None:
    python_level = _LEVELS.get(level, logging.ERROR)
    if not logger.isEnabledFor(python_level):
        return
    record = logger.makeRecord(logger.name, python_level, "(kelm library)", 0, text, (), None)
    record.created = created
    record.msecs = (created - int(created)) * 1000.0
    logger.handle(record)


def _pump() -> None:
    while True:
        lines = _kelm._log_bridge_take(_POLL_S)
        if lines is None:
            return
        for level, text, created in lines:
            _emit(level, text, created)


def log_to_python() -> None:
    """Sends the library's lines to the logger ``kelm`` and silences its console output (the default)."""
    global _thread
    with _lock:
        if _thread is not None:
            return
        _kelm._log_bridge_open()
        _kelm.set_log_level(_CONSOLE_SILENT)
        _thread = threading.Thread(target=_pump, name="kelm-log", daemon=True)
        _thread.start()


def log_to_console() -> None:
    """Stops the bridge; the library writes its lines to standard error again, every level."""
    global _thread
    with _lock:
        if _thread is None:
            return
        _kelm._log_bridge_close()
        _thread.join(timeout=5.0)
        _thread = None
        _kelm.set_log_level(int(_kelm.LOG_INFO))


def _close_at_exit() -> None:
    # Delivers what is queued; later lines (objects closed at exit) are dropped.
    global _thread
    with _lock:
        if _thread is None:
            return
        _kelm._log_bridge_close()
        _thread.join(timeout=1.0)
        _thread = None


atexit.register(_close_at_exit)
