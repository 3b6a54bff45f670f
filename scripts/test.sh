#!/usr/bin/env bash
# Builds KivNetworkComm and runs every test: a plain build, then AddressSanitizer with
# UndefinedBehaviorSanitizer, ThreadSanitizer on the threaded tests, and a short libFuzzer run of
# every fuzz target. Installs missing Debian packages first. Any failure or sanitizer report
# fails the run.
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
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# Runs ctest in a build folder and adds its counts to the totals.
run_ctest() {
  local dir=$1
  shift
  local log
  log=$(mktemp)
  local status=0
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" "$@" 2>&1 | tee "$log" || status=1
  local summary
  summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n 1)
  rm -f "$log"
  if [ -n "$summary" ]; then
    local failed_here total_here
    failed_here=$(sed -E 's/.*, ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$summary")
    total_here=$(sed -E 's/.*, ([0-9]+) tests failed out of ([0-9]+).*/\2/' <<<"$summary")
    passed=$((passed + total_here - failed_here))
    failed=$((failed + failed_here))
  fi
  if [ $status -ne 0 ] && [ -z "$summary" ]; then
    failed=$((failed + 1))
  fi
  return 0
}

# configure_and_build DIR [--target T] [cmake options...]
configure_and_build() {
  local dir=$1
  shift
  local target=()
  if [ "${1:-}" = "--target" ]; then
    target=(--target "$2")
    shift 2
  fi
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$jobs" "${target[@]}"
}

for stage in $stages; do
  echo "==== $stage ===="
  case $stage in
  plain)
    configure_and_build build/plain -DCMAKE_BUILD_TYPE=RelWithDebInfo
    run_ctest build/plain
    ;;
  asan)
    configure_and_build build/asan -DCMAKE_BUILD_TYPE=Debug -DKIV_SANITIZE=address,undefined
    run_ctest build/asan
    ;;
  tsan)
    configure_and_build build/tsan --target threaded-tests -DCMAKE_BUILD_TYPE=Debug \
      -DKIV_SANITIZE=thread
    run_ctest build/tsan -L threaded
    ;;
  fuzz)
    if [ -f fuzz/CMakeLists.txt ]; then
      configure_and_build build/fuzz -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
        -DKIV_SANITIZE=address,undefined -DKIV_BUILD_FUZZ=ON -DKIV_BUILD_TESTS=OFF \
        -DKIV_BUILD_TOOLS=OFF
      if scripts/run-fuzzers.sh build/fuzz "$fuzz_seconds"; then
        passed=$((passed + 1))
      else
        failed=$((failed + 1))
      fi
    fi
    ;;
  *)
    echo "unknown stage: $stage" >&2
    exit 2
    ;;
  esac
done

echo
echo "all stages: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
