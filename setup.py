"""Builds the compiled core of the Python package with CMake (Release, only the
targets the module needs) and places it, with the libraries it links, in the
package: `pip install .` (offline: `pip install --no-build-isolation .`)."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = Path(self.build_temp).resolve() / "cmake"
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
        subprocess.run(
            ["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
             "-DQUARIL_BUILD_TESTS=OFF", "-DQUARIL_BUILD_BENCHMARKS=OFF",
             "-DQUARIL_BUILD_EXAMPLES=OFF", "-DQUARIL_INSTALL=OFF",
             f"-DQUARIL_PYTHON_EXECUTABLE={sys.executable}",
             # The libraries sit beside the module and find each other there.
             "-DCMAKE_BUILD_WITH_INSTALL_RPATH=ON", "-DCMAKE_INSTALL_RPATH=$ORIGIN"],
            check=True)
        subprocess.run(["cmake", "--build", str(build), "--target", "quaril_python", "-j", jobs],
                       check=True)
        target = Path(self.get_ext_fullpath(ext.name)).parent
        target.mkdir(parents=True, exist_ok=True)
        package = build / "python" / "package" / "quaril"
        for built in package.glob("_core*.so"):
            shutil.copy2(built, target / built.name)
        for library in build.rglob("lib*.so"):
            if "CMakeFiles" not in library.parts:
                shutil.copy2(library, target / library.name)


setup(
    ext_modules=[Extension("quaril._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    # Apart from the build folders of `make` (build/, build-*/ of other types).
    options={"build": {"build_base": "build-python"}},
)
