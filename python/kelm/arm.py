"""The Pythonic layer: ``kelm.Arm`` (one arm) and ``kelm.DualArm`` (two arms behind one address).

They stand on the exact bindings (``KelmSingleCol``, ``KelmDualBot``, kept in
``.raw``) and change what a failure looks like: a connection that cannot be
made raises ``kelm.ConnectionError`` at construction, a refused operation
raises ``kelm.CommandRefused`` (``InvalidInput``, ``CommandTimeout``,
``ControllerRefused``) with the operation's name and the library's or the
controller's reason, and a blocking motion ends by its task's end only: a
time-out, an arm error or a lost connection raise.

Threads: as the exact bindings. A blocking motion waits on the calling thread
(Ctrl+C raises KeyboardInterrupt within 50 ms; the motion goes on); its
end is seen through a completion and an error callback registered for the
time of the wait, which run on the receive thread.
"""

import enum
import threading
import time
from dataclasses import dataclass
from typing import Callable, Optional, Sequence, Union

import numpy

from . import _kelm
from .errors import CommandTimeout, ConnectionError, ControllerRefused, InvalidInput, KelmError

JointVector = Union[Sequence[float], numpy.ndarray]
Pose = Union[Sequence[float], numpy.ndarray]  # x, y, z [m], qx, qy, qz, qw

_WAIT_SLICE_S = 0.05  # how often a blocking wait looks at the connection and the clock [s]
_WARNING_CODE = 3001  # an arm "error" that is only a warning and ends no motion
_NO_GRIPPER = -1.0  # a streamed target without gripper data
_DEFAULT_GRIPPER_TAU = 10.0  # gripper torque of set_gripper unless given


class ControlMode(enum.IntEnum):
    """What ``set_control_mode`` takes (not an ``FsmMode``: the frames report those)."""

    POSITION = 0  # what the ready sequence sends to reach FsmMode.POSITION
    PV = 1
    MIT = 2
    DRAG = 3
    FORCE_POSITION = 4  # force-position hybrid


@dataclass(frozen=True)
class Status:
    """An arm's status as the last state frame reported it, with its modes as enums."""

    arm_index: int
    arm_name: str
    connected: bool
    dof: int
    servo: bool
    motion_state: _kelm.KelmState
    fsm_mode: _kelm.FsmMode
    vel_per: float
    debug: bool

    @classmethod
    def of(cls, raw: _kelm.ArmStatus) -> "Status":
        return cls(raw.arm_index, raw.arm_name, raw.connected, raw.dof, raw.servo, _kelm.KelmState(raw.motion_state),
                   _kelm.FsmMode(raw.fsm_mode), raw.vel_per, raw.debug)

    @property
    def ready(self) -> bool:
        """Servo on, POSITION mode, standing still without error, connected."""
        return (self.connected and self.servo and self.fsm_mode == _kelm.FsmMode.POSITION
                and self.motion_state == _kelm.KelmState.Kelm_Standby)


_ERROR_OF_KIND = {
    _kelm.RefusalKind.invalid_input: InvalidInput,
    _kelm.RefusalKind.timeout: CommandTimeout,
    _kelm.RefusalKind.no_connection: ConnectionError,
    _kelm.RefusalKind.controller: ControllerRefused,
}


def _refusal_error(operation: str, refusal: _kelm.Refusal, serial_before: int) -> KelmError:
    if refusal.serial == serial_before:
        return ControllerRefused(operation, "refused; the library recorded no reason")
    return _ERROR_OF_KIND[refusal.kind](operation, refusal.reason)


