#!/bin/bash
# One host, two segments: a server namespace with two interfaces, each joined
# to a router namespace of its own. Two `tarnlift serve --interface` run side
# by side, each from an options file as its tarnlift@ instance would; each
# installs only the router on its own side. A third server on an interface
# already served is refused (exit 1); one whose interface does not reach its
# client address fails (exit 1) naming the interface.
# usage: two_segments_test.sh TARNLIFT ROUTERSIM MKPKG
set -u
tarnlift=$1 routersim=$2 mkpkg=$3
skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
id=$$$RANDOM
srv=tl2s$id r1=tl2r$id r2=tl2q$id
a1=tl2a${id:0:9} b1=tl2b${id:0:9} a2=tl2c${id:0:9} b2=tl2d${id:0:9}
work=$(mktemp -d /tmp/tl-2seg-XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2> /dev/null; done
  ip netns del "$srv" 2> /dev/null; ip netns del "$r1" 2> /dev/null; ip netns del "$r2" 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  for f in "$work"/*.err "$work"/*.out; do echo "--- $(basename "$f")"; tail -15 "$f"; done
  exit 1
}
ip netns add "$srv" || skip "cannot create network namespaces"
ip netns add "$r1" && ip netns add "$r2" || fail "namespaces"
ip link add "$a1" type veth peer name "$b1" && ip link add "$a2" type veth peer name "$b2" || fail "veth pairs"
ip link set "$a1" netns "$srv"; ip link set "$a2" netns "$srv"
ip link set "$b1" netns "$r1"; ip link set "$b2" netns "$r2"
ip -n "$srv" addr add 192.168.61.2/24 dev "$a1"; ip -n "$srv" addr add 192.168.62.2/24 dev "$a2"
for link in "$a1" "$a2" lo; do ip -n "$srv" link set "$link" up; done
ip -n "$r1" link set "$b1" up; ip -n "$r1" link set lo up
ip -n "$r2" link set "$b2" up; ip -n "$r2" link set lo up

mkdir -p "$work/pk1" "$work/pk2" "$work/home1" "$work/home2" "$work/out1" "$work/out2"
"$mkpkg" "$work/pk1/system-6.41.npk" --package system 6.41 --arch arm --data 50000 > /dev/null || fail "mkpkg"
"$mkpkg" "$work/pk2/system-6.42.npk" --package system 6.42 --arch arm --data 60000 > /dev/null || fail "mkpkg"
printf -- '--interface %s\n--client-address 192.168.61.1\n--packages %s\n--select system-6.41.npk\n--count 1\n' \
  "$a1" "$work/pk1" > "$work/one.conf"
printf -- '--interface %s\n--client-address 192.168.62.1\n--packages %s\n--select system-6.42.npk\n--count 1\n' \
  "$a2" "$work/pk2" > "$work/two.conf"

serve() { # NAME CONF
  (HOME=$work/home$1 XDG_CONFIG_HOME=$work/home$1/config exec ip netns exec "$srv" timeout --foreground 90 "$tarnlift" serve \
    --options-file "$2" > "$work/serve$1.out" 2> "$work/serve$1.err") &
  pids+=($!)
}
serve 1 "$work/one.conf"
serve1=${pids[-1]}
serve 2 "$work/two.conf"
serve2=${pids[-1]}
for n in 1 2; do
  for _ in $(seq 1 100); do grep -q "serve: installing on" "$work/serve$n.err" 2> /dev/null && break; sleep 0.1; done
  grep -q "serve: installing on 192.168.6$n.2" "$work/serve$n.err" || fail "server $n did not start on its interface"
done

# A third server on the first interface: refused, the first goes on.
HOME=$work/home3 ip netns exec "$srv" timeout --foreground 30 "$tarnlift" serve --interface "$a1" --client-address 192.168.61.1 \
  > "$work/serve3.out" 2> "$work/serve3.err"
rc=$?
[ $rc = 1 ] || fail "a second server on $a1 exited $rc, expected 1"
grep -qx "QL Router Install Server is already running" "$work/serve3.err" || fail "no refusal for the second server"
# An interface that does not reach the client address.
HOME=$work/home3 ip netns exec "$srv" timeout --foreground 30 "$tarnlift" serve --interface lo --client-address 192.168.61.1 \
  > "$work/serve4.out" 2> "$work/serve4.err"
rc=$?
[ $rc = 1 ] || fail "a wrong interface exited $rc, expected 1"
grep -q "the interface lo does not reach 192.168.61.1" "$work/serve4.err" || fail "wrong interface not named"

ip netns exec "$r1" timeout --foreground 60 "$routersim" --interface "$b1" --output "$work/out1" --repeat-ms 300 \
  > "$work/sim1.out" 2> "$work/sim1.err" &
pids+=($!)
sim1=${pids[-1]}
ip netns exec "$r2" timeout --foreground 60 "$routersim" --interface "$b2" --output "$work/out2" --repeat-ms 300 \
  > "$work/sim2.out" 2> "$work/sim2.err" &
pids+=($!)
sim2=${pids[-1]}
wait "$sim1" || fail "router 1 exit $?"
wait "$sim2" || fail "router 2 exit $?"
wait "$serve1" || fail "server 1 exit $?"
wait "$serve2" || fail "server 2 exit $?"
cmp -s "$work/pk1/system-6.41.npk" "$work/out1/02-00-00-00-00-01/system-6.41.npk" || fail "router 1 did not get its package"
cmp -s "$work/pk2/system-6.42.npk" "$work/out2/02-00-00-00-00-01/system-6.42.npk" || fail "router 2 did not get its package"
[ -e "$work/out1/02-00-00-00-00-01/system-6.42.npk" ] && fail "router 1 got the other segment's package"
[ -e "$work/out2/02-00-00-00-00-01/system-6.41.npk" ] && fail "router 2 got the other segment's package"
grep -q $'02:00:00:00:00:01\tInstallation finished successfully' "$work/serve1.out" || fail "server 1 result"
grep -q $'02:00:00:00:00:01\tInstallation finished successfully' "$work/serve2.out" || fail "server 2 result"
echo "PASS"
