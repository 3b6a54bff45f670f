#!/usr/bin/env bash
# Builds host programs against an installed tree only: host.cpp once through pkg-config and once
# through the CMake package, and the examples folder through the CMake package, the way a driver
# writer builds them. Each program runs without LD_LIBRARY_PATH (it finds the library by its
# rpath).
#   usage: check_install.sh PREFIX HOST_SOURCE_DIR EXAMPLES_DIR
set -euo pipefail
prefix=$1
source_dir=$2
examples_dir=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH
fail() {
  echo "FAILED: $*"
  exit 1
}

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
cflags=$(pkg-config --cflags KivNetworkComm)
# The host picks its language standard; the package only says where the headers are.
if grep -q -- '-std=' <<<"$cflags"; then
  fail "pkg-config --cflags forces a standard: $cflags"
fi

# pkg-config host
# shellcheck disable=SC2046,SC2086 # pkg-config's flags are separate words
c++ -o "$work/host_pc" "$source_dir/host.cpp" $cflags $(pkg-config --libs KivNetworkComm) \
  -Wl,-rpath,"$prefix/lib"
"$work/host_pc" | grep -qx 'host ok 0xA0805A1' || fail "the pkg-config host did not run"

# CMake package host
cmake -S "$source_dir" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/host_cmake" | grep -qx 'host ok 0xA0805A1' || fail "the CMake host did not run"

# The examples, as their folder says to build them; run without arguments they print their usage.
cmake -S "$examples_dir" -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples" >/dev/null
for example in channel discover status; do
  status=0
  "$work/examples/$example" >"$work/out" 2>&1 || status=$?
  if [ "$status" -ne 2 ] || ! grep -q "^usage: $example" "$work/out"; then
    fail "example $example built against the installed tree: status $status, $(cat "$work/out")"
  fi
done

echo "installed tree OK"
