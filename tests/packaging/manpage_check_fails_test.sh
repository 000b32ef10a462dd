#!/usr/bin/env bash
# The documentation check must be able to fail: with one command's option
# taken out of a copy of the man page, and an action's option out of a copy
# of the completion, it fails and names each.
# usage: manpage_check_fails_test.sh TARNLIFT MANPAGE COMPLETION
set -uo pipefail
tarnlift=$1 manpage=$2 completion=$3
here=$(dirname "$0")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed -e 's/\\-\\-hold//g' -e 's/--hold//g' "$manpage" > "$work/tarnlift.1"
sed -e 's/--json//g' "$completion" > "$work/completion"
bash "$here/manpage_covers_cli.sh" "$tarnlift" "$work/tarnlift.1" "$work/completion" > "$work/out"
rc=$?
[ $rc = 1 ] || { echo "FAIL: the check passed (exit $rc) without --hold in the page"; cat "$work/out"; exit 1; }
grep -q "man page lacks option --hold" "$work/out" || { echo "FAIL: --hold not named"; cat "$work/out"; exit 1; }
grep -q "completion lacks option --json" "$work/out" || { echo "FAIL: --json not named"; cat "$work/out"; exit 1; }
echo "PASS"
