"""Builds the extension kelm._kelm and the client library with CMake for the interpreter that runs pip.

`pip install .` (or `pip wheel .`) configures a CMake tree of its own with
only the library, the tool and the Python module (no tests, simulator or
benchmarks), installs the library and the package into a staging folder in
which both lie side by side (the module finds the library from its own place),
and copies them into the wheel. Nothing is downloaded: CMake, a compiler,
pybind11 and the library's Debian packages must be installed
(scripts/install-deps).
"""

import glob
import os
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

SOURCE_DIR = os.path.dirname(os.path.abspath(__file__))
CMAKE_OPTIONS = [
    "-DCMAKE_BUILD_TYPE=Release",
    "-DKELM_BUILD_SIM=OFF",
    "-DKELM_BUILD_EXAMPLES=OFF",
    "-DKELM_BUILD_TESTS=OFF",
    "-DKELM_BUILD_BENCH=OFF",
    "-DKELM_BUILD_FUZZ=OFF",
    "-DKELM_PYTHON=ON",
    # The module and the library in one folder: the module's run path is $ORIGIN.
    "-DCMAKE_INSTALL_LIBDIR=lib/kelm",
    "-DKELM_PYTHON_INSTALL_DIR=lib",
]


class CMakeBuild(build_ext):
    """Builds every Extension of this package as the one CMake project at the checkout's root."""

    def build_extension(self, ext):
        build_dir = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        stage_dir = os.path.abspath(os.path.join(self.build_temp, "stage"))
        shutil.rmtree(stage_dir, ignore_errors=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        self.spawn(["cmake", "-S", SOURCE_DIR, "-B", build_dir, f"-DPython3_EXECUTABLE={sys.executable}",
                    f"-DCMAKE_INSTALL_PREFIX={stage_dir}", *CMAKE_OPTIONS])
        self.spawn(["cmake", "--build", build_dir, "--target", "kelm_python_module", "-j", jobs])
        for component in ("runtime", "python"):
            self.spawn(["cmake", "--install", build_dir, "--component", component])
        package_dir = os.path.join(os.path.abspath(self.build_lib), "kelm")
        os.makedirs(package_dir, exist_ok=True)
        staged = os.path.join(stage_dir, "lib", "kelm")
        for name in os.listdir(staged):
            # The module and the library under its soname (the name the module asks for), as a plain file.
            if re.fullmatch(r"_kelm.*\.so|lib.*\.so\.\d+", name):
                shutil.copyfile(os.path.join(staged, name), os.path.join(package_dir, name))
        if not glob.glob(os.path.join(package_dir, "_kelm*.so")):
            raise RuntimeError("the CMake build made no kelm._kelm module (is pybind11 installed?)")


setup(ext_modules=[Extension("kelm._kelm", sources=[])], cmdclass={"build_ext": CMakeBuild})
