#!/usr/bin/env bash
# Counts the instructions (callgrind Ir) and heap allocations per message of every exported
# building and parsing function, and prints them as a Markdown table.
#
#   bench/callgrind-per-message.sh [--calls N] [--baseline FILE] [--save FILE]
#
# Builds bench/KivBuildParseInstructions in build/bench (Release, benchmarks on) when needed, runs
# it once under valgrind --tool=callgrind, and reads one callgrind dump per function: each dump
# holds exactly the N calls of that function (see the program's header comment). --save writes
# the figures as tab-separated lines (function, instructions, allocations per message);
# --baseline adds a "before" column from such a file, for comparing two versions of the library.
set -euo pipefail
cd "$(dirname "$0")/.."

calls=1000
baseline=""
save=""
while [ $# -gt 0 ]; do
  case $1 in
  --calls) calls=$2; shift 2 ;;
  --baseline) baseline=$2; shift 2 ;;
  --save) save=$2; shift 2 ;;
  *) echo "usage: $0 [--calls N] [--baseline FILE] [--save FILE]" >&2; exit 2 ;;
  esac
done

build=build/bench
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKIV_BUILD_BENCHMARKS=ON >/dev/null
cmake --build "$build" -j 2 --target KivBuildParseInstructions >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
valgrind --tool=callgrind --callgrind-out-file="$work/callgrind.out" \
  "$build/bench/KivBuildParseInstructions" "$calls" >"$work/cases" 2>"$work/valgrind.log" || {
  cat "$work/valgrind.log" >&2
  exit 1
}

# name<TAB>instructions of the N calls, one line per dump.
for dump in "$work"/callgrind.out.*; do
  awk '/^desc: Trigger: Client Request: / { sub(/^desc: Trigger: Client Request: /, ""); name = $0 }
       /^summary: / { ir = $2 }
       END { if (name != "") printf "%s\t%s\n", name, ir }' "$dump"
done >"$work/instructions"

# function<TAB>instructions per message<TAB>allocations per message, in the program's order.
awk -F'\t' 'NR == FNR { ir[$1] = $2; next }
            $1 == "case" { printf "%s\t%.0f\t%g\n", $2, ir[$2] / $3, $4 / $3 }' \
  "$work/instructions" "$work/cases" >"$work/table"
if [ -n "$save" ]; then
  cp "$work/table" "$save"
fi

echo "$calls calls per function; instructions (callgrind Ir) and heap allocations per message."
if [ -n "$baseline" ]; then
  echo
  echo "| function | instructions before | instructions now | allocations before | allocations now |"
  echo "|---|---:|---:|---:|---:|"
  awk -F'\t' 'NR == FNR { ir[$1] = $2; al[$1] = $3; next }
              { b = ($1 in ir) ? ir[$1] : "-"; a = ($1 in al) ? al[$1] : "-"
                printf "| %s | %s | %s | %s | %s |\n", $1, b, $2, a, $3 }' "$baseline" "$work/table"
else
  echo
  echo "| function | instructions | allocations |"
  echo "|---|---:|---:|"
  awk -F'\t' '{ printf "| %s | %s | %s |\n", $1, $2, $3 }' "$work/table"
fi
awk -F'\t' '$1 == "skip" { printf "skipped %s: %s\n", $2, $3 }' "$work/cases"
