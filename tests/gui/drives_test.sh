#!/usr/bin/env bash
# Local drives in the window, over the real drive installer on a made-up
# machine (Wine's drives are not disks; tests/gui/fakedrives_win32.cpp): the
# rows show each disk's number, size and model with their media texts and
# pictures; a drive whose physical disk also holds the system is refused
# with a box naming the disk and the other volume, and nothing starts; a
# drive installs with the ticked packages in dependency order and ends
# "Done"; another, whose folder is dropped on the window, is cancelled while
# it is formatted and is "Ready" again once nothing runs on it; the window
# closes with exit code 0.
#   drives_test.sh FAKEDRIVES_EXE GUIPROBE MKPKG [SCREENSHOT_DIR]
set -u
gui=$(realpath "$1")
probe=$(realpath "$2")
mkpkg=$3
shots=${4:+$(realpath -m "$4")}
[ -x "$mkpkg" ] || { echo "SKIP: no package writer at $mkpkg"; exit 77; }
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run > /dev/null || { echo "SKIP: no display and no xvfb-run"; exit 77; }
  exec xvfb-run -a "$0" "$@"
fi
command -v wine > /dev/null || { echo "SKIP: needs wine"; exit 77; }
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/tl-drives-XXXXXX)
export WINEPREFIX=$work/wine WINEDEBUG=-all
gui_pid=
cleanup() {
  [ -n "$gui_pid" ] && kill "$gui_pid" 2> /dev/null
  wineserver -k 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
# Failures are told on standard error, which reaches the log also from inside
# $(...). Not on a copy of standard output kept open on another descriptor:
# the Wine services that the program starts would inherit it and hold the
# test's output open after the test has ended.
fail() {
  exec 1>&2
  echo "FAIL: $*"
  echo "--- window log (tail)"; tr -d '\r' < "$work/gui.log" 2> /dev/null | grep -v '^iface: ' | tail -30
  echo "--- driver errors (tail)"; tail -10 "$work/probe.err" 2> /dev/null
  exit 1
}
# shellcheck source=gui_lib.sh
source "$here/gui_lib.sh"
title="Quenlark Tarnlift for Brisvane"
win() { drive_ok win "$title" 30000 -- "$@"; }
winpath() { local p=${1//\//\\}; echo "Z:$p"; }
row_of() { drive win "$title" 5000 -- rows 1002 | awk -F'\t' -v l="$1" 'index($5, l) == 1 { print $1; exit }'; }
package_row() { drive win "$title" 5000 -- rows 1001 | awk -F'\t' -v n="$1" '$5 == n { print $1; exit }'; }
log_has() { tr -d '\r' < "$work/gui.log" | grep -qxF "$1"; }

wineboot -i > /dev/null 2>&1
wine_title_bars
mkdir -p "$work/start" "$work/pk"
"$mkpkg" "$work/pk/system-6.41.npk" --package system 6.41 --arch arm --data 5000 > /dev/null || fail "mkpkg"
"$mkpkg" "$work/pk/extra-6.41.npk" --package extra 6.41 --arch arm --depends system:6.41 > /dev/null || fail "mkpkg"

(cd "$work/start" && exec wine "$gui") > "$work/gui.log" 2>&1 &
gui_pid=$!
win > /dev/null
expect_eq "drive rows" "$(win -- rows 1002 | cut -f3,5-8 | tr '\t\n' '| ')" \
  "3|D:\\|Hard disk|Ready|250.1 GB 3|E:\\|Hard disk|Ready|1000.2 GB 4|F:\\|Removable media|Ready|16.0 GB "
shot main_window_drive_rows "$title"
# A drive keeps the folder it was listed with until the folder is changed
# while it is selected.
choose_folder() { win -- settext 1003 "$(winpath "$work/pk")" -- keyup 1003 13 -- sync -- sleep 300 -- sync; }

# D: shares its physical disk with the system: refused with the reason,
# nothing starts, the row stays ready.
system_data=$(row_of 'D:\')
win -- selectrow 1002 "$system_data" -- sync -- sleep 300 -- sync
choose_folder
win -- clickrow 1001 "$(package_row system)" -- sync -- sleep 200 -- sync
win -- click 1023 > /dev/null
expect_eq "refusal box" "$(drive box Error 10000)" \
  "D: cannot be erased: physical disk 0 holds it together with C: (the system volume, the Windows folder, a page file), and the whole disk would be erased"
expect_eq "refused row" "$(win -- sync -- rows 1002 | awk -F'\t' -v r="$system_data" '$1 == r { print $7 }')" "Ready"
tr -d '\r' < "$work/gui.log" | grep -q "name=Unnamed" && fail "an installation started for a refused drive"

# FLASH: options that only a network router has stay locked.
flash=$(row_of 'F:\')
win -- selectrow 1002 "$flash" -- sync -- sleep 300 -- sync
# The row's label cell is narrow: the status bar names the disk whole.
expect_eq "disk in the status bar" "$(win -- text 102)" \
  "F:\\ is disk 2, 16.0 GB, SanDisk Cruzer Blade: Install erases the whole disk"
shot main_window_drive_selected "$title"
choose_folder
expect_eq "address locked" "$(win -- state 1006 | cut -d' ' -f3)" "readonly=1"
expect_eq "keep config off" "$(win -- state 1028 | cut -d' ' -f1)" "enabled=0"
win -- clickrow 1001 "$(package_row extra)" -- sync -- sleep 200 -- sync
expect_eq "ticked" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "1 1 "
win -- click 1023
drive_ok win "$title" -- waitcell 1002 "$flash" 2 Installing 10000
sleep 1
shot main_window_drive_installing "$title"
drive_ok win "$title" -- waitcell 1002 "$flash" 2 Done 20000
copies=$(tr -d '\r' < "$work/gui.log" | sed -n 's/^fake copy: //p' | tr '\n' ',')
expect_eq "packages copied in order" "$copies" "system-6.41.npk,extra-6.41.npk,"

# E: cancelled while it is formatted: ready again once nothing runs on it.
data=$(row_of 'E:\')
win -- selectrow 1002 "$data" -- sync -- sleep 300 -- sync
# This time the folder is dropped on the window.
win -- drop "$(winpath "$work/pk")" -- sync
expect_eq "dropped folder" "$(win -- text 1003)" "$(winpath "$work/pk")"
win -- clickrow 1001 "$(package_row system)" -- sync -- sleep 200 -- sync
win -- click 1023
drive_ok win "$title" -- waitcell 1002 "$data" 2 Installing 10000
expect_eq "Cancel while installing" "$(win -- state 1024 | cut -d' ' -f1)" "enabled=1"
win -- click 1024
drive_ok win "$title" -- waitcell 1002 "$data" 2 Ready 10000
log_has "failed: Installation cancelled" || fail "the drive's installation was not cancelled"
log_has "thread still active, terminating" && fail "a thread was killed"
expect_eq "Install again" "$(win -- sync -- state 1023 | cut -d' ' -f1)" "enabled=1"

win -- sysclose
timeout 60 tail --pid="$gui_pid" -f /dev/null
wait "$gui_pid"
rc=$?
gui_pid=
expect_eq "exit code" "$rc" 0
echo "PASS: local drives in the window"
