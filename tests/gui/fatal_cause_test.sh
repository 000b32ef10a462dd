#!/usr/bin/env bash
# The window's fatal box names the cause: tarnlift.exe with network booting
# on, in a namespace where another program holds UDP 69 on the served
# address, ends with its "Error" box showing the bind failure as before and,
# under it, the doctor's finding for port 69. Exit code 1.
#   fatal_cause_test.sh TARNLIFT_EXE GUIPROBE
set -u
gui=$(realpath "$1")
probe=$(realpath "$2")
skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
command -v wine > /dev/null || skip "needs wine"
command -v python3 > /dev/null || skip "needs python3"
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run > /dev/null || skip "no display and no xvfb-run"
  exec xvfb-run -a "$0" "$@"
fi
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../lib/netns_pair.sh
source "$here/../lib/netns_pair.sh"
netns_names tlf
work=$(mktemp -d /tmp/tl-fatal-XXXXXX)
holder_pid=
gui_pid=
cleanup() {
  [ -n "$gui_pid" ] && kill "$gui_pid" 2> /dev/null
  [ -n "$holder_pid" ] && kill "$holder_pid" 2> /dev/null
  WINEPREFIX=$work/wine wineserver -k 2> /dev/null
  netns_remove
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
fail() {
  echo "FAIL: $*"
  echo "--- window log (tail)"; tr -d '\r' < "$work/gui.log" 2> /dev/null | grep -v "^iface: " | tail -20
  exit 1
}
netns_pair 192.168.88.1
case $? in
  0) ;;
  2) skip "cannot create network namespaces" ;;
  *) fail "cannot join the namespaces by a veth pair" ;;
esac
export WINEPREFIX=$work/wine WINEDEBUG=-all
ip netns exec "$srv" wineboot -i > /dev/null 2>&1
settings='HKCU\SOFTWARE\Quenlark\NetServer'
ip netns exec "$srv" wine reg add "$settings" /v "PXE Enabled" /t REG_DWORD /d 1 /f > /dev/null 2>&1 ||
  fail "cannot write the settings"
ip netns exec "$srv" wine reg add "$settings" /v "PXE Client Address" /t REG_DWORD /d 0x0158a8c0 /f > /dev/null 2>&1 ||
  fail "cannot write the settings"
# A TFTP service of the machine on the served address, without address reuse.
ip netns exec "$srv" python3 -c '
import socket, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("192.168.88.2", 69))
print("holding", flush=True)
time.sleep(300)' > "$work/holder.out" 2>&1 &
holder_pid=$!
for _ in $(seq 1 50); do grep -q holding "$work/holder.out" && break; sleep 0.1; done
grep -q holding "$work/holder.out" || fail "could not hold port 69"

mkdir -p "$work/start"
(cd "$work/start" && exec ip netns exec "$srv" timeout 120 wine "$gui" > "$work/gui.log" 2>&1) &
gui_pid=$!
text=$(wine "$probe" box Error 60000 2> "$work/probe.err" | tr -d '\r') || fail "no Error box ($(tail -2 "$work/probe.err"))"
printf '%s\n' "$text"
wait "$gui_pid"
rc=$?
gui_pid=
first=$(printf '%s\n' "$text" | sed -n 1p)
second=$(printf '%s\n' "$text" | sed -n 2p)
case "$first" in
  "bind tftp general failed: "*) ;;
  *) fail "the fatal text changed: '$first'" ;;
esac
case "$second" in
  "doctor: fail port 69/udp: held by "*" on 192.168.88.2; fix: "*) ;;
  *) fail "no finding under the fatal text: '$second'" ;;
esac
[ "$rc" = 1 ] || fail "exit code $rc, expected 1"
echo "PASS: the window's fatal box names who holds port 69"
