#!/usr/bin/env bash
# `tarnlift doctor` against real trouble, in network namespaces made here:
#   clean      a segment with nothing wrong: every line "ok", exit 0, and
#              --json says the same as the lines
#   held       dnsmasq holds UDP 67 and 69 on the server's interface: doctor
#              names it and its PID (exit 1); serve --netboot fails and names it
#   probe      a DHCP server (dnsmasq with a range, --no-ping) on the segment:
#              --probe lists its address and hardware address; --probe-seconds,
#              the progress line on a terminal, none in --json
#   probeping  the same with dnsmasq as it comes (it pings before offering and
#              answers after about 3 s): listed all the same
#   firewall   an nftables rule drops UDP 69: doctor warns and names the rule
#   nointerface  no address in the client's subnet: fail, with the addresses
#              that exist; serve's failure says the same
#   missing    a boot image folder without record 129: fail, with the search
#              order
#   doctor_netns.sh CASE TARNLIFT MKPKG
# Exit 77 (skipped) when not root, or without ip or dnsmasq.
set -u
case_name=$1
tarnlift=$(realpath "$2")
mkpkg=$(realpath "$3")

skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
dnsmasq=$(command -v dnsmasq || echo /usr/sbin/dnsmasq)
[ -x "$dnsmasq" ] || skip "needs dnsmasq"

here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../lib/netns_pair.sh
source "$here/../lib/netns_pair.sh"
netns_names tld
work=$(mktemp -d /tmp/tl-doctor-XXXXXX)
dnsmasq_pid=
cleanup() {
  [ -n "$dnsmasq_pid" ] && kill "$dnsmasq_pid" 2> /dev/null && wait "$dnsmasq_pid" 2> /dev/null
  netns_remove
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
  echo "FAIL ($case_name): $*"
  echo "--- doctor"; cat "$work/doctor.out" 2> /dev/null
  echo "--- stderr"; tail -20 "$work/doctor.err" 2> /dev/null
  echo "--- dnsmasq"; tail -20 "$work/dnsmasq.log" 2> /dev/null
  exit 1
}

netns_pair 192.168.88.1
case $? in
  0) ;;
  2) skip "cannot create network namespaces" ;;
  *) fail "cannot join the namespaces by a veth pair" ;;
esac

# A package folder with one good package, and a boot image folder with
# every record the servers and the disk road look up.
mkdir -p "$work/pk" "$work/boot" "$work/home"
"$mkpkg" "$work/pk/system-6.41.npk" --package system 6.41 --arch arm --description "base system" > /dev/null ||
  fail "cannot write a package"
head -c 3001 /dev/urandom > "$work/image"
for n in 120 124 125 126 127 128 129 130 131 132 134 135 136 137 138 139 142 143; do
  "$tarnlift" bootimage wrap "$n" "$work/image" "$work/boot" > /dev/null 2>&1 || fail "cannot wrap record $n"
done

in_srv() { HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share ip netns exec "$srv" "$@"; }
doctor() {
  local status
  in_srv "$tarnlift" doctor "$@" > "$work/doctor.out" 2> "$work/doctor.err"
  status=$?
  cat "$work/doctor.out"
  return $status
}
start_dnsmasq() {  # NAMESPACE ARGS...
  local ns=$1
  shift
  ip netns exec "$ns" "$dnsmasq" --no-daemon --conf-file=/dev/null --port=0 --pid-file= --user=root \
    --dhcp-leasefile="$work/leases" --log-facility=- "$@" > "$work/dnsmasq.log" 2>&1 &
  dnsmasq_pid=$!
  for _ in $(seq 1 50); do
    grep -q "started" "$work/dnsmasq.log" 2> /dev/null && return 0
    kill -0 "$dnsmasq_pid" 2> /dev/null || fail "dnsmasq did not start"
    sleep 0.1
  done
  fail "dnsmasq did not start"
}
common=(--client-address 192.168.88.1 --packages "$work/pk" --boot-images "$work/boot")

