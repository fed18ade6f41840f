#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a consumer against it,
# once through the CMake package and once through pkg-config.
#   check.sh <build dir> <this directory> <scratch dir> <c++ compiler>
set -euo pipefail
build="$1" src="$2" work="$3" cxx="$4"
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir="$(dirname "$(find "$work/prefix" -name 'libMicaMplsSwBundleSwTable.so' | head -n1)")"
export LD_LIBRARY_PATH="$libdir"
export MICA_SHM_ROOT="$work/shm"

cmake -S "$src" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
"$cxx" -o "$work/pc-consumer" "$src/consumer.cpp" \
  $(pkg-config --cflags mica-mpls) $(pkg-config --libs mica-mpls)
rm -rf "$MICA_SHM_ROOT"
"$work/pc-consumer"
