"""The live view (python3 -m kelm.view) against two simulators, in headless Chromium."""

import socket
import subprocess
import sys

import numpy as np
import pytest

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

from conftest import Child, wait_for

TARGET = [0.3, -0.4, 0.5, 0.2, -1.0, 0.4]  # [rad]
WAIT_S = 30  # a page in a software renderer on a loaded machine is slow


class ViewProcess(Child):
    """`python3 -m kelm.view` on a free port; `url` is the address it printed."""

    def __init__(self, master, slave, *options):
        super().__init__([sys.executable, "-m", "kelm.view", "--master", master.address, "--slave", slave.address,
                          "--port", "0", *options], r"open (http://([\d.]+):(\d+)/)", stderr=subprocess.DEVNULL)
        self.url, self.host, self.port = self.match.group(1), self.match.group(2), int(self.match.group(3))


@pytest.fixture
def browser():
    options = Options()
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1280,800",
                     "--use-angle=swiftshader", "--enable-unsafe-swiftshader"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    yield driver
    driver.quit()


# Share of the 3-D canvas's pixels that differ from its background.
DRAWN_SHARE_JS = """
const source = document.querySelector('#scene canvas');
const copy = document.createElement('canvas');
copy.width = source.width; copy.height = source.height;
const context = copy.getContext('2d');
context.drawImage(source, 0, 0);
const pixels = context.getImageData(0, 0, copy.width, copy.height).data;
let differing = 0;
for (let i = 0; i < pixels.length; i += 4) {
  if (Math.abs(pixels[i] - pixels[0]) + Math.abs(pixels[i + 1] - pixels[1]) + Math.abs(pixels[i + 2] - pixels[2]) > 30) differing++;
}
return differing / (pixels.length / 4);
"""


def test_page_draws_the_arms_and_shows_a_lost_controller(start_sim, browser):
    import kelm

    master = start_sim("--rate", "1000", "--error", "0:3001:view test warning")
    slave = start_sim("--rate", "1000")
    view = ViewProcess(master, slave)
    try:
        readers = {"master": kelm.KelmKernelImpl(master.host, master.port, 1.0, 0),
                   "slave": kelm.KelmKernelImpl(slave.host, slave.port, 1.0, 0)}
        mover = readers["slave"]
        assert mover.set_kelm_ready(True, 15000) == 1  # a loaded machine slows the ready sequence
        result, key = mover.move_joint(TARGET, 100.0, 0, 0, True)
        assert result == 1 and mover.task_blocking_wait(key, 15000) == 1

        browser.get(view.url)
        assert wait_for(lambda: browser.execute_script("return window.kelmView && kelmView.states > 5"), WAIT_S)
        for role, reader in readers.items():  # a loaded machine may draw the newest state a moment late
            def drawn_as_reported():
                drawn = browser.execute_script(f"return kelmView.drawn.{role}")
                return drawn[:6] == pytest.approx(list(reader.get_joint_pos()), abs=0.01)
            assert wait_for(drawn_as_reported, WAIT_S), role
        assert browser.execute_script("return kelmView.drawn.slave")[:6] == pytest.approx(TARGET, abs=0.01)
        assert browser.execute_script(DRAWN_SHARE_JS) > 0.02
        assert "3001: view test warning" in browser.find_element("id", "status-error").text

        master.stop()
        assert wait_for(lambda: "disconnected" in browser.find_element("id", "status-master").text, WAIT_S)
        states = browser.execute_script("return kelmView.states")
        assert wait_for(lambda: browser.execute_script("return kelmView.states") > states + 5, WAIT_S)
        errors = [entry for entry in browser.get_log("browser") if entry["level"] == "SEVERE"]
        assert errors == []
        del readers, mover
    finally:
        view.stop()


# A socket bound to one loopback address takes no connection made to another.
@pytest.mark.parametrize("options, address, other", [((), "127.0.0.1", "127.0.0.2"),
                                                      (("--bind", "127.0.0.3"), "127.0.0.3", "127.0.0.1")])
def test_serves_on_loopback_unless_told(start_sim, options, address, other):
    master, slave = start_sim(), start_sim()
    view = ViewProcess(master, slave, *options)
    try:
        assert view.host == address
        socket.create_connection((address, view.port), WAIT_S).close()
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection((other, view.port), WAIT_S)
    finally:
        view.stop()


@pytest.mark.parametrize("mirror", [False, True])
def test_lag_is_read_from_the_two_traces(mirror):
    from kelm.view import estimate_lag, mirrored

    times = np.arange(0.0, 2.0, 0.001)
    master = np.stack([np.sin(2 * np.pi * times / 1.5 + joint) for joint in range(6)], axis=1)
    slave = np.stack([np.sin(2 * np.pi * (times - 0.04) / 1.5 + joint) for joint in range(6)], axis=1)
    if mirror:
        slave = mirrored(slave)
    assert estimate_lag((times, master), (times + 0.0003, slave), mirror) == pytest.approx(0.0403, abs=0.0015)


def test_page_shows_the_cameras_beside_the_arms(start_sim, mjpeg_server, browser, tmp_path):
    camera = mjpeg_server(fps=10)
    master, slave = start_sim(), start_sim()
    view = ViewProcess(master, slave, "--camera", f"front={camera.url}")
    try:
        browser.get(view.url)
        assert wait_for(lambda: browser.execute_script(
            "const image = document.querySelector('#cameras img'); return image && image.naturalWidth"), WAIT_S)
        assert browser.execute_script("return document.querySelector('#cameras figcaption').textContent") == "front"
        scene, cameras = (browser.find_element("id", name).rect for name in ("scene", "cameras"))
        assert cameras["x"] >= scene["x"] + scene["width"] - 1 and cameras["width"] > 100
        browser.save_screenshot(str(tmp_path / "cameras.png"))
    finally:
        view.stop()
