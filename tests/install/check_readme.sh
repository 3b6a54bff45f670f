#!/usr/bin/env bash
# Runs the README's install and host example exactly as the README writes them, so the two cannot
# drift apart: the blocks marked "<!-- readme-test: NAME -->" (install commands, discover.cpp, host
# commands, expected output) are taken from README.md and run in a copy of the source tree.
# They run in a private mount namespace, where the README's /opt is an empty scratch folder, and
# a private network namespace whose loopback is the only network: nothing is installed on the
# machine and nothing can leave it. Exits 77 (skipped) with one line saying why where such
# namespaces cannot be made.
#   usage: check_readme.sh SOURCE_DIR
set -euo pipefail
source_dir=$1

skip() {
  echo "skipped: $*"
  exit 77
}
fail() {
  echo "FAILED: $*"
  exit 1
}

[ "$(id -u)" -eq 0 ] || skip "running the README's commands in private namespaces needs root"
command -v unshare >/dev/null 2>&1 || skip "no 'unshare' command (util-linux)"
command -v ip >/dev/null 2>&1 || skip "no 'ip' command (iproute2 is not installed)"
[ -d /opt ] || skip "no /opt folder to cover with a scratch one"
unshare --mount --net true 2>/dev/null || skip "unshare cannot make mount and network namespaces"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The fenced block after the marker line "<!-- readme-test: NAME -->".
block() {
  awk -v marker="<!-- readme-test: $1 -->" '
    $0 == marker { state = 1; next }
    state == 1 && /^```/ { state = 2; next }
    state == 2 && /^```/ { exit }
    state == 2 { print }' "$source_dir/README.md"
}
mkdir -p "$work/source" "$work/host"
for name in install discover.cpp "host commands" output; do
  block "$name" >"$work/$name"
  [ -s "$work/$name" ] || fail "README.md has no block marked <!-- readme-test: $name -->"
done
mv "$work/discover.cpp" "$work/host/discover.cpp"

# A copy of the sources without build folders or version-control data.
tar -C "$source_dir" --exclude='./build*' --exclude='./.git' -cf - . | tar -C "$work/source" -xf -

# Inside the namespaces: the README's commands in one shell, as a reader types them (the install
# in the source folder, the host commands where discover.cpp was saved). The simulator the host
# commands start is stopped when they are done.
cat >"$work/run.sh" <<SCRIPT
set -euo pipefail
mount -t tmpfs kivreadme /opt
ip link set lo up
# Parsing an HCP answer reads the host's default IPv4 interface, as on a machine with a network;
# here the default route leads back into the loopback, inside this namespace.
ip route add default dev lo
export CMAKE_BUILD_PARALLEL_LEVEL=2
trap 'kill \$(jobs -p) 2>/dev/null || true; wait' EXIT
cd "$work/source"
echo "---- install commands"
. "$work/install" >"$work/install.log" 2>&1 || { tail -n 40 "$work/install.log"; exit 1; }
echo "---- host commands"
cd "$work/host"
. "$work/host commands" >"$work/actual" 2>"$work/host.log" || { cat "$work/host.log"; exit 1; }
SCRIPT
unshare --mount --net bash "$work/run.sh" || fail "the README's commands failed"

# The devices answer in any order.
echo "---- output"
cat "$work/actual"
if ! diff <(sort "$work/output") <(sort "$work/actual"); then
  fail "./discover printed other lines than the README shows"
fi
echo "README host example OK"
