# SPDX-License-Identifier: Apache-2.0
"""Lets pip build the extension module as the rest of the project is built, with CMake."""
import os
import pathlib
import re
import shlex
import subprocess
import sys
import sysconfig

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent.parent
VERSION = re.search(r"project\(kor_vistrel VERSION ([0-9.]+)", (ROOT / "CMakeLists.txt").read_text())[1]


class Build(build_ext):
    def get_ext_filename(self, name):
        return name.replace(".", "/") + ".so"

    def build_extension(self, extension):
        work = pathlib.Path(self.build_temp).resolve()
        subprocess.run(["cmake", "-S", ROOT, "-B", work, "-DCMAKE_BUILD_TYPE=Release",
                        "-DVISTREL_ONLY_PYTHON=ON", f"-DPython3_EXECUTABLE={sys.executable}",
                        f"-DPython3_INCLUDE_DIR={sysconfig.get_path('include')}",
                        *shlex.split(os.environ.get("CMAKE_ARGS", ""))], check=True)
        subprocess.run(["cmake", "--build", work, "--parallel", "--target", "_vistrel"], check=True)
        self.copy_file(str(work / "python/vistrel/_vistrel.so"), self.get_ext_fullpath(extension.name))


setup(name="vistrel", version=VERSION, license="Apache-2.0", python_requires=">=3.9",
      description="Stereo frames, exact capture times and inertial data of KOR Vistrel's stereo cameras",
      install_requires=["numpy"], packages=["vistrel"], package_data={"vistrel": ["py.typed"]},
      ext_modules=[Extension("vistrel._vistrel", [])], cmdclass={"build_ext": Build})
