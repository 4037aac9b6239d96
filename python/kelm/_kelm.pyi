"""Type stub of kelm._kelm, written by python/make_stub.py from the built module."""
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple, Union, overload

import numpy

JointVector = Union[Sequence[float], numpy.ndarray]
Pose = Union[Sequence[float], numpy.ndarray]  # x, y, z [m], qx, qy, qz, qw
Points = Union[Sequence[JointVector], numpy.ndarray]

class RefusalKind(int):
    """Why an operation was refused."""
    none: RefusalKind
    invalid_input: RefusalKind
    timeout: RefusalKind
    no_connection: RefusalKind
    controller: RefusalKind
    def __init__(self, value: int) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class FsmMode(int):
    """The controller's finite-state mode."""
    ERROR: FsmMode
    IDLE: FsmMode
    POSITION: FsmMode
    MIT: FsmMode
    CURRENT: FsmMode
    PF: FsmMode
    TELEOPERATION: FsmMode
    def __init__(self, value: int) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class KelmState(int):
    """The arm's run state (ArmStatus.motion_state)."""
    Kelm_Error: KelmState
    Kelm_Standby: KelmState
    Kelm_Running: KelmState
    def __init__(self, value: int) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class KelmErrorCode(int):
    """The controller's fault numbers; 3001 is a warning."""
    ERR_NONE: KelmErrorCode
    ERR_ENCRYPTION: KelmErrorCode
    ERR_PROGRAM_CODE: KelmErrorCode
    ERR_SYSTEM_CONFIG: KelmErrorCode
    ERR_SYSTEM_EXECUTION: KelmErrorCode
    ERR_COMMUNICATION: KelmErrorCode
    ERR_EMERGENCY_STOP: KelmErrorCode
    ERR_MODE_REQUEST: KelmErrorCode
    ERR_MOTION_SPEED_EXCEED: KelmErrorCode
    ERR_JOINT_LIMIT_EXCEED: KelmErrorCode
    ERR_CMD_UNMATCH: KelmErrorCode
    ERR_KELM_REMOTE_REQUEST: KelmErrorCode
    ERR_KELM_TASK_BROADCAST: KelmErrorCode
    ERR_TASK_EXECUTION: KelmErrorCode
    ERR_COMPENSATOR_EXECUTION: KelmErrorCode
    ERR_INTERPOLATOR_PLAN: KelmErrorCode
    ERR_INTERPOLATOR_EXECUTION: KelmErrorCode
    ERR_KINEMATICS_ERROR: KelmErrorCode
    ERR_DYNAMICS_ERROR: KelmErrorCode
    ERR_FORCE_SENSOR_OPERATION: KelmErrorCode
    ERR_FORCE_SENSOR_THRESHOLD_EXCEED: KelmErrorCode
    ERR_EXTRA_ARM_COMMUNICATION: KelmErrorCode
    ERR_EXTRA_ARM_OPERATION: KelmErrorCode
    ERR_EXTRA_ARM_STATE: KelmErrorCode
    ERR_EXTRA_ARM_COLLISION: KelmErrorCode
    WARN_MESSAGE: KelmErrorCode
    ERR_AUTO_PLAN_FAILED: KelmErrorCode
    ERR_COMPUTE_JACOBIAN: KelmErrorCode
    ERR_PLAN_SCENCE_ERROR: KelmErrorCode
    ERR_CHOMP_ERROR: KelmErrorCode
    ERR_OMPL_ERROR: KelmErrorCode
    ERR_COLLISION_DETECT: KelmErrorCode
    ERR_DISTANCE_FIELD: KelmErrorCode
    ERR_ROBOT_MODEL_CONFIG_ERROR: KelmErrorCode
    ERR_ROBOT_MODEL: KelmErrorCode
    ERR_ROBOT_STATE: KelmErrorCode
    ERR_TRANSFORMS: KelmErrorCode
    ERR_MOTION_PLANNING_CONTEXT: KelmErrorCode
    ERR_KINEMATIC_CONSTRAINTS: KelmErrorCode
    ERR_TASK_JSON_FILE: KelmErrorCode
    ERR_DATA_JSON_FILE: KelmErrorCode
    ERR_DATA_MATCH: KelmErrorCode
    ERR_TASK_PLAN: KelmErrorCode
    ERR_REMOTE_REQUEST: KelmErrorCode
    ERR_TASK_BROADCAST: KelmErrorCode
    ERR_MATCH_ONLINE: KelmErrorCode
    ERR_CM_UPDATE_ENV: KelmErrorCode
    def __init__(self, value: int) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class LogColor(int):
    """Text colours of the log."""
    COLOR_NONE: LogColor
    COLOR_BOLD: LogColor
    COLOR_BLACK: LogColor
    COLOR_RED: LogColor
    COLOR_GREEN: LogColor
    COLOR_YELLOW: LogColor
    COLOR_BLUE: LogColor
    COLOR_PURPLE: LogColor
    COLOR_CYAN: LogColor
    COLOR_WHITE: LogColor
    COLOR_BLACK_BACKGROUND: LogColor
    COLOR_RED_BACKGROUND: LogColor
    COLOR_GREEN_BACKGROUND: LogColor
    COLOR_YELLOW_BACKGROUND: LogColor
    COLOR_BLUE_BACKGROUND: LogColor
    COLOR_PURPLE_BACKGROUND: LogColor
    COLOR_CYAN_BACKGROUND: LogColor
    COLOR_WHITE_BACKGROUND: LogColor
    COLOR_GOLDENROD: LogColor
    def __init__(self, value: int) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class LogLevel(int):
    """Level of a log line: 0 progress, 1 refused input and failures."""
    LOG_INFO: LogLevel
    LOG_ERROR: LogLevel
    def __init__(self, value: int) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class ArmStatus:
    """The arm's status as the state frames last reported it."""
    def __init__(self: ArmStatus) -> None:
        ...
    arm_index: int
    arm_name: str
    connected: bool
    dof: int
    servo: bool
    motion_state: int
    fsm_mode: int
    vel_per: float
    debug: bool
    def __repr__(self: ArmStatus) -> str:
        ...

class Refusal:
    """The record of an arm's last refused operation."""
    def __init__(self: Refusal) -> None:
        ...
    serial: int
    operation: str
    kind: RefusalKind
    reason: str
    def __repr__(self: Refusal) -> str:
        ...

class ArmConfig:
    """Joint limits [rad] and dynamics parameters per joint."""
    def __init__(self: ArmConfig) -> None:
        ...
    dof: int
    limit_upper: numpy.ndarray
    limit_lower: numpy.ndarray
    joint_vel: numpy.ndarray
    joint_acc: numpy.ndarray
    joint_dec: numpy.ndarray
    joint_jerk: numpy.ndarray
    def __repr__(self: ArmConfig) -> str:
        ...

