#!/bin/bash
# A real PC booting over the network from a server under test: QEMU, its
# network card on a bridge in a router namespace, the server in a namespace
# of its own joined to the bridge by a veth pair. A UEFI PC (OVMF) uses the
# firmware's own PXE stack (no option ROM on the card); a BIOS PC (SeaBIOS)
# boots through the iPXE option ROM of its e1000 card. Passes when the
# expected text appears on the PC's serial console within the time limit and
# the server is still running then.
#
# usage: ovmf_pxe.sh [-f uefi|bios] [-t SECONDS] [-c CONSOLE_COPY] [-w SIDE_COMMAND]
#                    EXPECTED_TEXT SERVER_COMMAND [ARGS...]
#   The server command runs in the server namespace, whose interface has
#   192.168.88.2/24; hand out 192.168.88.1 to the PC. It may be several words
#   (e.g. wine tarnlift-cli.exe netboot ...). The harness waits for the
#   server's "found: true" line before it powers the PC on.
#   -t: the whole run's time limit in seconds (default 120).
#   -c: keep a copy of the serial console there.
#   -f: the PC's firmware (default uefi).
#   -m: the PC's memory in MiB (default 256 for UEFI, 128 for BIOS).
#   -F: a text that must also appear in the firmware's debug log (BIOS only:
#       SeaBIOS writes it to its debug port), after the expected text.
#   -w: a shell command run in the router namespace beside the PC from
#       power-on (TL_BRIDGE names the segment's bridge there, TL_TAP the
#       PC's own tap device on it, TL_WORK the
#       folder with the server's server.out and server.err); after the
#       text, the run waits for it (within the time limit) and fails unless
#       it exits 0. Its output is shown when the run fails.
# Prints "ovmf_pxe: ... after N s" with the seconds from power-on to the text.
# Exit 0 pass, 1 fail, 77 skipped (not root, or QEMU/OVMF/namespaces missing).
set -u
limit=120
console_copy=
firmware=uefi
memory=
firmware_text=
side_command=
while getopts "t:c:f:F:m:w:" option; do
  case $option in
    m) memory=$OPTARG ;;
    F) firmware_text=$OPTARG ;;
    t) limit=$OPTARG ;;
    c) console_copy=$OPTARG ;;
    f) firmware=$OPTARG ;;
    w) side_command=$OPTARG ;;
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
option_rom=/usr/lib/ipxe/qemu/pxe-e1000.rom
if [ "$firmware" = bios ]; then
  [ -r "$option_rom" ] || skip "needs ipxe-qemu"
else
  for pair in OVMF_CODE_4M.fd:OVMF_VARS_4M.fd OVMF_CODE.fd:OVMF_VARS.fd; do
    if [ -r "/usr/share/OVMF/${pair%%:*}" ] && [ -r "/usr/share/OVMF/${pair##*:}" ]; then
      code=/usr/share/OVMF/${pair%%:*}
      vars=/usr/share/OVMF/${pair##*:}
      break
    fi
  done
  [ -n "$code" ] || skip "needs ovmf"
fi

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
side_pid=
cleanup() {
  [ -n "$side_pid" ] && kill "$side_pid" 2> /dev/null && wait "$side_pid" 2> /dev/null
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
  [ -n "$side_command" ] && { echo "--- side command (tail)"; tail -30 "$work/side.out" 2> /dev/null; }
  [ -n "$firmware_text" ] && { echo "--- firmware log (tail)"; tail -10 "$work/firmware.log" 2> /dev/null; }
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

: > "$work/console.log"
if [ "$firmware" = bios ]; then
  : > "$work/firmware.log"
  machine=(-machine pc -m "${memory:-128}" -chardev "file,id=firmware,path=$work/firmware.log"
    -device isa-debugcon,iobase=0x402,chardev=firmware
    -netdev "tap,id=pxe,ifname=$tap,script=no,downscript=no"
    -device "e1000,netdev=pxe,romfile=$option_rom,bootindex=1")
else
  cp "$vars" "$work/vars.fd"
  machine=(-machine q35 -m "${memory:-256}"
    -drive "if=pflash,format=raw,readonly=on,file=$code" -drive "if=pflash,format=raw,file=$work/vars.fd"
    -netdev "tap,id=pxe,ifname=$tap,script=no,downscript=no" -device virtio-net-pci,netdev=pxe,romfile=,bootindex=1)
fi
powered=$(date +%s)
if [ -n "$side_command" ]; then
  (TL_BRIDGE=$bridge TL_TAP=$tap TL_WORK=$work exec ip netns exec "$rtr" timeout "$limit" bash -c "$side_command" > "$work/side.out" 2>&1) &
  side_pid=$!
fi
(exec ip netns exec "$rtr" timeout "$limit" qemu-system-x86_64 "${machine[@]}" -display none -no-user-config \
  -nodefaults -serial "file:$work/console.log" > "$work/qemu.out" 2>&1) &
qemu_pid=$!
until tr -d '\r' < "$work/console.log" | grep -qF "$expected"; do
  kill -0 "$qemu_pid" 2> /dev/null || { cat "$work/qemu.out"; fail "QEMU ended before \"$expected\""; }
  [ "$(date +%s)" -lt "$deadline" ] || fail "no \"$expected\" within $limit s"
  sleep 0.5
done
shown=$(($(date +%s) - powered))
if [ -n "$firmware_text" ]; then
  until grep -qaF "$firmware_text" "$work/firmware.log" 2> /dev/null; do
    [ "$(date +%s)" -lt "$deadline" ] || fail "no \"$firmware_text\" in the firmware's log within $limit s"
    sleep 0.5
  done
fi
if [ -n "$side_command" ]; then
  while kill -0 "$side_pid" 2> /dev/null; do
    [ "$(date +%s)" -lt "$deadline" ] || fail "the side command did not end within $limit s"
    sleep 0.5
  done
  wait "$side_pid"
  side_rc=$?
  side_pid=
  [ "$side_rc" = 0 ] || fail "the side command exited $side_rc"
fi
kill -0 "$server_pid" 2> /dev/null || fail "the server ended while the PC booted"
echo "ovmf_pxe: \"$expected\" after $shown s (whole run $(($(date +%s) - started)) s)"
exit 0
