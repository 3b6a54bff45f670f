#!/usr/bin/env bash
# Relocation across a real link with real DNS-SD: two network namespaces made for this run,
# joined by a veth pair, each with its own D-Bus system bus and avahi-daemon on a private /run. The
# device namespace holds a simulated device at its new address, its web server announced with
# avahi-publish; the host namespace relocates it from a stale address through the library's
# Avahi browse (through the library, then with kivnet relocate when kivnet is given), then takes
# its daemons away under a running relocation. Every process of the two
# namespaces is killed and the namespaces deleted on every path; nothing runs in, or is sent
# from, the machine's own namespace. Exits 77 (skipped) with one line saying why when it cannot
# run here.
#   usage: netns-relocation.sh NETNS_RELOCATION [KIVNET]
set -u

program=$(readlink -f "${1:-}")
[ -x "$program" ] || { echo "FAILED: usage: netns-relocation.sh NETNS_RELOCATION [KIVNET]"; exit 1; }
kivnet=""
if [ -n "${2:-}" ]; then
  kivnet=$(readlink -f "$2")
  [ -x "$kivnet" ] || { echo "FAILED: no kivnet program at $2"; exit 1; }
fi

skip() {
  echo "skipped: $*"
  exit 77
}
fail() {
  echo "FAILED: $*"
  exit 1
}

[ "$(id -u)" -eq 0 ] || skip "making network namespaces needs root"
for tool in ip unshare timeout dbus-daemon dbus-send avahi-daemon avahi-publish; do
  command -v "$tool" >/dev/null 2>&1 || skip "no '$tool' command (scripts/install-deps.sh installs it)"
done

# avahi-daemon processes in this (the machine's) network namespace; none may appear.
own_namespace=$(readlink /proc/self/ns/net)
avahi_here() {
  local pid
  for pid in $(pgrep -x avahi-daemon); do
    [ "$(readlink "/proc/$pid/ns/net" 2>/dev/null)" = "$own_namespace" ] && echo "$pid"
  done
}
avahi_before=$(avahi_here)