case $case_name in
  clean)
    doctor "${common[@]}" || fail "exit $? on a clean segment"
    grep -v '^ok ' "$work/doctor.out" && fail "a line that is not ok"
    grep -q "^ok   interface: $veth_a 192.168.88.2/24 .*link up, carrier on" "$work/doctor.out" ||
      fail "the interface line"
    [ "$(grep -c '^ok   port ' "$work/doctor.out")" = 4 ] || fail "four ports"
    cp "$work/doctor.out" "$work/lines"
    in_srv "$tarnlift" doctor "${common[@]}" --json > "$work/doctor.json" 2> /dev/null || fail "--json exit $?"
    python3 - "$work/doctor.json" "$work/lines" << 'PY' || fail "--json differs from the lines"
import json, sys
items = json.load(open(sys.argv[1]))
lines = open(sys.argv[2]).read().splitlines()
assert len(items) == len(lines), (len(items), len(lines))
for item, line in zip(items, lines):
    text = "%-4s %s: %s" % (item["level"], item["check"], item["found"])
    if item["fix"]:
        text += "; fix: " + item["fix"]
    assert text == line, (text, line)
print("json: %d findings match the lines" % len(items))
PY
    ;;
  held)
    mkdir -p "$work/tftp"
    start_dnsmasq "$srv" --interface="$veth_a" --bind-interfaces --enable-tftp --tftp-root="$work/tftp" \
      --dhcp-range=192.168.88.100,192.168.88.150,255.255.255.0,1h
    doctor "${common[@]}" && fail "exit 0 with the ports held"
    grep -q "^fail port 67/udp: held by dnsmasq (PID $dnsmasq_pid)" "$work/doctor.out" || fail "67 not named"
    grep -q "^fail port 69/udp: held by dnsmasq (PID $dnsmasq_pid)" "$work/doctor.out" || fail "69 not named"
    grep -q "^fail port 69/udp: .*fix: stop dnsmasq (PID $dnsmasq_pid)" "$work/doctor.out" || fail "no fix"
    # The server itself: the fatal text as it was, then the holder.
    in_srv timeout --foreground 30 "$tarnlift" serve --client-address 192.168.88.1 --packages "$work/pk" --boot-images "$work/boot" \
      --netboot > "$work/serve.out" 2> "$work/serve.err"
    status=$?
    cat "$work/serve.err" | grep -i -A1 "bind"
    [ "$status" = 1 ] || fail "serve exit $status"
    grep -q "bind .*failed: Address already in use" "$work/serve.err" || fail "the fatal text changed"
    grep -q "doctor: fail port 6[79]/udp: held by dnsmasq (PID $dnsmasq_pid)" "$work/serve.err" ||
      fail "serve's failure does not name dnsmasq"
    ;;
  probe)
    # A server that answers at once; --probe-seconds shortens the wait, and
    # on a terminal one line says how far the probe is (never in --json).
    start_dnsmasq "$rtr" --interface="$veth_b" --bind-interfaces \
      --dhcp-range=192.168.88.100,192.168.88.150,255.255.255.0,1h --dhcp-boot=other.efi --no-ping
    mac=$(ip -n "$rtr" -br link show "$veth_b" | awk '{print toupper($3)}')
    started=$(date +%s%N)
    # `script` gives the program a terminal for standard output (standard
    # error, the log, goes to a file).
    TERM=xterm in_srv script -qec "$tarnlift doctor ${common[*]} --probe --probe-seconds 2 2> $work/doctor.err" \
      /dev/null > "$work/doctor.out"
    took=$((($(date +%s%N) - started) / 1000000))
    tr -d '\r' < "$work/doctor.out" | sed 's/.*\x1b\[K//' > "$work/lines"
    cat "$work/lines"
    grep -q "^warn probe: another boot server on this segment: 192.168.88.1 (MAC $mac), offered 192.168.88.1[0-5][0-9], .*boot file 'other.efi', answered after [0-9.]* s" \
      "$work/lines" || fail "the other server is not listed"
    grep -q $'probe: listening [0-2] of 2 s, DHCPDISCOVER 1 of 1 sent, 1 answer\r' "$work/doctor.out" ||
      fail "no progress line on a terminal"
    [ "$took" -ge 2000 ] && [ "$took" -lt 7000 ] || fail "--probe-seconds 2 took $took ms"
    TERM=xterm in_srv script -qec "$tarnlift doctor ${common[*]} --probe --probe-seconds 1 --json 2> /dev/null" \
      /dev/null > "$work/doctor.json"
    grep -q "probe: listening" "$work/doctor.json" && fail "a progress line in --json"
    python3 -c 'import json, sys; assert any(f["check"] == "probe" and f["level"] == "warn" for f in json.load(sys.stdin))' \
      < "$work/doctor.json" || fail "--json on a terminal"
    in_srv "$tarnlift" doctor "${common[@]}" --probe-seconds 3 > /dev/null 2>&1
    [ $? = 2 ] || fail "--probe-seconds without --probe is not a usage error"
    in_srv "$tarnlift" doctor "${common[@]}" --probe --probe-seconds 0 > /dev/null 2>&1
    [ $? = 2 ] || fail "--probe-seconds 0 is not a usage error"
    echo "doctor --probe --probe-seconds 2 took $took ms"
    ;;
  probeping)
    # dnsmasq as it comes: it pings an address before offering it, so it
    # answers about 3 s after the DHCPDISCOVER. The probe listens like a DHCP
    # client (DHCPDISCOVER at 0 and 4 s, 8 s in all) and lists it.
    start_dnsmasq "$rtr" --interface="$veth_b" --bind-interfaces \
      --dhcp-range=192.168.88.100,192.168.88.150,255.255.255.0,1h --dhcp-boot=other.efi
    mac=$(ip -n "$rtr" -br link show "$veth_b" | awk '{print toupper($3)}')
    started=$(date +%s%N)
    doctor "${common[@]}" --probe
    took=$((($(date +%s%N) - started) / 1000000))
    grep -q "^warn probe: another boot server on this segment: 192.168.88.1 (MAC $mac), offered 192.168.88.1[0-5][0-9], .*boot file 'other.efi', answered after [0-9.]* s" \
      "$work/doctor.out" || fail "the default dnsmasq is not listed"
    [ "$(grep -c '^warn probe:' "$work/doctor.out")" = 1 ] || fail "not one line for the one server"
    [ "$took" -ge 8000 ] || fail "the probe listened $took ms, not 8 s"
    echo "doctor --probe took $took ms"
    ;;
  firewall)
    command -v nft > /dev/null || skip "needs nft"
    ip netns exec "$srv" nft add table inet tltest || fail "nft table"
    ip netns exec "$srv" nft add chain inet tltest input '{ type filter hook input priority 0; policy accept; }' ||
      fail "nft chain"
    ip netns exec "$srv" nft add rule inet tltest input udp dport 69 drop || fail "nft rule"
    doctor "${common[@]}"
    grep -q "^warn firewall: rule [0-9]* of inet tltest input (udp dport 69 drop) drops incoming UDP 69" \
      "$work/doctor.out" || fail "the rule is not named"
    grep -q "^fail" "$work/doctor.out" && fail "a firewall rule is a warning, not a failure"
    ;;
  nointerface)
    doctor --client-address 10.77.0.1 --packages "$work/pk" --boot-images "$work/boot" && fail "exit 0 without interface"
    grep -q "^fail interface: no interface is in the subnet of 10.77.0.1; the addresses that exist: $veth_a 192.168.88.2/24" \
      "$work/doctor.out" || fail "the interface line"
    in_srv timeout --foreground 30 "$tarnlift" serve --client-address 10.77.0.1 --packages "$work/pk" > /dev/null 2> "$work/serve.err"
    status=$?
    cat "$work/serve.err"
    [ "$status" = 1 ] || fail "serve exit $status"
    grep -q "no network interface reaches 10.77.0.1" "$work/serve.err" || fail "the failure text changed"
    grep -q "doctor: fail interface: .*the addresses that exist: $veth_a 192.168.88.2/24" "$work/serve.err" ||
      fail "serve does not list the addresses"
    ;;
  missing)
    rm "$work/boot/129.bin"
    doctor "${common[@]}" && fail "exit 0 with a record missing"
    grep -q "^ok   boot images: searched in this order: $work/boot, then placeholder" "$work/doctor.out" ||
      fail "no search order"
    grep -q '^fail boot images: no record 129 (vendor class "Powerboot")' "$work/doctor.out" || fail "129 not named"
    ;;
  *) fail "unknown case" ;;
esac
echo "PASS ($case_name)"
