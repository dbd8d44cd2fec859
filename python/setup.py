"""Builds _native and the libraries behind it with CMake, for `pip install ./python`."""

import re
import shutil
import subprocess
import sys
from importlib.util import find_spec
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

TREE = Path(__file__).resolve().parent.parent
VERSION = re.search(r"project\(hxcrate VERSION ([\d.]+)", (TREE / "CMakeLists.txt").read_text())[1]
*LIBRARIES, REMOTE_LIBRARY = [f"lib{name}.so.{VERSION.split('.')[0]}"
                              for name in ("hxhost", "hxcrate", "hxremote")]


class CMakeBuild(build_ext):
    def build_extension(self, extension):
        build = Path(self.build_temp).resolve()
        package = Path(self.get_ext_fullpath(extension.name)).resolve().parent
        options = ["-DCMAKE_BUILD_TYPE=Release", "-DHX_BUILD_TESTS=OFF", "-DHX_PYTHON=ON",
                   f"-DPython_EXECUTABLE={sys.executable}"]
        if find_spec("pybind11"):
            import pybind11
            options.append(f"-Dpybind11_DIR={pybind11.get_cmake_dir()}")
        subprocess.run(["cmake", "-S", TREE, "-B", build, *options], check=True)
        subprocess.run(["cmake", "--build", build, "--target", "hx_python", "--parallel", "2"], check=True)
        package.mkdir(parents=True, exist_ok=True)
        for library in LIBRARIES:
            shutil.copy(build / library, package)
        if (build / REMOTE_LIBRARY).exists():  # where libcurl is
            shutil.copy(build / REMOTE_LIBRARY, package)
        shutil.copy(build / "python" / self.get_ext_filename(extension.name), package)


setup(version=VERSION, ext_modules=[Extension("hxcrate._native", [])], cmdclass={"build_ext": CMakeBuild})
