#!/usr/bin/env bash
# Runs every fuzz target built in <build>/fuzz for <seconds> each, starting from its seed corpus
# in fuzz/corpus/<target>. New inputs go to a scratch folder, so the repository stays as it is.
# A crash, a leak or a sanitizer report fails the run and names the input that caused it
# (keep it in fuzz/corpus/<target>/ as a regression input once fixed).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?build folder}
seconds=${2:-60}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
status=0
shopt -s nullglob
for target in "$build"/fuzz/*Fuzzer; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  seeds=fuzz/corpus/$name
  mkdir -p "$scratch/$name" "$scratch/$name-artifacts"
  if [ "$seconds" -gt 0 ]; then
    limit=(-max_total_time="$seconds")
  else
    limit=(-runs=0)
  fi
  echo "fuzzing $name for ${seconds}s"
  if ! "$target" "${limit[@]}" -timeout=10 -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
      -artifact_prefix="$scratch/$name-artifacts/" "$scratch/$name" "$seeds" \
      >"$scratch/$name.log" 2>&1; then
    status=1
    tail -n 40 "$scratch/$name.log"
    for artifact in "$scratch/$name-artifacts"/*; do
      echo "crashing input ($name): $(od -An -tx1 -v "$artifact" | tr -s ' \n' ' ' | head -c 2000)"
    done
  else
    grep -E 'stat::number_of_executed_units|Done [0-9]+ runs' "$scratch/$name.log" | tail -n 2
  fi
done
exit $status
