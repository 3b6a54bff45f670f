#!/usr/bin/env bash
# Shows the library at work in one command: installs missing Debian 12 packages, builds kivnet and
# the device simulator, starts simulated devices on loopback addresses and runs kivnet against
# them (discover, ping, status, a new IP configuration, an error). Everything it sends goes to
# 127.0.0.0/8; the simulator stops by itself and is stopped on every exit path.
#   KIV_DEMO_BUILD  build folder (default build/demo)
#   KIV_JOBS        parallel build jobs (default 2)
set -euo pipefail
cd "$(dirname "$0")/.."
echo "==== checking the Debian packages the build needs"
scripts/install-deps.sh

build=${KIV_DEMO_BUILD:-build/demo}
jobs=${KIV_JOBS:-2}
group=127.0.0.2
base=127.0.0.10

# Build output: one line per step ("[3/41] compiling src/HBN3/KivHBN3Header.cpp"); anything else
# the build says (a warning, an error) passes through as it is.
progress() {
  local step='^\[([0-9]+/[0-9]+)\]'
  sed -uE -e "s#$step Building CXX object (.*)CMakeFiles/[^/]+\.dir/(.*)\.o\$#  [\1] compiling \2\3#" \
    -e "s#$step Linking CXX [a-z]+( library)? (.*)\$#  [\1] linking \3#" -e "s#$step #  [\1] #"
}

echo "==== configuring the build in $build (cmake)"
configure_log=$(mktemp)
if ! cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIV_BUILD_TESTS=OFF \
    -DKIV_BUILD_TOOLS=ON >"$configure_log" 2>&1; then
  cat "$configure_log" >&2
  rm -f "$configure_log"
  exit 1
fi
rm -f "$configure_log"
echo "==== building kivnet and kivsim ($jobs jobs)"
start=$SECONDS
cmake --build "$build" -j "$jobs" --target kivnet kivsim 2>&1 | progress
echo "     built in $((SECONDS - start)) s: $build/tools/kivnet/kivnet and $build/sim/kivsim"
kivnet_bin=$build/tools/kivnet/kivnet
kivsim_bin=$build/sim/kivsim

log=$(mktemp)
sim_pid=""
stop_simulator() {
  if [ -n "$sim_pid" ]; then
    kill "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
    sim_pid=""
  fi
}
cleanup() {
  stop_simulator
  rm -f "$log"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

# Four devices with two ports each, on 127.0.0.10-13, answering HCP and HBN3 on one free port;
# a query to the group address is answered by all of them. At most two minutes.
"$kivsim_bin" --devices 4 --ports 2 --base-address "$base" --listen "$group" --hcp-port 0 \
  --hbn3-port 0 --seconds 120 >"$log" 2>&1 &
sim_pid=$!
for _ in $(seq 100); do
  grep -q "serving for" "$log" && break
  kill -0 "$sim_pid" 2>/dev/null || break
  sleep 0.1
done
if ! grep -q "serving for" "$log"; then
  echo "the simulator did not start:" >&2
  cat "$log" >&2
  exit 1
fi
hcp_port=$(sed -nE 's/.*HCP port ([0-9]+).*/\1/p' "$log" | head -n 1)
hbn3_port=$(sed -nE 's/.*HBN3 port ([0-9]+).*/\1/p' "$log" | head -n 1)
echo
echo "==== simulated devices (kivsim)"
sed -n '1,5p' "$log"

# Prints a command line as a user would type it, then runs it.
run() {
  echo
  echo "\$ kivnet $*"
  "$kivnet_bin" "$@"
}

run discover --to "$group" --port "$hcp_port" --wait 2
run ping 127.0.0.11 --port "$hbn3_port"
run status 127.0.0.12 --port "$hbn3_port" --port-info 1 --channel 1
run set-ip --mac ET024b49560003 --address 127.0.0.60 --netmask 255.0.0.0 --gateway 127.0.0.1 \
  --to 127.0.0.12 --port "$hcp_port"
run discover --to "$group" --port "$hcp_port" --wait 1
run ping 127.0.0.60 --port "$hbn3_port" --json
echo
echo "# a device that does not answer: the error line names the call and its result code"
run ping 127.0.0.99 --port "$hbn3_port" --wait 1 || echo "(exit status $?)"
run host-info

stop_simulator
echo
echo "==== simulator summary"
tail -n 2 "$log"
echo
echo "the programs stay built: $kivnet_bin and $kivsim_bin (each has --help)"
