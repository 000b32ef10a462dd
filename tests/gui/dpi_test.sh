#!/usr/bin/env bash
# The window at 96 and at 192 dots per inch (Wine's LogPixels): at 192 it is
# about twice the size, and at both no two controls overlap and no text is
# cut (the driver's layout check); screenshots main_window_dpi96.png and
# main_window_dpi192.png.
#   dpi_test.sh TARNLIFT_EXE GUIPROBE SCREENSHOTS
set -u
gui=$(realpath "$1")
probe=$(realpath "$2")
shots=$3
# A screen of its own, large enough for the window at 200 % (a smaller one
# would pull the window back and cut it).
if [ -z "${TL_DPI_SCREEN:-}" ]; then
  command -v xvfb-run > /dev/null || { echo "SKIP: no xvfb-run"; exit 77; }
  TL_DPI_SCREEN=1 exec xvfb-run -a -s "-screen 0 1920x1200x24" "$0" "$@"
fi
command -v wine > /dev/null || { echo "SKIP: needs wine"; exit 77; }
work=$(mktemp -d /tmp/tl-dpi-XXXXXX)
export WINEDEBUG=-all
gui_pid=
cleanup() {
  [ -n "$gui_pid" ] && kill "$gui_pid" 2> /dev/null
  for prefix in "$work"/wine*; do WINEPREFIX=$prefix wineserver -k 2> /dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; tail -5 "$work/probe.err" 2> /dev/null; exit 1; }
# shellcheck source=gui_lib.sh
source "$(dirname "$0")/gui_lib.sh"
title="Quenlark Tarnlift for Brisvane"

width_at() {  # DPI: prints the window's width at that density
  export WINEPREFIX=$work/wine$1
  wineboot -i > /dev/null 2>&1
  wine_title_bars
  wine reg add 'HKCU\Control Panel\Desktop' /v LogPixels /t REG_DWORD /d "$1" /f > /dev/null 2>&1
  wine reg add 'HKCC\Software\Fonts' /v LogPixels /t REG_DWORD /d "$1" /f > /dev/null 2>&1
  wineserver -w
  mkdir -p "$work/start$1"
  (cd "$work/start$1" && exec wine "$gui") > "$work/gui$1.log" 2>&1 &
  gui_pid=$!
  drive_ok win "$title" 60000 -- sync -- sleep 500 > /dev/null
  local report
  report=$(drive win "$title" -- layout) || fail "layout at $1 dpi: $report"
  echo "$1 dpi: $report" >&2
  shot "main_window_dpi$1" "$title" >&2
  read -r left _ right _ <<< "$(drive win "$title" -- rect)"
  drive win "$title" -- sysclose > /dev/null
  for _ in $(seq 1 100); do kill -0 "$gui_pid" 2> /dev/null || break; sleep 0.1; done
  kill "$gui_pid" 2> /dev/null
  gui_pid=
  wineserver -k 2> /dev/null
  echo $((right - left))
}

w96=$(width_at 96)
w192=$(width_at 192)
echo "window width: $w96 at 96 dpi, $w192 at 192 dpi"
[ "$w96" -gt 0 ] || fail "no width at 96 dpi"
# Twice as wide, give or take the frame, which does not scale.
[ $((w192 * 10)) -ge $((w96 * 17)) ] || fail "at 192 dpi the window is $w192 wide, not about twice $w96"
echo "PASS"
