#!/usr/bin/env bash
# An install of the build folder works from the installed paths alone: the program finds its
# module below the prefix (no LD_LIBRARY_PATH, nothing beside it), a moved prefix still works, the
# units name the installed program and systemd takes them, and an install starts nothing.
#   tests/check_install.sh BUILD_DIR
set -euo pipefail
build="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
program="$work/prefix/bin/signdb"
[ -x "$program" ] || fail "no program at bin/signdb"
module=$(find "$work/prefix/lib" -name libsigndb.so)
case "$module" in
  "$work/prefix/lib/"*-linux-gnu/signdb/libsigndb.so) ;;
  *) fail "the module is not in lib/MULTIARCH/signdb: '$module'" ;;
esac
[ ! -e "$work/prefix/bin/libsigndb.so" ] || fail "the module was installed beside the program"

# From the installed paths only: a selftest, then a real scan and check.
unset SIGNDB_MODULE LD_LIBRARY_PATH
"$program" selftest >"$work/selftest.out" 2>&1 || { cat "$work/selftest.out" >&2; fail "selftest"; }
mkdir -p "$work/tree/etc" && echo "a" >"$work/tree/etc/a"
"$program" init --config "$work/cfg/signdb.json" --policy "t=$work/tree" >/dev/null
"$program" --config "$work/cfg/signdb.json" scan t --quiet >/dev/null
"$program" --config "$work/cfg/signdb.json" check t --quiet >/dev/null || fail "check after scan"

# A moved prefix moves whole.
mv "$work/prefix" "$work/moved"
"$work/moved/bin/signdb" --config "$work/cfg/signdb.json" check t --quiet >/dev/null ||
  fail "the moved install does not find its module"
mv "$work/moved" "$work/prefix"

# The units call the installed program; systemd takes them as they are; nothing is enabled.
for unit in signdb-check.service signdb-watch.service signdb-check.timer; do
  [ -f "$work/prefix/lib/systemd/system/$unit" ] || fail "no unit $unit"
done
grep -q "^ExecStart=$program " "$work/prefix/lib/systemd/system/signdb-check.service" ||
  fail "signdb-check.service does not call $program"
grep -q "^ExecStart=$program " "$work/prefix/lib/systemd/system/signdb-watch.service" ||
  fail "signdb-watch.service does not call $program"
if command -v systemd-analyze >/dev/null 2>&1; then
  # The units' Documentation= names the man pages installed beside them.
  (cd "$work/prefix/lib/systemd/system" && export MANPATH="$work/prefix/share/man" &&
    systemd-analyze verify signdb-check.service signdb-check.timer signdb-watch.service) ||
    fail "systemd-analyze verify"
else
  echo "systemd-analyze is not installed: the units' syntax is not verified" >&2
fi
find "$work/prefix" -path '*wants*' | grep -q . && fail "an install enabled a unit"
for example in signdb.cron signdb-fleet.conf; do
  [ -f "$work/prefix/share/doc/signdb/examples/$example" ] || fail "no example $example"
done
[ -f "$work/prefix/share/bash-completion/completions/signdb" ] || fail "no bash completion"
for page in man1/signdb.1 man5/signdb.json.5 man8/signdb-watch.8; do
  [ -f "$work/prefix/share/man/$page" ] || fail "no man page $page"
done
MANPATH="$work/prefix/share/man" man -w signdb.json > /dev/null 2>&1 || fail "man does not find signdb.json(5)"
echo "the install works from its own paths, moved or not"
