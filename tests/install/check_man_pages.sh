#!/usr/bin/env bash
# The installed kivnet and kivsim run from the prefix's bin/ folder (finding the library on their
# own), and their manual pages are installed where man looks, render without a warning, carry the
# project's version and describe every command and option the programs' --help texts name.
#   usage: check_man_pages.sh PREFIX VERSION KIVNET KIVSIM
set -euo pipefail
prefix=$1
version=$2
kivnet=$3
kivsim=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH
fail() {
  echo "FAILED: $*"
  exit 1
}

# The installed programs.
for tool in kivnet kivsim; do
  [ -x "$prefix/bin/$tool" ] || fail "$prefix/bin/$tool is not installed"
done
"$prefix/bin/kivnet" --help >/dev/null || fail "the installed kivnet does not run"
[ "$("$prefix/bin/kivsim" --version)" = "kivsim (KivNetworkComm) $version" ] ||
  fail "kivsim --version: $("$prefix/bin/kivsim" --version)"

# Every option a help text names (options are words starting with two dashes).
options_of() {
  grep -oE -- '--[a-z][a-z0-9-]*' | sort -u
}

for tool in kivnet kivsim; do
  page=$prefix/share/man/man1/$tool.1
  [ -f "$page" ] || fail "$page is not installed"
  [ "$(MANPATH="$prefix/share/man" man -w "$tool")" = "$page" ] || fail "man does not find $page"
  # Warnings of every kind are on (-ww) and none may be printed.
  groff -man -Tutf8 -ww -z "$page" >"$work/warnings" 2>&1 || fail "groff failed on $page"
  [ ! -s "$work/warnings" ] || fail "$page: $(cat "$work/warnings")"
  MANPAGER=cat MANWIDTH=80 man -l "$page" >"$work/$tool.txt" 2>"$work/warnings" ||
    fail "man -l $page failed: $(cat "$work/warnings")"
  [ ! -s "$work/warnings" ] || fail "man -l $page: $(cat "$work/warnings")"
  grep -q "^NAME" "$work/$tool.txt" || fail "$page renders without a NAME section"
  upper=$(tr '[:lower:]' '[:upper:]' <<<"$tool")
  grep -qE "^\.TH $upper 1 \"[^\"]+\" \"KivNetworkComm $version\"" "$page" ||
    fail "$page does not name version $version in its .TH line"
  # The page source with roff's escaped hyphens as plain ones, for the comparisons below.
  sed 's/\\-/-/g' "$page" >"$work/$tool.src"
done

# kivsim: one --help text.
"$kivsim" --help >"$work/kivsim.help"
for option in $(options_of <"$work/kivsim.help"); do
  grep -qF -- "$option" "$work/kivsim.src" || fail "kivsim.1 does not describe $option"
done

# kivnet: its commands, then each command's --help.
"$kivnet" --help >"$work/kivnet.help"
commands=$(sed -n '/^commands:/,/^$/p' "$work/kivnet.help" | sed -nE 's/^  ([a-z][a-z-]*) .*/\1/p')
[ -n "$commands" ] || fail "no commands in kivnet --help"
for command in $commands; do
  grep -qx "\.SS $command" "$work/kivnet.src" || fail "kivnet.1 has no section for $command"
  "$kivnet" "$command" --help >"$work/help"
  for option in $(options_of <"$work/help"); do
    grep -qF -- "$option" "$work/kivnet.src" || fail "kivnet.1 does not describe $command $option"
  done
done
echo "tools and manual pages OK"
