#!/usr/bin/env bash
# The modal dialogs on their own (dialogdemo opens them from the program's
# resources): the help text byte for byte, its keys and close box; "Save
# set" with its start name, OK and Cancel; "Network
# Booting Settings" with its refusals. Saves screenshots and checks that no
# control overlaps another and no text is clipped.
#   dialogs_test.sh DIALOGDEMO GUIPROBE [SCREENSHOT_DIR]
set -u
demo=$1
probe=$2
shots=${3:-}
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run > /dev/null || { echo "SKIP: no display and no xvfb-run"; exit 77; }
  exec xvfb-run -a "$0" "$@"
fi
command -v wine > /dev/null || { echo "SKIP: no wine"; exit 77; }
export WINEDEBUG=-all
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
demo_pid=""
cleanup() {
  [ -n "$demo_pid" ] && kill "$demo_pid" 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  echo "--- demo output:"; cat "$work/demo.out" 2> /dev/null
  echo "--- driver errors:"; tail -20 "$work/probe.err" 2> /dev/null
  exit 1
}
# shellcheck source=gui_lib.sh
source "$here/gui_lib.sh"
wine_title_bars

open_demo() {
  wine "$demo" "$@" > "$work/demo.out" 2>&1 &
  demo_pid=$!
}
# Waits for the demo to end; its results are the lines it printed, without
# the log lines of the code under it.
end_demo() {
  timeout 30 tail --pid="$demo_pid" -f /dev/null
  wait "$demo_pid"
  demo_pid=""
}
demo_result() { tr -d '\r' < "$work/demo.out" | grep -E "^(closed|accepted|cancelled)"; }

# --- Help: the text exactly, the focus on "Close".
{
  printf '\r\n'
  sed 's/$/\r/' "$here/help_expected.txt" | head -c -2
} > "$work/help_expected.bin"
open_demo help
drive_ok dlg Help 60000 > /dev/null
wine "$probe" dlg Help -- text 1030 > "$work/help_shown.txt" 2>> "$work/probe.err" || fail "cannot read the help text"
# The driver ends what it prints with one line feed.
head -c -1 "$work/help_shown.txt" > "$work/help_shown.bin"
cmp "$work/help_expected.bin" "$work/help_shown.bin" || fail "the help text differs"
expect_eq "focus at opening" "$(drive dlg Help -- focus)" 1031
drive_ok dlg Help -- layout > /dev/null
shot dialog106_help Help
# A "Close" notification other than a click leaves it open; Esc closes it.
drive_ok dlg Help -- command 1031 1 -- sync -- sleep 300
drive_ok dlg Help 1000 > /dev/null
drive_ok dlg Help -- key 1031 27 -- gone Help 10000
end_demo
expect_eq "help after Esc" "$(demo_result)" "closed 0"
open_demo help
drive_ok dlg Help 60000 -- sysclose -- gone Help 10000
end_demo
expect_eq "help after the close box" "$(demo_result)" "closed 0"
open_demo help
drive_ok dlg Help 60000 -- click 1031 -- gone Help 10000
end_demo
expect_eq "help after Close" "$(demo_result)" "closed 0"

# --- Save set: starts with the given name; OK hands the typed one back.
# (The window opening it again after a refusal, with the name typed last, is
# the window's doing: gui_window_install checks that through the real window.)
open_demo saveset "Router x"
drive_ok dlg "Save set" 60000 > /dev/null
expect_eq "start name" "$(drive dlg "Save set" -- text 1000)" "Router x"
drive_ok dlg "Save set" -- layout > /dev/null
shot dialog102_save_set "Save set"
drive_ok dlg "Save set" -- settext 1000 "Lab routers" -- click 1001 -- sleep 500
drive_ok dlg "Save set" 10000 > /dev/null
drive_ok dlg "Save set" -- click 1024 -- gone "Save set" 10000
end_demo
expect_eq "save set results" "$(demo_result | tr '\n' '|')" "accepted 'Lab routers'|cancelled|"
open_demo saveset "Router x"
drive_ok dlg "Save set" 60000 -- key 1000 27 -- gone "Save set" 10000
end_demo
expect_eq "save set after Esc" "$(demo_result)" "cancelled"
open_demo saveset "Router x"
drive_ok dlg "Save set" 60000 -- sysclose -- gone "Save set" 10000
end_demo
expect_eq "save set after the close box" "$(demo_result)" "cancelled"

# --- Network Booting Settings.
nb="Network Booting Settings"
open_demo netboot 0 192.168.88.1
drive_ok dlg "$nb" 60000 > /dev/null
expect_eq "switch off" "$(drive dlg "$nb" -- state 1032)" "enabled=1 checked=0 readonly=0 visible=1"
expect_eq "address shown" "$(drive dlg "$nb" -- text 1033)" "192.168.88.1"
expect_eq "address locked" "$(drive dlg "$nb" -- state 1033)" "enabled=0 checked=0 readonly=0 visible=1"
drive_ok dlg "$nb" -- layout > /dev/null
# Ticking the switch unlocks the address; the screenshot shows it on.
drive_ok dlg "$nb" -- click 1032 -- sync
expect_eq "address unlocked" "$(drive dlg "$nb" -- state 1033)" "enabled=1 checked=0 readonly=0 visible=1"
shot dialog107_netboot "$nb"
drive_ok dlg "$nb" -- click 1032 -- sync
# Switched off, a bad text is still refused; the field is emptied.
drive_ok dlg "$nb" -- settext 1033 abc -- click 1001
expect_eq "bad address box" "$(drive box Error 10000)" "Bad client address"
drive_ok dlg "$nb" -- sync
expect_eq "emptied" "$(drive dlg "$nb" -- text 1033)" ""
# Switched off, any valid address closes without an interface check.
drive_ok dlg "$nb" -- settext 1033 10.77.0.1 -- click 1001 -- gone "$nb" 10000
end_demo
expect_eq "accepted switched off" "$(demo_result)" "accepted 0 10.77.0.1"

open_demo netboot 1 10.77.0.1
drive_ok dlg "$nb" 60000 -- click 1001 > /dev/null
expect_eq "no interface box" "$(drive box Error 10000)" "Could not find network interface"
drive_ok dlg "$nb" -- settext 1033 255.255.255.255 -- click 1001
expect_eq "broadcast refused" "$(drive box Error 10000)" "Bad client address"
drive_ok dlg "$nb" -- click 1024 -- gone "$nb" 10000
end_demo
expect_eq "cancelled" "$(demo_result)" "cancelled"
open_demo netboot 1 10.77.0.1
drive_ok dlg "$nb" 60000 -- sysclose -- gone "$nb" 10000
end_demo
expect_eq "close box" "$(demo_result)" "cancelled"

echo "PASS: help, save set and network booting dialogs"
