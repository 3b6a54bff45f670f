#!/usr/bin/env bash
# Installs a build into a fresh prefix for the installed-tree tests.
#   usage: install-tree.sh BUILD_DIR PREFIX
set -euo pipefail
build_dir=$1
prefix=$2
rm -rf "$prefix"
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
echo "installed into $prefix:"
(cd "$prefix" && find . -type f | sort)
