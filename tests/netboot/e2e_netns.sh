#!/bin/bash
# Network booting end to end in two network namespaces joined by a veth pair:
# `tarnlift netboot` in one, booting clients (our BOOTP client, then real
# TFTP clients) in the other. Nothing leaves the namespaces; they are removed
# on every exit path.
#
# usage: e2e_netns.sh CASE TARNLIFT_COMMAND BOOTP_CLIENT
#   CASE: classes | clients | window | concurrent | restart | serve | wine
#   TARNLIFT_COMMAND may be several words (e.g. "wine /path/tarnlift-cli.exe").
#   BOOTP_CLIENT: tools/bootpclient, or tests/netboot/bootp_peer.py.
# Exit 77 (skipped) when not root, without `ip`, or without a needed program.
set -u
case_name=$1
tarnlift_cmd=$2
bootp_client=$3
here=$(cd "$(dirname "$0")" && pwd)
# The build's default records (test images and the placeholder for 143).
source_images=${TARNLIFT_DEFAULT_BOOT_IMAGES:-$here/../../resources/bootimages}

skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
command -v python3 > /dev/null || skip "needs python3"
[ -e "$bootp_client" ] || skip "no BOOTP client at $bootp_client"
first_word=${tarnlift_cmd%% *}
command -v "$first_word" > /dev/null 2>&1 || [ -x "$first_word" ] || skip "no $first_word"
case $case_name in
  clients) for p in curl atftp tftp; do command -v $p > /dev/null || skip "needs $p"; done ;;
  window) for p in atftp nft; do command -v $p > /dev/null || skip "needs $p"; done ;;
  concurrent|wine) command -v curl > /dev/null || skip "needs curl" ;;
esac

# shellcheck source=../lib/netns_pair.sh
source "$here/../lib/netns_pair.sh"
netns_names tln
work=$(mktemp -d /tmp/tl-netboot-XXXXXX)
server_pid=
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2> /dev/null && wait "$server_pid" 2> /dev/null
  netns_remove
  [ -n "${WINEPREFIX:-}" ] && [ -d "${WINEPREFIX:-}" ] && WINEPREFIX=$WINEPREFIX wineserver -k 2> /dev/null
  [ -n "${WINEPREFIX:-}" ] && rm -rf "$WINEPREFIX"
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
  echo "FAIL ($case_name): $*"
  echo "--- server stderr (tail)"; tail -60 "$work/server.err" 2> /dev/null
  exit 1
}

# The router side gets the client address the server hands out: the server
# sends every TFTP packet to that address.
netns_pair 192.168.88.1
case $? in
  0) ;;
  2) skip "cannot create network namespaces" ;;
  *) fail "cannot join the namespaces by a veth pair" ;;
esac

in_srv() { ip netns exec "$srv" "$@"; }
in_rtr() { ip netns exec "$rtr" "$@"; }

# Boot image records of our own, one per number, of awkward sizes; the
# expected content of each is kept beside it.
mkdir -p "$work/images" "$work/expect" "$work/got"
python3 - "$work" << 'EOF'
import os, struct, sys
work = sys.argv[1]
sizes = {125: 4096, 126: 700, 127: 1000, 128: 1468, 129: 70000, 130: 2936, 131: 513, 135: 1467,
         136: 100000, 137: 511, 138: 512, 139: 65536 * 3 + 17, 142: 3000, 143: 300000}
for number, size in sizes.items():
    data = os.urandom(size)
    open(f"{work}/expect/{number}", "wb").write(data)
    open(f"{work}/images/{number}.bin", "wb").write(struct.pack("<I", size) + data + b"\0" * (number % 5))
EOF

server_args="--client-address 192.168.88.1 --boot-images $work/images"
if [ "$case_name" = wine ]; then
  # The Windows build serves the records embedded in the executable.
  export WINEPREFIX=$work/wineprefix WINEDEBUG=-all
  server_args="--client-address 192.168.88.1"
  for n in 129 143; do
    python3 -c "import struct,sys; d=open(sys.argv[1],'rb').read(); l=struct.unpack('<I',d[:4])[0]; open(sys.argv[2],'wb').write(d[4:4+l])" \
      "$source_images/$n.bin" "$work/expect/$n"
  done
  wine_ready=60
fi