class ArmSide:
    """The operations on one arm: the whole of ``Arm``, or ``DualArm.left`` / ``DualArm.right``."""

    def __init__(self, raw, side: str) -> None:
        self._raw = raw
        self._side = side  # "" for a single arm, "left" or "right"

    # ---- the exact members of this arm ----

    def _member(self, single: str, dual: str) -> Callable:
        """The raw member: `single` on KelmSingleCol, `dual` with {side} filled in on KelmDualBot."""
        return getattr(self._raw, dual.format(side=self._side) if self._side else single)

    def _refusal(self) -> _kelm.Refusal:
        return self._member("get_last_refusal", "get_{side}_last_refusal")()

    def _checked(self, operation: str, call: Callable[[], int]) -> None:
        before = self._refusal().serial
        if call() != 1:
            raise _refusal_error(operation, self._refusal(), before)

    # ---- state ----

    @property
    def status(self) -> Status:
        return Status.of(self._member("get_status", "get_{side}_status")())

    def is_ready(self) -> bool:
        """Servo on, POSITION mode, standing still without error, connected."""
        return self.status.ready

    @property
    def last_refusal(self) -> _kelm.Refusal:
        return self._refusal()

    @property
    def joint_pos(self) -> numpy.ndarray:
        """Measured joint positions [rad]."""
        return self._member("get_joint_pos", "get_{side}_joint_pos")()

    @property
    def joint_vel(self) -> numpy.ndarray:
        """Measured joint velocities [rad/s]."""
        return self._member("get_joint_vel", "get_{side}_joint_vel")()

    @property
    def joint_tau(self) -> numpy.ndarray:
        """Measured joint torques [Nm]."""
        return self._member("get_joint_tau", "get_{side}_joint_tau")()

    @property
    def cart_pose(self) -> numpy.ndarray:
        """End pose x, y, z [m], qx, qy, qz, qw."""
        return self._member("get_cart_pose", "get_{side}_cart_pose")()

    @property
    def gripper_pos(self) -> float:
        """Gripper position [m]."""
        return self._member("get_gripper_pos", "get_{side}_gripper_pos")()

    # ---- motions ----

    def move_joint(self, target: JointVector, time: float = -1.0, block: bool = False,
                   timeout: Optional[float] = None) -> None:
        """Joint move to `target` [rad]; `time` [s] < 0 lets the controller time it. See ``wait`` for block."""
        self._move("move_joint", self._member("move_joint", "move_{side}_joint"), (target, time), block, timeout)

    def move_pose(self, pose: Pose, time: float = -1.0, block: bool = False, timeout: Optional[float] = None) -> None:
        """Joint-interpolated move to `pose`; `time` as move_joint."""
        self._move("move_pose", self._member("move_pose", "move_{side}_pose"), (pose, time), block, timeout)

    def move_line_joint(self, target: JointVector, block: bool = False, timeout: Optional[float] = None) -> None:
        """Straight-line move to a joint target [rad]."""
        self._move("move_line_joint", self._member("move_line_joint", "move_{side}_line_joint"), (target,), block,
                   timeout)

    def move_line_pose(self, pose: Pose, block: bool = False, timeout: Optional[float] = None) -> None:
        """Straight-line move to `pose`."""
        self._move("move_line_pose", self._member("move_line_pose", "move_{side}_line_pose"), (pose,), block,
                   timeout)

    def move_joint_traj(self, traj: Sequence[JointVector], gripper: Sequence[float] = (),
                        times: Sequence[float] = (), block: bool = False, timeout: Optional[float] = None) -> None:
        """Through joint points [rad]; with one stamp [s] per point in `times` timed by them, gripper [m] along."""
        self._move("move_joint_traj", self._member("move_joint_traj", "move_{side}_joint_traj"),
                   (traj, list(gripper), list(times)), block, timeout)

    def move_pose_traj(self, poses: Sequence[Pose], gripper: Sequence[float] = (), times: Sequence[float] = (),
                       block: bool = False, timeout: Optional[float] = None) -> None:
        """Through poses; `gripper` and `times` as move_joint_traj."""
        self._move("move_pose_traj", self._member("move_pose_traj", "move_{side}_pose_traj"),
                   (poses, list(gripper), list(times)), block, timeout)

    def _move(self, operation: str, member: Callable, args: tuple, block: bool, timeout: Optional[float]) -> None:
        self._checked(operation, lambda: member(*args, block=False))
        if block:
            self.wait(self._member("get_submitted_task_key", "get_{side}_submitted_task_key")(), timeout, operation)

    def wait(self, task_key: str, timeout: Optional[float] = None, operation: str = "wait") -> None:
        """Waits for the end of the task `task_key`, at most `timeout` [s] (None: no limit).

        Raises CommandTimeout when the time is up, ControllerRefused when the arm reports an error meanwhile, and
        ConnectionError when the connection drops. Ctrl+C raises KeyboardInterrupt; the motion goes on.
        """
        ended = threading.Event()
        errors = []

        def on_completion(key: str) -> None:
            if key == task_key:
                ended.set()

        def on_error(code: int, text: str) -> None:
            if code != _WARNING_CODE and not errors:
                errors.append((code, text))
                ended.set()

        name = f"kelm.wait.{id(ended)}"
        self._raw.register_completion_cbk(name, on_completion)
        self._raw.register_error_cbk(name, on_error)
        try:
            deadline = None if timeout is None else time.monotonic() + timeout
            while not ended.wait(_WAIT_SLICE_S):
                if not self._raw.is_connected():
                    raise ConnectionError(operation, "the connection dropped before the motion ended")
                if deadline is not None and time.monotonic() > deadline:
                    raise CommandTimeout(operation, f"the motion did not end within {timeout} s")
        finally:
            self._raw.release_completion_cbk(name)
            self._raw.release_error_cbk(name)
        if errors:
            code, text = errors[0]
            raise ControllerRefused(operation, f"the arm reported error {code} during the motion: {text}")

    # ---- streaming, gripper, kinematics ----

    def track_joint(self, target: JointVector, gripper: Optional[float] = None) -> None:
        """Streams one joint target [rad] (clamped to the limits); `gripper` [m], None for no gripper data.

        Published without waiting; may be called from a callback.
        """
        dof = self.status.dof
        if len(target) != dof:
            raise InvalidInput("track_joint", f"the target has {len(target)} values, the arm {dof} joints")
        member = self._member("track_joint", "track_{side}_joint")
        self._checked("track_joint", lambda: member(target, _NO_GRIPPER if gripper is None else gripper))

    def track_pose(self, pose: Pose, gripper: Optional[float] = None) -> None:
        """Streams one pose target (quaternion normalised); `gripper` [m], None for no gripper data."""
        member = self._member("track_pose", "track_{side}_pose")
        self._checked("track_pose", lambda: member(pose, _NO_GRIPPER if gripper is None else gripper))

    def set_gripper(self, pos: float, tau: float = _DEFAULT_GRIPPER_TAU) -> None:
        """Gripper target: `pos` [m] clamped to 0..0.08, `tau` to 0..20.0."""
        member = self._member("set_gripper", "set_{side}_gripper")
        self._checked("set_gripper", lambda: member(pos, tau))

    def forward_kine(self, joint: Optional[JointVector] = None, tool: int = 0) -> numpy.ndarray:
        """Pose of `joint` [rad] (None: the measured joints) in tool `tool`, computed by the controller."""
        member = self._member("forward_kine", "forward_kine_{side}")
        joint = self.joint_pos if joint is None else joint
        before = self._refusal().serial
        result, pose = member(tool, joint)
        if result != 1:
            raise _refusal_error("forward_kine", self._refusal(), before)
        return pose

    def inverse_kine(self, pose: Pose, ref_joint: Optional[JointVector] = None, tool: int = 0) -> numpy.ndarray:
        """Joint solution [rad] of `pose` near `ref_joint` (None: the measured joints), computed by the controller."""
        member = self._member("inverse_kine", "inverse_kine_{side}")
        ref_joint = self.joint_pos if ref_joint is None else ref_joint
        before = self._refusal().serial
        result, joints = member(tool, pose, ref_joint)
        if result != 1:
            raise _refusal_error("inverse_kine", self._refusal(), before)
        return numpy.asarray(joints, dtype=numpy.float64)


