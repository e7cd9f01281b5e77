"""Builds the tnef package: the binding over the codec, compiled from this checkout.

    pip install --no-build-isolation ./python

needs only Debian's packages (python3-pybind11, python3-setuptools, g++) and no network.
The codec's sources are compiled into the module, so it needs no libtnef at run time. To
link a codec already built instead (CI does, to stay fast), set TNEF_STATIC_LIBRARY to its
static archive (build/release/libtnef_static.a).
"""

import os
import re
from pathlib import Path

from pybind11.setup_helpers import ParallelCompile, Pybind11Extension, build_ext
from setuptools import setup

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent


def relative(paths):
    # setuptools wants source paths relative to setup.py's folder.
    return sorted(os.path.relpath(p, HERE) for p in paths)


def version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(tnef VERSION ([0-9.]+)", text).group(1)


sources = ["src/module.cpp"] + relative([ROOT / "tools/tnef/names.cpp"])
extra_objects = []
prebuilt = os.environ.get("TNEF_STATIC_LIBRARY")
if prebuilt:
    extra_objects.append(prebuilt)
else:
    sources += relative(list((ROOT / "src/platform").glob("*.cpp")) +
                        list((ROOT / "src/lib/tnef").rglob("*.cpp")))

ext = Pybind11Extension(
    "tnef._tnef",
    sources,
    include_dirs=[str(ROOT / "include"), str(ROOT / "src/lib/tnef"), str(ROOT / "tools/tnef")],
    extra_objects=extra_objects,
    cxx_std=20,
    extra_compile_args=["-fvisibility=hidden"],
)

# Compile the codec's files on every core (NPY_NUM_BUILD_JOBS overrides).
ParallelCompile("NPY_NUM_BUILD_JOBS").install()

setup(
    name="tnef",
    version=version(),
    description="Read TNEF (winmail.dat) files: properties, attachments, bodies; the server codec",
    packages=["tnef"],
    package_data={"tnef": ["*.pyi", "py.typed"]},
    ext_modules=[ext],
    cmdclass={"build_ext": build_ext},
    python_requires=">=3.8",
    install_requires=[],
    extras_require={"dask": ["dask[dataframe]", "distributed", "pandas"]},
)
