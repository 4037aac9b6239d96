"""`pip wheel .` builds a wheel offline that installs into a fresh virtual environment and works there."""

import os
import subprocess
import sys

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))

SMOKE = """
import sys, kelm
assert kelm.__file__.startswith(sys.prefix), kelm.__file__
try:
    kelm.Arm("127.0.0.1", int(sys.argv[2]))
    raise SystemExit("no ConnectionError")
except kelm.ConnectionError:
    pass
with kelm.Arm("127.0.0.1", int(sys.argv[1])) as arm:
    arm.set_ready()
    assert arm.is_ready()
print("smoke ok")
"""


def run(args, **kwargs):
    done = subprocess.run(args, capture_output=True, text=True, timeout=1500, **kwargs)
    assert done.returncode == 0, done.stdout[-3000:] + done.stderr[-3000:]
    return done.stdout


def test_wheel_installs_into_a_fresh_venv_and_passes_a_smoke_test(tmp_path, start_sim):
    run([sys.executable, "-m", "pip", "wheel", SOURCE_DIR, "--no-build-isolation", "--no-deps", "--no-index",
         "-w", str(tmp_path / "wheels")], cwd=SOURCE_DIR)
    (wheel,) = (tmp_path / "wheels").glob("kelm-*.whl")
    run([sys.executable, "-m", "venv", "--system-site-packages", str(tmp_path / "venv")])
    venv_python = str(tmp_path / "venv" / "bin" / "python")
    run([venv_python, "-m", "pip", "install", "--no-index", "--no-deps", str(wheel)])
    sim = start_sim()
    with open(tmp_path / "smoke.py", "w") as script:
        script.write(SMOKE)
    env = {key: value for key, value in os.environ.items() if key != "PYTHONPATH"}
    assert "smoke ok" in run([venv_python, str(tmp_path / "smoke.py"), str(sim.port), "1"], cwd=tmp_path, env=env)
