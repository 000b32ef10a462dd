#!/usr/bin/env bash
# The window's placement across starts: the first start sits at (20, 20)
# with the dialog's own size; a moved and heightened window comes back where
# it was left; on a smaller screen it is pulled back fully on screen and
# shortened to the screen's height, its width always the dialog's own.
# Screens of different sizes are Wine virtual desktops on one display.
#   placement_test.sh TARNLIFT_EXE GUIPROBE
set -u
gui=$(realpath "$1")
probe=$(realpath "$2")
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run > /dev/null || { echo "SKIP: no display and no xvfb-run"; exit 77; }
  exec xvfb-run -a "$0" "$@"
fi
command -v wine > /dev/null || { echo "SKIP: needs wine"; exit 77; }
work=$(mktemp -d /tmp/tl-place-XXXXXX)
export WINEPREFIX=$work/wine WINEDEBUG=-all
gui_pid=
cleanup() {
  [ -n "$gui_pid" ] && kill "$gui_pid" 2> /dev/null
  wineserver -k 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  echo "--- window log (tail)"; tr -d '\r' < "$work/gui.log" 2> /dev/null | grep -v '^iface: ' | tail -20
  echo "--- driver output and errors (tail)"; tr -d '\r' < "$work/probe.out" 2> /dev/null | tail -10
  exit 1
}
title="Quenlark Tarnlift for Brisvane"
settings='HKCU\SOFTWARE\Quenlark\NetServer'
mkdir -p "$work/start"
value() { wine reg query "$settings" /v "$1" 2> /dev/null | tr -d '\r' | awk -v n="$1" 'index($0, n) { print $NF }'; }

# One start on a desktop of WIDTHxHEIGHT: the driver's commands run, then the
# close box; prints what the driver printed. The window must exit with 0.
session() {  # WIDTHxHEIGHT DRIVER_COMMANDS...
  local desktop="tl$1,$1"
  shift
  (cd "$work/start" && exec wine explorer "/desktop=$desktop" "$gui") >> "$work/gui.log" 2>&1 &
  gui_pid=$!
  rm -f "$work/probe.out"
  wine explorer "/desktop=$desktop" "$probe" -o 'Z:'"${work//\//\\}"'\probe.out' win "$title" 60000 "$@" -- sysclose \
    > /dev/null 2>&1
  for _ in $(seq 1 600); do
    tr -d '\r' < "$work/gui.log" | grep -q "^l: " && break
    sleep 0.1
  done
  sleep 1
  wineserver -k 2> /dev/null
  wait "$gui_pid" 2> /dev/null
  gui_pid=
  tr -d '\r' < "$work/probe.out" 2> /dev/null
}

wineboot -i > /dev/null 2>&1
wine reg add 'HKCU\Software\Wine\X11 Driver' /v Decorated /d N /f > /dev/null 2>&1

# First start: (20, 20) and the dialog's own size; then moved and heightened.
out=$(session 1280x1024 -- rect -- move 300 100 806 900 -- rect)
read -r l t r b l2 t2 r2 b2 <<< "$(echo $out)"
[ "${l:-} ${t:-}" = "20 20" ] || fail "first start at '${l:-} ${t:-}', expected 20 20"
width=$((r - l))
height=$((b - t))
[ "${l2:-} ${t2:-}" = "300 100" ] || fail "the driver could not move the window ($out)"
moved_height=$((b2 - t2))
[ "$(value "Rect X")" = 0x12c ] || fail "Rect X saved as $(value "Rect X")"
[ "$(value "Rect Y")" = 0x64 ] || fail "Rect Y saved as $(value "Rect Y")"
[ "$(value "Screen X")" = 0x500 ] || fail "Screen X saved as $(value "Screen X")"
[ "$(value "Screen Y")" = 0x400 ] || fail "Screen Y saved as $(value "Screen Y")"
> "$work/gui.log"

# Same screen: it comes back where it was left.
out=$(session 1280x1024 -- rect)
read -r l t r b <<< "$(echo $out)"
[ "${l:-} ${t:-} $((r - l)) $((b - t))" = "300 100 $width $moved_height" ] ||
  fail "restart gave '$out', expected 300 100 ${width}x$moved_height"
> "$work/gui.log"

# A smaller screen: pulled fully on screen, no taller than the screen.
out=$(session 1024x600 -- screen -- rect)
read -r sw sh l t r b <<< "$(echo $out)"
[ "${sw:-} ${sh:-}" = "1024 600" ] || fail "the desktop is '$sw $sh', expected 1024 600"
[ $((r - l)) = "$width" ] || fail "width $((r - l)) on the small screen, expected $width"
[ $((b - t)) = 600 ] || fail "height $((b - t)) on the small screen, expected 600"
[ "$r" -le 1024 ] && [ "$b" -le 600 ] && [ "$l" -ge 0 ] && [ "$t" -ge 0 ] || fail "not on the small screen: $out"
echo "PASS: placement (${width}x$height at (20, 20) first; back at (300, 100); ($l, $t, $r, $b) on 1024x600)"
