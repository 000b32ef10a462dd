#!/usr/bin/env bash
# Starts tarnlift.exe under Wine, starts a second copy, and checks that the
# second copy shows the "already running" box and exits with 0 while the first
# keeps running; checks the Enter-release re-post; then closes the first and
# checks its exit code 0.
set -u
gui=$1
probe=$2
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run >/dev/null || { echo "SKIP: no display and no xvfb-run"; exit 77; }
  exec xvfb-run -a "$0" "$@"
fi
export WINEDEBUG=-all
work=$(mktemp -d)
first_pid=""
cleanup() {
  [ -n "$first_pid" ] && kill "$first_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  for f in first.log second.log probe.err; do
    echo "--- $f:"
    cat "$work/$f" 2>/dev/null
  done
  exit 1
}

title="Quenlark Tarnlift for Brisvane"
(cd "$work" && exec wine "$gui") > "$work/first.log" 2>&1 &
first_pid=$!
for _ in $(seq 1 600); do
  grep -q "^ko: " "$work/first.log" && break
  sleep 0.1
done
grep -q "^ko: " "$work/first.log" || fail "the first copy did not start"
grep -Eq "^Version: [0-9]+\.[0-9]+" "$work/first.log" || fail "no version line"

wine "$gui" > "$work/second.log" 2>&1 &
second_pid=$!
wine "$probe" box Error 60000 > "$work/box.txt" 2> "$work/probe.err" || fail "no box: $(cat "$work/probe.err")"
timeout 60 tail --pid="$second_pid" -f /dev/null
wait "$second_pid"
second_rc=$?
box_text=$(tr -d '\r' < "$work/box.txt")
[ "$box_text" = "QL Router Install Server is already running" ] || fail "box text was '$box_text'"
[ "$second_rc" -eq 0 ] || fail "second copy exited with $second_rc"
grep -q "^cmd: " "$work/second.log" && fail "second copy went on past the guard"
kill -0 "$first_pid" 2>/dev/null || fail "the first copy did not survive the second"

# Pressing Enter in a field does nothing extra; releasing it makes the
# package directory final (the window re-reads the folder typed there).
mkdir -p "$work/packages"
folder="Z:${work//\//\\}\\packages"
finals() { tr -d '\r' < "$work/first.log" | grep -cxF "Looking for packages in $folder"; }
wine "$probe" win "$title" -- settext 1003 "$folder" 2>> "$work/probe.err" || fail "cannot type the folder"
before=$(finals)
wine "$probe" keydown "$title" 1003 || fail "cannot press Enter"
sleep 1
[ "$(finals)" -eq "$before" ] || fail "Enter press re-read the directory"
wine "$probe" keyup "$title" 1003 || fail "cannot release Enter"
for _ in $(seq 1 100); do
  [ "$(finals)" -gt "$before" ] && break
  sleep 0.1
done
[ "$(finals)" -eq $((before + 1)) ] || fail "Enter release did not re-read the directory once"

wine "$probe" win "$title" -- sysclose 2>> "$work/probe.err" || fail "cannot find the main window"
timeout 60 tail --pid="$first_pid" -f /dev/null
wait "$first_pid"
first_rc=$?
first_pid=""
[ "$first_rc" -eq 0 ] || fail "first copy exited with $first_rc"
echo "PASS: second copy refused with the box, both exited with 0"
