#!/bin/bash
# Network throughput of the installation server through a veth pair, as root
# in two network namespaces (a benchmark, not part of CI):
#   1. one router installing a 64 MiB package: `tarnlift serve` against the
#      floor (install_floor_responder answers every request from memory, one
#      system call per datagram), with the same router simulator;
#   2. the scaling table: 1, 10, 100 and 250 routers at once with 1 MiB and
#      8 MiB packages, for the server and for the floor: aggregate MiB/s,
#      processor time (user + system) per MiB, peak resident memory and the
#      longest transfer. Every file the routers receive is compared with the
#      package it came from. The server's resident memory is sampled every
#      half second as well (it must not follow the package size or the time).
#
#   bench/install/throughput.sh [BUILD_DIR] [--routers "1 10 100 250"] [--sizes "1 8"]
#                               [--runs N] [--no-single] [--web CLIENTS]
#
# --web CLIENTS: the server also runs its web console (--web on the server
# namespace's loopback) with CLIENTS event-stream clients connected for the
# whole run, so that the table shows what the console costs.
#
# BUILD_DIR defaults to build/linux. Each case runs N times (default 3) and
# the run with the least processor time per MiB counts: the machine may be
# shared, and other work only ever adds to the figures.
set -u
build=build/linux
routers_list="1 10 100 250"
sizes_list="1 8"
runs=3
single=1
web_clients=0
while [ $# -gt 0 ]; do
  case $1 in
    --web) web_clients=$2; shift 2 ;;
    --routers) routers_list=$2; shift 2 ;;
    --sizes) sizes_list=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --no-single) single=0; shift ;;
    -*) echo "unknown option $1"; exit 2 ;;
    *) build=$1; shift ;;
  esac
done
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
for size in 64 $sizes_list; do
  mkdir -p "$work/pk$size"
  "$bin/tarnlift-mkpkg" "$work/pk$size/p$size-6.41.npk" --package p$size 6.41 --arch arm --data $((size << 20)) > /dev/null
  # The data part is zeros; random bytes instead (all but its first 4 KiB,
  # which hold the headers), so that a chunk out of place shows in the
  # comparison and the file is read from the page cache, not from holes.
  dd if=/dev/urandom of="$work/pk$size/p$size-6.41.npk" bs=4096 seek=1 count=$(((size << 20) / 4096 - 1)) \
    conv=notrunc status=none
done

mbps() { awk -v b="$1" -v ms="$2" 'BEGIN { if (ms > 0) printf "%.1f", b / 1048576 / (ms / 1000); else print "inf" }'; }
field() { grep -o "$1=[0-9-]*" | head -1 | cut -d= -f2; }

# serve under /usr/bin/time ("user sys maxrss_kb" into $work/time.txt)
run_serve() {
  local size=$1 count=$2 web=()
  [ "$web_clients" -gt 0 ] && web=(--web 127.0.0.1:8080)
  (ip netns exec $srv /usr/bin/time -f "%U %S %M" -o "$work/time.txt" "$bin/tarnlift" serve \
     --client-address 192.168.88.1 --packages "$work/pk$size" --select "p$size-6.41.npk" --default-config \
     --count "$count" "${web[@]}" > "$work/serve.out" 2> "$work/serve.err") &
  serve_job=$!
  [ "$web_clients" -gt 0 ] && start_web_clients
}
# Event-stream clients on the server namespace's loopback, connected before
# the routers start; they end with the server.
start_web_clients() {
  for _ in $(seq 1 50); do
    grep -q "serve: web console on" "$work/serve.err" 2> /dev/null && break
    sleep 0.1
  done
  for i in $(seq 1 "$web_clients"); do
    ip netns exec $srv curl -sN --max-time 900 http://127.0.0.1:8080/api/v1/events > "$work/events$i.txt" 2> /dev/null &
  done
  sleep 0.3
}
# The floor ends after count routers were told "TERM"; when a router's
# "WTRM" got lost every time, it would wait for ever: stop it once the
# simulator is done.
stop_floor() {
  for _ in $(seq 1 30); do
    kill -0 $serve_job 2> /dev/null || return
    sleep 0.1
  done
  pkill -f "^$floor $a " 2> /dev/null
}
run_floor() {
  local size=$1 count=$2
  (ip netns exec $srv /usr/bin/time -f "%U %S %M" -o "$work/time.txt" "$floor" $a $((size << 20)) 5000 "$count" \
     2> /dev/null) &
  serve_job=$!
  sleep 0.3
}
sample_rss() {
  local out=$1
  : > "$out"
  for _ in $(seq 1 2400); do
    # Ours only: others may run a server with the same options meanwhile.
    pid=$(pgrep -n -f "^$bin/tarnlift serve .*--packages $work/" | head -1)
    [ -n "$pid" ] && awk '/VmRSS/ { print $2 }' /proc/$pid/status 2> /dev/null >> "$out"
    sleep 0.5
    kill -0 $serve_job 2> /dev/null || break
  done
}
# The simulator for count routers; the report into $work/sim.out.
run_sim() {
  local count=$1 size=$2
  ip netns exec $rtr "$bin/routersim" --interface $b --count "$count" --repeat-ms 500 --term-wait-ms 100 \
    --timeout-s 900 --compare "$work/pk$size" > "$work/sim.out" 2> "$work/sim.err"
}
# One line of figures for the run just made: ok bytes longest_ms user sys maxrss identical
figures() {
  local total longest ok identical user sys maxrss
  total=$(awk -F'\t' '{ split($4, v, "="); s += v[2] } END { print s + 0 }' "$work/sim.out")
  longest=$(grep -o 'transfer_ms=[0-9-]*' "$work/sim.out" | cut -d= -f2 | sort -n | tail -1)
  ok=$(grep -c $'\tinstalled\t' "$work/sim.out")
  identical=$(grep -o '[0-9]* files identical' "$work/sim.err" | cut -d' ' -f1)
  # The last line: a stopped floor responder's has "terminated by signal" before.
  read -r user sys maxrss < <(tail -1 "$work/time.txt")
  echo "$ok $total ${longest:-0} $user $sys $maxrss ${identical:-0}"
}

