"""Kelm arm client for Python.

Start with ``kelm.Arm`` (one arm) or ``kelm.DualArm`` (two arms behind one
address): they raise ``kelm.ConnectionError`` and ``kelm.CommandRefused``
(``InvalidInput``, ``CommandTimeout``, ``ControllerRefused``) with the reason,
take a time-out on blocking motions and report the status with enums.
``kelm.Rate`` paces a streaming loop. The library's log lines go to the
``logging`` logger ``kelm`` (``kelm.log_to_console()`` keeps them on the
console instead).

Beneath stand the exact bindings, the C++ library's classes: ``KelmSingleCol`` (one arm),
``KelmDualBot`` (two arms behind one address) and ``KelmKernelImpl`` (one
arm of one controller, with every operation). Joint vectors are accepted as
lists, tuples or numpy arrays and come back as numpy float64 arrays; a pose
is 7 floats (x, y, z, qx, qy, qz, qw). Operations with output parameters
return ``(result, value)``.

Modules: ``kelm.record`` records teleoperation episodes to HDF5
(``python3 -m kelm.record``), ``kelm.plot`` draws one
(``python3 -m kelm.plot EPISODE.h5``).
"""

from ._kelm import *  # noqa: F401,F403
from ._kelm import (  # noqa: F401
    ArmConfig,
    ArmStatus,
    FsmMode,
    KelmDualBot,
    KelmErrorCode,
    KelmKernelImpl,
    KelmSingleCol,
    KelmState,
    LogColor,
    LogLevel,
    Refusal,
    RefusalKind,
    StateLog,
    color_str_map,
    enum_color_map,
    fsm_mode_str_map,
    kelm_err_code_map,
    kelm_state_str,
    log,
    set_log_level,
    str_map_fsm_mode,
)

from .arm import Arm, ArmSide, ControlMode, DualArm, Status  # noqa: E402,F401
from .errors import (  # noqa: E402,F401
    CommandRefused,
    CommandTimeout,
    ConnectionError,
    ControllerRefused,
    InvalidInput,
    KelmError,
)
from .logbridge import log_to_console, log_to_python  # noqa: E402,F401
from .rate import Rate  # noqa: E402,F401

log_to_python()

__version__ = "0.1.0"
