#!/bin/bash
# A real UEFI PC booting over the network from a server under test: QEMU with
# the OVMF firmware, its network card on a bridge in a router namespace, the
# server in a namespace of its own joined to the bridge by a veth pair. The
# firmware uses its own PXE stack (no option ROM on the card). Passes when the
# expected text appears on the PC's serial console within the time limit.
#
# usage: ovmf_pxe.sh [-t SECONDS] [-c CONSOLE_COPY] EXPECTED_TEXT SERVER_COMMAND [ARGS...]
#   The server command runs in the server namespace, whose interface has
#   192.168.88.2/24; hand out 192.168.88.1 to the PC. It may be several words
#   (e.g. wine tarnlift-cli.exe netboot ...). The harness waits for the
#   server's "found: true" line before it powers the PC on.
#   -t: the whole run's time limit in seconds (default 120).
#   -c: keep a copy of the serial console there.
# Prints "ovmf_pxe: ... after N s" with the seconds from power-on to the text.
# Exit 0 pass, 1 fail, 77 skipped (not root, or QEMU/OVMF/namespaces missing).
set -u
limit=120
console_copy=
while getopts "t:c:" option; do
  case $option in
    t) limit=$OPTARG ;;
    c) console_copy=$OPTARG ;;
    *) echo "usage: $0 [-t SECONDS] [-c CONSOLE_COPY] EXPECTED_TEXT SERVER_COMMAND..."; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ $# -ge 2 ] || { echo "usage: $0 [-t SECONDS] [-c CONSOLE_COPY] EXPECTED_TEXT SERVER_COMMAND..."; exit 2; }
expected=$1
shift
here=$(cd "$(dirname "$0")" && pwd)

skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
command -v qemu-system-x86_64 > /dev/null || skip "needs qemu-system-x86"
[ -e /dev/net/tun ] || skip "needs /dev/net/tun"
code=
vars=
for pair in OVMF_CODE_4M.fd:OVMF_VARS_4M.fd OVMF_CODE.fd:OVMF_VARS.fd; do
  if [ -r "/usr/share/OVMF/${pair%%:*}" ] && [ -r "/usr/share/OVMF/${pair##*:}" ]; then
    code=/usr/share/OVMF/${pair%%:*}
    vars=/usr/share/OVMF/${pair##*:}
    break
  fi
done
[ -n "$code" ] || skip "needs ovmf"

# shellcheck source=netns_pair.sh
source "$here/netns_pair.sh"
netns_names tlo
bridge=tlobr$$
bridge=${bridge:0:15}
tap=tlotap$$
tap=${tap:0:15}
work=$(mktemp -d /tmp/tl-ovmf-XXXXXX)
server_pid=
qemu_pid=
cleanup() {
  [ -n "$qemu_pid" ] && kill "$qemu_pid" 2> /dev/null && wait "$qemu_pid" 2> /dev/null
  [ -n "$server_pid" ] && kill "$server_pid" 2> /dev/null && wait "$server_pid" 2> /dev/null
  netns_remove
  [ -n "$console_copy" ] && cp "$work/console.log" "$console_copy" 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
  echo "FAIL: $*"
  echo "--- serial console (tail)"; tr -d '\r' < "$work/console.log" 2> /dev/null | tail -30
  echo "--- server output (tail)"; tail -30 "$work/server.out" "$work/server.err" 2> /dev/null
  exit 1
}

netns_pair
case $? in
  0) ;;
  2) skip "cannot create network namespaces" ;;
  *) fail "cannot join the namespaces by a veth pair" ;;
esac
# The router namespace is the PC's network segment: a bridge holding the veth
# end and the PC's tap device.
ip -n "$rtr" link add "$bridge" type bridge || fail "cannot make a bridge"
ip -n "$rtr" link set "$bridge" type bridge forward_delay 0 stp_state 0 2> /dev/null
ip -n "$rtr" link set "$veth_b" master "$bridge"
ip -n "$rtr" tuntap add dev "$tap" mode tap || fail "cannot make a tap device"
ip -n "$rtr" link set "$tap" master "$bridge"
ip -n "$rtr" link set "$tap" up
ip -n "$rtr" link set "$bridge" up

started=$(date +%s)
deadline=$((started + limit))
# The server's own process (by exec) under the time limit, so that the
# clean-up reaches it and it never outlives the test.
(HOME=$work XDG_CONFIG_HOME=$work/config exec ip netns exec "$srv" timeout "$limit" "$@" \
  > "$work/server.out" 2> "$work/server.err") &
server_pid=$!
until grep -qs "found: true" "$work/server.out" "$work/server.err"; do
  kill -0 "$server_pid" 2> /dev/null || fail "server ended early"
  [ "$(date +%s)" -lt "$deadline" ] || fail "server did not find its interface"
  sleep 0.2
done

cp "$vars" "$work/vars.fd"
: > "$work/console.log"
powered=$(date +%s)
(exec ip netns exec "$rtr" timeout "$limit" qemu-system-x86_64 -machine q35 -m 256 -display none -no-user-config \
  -nodefaults -serial "file:$work/console.log" \
  -drive "if=pflash,format=raw,readonly=on,file=$code" -drive "if=pflash,format=raw,file=$work/vars.fd" \
  -netdev "tap,id=pxe,ifname=$tap,script=no,downscript=no" -device virtio-net-pci,netdev=pxe,romfile=,bootindex=1 \
  > "$work/qemu.out" 2>&1) &
qemu_pid=$!
until tr -d '\r' < "$work/console.log" | grep -qF "$expected"; do
  kill -0 "$qemu_pid" 2> /dev/null || { cat "$work/qemu.out"; fail "QEMU ended before \"$expected\""; }
  [ "$(date +%s)" -lt "$deadline" ] || fail "no \"$expected\" within $limit s"
  sleep 0.5
done
echo "ovmf_pxe: \"$expected\" after $(($(date +%s) - powered)) s (whole run $(($(date +%s) - started)) s)"
exit 0