class KelmKernelImpl:
    """One arm of one controller: a connection plus the arm's cached state.
    
    KelmKernelImpl(ip, port=8090, timeout=1.0, arm_index=0) connects while it is
    constructed (up to `timeout` seconds; a failed connect is logged and leaves a
    kernel without connection, whose requests fail). Joint values are in the
    controller's units (rad), poses are 7 floats x, y, z [m], qx, qy, qz, qw.
    Callbacks run on the connection's receive thread with the GIL; a call that
    waits for a reply raises RuntimeError inside a callback of the same kernel.
    Use it as a context manager, or call close(), to disconnect."""
    def __init__(self: KelmKernelImpl, ip: str, port: int = 8090, timeout: float = 1.0, arm_index: int = 0) -> None:
        ...
    def close(self: KelmKernelImpl) -> None:
        """Releases the Python callbacks, disconnects and destroys the kernel; later calls raise RuntimeError."""
        ...
    def __enter__(self: KelmKernelImpl) -> KelmKernelImpl:
        ...
    def __exit__(self: KelmKernelImpl, *args) -> None:
        ...
    def connect_kelm(self: KelmKernelImpl, ip: str, port: int, timeout: float) -> int:
        """Connects to ip:port within `timeout` s, closing an existing connection first (then a 1 s pause). 1 once connected, 0 on failure."""
        ...
    def disconnect_kelm(self: KelmKernelImpl) -> int:
        """1 after disconnecting, -1 without a transport."""
        ...
    def is_connected(self: KelmKernelImpl) -> bool:
        ...
    def setSendRate(self: KelmKernelImpl, rate: float) -> None:
        ...
    def setRecvRate(self: KelmKernelImpl, rate: float) -> None:
        ...
    def cmd_publish(self: KelmKernelImpl, request: object) -> Tuple[bool, str]:
        """Sends the dict `request` with a fresh task_key, without waiting. Returns (sent, task_key)."""
        ...
    def cmd_server(self: KelmKernelImpl, request: object, timeout: int) -> Tuple[Optional[Dict[str, Any]], str]:
        """Sends the dict `request` and waits up to `timeout` ms for its reply. Returns (reply dict or None, task_key)."""
        ...
    def register_subscription(self: KelmKernelImpl, key: str, fn: Callable[..., Any]) -> None:
        """One-shot fn(task_key) for the first state frame that reports task `key` finished."""
        ...
    def deregister_subscription(self: KelmKernelImpl, key: str) -> None:
        ...
    def clear_subscription(self: KelmKernelImpl) -> None:
        ...
    def register_task_completion_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(task_key: str) for every task a state frame reports finished. An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_task_completion_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_task_completion_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_update_robot_state_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(message: str) for every message that is no reply (the release without a name also removes the kernel's own parser). An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_update_robot_state_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_update_robot_state_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_connect_changed_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(connected: bool) on every change of the connection. An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_connect_changed_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_connect_changed_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_error_catch_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(code: int, text: str) on every frame that reports an error of this arm (runs with the state lock held: use no getter but get_status). An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_error_catch_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_error_catch_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_get_joint_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(stamp [s], positions [rad], velocities [rad/s], torques [Nm]) per frame. An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_get_joint_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_get_joint_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_get_pose_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(stamp [s], pose x, y, z, qx, qy, qz, qw) per frame. An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_get_pose_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_get_pose_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_get_plan_joint_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(stamp [s], planned positions, velocities, torques) per frame. An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_get_plan_joint_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_get_plan_joint_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_get_tele_master_data_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(stamp [s], joint positions [rad], gripper position [m]) per frame. An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_get_tele_master_data_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_get_tele_master_data_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_get_tele_slave_data_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(stamp [s], external joint torques, gripper torque) per frame, with the state lock held. An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_get_tele_slave_data_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_get_tele_slave_data_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_get_external_force_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(stamp [s], external joint torques, external Cartesian force) for frames that carry them, with the state lock held. An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    @overload
    def release_get_external_force_callback(self: KelmKernelImpl, name: str) -> int:
        """Removes the callback under `name`; an absent name changes nothing. Returns 0."""
        ...
    @overload
    def release_get_external_force_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_fsm_mode_changed_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(axis: int, mode: int). An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    def release_fsm_mode_changed_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_servo_status_changed_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(axis: int, servo: bool). An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    def release_servo_status_changed_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_motor_code_changed_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(axis: int, code: int, text: str). An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    def release_motor_code_changed_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_motor_run_state_changed_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(axis: int, run_state: int). An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    def release_motor_run_state_changed_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def register_state_changed_callback(self: KelmKernelImpl, name: str, fn: Callable[..., Any]) -> int:
        """Registers `fn` under `name` (a name registered again is replaced); `fn` is called on the receive thread as fn(motion_state: int). An exception in it is printed and does not reach the receive thread. Returns 0."""
        ...
    def release_state_changed_callback(self: KelmKernelImpl) -> int:
        """Removes every callback of this registry, the kernel's own ones included. Returns 0."""
        ...
    def onReceive(self: KelmKernelImpl, message: str) -> None:
        """Takes one message text as the receive thread would: a reply goes to its waiter, anything else to the state callbacks, here on this thread."""
        ...
    def cmd_recv(self: KelmKernelImpl, message: str) -> bool:
        """Parses one message, reports its finished tasks, files a reply with its waiter. True for a reply."""
        ...
    def connectChanged(self: KelmKernelImpl, connected: bool) -> None:
        """Tells the connect_changed callbacks of a change, as the transport does."""
        ...
    def initData(self: KelmKernelImpl) -> None:
        """Empties the cached state (the constructor's own step)."""
        ...
    def webSendRobotStateData(self: KelmKernelImpl, frame: object) -> None:
        """Takes a parsed state frame (a dict) over into the cached state and fires the callbacks."""
        ...
    def parseIOInfo(self: KelmKernelImpl, message: object) -> Tuple[int, List[Dict[str, Any]]]:
        """Reads the `rtu` block of a message (a dict) into (1, stations): each station {'units': [...]}, each unit with di_value/do_value (0/1 lists) and ad/da/status/ctrl values as (value, bits) pairs."""
        ...
    def parseRecieveData(self: KelmKernelImpl, msg: str) -> None:
        """Takes one message text as if the controller had sent it (a webSendRobotState frame updates the cached state and fires the callbacks on this thread)."""
        ...
    msg_count: int
    def get_status(self: KelmKernelImpl) -> ArmStatus:
        """The arm's ArmStatus; `connected` is asked of the connection now. Allowed in every callback."""
        ...
    def get_last_refusal(self: KelmKernelImpl) -> Refusal:
        """The record of the kernel's last refused operation (Refusal); serial counts the refusals."""
        ...
    def get_submitted_task_key(self: KelmKernelImpl) -> str:
        """Key of the last task the controller took from this kernel ('' before the first)."""
        ...
    def get_joint_pos(self: KelmKernelImpl) -> numpy.ndarray:
        """Measured joint positions [rad]."""
        ...
    def get_joint_vel(self: KelmKernelImpl) -> numpy.ndarray:
        """Measured joint velocities."""
        ...
    def get_joint_tau(self: KelmKernelImpl) -> numpy.ndarray:
        """Measured joint torques."""
        ...
    def get_plan_joint_pos(self: KelmKernelImpl) -> numpy.ndarray:
        ...
    def get_plan_joint_vel(self: KelmKernelImpl) -> numpy.ndarray:
        ...
    def get_plan_joint_tau(self: KelmKernelImpl) -> numpy.ndarray:
        ...
    def get_joint_external_tau(self: KelmKernelImpl) -> numpy.ndarray:
        ...
    def get_cart_pose(self: KelmKernelImpl) -> numpy.ndarray:
        """Cartesian pose x, y, z [m], qx, qy, qz, qw."""
        ...
    def get_cart_external_force(self: KelmKernelImpl) -> numpy.ndarray:
        ...
    def get_end_effector_state(self: KelmKernelImpl) -> int:
        ...
    def get_end_effector_pos(self: KelmKernelImpl) -> float:
        """Gripper position [m]."""
        ...
    def get_end_effector_vel(self: KelmKernelImpl) -> float:
        ...
    def get_end_effector_tau(self: KelmKernelImpl) -> float:
        ...
    def get_end_effector_connect(self: KelmKernelImpl) -> bool:
        ...
    def set_servo_enable(self: KelmKernelImpl, enable: bool) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_control_mode(self: KelmKernelImpl, mode: int) -> int:
        """`mode` 0 to 4 (0 position, 1 PV, 2 MIT, 3 drag, 4 force-position hybrid). Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_end_effector(self: KelmKernelImpl, pos: float, tau: float) -> int:
        """Gripper target: `pos` [m] clamped to 0..0.08, `tau` to 0..20.0; NaN refused. Published without waiting for a reply; may be called from a callback. Returns 1 when sent, -1 for refused input (logged, nothing sent) or a failed send."""
        ...
    def set_collision_config(self: KelmKernelImpl, flag: bool, level: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_teleoperation_mode(self: KelmKernelImpl, is_master: int) -> int:
        """`is_master` 1 for a master arm, 2 for a slave arm. Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def disable_stop(self: KelmKernelImpl) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def emergency_stop(self: KelmKernelImpl) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def task_stop(self: KelmKernelImpl, stop_at_once: bool) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def stop(self: KelmKernelImpl) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def pause(self: KelmKernelImpl) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def recover(self: KelmKernelImpl) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def clean_kelm_error(self: KelmKernelImpl) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_speed_level(self: KelmKernelImpl, level: float, response_level: int) -> int:
        """`level` clamped to 0..10.0 (NaN refused), `response_level` to 1..10000. Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_debug(self: KelmKernelImpl, trigger: bool) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def get_config(self: KelmKernelImpl) -> ArmConfig:
        """Asks for the joint configuration (ArmConfig); dof 0 and empty lists without a reply."""
        ...
    def get_version(self: KelmKernelImpl) -> str:
        """The controller's version text, '' without a reply."""
        ...
    def set_kelm_ready(self: KelmKernelImpl, blocking: bool, delay_time: float) -> int:
        """Brings the arm to no error, servo on and POSITION mode and reads its limits. `blocking` retries within `delay_time` [ms]. Returns 1 when the frames show the arm ready, -1 otherwise. Ctrl+C raises KeyboardInterrupt at once; the sequence then ends on its own and the next waiting call waits for it."""
        ...
    def tracking(self: KelmKernelImpl, target: JointVector, is_joint: bool, gripper: float) -> int:
        """Next way-point: `dof` joint values [rad] clamped to the limits (refused before set_kelm_ready read them) or a pose of 7 (quaternion normalised); `gripper` [m] < 0 sends none, clamped to 0.08. Published without waiting for a reply; may be called from a callback. Returns 1 when sent, -1 for refused input (logged, nothing sent) or a failed send."""
        ...
    def set_redundancy_tau(self: KelmKernelImpl, redundancy_tau: JointVector, eeff_tau: float) -> int:
        """One torque per joint and the end-effector torque, unchanged. Published without waiting for a reply; may be called from a callback. Returns 1 when sent, -1 for refused input (logged, nothing sent) or a failed send."""
        ...
    def task_blocking_wait(self: KelmKernelImpl, task_key: str, timeout_ms: int) -> int:
        """Waits until task `task_key` is reported finished, an error (not the warning 3001) is reported for this arm, the connection drops, or `timeout_ms` [ms] passes. 1 for any of the events, 0 on time-out or an empty key. Ctrl+C raises KeyboardInterrupt within 100 ms and leaves the kernel as it was."""
        ...
    def onKelmError(self: KelmKernelImpl, code: int, msg: str) -> None:
        """The kernel's own error listener: logs the warning or error."""
        ...
    def move_joint_jog(self: KelmKernelImpl, index: int, dir: int, speed: float) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def move_line_jog(self: KelmKernelImpl, index: int, dir: int, speed: float, tool: int, user: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def move_joint(self: KelmKernelImpl, target: JointVector, speed: float, tool: int, user: int, is_joint: bool) -> Tuple[int, str]:
        """Point-to-point move to joint target [rad] or pose (is_joint False) at `speed` percent. Returns (result, task_key): result 1 when the controller took the task, -1 for refused input (logged, nothing sent; task_key ''), a failed send, no reply within 1000 ms or a refusal. Wait for the motion's end with task_blocking_wait(task_key, timeout_ms)."""
        ...
    def move_line(self: KelmKernelImpl, target: JointVector, speed: float, tool: int, user: int, is_joint: bool) -> Tuple[int, str]:
        """Straight-line move. Returns (result, task_key): result 1 when the controller took the task, -1 for refused input (logged, nothing sent; task_key ''), a failed send, no reply within 1000 ms or a refusal. Wait for the motion's end with task_blocking_wait(task_key, timeout_ms)."""
        ...
    def move_directly(self: KelmKernelImpl, targets: Points, gripper: JointVector) -> Tuple[int, str]:
        """Way-points sent unchecked, with one gripper position [m] per point or none. Returns (result, task_key): result 1 when the controller took the task, -1 for refused input (logged, nothing sent; task_key ''), a failed send, no reply within 1000 ms or a refusal. Wait for the motion's end with task_blocking_wait(task_key, timeout_ms)."""
        ...
    def move_toppra(self: KelmKernelImpl, targets: Points, speed: float, tool: int, user: int, is_joint: bool) -> Tuple[int, str]:
        """Path through `targets`, timed by the controller at `speed` percent. Returns (result, task_key): result 1 when the controller took the task, -1 for refused input (logged, nothing sent; task_key ''), a failed send, no reply within 1000 ms or a refusal. Wait for the motion's end with task_blocking_wait(task_key, timeout_ms)."""
        ...
    def move_pvt(self: KelmKernelImpl, targets: Points, gripper: JointVector, times: JointVector, is_joint: bool) -> Tuple[int, str]:
        """Points with time stamps `times` [s] (above 0, increasing, steps below 3600) and optional gripper positions [m]. Returns (result, task_key): result 1 when the controller took the task, -1 for refused input (logged, nothing sent; task_key ''), a failed send, no reply within 1000 ms or a refusal. Wait for the motion's end with task_blocking_wait(task_key, timeout_ms)."""
        ...
    def move_3p_arc(self: KelmKernelImpl, points: Sequence[JointVector], speed: float, dir: bool, radian: float, tool: int, user: int, is_joint: bool) -> Tuple[int, str]:
        """Arc through three points; `radian` [rad] sent when above 0. Returns (result, task_key): result 1 when the controller took the task, -1 for refused input (logged, nothing sent; task_key ''), a failed send, no reply within 1000 ms or a refusal. Wait for the motion's end with task_blocking_wait(task_key, timeout_ms)."""
        ...
    def move_center_arc(self: KelmKernelImpl, points: Sequence[JointVector], speed: float, dir: bool, radian: float, tool: int, user: int, is_joint: bool) -> Tuple[int, str]:
        """Arc given by its centre. Returns (result, task_key): result 1 when the controller took the task, -1 for refused input (logged, nothing sent; task_key ''), a failed send, no reply within 1000 ms or a refusal. Wait for the motion's end with task_blocking_wait(task_key, timeout_ms)."""
        ...
    def move_jump(self: KelmKernelImpl, target: Pose, up: Sequence[float], down: Sequence[float], speed: float, tool: int, user: int) -> Tuple[int, str]:
        """Hop to pose `target`: up by `up` [m], over to target + `down` [m], down onto it. Returns (result, task_key): result 1 when the controller took the task, -1 for refused input (logged, nothing sent; task_key ''), a failed send, no reply within 1000 ms or a refusal. Wait for the motion's end with task_blocking_wait(task_key, timeout_ms)."""
        ...
    def move_delay(self: KelmKernelImpl, time: float, override_level: int) -> int:
        """Pause of `time` [s] in the task stream. Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def get_tool_index(self: KelmKernelImpl) -> int:
        ...
    def get_user_index(self: KelmKernelImpl) -> int:
        ...
    def get_tool_coordinate(self: KelmKernelImpl, index: int) -> numpy.ndarray:
        """Tool system `index` as a pose (zeros when the reply is unusable)."""
        ...
    def get_user_coordinate(self: KelmKernelImpl, index: int) -> numpy.ndarray:
        """User system `index` as the controller's array (empty on failure)."""
        ...
    def set_tool_index(self: KelmKernelImpl, index: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_user_index(self: KelmKernelImpl, index: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_tool_coordinate(self: KelmKernelImpl, index: int, coord: JointVector) -> int:
        """`coord` of 6 values. Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_user_coordinate(self: KelmKernelImpl, index: int, coord: JointVector) -> int:
        """`coord` of 6 values. Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def user_calibrate(self: KelmKernelImpl, user: int, points: Points) -> int:
        """1 for result 'ok', -1 for another result, -2 for no reply."""
        ...
    def tool_calibtate(self: KelmKernelImpl, tool: int, points: Points) -> int:
        """1 for result 'ok', -1 for another result or a point shorter than 6, -2 for no reply."""
        ...
    @overload
    def forwardKine(self: KelmKernelImpl, tool: int, user: int, jnt_value: JointVector) -> Tuple[int, numpy.ndarray]:
        """Pose of one joint vector, computed by the controller (3000 ms). Returns (result, pose): 1 on success, -1 otherwise (pose then zeros)."""
        ...
    @overload
    def forwardKine(self: KelmKernelImpl, tool: int, user: int, jnt_values: Points) -> Tuple[int, numpy.ndarray]:
        """Batch form: (result, (n, 7) array of poses)."""
        ...
    @overload
    def inverseKine(self: KelmKernelImpl, tool: int, user: int, quat_pose: Pose, ref_joint: JointVector) -> Tuple[int, Union[numpy.ndarray, List[numpy.ndarray]]]:
        """Joint solution near `ref_joint` for one pose (3000 ms). Returns (result, joints): 1 on success, -1 otherwise (joints then empty)."""
        ...
    @overload
    def inverseKine(self: KelmKernelImpl, tool: int, user: int, quat_poses: Sequence[Pose], ref_joints: Points) -> Tuple[int, Union[numpy.ndarray, List[numpy.ndarray]]]:
        """Batch form: (result, joints); a pose without a solution gives an empty row and result -1."""
        ...
    def set_traj_recorder(self: KelmKernelImpl, to_record: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def trajectory_teach(self: KelmKernelImpl, flag: bool, name: str) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def trajectory_recorder(self: KelmKernelImpl, name: str) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def check_teach(self: KelmKernelImpl) -> Tuple[int, List[str]]:
        """Names of the taught trajectories (3000 ms). Returns (result, names); -1 for no usable reply."""
        ...
    def set_zero_position(self: KelmKernelImpl, axis_id: int) -> int:
        """The reply's `ret` (0 when absent), -1 for no reply or a refusal."""
        ...
    def set_dynamics_cali_record_flag(self: KelmKernelImpl) -> int:
        """The reply's `ret` (0 when absent), -1 for no reply or a refusal."""
        ...
    def set_dynamics_cali_calcu(self: KelmKernelImpl, payload: bool) -> int:
        """The reply's `ret` (0 when absent), -1 for no reply or a refusal."""
        ...

class KelmSingleCol:
    """The client of one robot arm (arm index 0 of the controller).
    
    KelmSingleCol(ip, port=8090, timeout=1.0) connects while it is constructed
    (a failed connection is not reported: is_connected() tells). Joint values in
    rad, poses as x, y, z [m], qx, qy, qz, qw, times in s. Motions run at 100 %
    speed in tool and user frame 0; block=True waits for the motion's end.
    Callbacks run on the receive thread with the GIL; a call that waits for a
    reply raises RuntimeError inside a callback of the same object. Use it as a
    context manager (`with kelm.KelmSingleCol(ip) as arm:`) to disconnect on exit."""
    def __init__(self: KelmSingleCol, ip: str, port: int = 8090, timeout: float = 1.0) -> None:
        ...
    def close(self: KelmSingleCol) -> None:
        """Releases the Python callbacks, disconnects and destroys the object; later calls raise RuntimeError."""
        ...
    def __enter__(self: KelmSingleCol) -> KelmSingleCol:
        ...
    def __exit__(self: KelmSingleCol, *args) -> None:
        ...
    def connect(self: KelmSingleCol, ip: str, port: int, timeout: float) -> int:
        """Connects again (closing an existing connection first, then 1 s). 1 once connected."""
        ...
    def disconnect(self: KelmSingleCol) -> int:
        """1 after disconnecting."""
        ...
    def is_connected(self: KelmSingleCol) -> bool:
        ...
    def set_ready(self: KelmSingleCol) -> int:
        """Brings the arm(s) to servo on, position mode and no error and fetches the joint limits, retrying up to 3000 ms per arm. 1 when ready, -1 otherwise. Ctrl+C raises KeyboardInterrupt at once (the sequence ends on its own)."""
        ...
    def set_servo_enable(self: KelmSingleCol, enable: bool) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_control_mode(self: KelmSingleCol, mode: int) -> int:
        """`mode` 0 to 4. Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_speed_level(self: KelmSingleCol, level: float, response_level: int) -> int:
        """`level` clamped to 0..10.0 (NaN refused), `response_level` to 1..10000. Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_collision_config(self: KelmSingleCol, flag: bool, level: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def emergency_stop(self: KelmSingleCol) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def get_version(self: KelmSingleCol) -> str:
        """The controller's version text, '' without a reply."""
        ...
    def trajectory_teach(self: KelmSingleCol, flag: bool, name: str) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def trajectory_recorder(self: KelmSingleCol, name: str) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def check_teach(self: KelmSingleCol) -> Tuple[int, List[str]]:
        """Names of the recorded trajectories (3000 ms). Returns (result, names)."""
        ...
    def register_error_cbk(self: KelmSingleCol, name: str, fn: Callable[..., Any]) -> None:
        """Calls fn(code, text) under `name` on every frame that reports an error, with the state lock held (use no getter but get_status in it)."""
        ...
    def release_error_cbk(self: KelmSingleCol, name: str) -> int:
        ...
    def register_completion_cbk(self: KelmSingleCol, name: str, fn: Callable[..., Any]) -> None:
        """Calls fn(task_key) under `name` for every task reported finished."""
        ...
    def release_completion_cbk(self: KelmSingleCol, name: str) -> int:
        ...
    def get_status(self: KelmSingleCol) -> ArmStatus:
        """The arm's ArmStatus; `connected` is asked now. Allowed in every callback."""
        ...
    def get_last_refusal(self: KelmSingleCol) -> Refusal:
        """The record of the arm's last refused operation (Refusal): its operation, kind and reason; serial counts the refusals, so reading it before and after a call tells whether that call was refused."""
        ...
    def get_submitted_task_key(self: KelmSingleCol) -> str:
        """Key of the last task the controller took from this arm ('' before the first); a motion with block=False can be waited for on it."""
        ...
    def get_config(self: KelmSingleCol) -> ArmConfig:
        """Joint limits and dynamics parameters asked of the controller now (ArmConfig; dof 0 without reply)."""
        ...
    def get_joint_pos(self: KelmSingleCol) -> numpy.ndarray:
        """Measured joint positions [rad]."""
        ...
    def get_joint_vel(self: KelmSingleCol) -> numpy.ndarray:
        """Measured joint velocities [rad/s]."""
        ...
    def get_joint_tau(self: KelmSingleCol) -> numpy.ndarray:
        """Measured joint torques [Nm]."""
        ...
    def get_plan_joint_pos(self: KelmSingleCol) -> numpy.ndarray:
        """Planned joint positions [rad]."""
        ...
    def get_plan_joint_vel(self: KelmSingleCol) -> numpy.ndarray:
        """Planned joint velocities."""
        ...
    def get_plan_joint_tau(self: KelmSingleCol) -> numpy.ndarray:
        """Planned joint torques."""
        ...
    def get_cart_pose(self: KelmSingleCol) -> numpy.ndarray:
        """Cartesian pose x, y, z [m], qx, qy, qz, qw."""
        ...
    def get_joint_external_tau(self: KelmSingleCol) -> numpy.ndarray:
        """External joint torques."""
        ...
    def get_cart_external_force(self: KelmSingleCol) -> numpy.ndarray:
        """External Cartesian force."""
        ...
    def get_gripper_state(self: KelmSingleCol) -> int:
        """The gripper's state code, -1 without a connected gripper."""
        ...
    def get_gripper_pos(self: KelmSingleCol) -> float:
        """Gripper position [m]."""
        ...
    def get_gripper_vel(self: KelmSingleCol) -> float:
        """Gripper velocity."""
        ...
    def get_gripper_tau(self: KelmSingleCol) -> float:
        """Gripper torque."""
        ...
    def set_gripper(self: KelmSingleCol, pos: float, tau: float) -> int:
        """Gripper target: `pos` [m] clamped to 0..0.08, `tau` to 0..20.0, NaN refused. Published without waiting: 1 when sent."""
        ...
    def set_tool_index(self: KelmSingleCol, index: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def get_tool_index(self: KelmSingleCol) -> int:
        """Tool index of the last state frame."""
        ...
    def get_tool_coordinate(self: KelmSingleCol, index: int) -> numpy.ndarray:
        """Tool system `index` as a pose (zeros when the reply is unusable)."""
        ...
    def track_joint(self: KelmSingleCol, target: JointVector, gripper: float) -> int:
        """Streams one joint target [rad] (clamped to the limits); `gripper` [m] < 0 sends none. -1 with 'targets size error' on stdout for a wrong length. Published without waiting; may be called from a callback."""
        ...
    def track_pose(self: KelmSingleCol, pose: Pose, gripper: float) -> int:
        """Streams one pose target (quaternion normalised); `gripper` [m] < 0 sends none. Published without waiting; may be called from a callback."""
        ...
    def move_joint(self: KelmSingleCol, target: JointVector, time: float = -1.0, block: bool = False) -> int:
        """Joint move to `target` [rad]. time < 0: timed by the controller at 100 %; otherwise the move takes `time` [s] (0 is refused). Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_pose(self: KelmSingleCol, pose: Pose, time: float = -1.0, block: bool = False) -> int:
        """Joint-interpolated move to pose x, y, z, qx, qy, qz, qw; `time` as move_joint. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_line_joint(self: KelmSingleCol, target: JointVector, block: bool = False) -> int:
        """Straight-line move to a joint target [rad]. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_line_pose(self: KelmSingleCol, pose: Pose, block: bool = False) -> int:
        """Straight-line move to a pose. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_joint_traj(self: KelmSingleCol, traj: Points, gripper: JointVector = [], times: JointVector = [], block: bool = False) -> int:
        """Moves through joint points. With one time stamp [s] per point in `times` the points are timed by them and `gripper` [m] moves along (empty for none); otherwise the controller times the path at 100 % and both are ignored. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_pose_traj(self: KelmSingleCol, poses: Sequence[Pose], gripper: JointVector = [], times: JointVector = [], block: bool = False) -> int:
        """Moves through poses. With one time stamp [s] per point in `times` the points are timed by them and `gripper` [m] moves along (empty for none); otherwise the controller times the path at 100 % and both are ignored. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def forward_kine(self: KelmSingleCol, tool: int, joint: JointVector) -> Tuple[int, numpy.ndarray]:
        """Pose of `joint` [rad] in tool `tool`, user frame 0, computed by the controller (3000 ms). Returns (result, pose): 1 on success, -1 otherwise (pose then zeros)."""
        ...
    def forward_kine_array(self: KelmSingleCol, tool: int, joints: Points) -> Tuple[int, numpy.ndarray]:
        """Batch form: (result, (n, 7) array of poses)."""
        ...
    def inverse_kine(self: KelmSingleCol, tool: int, pose: Pose, ref_joint: JointVector) -> Tuple[int, numpy.ndarray]:
        """Joint solution [rad] of `pose` near `ref_joint` (3000 ms). Returns (result, joints): 1 on success, -1 otherwise (joints then empty)."""
        ...
    def inverse_kine_array(self: KelmSingleCol, tool: int, poses: Sequence[Pose], ref_joints: Points) -> Tuple[int, Union[numpy.ndarray, List[numpy.ndarray]]]:
        """Batch form: (result, joints); a pose without a solution gives an empty row."""
        ...
    def register_joint_cbk(self: KelmSingleCol, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], positions [rad], velocities, torques) on the receive thread for every state frame; registering again replaces it. An exception in fn is printed and does not stop the stream."""
        ...
    def release_joint_cbk(self: KelmSingleCol) -> int:
        """Removes every joint callback of the arm. Returns 0."""
        ...
    def register_pose_cbk(self: KelmSingleCol, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], pose x, y, z, qx, qy, qz, qw) for every state frame."""
        ...
    def release_pose_cbk(self: KelmSingleCol) -> int:
        """Removes every pose callback of the arm. Returns 0."""
        ...
    def register_plan_joint_cbk(self: KelmSingleCol, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], planned positions, velocities, torques) for every state frame."""
        ...
    def release_plan_joint_cbk(self: KelmSingleCol) -> int:
        """Removes every planned-joint callback of the arm."""
        ...
    def register_external_force_cbk(self: KelmSingleCol, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], external joint torques, external Cartesian force) for frames that carry them, with the state lock held (use no getter but get_status in it)."""
        ...
    def release_external_force_cbk(self: KelmSingleCol) -> int:
        """Removes every external-force callback of the arm."""
        ...

class KelmDualBot:
    """The client of two arms behind one controller address.
    
    KelmDualBot(ip, port=8090, timeout=1.0, left_arm_index=0, right_arm_index=1)
    makes the left arm's kernel, then the right one's, each with its own
    connection. Every one-arm member of KelmSingleCol is here as a left and a
    right twin; members that act on both arms call the left, then the right arm
    and give 1 only when both gave 1 (set_servo_enable always gives 1).
    move_left_line_pose / move_right_line_pose send the 7 pose values as a joint
    target, as the C++ class does."""
    def __init__(self: KelmDualBot, ip: str, port: int = 8090, timeout: float = 1.0, left_arm_index: int = 0, right_arm_index: int = 1) -> None:
        ...
    def close(self: KelmDualBot) -> None:
        """Releases the Python callbacks, disconnects and destroys the object; later calls raise RuntimeError."""
        ...
    def __enter__(self: KelmDualBot) -> KelmDualBot:
        ...
    def __exit__(self: KelmDualBot, *args) -> None:
        ...
    def connect(self: KelmDualBot, ip: str, port: int, timeout: float) -> int:
        """Connects again (closing an existing connection first, then 1 s). 1 once connected."""
        ...
    def disconnect(self: KelmDualBot) -> int:
        """1 after disconnecting."""
        ...
    def is_connected(self: KelmDualBot) -> bool:
        ...
    def set_ready(self: KelmDualBot) -> int:
        """Brings the arm(s) to servo on, position mode and no error and fetches the joint limits, retrying up to 3000 ms per arm. 1 when ready, -1 otherwise. Ctrl+C raises KeyboardInterrupt at once (the sequence ends on its own)."""
        ...
    def set_servo_enable(self: KelmDualBot, enable: bool) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_control_mode(self: KelmDualBot, mode: int) -> int:
        """`mode` 0 to 4. Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_speed_level(self: KelmDualBot, level: float, response_level: int) -> int:
        """`level` clamped to 0..10.0 (NaN refused), `response_level` to 1..10000. Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def set_collision_config(self: KelmDualBot, flag: bool, level: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def emergency_stop(self: KelmDualBot) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def get_version(self: KelmDualBot) -> str:
        """The controller's version text, '' without a reply."""
        ...
    def trajectory_teach(self: KelmDualBot, flag: bool, name: str) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def trajectory_recorder(self: KelmDualBot, name: str) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def check_teach(self: KelmDualBot) -> Tuple[int, List[str]]:
        """Names of the recorded trajectories (3000 ms). Returns (result, names)."""
        ...
    def register_error_cbk(self: KelmDualBot, name: str, fn: Callable[..., Any]) -> None:
        """Calls fn(code, text) under `name` on every frame that reports an error, with the state lock held (use no getter but get_status in it)."""
        ...
    def release_error_cbk(self: KelmDualBot, name: str) -> int:
        ...
    def register_completion_cbk(self: KelmDualBot, name: str, fn: Callable[..., Any]) -> None:
        """Calls fn(task_key) under `name` for every task reported finished."""
        ...
    def release_completion_cbk(self: KelmDualBot, name: str) -> int:
        ...
    def get_left_status(self: KelmDualBot) -> ArmStatus:
        """The arm's ArmStatus; `connected` is asked now. Allowed in every callback."""
        ...
    def get_left_last_refusal(self: KelmDualBot) -> Refusal:
        """The record of the arm's last refused operation (Refusal): its operation, kind and reason; serial counts the refusals, so reading it before and after a call tells whether that call was refused."""
        ...
    def get_left_submitted_task_key(self: KelmDualBot) -> str:
        """Key of the last task the controller took from this arm ('' before the first); a motion with block=False can be waited for on it."""
        ...
    def get_left_config(self: KelmDualBot) -> ArmConfig:
        """Joint limits and dynamics parameters asked of the controller now (ArmConfig; dof 0 without reply)."""
        ...
    def get_left_joint_pos(self: KelmDualBot) -> numpy.ndarray:
        """Measured joint positions [rad]."""
        ...
    def get_left_joint_vel(self: KelmDualBot) -> numpy.ndarray:
        """Measured joint velocities [rad/s]."""
        ...
    def get_left_joint_tau(self: KelmDualBot) -> numpy.ndarray:
        """Measured joint torques [Nm]."""
        ...
    def get_left_plan_joint_pos(self: KelmDualBot) -> numpy.ndarray:
        """Planned joint positions [rad]."""
        ...
    def get_left_plan_joint_vel(self: KelmDualBot) -> numpy.ndarray:
        """Planned joint velocities."""
        ...
    def get_left_plan_joint_tau(self: KelmDualBot) -> numpy.ndarray:
        """Planned joint torques."""
        ...
    def get_left_cart_pose(self: KelmDualBot) -> numpy.ndarray:
        """Cartesian pose x, y, z [m], qx, qy, qz, qw."""
        ...
    def get_left_joint_external_tau(self: KelmDualBot) -> numpy.ndarray:
        """External joint torques."""
        ...
    def get_left_cart_external_force(self: KelmDualBot) -> numpy.ndarray:
        """External Cartesian force."""
        ...
    def get_left_gripper_state(self: KelmDualBot) -> int:
        """The gripper's state code, -1 without a connected gripper."""
        ...
    def get_left_gripper_pos(self: KelmDualBot) -> float:
        """Gripper position [m]."""
        ...
    def get_left_gripper_vel(self: KelmDualBot) -> float:
        """Gripper velocity."""
        ...
    def get_left_gripper_tau(self: KelmDualBot) -> float:
        """Gripper torque."""
        ...
    def set_left_gripper(self: KelmDualBot, pos: float, tau: float) -> int:
        """Gripper target: `pos` [m] clamped to 0..0.08, `tau` to 0..20.0, NaN refused. Published without waiting: 1 when sent."""
        ...
    def set_left_tool_index(self: KelmDualBot, index: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def get_left_tool_index(self: KelmDualBot) -> int:
        """Tool index of the last state frame."""
        ...
    def get_left_tool_coordinate(self: KelmDualBot, index: int) -> numpy.ndarray:
        """Tool system `index` as a pose (zeros when the reply is unusable)."""
        ...
    def get_right_status(self: KelmDualBot) -> ArmStatus:
        """The arm's ArmStatus; `connected` is asked now. Allowed in every callback."""
        ...
    def get_right_last_refusal(self: KelmDualBot) -> Refusal:
        """The record of the arm's last refused operation (Refusal): its operation, kind and reason; serial counts the refusals, so reading it before and after a call tells whether that call was refused."""
        ...
    def get_right_submitted_task_key(self: KelmDualBot) -> str:
        """Key of the last task the controller took from this arm ('' before the first); a motion with block=False can be waited for on it."""
        ...
    def get_right_config(self: KelmDualBot) -> ArmConfig:
        """Joint limits and dynamics parameters asked of the controller now (ArmConfig; dof 0 without reply)."""
        ...
    def get_right_joint_pos(self: KelmDualBot) -> numpy.ndarray:
        """Measured joint positions [rad]."""
        ...
    def get_right_joint_vel(self: KelmDualBot) -> numpy.ndarray:
        """Measured joint velocities [rad/s]."""
        ...
    def get_right_joint_tau(self: KelmDualBot) -> numpy.ndarray:
        """Measured joint torques [Nm]."""
        ...
    def get_right_plan_joint_pos(self: KelmDualBot) -> numpy.ndarray:
        """Planned joint positions [rad]."""
        ...
    def get_right_plan_joint_vel(self: KelmDualBot) -> numpy.ndarray:
        """Planned joint velocities."""
        ...
    def get_right_plan_joint_tau(self: KelmDualBot) -> numpy.ndarray:
        """Planned joint torques."""
        ...
    def get_right_cart_pose(self: KelmDualBot) -> numpy.ndarray:
        """Cartesian pose x, y, z [m], qx, qy, qz, qw."""
        ...
    def get_right_joint_external_tau(self: KelmDualBot) -> numpy.ndarray:
        """External joint torques."""
        ...
    def get_right_cart_external_force(self: KelmDualBot) -> numpy.ndarray:
        """External Cartesian force."""
        ...
    def get_right_gripper_state(self: KelmDualBot) -> int:
        """The gripper's state code, -1 without a connected gripper."""
        ...
    def get_right_gripper_pos(self: KelmDualBot) -> float:
        """Gripper position [m]."""
        ...
    def get_right_gripper_vel(self: KelmDualBot) -> float:
        """Gripper velocity."""
        ...
    def get_right_gripper_tau(self: KelmDualBot) -> float:
        """Gripper torque."""
        ...
    def set_right_gripper(self: KelmDualBot, pos: float, tau: float) -> int:
        """Gripper target: `pos` [m] clamped to 0..0.08, `tau` to 0..20.0, NaN refused. Published without waiting: 1 when sent."""
        ...
    def set_right_tool_index(self: KelmDualBot, index: int) -> int:
        """Returns 1 when the controller took the request, -1 for refused input (logged, nothing sent), a failed send, no reply within 1000 ms, or a refusal."""
        ...
    def get_right_tool_index(self: KelmDualBot) -> int:
        """Tool index of the last state frame."""
        ...
    def get_right_tool_coordinate(self: KelmDualBot, index: int) -> numpy.ndarray:
        """Tool system `index` as a pose (zeros when the reply is unusable)."""
        ...
    def track_left_joint(self: KelmDualBot, target: JointVector, gripper: float) -> int:
        """Streams one joint target [rad] (clamped to the limits); `gripper` [m] < 0 sends none. -1 with 'targets size error' on stdout for a wrong length. Published without waiting; may be called from a callback."""
        ...
    def track_left_pose(self: KelmDualBot, pose: Pose, gripper: float) -> int:
        """Streams one pose target (quaternion normalised); `gripper` [m] < 0 sends none. Published without waiting; may be called from a callback."""
        ...
    def move_left_joint(self: KelmDualBot, target: JointVector, time: float = -1.0, block: bool = False) -> int:
        """Joint move to `target` [rad]. time < 0: timed by the controller at 100 %; otherwise the move takes `time` [s] (0 is refused). Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_left_pose(self: KelmDualBot, pose: Pose, time: float = -1.0, block: bool = False) -> int:
        """Joint-interpolated move to pose x, y, z, qx, qy, qz, qw; `time` as move_joint. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_left_line_joint(self: KelmDualBot, target: JointVector, block: bool = False) -> int:
        """Straight-line move to a joint target [rad]. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_left_line_pose(self: KelmDualBot, pose: Pose, block: bool = False) -> int:
        """Straight-line move to a pose. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_left_joint_traj(self: KelmDualBot, traj: Points, gripper: JointVector = [], times: JointVector = [], block: bool = False) -> int:
        """Moves through joint points. With one time stamp [s] per point in `times` the points are timed by them and `gripper` [m] moves along (empty for none); otherwise the controller times the path at 100 % and both are ignored. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_left_pose_traj(self: KelmDualBot, poses: Sequence[Pose], gripper: JointVector = [], times: JointVector = [], block: bool = False) -> int:
        """Moves through poses. With one time stamp [s] per point in `times` the points are timed by them and `gripper` [m] moves along (empty for none); otherwise the controller times the path at 100 % and both are ignored. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def forward_kine_left(self: KelmDualBot, tool: int, joint: JointVector) -> Tuple[int, numpy.ndarray]:
        """Pose of `joint` [rad] in tool `tool`, user frame 0, computed by the controller (3000 ms). Returns (result, pose): 1 on success, -1 otherwise (pose then zeros)."""
        ...
    def forward_kine_left_array(self: KelmDualBot, tool: int, joints: Points) -> Tuple[int, numpy.ndarray]:
        """Batch form: (result, (n, 7) array of poses)."""
        ...
    def inverse_kine_left(self: KelmDualBot, tool: int, pose: Pose, ref_joint: JointVector) -> Tuple[int, numpy.ndarray]:
        """Joint solution [rad] of `pose` near `ref_joint` (3000 ms). Returns (result, joints): 1 on success, -1 otherwise (joints then empty)."""
        ...
    def inverse_kine_left_array(self: KelmDualBot, tool: int, poses: Sequence[Pose], ref_joints: Points) -> Tuple[int, Union[numpy.ndarray, List[numpy.ndarray]]]:
        """Batch form: (result, joints); a pose without a solution gives an empty row."""
        ...
    def track_right_joint(self: KelmDualBot, target: JointVector, gripper: float) -> int:
        """Streams one joint target [rad] (clamped to the limits); `gripper` [m] < 0 sends none. -1 with 'targets size error' on stdout for a wrong length. Published without waiting; may be called from a callback."""
        ...
    def track_right_pose(self: KelmDualBot, pose: Pose, gripper: float) -> int:
        """Streams one pose target (quaternion normalised); `gripper` [m] < 0 sends none. Published without waiting; may be called from a callback."""
        ...
    def move_right_joint(self: KelmDualBot, target: JointVector, time: float = -1.0, block: bool = False) -> int:
        """Joint move to `target` [rad]. time < 0: timed by the controller at 100 %; otherwise the move takes `time` [s] (0 is refused). Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_right_pose(self: KelmDualBot, pose: Pose, time: float = -1.0, block: bool = False) -> int:
        """Joint-interpolated move to pose x, y, z, qx, qy, qz, qw; `time` as move_joint. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_right_line_joint(self: KelmDualBot, target: JointVector, block: bool = False) -> int:
        """Straight-line move to a joint target [rad]. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_right_line_pose(self: KelmDualBot, pose: Pose, block: bool = False) -> int:
        """Straight-line move to a pose. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_right_joint_traj(self: KelmDualBot, traj: Points, gripper: JointVector = [], times: JointVector = [], block: bool = False) -> int:
        """Moves through joint points. With one time stamp [s] per point in `times` the points are timed by them and `gripper` [m] moves along (empty for none); otherwise the controller times the path at 100 % and both are ignored. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def move_right_pose_traj(self: KelmDualBot, poses: Sequence[Pose], gripper: JointVector = [], times: JointVector = [], block: bool = False) -> int:
        """Moves through poses. With one time stamp [s] per point in `times` the points are timed by them and `gripper` [m] moves along (empty for none); otherwise the controller times the path at 100 % and both are ignored. Returns 1 when the controller took the task (with block=True: once the wait ended, by the task's end, an arm error or a lost connection; get_status() tells which), -1 for refused input (logged, nothing sent, no wait), a failed send, no reply within 1000 ms or a refusal. With block=True Ctrl+C raises KeyboardInterrupt at once; the motion itself goes on, and the object's next waiting call first waits for it to end."""
        ...
    def forward_kine_right(self: KelmDualBot, tool: int, joint: JointVector) -> Tuple[int, numpy.ndarray]:
        """Pose of `joint` [rad] in tool `tool`, user frame 0, computed by the controller (3000 ms). Returns (result, pose): 1 on success, -1 otherwise (pose then zeros)."""
        ...
    def forward_kine_right_array(self: KelmDualBot, tool: int, joints: Points) -> Tuple[int, numpy.ndarray]:
        """Batch form: (result, (n, 7) array of poses)."""
        ...
    def inverse_kine_right(self: KelmDualBot, tool: int, pose: Pose, ref_joint: JointVector) -> Tuple[int, numpy.ndarray]:
        """Joint solution [rad] of `pose` near `ref_joint` (3000 ms). Returns (result, joints): 1 on success, -1 otherwise (joints then empty)."""
        ...
    def inverse_kine_right_array(self: KelmDualBot, tool: int, poses: Sequence[Pose], ref_joints: Points) -> Tuple[int, Union[numpy.ndarray, List[numpy.ndarray]]]:
        """Batch form: (result, joints); a pose without a solution gives an empty row."""
        ...
    def register_left_joint_cbk(self: KelmDualBot, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], positions [rad], velocities, torques) on the receive thread for every state frame; registering again replaces it. An exception in fn is printed and does not stop the stream."""
        ...
    def release_left_joint_cbk(self: KelmDualBot) -> int:
        """Removes every joint callback of the arm. Returns 0."""
        ...
    def register_left_pose_cbk(self: KelmDualBot, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], pose x, y, z, qx, qy, qz, qw) for every state frame."""
        ...
    def release_left_pose_cbk(self: KelmDualBot) -> int:
        """Removes every pose callback of the arm. Returns 0."""
        ...
    def register_left_plan_joint_cbk(self: KelmDualBot, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], planned positions, velocities, torques) for every state frame."""
        ...
    def release_left_plan_joint_cbk(self: KelmDualBot) -> int:
        """Removes every planned-joint callback of the arm."""
        ...
    def register_left_external_force_cbk(self: KelmDualBot, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], external joint torques, external Cartesian force) for frames that carry them, with the state lock held (use no getter but get_status in it)."""
        ...
    def release_left_external_force_cbk(self: KelmDualBot) -> int:
        """Removes every external-force callback of the arm."""
        ...
    def register_right_joint_cbk(self: KelmDualBot, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], positions [rad], velocities, torques) on the receive thread for every state frame; registering again replaces it. An exception in fn is printed and does not stop the stream."""
        ...
    def release_right_joint_cbk(self: KelmDualBot) -> int:
        """Removes every joint callback of the arm. Returns 0."""
        ...
    def register_right_pose_cbk(self: KelmDualBot, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], pose x, y, z, qx, qy, qz, qw) for every state frame."""
        ...
    def release_right_pose_cbk(self: KelmDualBot) -> int:
        """Removes every pose callback of the arm. Returns 0."""
        ...
    def register_right_plan_joint_cbk(self: KelmDualBot, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], planned positions, velocities, torques) for every state frame."""
        ...
    def release_right_plan_joint_cbk(self: KelmDualBot) -> int:
        """Removes every planned-joint callback of the arm."""
        ...
    def register_right_external_force_cbk(self: KelmDualBot, fn: Callable[..., Any]) -> None:
        """Calls fn(stamp [s], external joint torques, external Cartesian force) for frames that carry them, with the state lock held (use no getter but get_status in it)."""
        ...
    def release_right_external_force_cbk(self: KelmDualBot) -> int:
        """Removes every external-force callback of the arm."""
        ...

class StateLog:
    """Every state frame of one kernel, kept in C++ until drained.
    
    StateLog(kernel, name="kelm.StateLog", capacity=10_000_000) registers a joint
    callback under `name` that copies each frame's count, controller time stamp,
    receive time (Unix s), joints and gripper without taking the GIL. drain()
    returns what came since the last drain as numpy arrays: count (uint64),
    stamp, received (n), qpos, qvel, effort (n, dof), gripper (n, 3: position,
    velocity, torque). Frames beyond `capacity` undrained rows are counted in
    overflow and dropped."""
    def __init__(self: StateLog, kernel: KelmKernelImpl, name: str = 'kelm.StateLog', capacity: int = 10000000) -> None:
        ...
    def drain(self: StateLog) -> dict:
        ...
    def stop(self: StateLog) -> None:
        """Releases the capture's callback; drain() still returns what is left."""
        ...
    frames: int
    overflow: int

ERROR: FsmMode
IDLE: FsmMode
POSITION: FsmMode
MIT: FsmMode
CURRENT: FsmMode
PF: FsmMode
TELEOPERATION: FsmMode
Kelm_Error: KelmState
Kelm_Standby: KelmState
Kelm_Running: KelmState
ERR_NONE: KelmErrorCode
ERR_ENCRYPTION: KelmErrorCode
ERR_PROGRAM_CODE: KelmErrorCode
ERR_SYSTEM_CONFIG: KelmErrorCode
ERR_SYSTEM_EXECUTION: KelmErrorCode
ERR_COMMUNICATION: KelmErrorCode
ERR_EMERGENCY_STOP: KelmErrorCode
ERR_MODE_REQUEST: KelmErrorCode
ERR_MOTION_SPEED_EXCEED: KelmErrorCode
ERR_JOINT_LIMIT_EXCEED: KelmErrorCode
ERR_CMD_UNMATCH: KelmErrorCode
ERR_KELM_REMOTE_REQUEST: KelmErrorCode
ERR_KELM_TASK_BROADCAST: KelmErrorCode
ERR_TASK_EXECUTION: KelmErrorCode
ERR_COMPENSATOR_EXECUTION: KelmErrorCode
ERR_INTERPOLATOR_PLAN: KelmErrorCode
ERR_INTERPOLATOR_EXECUTION: KelmErrorCode
ERR_KINEMATICS_ERROR: KelmErrorCode
ERR_DYNAMICS_ERROR: KelmErrorCode
ERR_FORCE_SENSOR_OPERATION: KelmErrorCode
ERR_FORCE_SENSOR_THRESHOLD_EXCEED: KelmErrorCode
ERR_EXTRA_ARM_COMMUNICATION: KelmErrorCode
ERR_EXTRA_ARM_OPERATION: KelmErrorCode
ERR_EXTRA_ARM_STATE: KelmErrorCode
ERR_EXTRA_ARM_COLLISION: KelmErrorCode
WARN_MESSAGE: KelmErrorCode
ERR_AUTO_PLAN_FAILED: KelmErrorCode
ERR_COMPUTE_JACOBIAN: KelmErrorCode
ERR_PLAN_SCENCE_ERROR: KelmErrorCode
ERR_CHOMP_ERROR: KelmErrorCode
ERR_OMPL_ERROR: KelmErrorCode
ERR_COLLISION_DETECT: KelmErrorCode
ERR_DISTANCE_FIELD: KelmErrorCode
ERR_ROBOT_MODEL_CONFIG_ERROR: KelmErrorCode
ERR_ROBOT_MODEL: KelmErrorCode
ERR_ROBOT_STATE: KelmErrorCode
ERR_TRANSFORMS: KelmErrorCode
ERR_MOTION_PLANNING_CONTEXT: KelmErrorCode
ERR_KINEMATIC_CONSTRAINTS: KelmErrorCode
ERR_TASK_JSON_FILE: KelmErrorCode
ERR_DATA_JSON_FILE: KelmErrorCode
ERR_DATA_MATCH: KelmErrorCode
ERR_TASK_PLAN: KelmErrorCode
ERR_REMOTE_REQUEST: KelmErrorCode
ERR_TASK_BROADCAST: KelmErrorCode
ERR_MATCH_ONLINE: KelmErrorCode
ERR_CM_UPDATE_ENV: KelmErrorCode
COLOR_NONE: LogColor
COLOR_BOLD: LogColor
COLOR_BLACK: LogColor
COLOR_RED: LogColor
COLOR_GREEN: LogColor
COLOR_YELLOW: LogColor
COLOR_BLUE: LogColor
COLOR_PURPLE: LogColor
COLOR_CYAN: LogColor
COLOR_WHITE: LogColor
COLOR_BLACK_BACKGROUND: LogColor
COLOR_RED_BACKGROUND: LogColor
COLOR_GREEN_BACKGROUND: LogColor
COLOR_YELLOW_BACKGROUND: LogColor
COLOR_BLUE_BACKGROUND: LogColor
COLOR_PURPLE_BACKGROUND: LogColor
COLOR_CYAN_BACKGROUND: LogColor
COLOR_WHITE_BACKGROUND: LogColor
COLOR_GOLDENROD: LogColor
fsm_mode_str_map: Dict[FsmMode, str]
str_map_fsm_mode: Dict[str, FsmMode]
kelm_state_str: Dict[KelmState, str]
enum_color_map: Dict[LogColor, str]
color_str_map: Dict[str, str]
kelm_err_code_map: Dict[int, str]
LOG_INFO: LogLevel
LOG_ERROR: LogLevel
def set_log_level(level: int) -> None:
    """Writes only log lines of `level` and above to standard error: LOG_INFO (0) everything, LOG_ERROR (1) failures only, 2 nothing."""
    ...
def log(level: int, text: str) -> None:
    """Writes one line through the library's logger."""
    ...