class _ArmObject:
    """What Arm and DualArm share: construction, the members on the whole object, closing."""

    def __init__(self, raw, ip: str, port: int, timeout: float, sides: Sequence[ArmSide]) -> None:
        self.raw = raw
        self._arm_sides = list(sides)
        if not raw.is_connected():
            raw.close()
            raise ConnectionError("connect", f"no connection to {ip}:{port} within {timeout} s")

    def _checked_all(self, operation: str, call: Callable[[], int]) -> None:
        """Runs a member that acts on every arm; on failure raises the refusal of an arm that refused."""
        sides = self._arm_sides
        before = [side._refusal().serial for side in sides]
        if call() == 1:
            return
        for side, serial in zip(sides, before):
            refusal = side._refusal()
            if refusal.serial != serial:
                raise _refusal_error(operation, refusal, serial)
        raise ControllerRefused(operation, "refused; the library recorded no reason")

    @property
    def connected(self) -> bool:
        return self.raw.is_connected()

    def is_ready(self) -> bool:
        """Every arm ready: servo on, POSITION mode, standing still without error, connected."""
        return all(side.status.ready for side in self._arm_sides)

    def set_ready(self) -> None:
        """Brings every arm to servo on, POSITION mode and no error and reads its limits (3 s per arm)."""
        before = [side._refusal().serial for side in self._arm_sides]
        if self.raw.set_ready() == 1:
            return
        if not self.raw.is_connected():
            raise ConnectionError("set_ready", "no connection to the controller")
        states = "; ".join(repr(side.status) for side in self._arm_sides)
        refusals = [side._refusal() for side in self._arm_sides]
        refused = "".join(f"; {r.operation} refused: {r.reason}" for r, serial in zip(refusals, before)
                          if r.serial != serial)
        raise CommandTimeout("set_ready", f"not ready within the ready sequence's 3 s: {states}{refused}")

    def set_servo_enable(self, enable: bool) -> None:
        self._checked_all("set_servo_enable", lambda: self.raw.set_servo_enable(enable))

    def set_control_mode(self, mode: Union[ControlMode, int]) -> None:
        """Asks for a ControlMode (0 POSITION, 1 PV, 2 MIT, 3 DRAG, 4 FORCE_POSITION)."""
        if isinstance(mode, _kelm.FsmMode):
            raise InvalidInput("set_control_mode",
                               f"takes a ControlMode, not the reported mode {mode!r}; "
                               f"for FsmMode.POSITION ask for ControlMode.POSITION")
        if isinstance(mode, bool) or int(mode) not in ControlMode._value2member_map_:
            raise InvalidInput("set_control_mode", f"control mode {mode!r} is outside 0 to 4 (see ControlMode)")
        self._checked_all("set_control_mode", lambda: self.raw.set_control_mode(int(mode)))

    def set_speed_level(self, level: float, response_level: int = 1) -> None:
        """Speed level, clamped to 0..10; `response_level` to 1..10000."""
        self._checked_all("set_speed_level", lambda: self.raw.set_speed_level(level, response_level))

    def emergency_stop(self) -> None:
        self._checked_all("emergency_stop", self.raw.emergency_stop)

    def get_version(self) -> str:
        """The controller's version text."""
        version = self.raw.get_version()
        if not version:
            raise CommandTimeout("get_version", "no answer from the controller")
        return version

    def close(self) -> None:
        """Releases the callbacks, disconnects and destroys the arm object."""
        self.raw.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc) -> None:
        self.close()