if [ $single = 1 ]; then
  echo "== one router, 64 MiB ($runs runs each, interleaved; the best counts)"
  best_serve=999999999 best_floor=999999999
  for run in $(seq 1 "$runs"); do
    run_serve 64 1
    run_sim 1 64
    wait $serve_job
    read -r ok bytes ms user sys maxrss identical <<< "$(figures)"
    echo "serve:  $bytes bytes in $ms ms = $(mbps "$bytes" "$ms") MiB/s; server $user s user + $sys s sys, max RSS $maxrss KiB; identical files: $identical"
    [ "$ms" -lt "$best_serve" ] && best_serve=$ms
    run_floor 64 1
    run_sim 1 64
    stop_floor
    wait $serve_job
    read -r ok bytes ms user sys maxrss identical <<< "$(figures)"
    echo "floor:  $bytes bytes in $ms ms = $(mbps "$bytes" "$ms") MiB/s; floor $user s user + $sys s sys"
    [ "$ms" -lt "$best_floor" ] && best_floor=$ms
  done
  chunks=$(((64 << 20) / 1452 + 3))
  awk -v s="$best_serve" -v f="$best_floor" -v c="$chunks" 'BEGIN {
    printf "best: serve %.1f MiB/s, floor %.1f MiB/s; round trip: serve %.1f us, floor %.1f us; server share %.1f%%\n",
           64000 / s, 64000 / f, s * 1000 / c, f * 1000 / c, (s - f) * 100 / s }'
fi

# One case of the table: the best of $runs runs, as
# "MiB/s cpu_ms_per_MiB peak_rss_MiB longest_s ok identical" into $work/best.txt.
measure() {
  local who=$1 count=$2 size=$3 best=""
  for run in $(seq 1 "$runs"); do
    if [ "$who" = serve ]; then
      run_serve "$size" "$count"
      sample_rss "$work/rss.txt" &
      sampler=$!
    else
      run_floor "$size" "$count"
    fi
    run_sim "$count" "$size"
    [ "$who" = floor ] && stop_floor
    wait $serve_job
    [ "$who" = serve ] && wait $sampler 2> /dev/null
    read -r ok bytes ms user sys maxrss identical <<< "$(figures)"
    line=$(awk -v ok="$ok" -v b="$bytes" -v ms="$ms" -v u="$user" -v s="$sys" -v m="$maxrss" -v id="$identical" 'BEGIN {
      mib = b / 1048576
      printf "%.1f %.2f %.1f %.2f %d %d", (ms > 0 ? mib / (ms / 1000) : 0), (u + s) * 1000 / (mib > 0 ? mib : 1),
             m / 1024, ms / 1000, ok, id }')
    echo "  $who $count x $size MiB, run $run: MiB/s cpu_ms/MiB rss_MiB longest_s ok identical = $line" >&2
    if [ "$who" = serve ]; then
      echo "    RSS KiB every 0.5 s: $(tr '\n' ' ' < "$work/rss.txt" | cut -c1-300)" >&2
    fi
    if [ -z "$best" ] || awk -v a="$line" -v b="$best" 'BEGIN { split(a, x, " "); split(b, y, " "); exit !(x[2] < y[2]) }'; then
      best=$line
    fi
  done
  echo "$best"
}

echo "== scaling: routers ($routers_list) x packages ($sizes_list MiB), $runs runs each, the best counts"
table="| Routers | MiB each | Server MiB/s | Server CPU ms/MiB | Server peak RSS MiB | Server longest s | Floor MiB/s | Floor CPU ms/MiB | Floor peak RSS MiB | Floor longest s | Installed, identical |
|---|---|---|---|---|---|---|---|---|---|---|"
for count in $routers_list; do
  for size in $sizes_list; do
    read -r s_rate s_cpu s_rss s_long s_ok s_id <<< "$(measure serve "$count" "$size")"
    read -r f_rate f_cpu f_rss f_long f_ok f_id <<< "$(measure floor "$count" "$size")"
    table="$table
| $count | $size | $s_rate | $s_cpu | $s_rss | $s_long | $f_rate | $f_cpu | $f_rss | $f_long | $s_ok/$count, $s_id |"
  done
done
echo "$table"
