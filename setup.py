"""Leaves the compiling to CMake. Extra options for it are read from the variable CMAKE_ARGS."""
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent
PROJECT = (ROOT / "CMakeLists.txt").read_text().split("project(")[1]
SCRATCH = pathlib.Path("build/pip")  # nothing is left anywhere else in the source tree


class BuildByCMake(build_ext):
    def build_extension(self, extension):
        parts = ("IO", "HDF5", "NUMERICS", "TOOLS", "EXAMPLES", "TESTS", "BENCHMARKS", "DOCS")
        options = [f"-DVELMAR_2D_BUILD_{part}=OFF" for part in parts]
        folder = pathlib.Path(self.build_temp).resolve()
        subprocess.run(["cmake", "-S", ROOT, "-B", folder, *options, "-DVELMAR_2D_BUILD_PYTHON=ON",
                        "-DVELMAR_2D_INSTALL=OFF", "-DCMAKE_BUILD_TYPE=Release",
                        f"-DPython_EXECUTABLE={sys.executable}",
                        *shlex.split(os.environ.get("CMAKE_ARGS", ""))], check=True)
        subprocess.run(["cmake", "--build", folder, "--parallel", str(os.cpu_count()),
                        "--target", "velmar_2d_python"], check=True)
        compiled, = folder.glob("python/velmar_2d/_core.*.so")
        target = pathlib.Path(self.get_ext_fullpath(extension.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(compiled, target)


os.chdir(ROOT)
SCRATCH.mkdir(parents=True, exist_ok=True)
setup(
    version=re.search(r"VERSION ([\d.]+)", PROJECT)[1],
    package_dir={"": "python"},
    packages=["velmar_2d"],
    package_data={"velmar_2d": ["py.typed", "*.pyi"]},
    ext_modules=[Extension("velmar_2d._core", [])],
    cmdclass={"build_ext": BuildByCMake},
    options={"egg_info": {"egg_base": str(SCRATCH)}, "build": {"build_base": str(SCRATCH)}},
    zip_safe=False,
)
