#!/usr/bin/env bash
# `tarnlift-cli.exe doctor` under Wine: it runs, every line is a finding,
# what Wine cannot answer is "not checked", and --json says the same.
#   doctor_wine.sh TARNLIFT_CLI_EXE
set -u
exe=$(realpath "$1")
skip() { echo "SKIP: $*"; exit 77; }
command -v wine > /dev/null || skip "needs wine"
work=$(mktemp -d /tmp/tl-doctor-wine-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "FAIL: $*"
  cat "$work/out" 2> /dev/null
  tail -20 "$work/err" 2> /dev/null
  exit 1
}
mkdir -p "$work/pk"
wine "$exe" doctor --client-address 127.0.0.1 --packages 'Z:'"${work//\//\\}"'\pk' > "$work/out" 2> "$work/err"
status=$?
tr -d '\r' < "$work/out" > "$work/lines"
cat "$work/lines"
[ "$status" = 0 ] || [ "$status" = 1 ] || fail "exit $status"
[ -s "$work/lines" ] || fail "no findings"
grep -Ev '^(ok  |warn|fail) [a-z0-9/ ]+: ' "$work/lines" && fail "a line that is not a finding"
grep -q '^\(ok  \|fail\|warn\) port 67/udp: ' "$work/lines" || fail "no port 67 line"
grep -q '^warn firewall: not checked (' "$work/lines" || fail "the firewall is not 'not checked'"
grep -q '^warn packages: no package files' "$work/lines" || fail "the empty package folder"
grep -q '^\(ok  \|warn\) local disk: format.com' "$work/lines" || fail "no format.com line"
wine "$exe" doctor --client-address 127.0.0.1 --packages 'Z:'"${work//\//\\}"'\pk' --json > "$work/json" 2> /dev/null
python3 - "$work/json" "$(grep -c . "$work/lines")" << 'PY' || fail "--json"
import json, sys
items = json.load(open(sys.argv[1]))
assert len(items) == int(sys.argv[2]), (len(items), sys.argv[2])
assert all(set(i) == {"level", "check", "found", "fix"} for i in items)
print("json: %d findings" % len(items))
PY
echo "PASS"
