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
window_ns_prefix=tlf
window_work_prefix=tl-fatal
shots=
# shellcheck source=window_netns.sh
source "$here/window_netns.sh"
# shellcheck source=../lib/hold_udp_port.sh
source "$here/../lib/hold_udp_port.sh"
settings='HKCU\SOFTWARE\Quenlark\NetServer'
in_srv wine reg add "$settings" /v "PXE Enabled" /t REG_DWORD /d 1 /f > /dev/null 2>&1 || fail "cannot write the settings"
in_srv wine reg add "$settings" /v "PXE Client Address" /t REG_DWORD /d 0x0158a8c0 /f > /dev/null 2>&1 ||
  fail "cannot write the settings"
# A TFTP service of the machine on the served address.
hold_udp_port "$srv" 192.168.88.2 69 "$work/holder.out" || fail "could not hold port 69"
bg_pids+=("$holder_pid")

mkdir -p "$work/start"
(cd "$work/start" && exec ip netns exec "$srv" timeout 120 wine "$gui" > "$work/gui.log" 2>&1) &
gui_pid=$!
text=$(drive box Error 60000) || fail "no Error box ($(tail -2 "$work/probe.err"))"
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
