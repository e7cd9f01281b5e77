#!/bin/sh
# Installs the Debian packages the build and the tests need, when any is missing.
set -eu
need=""
# One package a line, grouped by the layer that needs it.
pkgs="
cmake
ninja-build
g++
clang
libclang-rt-14-dev
libgtest-dev
libgmock-dev
libbenchmark-dev
nlohmann-json3-dev
libcli11-dev
libssl-dev
help2man
pkg-config
libical-dev
libgmime-3.0-dev
python3-icalendar
python3-vobject
python3-dev
pybind11-dev
python3-pybind11
python3-setuptools
python3-venv
python3-pytest
python3-pandas
python3-dask
python3-distributed
"
for pkg in $pkgs; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need="$need $pkg"
done
[ -z "$need" ] && exit 0
echo "installing:$need"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo=sudo
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
# shellcheck disable=SC2086
$sudo apt-get install -y -qq $need
