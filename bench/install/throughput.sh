#!/bin/bash
# Network throughput of the installation server through a veth pair, as root
# in two network namespaces (not part of CI):
#   1. one router installing a 64 MiB package: `tarnlift serve` against the
#      floor (install_floor_responder answers every request from memory),
#      with the same router simulator answering at once;
#   2. 100 routers at once: aggregate MB/s, the server's CPU time per MB and
#      its resident memory, with small and large packages (memory must not
#      follow the package size) and sampled over time.
#
#   bench/install/throughput.sh [BUILD_DIR]      default build/linux
set -u
build=${1:-build/linux}
bin=$build/bin
floor=$build/bench/install_floor_responder
[ "$(id -u)" = 0 ] || { echo "needs root"; exit 77; }
for p in "$bin/tarnlift" "$bin/routersim" "$bin/tarnlift-mkpkg" "$floor"; do
  [ -x "$p" ] || { echo "missing $p (build the linux preset first)"; exit 2; }
done
id=$$
srv=tlbs$id rtr=tlbr$id a=tlba$id b=tlbb$id
work=$(mktemp -d /tmp/tl-bench-XXXXXX)
cleanup() {
  jobs -p | xargs -r kill 2> /dev/null
  ip netns del $srv 2> /dev/null
  ip netns del $rtr 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
ip netns add $srv && ip netns add $rtr
ip link add $a type veth peer name $b
ip link set $a netns $srv && ip link set $b netns $rtr
ip -n $srv addr add 192.168.88.2/24 dev $a
ip -n $srv link set $a up && ip -n $srv link set lo up
ip -n $rtr link set $b up && ip -n $rtr link set lo up
export HOME=$work
mkdir -p "$work/pk64" "$work/pk1" "$work/pk8"
"$bin/tarnlift-mkpkg" "$work/pk64/big-6.41.npk" --package big 6.41 --arch arm --data $((64 << 20)) > /dev/null
"$bin/tarnlift-mkpkg" "$work/pk1/small-6.41.npk" --package small 6.41 --arch arm --data $((1 << 20)) > /dev/null
"$bin/tarnlift-mkpkg" "$work/pk8/mid-6.41.npk" --package mid 6.41 --arch arm --data $((8 << 20)) > /dev/null

mbps() { awk -v b="$1" -v ms="$2" 'BEGIN { if (ms > 0) printf "%.1f", b / 1048576 / (ms / 1000); else print "inf" }'; }
field() { grep -o "$1=[0-9-]*" | head -1 | cut -d= -f2; }

# serve with /usr/bin/time; prints "user sys maxrss_kb" into $work/time.txt
run_serve() {
  local dir=$1 file=$2 count=$3
  (ip netns exec $srv /usr/bin/time -f "%U %S %M" -o "$work/time.txt" "$bin/tarnlift" serve \
     --client-address 192.168.88.1 --packages "$dir" --select "$file" --default-config --count "$count" \
     > "$work/serve.out" 2> "$work/serve.err") &
  serve_job=$!
}
sample_rss() {
  local out=$1
  : > "$out"
  for _ in $(seq 1 600); do
    pid=$(pgrep -n -f "tarnlift serve --client-address 192.168.88.1" | head -1)
    [ -n "$pid" ] && awk '/VmRSS/ { print $2 }' /proc/$pid/status 2> /dev/null >> "$out"
    sleep 0.5
    kill -0 $serve_job 2> /dev/null || break
  done
}

echo "== one router, 64 MiB (three runs each, interleaved; the machine may be shared, so the best counts)"
best_serve=999999999 best_floor=999999999
for run in 1 2 3; do
  run_serve "$work/pk64" big-6.41.npk 1
  ip netns exec $rtr "$bin/routersim" --interface $b --repeat-ms 200 > "$work/sim.out" 2> /dev/null
  wait $serve_job
  serve_ms=$(field transfer_ms < "$work/sim.out")
  bytes=$(field bytes < "$work/sim.out")
  echo "serve:  $bytes bytes in $serve_ms ms = $(mbps "$bytes" "$serve_ms") MiB/s   (server user/sys s, max RSS KiB: $(cat "$work/time.txt"))"
  [ "$serve_ms" -lt "$best_serve" ] && best_serve=$serve_ms
  (ip netns exec $srv "$floor" $a $((64 << 20)) 2> /dev/null) &
  floor_job=$!
  sleep 0.3
  ip netns exec $rtr "$bin/routersim" --interface $b --repeat-ms 200 --term-wait-ms 100 > "$work/floor.out" 2> /dev/null
  kill $floor_job 2> /dev/null
  wait $floor_job 2> /dev/null
  floor_ms=$(field transfer_ms < "$work/floor.out")
  fbytes=$(field bytes < "$work/floor.out")
  echo "floor:  $fbytes bytes in $floor_ms ms = $(mbps "$fbytes" "$floor_ms") MiB/s"
  [ "$floor_ms" -lt "$best_floor" ] && best_floor=$floor_ms
done
chunks=$(( (64 << 20) / 1452 + 3 ))
awk -v s="$best_serve" -v f="$best_floor" -v c="$chunks" 'BEGIN {
  printf "best: serve %.1f MiB/s, floor %.1f MiB/s; round trip: serve %.1f us, floor %.1f us; server share %.1f%%\n",
         64000 / s, 64000 / f, s * 1000 / c, f * 1000 / c, (s - f) * 100 / s }'

for size in 1 8; do
  echo "== 100 routers at once, ${size} MiB each"
  case $size in 1) dir=$work/pk1 file=small-6.41.npk ;; 8) dir=$work/pk8 file=mid-6.41.npk ;; esac
  run_serve "$dir" "$file" 100
  sample_rss "$work/rss$size.txt" &
  sampler=$!
  start=$(date +%s%N)
  ip netns exec $rtr "$bin/routersim" --interface $b --count 100 --repeat-ms 500 --term-wait-ms 100 \
    --timeout-s 600 > "$work/sim100.out" 2> /dev/null
  end=$(date +%s%N)
  wait $serve_job
  wait $sampler 2> /dev/null
  total=$(awk -F'\t' '{ split($4, b, "="); s += b[2] } END { print s }' "$work/sim100.out")
  longest=$(grep -o 'transfer_ms=[0-9]*' "$work/sim100.out" | cut -d= -f2 | sort -n | tail -1)
  ok=$(grep -c $'\tInstallation finished successfully$' "$work/serve.out")
  read -r user sys maxrss < "$work/time.txt"
  echo "routers done: $ok/100; $total bytes; longest transfer $longest ms: $(mbps "$total" "$longest") MiB/s aggregate"
  awk -v u="$user" -v s="$sys" -v b="$total" 'BEGIN { printf "server cpu: %.2f s user + %.2f s sys = %.1f ms per MiB\n", u, s, (u + s) * 1000 / (b / 1048576) }'
  echo "server max RSS: ${maxrss} KiB; RSS samples (KiB, every 0.5 s): $(tr '\n' ' ' < "$work/rss$size.txt" | cut -c1-200)"
done
