#!/usr/bin/env bash
# `tarnlift-cli.exe doctor --probe` under Wine: the interface with its link
# state as the adapter list gives it, and the Windows half of the probe
# (UDP port 68 on the interface's address, ARP for the server's MAC) finds a
# DHCP server on a segment made of two namespaces: dnsmasq with a range, as
# it comes (it pings an address before offering it, so it answers after
# about 3 s).
#   doctor_probe_wine.sh TARNLIFT_CLI_EXE
set -u
exe=$(realpath "$1")
skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
command -v wine > /dev/null || skip "needs wine"
dnsmasq=$(command -v dnsmasq || echo /usr/sbin/dnsmasq)
[ -x "$dnsmasq" ] || skip "needs dnsmasq"
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../lib/netns_pair.sh
source "$here/../lib/netns_pair.sh"
netns_names tlp
work=$(mktemp -d /tmp/tl-probe-wine-XXXXXX)
dnsmasq_pid=
cleanup() {
  [ -n "$dnsmasq_pid" ] && kill "$dnsmasq_pid" 2> /dev/null && wait "$dnsmasq_pid" 2> /dev/null
  WINEPREFIX=$work/wine wineserver -k 2> /dev/null
  netns_remove
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
fail() {
  echo "FAIL: $*"
  cat "$work/out" 2> /dev/null
  tail -10 "$work/dnsmasq.log" 2> /dev/null
  exit 1
}
netns_pair 192.168.88.1
case $? in
  0) ;;
  2) skip "cannot create network namespaces" ;;
  *) fail "cannot join the namespaces by a veth pair" ;;
esac
export WINEPREFIX=$work/wine WINEDEBUG=-all
ip netns exec "$srv" wineboot -i > /dev/null 2>&1
ip netns exec "$rtr" "$dnsmasq" --no-daemon --conf-file=/dev/null --port=0 --pid-file= --user=root \
  --dhcp-leasefile="$work/leases" --log-facility=- --interface="$veth_b" --bind-interfaces \
  --dhcp-range=192.168.88.100,192.168.88.150,255.255.255.0,1h --dhcp-boot=other.efi \
  > "$work/dnsmasq.log" 2>&1 &
dnsmasq_pid=$!
for _ in $(seq 1 50); do grep -q started "$work/dnsmasq.log" 2> /dev/null && break; sleep 0.1; done
mac=$(ip -n "$rtr" -br link show "$veth_b" | awk '{print toupper($3)}')
ip netns exec "$srv" wine "$exe" doctor --client-address 192.168.88.1 --probe 2> /dev/null | tr -d '\r' > "$work/out"
grep "probe\|interface" "$work/out"
# The adapter's operational status: up, with its peer up.
grep -q "^ok   interface: .* 192.168.88.2/24 (MAC .*) for client 192.168.88.1, link up, carrier on" "$work/out" ||
  fail "the interface line"
# Wine's SendARP gives no answer: the MAC is "not known" there, never a guess.
grep -Eq "^warn probe: another boot server on this segment: 192.168.88.1 \(MAC ($mac|not known)\), offered 192.168.88.1[0-5][0-9], .*boot file 'other.efi', answered after [0-9.]+ s" \
  "$work/out" || fail "the other server is not listed"
echo "PASS"
