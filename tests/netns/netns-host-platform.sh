#!/usr/bin/env bash
# The host's default interface as the library reads it from the kernel's tables, in network
# namespaces this script makes and deletes: a veth pair whose two ends both stay inside the
# namespace (nothing reaches the machine's own network, and nothing is sent), with several
# addresses, an alias label, a point-to-point address and several default routes. Each setting
# runs LinuxHostPlatformTest with the answer it expects. Exits 77 (skipped) with one line saying
# why when namespaces cannot be made here.
#   usage: netns-host-platform.sh LINUX_HOST_PLATFORM_TEST
set -u

test_program=$1

skip() {
  echo "skipped: $*"
  exit 77
}

[ "$(id -u)" -eq 0 ] || skip "making network namespaces needs root"
command -v ip >/dev/null 2>&1 || skip "no 'ip' command (iproute2 is not installed)"
command -v timeout >/dev/null 2>&1 || skip "no 'timeout' command"

# Names carry this run's process number, so parallel runs never meet; namespaces of runs killed
# outright (SIGKILL leaves no chance to clean up) whose process is gone are removed first.
for stale in $(ip netns list 2>/dev/null | awk '{print $1}' | grep -E '^kivhp[0-9]+$'); do
  kill -0 "${stale#kivhp}" 2>/dev/null || ip netns del "$stale" 2>/dev/null
done
ns=kivhp$$
workdir=$(mktemp -d)
cleanup() {
  local status=$?
  trap - EXIT INT TERM HUP
  ip netns del "$ns" 2>/dev/null
  rm -rf "$workdir"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

ip netns add "$ns" 2>"$workdir/error" ||
  skip "network namespaces not permitted here: $(head -n 1 "$workdir/error")"
ip -n "$ns" link add a0 type veth peer name b0 2>"$workdir/error" ||
  skip "veth pairs not available: $(head -n 1 "$workdir/error")"
ip -n "$ns" link set lo up
ip -n "$ns" link set a0 up
ip -n "$ns" link set b0 up

failed=0
# check NAME EXPECTED: runs the test in the namespace as it is set up now.
check() {
  echo "== $1: expecting $2"
  ip netns exec "$ns" ip -4 addr show dev a0 | sed -n 's/^ *inet /   inet /p' | head -n 5
  ip netns exec "$ns" ip -4 route show default | sed 's/^/   route /'
  if ! KIV_EXPECTED_DEFAULT_INTERFACE="$2" ip netns exec "$ns" timeout 30 "$test_program" \
    --gtest_filter='LinuxHostPlatformTest.DefaultInterfaceIsTheMachinesOwnReading' >"$workdir/log" 2>&1; then
    cat "$workdir/log"
    echo "FAILED: $1"
    failed=1
  fi
}
reset() {
  ip -n "$ns" route flush table main 2>/dev/null
  ip -n "$ns" addr flush dev a0
  ip -n "$ns" addr flush dev b0
}

check "no default route" none

reset
ip -n "$ns" addr add 10.1.1.5/24 dev a0
ip -n "$ns" addr add 10.2.2.5/16 dev a0 label a0:1
ip -n "$ns" addr add 10.9.9.1 peer 10.9.9.2 dev a0
ip -n "$ns" route add default via 10.1.1.1 dev a0 metric 4294967295
ip -n "$ns" route add default via 10.2.0.1 dev a0 metric 7
# The alias label names another interface, so the address that holds the gateway is not a0's;
# the first of a0's is taken. The largest metric loses.
check "alias label, point-to-point, two routes" "10.1.1.5 255.255.255.0 10.2.0.1"

reset
ip -n "$ns" addr add 10.1.1.5/24 dev a0
ip -n "$ns" addr add 10.2.2.5/16 dev a0
ip -n "$ns" route add default via 10.2.0.1 dev a0
check "the address that holds the gateway" "10.2.2.5 255.255.0.0 10.2.0.1"

reset
ip -n "$ns" addr add 10.9.9.1 peer 10.9.9.2 dev a0
ip -n "$ns" route add default via 10.9.9.2 dev a0
# The interface's own end of the link, not its peer's.
check "point-to-point only" "10.9.9.1 255.255.255.255 10.9.9.2"

reset
ip -n "$ns" addr add 10.1.1.5/24 dev a0
ip -n "$ns" route add default dev b0
check "default route on an interface without an address" none

reset
ip -n "$ns" addr add 10.1.1.5/24 dev a0
ip -n "$ns" addr add 10.3.3.3/8 dev b0
ip -n "$ns" route add default via 10.1.1.1 dev a0 metric 20
ip -n "$ns" route add default via 10.3.3.1 dev b0 metric 10
check "lowest metric on the other interface" "10.3.3.3 255.0.0.0 10.3.3.1"

reset
# More addresses than one reply of the kernel holds; the one that holds the gateway comes last.
for x in $(seq 0 199); do
  echo "addr add 10.50.$x.1/24 dev a0"
done >"$workdir/addresses"
ip -n "$ns" -batch "$workdir/addresses"
ip -n "$ns" route add default via 10.50.199.254 dev a0
check "200 addresses" "10.50.199.1 255.255.255.0 10.50.199.254"

[ "$failed" -eq 0 ] || exit 1
echo "passed"
