"""The Pythonic layer (kelm.Arm, kelm.DualArm), the log bridge and kelm.Rate against kelm_sim."""

import logging
import math
import socket
import statistics
import time

import pytest

import kelm
from conftest import wait_for

def closed_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Records(logging.Handler):
    def __init__(self):
        super().__init__(logging.DEBUG)
        self.seen = []

    def emit(self, record):
        self.seen.append((record.levelno, record.getMessage()))


@pytest.fixture
def records():
    handler = Records()
    logger = logging.getLogger("kelm")
    logger.addHandler(handler)
    logger.setLevel(logging.DEBUG)
    yield handler
    logger.removeHandler(handler)


def test_connection_failure_raises_at_construction():
    for make in (lambda port: kelm.Arm("127.0.0.1", port), lambda port: kelm.DualArm("127.0.0.1", port)):
        with pytest.raises(kelm.ConnectionError, match="no connection to 127.0.0.1"):
            make(closed_port())


# (simulator options, call on a fresh arm, exception, operation, text in the reason)
REFUSALS = [
    (["--refuse", "setControlMode"], lambda a: a.set_control_mode(kelm.ControlMode.PV), kelm.ControllerRefused,
     "set_control_mode", "refused by fault injection"),
    (["--drop-replies", "setControlMode"], lambda a: a.set_control_mode(kelm.ControlMode.PV), kelm.CommandTimeout,
     "set_control_mode", "no reply"),
    ([], lambda a: a.set_control_mode(kelm.FsmMode.POSITION), kelm.InvalidInput, "set_control_mode", "ControlMode"),
    ([], lambda a: a.set_control_mode(9), kelm.InvalidInput, "set_control_mode", "outside 0 to 4"),
    ([], lambda a: a.move_joint([0.1] * 3), kelm.InvalidInput, "move_joint", "输入目标维度与臂维度不一致"),
    ([], lambda a: a.move_joint([0.1] * 6), kelm.InvalidInput, "move_joint", "joint limits unknown"),
    ([], lambda a: a.track_joint([0.0] * 5), kelm.InvalidInput, "track_joint", "5 values"),
    ([], lambda a: a.set_gripper(math.nan), kelm.InvalidInput, "set_gripper", "非法值"),
    ([], lambda a: a.inverse_kine([0, 0, 0, 0, 0, 0, 2.0]), kelm.InvalidInput, "inverse_kine", "四元数"),
    ([], lambda a: a.wait("no such task", timeout=0.2), kelm.CommandTimeout, "wait", "within 0.2 s"),
]


@pytest.mark.parametrize("options, call, error, operation, reason", REFUSALS)
def test_refusals_raise_with_their_reason(start_sim, options, call, error, operation, reason):
    sim = start_sim(*options)
    with kelm.Arm(sim.host, sim.port) as arm:
        assert wait_for(lambda: arm.status.dof == 6)
        with pytest.raises(error) as raised:
            call(arm)
        assert raised.value.operation == operation and reason in raised.value.reason, raised.value


def test_exact_bindings_keep_their_codes_and_record_the_reason(start_sim):
    sim = start_sim("--refuse", "setControlMode")
    with kelm.KelmSingleCol(sim.host, sim.port) as raw:
        assert raw.get_last_refusal().kind == kelm.RefusalKind.none
        assert raw.set_control_mode(9) == -1
        refusal = raw.get_last_refusal()
        assert (refusal.serial, refusal.operation, refusal.kind) == (1, "set_control_mode",
                                                                     kelm.RefusalKind.invalid_input)
        assert refusal.reason == "请输入： 1 PV模式，2 MIT模式，3拖动模式，4力位混合模式"
        assert raw.set_control_mode(1) == -1
        refusal = raw.get_last_refusal()
        assert (refusal.serial, refusal.kind, refusal.reason) == (2, kelm.RefusalKind.controller,
                                                                  "refused by fault injection")
        assert raw.move_joint([0.1] * 3) == -1  # the motion family, refused before sending
        assert raw.get_last_refusal().operation == "move_joint"


def test_ready_arm_moves_with_a_time_out_and_reports_enums(start_sim):
    sim = start_sim()
    with kelm.Arm(sim.host, sim.port) as arm:
        assert not arm.is_ready()
        arm.set_ready()
        assert arm.is_ready()
        assert arm.status.fsm_mode == kelm.FsmMode.POSITION and "FsmMode.POSITION" in repr(arm.status)
        target = arm.joint_pos + [0.2, 0, 0, 0, 0, 0]
        arm.move_joint(target, block=True, timeout=10)
        assert wait_for(lambda: abs(arm.joint_pos[0] - target[0]) < 1e-3)
        with pytest.raises(kelm.CommandTimeout, match="move_joint: the motion did not end within 0.1 s"):
            arm.move_joint(target - [0.2, 0, 0, 0, 0, 0], time=5.0, block=True, timeout=0.1)
        pose = arm.forward_kine(target)
        assert len(pose) == 7 and len(arm.inverse_kine(pose, target)) == 6


def test_dual_arm_sides_raise_for_their_own_arm(start_sim):
    sim = start_sim("--arms", "2")
    with kelm.DualArm(sim.host, sim.port) as bot:
        with pytest.raises(kelm.InvalidInput, match="move_joint"):
            bot.right.move_joint([0.1] * 2)
        assert bot.right.last_refusal.operation == "move_joint" and bot.left.last_refusal.serial == 0


def test_lost_connection_raises_during_a_blocking_move_and_after(start_sim):
    sim = start_sim("--close-after", "4")
    arm = kelm.Arm(sim.host, sim.port)
    # Under load the ready sequence itself may still run when the simulator closes.
    with pytest.raises(kelm.ConnectionError):
        arm.set_ready()
        arm.move_joint(arm.joint_pos + [0.3, 0, 0, 0, 0, 0], time=30.0, block=True, timeout=20)
    with pytest.raises(kelm.ConnectionError, match="set_control_mode: no connection"):
        arm.set_control_mode(kelm.ControlMode.PV)
    arm.close()


def test_log_lines_reach_logging_with_their_levels(start_sim, records):
    sim = start_sim()
    with kelm.Arm(sim.host, sim.port) as arm:
        with pytest.raises(kelm.InvalidInput):
            arm.set_control_mode(-1)  # refused in Python: no library line
        assert arm.raw.set_control_mode(-1) == -1
    wanted = {(logging.INFO, "Kelm connected successful..."),
              (logging.ERROR, "请输入： 1 PV模式，2 MIT模式，3拖动模式，4力位混合模式")}
    assert wait_for(lambda: wanted <= set(records.seen)), records.seen


def test_rate_keeps_its_period():
    """500 Hz over 2 s: the figures are printed; only gross failures fail (timing belongs to the benchmark)."""
    stamps = [time.monotonic() for _ in kelm.Rate(500, ticks=1000)]
    periods = [b - a for a, b in zip(stamps, stamps[1:])]
    jitter_ms = sorted(abs(p - 0.002) * 1000 for p in periods)
    print(f"Rate(500): mean {statistics.mean(periods) * 1000:.3f} ms, jitter p50 {jitter_ms[len(jitter_ms) // 2]:.3f}"
          f" ms, p99 {jitter_ms[int(len(jitter_ms) * 0.99)]:.3f} ms, max {jitter_ms[-1]:.3f} ms")
    assert 1.9 < stamps[-1] - stamps[0] < 2.5
    assert jitter_ms[len(jitter_ms) // 2] < 1.0
    with pytest.raises(ValueError):
        kelm.Rate(0)
