#!/usr/bin/env bash
# Compiles a host that includes every installed header with clang++ and g++ at C++17 and C++20,
# warnings as errors, links it and checks that the headers' version macro and the running
# library's GetKivNetworkCommVersion() both give the project's version. A host compiled as C++14
# must stop at the headers' own #error.
#   usage: check_headers.sh PREFIX VERSION
set -euo pipefail
prefix=$1
version=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH
fail() {
  echo "FAILED: $*"
  exit 1
}

include_dir=$prefix/include/KivNetworkComm
[ -f "$include_dir/KivNetworkCommVersion.h" ] || fail "KivNetworkCommVersion.h is not installed"
{
  (cd "$include_dir" && find . -name '*.h' | sort | sed -E 's|^\./(.*)$|#include "\1"|')
  cat <<'CPP'
#include <cstdio>
#include <cstring>

int main() {
  std::printf("headers %s (%d.%d.%d, %d) library %s\n", KIVNETWORKCOMM_VERSION,
              KIVNETWORKCOMM_VERSION_MAJOR, KIVNETWORKCOMM_VERSION_MINOR,
              KIVNETWORKCOMM_VERSION_PATCH, KIVNETWORKCOMM_VERSION_NUMBER,
              GetKivNetworkCommVersion());
  return std::strcmp(KIVNETWORKCOMM_VERSION, GetKivNetworkCommVersion()) == 0 ? 0 : 1;
}
CPP
} >"$work/every_header.cpp"

IFS=. read -r major minor patch <<<"$version"
number=$((major * 10000 + minor * 100 + patch))
expected="headers $version ($major.$minor.$patch, $number) library $version"
for compiler in clang++ g++; do
  for standard in c++17 c++20; do
    if ! "$compiler" -std=$standard -Werror -Wall -Wextra -Wshadow -I"$include_dir" \
        -o "$work/host" "$work/every_header.cpp" -L"$prefix/lib" -lKivNetworkComm \
        -Wl,-rpath,"$prefix/lib" >"$work/log" 2>&1; then
      fail "$compiler -std=$standard: $(cat "$work/log")"
    fi
    output=$("$work/host") || fail "$compiler -std=$standard: versions differ: $output"
    [ "$output" = "$expected" ] || fail "$compiler -std=$standard: '$output', not '$expected'"
    echo "$compiler -std=$standard: clean; $output"
  done
  # Below C++17 the first thing the compiler says is the headers' own message.
  if "$compiler" -std=c++14 -fsyntax-only -I"$include_dir" "$work/every_header.cpp" \
      >"$work/log" 2>&1; then
    fail "$compiler -std=c++14 compiled the headers"
  fi
  grep -m 1 'error' "$work/log" | grep -q 'KivNetworkComm headers need C++17 or later' ||
    fail "$compiler -std=c++14 did not stop at the #error: $(head -n 5 "$work/log")"
  echo "$compiler -std=c++14: stops at the #error"
done
echo "installed headers OK"
