#!/usr/bin/env bash
# Discovery across a real link: two network namespaces made for this run, joined by a veth pair,
# simulated devices in one and the host in the other, deleted again on every path. Nothing is
# created in, or sent from, the machine's own namespace. Exits 77 (skipped) with one line saying
# why when namespaces cannot be made here.
#   usage: netns-discovery.sh NETNS_DISCOVERY HOST_INFORMATION_TEST [KIVNET]
set -u

netns_program=$1
host_information_test=$2
kivnet=${3:-}

skip() {
  echo "skipped: $*"
  exit 77
}
fail() {
  echo "FAILED: $*"
  exit 1
}

[ "$(id -u)" -eq 0 ] || skip "making network namespaces needs root"
command -v ip >/dev/null 2>&1 || skip "no 'ip' command (iproute2 is not installed)"
command -v timeout >/dev/null 2>&1 || skip "no 'timeout' command"

# Names carry this run's process number, so parallel runs never meet. Runs that were killed
# outright (SIGKILL leaves no chance to clean up) left namespaces whose process is gone: remove
# those first.
for stale in $(ip netns list 2>/dev/null | awk '{print $1}' | grep -E '^kivt[0-9]+[hd]$'); do
  pid=${stale#kivt}
  pid=${pid%?}
  if ! kill -0 "$pid" 2>/dev/null; then
    ip netns del "$stale" 2>/dev/null
  fi
done

tag=kivt$$
host_ns=${tag}h
device_ns=${tag}d
host_if=${tag}h0
device_if=${tag}d0
net=10.231.77
port=5353
workdir=$(mktemp -d)
device_pid=""

cleanup() {
  local status=$?
  trap - EXIT INT TERM HUP
  if [ -n "$device_pid" ]; then
    kill "$device_pid" 2>/dev/null
    wait "$device_pid" 2>/dev/null
  fi
  # Deleting a namespace removes its end of the veth pair, and with it the pair.
  ip netns del "$host_ns" 2>/dev/null
  ip netns del "$device_ns" 2>/dev/null
  if [ -f "$workdir/guardian.pid" ]; then
    kill "$(cat "$workdir/guardian.pid")" 2>/dev/null
  fi
  rm -rf "$workdir"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

ip netns add "$host_ns" 2>"$workdir/error" ||
  skip "network namespaces not permitted here: $(head -n 1 "$workdir/error")"
if ! ip netns add "$device_ns" 2>"$workdir/error"; then
  skip "network namespaces not permitted here: $(head -n 1 "$workdir/error")"
fi

# A guardian outside this process tree stops the devices and deletes the namespaces if this
# script is killed without a chance to clean up (a test time-out sends SIGKILL). It stops by
# itself within ten minutes.
(
  setsid bash -c '
    echo $$ >"$4/guardian.pid"
    for _ in $(seq 600); do kill -0 "$1" 2>/dev/null || break; sleep 1; done
    [ -f "$4/devices.pid" ] && kill "$(cat "$4/devices.pid")" 2>/dev/null
    ip netns del "$2" 2>/dev/null
    ip netns del "$3" 2>/dev/null
    rm -rf "$4"
  ' guardian "$$" "$host_ns" "$device_ns" "$workdir" </dev/null >/dev/null 2>&1 &
)

# The veth pair is made inside the host namespace, its peer moved straight into the device one.
ip -n "$host_ns" link add "$host_if" type veth peer name "$device_if" netns "$device_ns" \
  2>"$workdir/error" || skip "veth pairs not available: $(head -n 1 "$workdir/error")"
ip -n "$host_ns" link set lo up || fail "host loopback"
ip -n "$device_ns" link set lo up || fail "device loopback"
ip -n "$host_ns" addr add "$net.1/24" dev "$host_if" || fail "host address"
ip -n "$device_ns" addr add "$net.2/24" dev "$device_if" || fail "device side address"
# The devices' own addresses.
for last in 10 11 12 13; do
  ip -n "$device_ns" addr add "$net.$last/24" dev "$device_if" || fail "address $net.$last"
done
ip -n "$host_ns" link set "$host_if" up || fail "host link up"
ip -n "$device_ns" link set "$device_if" up || fail "device link up"
# The library's host information describes the default route's interface.
ip -n "$host_ns" route add default via "$net.2" || fail "default route"

ip netns exec "$device_ns" timeout 90 "$netns_program" "$net.10" "$port" 60 \
  >"$workdir/devices.log" 2>&1 &
device_pid=$!
echo "$device_pid" >"$workdir/devices.pid"
for _ in $(seq 100); do
  grep -q ready "$workdir/devices.log" && break
  kill -0 "$device_pid" 2>/dev/null || break
  sleep 0.1
done
grep -q ready "$workdir/devices.log" || fail "the devices did not start: $(cat "$workdir/devices.log")"

failed=0
echo "== host namespace: broadcast discovery"
ip netns exec "$host_ns" timeout 60 "$netns_program" "$net.10" "$port" || failed=1

echo "== device namespace (no default route): host information throws -1"
ip netns exec "$device_ns" timeout 20 "$host_information_test" \
  --gtest_filter='HostWithoutDefaultRoute.*' >"$workdir/host-information.log" 2>&1
cat "$workdir/host-information.log"
grep -q '^\[       OK \] HostWithoutDefaultRoute' "$workdir/host-information.log" ||
  { echo "FAILED: the host-information check did not run and pass without a default route"; failed=1; }

if [ -n "$kivnet" ]; then
  echo "== host namespace: kivnet discover with its default broadcast"
  if ip netns exec "$host_ns" timeout 30 "$kivnet" discover --wait 2 --json >"$workdir/kivnet.json"; then
    for last in 10 11 12 13; do
      grep -q "\"answeredFrom\": \"$net.$last\"" "$workdir/kivnet.json" ||
        { echo "FAILED: kivnet discover did not list $net.$last"; failed=1; }
    done
    [ "$(grep -c '"answeredFrom"' "$workdir/kivnet.json")" -eq 4 ] ||
      { echo "FAILED: kivnet discover listed other than 4 devices"; failed=1; }
  else
    echo "FAILED: kivnet discover"
    failed=1
  fi
  ip netns exec "$host_ns" timeout 30 "$kivnet" ping "$net.12" || failed=1
  ip netns exec "$host_ns" timeout 30 "$kivnet" host-info | grep -q "gateway  *$net.2" ||
    { echo "FAILED: kivnet host-info does not show the gateway $net.2"; failed=1; }
fi

kill "$device_pid" 2>/dev/null
wait "$device_pid" 2>/dev/null
device_pid=""
cat "$workdir/devices.log"
[ "$failed" -eq 0 ] || fail "see above"
echo "passed"
