#!/bin/bash
# `serve --netboot` run as an ordinary user (nobody) holding only the
# capability the service units grant, CAP_NET_BIND_SERVICE: it binds 67 and
# 69, answers a BOOTP request and installs a simulated router. Without the capability it
# refuses to start, exit 1, and names what is missing.
# usage: unprivileged_test.sh TARNLIFT ROUTERSIM MKPKG BOOTPCLIENT
set -u
tarnlift=$1 routersim=$2 mkpkg=$3 bootpclient=$4
skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v setpriv > /dev/null || skip "needs setpriv"
# The user must reach the programs (a checkout in a private home would not do).
setpriv --reuid=65534 --regid=65534 --clear-groups test -x "$tarnlift" || skip "nobody cannot run $tarnlift"
# shellcheck source=../lib/netns_pair.sh
source "$(dirname "$0")/../lib/netns_pair.sh"
netns_names tlu
work=$(mktemp -d /tmp/tl-unpriv-XXXXXX)
serve_pid=
cleanup() { [ -n "$serve_pid" ] && kill "$serve_pid" 2> /dev/null; netns_remove; rm -rf "$work"; }
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  for f in "$work"/*.err "$work"/*.out; do [ -e "$f" ] && { echo "--- $(basename "$f")"; tail -15 "$f"; }; done
  exit 1
}
netns_pair
case $? in 0) ;; 2) skip "cannot create network namespaces" ;; *) fail "veth pair" ;; esac
mkdir -p "$work/pk" "$work/home" "$work/out" "$work/images"
chmod 755 "$work" "$work/pk" "$work/images"
chmod 777 "$work/home"
"$mkpkg" "$work/pk/system-6.41.npk" --package system 6.41 --arch arm --data 40000 > /dev/null || fail "mkpkg"
printf 'boot image 137' > "$work/body"
"$tarnlift" bootimage wrap 137 "$work/body" "$work/images" > /dev/null || fail "wrap"
chmod 644 "$work/pk"/* "$work/images"/*

as_nobody() { # CAPS ARGS...
  local caps=$1
  shift
  local grant=()
  [ -n "$caps" ] && grant=(--inh-caps="+$caps" --ambient-caps="+$caps")
  ip netns exec "$srv" setpriv --reuid=65534 --regid=65534 --clear-groups "${grant[@]}" \
    env HOME="$work/home" XDG_CONFIG_HOME="$work/home/config" "$@"
}

# Without the capability: refused before anything is bound.
as_nobody "" timeout --foreground 30 "$tarnlift" serve --netboot --boot-images "$work/images" --client-address 192.168.88.1 \
  --packages "$work/pk" > "$work/bare.out" 2> "$work/bare.err"
rc=$?
[ $rc = 1 ] || fail "without the capability: exit $rc, expected 1"
grep -q "CAP_NET_BIND_SERVICE" "$work/bare.err" || fail "the missing capability is not named"

# With it: BOOTP answered, the router installed.
(as_nobody net_bind_service timeout --foreground 90 "$tarnlift" serve --netboot --boot-images "$work/images" \
  --client-address 192.168.88.1 --packages "$work/pk" --select system-6.41.npk --count 1 \
  > "$work/serve.out" 2> "$work/serve.err") &
serve_pid=$!
for _ in $(seq 1 100); do grep -q "serve: installing on" "$work/serve.err" 2> /dev/null && break; sleep 0.1; done
grep -q "serve: installing on 192.168.88.2" "$work/serve.err" || fail "serve did not start as nobody"
ip netns exec "$rtr" timeout --foreground 20 "$bootpclient" --interface "$veth_b" --vendor-class ARM__boot \
  --client 192.168.88.1 --server 192.168.88.2 > "$work/bootp.out" 2> "$work/bootp.err" || fail "no BOOTP answer"
ip netns exec "$rtr" timeout --foreground 60 "$routersim" --interface "$veth_b" --output "$work/out" --repeat-ms 300 \
  > "$work/sim.out" 2> "$work/sim.err" || fail "routersim exit $?"
wait "$serve_pid"
rc=$?
serve_pid=
[ $rc = 0 ] || fail "serve as nobody exit $rc"
cmp -s "$work/pk/system-6.41.npk" "$work/out/02-00-00-00-00-01/system-6.41.npk" || fail "package differs"
echo "PASS"