# Names carry this run's process number, so parallel runs never meet. Namespaces of runs that were
# killed outright are removed first, with whatever still runs in them.
for stale in $(ip netns list 2>/dev/null | awk '{print $1}' | grep -E '^kivr[0-9]+[hd]$'); do
  pid=${stale#kivr}
  pid=${pid%?}
  if ! kill -0 "$pid" 2>/dev/null; then
    ip netns pids "$stale" 2>/dev/null | xargs -r kill -KILL 2>/dev/null
    ip netns del "$stale" 2>/dev/null
  fi
done

tag=kivr$$
host_ns=${tag}h
device_ns=${tag}d
host_if=${tag}h0
device_if=${tag}d0
net=10.231.78
host_address=$net.1
stale_address=$net.9 # where the device was: nothing answers there now
moved_address=$net.20
workdir=$(mktemp -d)
device_pid=""

# Kills everything that runs in the namespace, then deletes it (which removes the veth pair).
remove_namespace() {
  ip netns pids "$1" 2>/dev/null | xargs -r kill -KILL 2>/dev/null
  ip netns del "$1" 2>/dev/null
}

cleanup() {
  local status=$?
  trap - EXIT INT TERM HUP
  # The device side stops its own processes and reaps them (so no zombie is left to the
  # machine's init); whatever still runs after that is killed with the namespaces.
  if [ -n "$device_pid" ]; then
    kill -TERM "$device_pid" 2>/dev/null
    for _ in $(seq 50); do kill -0 "$device_pid" 2>/dev/null || break; sleep 0.1; done
  fi
  remove_namespace "$host_ns"
  remove_namespace "$device_ns"
  if [ -n "$device_pid" ]; then
    wait "$device_pid" 2>/dev/null
  fi
  if [ -f "$workdir/guardian.pid" ]; then
    kill "$(cat "$workdir/guardian.pid")" 2>/dev/null
  fi
  rm -rf "$workdir"
  if [ "$(avahi_here)" != "$avahi_before" ]; then
    echo "FAILED: an avahi-daemon runs in the machine's own network namespace: $(avahi_here)"
    status=1
  fi
  exit "$status"
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

ip netns add "$host_ns" 2>"$workdir/error" ||
  skip "network namespaces not permitted here: $(head -n 1 "$workdir/error")"
ip netns add "$device_ns" 2>"$workdir/error" ||
  skip "network namespaces not permitted here: $(head -n 1 "$workdir/error")"

# A guardian outside this process tree empties and deletes the namespaces if this script is killed
# without a chance to clean up (a test time-out sends SIGKILL). It stops by itself within ten
# minutes.
(
  setsid bash -c '
    echo $$ >"$4/guardian.pid"
    for _ in $(seq 600); do kill -0 "$1" 2>/dev/null || break; sleep 1; done
    for ns in "$2" "$3"; do
      ip netns pids "$ns" 2>/dev/null | xargs -r kill -KILL 2>/dev/null
      ip netns del "$ns" 2>/dev/null
    done
    rm -rf "$4"
  ' guardian "$$" "$host_ns" "$device_ns" "$workdir" </dev/null >/dev/null 2>&1 &
)

ip -n "$host_ns" link add "$host_if" type veth peer name "$device_if" netns "$device_ns" \
  2>"$workdir/error" || skip "veth pairs not available: $(head -n 1 "$workdir/error")"
ip -n "$host_ns" link set lo up || fail "host loopback"
ip -n "$device_ns" link set lo up || fail "device loopback"
ip -n "$host_ns" addr add "$host_address/24" dev "$host_if" || fail "host address"
# The device's one IPv4 address is its new one, so its web server resolves to it.
ip -n "$device_ns" addr add "$moved_address/24" dev "$device_if" || fail "device address"
ip -n "$host_ns" link set "$host_if" up || fail "host link up"
ip -n "$device_ns" link set "$device_if" up || fail "device link up"
ip netns exec "$host_ns" unshare --mount mount -t tmpfs kivprobe /run 2>"$workdir/error" ||
  skip "a private /run cannot be mounted here: $(head -n 1 "$workdir/error")"

# One daemon configuration per side: this namespace's veth only, IPv4, nothing published but what
# the test announces.
for side in h d; do
  cat >"$workdir/avahi-$side.conf" <<EOF
[server]
host-name=$tag-$side
use-ipv4=yes
use-ipv6=no
allow-interfaces=$tag${side}0
enable-dbus=yes
disallow-other-stacks=no
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
[reflector]
enable-reflector=no
EOF
done

# Runs in a namespace, on a private /run: its own D-Bus system bus and avahi-daemon, then the rest
# of the command line with KIV_DAEMON_PIDS naming the two daemons, then stops them. A TERM stops
# the command and the daemons too; every child is reaped here, so none is left behind.
cat >"$workdir/daemons.sh" <<'EOF'
set -u
conf=$1
shift
dbus="" avahi="" command=""
trap 'kill $command $avahi $dbus 2>/dev/null; wait; exit 143' TERM INT HUP
mount -t tmpfs kivrun /run || exit 10
mkdir -p /run/dbus
dbus-daemon --system --nofork --nopidfile &
dbus=$!
for _ in $(seq 150); do [ -S /run/dbus/system_bus_socket ] && break; sleep 0.1; done
[ -S /run/dbus/system_bus_socket ] || { echo "no D-Bus system bus"; kill $dbus; wait; exit 11; }
avahi-daemon --no-drop-root --no-chroot --no-rlimits -f "$conf" &
avahi=$!
# Up once it owns its name on the bus (before that, clients are told "Daemon not running"); a
# loaded machine may take a few seconds.
on_bus() {
  dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus.NameHasOwner string:org.freedesktop.Avahi 2>/dev/null | grep -q true
}
for _ in $(seq 150); do on_bus && break; sleep 0.1; done
on_bus || { echo "no avahi-daemon on the bus"; kill $avahi $dbus; wait; exit 12; }
export KIV_DAEMON_PIDS="$avahi $dbus"
"$@" &
command=$!
wait $command
status=$?
command=""
kill $avahi $dbus 2>/dev/null
wait
exit $status
EOF

# Device side: the simulated device first (its socket shares port 5353 with the daemon's), then
# the daemons and the announcement of its web server, until the cleanup sends TERM.
ip netns exec "$device_ns" unshare --mount sh -c '
  serve="" daemons=""
  trap "kill \$serve \$daemons 2>/dev/null; wait; exit 143" TERM INT HUP
  "$1" serve "$2" 150 >"$3" 2>&1 &
  serve=$!
  for _ in $(seq 50); do grep -q ready "$3" && break; sleep 0.1; done
  grep -q ready "$3" || exit 13
  sh "$4" "$5" avahi-publish -s "KivSim printer 77" _http._tcp 80 &
  daemons=$!
  wait
' device "$program" "$moved_address" "$workdir/simulator.log" "$workdir/daemons.sh" \
  "$workdir/avahi-d.conf" >"$workdir/device.log" 2>&1 &
device_pid=$!
for _ in $(seq 300); do
  grep -q "^Established" "$workdir/device.log" && break
  kill -0 "$device_pid" 2>/dev/null || break
  sleep 0.1
done
grep -q "^Established" "$workdir/device.log" ||
  fail "the device did not come up: $(cat "$workdir/device.log" "$workdir/simulator.log")"

failed=0
echo "== host namespace: relocation through the Avahi browse"
ip netns exec "$host_ns" unshare --mount timeout 90 sh "$workdir/daemons.sh" \
  "$workdir/avahi-h.conf" env KIVNET_DEVICE_STORE="$workdir/store/devices" \
  "$program" relocate "$stale_address" "$moved_address" "$workdir/store/devices" ||
  failed=1

if [ -n "$kivnet" ]; then
  # A store of its own, empty: the stale address stays silent, so only the browse finds the device.
  echo "== host namespace: kivnet relocate through the Avahi browse"
  if ip netns exec "$host_ns" unshare --mount timeout 60 sh "$workdir/daemons.sh" \
    "$workdir/avahi-h.conf" env KIVNET_DEVICE_STORE="$workdir/kivnet-store/devices" \
    "$kivnet" relocate ET024b4956004d --from "$stale_address" --wait 10 --json \
    >"$workdir/kivnet.json" 2>&1; then
    cat "$workdir/kivnet.json"
    grep -q "\"address\": \"$moved_address\"," "$workdir/kivnet.json" ||
      { echo "FAILED: kivnet relocate did not find the device at $moved_address"; failed=1; }
    grep -q "^024b4956004d $moved_address\$" "$workdir/kivnet-store/devices" ||
      { echo "FAILED: kivnet's relocation left no store entry for $moved_address"; failed=1; }
  else
    cat "$workdir/kivnet.json"
    echo "FAILED: kivnet relocate"
    failed=1
  fi
fi

echo "== host namespace: the daemons go away during a relocation"
ip netns exec "$host_ns" unshare --mount timeout 60 sh "$workdir/daemons.sh" \
  "$workdir/avahi-h.conf" sh -c '
    env KIVNET_DEVICE_STORE="$1" "$2" absent "$3" 6 &
    relocation=$!
    sleep 3.5 # past the stale check, into the browse
    kill -KILL $KIV_DAEMON_PIDS
    wait $relocation
  ' lost "$workdir/store/devices" "$program" "$stale_address" || failed=1

echo "== device namespace"
cat "$workdir/simulator.log" "$workdir/device.log"
[ "$failed" -eq 0 ] || fail "see above"
echo "passed"
