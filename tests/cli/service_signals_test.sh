#!/usr/bin/env bash
# `serve` as a service manager runs it: READY=1 on $NOTIFY_SOCKET once it
# listens and STOPPING=1 on its way out; "<N>" priorities in front of its
# lines when standard error is the journal's stream; SIGHUP re-reads the
# package folder and does not end it; SIGTERM ends it cleanly (exit 0,
# settings saved). Runs in a network namespace of its own with a veth pair
# interface (root; skipped otherwise).
set -u
tarnlift=$1
command -v python3 >/dev/null || { echo "SKIP: needs python3"; exit 77; }
if [ "$(id -u)" != 0 ]; then echo "SKIP: needs root for a namespace"; exit 77; fi
if [ -z "${TL_IN_NETNS:-}" ]; then
  TL_IN_NETNS=1 exec unshare -n "$0" "$@"
fi
ip link add tl-d0 type veth peer name tl-d1 && ip addr add 10.9.0.1/24 dev tl-d0 && ip link set tl-d0 up &&
  ip link set tl-d1 up && ip link set lo up ||
  { echo "SKIP: no veth pair"; exit 77; }
work=$(mktemp -d)
listener=
server=
trap 'kill $server $listener 2>/dev/null; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; echo "--- stderr:"; cat "$work/err" 2>/dev/null; echo "--- notify:"; cat "$work/notify.log" 2>/dev/null; exit 1; }
mkdir "$work/pk" "$work/config"

python3 - "$work/notify" "$work/notify.log" <<'PY' &
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1])
s.settimeout(60)
with open(sys.argv[2], "a", buffering=1) as log:
    while True:
        try:
            data = s.recv(4096)
        except socket.timeout:
            break
        log.write(data.decode() + "\n")
PY
listener=$!
for _ in $(seq 1 100); do [ -S "$work/notify" ] && break; sleep 0.05; done
[ -S "$work/notify" ] || fail "no notify socket"

# The journal hands over a stream and names it by device and inode.
: > "$work/err"
journal=$(stat -c '%d:%i' "$work/err")
# The options come as a unit gives them: from an options file.
printf '[02:00:00:00:00:01]\naddress = 10.9.0.21/24\n' > "$work/inventory.ini"
printf '# segment one\n--client-address 10.9.0.2\n\n  --packages   %s\n--inventory %s\n' "$work/pk" "$work/inventory.ini" \
  > "$work/tl.conf"
HOME=$work XDG_CONFIG_HOME=$work/config NOTIFY_SOCKET=$work/notify JOURNAL_STREAM=$journal \
  "$tarnlift" serve --options-file "$work/tl.conf" > "$work/out" 2>> "$work/err" &
server=$!
for _ in $(seq 1 200); do grep -q "READY=1" "$work/notify.log" 2>/dev/null && break; sleep 0.05; done
grep -q "READY=1" "$work/notify.log" || fail "no READY=1"
grep -q "^<6>serve: installing on 10.9.0.1" "$work/err" || fail "no <6> in front of the start line"

kill -HUP $server
for _ in $(seq 1 100); do grep -q "re-read: 1 routers" "$work/err" && break; sleep 0.05; done
grep -q "^<6>serve: hang-up: re-reading the package folder $work/pk" "$work/err" || fail "SIGHUP not taken"
sleep 0.3
kill -0 $server 2>/dev/null || fail "SIGHUP ended the server"
grep -q "^<6>serve: hang-up: inventory $work/inventory.ini re-read: 1 routers" "$work/err" || fail "inventory not re-read"

# The inventory is read again on a hang-up: a new section counts; a bad
# line keeps the one in force and the server running.
printf '[02:00:00:00:00:01]\naddress = 10.9.0.21/24\n[02:00:00:00:00:02]\naddress = 10.9.0.22/24\n' > "$work/inventory.ini"
kill -HUP $server
for _ in $(seq 1 100); do grep -q "re-read: 2 routers" "$work/err" && break; sleep 0.05; done
grep -q "^<6>serve: hang-up: inventory $work/inventory.ini re-read: 2 routers" "$work/err" || fail "new inventory not read"
printf '[02:00:00:00:00:01]\naddress = 10.9.0\n' > "$work/inventory.ini"
kill -HUP $server
for _ in $(seq 1 100); do grep -q "inventory not re-read" "$work/err" && break; sleep 0.05; done
grep -q "^<4>serve: hang-up: inventory not re-read, the previous one stays: .*inventory.ini:2: " "$work/err" ||
  fail "a bad inventory on hang-up is not named"
sleep 0.3
kill -0 $server 2>/dev/null || fail "a bad inventory on hang-up ended the server"

kill -TERM $server
rc=
for _ in $(seq 1 100); do
  if ! kill -0 $server 2>/dev/null; then wait $server; rc=$?; break; fi
  sleep 0.05
done
[ -n "$rc" ] || fail "SIGTERM did not end the server within 5 s"
server=
[ "$rc" = 0 ] || fail "exit code $rc after SIGTERM, expected 0"
for _ in $(seq 1 40); do grep -q "STOPPING=1" "$work/notify.log" && break; sleep 0.05; done
grep -q "STOPPING=1" "$work/notify.log" || fail "no STOPPING=1"
grep -q "^<6>serve: 0 installed, 0 failed" "$work/err" || fail "no closing line"
grep -rq "$work/pk" "$work/config" || fail "settings not saved (no Package Path in $work/config)"

# A line of the options file that is not a long option is named.
printf -- '--client-address 10.9.0.2\nclient-address 1\n' > "$work/bad.conf"
"$tarnlift" serve --options-file="$work/bad.conf" 2> "$work/bad.err"
[ $? = 2 ] || fail "a bad options file is a usage error"
grep -q "bad.conf:2: not a long option" "$work/bad.err" || { cat "$work/bad.err"; fail "bad line not named"; }
# A refusal on the journal carries the error priority.
JOURNAL_STREAM=$journal "$tarnlift" serve --client-address 10.9.0.2 --count 0 2>> "$work/err"
[ $? = 2 ] || fail "--count 0 is a usage error"
grep -q "^<3>tarnlift: --count needs a positive number" "$work/err" || fail "refusal without <3>"
# Standard error that is not the journal's stream gets no priorities.
JOURNAL_STREAM=$journal "$tarnlift" serve --client-address 10.9.0.2 --count 0 2> "$work/other"
grep -q "^tarnlift: --count" "$work/other" || { cat "$work/other"; fail "priorities on a stream that is not the journal"; }
echo "PASS"
