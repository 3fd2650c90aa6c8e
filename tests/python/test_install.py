# SPDX-License-Identifier: Apache-2.0
"""pip install ./python, from a checkout and without a network."""
import os
import shutil
import subprocess
import sys

from simulated import ROOT

# What the module is built from.
SOURCES = "CMakeLists.txt", "cmake", "python", "tools", "sdk"


def test_pip(tmp_path):
    for name in SOURCES:
        copy = shutil.copytree if (ROOT / name).is_dir() else shutil.copy
        copy(ROOT / name, tmp_path / name)
    subprocess.run([sys.executable, "-m", "pip", "install", "--no-index", "--no-build-isolation", "--no-deps",
                    "--target", tmp_path / "installed", "./python"], cwd=tmp_path, check=True,
                   # It shall be built, not run fast; ccache shall not see that the folder is new.
                   env={**os.environ, "CMAKE_ARGS": "-DCMAKE_BUILD_TYPE= -DCMAKE_CXX_FLAGS=-O0",
                        "CCACHE_BASEDIR": str(tmp_path), "CCACHE_NOHASHDIR": "1"})
    shown = subprocess.run(
        [sys.executable, "-c", "import vistrel; print(vistrel.__file__, vistrel.IMU_DTYPE.itemsize)"],
        cwd=tmp_path, env={"PYTHONPATH": str(tmp_path / "installed")}, text=True, check=True,
        stdout=subprocess.PIPE).stdout.split()
    assert shown == [str(tmp_path / "installed/vistrel/__init__.py"), "360"]
    assert (tmp_path / "installed/vistrel/py.typed").exists()
