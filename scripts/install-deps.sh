#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the tools need, when any is missing.
set -euo pipefail

# man-db and groff-base render the manual pages the tests check; util-linux gives unshare;
# valgrind checks that the handle checks read no memory they should not. libavahi-client-dev: the
# library's DNS-SD browse. avahi-daemon, avahi-utils and dbus serve only the relocation test, which
# runs them inside network namespaces of its own.
packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev
          libbenchmark-dev pkg-config iproute2 procps valgrind man-db groff-base util-linux
          libavahi-client-dev avahi-daemon avahi-utils dbus)
missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
# Installing avahi-daemon or dbus must not start them on this machine's network: where no
# policy-rc.d refuses service starts (a container image usually has one), one does during the
# installation.
policy=/usr/sbin/policy-rc.d
own_policy=""
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\n# Temporary: written by KivNetworkComm scripts/install-deps.sh\nexit 101\n' |
    $sudo tee "$policy" >/dev/null
  $sudo chmod 755 "$policy"
  own_policy=$policy
  trap '$sudo rm -f "$own_policy"' EXIT
fi
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
