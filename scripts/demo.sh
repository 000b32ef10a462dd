#!/usr/bin/env bash
# The main job, end to end on one machine: a server namespace runs
# `tarnlift serve`, a router namespace runs two simulated routers, joined by
# a veth pair. The routers announce themselves, get a folder of generated
# packages and an autorun script, and are rebooted. Needs root; removes
# everything it made on the way out.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bin=${TARNLIFT_BIN:-$here/build/linux/bin}
# shellcheck source=as_root.sh
source "$here/scripts/as_root.sh"
as_root demo "$@"
for program in tarnlift routersim tarnlift-mkpkg; do
  [ -x "$bin/$program" ] || { echo "demo: $bin/$program is missing; build first (bash scripts/build.sh)"; exit 2; }
done

srv=tl-demo-srv rtr=tl-demo-rtr
work=$(mktemp -d /tmp/tarnlift-demo.XXXXXX)
cleanup() {
  ip netns del "$srv" 2>/dev/null || true
  ip netns del "$rtr" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
cleanup
work=$(mktemp -d /tmp/tarnlift-demo.XXXXXX)

ip netns add "$srv"
ip netns add "$rtr"
ip link add tl-demo-a type veth peer name tl-demo-b
ip link set tl-demo-a netns "$srv"
ip link set tl-demo-b netns "$rtr"
ip -n "$srv" addr add 192.168.88.2/24 dev tl-demo-a
ip -n "$srv" link set tl-demo-a up
ip -n "$srv" link set lo up
ip -n "$rtr" link set tl-demo-b up
ip -n "$rtr" link set lo up

echo "== Packages"
mkdir -p "$work/pk"
"$bin/tarnlift-mkpkg" "$work/pk/system-6.41.npk" --package system 6.41 --arch arm --description "Main package" --data 5000000
"$bin/tarnlift-mkpkg" "$work/pk/extra-6.41.npk" --package extra 6.41 --arch arm --depends system:6.41 --data 200000
"$bin/tarnlift" packages --arch 6 --tick extra-6.41.npk "$work/pk" 2>/dev/null

echo "== Installing two routers (server log in $work/serve.log while it runs)"
HOME=$work XDG_CONFIG_HOME=$work/config ip netns exec "$srv" "$bin/tarnlift" serve --client-address 192.168.88.1 \
  --packages "$work/pk" --select extra-6.41.npk --address 10.0.0.5/24 --gateway 10.0.0.1 --baud 115200 --count 2 \
  >"$work/serve.out" 2>"$work/serve.log" &
serve_pid=$!
ip netns exec "$rtr" "$bin/routersim" --interface tl-demo-b --count 2 --output "$work/out"
wait "$serve_pid"
echo "-- tarnlift serve said:"
cat "$work/serve.out"

echo "== What the first router received"
ls -l "$work/out/02-00-00-00-00-01"
cmp "$work/pk/system-6.41.npk" "$work/out/02-00-00-00-00-01/system-6.41.npk" && echo "system-6.41.npk: identical"
echo "-- autorun.scr:"
cat "$work/out/02-00-00-00-00-01/autorun.scr"
