#!/usr/bin/env bash
# Shows the library at work in one command: installs missing Debian 12 packages, builds kivnet and
# the device simulator, starts simulated devices on loopback addresses and runs kivnet against
# them (discover, ping, status, an HBN3 channel, the MAC query, a new IP configuration, the
# relocation of the moved device, an error). Everything it sends goes to 127.0.0.0/8: the
# relocation keeps its device store in a scratch folder and reaches no DNS-SD daemon. The
# simulator stops by itself and is stopped on every exit path.
#   KIV_DEMO_BUILD  build folder (default build/demo)
#   KIV_JOBS        parallel build jobs (default 2)
set -euo pipefail
cd "$(dirname "$0")/.."
echo "==== checking the Debian packages the build needs"
scripts/install-deps.sh

build=${KIV_DEMO_BUILD:-build/demo}
jobs=${KIV_JOBS:-2}

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
scratch=$(mktemp -d)
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
  rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

# The relocation's device store is a scratch file, and its DNS-SD browse reaches no daemon (the
# system bus is pointed at nothing), so it sends nothing beyond the devices' loopback addresses.
export KIVNET_DEVICE_STORE=$scratch/devices
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$scratch/no-system-bus

# Starts four devices with two ports each on NET.10-13, a group listener on NET.2 (a query sent
# there is answered by every device) and an HBN3 channel end point on every device, for at most
# two minutes. $1: the network (127.0.86), $2: the HCP port. True once it serves.
start_simulator() {
  "$kivsim_bin" --devices 4 --ports 2 --base-address "$1.10" --listen "$1.2" --hcp-port "$2" \
    --hbn3-port 0 --channel-port 0 --channel-frames 3 --channel-frame-size 48 \
    --channel-tickles 1 --seconds 120 >"$log" 2>&1 &
  sim_pid=$!
  for _ in $(seq 100); do
    grep -q "serving for" "$log" && return 0
    kill -0 "$sim_pid" 2>/dev/null || break
    sleep 0.1
  done
  stop_simulator
  return 1
}

# The MAC query and the relocation always ask UDP port 5353 of a device's address, so the devices
# answer HCP on port 5353 of their own addresses, in a network of 127.0.0.0/8 where nothing else
# holds that port (an mDNS responder's 0.0.0.0:5353 does not matter: a datagram goes to the
# socket bound to its address). Failing that, the devices use a free port and the two commands
# are left out.
net=""
for candidate in 127.0.86 127.0.87 127.0.88 127.0.89; do
  if ss -Huln 'sport = :5353' | awk '{print $4}' | grep -q "^${candidate//./\\.}\\."; then
    continue
  fi
  if start_simulator "$candidate" 5353; then
    net=$candidate
    break
  fi
done
if [ -z "$net" ]; then
  net=127.0.0
  if ! start_simulator "$net" 0; then
    echo "the simulator did not start:" >&2
    cat "$log" >&2
    exit 1
  fi
fi
group=$net.2
moved=$net.60
hcp_port=$(sed -nE 's/.*HCP port ([0-9]+).*/\1/p' "$log" | head -n 1)
hbn3_port=$(sed -nE 's/.*HBN3 port ([0-9]+).*/\1/p' "$log" | head -n 1)
channel_port=$(sed -nE 's/.*channel port ([0-9]+).*/\1/p' "$log" | head -n 1)
echo
echo "==== simulated devices (kivsim)"
sed -n '1,5p' "$log"

# Prints a command line as a user would type it (an argument with a space in quotes), then runs
# it.
run() {
  local shown="" arg
  for arg in "$@"; do
    case $arg in
    *" "*) shown+=" \"$arg\"" ;;
    *) shown+=" $arg" ;;
    esac
  done
  echo
  echo "\$ kivnet$shown"
  "$kivnet_bin" "$@"
}

# Prints a command line as a user would type it, runs it and says when it did not succeed.
run_status() {
  run "$@" || echo "(exit status $?)"
}

run discover --to "$group" --port "$hcp_port" --wait 2
run ping "$net.11" --port "$hbn3_port"
run status "$net.12" --port "$hbn3_port" --port-info 1 --channel 1
echo
echo "# the scan end point of the first device: a write, then the frames it sends"
run channel "$net.10" --port "$channel_port" --interface scan --send "1b 45" --frames 3
if [ "$hcp_port" = 5353 ]; then
  run query-mac "$net.12"
fi
echo
echo "# the third device moves to $moved"
run set-ip --mac ET024b49560003 --address "$moved" --netmask 255.0.0.0 --gateway 127.0.0.1 \
  --to "$net.12" --port "$hcp_port"
run discover --to "$group" --port "$hcp_port" --wait 1
run ping "$moved" --port "$hbn3_port" --json
if [ "$hcp_port" = 5353 ]; then
  echo
  echo "# finding the moved device by its MAC address: nothing answers at its old address, and"
  echo "# the DNS-SD browse, which would find it on a real network, reaches no daemon here"
  run_status relocate ET024b49560003 --from "$net.12" --wait 1
  echo
  echo "# a driver that learnt the new address confirms it; the device store remembers it"
  run relocate ET024b49560003 --from "$moved" --wait 1
  echo
  echo "# so a driver still holding the old address finds the device at once"
  run relocate ET024b49560003 --from "$net.12" --wait 1
else
  echo
  echo "# (query-mac and relocate left out: UDP port 5353 is taken on 127.0.86-89.x)"
fi
echo
echo "# a device that does not answer: the error line names the call and its result code"
run_status ping "$net.99" --port "$hbn3_port" --wait 1
run host-info

stop_simulator
echo
echo "==== simulator summary"
sed -n '/serving for/,$p' "$log" | tail -n +2
echo
echo "the programs stay built: $kivnet_bin and $kivsim_bin (each has --help)"
