#!/usr/bin/env bash
# A second server on the same network refuses to start: while another
# process holds the single-instance guard, `tarnlift serve` prints the
# "already running" text and fails (exit 1) without touching the network.
# Runs in a network namespace of its own when root (the guard belongs to a
# network namespace), so that a real server on this machine is not disturbed.
set -u
tarnlift=$1
command -v python3 >/dev/null || { echo "SKIP: needs python3"; exit 77; }
if [ "$(id -u)" = 0 ] && [ -z "${TL_IN_NETNS:-}" ] && command -v unshare >/dev/null; then
  TL_IN_NETNS=1 exec unshare -n "$0" "$@"
fi
work=$(mktemp -d)
trap 'kill $holder 2>/dev/null; rm -rf "$work"' EXIT
python3 - "$work/ready" <<'PY' &
import socket, sys, time
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.bind("\0tarnlift.SingleNetservInstanceMutex")
open(sys.argv[1], "w").close()
time.sleep(60)
PY
holder=$!
for _ in $(seq 1 100); do [ -e "$work/ready" ] && break; sleep 0.05; done
[ -e "$work/ready" ] || { echo "FAIL: could not hold the guard"; exit 1; }
HOME=$work XDG_CONFIG_HOME=$work/config timeout --foreground 30 "$tarnlift" serve --client-address 127.0.0.1 >"$work/out" 2>"$work/err"
rc=$?
[ "$rc" -eq 1 ] || { echo "FAIL: exit code $rc, expected 1"; cat "$work/err"; exit 1; }
grep -qx "QL Router Install Server is already running" "$work/err" || { echo "FAIL: no refusal"; cat "$work/err"; exit 1; }
[ -s "$work/out" ] && { echo "FAIL: standard output should be empty"; exit 1; }
grep -q "serve: installing" "$work/err" && { echo "FAIL: it went on serving"; exit 1; }

# Without the holder the guard is free: the same command goes on (and
# stops at the interface check, which has nothing to do with the guard).
kill $holder; wait $holder 2>/dev/null
HOME=$work XDG_CONFIG_HOME=$work/config timeout --foreground 30 "$tarnlift" serve --client-address 127.0.0.1 >"$work/out" 2>"$work/err"
grep -q "already running" "$work/err" && { echo "FAIL: refused without a holder"; exit 1; }
echo "PASS"
