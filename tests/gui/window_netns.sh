# Sourced by the window tests that run tarnlift.exe in a server namespace
# with a router namespace beside it: the namespaces, the Wine prefix made
# inside the server namespace, clean-up, and the driver's helpers (drive,
# drive_ok, expect_eq, win, shot, winpath, in_srv, in_rtr, fail).
# Expects $here, $probe, $shots, $window_ns_prefix and $window_work_prefix;
# sets $work, $srv, $rtr, $title, and the PIDs $gui_pid and $sim_pid that the
# clean-up ends (with any in $bg_pids).
# shellcheck source=../lib/netns_pair.sh
source "$here/../lib/netns_pair.sh"
netns_names "$window_ns_prefix"
work=$(mktemp -d "/tmp/$window_work_prefix-XXXXXX")
gui_pid=
sim_pid=
bg_pids=()
cleanup() {
  [ -n "$gui_pid" ] && kill "$gui_pid" 2> /dev/null
  [ -n "$sim_pid" ] && kill "$sim_pid" 2> /dev/null
  for p in "${bg_pids[@]}"; do kill "$p" 2> /dev/null; done
  # Only the Wine server of the prefix made here.
  WINEPREFIX=$work/wine wineserver -k 2> /dev/null
  netns_remove
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

# Failures are told on standard error, which reaches the log also from inside
# $(...). Not on a copy of standard output kept open on another descriptor:
# the Wine services that the program starts would inherit it and hold the
# test's output open after the test has ended.
fail() {
  exec 1>&2
  echo "FAIL: $*"
  echo "--- window log (tail)"; tr -d "\r" < "$work/gui.log" 2> /dev/null | grep -v "^iface: " | tail -40
  echo "--- driver errors (tail)"; tail -20 "$work/probe.err" 2> /dev/null
  echo "--- routersim"; cat "$work/sim.out" 2> /dev/null; tail -10 "$work/sim.err" 2> /dev/null
  exit 1
}

# The router end has an address for the TFTP client; the simulator does
# not need one.
netns_pair 192.168.88.1
case $? in
  0) ;;
  2) skip "cannot create network namespaces" ;;
  *) fail "cannot join the namespaces by a veth pair" ;;
esac

export WINEPREFIX=$work/wine WINEDEBUG=-all
# The Wine server and its services start inside the server namespace, so
# that the program sees that namespace's interfaces only.
in_srv() { ip netns exec "$srv" "$@"; }
in_rtr() { ip netns exec "$rtr" "$@"; }
in_srv wineboot -i > /dev/null 2>&1
in_srv wine reg add 'HKCU\Software\Wine\X11 Driver' /v Decorated /d N /f > /dev/null 2>&1

# The driver runs in the namespace too (it talks to the same Wine server).
drive() { in_srv wine "$probe" "$@" 2>> "$work/probe.err" | tr -d '\r'; return "${PIPESTATUS[0]}"; }
drive_ok() {
  local out
  out=$(drive "$@") || fail "driver failed: $* ($(tail -3 "$work/probe.err"))"
  [ -n "$out" ] && printf '%s\n' "$out"
  return 0
}
expect_eq() { [ "$2" = "$3" ] || fail "$1: got '$2', expected '$3'"; }
title="Quenlark Tarnlift for Brisvane"
win() { drive_ok win "$title" 30000 -- "$@"; }
shot() {
  [ -n "$shots" ] || return 0
  command -v import > /dev/null || return 0
  mkdir -p "$shots"
  local rect left top right bottom
  rect=$(drive win "$2" 5000 -- sync -- sleep 700 -- sync -- rect) || return 0
  read -r left top right bottom <<< "$rect"
  [ "$left" -lt 0 ] && left=0
  [ "$top" -lt 0 ] && top=0
  import -window root "$work/screen.png" 2> /dev/null || return 0
  convert "$work/screen.png" -crop "$((right - left))x$((bottom - top))+$left+$top" +repage "$shots/$1.png"
  echo "screenshot: $shots/$1.png"
}
winpath() { local p=${1//\//\\}; echo "Z:$p"; }
