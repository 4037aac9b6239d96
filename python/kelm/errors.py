"""Exceptions of the Pythonic layer (``kelm.Arm``, ``kelm.DualArm``).

Each carries the operation that failed and the reason: the controller's own
``err_msg``, the line the library logged when it refused the input, or what
failed locally (no reply in time, no connection).
"""

import builtins


class KelmError(Exception):
    """Base of every exception of the package's Pythonic layer."""

    def __init__(self, operation: str, reason: str) -> None:
        super().__init__(f"{operation}: {reason}")
        self.operation = operation
        self.reason = reason


class ConnectionError(KelmError, builtins.ConnectionError):  # noqa: A001 - the package's own, as documented
    """No connection to the controller: at construction, for a request, or lost during a blocking motion."""


class CommandRefused(KelmError):
    """The operation was refused; a subclass tells by whom."""


class InvalidInput(CommandRefused, ValueError):
    """The library refused the arguments before sending anything."""


class CommandTimeout(CommandRefused, TimeoutError):
    """No reply in time, a motion that did not end within its time-out, or an arm not ready in time."""


class ControllerRefused(CommandRefused):
    """The controller refused the request, answered without a usable result, or reported an arm error."""