# The cases with a BIOS client whose record 125 nobody supplied take the
# expected bytes from the program itself, before the server starts. Under
# Wine that run gets a prefix of its own: the first process of a prefix
# starts the Wine services that every later process of it sees the network
# through, and those must be the server's, inside its namespace.
if [ "$case_name" = serve ] || [ "$case_name" = wine ]; then
  rm -f "$work/images/125.bin" "$work/expect/125"
  extract_prefix=${WINEPREFIX:+$work/wineprefix-extract}
  # shellcheck disable=SC2086
  HOME=$work WINEPREFIX=${extract_prefix:-${WINEPREFIX:-}} $tarnlift_cmd bootimage extract 125 "$work/expect/125" \
    --boot-images "$work/images" > "$work/extract.out" 2>&1 ||
    fail "no placeholder 125 to extract: $(tail -5 "$work/extract.out")"
  if [ -n "$extract_prefix" ]; then
    WINEPREFIX=$extract_prefix wineserver -k 2> /dev/null
    rm -rf "$extract_prefix"
  fi
fi

# `serve --netboot` runs the same boot services beside the installer.
subcommand=netboot
[ "$case_name" = serve ] && subcommand="serve --netboot"
# The server's own process (by exec) under a time limit, so that the clean-up
# reaches it and it can never outlive the test.
# shellcheck disable=SC2086
(HOME=$work XDG_CONFIG_HOME=$work/config exec ip netns exec "$srv" timeout --foreground 300 $tarnlift_cmd $subcommand $server_args \
  > "$work/server.out" 2> "$work/server.err") &
server_pid=$!
# Ready once the interface was found (Wine needs seconds to start).
for _ in $(seq 1 ${wine_ready:-20}0); do
  grep -q "found: true" "$work/server.err" 2> /dev/null && break
  kill -0 "$server_pid" 2> /dev/null || fail "server ended early"
  sleep 0.1
done
grep -q "found: true" "$work/server.err" || fail "server did not find its interface"

bootp() {  # MAC VENDOR_CLASS [bootpclient options...]
  local mac=$1 vendor=$2
  shift 2
  if [[ $bootp_client == *.py ]]; then
    in_rtr python3 "$bootp_client" --interface "$veth_b" --vendor-class "$vendor" --mac "$mac" --timeout 20 "$@"
  else
    in_rtr "$bootp_client" --interface "$veth_b" --vendor-class "$vendor" --mac "$mac" --timeout 20 "$@"
  fi
}

same() {  # FILE NUMBER
  cmp -s "$1" "$work/expect/$2" || fail "$1 differs from image $2 ($(stat -c %s "$1" 2> /dev/null) bytes)"
}

check="--client 192.168.88.1 --server 192.168.88.2"

# A legacy BIOS PC on the segment whose record 125 nobody supplied: it is
# answered with the placeholder built into the program (searched after the
# --boot-images folder), and the server goes on running.
bios_placeholder_check() {  # MAC
  grep -q "TARNLIFT PLACEHOLDER BOOT IMAGE 125" "$work/expect/125" || fail "125 is not the placeholder"
  # shellcheck disable=SC2086
  out=$(bootp "$1" PXEClient:Arch:00000:UNDI:002001 --arch 0 $check --pxe --netmask 255.255.255.0 \
    --image-length "$(stat -c %s "$work/expect/125")") || fail "BOOTP BIOS: $out"
  in_rtr curl -s -m 30 -o "$work/got/bios" "tftp://192.168.88.2/image" || fail "download of the BIOS placeholder"
  same "$work/got/bios" 125
  sleep 0.5
  kill -0 "$server_pid" 2> /dev/null || fail "the server ended after a BIOS client: $(tail -3 "$work/server.out")"
  grep -q "ResourceID=125" "$work/server.out" && fail "record 125 was missing"
  echo "BIOS client got the placeholder ($(stat -c %s "$work/got/bios") bytes); the server runs on"
}
case $case_name in
  classes)
    # Every vendor class of the table, each from its own MAC; the reply is
    # checked byte by byte, then a download proves the class took effect.
    n=0
    while read -r vendor arch class pxe; do
      n=$((n + 1))
      mac=$(printf '02:00:5E:00:01:%02X' $n)
      opts="$check"
      if [ "$pxe" = 1 ]; then
        opts="$opts --pxe --netmask 255.255.255.0 --image-length $(stat -c %s "$work/expect/$class")"
      fi
      # shellcheck disable=SC2086
      out=$(bootp "$mac" "$vendor" --arch "$arch" $opts) || fail "BOOTP $vendor: $out"
      echo "$vendor -> $class: $out"
      rm -f "$work/got/$class"
      # The last block of a content that fills it exactly is not followed by
      # an empty one, so pick a block size that does not divide the size.
      blksize=1468
      [ $(($(stat -c %s "$work/expect/$class") % 1468)) = 0 ] && blksize=512
      in_rtr curl -s -m 20 --tftp-blksize $blksize -o "$work/got/$class" "tftp://192.168.88.2/image" ||
        fail "download for $vendor"
      same "$work/got/$class" "$class"
    done << 'EOF'
