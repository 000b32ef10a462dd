#!/usr/bin/env bash
# A fatal failure shows the composed text in a box titled "Error"; closing
# the box ends the process with exit code 1.
set -u
program=$1
probe=$2
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run >/dev/null || { echo "SKIP: no display and no xvfb-run"; exit 77; }
  exec xvfb-run -a "$0" "$@"
fi
export WINEDEBUG=-all
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
wine "$program" > "$work/log" 2>&1 &
pid=$!
wine "$probe" box Error 60000 > "$work/box" 2>&1 || { echo "FAIL: no box"; cat "$work/box"; kill $pid; exit 1; }
timeout 60 tail --pid="$pid" -f /dev/null
wait "$pid"
rc=$?
text=$(tr -d '\r' < "$work/box" | tr '\n' '|')
log=$(tr -d '\r' < "$work/log" | tr '\n' '|')
case "$text" in
  "CreateThread: "*" (2)|") ;;
  *) echo "FAIL: box text was '$text'"; exit 1 ;;
esac
[ "$log" = "$text" ] || { echo "FAIL: the log line '$log' differs from the box '$text'"; exit 1; }
[ "$rc" -eq 1 ] || { echo "FAIL: exit code $rc, expected 1"; exit 1; }
echo "PASS: box '$text', exit code 1"
