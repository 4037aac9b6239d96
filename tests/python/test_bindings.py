"""The kelm module against kelm_sim: values in and out, callbacks, Ctrl+C, lifetime."""

import math
import os
import signal
import sys
import threading
import time

import numpy as np
import pytest

import kelm
from conftest import wait_for

kelm.set_log_level(kelm.LOG_ERROR)
READY_BUDGET_MS = 10000.0  # a loaded machine slows the ready sequence


def interrupt_after(seconds):
    """Ctrl+C to this process after `seconds`; returns the moment it is sent."""
    sent = []

    def fire():
        sent.append(time.monotonic())
        os.kill(os.getpid(), signal.SIGINT)

    threading.Timer(seconds, fire).start()
    return sent


def test_every_class_takes_and_gives_each_kind_of_value(sim):
    with kelm.KelmKernelImpl(sim.host, sim.port, 1.0, 1) as kernel:
        assert kernel.set_kelm_ready(True, READY_BUDGET_MS) == 1
        status = kernel.get_status()
        assert (status.connected, status.servo, status.fsm_mode, status.arm_index) == (True, True, kelm.POSITION, 1)
        assert kernel.set_speed_level(5.0, 100) == 1                        # command
        assert kernel.get_config().limit_upper.shape == (status.dof,)      # configuration
        start = kernel.get_joint_pos()
        result, key = kernel.move_joint(start + 0.05, 100.0, 0, 0, True)    # motion and its wait
        assert result == 1 and kernel.task_blocking_wait(key, 10000) == 1
        result, pose = kernel.forwardKine(0, 0, kernel.get_joint_pos())     # kinematics, one point and a batch
        assert result == 1 and pose.shape == (7,)
        result, poses = kernel.forwardKine(0, 0, np.stack([start, start]))
        assert result == 1 and poses.shape == (2, 7)
        assert kernel.tracking([math.nan] * status.dof, True, -1.0) == -1   # reaches the kernel's check
        assert kernel.set_tool_index(0) == 1 and kernel.get_tool_coordinate(0).shape == (7,)  # coordinates
        version = kernel.get_version()
    with kelm.KelmSingleCol(sim.host, sim.port) as arm:
        assert arm.set_ready() == 1
        here = arm.get_joint_pos()
        assert isinstance(here, np.ndarray) and here.dtype == np.float64
        assert arm.move_joint_traj(np.stack([here, here + 0.02]), [], [0.3, 0.6], True) == 1
        result, pose = arm.forward_kine(0, arm.get_joint_pos())
        result, joints = arm.inverse_kine(0, pose, here)
        assert result == 1 and np.allclose(joints, arm.get_joint_pos(), atol=1e-3)
        assert arm.trajectory_teach(True, "py") == 1 and arm.trajectory_teach(False, "py") == 1  # teaching
        result, names = arm.check_teach()
        assert result == 1 and "py" in names
        for target in (list(here), tuple(here), here.astype(np.float32), [int(v) for v in np.zeros(len(here))]):
            assert arm.track_joint(target, -1.0) == 1
        with pytest.raises(TypeError):
            arm.track_pose([0.0] * 6, -1.0)  # a pose is 7 floats
    with kelm.KelmDualBot(sim.host, sim.port) as bot:
        assert bot.set_ready() == 1
        assert version and bot.get_version() == version + version
        assert bot.move_right_line_joint(bot.get_right_joint_pos(), True) == 1
        assert bot.get_left_cart_pose().dtype == np.float64


def test_callbacks_run_on_the_receive_thread_under_the_gil(sim, monkeypatch):
    reported = []  # the default hook prints the traceback to stderr
    monkeypatch.setattr(sys, "unraisablehook", reported.append)
    with kelm.KelmSingleCol(sim.host, sim.port) as arm, kelm.KelmSingleCol(sim.host, sim.port) as other:
        assert arm.set_ready() == 1
        seen, outcome = [], {}

        def on_joint(stamp, pos, vel, tau):
            seen.append((threading.get_ident(), float(np.sum(pos))))  # Python objects: needs the GIL
            if len(seen) == 1:
                raise ZeroDivisionError("raised in a joint callback")
            if len(seen) == 2:
                try:
                    arm.get_version()
                    outcome["blocking"] = "returned"
                except RuntimeError as error:
                    outcome["blocking"] = str(error)
                outcome["tracking"] = arm.track_joint(pos, -1.0)
                outcome["other arm"] = other.get_version()  # another connection's request is fine

        arm.register_joint_cbk(on_joint)
        assert wait_for(lambda: len(seen) >= 20)
        arm.release_joint_cbk()
        count = len(seen)
        time.sleep(0.1)
        assert len(seen) <= count + 1  # a frame under way may still arrive
    assert all(ident != threading.get_ident() for ident, _ in seen)
    assert [(u.exc_type, str(u.exc_value)) for u in reported] == [(ZeroDivisionError, "raised in a joint callback")]
    assert "cannot run inside a callback of the same object" in outcome["blocking"]
    assert outcome["tracking"] == 1 and outcome["other arm"]


