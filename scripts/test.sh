#!/usr/bin/env bash
# Builds KivNetworkComm and runs every test: a plain build, then AddressSanitizer with
# UndefinedBehaviorSanitizer, ThreadSanitizer on the threaded tests, and a short libFuzzer run of
# every fuzz target. Installs missing Debian packages first. Any failure or sanitizer report
# fails the run.
#
# Each stage ends with a summary: its passed, failed and skipped tests and its time, every skipped
# test with the reason it printed, every failed test. A skipped test is not counted as passed. The
# last line gives the totals of all stages.
#   FUZZ_SECONDS   seconds per fuzz target (default 60; 0 replays the corpus only)
#   KIV_STAGES     stages to run (default "plain asan tsan fuzz")
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

stages=${KIV_STAGES:-plain asan tsan fuzz}
fuzz_seconds=${FUZZ_SECONDS:-60}
jobs=$(nproc)
passed=0
failed=0
skipped=0
summaries=()
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# "2 min 05 s" or "42 s".
duration() {
  local seconds=$1
  if [ "$seconds" -ge 60 ]; then
    printf '%d min %02d s' $((seconds / 60)) $((seconds % 60))
  else
    printf '%d s' "$seconds"
  fi
}

# Counts of the stage running now, and its details (skipped tests with their reasons, failures).
stage_passed=0
stage_failed=0
stage_skipped=0
stage_details=()

# Runs ctest in a build folder and counts each test from the JUnit file ctest writes: passed,
# failed (or could not run), or skipped by the test itself, with the line it printed saying why.
run_ctest() {
  local dir=$1
  shift
  local junit
  junit="$(pwd)/$dir/ctest-junit.xml"
  rm -f "$junit"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" --output-junit "$junit" "$@" 2>&1 || true
  if [ ! -s "$junit" ]; then
    stage_failed=$((stage_failed + 1))
    stage_details+=("failed  ctest in $dir (no results written)")
    return 0
  fi
  local kind name detail
  while IFS=$'\t' read -r kind name detail; do
    case $kind in
    P) stage_passed=$((stage_passed + 1)) ;;
    S)
      stage_skipped=$((stage_skipped + 1))
      stage_details+=("skipped $name: $detail")
      ;;
    *)
      stage_failed=$((stage_failed + 1))
      stage_details+=("failed  $name${detail:+: $detail}")
      ;;
    esac
  done < <(awk -f scripts/ctest-junit-summary.awk "$junit")
  return 0
}

# configure_and_build DIR [--target T] [cmake options...]; a failure is counted and reported.
configure_and_build() {
  local dir=$1
  shift
  local target=()
  if [ "${1:-}" = "--target" ]; then
    target=(--target "$2")
    shift 2
  fi
  local log
  log=$(mktemp)
  if ! cmake -S . -B "$dir" -G Ninja "$@" >"$log" 2>&1; then
    cat "$log"
    rm -f "$log"
    stage_failed=$((stage_failed + 1))
    stage_details+=("failed  configuring $dir")
    return 1
  fi
  rm -f "$log"
  if ! cmake --build "$dir" -j "$jobs" "${target[@]}"; then
    stage_failed=$((stage_failed + 1))
    stage_details+=("failed  building $dir")
    return 1
  fi
}

for stage in $stages; do
  echo "==== $stage ===="
  stage_passed=0
  stage_failed=0
  stage_skipped=0
  stage_details=()
  stage_start=$SECONDS
  case $stage in
  plain)
    if configure_and_build build/plain -DCMAKE_BUILD_TYPE=RelWithDebInfo; then
      run_ctest build/plain
    fi
    ;;
  asan)
    if configure_and_build build/asan -DCMAKE_BUILD_TYPE=Debug \
      -DKIV_SANITIZE=address,undefined; then
      run_ctest build/asan
    fi
    ;;
  tsan)
    if configure_and_build build/tsan --target threaded-tests -DCMAKE_BUILD_TYPE=Debug \
      -DKIV_SANITIZE=thread; then
      run_ctest build/tsan -L threaded
    fi
    ;;
  fuzz)
    if [ -f fuzz/CMakeLists.txt ]; then
      if configure_and_build build/fuzz -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
        -DKIV_SANITIZE=address,undefined -DKIV_BUILD_FUZZ=ON -DKIV_BUILD_TESTS=OFF \
        -DKIV_BUILD_TOOLS=OFF; then
        if scripts/run-fuzzers.sh build/fuzz "$fuzz_seconds"; then
          stage_passed=$((stage_passed + 1))
        else
          stage_failed=$((stage_failed + 1))
          stage_details+=("failed  a fuzz target (its report is above)")
        fi
      fi
    fi
    ;;
  *)
    echo "unknown stage: $stage" >&2
    exit 2
    ;;
  esac
  summary="$stage: $stage_passed passed, $stage_failed failed, $stage_skipped skipped"
  summary+=" in $(duration $((SECONDS - stage_start)))"
  echo
  echo "---- $summary"
  for detail in "${stage_details[@]}"; do
    echo "     $detail"
  done
  echo
  summaries+=("$summary")
  passed=$((passed + stage_passed))
  failed=$((failed + stage_failed))
  skipped=$((skipped + stage_skipped))
done

echo "==== summary ===="
for summary in "${summaries[@]}"; do
  echo "  $summary"
done
echo "all stages: $passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]
