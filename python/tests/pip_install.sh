#!/bin/sh
# pip install of ./python into a fresh virtual environment over the system's packages,
# offline, then a read of the sample with the installed module.
#   pip_install.sh PYTHON STATIC_LIBRARY SAMPLE   (exit 77: skipped)
set -eu
python=$1
export TNEF_STATIC_LIBRARY=$2
sample=$3
root=$(cd "$(dirname "$0")/../.." && pwd)
"$python" -c "import venv, ensurepip, pybind11, setuptools" 2>/dev/null || {
  echo "skipped: venv, ensurepip, pybind11 or setuptools missing for $python"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$python" -m venv --system-site-packages "$work/venv"
# pip builds in the source folder: build from a copy of what the build reads, so the
# checkout stays clean.
mkdir -p "$work/src/tools/tnef"
cp -R "$root/CMakeLists.txt" "$root/include" "$root/src" "$root/python" "$work/src/"
cp "$root/tools/tnef/names.h" "$root/tools/tnef/names.cpp" "$work/src/tools/tnef/"
rm -rf "$work/src/python/build" "$work/src/python/"*.egg-info
PIP_DISABLE_PIP_VERSION_CHECK=1 "$work/venv/bin/pip" install -q --no-build-isolation \
  --no-index "$work/src/python"
cd "$work"
"$work/venv/bin/python" - "$sample" <<'PY'
import sys, tnef, tnef.server
where = tnef.__file__
assert "/venv/" in where, f"tnef imported from {where}, not the venv"
with tnef.open(sys.argv[1]) as m:
    names = [a.name for a in m.attachments]
assert names == ["quarterly report.txt", "sales chart.png"], names
print("installed", where, names)
PY
