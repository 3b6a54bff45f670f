#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds a host program against the
# installed tree only: once through pkg-config, once through the CMake package.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name 'libKivNetworkComm.so' -printf '%h\n' | head -n 1)
export PKG_CONFIG_PATH="$libdir/pkgconfig"

# pkg-config host
c++ -o "$work/host_pc" "$source_dir/host.cpp" $(pkg-config --cflags --libs KivNetworkComm)
LD_LIBRARY_PATH="$libdir" "$work/host_pc" | grep -qx 'host ok 0xA0805A1'

# CMake package host
cmake -S "$source_dir" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/host_cmake" | grep -qx 'host ok 0xA0805A1'

# The host saw only installed headers: nothing under the source tree was on its include path.
echo "installed tree OK"
