#!/usr/bin/env bash
# Every zorctl command, as its own help lists them: `CMD --help` exits 0 with
# the command's usage, an unknown option exits 2 (usage), before any host is
# asked. Then the documented answers without a host: a dead --pid exits 3.
# zor beside it answers --help and --version without starting a host.
set -u
ctl="$1"
fail=0
expect() {  # exit code wanted, then the zorctl arguments
  local want="$1" got
  shift
  out="$("$ctl" "$@" 2>&1)"
  got=$?
  [ "$got" -eq "$want" ] || { echo "zorctl $*: exit $got, want $want: $out"; fail=1; }
}
commands="$("$ctl" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p')"
[ "$(wc -w <<<"$commands")" -ge 10 ] || { echo "zorctl --help lists too few commands: $commands"; exit 1; }
for c in $commands; do
  expect 0 "$c" --help
  grep -q "^usage: zorctl .*$c" <<<"$out" || { echo "zorctl $c --help: no usage line: $out"; fail=1; }
  expect 0 help "$c"
  expect 2 "$c" --no-such-option
done
expect 0 --version
expect 0 help
expect 2 no-such-command
expect 2 help no-such-command
expect 2 unregister 1 2
expect 2 status extra
sleep 0 & dead=$!
wait "$dead"
expect 3 --pid "$dead" status
expect 3 --pid "$dead" stats
for opt in --help --version; do
  out="$(timeout 5 "$(dirname "$ctl")/zor" "$opt" 2>&1)" && grep -q "^zor\|^usage: zor" <<<"$out" \
    || { echo "zor $opt: $out"; fail=1; }
done
exit $fail