class Arm(_ArmObject, ArmSide):
    """One robot arm (arm index 0 of the controller at ip:port), raising on failure.

    ``Arm(ip, port=8090, timeout=1.0)`` connects within `timeout` [s] or raises
    ``kelm.ConnectionError``. ``.raw`` is the underlying ``KelmSingleCol``.
    """

    def __init__(self, ip: str, port: int = _kelm.CONTROLLER_PORT, timeout: float = 1.0) -> None:
        raw = _kelm.KelmSingleCol(ip, port, timeout)
        ArmSide.__init__(self, raw, "")
        _ArmObject.__init__(self, raw, ip, port, timeout, [self])

    def __repr__(self) -> str:
        return f"Arm({self.status!r})"


class DualArm(_ArmObject):
    """Two arms behind one controller address, as ``.left`` and ``.right``, raising on failure.

    ``DualArm(ip, port=8090, timeout=1.0, left_arm_index=0, right_arm_index=1)``;
    ``.raw`` is the underlying ``KelmDualBot``. Members on the object act on
    both arms, left first, and raise the refusal of the arm that refused.
    """

    def __init__(self, ip: str, port: int = _kelm.CONTROLLER_PORT, timeout: float = 1.0, left_arm_index: int = 0,
                 right_arm_index: int = 1) -> None:
        raw = _kelm.KelmDualBot(ip, port, timeout, left_arm_index, right_arm_index)
        self.left = ArmSide(raw, "left")
        self.right = ArmSide(raw, "right")
        super().__init__(raw, ip, port, timeout, [self.left, self.right])

    def __repr__(self) -> str:
        return f"DualArm(left={self.left.status!r}, right={self.right.status!r})"