PXEClient:Arch:00000:UNDI:002001 0 125 1
PXEClient:Arch:00007:UNDI:003016 7 143 1
pxeclient:arch:00009 9 143 1
Etherboot-5.4 -1 127 0
Quenlboot -1 128 0
Mips_boot -1 131 0
MMipsBoot -1 138 0
Powerboot -1 129 0
e500_boot -1 130 0
e500sboot -1 130 0
440__boot -1 135 0
tile_boot -1 136 0
ARM__boot -1 137 0
ARM64__bootloader -1 139 0
EOF
    grep -q "sendRes=139" "$work/server.err" || fail "no sendRes=139 line"
    ;;
  clients)
    out=$(bootp 02:00:5E:00:02:01 Powerboot $check) || fail "BOOTP: $out"
    echo "BOOTP: $out"
    in_rtr curl -s -m 30 -o "$work/got/curl512" "tftp://192.168.88.2/image" || fail "curl"
    same "$work/got/curl512" 129
    in_rtr curl -s -m 30 --tftp-blksize 1468 -o "$work/got/curl1468" "tftp://192.168.88.2/image" || fail "curl blksize"
    same "$work/got/curl1468" 129
    in_rtr curl -s -m 30 --tftp-blksize 1024 -o "$work/got/curl1024" "tftp://192.168.88.2/image" || fail "curl 1024"
    same "$work/got/curl1024" 129
    (cd "$work/got" && in_rtr timeout 60 atftp --option "blksize 1468" --option "tsize 0" -g -r /image -l atftp 192.168.88.2) ||
      fail "atftp"
    same "$work/got/atftp" 129
    (cd "$work/got" && in_rtr timeout 60 atftp -g -r /image -l atftp-plain 192.168.88.2) || fail "atftp without options"
    same "$work/got/atftp-plain" 129
    (cd "$work/got" && in_rtr timeout 60 tftp -m binary 192.168.88.2 -c get /image tftp-hpa) || fail "tftp-hpa"
    same "$work/got/tftp-hpa" 129
    # A PXE client of the EFI kind gets image 143 whatever it asks for.
    out=$(bootp 02:00:5E:00:02:02 PXEClient:Arch:00007 --arch 7 $check --pxe --netmask 255.255.255.0 \
      --image-length "$(stat -c %s "$work/expect/143")") || fail "BOOTP EFI: $out"
    (cd "$work/got" && in_rtr timeout 60 tftp -m binary 192.168.88.2 -c get bootx64.efi efi) || fail "tftp-hpa efi"
    same "$work/got/efi" 143
    ;;
  window)
    # A client that asks for a window of blocks (RFC 7440), on a clean link
    # and with 1 % and 5 % of the datagrams lost both ways (dropped at random
    # on arrival in either namespace by nftables; this machine's kernel may
    # have no netem): every download arrives byte for byte. The client's
    # acknowledgement of the OACK (ACK 0, a 12-byte UDP datagram) is never
    # dropped: the server then repeats the OACK, and atftp aborts on a second
    # one ("unexpected OACK"), a limit of that client that no server can help.
    out=$(bootp 02:00:5E:00:07:01 PXEClient:Arch:00007 --arch 7 $check --pxe --netmask 255.255.255.0 \
      --image-length "$(stat -c %s "$work/expect/143")") || fail "BOOTP EFI: $out"
    for loss in 0 1 5; do
      if [ "$loss" != 0 ]; then
        for ns in "$srv" "$rtr"; do
          ip netns exec "$ns" nft delete table inet tlloss 2> /dev/null
          ip netns exec "$ns" nft -f - << NFT || fail "cannot make datagrams go lost"
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
      for window in 4 64; do
        name=w$window-loss$loss
        (cd "$work/got" && in_rtr timeout 60 atftp --tftp-timeout 1 --option "blksize 1468" --option "tsize 0" \
          --option "windowsize $window" --trace -g -r bootx64.efi -l "$name" 192.168.88.2 > "$work/$name.trace" 2>&1) ||
          fail "atftp windowsize $window at $loss % loss: $(tail -5 "$work/$name.trace")"
        same "$work/got/$name" 143
        grep -q "received OACK <.*windowsize: $window," "$work/$name.trace" ||
          fail "windowsize $window not granted: $(grep -i oack "$work/$name.trace")"
        # Lock step would take one acknowledgement per block (205 here).
        acks=$(grep -ci "sent ACK" "$work/$name.trace")
        echo "windowsize $window, $loss % loss: byte-identical, $acks acknowledgements"
        [ "$loss" != 0 ] || [ "$acks" -le $((205 / window + 3)) ] || fail "$acks acknowledgements for windows of $window"
      done
    done
    ;;
  serve)
    out=$(bootp 02:00:5E:00:06:01 ARM__boot $check) || fail "BOOTP: $out"
    in_rtr curl -s -m 30 --tftp-blksize 1468 -o "$work/got/serve" "tftp://192.168.88.2/image" || fail "curl"
    same "$work/got/serve" 137
    for _ in $(seq 1 100); do
      grep -q "serve: installing on 192.168.88.2" "$work/server.err" && break
      sleep 0.1
    done
    grep -q "serve: installing on 192.168.88.2" "$work/server.err" || fail "the installer did not start beside it"
    bios_placeholder_check 02:00:5E:00:06:02
    ;;
  concurrent)
    out=$(bootp 02:00:5E:00:03:01 tile_boot $check) || fail "BOOTP: $out"
    # Two clients at once: one is served, the other's request is drained and
    # served when it asks again.
    in_rtr curl -s -m 15 --tftp-blksize 1468 -o "$work/got/one" "tftp://192.168.88.2/image" &
    one=$!
    in_rtr curl -s -m 15 --tftp-blksize 1468 -o "$work/got/two" "tftp://192.168.88.2/image" &
    two=$!
    wait $one || fail "first client"
    wait $two || fail "second client"
    same "$work/got/one" 136
    same "$work/got/two" 136
    [ "$(grep -c "sendRes=136" "$work/server.err")" -ge 2 ] || fail "expected two transfers"
    ;;
  restart)
    # The interface goes away: the liveness probe fails and the server looks
    # for it again; it serves once the interface is back.
    out=$(bootp 02:00:5E:00:05:01 Powerboot $check) || fail "BOOTP: $out"
    before=$(grep -c "found: true" "$work/server.err")
    ip -n "$srv" link del "$veth_a" || fail "link del"
    sleep 3
    kill -0 "$server_pid" 2> /dev/null || fail "server ended when its interface went away"
    ip link add "$veth_a" type veth peer name "$veth_b" || fail "veth again"
    ip link set "$veth_a" netns "$srv"
    ip link set "$veth_b" netns "$rtr"
    ip -n "$srv" addr add 192.168.88.2/24 dev "$veth_a"
    ip -n "$srv" link set "$veth_a" up
    ip -n "$rtr" addr add 192.168.88.1/24 dev "$veth_b"
    ip -n "$rtr" link set "$veth_b" up
    # A new cycle has forgotten the client: it must name its class again.
    out=$(bootp 02:00:5E:00:05:01 Powerboot $check) || fail "BOOTP after restart: $out"
    [ "$(grep -c "found: true" "$work/server.err")" -gt "$before" ] || fail "no new interface search"
    in_rtr curl -s -m 20 --tftp-blksize 1468 -o "$work/got/again" "tftp://192.168.88.2/image" || fail "download"
    same "$work/got/again" 129
    ;;
  wine)
    out=$(bootp 02:00:5E:00:04:01 Powerboot $check) || fail "BOOTP: $out"
    echo "BOOTP: $out"
    in_rtr curl -s -m 30 --tftp-blksize 1468 -o "$work/got/w129" "tftp://192.168.88.2/image" || fail "curl"
    same "$work/got/w129" 129
    out=$(bootp 02:00:5E:00:04:02 PXEClient:Arch:00007 --arch 7 $check --pxe --netmask 255.255.255.0 \
      --image-length "$(stat -c %s "$work/expect/143")") || fail "BOOTP EFI: $out"
    echo "BOOTP EFI: $out"
    in_rtr curl -s -m 30 -o "$work/got/w143" "tftp://192.168.88.2/bootx64.efi" || fail "curl efi"
    same "$work/got/w143" 143
    bios_placeholder_check 02:00:5E:00:04:03
    ;;
  *) fail "unknown case" ;;
esac
echo "PASS ($case_name)"
