#!/usr/bin/env bash
# The bash completion completes commands, every command the tool lists, options from a command's
# help, the fleet's questions and the policy names of the configuration on the line.
#   tests/check_completion.sh PROGRAM COMPLETION_SCRIPT
set -euo pipefail
program="$1"
source "$2"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }
# Completes the words given (the last one being completed) and prints the candidates, sorted.
complete_words() {
  COMP_WORDS=("$program" "$@")
  COMP_CWORD=$#
  COMPREPLY=()
  _signdb
  printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' '
}

[ "$(complete_words ch)" = "check " ] || fail "ch: '$(complete_words ch)'"
[ "$(complete_words s)" = "scan selftest show sign status " ] || fail "s: '$(complete_words s)'"
# Every command the tool lists is one the completion knows.
for command in $("$program" --help | sed -n '/^commands:/,/^$/p' | awk 'NR > 1 && /^  [a-z]/ {print $1}'); do
  complete_words "$command" | grep -qw -- "$command" || fail "the command $command is not completed"
done
[ "$(complete_words update --pa)" = "--packages --passphrase-fd " ] || fail "update --pa: '$(complete_words update --pa)'"
[ "$(complete_words fleet d)" = "drift " ] || fail "fleet d: '$(complete_words fleet d)'"

mkdir -p "$work/tree-a" "$work/tree-b"
"$program" init --config "$work/cfg/signdb.json" --policy "etc=$work/tree-a" --policy "home=$work/tree-b" >/dev/null
[ "$(complete_words --config "$work/cfg/signdb.json" check "")" = "etc home " ] ||
  fail "policies: '$(complete_words --config "$work/cfg/signdb.json" check "")'"
[ "$(complete_words -c "$work/cfg/signdb.json" update h)" = "home " ] || fail "policy h"
echo "completion completes commands, options, fleet questions and policy names"