def test_ctrl_c_interrupts_waits_and_leaves_the_arm_usable(start_sim):
    # The waits would last 60 s and 3 s; an interrupt ends them well before.
    sim = start_sim()
    with kelm.KelmKernelImpl(sim.host, sim.port, 1.0, 0) as kernel:
        sent = interrupt_after(0.3)
        with pytest.raises(KeyboardInterrupt):
            kernel.task_blocking_wait("a key no frame names", 60000)
        assert time.monotonic() - sent[0] < 1.5
        assert kernel.set_kelm_ready(True, READY_BUDGET_MS) == 1
        result, key = kernel.move_joint(kernel.get_joint_pos() + 0.05, 100.0, 0, 0, True)
        assert kernel.task_blocking_wait(key, 10000) == 1

    refusing = start_sim("--refuse", "setServoEnable")  # the ready sequence spends its whole budget
    with kelm.KelmSingleCol(refusing.host, refusing.port) as arm:
        sent = interrupt_after(0.3)
        with pytest.raises(KeyboardInterrupt):
            arm.set_ready()
        assert time.monotonic() - sent[0] < 1.5
        assert arm.get_version()


DESTRUCTION = """
import sys, time, kelm
kelm.set_log_level(kelm.LOG_ERROR)
host, port, order = sys.argv[1], int(sys.argv[2]), sys.argv[3]
arms = [kelm.KelmSingleCol(host, port), kelm.KelmDualBot(host, port), kelm.KelmKernelImpl(host, port, 1.0, 1)]
frames = []
arms[0].register_joint_cbk(lambda *a: frames.append(arms[0].get_status().dof))  # refers to its own arm
arms[1].register_right_pose_cbk(lambda t, pose: frames.append(pose))
arms[1].register_error_cbk("e", lambda code, text: None)
arms[2].register_get_joint_callback("j", lambda *a: frames.append(a))
arms[2].register_connect_changed_callback("c", lambda up: frames.append(up))
log = kelm.StateLog(arms[2])
while len(frames) < 50:
    time.sleep(0.01)
if order == "forward":
    del arms[:]
elif order == "backward":
    while arms:
        arms.pop()
elif order == "log first":
    del log
    arms[2].close()
# "exit": everything is left to the interpreter's exit
print("done", flush=True)
"""


@pytest.mark.parametrize("order", ["forward", "backward", "log first", "exit"])
def test_objects_with_callbacks_go_in_any_order(sim, python, order):
    result = python(["-c", DESTRUCTION, sim.host, str(sim.port), order], timeout=30)
    assert (result.returncode, result.stdout) == (0, "done\n"), result.stderr


def test_log_level_and_tables(capfd):
    kelm.log(kelm.LOG_INFO, "progress line hidden")
    kelm.set_log_level(kelm.LOG_INFO)
    kelm.log(kelm.LOG_INFO, "progress line shown")
    kelm.set_log_level(kelm.LOG_ERROR)
    err = capfd.readouterr().err
    assert "hidden" not in err and "progress line shown" in err
    assert kelm.str_map_fsm_mode["TELEOPERATION"] == kelm.FsmMode.TELEOPERATION
    assert kelm.kelm_err_code_map[3001] == "WARN_MESSAGE" and int(kelm.WARN_MESSAGE) == 3001


def test_type_stub_is_current(python):
    source = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    result = python([os.path.join(source, "python", "make_stub.py")])
    with open(os.path.join(source, "python", "kelm", "_kelm.pyi")) as stub:
        assert result.stdout == stub.read(), "run python/make_stub.py > python/kelm/_kelm.pyi"
