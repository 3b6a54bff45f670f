#!/usr/bin/env bash
# Runs an example host program against simulated devices on loopback and checks its output.
#   usage: run-example.sh KIVSIM "SIMULATOR OPTIONS" STATUS PROGRAM [ARGS...] -- [PATTERN...]
# The simulator serves three two-port devices on 127.0.0.10-12 with a group listener on 127.0.0.2,
# all on free ports; @HCP_PORT@, @HBN3_PORT@ and (with --channel-port 0 among the simulator
# options) @CHANNEL_PORT@ in ARGS become those ports. The program must exit
# with STATUS, and every PATTERN (an extended regular expression) must match a line of its
# standard output and error. Nothing leaves 127.0.0.0/8; the simulator is stopped on every path.
set -euo pipefail
kivsim=$1
sim_options=$2
expected_status=$3
shift 3
args=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
  args+=("$1")
  shift
done
[ $# -gt 0 ] && shift
patterns=("$@")

work=$(mktemp -d)
sim_pid=""
cleanup() {
  if [ -n "$sim_pid" ]; then
    kill "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# shellcheck disable=SC2086 # the options are words
"$kivsim" --devices 3 --ports 2 --base-address 127.0.0.10 --listen 127.0.0.2 --hcp-port 0 \
  --hbn3-port 0 --seconds 60 $sim_options >"$work/sim.log" 2>&1 &
sim_pid=$!
for _ in $(seq 100); do
  grep -q "serving for" "$work/sim.log" && break
  kill -0 "$sim_pid" 2>/dev/null || break
  sleep 0.1
done
if ! grep -q "serving for" "$work/sim.log"; then
  echo "the simulator did not start:"
  cat "$work/sim.log"
  exit 1
fi
hcp_port=$(sed -nE 's/.*HCP port ([0-9]+).*/\1/p' "$work/sim.log" | head -n 1)
hbn3_port=$(sed -nE 's/.*HBN3 port ([0-9]+).*/\1/p' "$work/sim.log" | head -n 1)
channel_port=$(sed -nE 's/.*channel port ([0-9]+).*/\1/p' "$work/sim.log" | head -n 1)
for i in "${!args[@]}"; do
  args[i]=${args[i]//@HCP_PORT@/$hcp_port}
  args[i]=${args[i]//@HBN3_PORT@/$hbn3_port}
  args[i]=${args[i]//@CHANNEL_PORT@/$channel_port}
done

echo "\$ $(basename "${args[0]}") ${args[*]:1}"
status=0
timeout 60 "${args[@]}" >"$work/out.txt" 2>&1 || status=$?
cat "$work/out.txt"
if [ "$status" -ne "$expected_status" ]; then
  echo "FAILED: exit status $status, expected $expected_status"
  exit 1
fi
for pattern in "${patterns[@]}"; do
  if ! grep -Eq -- "$pattern" "$work/out.txt"; then
    echo "FAILED: no line matches: $pattern"
    exit 1
  fi
done
echo "example OK"
