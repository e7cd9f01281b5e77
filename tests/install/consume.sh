#!/bin/sh
# Installs the build into a temporary prefix, moves the prefix elsewhere, then builds the
# README's read example against it twice (CMake's find_package, and pkg-config) and runs
# both on the sample; the installed tool, man page and completion must be there too.
# usage: consume.sh BUILD_DIR SOURCE_DIR
set -eu
build=$1
src=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/tnef-install-XXXXXX")
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/moved"
prefix=$work/moved
sample=$src/samples/winmail.dat
expect="subject: Quarterly report"

mkdir "$work/cmake"
cp "$src/examples/read_winmail.cpp" "$work/cmake/"
cat >"$work/cmake/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(tnef REQUIRED)
add_executable(consumer read_winmail.cpp)
target_link_libraries(consumer PRIVATE tnef::tnef)
CM
cmake -S "$work/cmake" -B "$work/cmake/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake/build" >/dev/null
"$work/cmake/build/consumer" "$sample" | grep -qx "$expect"

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
libdir=$(pkg-config --variable=libdir tnef)
[ "$(cd "$libdir" && pwd)" = "$(cd "$prefix/lib" && pwd)" ]
# shellcheck disable=SC2046
c++ "$src/examples/read_winmail.cpp" -o "$work/pc-consumer" $(pkg-config --cflags --libs tnef)
LD_LIBRARY_PATH=$libdir "$work/pc-consumer" "$sample" | grep -qx "$expect"

"$prefix/bin/tnefx" list "$sample" >/dev/null
grep -q "tnefx extract" "$prefix/share/man/man1/tnefx.1"
complete_words() {
    PATH="$prefix/bin:$PATH" bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _tnefx
        echo "${COMPREPLY[*]}"' _ "$prefix/share/bash-completion/completions/tnefx" "$@"
}
[ "$(complete_words tnefx ext)" = "extract" ]
[ "$(complete_words tnefx --home /tmp extract --std)" = "--stdout" ]
echo "installed, moved, and consumed with find_package and pkg-config"
