#!/usr/bin/env bash
# The man pages render without a warning from mandoc's lint or from man itself, name the version
# the program reports, and signdb(1) names every command and every global option the program's
# help lists.
# usage: tests/check_man_pages.sh SIGNDB MAN_FOLDER
set -euo pipefail
signdb=$1
folder=$2
for tool in mandoc man; do
  command -v "$tool" > /dev/null || { echo "SKIPPED: $tool is not installed"; exit 77; }
done
failed=0
version=$("$signdb" version | awk '{print $2}')
for page in "$folder"/signdb.1 "$folder"/signdb.json.5 "$folder"/signdb-watch.8; do
  lint=$(mandoc -T lint -W warning "$page" 2>&1 || true)
  if [ -n "$lint" ]; then echo "$lint"; failed=1; fi
  warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 > /dev/null || true)
  if [ -n "$warnings" ]; then echo "$page: $warnings"; failed=1; fi
  grep -q "^\.TH .* \"signdb $version\"" "$page" || { echo "$page: its .TH line does not name signdb $version"; failed=1; }
done
rendered=$(LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$folder/signdb.1" 2> /dev/null)
commands=$("$signdb" --help | sed -n '/^commands:/,/^options:/p' | awk '/^  [a-z]/ {print $1}')
for command in $commands; do
  grep -Eq "^ {7}$command( |$)" <<< "$rendered" || { echo "signdb(1) does not describe the command '$command'"; failed=1; }
done
options=$("$signdb" --help | sed -n '/^options:/,/^exit status/p' | grep -oE '^  --?[a-z-]+')
for option in $options; do
  grep -q -- "$option" <<< "$rendered" || { echo "signdb(1) does not describe the option '$option'"; failed=1; }
done
[ "$failed" -eq 0 ] && echo "man pages: clean, version $version, every command and option described"
exit "$failed"
