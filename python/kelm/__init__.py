"""Kelm arm client for Python.

The classes are the C++ library's: ``KelmSingleCol`` (one arm),
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

__version__ = "0.1.0"
