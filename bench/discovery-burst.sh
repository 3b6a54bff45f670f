#!/bin/bash
# Discovery burst: do all of 1,000 simulated devices answering one query show up in kivnet?
#
# Starts kivsim with 1000 devices on 127.0.1.1 onwards and a group listener on 127.0.0.2, runs
# `kivnet discover` against the listener RUNS times with the kernel's default receive buffer
# (read from /proc/sys/net/core/rmem_default and printed; nothing is changed) and prints the
# devices it listed in each run, their median and minimum and the runs that listed all. Then
# KivDiscoveryBurst, with the same devices, prints how the simulator spreads its answers (kernel
# arrival stamps, large buffer), how many answers kivnet's receive loop through the library and a
# plain recvmsg loop take in with the default buffer and why the others were dropped (the longest
# gap between receives, the longest wait in the buffer, the kernel's drop count), how many answers
# the default buffer holds, and what one receive costs through RecvFrom and through recvfrom.
# Everything stays on loopback.
#
# usage: bench/discovery-burst.sh [BUILD_DIR] [RUNS]
#   BUILD_DIR  a build with tools and benchmarks (default build/bench:
#              cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKIV_BUILD_BENCHMARKS=ON)
#   RUNS       queries per way (default 10)
set -euo pipefail

build=${1:-build/bench}
runs=${2:-10}
devices=1000
kivsim=$build/sim/kivsim
kivnet=$build/tools/kivnet/kivnet
probe=$build/bench/KivDiscoveryBurst
for program in "$kivsim" "$kivnet"; do
  if [ ! -x "$program" ]; then
    echo "discovery-burst: $program is missing; build with -DKIV_BUILD_BENCHMARKS=ON first" >&2
    exit 2
  fi
done

# Every device holds two sockets: raise the descriptor limit for kivsim where it is low.
if [ "$(ulimit -n)" != unlimited ] && [ "$(ulimit -n)" -lt 4096 ]; then
  ulimit -n 4096 2>/dev/null || ulimit -n "$(ulimit -Hn)" 2>/dev/null || true
fi

work=$(mktemp -d)
sim_pid=
cleanup() {
  if [ -n "$sim_pid" ]; then
    kill "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT INT TERM

"$kivsim" --devices "$devices" --base-address 127.0.1.1 --listen 127.0.0.2 --hcp-port 0 \
  --seconds 300 >"$work/sim.out" 2>&1 &
sim_pid=$!
tries=0
until grep -qs "serving for" "$work/sim.out"; do
  tries=$((tries + 1))
  if [ "$tries" -gt 150 ] || ! kill -0 "$sim_pid" 2>/dev/null; then
    echo "discovery-burst: kivsim did not start:" >&2
    cat "$work/sim.out" >&2
    exit 1
  fi
  sleep 0.2
done
port=$(sed -n 's/.*HCP port \([0-9]*\),.*/\1/p' "$work/sim.out")
echo "kivsim: $devices devices, group listener 127.0.0.2 port $port"
echo "kernel's default receive buffer (net.core.rmem_default): $(cat /proc/sys/net/core/rmem_default \
  2>/dev/null || echo '?') bytes; processors: $(nproc); load average: $(cut -d' ' -f1-3 \
  /proc/loadavg 2>/dev/null || echo '?')"

# Devices in kivnet's JSON document, and the datagrams it took in.
count_devices() {
  if command -v python3 >/dev/null 2>&1; then
    python3 -c 'import json, sys
d = json.load(open(sys.argv[1]))
print(len(d.get("devices", [])), d.get("datagrams", "?"))' "$1"
  else
    echo "$(grep -c '"answeredFrom"' "$1" || true) ?"
  fi
}

found_all=()
run=1
while [ "$run" -le "$runs" ]; do
  status=0
  "$kivnet" discover --to 127.0.0.2 --port "$port" --wait 1 --json >"$work/found.json" \
    2>"$work/kivnet.err" || status=$?
  if [ "$status" -ne 0 ]; then
    echo "kivnet discover run $run: exit status $status: $(cat "$work/kivnet.err")"
  else
    read -r found datagrams < <(count_devices "$work/found.json")
    echo "kivnet discover run $run: listed $found/$devices (datagrams taken in: $datagrams)"
    found_all+=("$found")
  fi
  run=$((run + 1))
done
if [ "${#found_all[@]}" -gt 0 ]; then
  mapfile -t sorted < <(printf '%s\n' "${found_all[@]}" | sort -n)
  n=${#sorted[@]}
  if [ $((n % 2)) -eq 1 ]; then
    median=${sorted[$((n / 2))]}
  else
    median=$(((sorted[n / 2 - 1] + sorted[n / 2]) / 2))
  fi
  complete=$(printf '%s\n' "${found_all[@]}" | grep -cx "$devices" || true)
  echo "kivnet discover listed: ${found_all[*]} (of $devices); median $median, minimum" \
    "${sorted[0]}, $complete of $n runs complete"
fi

if [ -x "$probe" ]; then
  echo "the same burst taken in without parsing (KivDiscoveryBurst):"
  "$probe" --to 127.0.0.2 --port "$port" --expect "$devices" --runs "$runs"
fi
