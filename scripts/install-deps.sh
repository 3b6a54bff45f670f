#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the tools need, when any is missing.
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev
          libbenchmark-dev pkg-config iproute2 procps valgrind)
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
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
