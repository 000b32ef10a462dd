#!/bin/bash
# TFTP download throughput through a veth pair: the same file (32 MiB by
# default), the same client, served in turn by `tarnlift netboot`, tftpd-hpa
# and dnsmasq, each in the server namespace. Prints MiB/s per server (best and
# median of RUNS downloads) and the ratio to the faster reference.
#
# usage: bench/netboot/tftp_throughput.sh TARNLIFT BOOTPCLIENT [RUNS] [MIB] [WINDOW] [LOSS] [SERVERS]
#   WINDOW: 0 (default) downloads with curl at block size 1468, one block per
#     round trip; N > 0 with atftp asking for block size 1468 and windowsize N
#     (RFC 7440). The references grant no window and go one block per round
#     trip whatever the client asks.
#   LOSS: percent of the datagrams dropped at random on arrival in each
#     namespace (nftables), both ways; 0 by default.
#   SERVERS: "all" (default) or "tarnlift" alone (a client that asks for a
#     window but gets none recovers from each loss only by its own
#     time-out, which makes the references take minutes under loss).
# Needs root (network namespaces), curl or atftp, in.tftpd and dnsmasq; nft
# for LOSS.
set -u
tarnlift=$1
bootpclient=$2
runs=${3:-5}
mib=${4:-32}
window=${5:-0}
loss=${6:-0}
servers=${7:-all}
[ "$(id -u)" = 0 ] || { echo "needs root"; exit 77; }
for p in curl atftp in.tftpd dnsmasq ip python3; do command -v $p > /dev/null || { echo "needs $p"; exit 77; }; done
[ "$loss" = 0 ] || command -v nft > /dev/null || { echo "needs nft"; exit 77; }

id=$$
srv=tlbs$id
rtr=tlbr$id
veth_a=tlba$id
veth_b=tlbb$id
work=$(mktemp -d /tmp/tl-bench-XXXXXX)
chmod 755 "$work"
pid=
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2> /dev/null && wait "$pid" 2> /dev/null
  ip netns del "$srv" 2> /dev/null
  ip netns del "$rtr" 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

ip netns add "$srv" && ip netns add "$rtr" || exit 1
ip link add "$veth_a" type veth peer name "$veth_b"
ip link set "$veth_a" netns "$srv"
ip link set "$veth_b" netns "$rtr"
ip -n "$srv" addr add 192.168.88.2/24 dev "$veth_a"
ip -n "$rtr" addr add 192.168.88.1/24 dev "$veth_b"
for ns in "$srv" "$rtr"; do ip -n "$ns" link set lo up; done
ip -n "$srv" link set "$veth_a" up
ip -n "$rtr" link set "$veth_b" up

if [ "$loss" != 0 ]; then
  # ACK 0 is spared: a lost one makes the server repeat its OACK, and atftp
  # aborts on a second OACK.
  for ns in "$srv" "$rtr"; do
    ip netns exec "$ns" nft -f - << NFT || exit 1
table inet tlloss {
  chain in {
    type filter hook input priority 0;
    udp length 12 @th,64,32 0x00040000 accept
    meta l4proto udp numgen random mod 100 < $loss drop
  }
}
NFT
  done
fi

mkdir -p "$work/root" "$work/images"
# One byte more than whole MiB, so that the block size never divides it: the
# server sends no closing empty block.
head -c $((mib * 1048576 + 1)) /dev/urandom > "$work/root/image"
chmod 644 "$work/root/image"
"$tarnlift" bootimage wrap 129 "$work/root/image" "$work/images" > /dev/null || exit 1

measure() {  # NAME: prints best and median MiB/s over the runs
  local name=$1 times=()
  for _ in $(seq 1 "$runs"); do
    rm -f "$work/got"
    local t
    if [ "$window" = 0 ]; then
      t=$(ip netns exec "$rtr" curl -s -m 120 --tftp-blksize 1468 -o "$work/got" -w '%{time_total}' \
        "tftp://192.168.88.2/image") || { echo "$name: download failed" >&2; return 1; }
    else
      local start end
      start=$(date +%s.%N)
      ip netns exec "$rtr" timeout 300 atftp --tftp-timeout 1 --option "blksize 1468" --option "tsize 0" \
        --option "windowsize $window" -g -r image -l "$work/got" 192.168.88.2 > "$work/atftp.log" 2>&1 ||
        { echo "$name: download failed: $(tail -3 "$work/atftp.log")" >&2; return 1; }
      end=$(date +%s.%N)
      t=$(python3 -c "import sys; print(float(sys.argv[2]) - float(sys.argv[1]))" "$start" "$end")
    fi
    cmp -s "$work/got" "$work/root/image" || { echo "$name: content differs" >&2; return 1; }
    times+=("$t")
  done
  python3 - "$name" "$mib" "${times[@]}" << 'PY'
import statistics, sys
name, mib, times = sys.argv[1], float(sys.argv[2]), sorted(float(t) for t in sys.argv[3:])
print(f"{name:10s} best {mib / times[0]:8.1f} MiB/s  median {mib / statistics.median(times):8.1f} MiB/s  "
      f"({len(times)} runs, median {statistics.median(times):.3f} s)")
PY
}

wait_port() {
  for _ in $(seq 1 50); do
    ip netns exec "$srv" ss -uln | grep -q '192.168.88.2:69 \|\*:69 \|0.0.0.0:69 ' && return 0
    sleep 0.1
  done
  return 1
}

stop() { kill "$pid" 2> /dev/null; wait "$pid" 2> /dev/null; pid=; }

# tarnlift: a BOOTP exchange first picks the class whose image is served.
HOME=$work XDG_CONFIG_HOME=$work/config ip netns exec "$srv" "$tarnlift" netboot --client-address 192.168.88.1 \
  --boot-images "$work/images" 2> "$work/tarnlift.log" &
pid=$!
wait_port || { echo "tarnlift did not start"; cat "$work/tarnlift.log"; exit 1; }
ip netns exec "$rtr" "$bootpclient" --interface "$veth_b" --vendor-class Powerboot --timeout 10 > /dev/null ||
  { echo "no BOOTP reply"; exit 1; }
ours=$(measure tarnlift) || exit 1
stop

if [ "$servers" = all ]; then
  ip netns exec "$srv" in.tftpd -L -s "$work/root" -a 192.168.88.2:69 &
  pid=$!
  wait_port || { echo "tftpd-hpa did not start"; exit 1; }
  hpa=$(measure tftpd-hpa) || exit 1
  stop

  ip netns exec "$srv" dnsmasq -k --port=0 --enable-tftp --tftp-root="$work/root" --listen-address=192.168.88.2 \
    --bind-interfaces --user=root --group=root --pid-file="$work/dnsmasq.pid" --log-facility=/dev/null &
  pid=$!
  wait_port || { echo "dnsmasq did not start"; exit 1; }
  dns=$(measure dnsmasq) || exit 1
  stop
fi

if [ "$window" = 0 ]; then
  echo "client: curl, blksize 1468; $mib MiB; $loss % loss"
else
  echo "client: atftp, blksize 1468, windowsize $window; $mib MiB; $loss % loss"
fi
echo "$ours"
[ "$servers" = all ] || exit 0
echo "$hpa"
echo "$dns"
python3 - "$ours" "$hpa" "$dns" << 'PY'
import sys
best = [float(line.split()[2]) for line in sys.argv[1:]]
median = [float(line.split()[5]) for line in sys.argv[1:]]
print(f"ratio tarnlift / faster reference: best {best[0] / max(best[1:]):.2f}, median {median[0] / max(median[1:]):.2f}")
PY
